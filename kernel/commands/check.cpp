#include "check.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "driver.h"
#include "held_store.h"
#include "pass.h"
#include "start_run.h"
#include "messages.h"
#include "database.h"
#include "store.h"
#include "volume_io.h"

namespace bt {

namespace {

// A new pass of the block loop from its first block, showing nothing of the first alreadyShown
// bytes of its output.
void BeginPass(std::uint64_t alreadyShown) {
  DiscardHeldOutput();
  HoldOutput(false);
  CountOutput(alreadyShown);
  BeginHeldPass();
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

int Verdict(Outcome outcome, const RunProgress& progress, const std::string& lockPath, const std::string& why = "") {
  std::string text;
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
      text = "byteturn would stop at block #" + std::to_string(progress.turn) + " (" + failure + "), with " +
             std::to_string(progress.written) + " blocks before it written back and the rest left as they are" +
             (lockPath.empty() ? "." : "; the lock would stay in place.");
      break;
    case Outcome::kCompleted: {
      const std::uint64_t rewritten = HeldPassOutcome().rewritten;
      const std::uint64_t left = progress.passedOver > rewritten ? progress.passedOver - rewritten : 0;
      text = std::string("byteturn would complete the conversion to ") + (swapFlag ? "little-endian" : "big-endian") +
             ": " + std::to_string(progress.written + rewritten) + " blocks converted (" +
             std::to_string(rewritten) + " of them big string blocks, through the nodes that name them), " +
             std::to_string(left) + " left as they are. Nothing was written: a write or flush failure cannot be "
             "foreseen.";
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

int CheckMain(int argc, const char* const* argv) {
  UseStore(HeldStore());
  CommandLine commandLine;
  std::string lockPath;
  try {
    lockPath = StartRun(argc, argv, commandLine);
  } catch (const RunEnded& end) {
    return Verdict(end.status == 0 ? Outcome::kReport : Outcome::kNotStarted, RunProgress{}, lockPath);
  }
  std::uint64_t alreadyShown = 0;
  for (int pass = 1;; ++pass) {
    BeginPass(alreadyShown);
    RunProgress progress;
    int status = 0;
    try {
      Pass run;
      try {
        ConvertVolumes(run, commandLine.verbose, 1);
      } catch (const RunEnded& end) {
        status = end.status;
      }
      progress = run.progress;
    } catch (const CannotTell& failure) {
      HoldOutput(false);
      return Verdict(Outcome::kCannotTell, RunProgress{}, lockPath, failure.why);
    }
    HoldOutput(false);
    EndHeldPass(pass >= 2);
    const HeldPass outcome = HeldPassOutcome();
    if (!outcome.astray) return Verdict(status == 0 ? Outcome::kCompleted : Outcome::kStopped, progress, lockPath);
    alreadyShown = outcome.shownBeforeAstray;
  }
}

}  // namespace bt
