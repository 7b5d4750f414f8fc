// The journal of a conversion run: byteturn-recover can finish a run that ended at any point,
// a power cut included, with every file then as the uninterrupted run leaves it.
//
// The run's writes are held in memory, in groups of up to kGroupBytes with their undo (smaller
// where a flush costs little), and every read sees them. The words each write changes are noted
// as they were (its undo: from the bytes the batch read, or else from the disk), as the write is
// held or, where a flush costs little, by the writer thread below. A group ends at a point
// between two blocks; it is then committed: its undo goes to a record of the journal with that
// point (the block whose turn is next, the maps the run knows), the record is flushed, then a
// commit sector naming it and the records of the groups written since the database files were
// last flushed (the files are flushed first where it would name too many), and only then are the
// writes made, in the order the run made them. Two threads do this while the run gathers the next
// group: a recorder commits a group (its commit sector going with the next record's flush where
// that one comes first) while a writer makes the writes of the groups before; where a flush costs
// little, the writer makes the undo and commits the group itself. The group's messages are shown
// once it has landed. A group also ends before the run reads on from the disk once messages were
// made in it (progress lines are not kept waiting for long), and when the run stops: the database
// then holds what the run wrote before it stopped, as without a journal. The recovery puts back
// the words of the records the last commit names, the latest first, and runs on from the point of
// the earliest.
//
// The journal is made (under a name of its own, flushed, then given its name without replacing
// any file, and the name made durable) at the first commit, so a run that writes nothing leaves
// none; the main file is then marked (journal_format.h, Mark) before the first write, and the
// mark is cut off once the run is complete, before the journal is removed. The journal lies
// beside the main file, its name followed by ".journal", or in the directory that
// BYTETURN_JOURNAL names, under the file's name and a hash of its full path (two databases of
// one name share such a directory); BYTETURN_JOURNAL=off keeps none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "journal_format.h"
#include "map_block.h"
#include "platform.h"

namespace bt {

inline constexpr std::size_t kGroupBytes = std::size_t{8} << 20, kMinGroupBytes = std::size_t{1} << 18;
// The bytes of each write of a record to the journal.
inline constexpr std::size_t kRecordPieceBytes = std::size_t{1} << 20;
// The bytes of a group's writes sent on their way to the disk at a time.
inline constexpr std::size_t kWriteBackPieceBytes = std::size_t{1} << 20;

// The full path of a path (as typed where it cannot be had), and the directory of a file's path
// ("." for a bare name), without a separator at its end.
std::string FullPath(const std::string& path);
std::string DirectoryOf(const std::string& path);

// Where this run's journal lies ("" when BYTETURN_JOURNAL is "off").
std::string JournalPathFor(const std::string& fileName);
// The journal that stops a run of the database named fileName: the one its mark names (whether it
// is there or not; beside the file where the mark names none), else one lying where this run's
// would go. "" when there is none.
struct JournalFound {
  std::string path;
  bool marked = false;  // the main file bears the mark of an interrupted run
  journal::Mark mark;
};
JournalFound FindJournal(const std::string& fileName);
// The mark that the main file at fileName bears, if it bears one.
bool ReadMarkOf(const std::string& fileName, journal::Mark& mark);
// The journals being made under a name of their own (a run interrupted while it made it left it).
std::vector<std::string> TemporaryJournalsOf(const std::string& journalPath);
// The line that sends the operator to byteturn-recover.
std::string RecoverLine(const JournalFound& found, const std::string& fileName);

// Starts journaling the run (with a journal path); from here on the database's writes are held.
// verbose and the run's lock are kept for the recovery; each record names the maps the pass knows.
void BeginJournal(bool verbose, const std::string& lockPath, const Maps& maps);
// Continues the journal of an interrupted run, opened by the recovery, from the record in effect;
// the main file is marked (again) before anything is written. NoteResumedBlocks: the blocks the
// recovery's put-back left (as Check with after), which the next record names as landed, and of
// those it left as the disk holds them, their entries for the table of written blocks (which may
// still give a write an earlier put-back undid), which the first group committed after it settles
// as though it wrote them.
struct KeptBlock {
  std::uint32_t block;  // numbered as the table numbers blocks
  std::uint16_t fingerprint;
  journal::Check landed;  // as in landed
};
struct JournalResume {
  platform::File file;
  std::string path;
  const journal::Found* found;
  std::uint32_t resumeBlock;
  const Maps* maps;
};
void ContinueJournal(const JournalResume& resume);
void NoteResumedBlocks(const std::vector<journal::Check>& landed, const std::vector<KeptBlock>& kept);
// Whether a block of that key is in the sample at modulus (the label block always is).
bool Sampled(std::uint64_t key, std::uint64_t modulus);
bool JournalHoldsWrites();

// A write held: size bytes (whole blocks) at position of a database file. failure and block give
// the run's message when the write fails; without a failure text it is a run of blocks written
// in their turn, block being the first, and of an encrypted database before their encryption
// (JournalEncryptsInTurn), which the journal makes.
void HoldJournaledWrite(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
                        const char* failure, std::uint32_t block);
// Whether writes in turn come to HoldJournaledWrite before their encryption: in an encrypted
// database (the key is loaded before anything is written). A group whose undo the writer makes
// encrypts them many at a time, as many chains as the widest AES path takes at once, rather than
// the few of each run of blocks the batch writes.
bool JournalEncryptsInTurn();
// A block the recovery puts back (bytes, at position of volume, block number block): its record
// names it with the bytes it writes, whole, so that a recovery stopped while it wrote them, or
// whose write the system ended part way inside a sector, writes them again whatever the disk holds.
void HoldPutBack(std::uint32_t volume, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t block);
// The bytes of size at position of file (the volume's write handle) as a batch read them, before
// anything changes them: the undo of writes over them is taken from here while the group lasts.
void KeepBatchOriginals(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size);
// Lays the held writes over bytes just read from position of file.
void SeeJournaledWrites(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size);
// Whether a read of size bytes at position of file reaches past the end that the main file had
// before the run, into its mark: a volume that is the main file (a link) may claim more blocks
// than the file holds, and such a read must fail as it fails without the journal.
bool ReadReachesMark(platform::File file, std::uint64_t position, std::uint32_t size);

// Whether the group is to end before the next read from the disk (it holds messages back, or is
// full), and whether it is to end at once (the blocks read together since made it full and more,
// by as much again or by a quarter of kGroupBytes).
// A group ends at a read where it can, for the bytes the batch read stand for the disk's until then.
bool JournalGroupWaits();
bool JournalGroupFull();
// Ends the group at the point where block resumeBlock's turn comes next; the messages held back
// marked up to releaseMark are shown after it.
void CommitJournalGroup(std::uint32_t resumeBlock, std::uint64_t releaseMark);
// Waits until every group committed is written; the messages they held back are then shown.
void AwaitJournalWrites();
// The run is complete: the files written are flushed, then the journal is removed.
void EndJournal();

}  // namespace bt
