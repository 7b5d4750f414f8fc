// The journal file of a conversion run. All numbers are little-endian.
//
//   [0, kHeaderBytes)          header: what the run was given (the label block as it was before
//                              the run, the volume set with its directories as full paths, the
//                              identity of every file, the main file's size and its lock), checksummed
//   kCommitOffset + 512 * s    two commit sectors (s = 0, 1; the commit of number n is in sector
//                              n % 2), each naming the last record that is whole on disk, and the
//                              ones before it whose groups' writes the files may not hold whole
//                              yet, with the checksum of each, checksummed itself
//   kTableOffset               (version 6) the table of written blocks: by block number, 2 bytes
//                              each, the fingerprint of the block as the run last wrote it (0: not
//                              written), of every group whose files were flushed
//   from RecordsStart(header)  records, 4096-aligned: a group of writes, the point of the run before
//                              them (its block, its maps), what the files must hold where the group
//                              does not write (below), and, for each block written, the undo of
//                              the write (block_undo.h): the words it changes, as they were or as
//                              the write reordered their bytes
//
// A commit sector is written only after the records it names are flushed, and the database is
// written only after the commit sector is flushed; a 512-byte sector is written whole or not at
// all. So a commit sector whose own checksum fails, or that names a record whose checksum fails,
// was damaged after it was written: such a journal is refused, never applied. The files are not
// flushed before every commit: a commit names the records of the groups written since the last
// flush before it (at most kMostOpenRecords, its own the latest), and the recovery puts back all of
// them, the latest first. No two of them write the same block: before a commit whose group writes
// a block again that such a group wrote, the files are flushed after that group's writes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "byteorder.h"
#include "map_block.h"
#include "platform.h"
#include "undo_codec.h"

namespace bt::journal {

// Version 5 gave each block's undo a kind byte (block_undo.h); journals of version 4 are refused.
// Version 6 added the key check and the volumes' sizes to the header, and the table of written
// blocks; a journal of version 5 is read without them. Version 7 stores each sector's last changed
// word in an undo too (block_undo.h, kinds 2 and 3). Version 8 names the spans the conversion
// reversed (kinds 4 and 5) instead of each word's order, so that a field across two words no
// longer takes its words stored, nor an encrypted block its ciphertext whole. The undos of
// earlier versions are read as they are. Version 9 lets a commit name the records before the last
// too (a commit of an earlier version names one). Version 10 tells a sector's state by its first
// and last changed bytes instead of storing its first and last words (kinds 6 and 7), and an undo
// over the plaintext no longer keeps the 16 bytes before each sector. Version 11 names the lock the
// run took by its identity and time as well as its path. Version 12 marks a main file shorter than
// its blocks too; before, such a file took no mark. Version 13 mixes each word of a block before
// its fingerprint adds it up; a journal of an earlier version keeps the fingerprints it was written
// with. Version 14 says in the last commit that the run completed, before the run cuts its mark off:
// a main file without the mark beside a journal whose run did not complete had it cut off otherwise.
// Version 15 writes the table entries of the records still in effect before that last commit, so
// that the table of a completed run names every block it wrote; and where a commit sector's write
// fails, the commit in effect is written again in the other sector, saying that the failed one may
// be damaged (before, a sector part written left the journal unusable).
inline constexpr std::uint32_t kVersion = 15, kOldestVersion = 5;
inline constexpr std::uint32_t kMarkVersion = 4;  // the mark has not changed since version 4
inline constexpr std::uint32_t kShortFilesMarkedVersion = 12;  // a main file shorter than its blocks too
inline constexpr std::uint32_t kMixedFingerprintVersion = 13;
inline constexpr std::uint32_t kCompletionVersion = 14;  // the last commit tells a run completed
inline constexpr std::uint32_t kWholeTableVersion = 15;  // and the table then names every block written
inline constexpr std::uint32_t kFailedCommitVersion = 15;  // a commit may say the other sector failed
inline constexpr std::size_t kLabelCopyBytes = 4096;
inline constexpr std::uint64_t kHeaderBytes = 32768;
inline constexpr std::uint64_t kCommitOffset = kHeaderBytes;
inline constexpr std::size_t kCommitBytes = 512;
inline constexpr std::uint64_t kRecordsOffset = kHeaderBytes + 4096;
inline constexpr std::uint64_t kTableOffset = kRecordsOffset;
inline constexpr std::uint64_t kRecordAlignment = 4096;

// A checksum of 64 bits over a stream of bytes (four lanes of multiply-rotate rounds): it tells a
// torn, cut, zeroed or altered piece from the one written, not an attacker's forgery.
class Checksum {
 public:
  explicit Checksum(std::uint64_t seed = 0);
  void Add(const std::uint8_t* bytes, std::size_t size);
  std::uint64_t Value() const;

