#include "check_run.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "block_batch.h"
#include "compression.h"
#include "driver.h"
#include "map_block.h"
#include "messages.h"
#include "state.h"
#include "volume_io.h"

namespace bt {

namespace {

// The writes held for one database file: its blocks at their own places in one temporary file,
// and in another one byte per block, 1 where a block is held. Both stay sparse.
struct HeldFile {
  platform::FileIdentity identity;
  platform::File blocks = platform::kInvalidFile, marks = platform::kInvalidFile;
  bool any = false;
};

struct CheckState {
  std::vector<HeldFile> held;
  std::vector<std::pair<platform::File, platform::FileIdentity>> open;  // the handles of database files
  std::set<std::pair<platform::FileIdentity, std::uint64_t>> needed;    // blocks written in turn that are read again
  bool holdAll = false;    // every write is held
  bool astray = false;     // this pass read a block that had its turn and was not held
  std::uint64_t shownBeforeAstray = 0;
  std::uint64_t rewritten = 0;  // blocks written out of order, each counted once
} check;

// A temporary file could not be made, written or read: the check cannot go on.
struct CannotTell {
  std::string why;
};

[[noreturn]] void TemporaryFileFailed() { throw CannotTell{ErrorText()}; }

platform::FileIdentity IdentityOfOpen(platform::File file) {
  for (const auto& [handle, identity] : check.open)
    if (handle == file) return identity;
  return platform::IdentityOf(file);
}

HeldFile* FindHeld(const platform::FileIdentity& identity) {
  for (HeldFile& h : check.held)
    if (h.identity == identity) return &h;
  return nullptr;
}

HeldFile& HeldFor(const platform::FileIdentity& identity) {
  if (HeldFile* h = FindHeld(identity)) return *h;
  HeldFile h;
  h.identity = identity;
  h.blocks = platform::CreateTemporaryFile();
  if (h.blocks == platform::kInvalidFile) TemporaryFileFailed();
  h.marks = platform::CreateTemporaryFile();
  if (h.marks == platform::kInvalidFile) {
    platform::Close(h.blocks);
    TemporaryFileFailed();
  }
  check.held.push_back(h);
  return check.held.back();
}

void ForgetHeldWrites() {
  for (HeldFile& h : check.held) {
    platform::Close(h.blocks);
    platform::Close(h.marks);
  }
  check.held.clear();
  check.rewritten = 0;
}

void GoAstray(const platform::FileIdentity& identity, std::uint64_t position) {
  check.needed.insert({identity, position});
  if (check.astray) return;
  check.astray = true;
  check.shownBeforeAstray = OutputMade();
  MuteOutput();
}

// A new pass of the block loop from its first block, showing nothing of the first alreadyShown
// bytes of its output.
void BeginPass(std::uint64_t alreadyShown) {
  check.astray = false;
  DiscardHeldOutput();
  HoldOutput(false);
  CountOutput(alreadyShown);
  CloseHandleCache();
  EmptyHandleCache();
  ResetMaps();
  ForgetVolumes();
  ForgetHeldWrites();
  // A library that failed to load is reported again, as in the pass before.
  for (compression::CompressionMethod& method : compression::compressionMethodTable)
    method.stateFlags &= ~compression::kLoadFailed;
}

// The failure's text on one line: each run of line ends becomes a space, none is left before a
// closing parenthesis (the system's texts end in a line end) or at either end.
std::string OneLine(const std::string& text) {
  std::string line;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r' && text[i] != '\n') {
      line += text[i];
      continue;
    }
    while (i + 1 < text.size() && (text[i + 1] == '\r' || text[i + 1] == '\n')) ++i;
    if (i + 1 < text.size() && text[i + 1] != ')' && !line.empty()) line += ' ';
  }
  return line;
}

enum class Outcome { kNotStarted, kReport, kStopped, kCompleted, kCannotTell };

int Verdict(Outcome outcome, const std::string& lockPath, const std::string& why = "") {
  std::string text;
  char line[1024];
  const std::string failure = OneLine(LastFailure());
  switch (outcome) {
    case Outcome::kReport:
      text = "byteturn would report on the database and change nothing.";
      break;
    case Outcome::kNotStarted:
      text = "byteturn would not start the conversion (" + (failure.empty() ? std::string("usage error") : failure) +
             "); nothing would be written.";
      break;
    case Outcome::kStopped:
      std::snprintf(line, sizeof line,
                    "byteturn would stop at block #%u (%s), with %llu blocks before it written back and the rest "
                    "left as they are%s.",
                    runProgress.turn, failure.c_str(), static_cast<unsigned long long>(runProgress.written),
                    lockPath.empty() ? "" : "; the lock would stay in place");
      text = line;
      break;
    case Outcome::kCompleted: {
      const std::uint64_t left = runProgress.passedOver > check.rewritten ? runProgress.passedOver - check.rewritten : 0;
      std::snprintf(line, sizeof line,
                    "byteturn would complete the conversion to %s: %llu blocks converted (%llu of them big string "
                    "blocks, through the nodes that name them), %llu left as they are. Nothing was written: a "
                    "write or flush failure cannot be foreseen.",
                    swapFlag ? "little-endian" : "big-endian",
                    static_cast<unsigned long long>(runProgress.written + check.rewritten),
                    static_cast<unsigned long long>(check.rewritten), static_cast<unsigned long long>(left));
      text = line;
      break;
    }
    case Outcome::kCannotTell:
      text = "cannot tell whether byteturn would complete: the blocks it rewrites could not be kept in a temporary "
             "file (" + why + ").";
      break;
  }
  std::fflush(stdout);
  std::printf("\r\nbyteturn-check: %s\r\n", text.c_str());
  std::fflush(stdout);
  return outcome == Outcome::kReport || outcome == Outcome::kCompleted ? 0 : 1;
}

}  // namespace

