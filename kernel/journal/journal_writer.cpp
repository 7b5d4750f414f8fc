#include "journal_writer.h"

#include <algorithm>
#include <mutex>

#include "block_undo.h"
#include "journal_commit.h"
#include "journal_files.h"
#include "journal_undo.h"
#include "messages.h"
#include "database.h"
#include "volume_io.h"

namespace bt::journaling {

namespace {

JournalState& state = TheJournalState();
Journal& j = state.journal;

}  // namespace

// The writer's side. It fails nothing itself: where a step fails, it notes why and stops.

namespace {

bool Stopped(Outcome& outcome, Stop stop, std::uint32_t volume = 0) {
  outcome.stop = stop;
  outcome.error = platform::LastError();
  outcome.volume = volume;
  return false;
}

bool WriteJournal(Outcome& outcome, const std::uint8_t* bytes, std::size_t size, std::uint64_t position) {
  return WriteThrough(j.file, position, bytes, static_cast<std::uint32_t>(size)) ||
         Stopped(outcome, Stop::kJournalWriting);
}

bool SyncJournal(Outcome& outcome) {
  platform::ClearLastError();
  return platform::Sync(j.file) || Stopped(outcome, Stop::kJournalFlushing);
}

}  // namespace

// The mark lies in the main file, and a flush takes the whole file, whichever handle it is made
// through: where the group wrote the main file, its flush takes the mark too.
bool SyncWrittenFiles(Outcome& outcome) {
  if (j.markUnflushed && !j.files[0].unflushed) {
    platform::ClearLastError();
    if (!platform::Sync(j.markFile)) return Stopped(outcome, Stop::kVolumeFlushing, 0);
  }
  for (std::size_t v = 0; v < j.files.size(); ++v) {
    if (!j.files[v].unflushed) continue;
    platform::ClearLastError();
    if (!platform::Sync(j.files[v].handle)) return Stopped(outcome, Stop::kVolumeFlushing, static_cast<std::uint32_t>(v));
    j.files[v].unflushed = false;
  }
  j.markUnflushed = false;
  return true;
}

namespace {

// Block k of the group's write i, whose write failed, is written as it was before it, from its
// undo, as far as the disk takes it. A write that the system ended part way inside a sector left
// that sector holding the first part of the write and the rest as it was, which the recovery
// cannot put back; put back here, the block is as it was.
void PutBackFailedBlock(const Group& g, std::size_t i, std::uint32_t k) {
  std::size_t at = 0;
  for (std::size_t n = 0; n <= i; ++n)
    for (std::uint32_t m = 0; m < (n < i ? g.held[n].size / blockSize : k); ++m) {
      const std::size_t size = journal::BlockUndoSize(g.undo.data() + at, g.undoSize - at, blockSize);
      if (size == 0) return;
      at += size;
    }
  const HeldWrite& w = g.held[i];
  if (k >= w.size / blockSize || journal::BlockUndoSize(g.undo.data() + at, g.undoSize - at, blockSize) == 0) return;
  const std::uint8_t* written = g.arena.data() + w.offset + std::size_t{k} * blockSize;
  std::vector<std::uint8_t> block(written, written + blockSize);
  journal::ApplyBlockUndo(g.undo.data() + at, blockSize, w.block + k, block.data());
  (void)WriteThrough(j.files[w.volume].handle, w.position + std::uint64_t{k} * blockSize, block.data(), blockSize);
}

// A write of the group failed. A run of blocks written in their turn is written again block by
// block, so that the message names the block that fails alone; then that block is put back.
bool WriteFailed(Flight& f, std::size_t i) {
  const HeldWrite& w = f.group.held[i];
  Stopped(f.outcome, Stop::kWriteFailed, w.volume);
  f.outcome.write = i;
  f.outcome.block = w.block;
  bool failedAlone = w.failure != nullptr;  // a write with a message of its own is not written again
  const platform::File file = j.files[w.volume].handle;
  for (std::uint32_t k = 0; !failedAlone && k < w.size / blockSize; ++k) {
    const std::uint64_t position = w.position + std::uint64_t{k} * blockSize;
    if (!WriteThrough(file, position, f.group.arena.data() + w.offset + std::size_t{k} * blockSize, blockSize)) {
      f.outcome.block = w.block + k;
      f.outcome.error = platform::LastError();
      failedAlone = true;
    }
  }
  if (failedAlone) PutBackFailedBlock(f.group, i, f.outcome.block - w.block);
  return false;  // where each block went through alone, the first failure is the one told
}

// The run, where it waits for the flight, shows the messages made before each write once the
// writes before it are made.
void TellApplied(Flight& f, std::size_t writes) {
  Handover& h = state.handover;
  bool tell = false;
  {
    std::lock_guard<std::mutex> hold(h.lock);
    f.applied = writes;
    tell = h.watching;
  }
  if (tell) h.runWake.notify_one();
}

// The writes in the run's order, sent on their way to the disk a piece at a time as they are
// made: the disk works on them while the rest are copied, and the next commit's flush finds them
// written.
void StartPiece(JournalFile& file) { file.writtenFrom = UINT64_MAX, file.writtenTo = 0, file.writtenBytes = 0; }

bool ApplyWrites(Flight& f) {
  for (JournalFile& file : j.files) StartPiece(file);
  for (std::size_t i = 0; i < f.group.held.size(); ++i) {
    const HeldWrite& w = f.group.held[i];
    JournalFile& file = j.files[w.volume];
    if (!WriteThrough(file.handle, w.position, f.group.arena.data() + w.offset, w.size)) return WriteFailed(f, i);
    file.writtenFrom = std::min(file.writtenFrom, w.position);
    file.writtenTo = std::max(file.writtenTo, w.position + w.size);
    file.writtenBytes += w.size;
    file.unflushed = true;
    TellApplied(f, i + 1);
    // Counted in bytes written, not by the range's width: a write far from the others (a big
    // string's block, say) would otherwise send every write after it on its way alone.
    if (file.writtenBytes >= kWriteBackPieceBytes) {
      platform::StartWriteBack(file.handle, file.writtenFrom, file.writtenTo - file.writtenFrom);
      StartPiece(file);
    }
  }
  for (const JournalFile& file : j.files)
    if (file.writtenFrom < file.writtenTo)
      platform::StartWriteBack(file.handle, file.writtenFrom, file.writtenTo - file.writtenFrom);
  return true;
}

// The table entries of groups whose files were just flushed: each piece of the table that they
// fall in is read, changed and written back (what the journal does not hold yet reads as zeros,
// and so does a piece that cannot be read: its entries are then only not checked).
bool WriteTable(Outcome& outcome, std::vector<TableEntry>& due) {
  std::erase_if(due, [](const TableEntry& e) { return e.block >= j.header.tableBlocks; });
  // In the groups' order within a block: a block the recovery's put-back left, then wrote again
  // in a group settled with it, takes that group's entry.
  std::stable_sort(due.begin(), due.end(), [](const TableEntry& a, const TableEntry& b) { return a.block < b.block; });
  constexpr std::uint32_t kGap = 2048;  // entries closer than this share a piece
  std::vector<std::uint8_t>& piece = state.tablePiece;
  for (std::size_t i = 0, end = 0; i < due.size(); i = end) {
    for (end = i + 1; end < due.size() && due[end].block - due[end - 1].block <= kGap;) ++end;
    const std::uint32_t first = due[i].block;
    const std::uint64_t at = journal::kTableOffset + std::uint64_t{2} * first;
    piece.assign(std::size_t{2} * (due[end - 1].block - first + 1), 0);
    const std::int64_t read = platform::ReadAt(j.file, piece.data(), piece.size(), at);
    if (read < 0) std::fill(piece.begin(), piece.end(), 0);
    for (std::size_t k = i; k < end; ++k) StoreLE16(piece.data() + 2 * (due[k].block - first), due[k].fingerprint);
    if (!WriteJournal(outcome, piece.data(), piece.size(), at)) return false;
  }
  due.clear();
  return true;
}

}  // namespace

bool WriteTableAndSync(Outcome& outcome, std::vector<TableEntry>& due) {
  return WriteTable(outcome, due) && SyncJournal(outcome);
}

namespace {

// Writes flight f's record, not flushed: its head, then the undo of its blocks, in pieces that are
// each sent on their way to the disk while the next is written. The commits that name it find its
// place here.
bool WriteRecordOf(Flight& f) {
  const Group& g = f.group;
  journal::Checksum sum;
  sum.Add(f.head.data(), f.head.size());
  platform::ClearLastError();
  bool written = WriteThrough(j.file, f.offset, f.head.data(), static_cast<std::uint32_t>(f.head.size()));
  for (std::size_t done = 0; written && done < g.undoSize; done += kRecordPieceBytes) {
    const std::size_t piece = std::min(g.undoSize - done, kRecordPieceBytes);
    const std::uint64_t position = f.offset + f.head.size() + done;
    sum.Add(g.undo.data() + done, piece);
    written = WriteThrough(j.file, position, g.undo.data() + done, static_cast<std::uint32_t>(piece));
    if (written) platform::StartWriteBack(j.file, position, piece);
  }
  f.size = f.head.size() + g.undoSize;
  if (!written) return Stopped(f.outcome, Stop::kJournalWriting);
  f.checksum = sum.Value();
  // A commit sector may wait for the next record: it names this record's kMostOpenRecords before.
  state.recorded.push_back({f.number, {f.offset, f.size, f.checksum}});
  if (state.recorded.size() > journal::kMostOpenRecords + 1) state.recorded.pop_front();
  return true;
}

// Flushes the journal; the flushes' time, not the table's, tells how large groups should grow.
bool FlushJournal(Flight& f) {
  const auto start = Clock::now();
  const bool flushed = SyncJournal(f.outcome);
  f.flushing += Clock::now() - start;
  return flushed;
}

// Flushes the files of the groups that flight f's commit settles, and writes their table entries
// (made durable by the journal's next flush, with the commit or before it).
bool Settle(Flight& f) {
  const auto start = Clock::now();
  for (const std::uint32_t v : f.settleVolumes) {
    platform::ClearLastError();
    if (!platform::Sync(j.files[v].handle)) return Stopped(f.outcome, Stop::kVolumeFlushing, v);
  }
  platform::ClearLastError();
  if (f.settleMark && !platform::Sync(j.markFile)) return Stopped(f.outcome, Stop::kVolumeFlushing, 0);
  f.flushing += Clock::now() - start;
  return WriteTable(f.outcome, f.settleTable);
}

// Writes flight f's commit sector (not flushed): its record and the open - 1 before it, each
// flushed before.
bool WriteCommitSector(Flight& f) {
  journal::Commit commit{j.header.runId, f.number, f.open, {}};
  for (std::uint32_t k = 0; k < f.open; ++k) {
    const auto it = std::find_if(state.recorded.begin(), state.recorded.end(),
                                 [&](const auto& r) { return r.first == f.number - k; });
    if (it == state.recorded.end()) return Stopped(f.outcome, Stop::kJournalWriting);  // the run hands none such
    commit.records[k] = it->second;
  }
  std::uint8_t sector[journal::kCommitBytes];
  journal::EncodeCommit(commit, sector);
  if (WriteJournal(f.outcome, sector, sizeof sector, journal::kCommitOffset + journal::kCommitBytes * (f.number % 2)))
    return true;
  WriteCommitAfterFailure(f.number, nullptr);
  return false;
}

// Commits flight f on its own: its record written and flushed, the groups it settles flushed,
// its commit sector written and flushed. Once that is flushed, its writes may be made.
void CommitAlone(Flight& f) {
  (void)(WriteRecordOf(f) && FlushJournal(f) && Settle(f) && WriteCommitSector(f) && FlushJournal(f));
}

// The recorder's step where it runs without the threads.
void RecordFlight(Flight& f) {
  if (!f.group.byWriter) CommitAlone(f);  // the writer makes its undo and commits it
}

// The writer's step: the group committed (where the writer makes its undo), then its writes made,
// the mark stamped and the fingerprints of its blocks taken for the table.
void WriteFlight(Flight& f) {
  if (f.group.byWriter) {
    MakeUndo(f.group);
    CommitAlone(f);
    if (f.outcome.stop != Stop::kNone) return;
  }
  if (ApplyWrites(f) && !StampGroup(f.number)) Stopped(f.outcome, Stop::kMarkWriting);
  for (TableEntry& e : f.table)
    if (e.offset != TableEntry::kKept)
      e.fingerprint = journal::Fingerprint(f.group.arena.data() + e.offset, blockSize, j.header.version);
}

// The oldest flight in stage, under the handover's lock; nullptr where there is none.
Flight* OldestIn(Stage stage) {
  Flight* oldest = nullptr;
  for (Flight& c : j.flights)
    if (c.stage == stage && (oldest == nullptr || c.number < oldest->number)) oldest = &c;
  return oldest;
}

// Who waits for a flight in stage: the recorder, the writer, or the run for it to land.
std::condition_variable& WaiterFor(Stage stage) {
  Handover& h = state.handover;
  return stage == Stage::kToRecord ? h.recorderWake : stage == Stage::kToWrite ? h.writerWake : h.runWake;
}

// Passes flight f on to stage to, or, after a failure (its own or another's), lands it: a group
// after one that failed is neither committed nor written.
void PassOn(Flight& f, Stage to) {
  Handover& h = state.handover;
  Stage next = to;
  {
    const std::lock_guard<std::mutex> hold(h.lock);
    if (f.outcome.stop != Stop::kNone) h.stopped = true;
    if (f.outcome.stop != Stop::kNone || h.stopped) next = Stage::kLanded;
    f.stage = next;
  }
  WaiterFor(next).notify_one();
  if (f.outcome.stop != Stop::kNone) h.recorderWake.notify_one();  // it may wait on a commit sector
}

bool Stopping() {
  const std::lock_guard<std::mutex> hold(state.handover.lock);
  return state.handover.stopped;
}

// The writer's loop: it takes the oldest flight to write, writes it and lands it.
[[noreturn]] void WriterLoop() {
  Handover& h = state.handover;
  for (;;) {
    Flight* f = nullptr;
    bool stopped = false;
    {
      std::unique_lock<std::mutex> hold(h.lock);
      h.writerWake.wait(hold, [&] { return (f = OldestIn(Stage::kToWrite)) != nullptr; });
      stopped = h.stopped;
    }
    if (!stopped) WriteFlight(*f);
    PassOn(*f, Stage::kLanded);
  }
}

// The recorder's loop. Where the run hands the next group whose undo it made on its way before it
// waits for this one, this group's commit sector waits (kCommitting) and goes with the next
// record's flush: a flush per group, not two. Decided in the run's order, not by when the threads
// come to it, so that a run makes the same writes and flushes each time.
[[noreturn]] void RecorderLoop() {
  Handover& h = state.handover;
  Flight* waiting = nullptr;  // its commit sector goes with the next record's flush
  for (;;) {
    Flight* f = nullptr;
    bool stopped = false;
    {
      std::unique_lock<std::mutex> hold(h.lock);
      h.recorderWake.wait(hold, [&] { return (f = OldestIn(Stage::kToRecord)) != nullptr; });
      f->stage = Stage::kCommitting;
      stopped = h.stopped;
    }
    const bool recording = !f->group.byWriter && !stopped;
    const bool recorded = recording && WriteRecordOf(*f);
    if (waiting != nullptr) {
      // Where this record could not be written, the sector is flushed alone.
      if (!stopped) (void)(WriteCommitSector(*waiting) && FlushJournal(*waiting));
      PassOn(*waiting, Stage::kToWrite);
      waiting = nullptr;
    } else if (recorded) {
      (void)FlushJournal(*f);
    }
    if (recorded && f->outcome.stop == Stop::kNone && !Stopping() && Settle(*f)) {
      bool next = false;
      {
        std::unique_lock<std::mutex> hold(h.lock);
        h.recorderWake.wait(hold, [&] { return f->commitWith != Flight::CommitWith::kUndecided || h.stopped; });
        next = f->commitWith == Flight::CommitWith::kNext && !h.stopped;
      }
      if (next) {
        waiting = f;
        continue;
      }
      (void)(WriteCommitSector(*f) && FlushJournal(*f));
    }
    PassOn(*f, Stage::kToWrite);
  }
}

// The run's side.
// The threads, started once; false where the system cannot start them.
bool ThreadsRunning() {
  static const bool running = platform::StartThread(RecorderLoop) && platform::StartThread(WriterLoop);
  return running;
}

// The flight goes on its way. Without the threads, the run records and writes it itself, here.
// A flight whose record the writer writes goes straight to it, unless a flight before it is still
// with the recorder (the writer takes them in their order).
void Start(Flight& f) {
  f.outcome = Outcome{};
  f.applied = 0;
  if (!ThreadsRunning()) {
    RecordFlight(f);
    if (f.outcome.stop == Stop::kNone) WriteFlight(f);
    f.stage = Stage::kLanded;
    return;
  }
  Stage stage = Stage::kToRecord;
  {
    const std::lock_guard<std::mutex> hold(state.handover.lock);
    const bool recorderBusy = std::any_of(std::begin(j.flights), std::end(j.flights), [&](const Flight& c) {
      return c.number < f.number &&
             (c.stage == Stage::kToRecord || c.stage == Stage::kCommitting || c.stage == Stage::kHeld);
    });
    if (f.group.byWriter && !recorderBusy) stage = Stage::kToWrite;
    f.stage = stage;
  }
  WaiterFor(stage).notify_one();
}

// Waits for flight f, the oldest on its way, showing the messages made before each of its writes
// as the writes before it are made; the rest of its messages are shown once it has landed.
void AwaitOldest(Flight& f) {
  Handover& h = state.handover;
  bool decided = false;  // the recorder may wait for it: woken only then
  {
    const std::lock_guard<std::mutex> hold(h.lock);
    decided = f.commitWith == Flight::CommitWith::kUndecided && !f.group.byWriter;
    if (f.commitWith == Flight::CommitWith::kUndecided) f.commitWith = Flight::CommitWith::kAlone;
  }
  if (decided) h.recorderWake.notify_one();
  const std::vector<HeldWrite>& held = f.group.held;
  const bool watching = MessagesMade() > f.group.cap;  // messages wait for its writes
  for (std::size_t shown = 0;;) {
    std::unique_lock<std::mutex> hold(h.lock);
    h.watching = watching;
    h.runWake.wait(hold, [&] { return f.stage == Stage::kLanded || (watching && f.applied > shown); });
    h.watching = false;
    if (f.stage == Stage::kLanded) {
      f.stage = Stage::kFree;
      break;
    }
    shown = f.applied;
    hold.unlock();
    if (shown >= held.size()) continue;
    CapHeldOutput(held[shown].cap);
    ReleaseHeldOutput(UINT64_MAX);
  }
  f.busy = false;
  ++j.oldestBusy;
  if (f.outcome.stop != Stop::kNone) FailAsTheWriterStopped(f.outcome, f.group);
  AdaptGroupLimit(f.flushing, f.working);
  f.group.latest.clear();
  CapOutput();
  ReleaseHeldOutput(j.releasedUpTo);
}

}  // namespace

// The flight goes on its way (where the tests ask it to lag, only once the run waits for it).
void HandToWriter(Flight& f) {
  f.busy = true;
  {
    // The group before, committed by the recorder, has its commit sector go with this record.
    const std::lock_guard<std::mutex> hold(state.handover.lock);
    f.commitWith = Flight::CommitWith::kUndecided;
    Flight& before = FlightOf(f.number - 1);
    if (before.busy && before.number + 1 == f.number && !before.group.byWriter && !f.group.byWriter &&
        before.commitWith == Flight::CommitWith::kUndecided)
      before.commitWith = Flight::CommitWith::kNext;
    if (platform::TestWriterLags()) {
      f.stage = Stage::kHeld;
      return;
    }
  }
  Start(f);
}

// Starts flight k where the tests held it back (it starts once the run waits for it).
void StartIfLagging(std::uint64_t k) {
  Flight& f = FlightOf(k);
  {
    const std::lock_guard<std::mutex> hold(state.handover.lock);
    if (!f.busy || f.stage != Stage::kHeld) return;
  }
  Start(f);
}

void AwaitFlightsThrough(std::uint64_t n) {
  while (j.oldestBusy <= n && j.oldestBusy < j.nextNumber) {
    Flight& f = FlightOf(j.oldestBusy);
    if (!f.busy) {
      ++j.oldestBusy;
      continue;
    }
    // Lagging flights start in their order, and with them the one whose record a commit sector
    // of theirs waits for.
    for (std::uint64_t k = j.oldestBusy; k < j.nextNumber; ++k) {
      {
        const std::lock_guard<std::mutex> hold(state.handover.lock);
        if (k > n && FlightOf(k - 1).commitWith != Flight::CommitWith::kNext) break;
      }
      StartIfLagging(k);
    }
    AwaitOldest(f);
  }
}

void AwaitFlights() { AwaitFlightsThrough(UINT64_MAX); }

void AwaitLandings() {
  if (!ThreadsRunning()) return;  // the run recorded and wrote its flights itself
  // Flights held back for the tests start, so that a commit sector waiting for one goes on.
  for (std::uint64_t k = j.oldestBusy; k < j.nextNumber; ++k) StartIfLagging(k);
  Handover& h = state.handover;
  std::unique_lock<std::mutex> hold(h.lock);
  h.runWake.wait(hold, [&] {
    return std::none_of(std::begin(j.flights), std::end(j.flights), [](const Flight& f) {
      return f.busy && (f.stage == Stage::kToRecord || f.stage == Stage::kCommitting || f.stage == Stage::kToWrite);
    });
  });
}

}  // namespace bt::journaling
