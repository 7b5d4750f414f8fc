#include "journal_writer.h"

#include <algorithm>
#include <mutex>
#include <system_error>
#include <thread>

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

// The group's record at offset: its head, then the undo of its blocks, in pieces that are each
// sent on their way to the disk while the next is written; then flushed. Returns where it stopped
// (kNone: written and flushed) with the system's error; flushing is the flush's time.
Stop WriteRecord(const Group& g, const std::vector<std::uint8_t>& head, std::uint64_t offset, std::uint64_t& checksum,
                 int& error, Clock::duration& flushing) {
  journal::Checksum sum;
  sum.Add(head.data(), head.size());
  platform::ClearLastError();
  bool written = WriteThrough(j.file, offset, head.data(), static_cast<std::uint32_t>(head.size()));
  for (std::size_t done = 0; written && done < g.undoSize; done += kRecordPieceBytes) {
    const std::size_t piece = std::min(g.undoSize - done, kRecordPieceBytes);
    const std::uint64_t position = offset + head.size() + done;
    sum.Add(g.undo.data() + done, piece);
    written = WriteThrough(j.file, position, g.undo.data() + done, static_cast<std::uint32_t>(piece));
    if (written) platform::StartWriteBack(j.file, position, piece);
  }
  error = platform::LastError();
  if (!written) return Stop::kJournalWriting;
  checksum = sum.Value();
  platform::ClearLastError();
  const auto start = Clock::now();
  const bool flushed = platform::Sync(j.file);
  error = platform::LastError();
  flushing = Clock::now() - start;
  return flushed ? Stop::kNone : Stop::kJournalFlushing;
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

// The recorder's step: the record of a group whose undo the run made, written and flushed.
void RecordFlight(Flight& f) {
  if (f.group.byWriter) return;  // the writer makes its undo and writes it
  const Stop stop = WriteRecord(f.group, f.head, f.offset, f.checksum, f.outcome.error, f.flushing);
  if (stop != Stop::kNone) f.outcome.stop = stop;
}

// The table entries of the group written last, whose files were just flushed: each piece of the
// table that they fall in is read, changed and written back (what the journal does not hold yet
// reads as zeros, and so does a piece that cannot be read: its entries are then only not checked).
bool WriteTable(Outcome& outcome) {
  std::vector<TableEntry>& due = state.tableDue;
  std::erase_if(due, [](const TableEntry& e) { return e.block >= j.header.tableBlocks; });
  std::sort(due.begin(), due.end(), [](const TableEntry& a, const TableEntry& b) { return a.block < b.block; });
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

// The writer's step.
void WriteFlight(Flight& f) {
  if (f.group.byWriter) {
    MakeUndo(f.group);
    const Stop stop = WriteRecord(f.group, f.head, f.offset, f.checksum, f.outcome.error, f.flushing);
    f.size = f.head.size() + f.group.undoSize;
    if (stop != Stop::kNone) {
      f.outcome.stop = stop;
      return;
    }
  }
  // The group before is on disk before a commit names this one, and so are its table entries.
  // The flushes' time, not the table's, tells how large groups should grow.
  auto start = Clock::now();
  if (!SyncWrittenFiles(f.outcome)) return;
  f.flushing += Clock::now() - start;
  if (!WriteTable(f.outcome)) return;
  start = Clock::now();
  std::uint8_t sector[journal::kCommitBytes];
  journal::EncodeCommit({j.header.runId, f.number, f.offset, f.size, f.checksum}, sector);
  if (!WriteJournal(f.outcome, sector, sizeof sector, journal::kCommitOffset + journal::kCommitBytes * (f.number % 2)) ||
      !SyncJournal(f.outcome))
    return;
  f.flushing += Clock::now() - start;
  if (ApplyWrites(f) && !StampGroup(f.number)) Stopped(f.outcome, Stop::kMarkWriting);
  for (TableEntry& e : f.table) e.fingerprint = journal::Fingerprint(f.group.arena.data() + e.offset, blockSize);
  state.tableDue = std::move(f.table);
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

// A thread's loop: it takes the oldest flight in stage from, runs step on it and passes it on to
// stage to. After a failure (its own or the other thread's) flights only pass: a group after one
// that failed is neither committed nor written.
[[noreturn]] void StageLoop(Stage from, Stage to, void (*step)(Flight&)) {
  Handover& h = state.handover;
  for (;;) {
    Flight* f = nullptr;
    bool stopped = false;
    {
      std::unique_lock<std::mutex> hold(h.lock);
      WaiterFor(from).wait(hold, [&] { return (f = OldestIn(from)) != nullptr; });
      stopped = h.stopped;
    }
    if (!stopped) step(*f);
    Stage next = to;
    {
      const std::lock_guard<std::mutex> hold(h.lock);
      if (f->outcome.stop != Stop::kNone) h.stopped = true;
      if (f->outcome.stop != Stop::kNone || h.stopped) next = Stage::kLanded;
      f->stage = next;
    }
    WaiterFor(next).notify_one();
  }
}

// The run's side.
// The threads, started once; false where the system cannot start them.
bool ThreadsRunning() {
  static const bool running = [] {
    try {
      std::thread([] { StageLoop(Stage::kToRecord, Stage::kToWrite, RecordFlight); }).detach();
      std::thread([] { StageLoop(Stage::kToWrite, Stage::kLanded, WriteFlight); }).detach();
      return true;
    } catch (const std::system_error&) {
      return false;
    }
  }();
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
      return c.number < f.number && (c.stage == Stage::kToRecord || c.stage == Stage::kHeld);
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
  if (platform::TestWriterLags()) {
    const std::lock_guard<std::mutex> hold(state.handover.lock);
    f.stage = Stage::kHeld;
    return;
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
    // Lagging flights start in their order.
    for (std::uint64_t k = j.oldestBusy; k <= n && k < j.nextNumber; ++k) {
      Flight& lagging = FlightOf(k);
      std::unique_lock<std::mutex> hold(state.handover.lock);
      if (!lagging.busy || lagging.stage != Stage::kHeld) continue;
      hold.unlock();
      Start(lagging);
    }
    AwaitOldest(f);
  }
}

void AwaitFlights() { AwaitFlightsThrough(UINT64_MAX); }

}  // namespace bt::journaling
