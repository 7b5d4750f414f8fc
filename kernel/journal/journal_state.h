// What the files of the journal share: its state, one object that journal.cpp owns, and the
// groups, flights and files it holds.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "journal.h"
#include "journal_format.h"
#include "map_block.h"
#include "platform.h"
#include "database.h"

namespace bt::journaling {

using Clock = std::chrono::steady_clock;

// A write held: size bytes at position of a volume, kept in its group's arena.
struct HeldWrite {
  std::uint32_t volume, size, block;
  std::uint64_t position;
  std::size_t offset;  // in the arena
  std::uint64_t cap;   // held messages from this number on were made after it
  const char* failure;
  bool whole;          // written over a write held earlier in the group: its undo names every word
  std::size_t before;  // byWriter: where in the group's befores the bytes it replaces begin
};

// The writes of a group, and their undo: made as each write is held, or, where the writer thread
// writes the group's record (byWriter), made by it from the bytes each block's write replaces.
struct Group {
  std::vector<std::uint8_t> arena;
  std::vector<std::uint8_t> undo;  // of the group's blocks, in the order of its writes: undoSize bytes
  std::size_t undoSize = 0;
  bool byWriter = false;
  std::vector<std::uint8_t> befores;  // byWriter: the bytes the writes replace, and the batches read
  std::vector<HeldWrite> held;
  std::unordered_map<std::uint64_t, std::size_t> latest;  // by volume and block: arena offset
  std::uint64_t cap = UINT64_MAX;                         // the messages from this number on wait for it
  // Where the writer makes the undo, the blocks of an encrypted database written in their turn are
  // held as they are before their encryption (the first of them and every write after it in the
  // arena), and encrypted together (SealGroup): once there are enough of them, when the group is
  // committed, before a read sees them, and before a write of another kind is held (the sample
  // then takes their writes in the order made).
  struct Unsealed {
    std::size_t offset;  // in the arena
    std::uint32_t block, volume;
    std::uint64_t position, beforeSum;
  };
  std::vector<Unsealed> unsealed;
};

// Where the writing of a group stopped, as the writer tells it: the run then fails with the
// message the same failure gives in the run's own thread.
enum class Stop { kNone, kJournalWriting, kJournalFlushing, kVolumeFlushing, kWriteFailed, kMarkWriting };
struct Outcome {
  Stop stop = Stop::kNone;
  int error = 0;             // the system's code
  std::uint32_t volume = 0;  // kVolumeFlushing
  std::size_t write = 0;     // kWriteFailed: which of the group's writes,
  std::uint32_t block = 0;   // and the block to name
};

// A block's entry in the table of written blocks (journal_format.h).
struct TableEntry {
  std::uint32_t block;
  std::uint16_t fingerprint;  // taken by the writer, from the group's arena at offset
  std::size_t offset;         // kKept: a block the recovery's put-back left, its fingerprint known
  static constexpr std::size_t kKept = SIZE_MAX;
};

// A group committed, on its way through two threads while the run gathers the next group. Where
// flushes cost much, the recorder commits it while the groups before are being written: it writes
// the group's record and flushes it (with the commit sector of the group before, where that one
// waited for it), flushes the files written by the groups its commit is to name no longer, and
// writes the commit sector, flushed at once or, where the next group waits for the recorder
// already, with that group's record (kCommitting meanwhile); then the writer makes the group's
// writes. Where flushes cost little, the writer makes the undo and commits the group itself,
// which leaves the run more of its time. Groups pass each stage, and are committed, in the order
// the run committed them.
enum class Stage { kFree, kHeld, kToRecord, kCommitting, kToWrite, kLanded };
inline constexpr std::size_t kFlights = 3;
struct Flight {
  Group group;
  std::vector<std::uint8_t> head;  // the record's head
  // The group's blocks as its writes leave them: by block number for the table of written blocks
  // (the writer takes the fingerprints as it writes them), and as the record of a later group
  // names them once their files are flushed.
  std::vector<TableEntry> table;
  std::vector<journal::Check> landed;
  std::uint64_t number = 0, offset = 0, size = 0, checksum = 0;
  // The commit: it names this record and the open - 1 before it. Before it is written, the files of
  // the groups it is the first to name no longer are flushed (these volumes, and the mark's file),
  // and their table entries written.
  std::uint32_t open = 1;
  std::vector<std::uint32_t> settleVolumes;
  bool settleMark = false;
  std::vector<TableEntry> settleTable;
  Stage stage = Stage::kFree;  // under the handover's lock
  // Where the recorder commits it: whether its commit sector waits for the next group's record
  // (decided by the run, in its own order, under the handover's lock: the next group is handed on
  // its way first, or the run waits for this one).
  enum class CommitWith { kUndecided, kAlone, kNext } commitWith = CommitWith::kUndecided;
  std::size_t applied = 0;     // the writes made so far, under the handover's lock
  bool busy = false;           // handed over and not awaited yet (the run's own view)
  Clock::duration working{}, flushing{};
  Outcome outcome;
};

// A database file as the journal writes it: through a handle of its own, which no cache closes.
struct JournalFile {
  platform::File handle = platform::kInvalidFile;
  bool unflushed = false;                        // written since its last flush
  std::uint64_t writtenFrom = 0, writtenTo = 0;  // written and not yet sent on their way to the disk
  std::uint64_t writtenBytes = 0;                // how much of that range was written
};

// Where a record lies in the journal, and the groups up to which its commit has the files flushed.
struct Placed {
  std::uint64_t number = 0, offset = 0, size = 0, settled = 0;
};

// What a group that landed leaves for the commit that settles it (its files flushed): the volumes
// it wrote, its table entries and its blocks as written.
struct Unsettled {
  std::uint64_t number = 0;
  std::vector<std::uint32_t> volumes;
  std::vector<TableEntry> table;
  std::vector<journal::Check> landed;
};

// The journal of this run: its file, the groups, the files written, the main file's mark.
struct Journal {
  const Maps* maps = nullptr;  // of the pass being journaled: each record names them
  bool active = false, created = false;
  std::string path;
  platform::File file = platform::kInvalidFile;
  journal::Header header;
  std::uint64_t nextNumber = 1;
  // The records that a commit on disk may name while the next record is written, in their order: a
  // record is overwritten only once no such commit names it.
  std::vector<Placed> placed;
  // The groups up to this number are flushed before the last commit handed on its way: the next
  // commit names the records after it. The groups after it whose flights were reused since.
  std::uint64_t settled = 0;
  std::deque<Unsettled> unsettled;
  // The group being gathered: its point of the run, and its writes.
  std::uint32_t groupBlock = 1;
  MapState groupMaps;
  std::size_t groupLimit = kMinGroupBytes;  // grows where flushes cost (AdaptGroupLimit)
  Clock::time_point groupStart = Clock::now();
  std::uint64_t messagesAtCommit = 0;  // messages made before the last commit
  std::uint64_t releasedUpTo = 0;      // the messages marked up to here wait for nothing but the flights
  Group group;
  Flight flights[kFlights];        // group number n in flights[n % kFlights]
  std::uint64_t oldestBusy = 1;    // the number of the oldest group handed over and not awaited
  std::vector<JournalFile> files;  // by volume; as many as the run has, from its start
  std::vector<std::uint32_t> fileKey;  // by volume (FileKeys)
  // What the next record names of the blocks written: those the recovery's put-back left, and the
  // sample, by block key.
  std::vector<journal::Check> landed;
  std::vector<KeptBlock> kept;  // the put-back's blocks left as they were, for the next group
  std::unordered_map<std::uint64_t, journal::Check> sample;
  std::uint64_t sampleModulus = 1;
  // By volume: the block written at the highest position so far, which every record's sample
  // names too: a volume put back from a time before its last blocks were written shows there,
  // where the spread sample may miss it. Its after is taken at the commit, from the arena.
  struct Tail {
    bool set = false, pending = false;
    journal::Check check;
    std::size_t offset = 0;  // in the arena, while pending
  };
  std::vector<Tail> tails;
  // The main file's mark (none where the file is shorter than its blocks), through a handle of its own.
  bool marking = false;
  journal::Mark mark;
  platform::File markFile = platform::kInvalidFile;
  bool markUnflushed = false;  // the writer wrote a group's mark since the main file's last flush
};

// The run and the two threads hand flights to each other under this lock. Each waits on its own
// condition, woken only by a hand-over to it: a flight to record, a flight to write, a flight
// landed or a write made.
struct Handover {
  std::mutex lock;
  std::condition_variable recorderWake, writerWake, runWake;
  bool stopped = false;   // a stage failed: no later group is recorded or written
  bool watching = false;  // the run waits to show messages as a flight's writes are made
};

// The last blocks read one at a time (a big string's, a node's), as the reads returned them: until
// the group ends, the bytes a write of one of them replaces, unless the group wrote it since.
struct ReadAside {
  std::uint64_t group = 0, key = 0;
  std::vector<std::uint8_t> bytes;
};

// The batch read last, as read: where the writer is to make the undo, among the group's befores.
struct BatchOriginals {
  platform::File file = platform::kInvalidFile;
  std::uint64_t position = 0, size = 0;
  std::uint64_t group = 0;  // kept for this group only
  bool inBefores = false;
  std::size_t offset = 0;  // in the befores
  std::vector<std::uint8_t> bytes;
};

// All the journal keeps. The run's journal starts afresh with each run (BeginJournal,
// ContinueJournal); the rest is kept for the process: the handles of database files it was told
// of, the blocks read aside, the batch originals, and the handover, which the journal's threads
// wait on until the process ends.
struct JournalState {
  Journal journal;
  Handover handover;
  ReadAside readAside[8];
  std::size_t nextAside = 0;
  BatchOriginals originals;
  std::vector<std::uint8_t> replaced = std::vector<std::uint8_t>(kMaxBlockSize);  // ReadReplacedBlock's
  std::vector<std::uint64_t> beforeSums;  // HoldJournaledWrite's: of the blocks of the write being held
  std::vector<std::uint8_t*> sealBlocks;  // SealGroup's
  std::vector<std::uint32_t> sealNumbers;
  // The committing thread's: the piece of the table of written blocks it rewrites, and the places
  // of the last records written, by number (a commit names them too, though their flights may be
  // reused by then).
  std::vector<std::uint8_t> tablePiece;
  std::deque<std::pair<std::uint64_t, journal::RecordPlace>> recorded;
};
JournalState& TheJournalState();

// A failure the writer met ends the run as it would have in the run's own thread (journal.cpp).
[[noreturn]] void FailAsTheWriterStopped(const Outcome& o, const Group& g);

}  // namespace bt::journaling