void NoteDatabaseFileOpened(platform::File file) {
  const platform::FileIdentity identity = platform::IdentityOf(file);
  for (auto& entry : check.open) {
    if (entry.first != file) continue;
    entry.second = identity;
    return;
  }
  check.open.emplace_back(file, identity);
}

void SeeWritesOfTheRun(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) {
  if (!runProgress.started || blockSize == 0) return;  // before the block loop nothing is written
  const platform::FileIdentity identity = IdentityOfOpen(file);
  const std::uint32_t count = size / blockSize;
  if (!check.holdAll) {
    for (std::uint32_t k = 0; k < count; ++k) {
      const std::uint64_t at = position + std::uint64_t{k} * blockSize;
      if (PassedInTurn(identity, at) && check.needed.count({identity, at}) == 0) GoAstray(identity, at);
    }
  }
  const HeldFile* h = FindHeld(identity);
  if (h == nullptr || !h->any) return;
  std::uint8_t marks[256];
  for (std::uint32_t from = 0; from < count; from += sizeof marks) {
    const std::uint32_t n = std::min<std::uint32_t>(count - from, sizeof marks);
    const std::int64_t got = platform::ReadAt(h->marks, marks, n, position / blockSize + from);
    if (got < 0) TemporaryFileFailed();
    for (std::uint32_t k = static_cast<std::uint32_t>(got); k < n; ++k) marks[k] = 0;  // past its end: none held
    for (std::uint32_t k = 0; k < n; ++k) {
      if (marks[k] == 0) continue;
      const std::uint64_t at = position + std::uint64_t{from + k} * blockSize;
      if (platform::ReadAt(h->blocks, buffer + std::size_t{from + k} * blockSize, blockSize, at) != blockSize)
        TemporaryFileFailed();
    }
  }
}

bool HoldWrite(platform::File file, std::uint64_t position, const std::uint8_t* buffer, std::uint32_t size,
               bool inTurn) {
  HeldFile& h = HeldFor(IdentityOfOpen(file));
  for (std::uint32_t k = 0; k < size / blockSize; ++k) {
    const std::uint64_t at = position + std::uint64_t{k} * blockSize;
    std::uint8_t mark = 0;
    if (platform::ReadAt(h.marks, &mark, 1, at / blockSize) < 0) TemporaryFileFailed();
    if (mark == 0 && !inTurn) ++check.rewritten;
    mark = 1;
    if (platform::WriteAt(h.marks, &mark, 1, at / blockSize) != 1) TemporaryFileFailed();
  }
  if (platform::WriteAt(h.blocks, buffer, size, position) != size) TemporaryFileFailed();
  h.any = true;
  return true;
}

bool HoldsWriteInTurn(const platform::FileIdentity& file, std::uint64_t position) {
  return check.holdAll || (!check.needed.empty() && check.needed.count({file, position}) != 0);
}

int CheckMain(int argc, const char* const* argv) {
  checkRun = true;
  CommandLine commandLine;
  std::string lockPath;
  try {
    lockPath = PrepareRun(argc, argv, commandLine);
  } catch (const RunEnded& end) {
    return Verdict(end.status == 0 ? Outcome::kReport : Outcome::kNotStarted, lockPath);
  }
  std::uint64_t alreadyShown = 0;
  for (int pass = 1;; ++pass) {
    BeginPass(alreadyShown);
    int status = 0;
    try {
      ConvertVolumes(commandLine.verbose);
    } catch (const RunEnded& end) {
      status = end.status;
    } catch (const CannotTell& failure) {
      HoldOutput(false);
      return Verdict(Outcome::kCannotTell, lockPath, failure.why);
    }
    HoldOutput(false);
    if (!check.astray) return Verdict(status == 0 ? Outcome::kCompleted : Outcome::kStopped, lockPath);
    alreadyShown = check.shownBeforeAstray;
    if (pass >= 2) check.holdAll = true;
  }
}

}  // namespace bt
