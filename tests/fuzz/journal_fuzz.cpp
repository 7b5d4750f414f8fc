// The journal reader on damaged journals. Input: a selector byte, then bytes. Selector bit 0 set:
// the bytes are the whole journal file. Otherwise a journal is built from them (its header, two
// commit sectors and the record the newer one names, with the undo of its blocks, each with its
// checksum right), then the rest of the input changes it ((position, value) pairs) and the last of
// them may cut it short. Also, every input is decoded as the head of a record and as a main
// file's mark. Whatever the reader accepts must hold together.
#include <algorithm>
#include <cstring>

#include "fuzz_target.h"
#include "aes_core.h"
#include "block_undo.h"
#include "database.h"
#include "journal_format.h"

namespace {

using bt::journal::kCommitBytes;
using bt::journal::kCommitOffset;
using bt::journal::kRecordsOffset;

// Takes values from the input in order; zeros once it is used up.
struct Source {
  const std::uint8_t* p;
  std::size_t size, at = 0;
  std::uint32_t Next(std::uint32_t bytes) {
    std::uint32_t v = 0;
    for (std::uint32_t i = 0; i < bytes; ++i) v = v << 8 | (at < size ? p[at++] : 0);
    return v;
  }
};

std::vector<std::uint8_t> BuildJournal(Source& in) {
  bt::journal::Header header;
  header.runId = in.Next(2);
  for (std::size_t i = 0; i < 16; ++i) header.label[i] = static_cast<std::uint8_t>(in.Next(1));
  header.mainFile = std::string(in.Next(1) % 8, 'F');
  header.directories.resize(in.Next(1) % 3, "dir/");
  header.volumes.resize(in.Next(1) % 4);
  for (auto& v : header.volumes) v.directory = static_cast<std::uint16_t>(in.Next(1) % 4);
  std::vector<std::uint8_t> file = bt::journal::EncodeHeader(header);
  file.resize(kRecordsOffset);

  bt::journal::RecordHead head;
  head.runId = in.Next(1) < 16 ? header.runId + 1 : header.runId;
  head.number = in.Next(1) % 3;
  head.blockSize = 4096u << in.Next(1) % 2;
  head.resumeBlock = in.Next(2);
  head.maps.listed.resize(in.Next(1) % 4, 7);
  head.landed.resize(in.Next(1) % 3, {0, 4096, 1, 2});
  head.sample.resize(in.Next(1) % 3, {1, 0, 3, 4});
  head.entries.resize(in.Next(1) % 4);
  for (auto& e : head.entries) {
    e.volume = in.Next(1) % 4;
    e.blocks = in.Next(1) % 3;
    e.position = in.Next(2);
  }
  std::vector<std::uint8_t> record = bt::journal::EncodeRecordHead(head);
  // Each block's write changes the words that a byte of the input picks, more or fewer of them:
  // some reversed, some changed otherwise.
  std::vector<std::uint8_t> before(head.blockSize);
  for (std::size_t i = 0; i < before.size(); ++i) before[i] = static_cast<std::uint8_t>(i * 7);
  std::vector<std::uint8_t> after(head.blockSize), undo(bt::journal::MaxBlockUndoBytes(head.blockSize));
  for (const auto& e : head.entries)
    for (std::uint32_t k = 0; k < e.blocks; ++k) {
      const std::uint32_t pick = in.Next(1);
      for (std::size_t i = 0; i < after.size(); ++i) {
        const std::size_t choice = (i / 8 * 37 + pick) % 16 < pick % 17 ? i / 8 % 2 : 2;
        after[i] = choice == 0 ? 0x5A : choice == 1 ? before[i ^ 7] : before[i];
      }
      const auto effort = pick % 2 == 0 ? bt::journal::Effort::kSmallest : bt::journal::Effort::kQuick;
      const std::size_t n = bt::journal::EncodeBlockUndo(before.data(), after.data(), head.blockSize, 1, false, effort, undo.data());
      record.insert(record.end(), undo.begin(), undo.begin() + static_cast<std::ptrdiff_t>(n));
    }

  bt::journal::Commit commits[2];
  for (int s = 0; s < 2; ++s) {
    commits[s].runId = header.runId;
    commits[s].number = in.Next(1) % 3;
    commits[s].open = 1 + in.Next(1) % 2;
    for (bt::journal::RecordPlace& p : commits[s].records)
      p = {kRecordsOffset + 4096 * (in.Next(1) % 4), record.size() - in.Next(1) % 2,
           bt::journal::ChecksumOf(record.data(), record.size())};
    bt::journal::EncodeCommit(commits[s], file.data() + kCommitOffset + kCommitBytes * s);
  }
  const bt::journal::Commit& newer = commits[0].number >= commits[1].number ? commits[0] : commits[1];
  for (const bt::journal::RecordPlace& p : newer.records) {
    file.resize(std::max<std::size_t>(file.size(), p.offset + record.size()));
    std::copy(record.begin(), record.end(), file.begin() + static_cast<std::ptrdiff_t>(p.offset));
  }

  while (in.at + 4 <= in.size) {
    const std::uint32_t position = in.Next(3) % (file.size() + 1);
    const std::uint8_t value = static_cast<std::uint8_t>(in.Next(1));
    if (position == file.size()) {
      file.resize(value * file.size() / 256);
    } else {
      file[position] = value;
    }
  }
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A database key, so that undos over the plaintext are put back too.
  static const bool keyed = [] {
    const std::uint8_t key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    crypto::AesSetEncryptKey(key, 16, bt::encryptionKeySchedule);
    crypto::AesSetDecryptKey(key, 16, bt::decryptionKeySchedule);
    return bt::databaseKeyLoaded = true;
  }();
  if (size < 1 || !keyed) return 0;
  bt::journal::RecordHead head;
  std::size_t undoOffset = 0;
  if (bt::journal::DecodeRecordHead(data + 1, size - 1, head, undoOffset) && undoOffset > size - 1) __builtin_trap();
  // And as the mark at the end of a main file, of the size its first sector claims.
  std::vector<std::uint8_t> area(bt::journal::kMarkBytes);
  std::copy_n(data + 1, std::min(size - 1, area.size()), area.begin());
  bt::journal::Mark mark;
  if (bt::journal::DecodeMark(area.data(), bt::LoadLE64(area.data() + 20) + bt::journal::kMarkBytes, mark) &&
      mark.journalPath.size() > bt::journal::kSectorBytes)
    __builtin_trap();

  Source in{data + 1, size - 1};
  const std::vector<std::uint8_t> file =
      data[0] & 1 ? std::vector<std::uint8_t>(data + 1, data + size) : BuildJournal(in);
  // Reads that would leave the file fail, as a short read of the platform does.
  const auto read = [&](std::uint64_t position, std::uint8_t* buffer, std::size_t n) {
    if (position > file.size() || n > file.size() - position) return false;
    if (n != 0) std::memcpy(buffer, file.data() + position, n);
    return true;
  };
  bt::journal::Found found;
  std::string why;
  if (!bt::journal::ReadJournal(read, file.size(), found, why)) {
    if (why.empty()) __builtin_trap();  // a refusal always says why
    return 0;
  }
  if (found.header.volumes.empty()) __builtin_trap();
  if (found.commit.number == 0) return 0;
  if (found.records.size() != found.commit.open) __builtin_trap();
  // The undo of every block fits, they fill each record exactly, and putting them back stays in the block.
  for (std::size_t r = 0; r < found.records.size(); ++r) {
    const bt::journal::Record& record = found.records[r];
    if (record.bytes.size() != found.commit.records[r].size || record.undoOffset > record.bytes.size() ||
        record.head.number != found.commit.number - r)
      __builtin_trap();
    std::vector<std::uint8_t> block(record.head.blockSize);
    std::size_t at = record.undoOffset;
    for (const auto& e : record.head.entries)
      for (std::uint32_t k = 0; k < e.blocks; ++k) {
        const std::size_t n =
            bt::journal::BlockUndoSize(record.bytes.data() + at, record.bytes.size() - at, record.head.blockSize);
        if (n == 0) __builtin_trap();
        bt::journal::ApplyBlockUndo(record.bytes.data() + at, record.head.blockSize, 1, block.data());
        at += n;
      }
    if (at != record.bytes.size()) __builtin_trap();
  }
  return 0;
}