 private:
  std::uint64_t lanes_[4];
  std::uint8_t pending_[32];
  std::size_t pendingSize_ = 0;
  std::uint64_t total_ = 0;
};
std::uint64_t ChecksumOf(const std::uint8_t* bytes, std::size_t size);

struct VolumeRecord {
  std::uint16_t directory = 0;  // 0: the primary directory, k: additional directory k - 1
  std::uint32_t firstBlock = 0;
  platform::FileIdentity identity;
  std::uint64_t size = 0;  // a further volume's bytes before the run (0: not known, as in version 5)
};

// Paths are full paths, as the run resolved them: a recovery started anywhere finds the files.
struct Header {
  std::uint32_t version = kVersion;  // of the journal as read
  std::uint64_t runId = 0;
  bool verbose = true;
  std::uint8_t label[kLabelCopyBytes] = {};  // the first bytes of the main file before the run
  std::string mainFile, mainDirectory, primaryDirectory;
  std::vector<std::string> directories;
  std::vector<VolumeRecord> volumes;  // the main file first, then volumes 1..n
  std::uint64_t mainFileSize = 0;     // before the run; the run's mark lies there (mark.h)
  std::string lockPath;               // the lock the run took, "" for none
  // Of that lock, its identity and when it last changed ({} and 0: not known, as before version 11).
  platform::FileIdentity lockIdentity;
  std::uint64_t lockChanged = 0;
  // Of an encrypted database: KeyCheck(runId) under the key the run was given, so that a recovery
  // given another key of the same key ID is refused. None in a journal of version 5.
  bool keyChecked = false;
  std::uint64_t keyCheck = 0;
  std::uint32_t tableBlocks = 0;  // entries of the table of written blocks (0: none, as in version 5)
};
// Where the records begin: after the table of written blocks.
std::uint64_t RecordsStart(const Header& header);
// A block's entry in the table of written blocks, in a journal of version: a sum over every word
// of the block (mixed), each weighed by its place (so that any sector or byte of it as it was
// before the run shows, not only its header), mixed and folded to 2 bytes, never 0.
std::uint16_t Fingerprint(const std::uint8_t* block, std::size_t size, std::uint32_t version);
std::vector<std::uint8_t> EncodeHeader(const Header& header);
// False with why set when the bytes are not a whole header of this version.
bool DecodeHeader(const std::uint8_t* bytes, std::size_t size, Header& header, std::string& why);

struct RecordPlace {
  std::uint64_t offset = 0, size = 0, checksum = 0;
};
inline constexpr std::uint32_t kMostOpenRecords = 4;
struct Commit {
  std::uint64_t runId = 0, number = 0;  // number 0: no record yet
  // The records of the groups whose writes the files may not hold whole, the latest (number) first:
  // those after the last group whose files were flushed before this commit.
  std::uint32_t open = 1;
  RecordPlace records[kMostOpenRecords];
  // The run completed: every file is flushed, and the mark is about to be cut off (version 14;
  // the top bit of the word that holds open).
  bool complete = false;
  // The other commit sector's last write failed and may have left it part written: this commit is
  // the one in effect (version 15; the next bit down).
  bool otherFailed = false;
};
void EncodeCommit(const Commit& commit, std::uint8_t* sector);
// version: the journal's (a commit of a version before 9 names one record).
bool DecodeCommit(const std::uint8_t* sector, Commit& commit, std::uint32_t version = kVersion);

// One write of the group: blocks whole blocks at position of a volume file.
struct Entry {
  std::uint32_t volume = 0, blocks = 0;
  std::uint64_t position = 0;
};
// A block the run wrote, by the checksum of its first sector (where every block's header lies,
// which the conversion turns): as the run last wrote it (after) and, in the sample, as it was
// before the run (before). A recovery finds the files as the run left them only where every block
// that the record's own writes do not cover holds its after: a file restored from a backup, or
// another file in its place, does not.
struct Check {
  std::uint32_t volume = 0;
  std::uint64_t position = 0, before = 0, after = 0;
};
inline constexpr std::size_t kCheckedBytes = 512;
struct RecordHead {
  std::uint64_t runId = 0, number = 0;
  std::uint32_t blockSize = 0, resumeBlock = 0;
  MapState maps;
  std::vector<Entry> entries;
  // The blocks of the group before, as it wrote them (flushed before this record's commit), and a
  // sample spread over every block the run wrote so far, the label block always among them: those
  // whose key hashes to a multiple of sampleModulus.
  std::vector<Check> landed, sample;
  std::uint64_t sampleModulus = 1;
};
std::vector<std::uint8_t> EncodeRecordHead(const RecordHead& head);
// Decodes the head at the start of a record of size bytes; undoOffset is where the undo of its
// blocks begins. False when it is malformed or the undo of its blocks does not fill the rest of
// the record exactly.
bool DecodeRecordHead(const std::uint8_t* bytes, std::size_t size, RecordHead& head, std::size_t& undoOffset);

// The mark of a run in progress: kMarkBytes appended to the main file (at the header's
// mainFileSize) before the run writes anything, flushed, and cut off again once the run is
// complete. It travels with the file wherever it is moved, copied or renamed, and names the
// journal (its full path and run), so that byteturn and byteturn-check refuse a database whose
// conversion was interrupted, and byteturn-recover finds its journal, whatever the file is called
// now and whatever the environment. It also tells how far the files got: group g's writes end with
// the mark of group g in sector g % 2 of it (a sector is written whole or not at all), so the
// files flushed before commit n hold the mark of the last group it settled (the one before the
// records it names) or later, and never one past the commit in effect: a journal older than the
// files, or files older than the journal, show. Where the
// journal's full path does not fit in a sector, the mark names none (an empty path): the journal
// is then looked for where the file's journals go. A main file shorter than its blocks takes the
// mark as well (from version 12 on): the run's reads that reach past its size fail as they would
// without it.
inline constexpr std::uint64_t kMarkBytes = 4096;
struct Mark {
  std::uint64_t runId = 0, originalSize = 0, group = 0;
  std::string journalPath;
};
// The sector of the mark of mark.group; false when the path does not fit in it.
bool EncodeMark(const Mark& mark, std::uint8_t* sector);
// The mark that the last kMarkBytes of a file of fileSize bytes hold (the later group of its two
// sectors), if they are a mark of that file.
bool DecodeMark(const std::uint8_t* bytes, std::uint64_t fileSize, Mark& mark);

// A record as read back, whole: its head, and where the undo of its blocks begins in its bytes.
struct Record {
  RecordHead head;
  std::vector<std::uint8_t> bytes;
  std::size_t undoOffset = 0;
};
// A journal as read back: its header, the commit in effect (the higher of the two numbers) and,
// unless that is number 0, the records it names, the latest first. The latest names what the
// files hold where the records do not write; the earliest, the point of the run to resume from.
struct Found {
  Header header;
  Commit commit;
  std::vector<Record> records;
  const RecordHead& Latest() const { return records.front().head; }
  const RecordHead& Earliest() const { return records.back().head; }
};
// Reads size bytes at position of the journal; false when they are not all there.
using ReadFunction = std::function<bool(std::uint64_t position, std::uint8_t* buffer, std::size_t size)>;
// False with why set when the journal is damaged anywhere the recovery would rely on.
bool ReadJournal(const ReadFunction& read, std::uint64_t fileSize, Found& found, std::string& why);

}  // namespace bt::journal
