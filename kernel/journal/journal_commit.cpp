#include "journal_commit.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "block_undo.h"
#include "journal_files.h"
#include "journal_undo.h"
#include "journal_writer.h"
#include "messages.h"
#include "database.h"
#include "volume_io.h"

namespace bt {

namespace journaling {

namespace {

Journal& j = TheJournalState().journal;

// The blocks a record names in its sample, at most (journal_format.h, RecordHead).
constexpr std::size_t kSampleLimit = 256;

// The record of group number goes at the lowest of the journal's first record place and the ends
// of the records still named that overlaps none of them. While it is written, the commit on disk
// is that of group number - 2 or number - 1 (that one may go with this record's flush): the
// records they name, those after the groups the commit of number - 2 settled, are kept.
std::uint64_t PlaceRecord(std::uint64_t number, std::uint64_t size) {
  for (const Placed& p : j.placed)
    if (p.number + 2 == number) {
      std::erase_if(j.placed, [&](const Placed& q) { return q.number <= p.settled; });
      break;
    }
  const auto overlaps = [&](std::uint64_t at) {
    for (const Placed& p : j.placed)
      if (at < p.offset + p.size && p.offset < at + size) return true;
    return false;
  };
  const std::uint64_t start = journal::RecordsStart(j.header);
  std::uint64_t best = UINT64_MAX;
  const auto consider = [&](std::uint64_t at) {
    at = (std::max(at, start) + journal::kRecordAlignment - 1) / journal::kRecordAlignment * journal::kRecordAlignment;
    if (at < best && !overlaps(at)) best = at;
  };
  consider(start);
  for (const Placed& p : j.placed) consider(p.offset + p.size);
  return best;  // the end of the one that ends last always fits
}

void ClearGroup(Group& g) {
  g.arena.clear();
  g.undoSize = 0;
  g.befores.clear();
  // At the largest groups (flushes cost much) the groups take their undo as they go: the copy that
  // earlier groups kept is given back. Below, the limit moves often, and it is kept.
  if (j.groupLimit >= kGroupBytes) g.befores.shrink_to_fit();
  g.byWriter = false;
  g.held.clear();
  g.latest.clear();
  g.cap = UINT64_MAX;
  g.unsealed.clear();
}

void CommitBeforeFailure();
// The blocks of a group as its writes leave them (the last write of each): for a later record,
// and by block number for the table of written blocks (whose fingerprints the writer takes).
void Landed(const Group& g, std::vector<journal::Check>& landed, std::vector<TableEntry>& table) {
  landed.clear();
  table.clear();
  landed.reserve(g.latest.size());
  table.reserve(g.latest.size());
  for (const auto& [key, offset] : g.latest) {
    const auto volume = static_cast<std::uint32_t>(key >> 40);  // of the file: the first volume it is
    const std::uint64_t blockOfFile = key & ((std::uint64_t{1} << 40) - 1);
    landed.push_back({volume, blockOfFile * blockSize, 0, journal::ChecksumOf(g.arena.data() + offset, journal::kCheckedBytes)});
    table.push_back({static_cast<std::uint32_t>((volume == 0 ? 1 : volumeFirstBlock[volume]) + blockOfFile), 0, offset});
  }
}

// What flight f's group leaves for its settling, taken out of the flight.
Unsettled Leftover(Flight& f) {
  Unsettled u{f.number, {}, std::move(f.table), std::move(f.landed)};
  for (const HeldWrite& w : f.group.held) u.volumes.push_back(w.volume);
  return u;
}

// Whether the group being gathered writes one of the blocks of landed (another group's, as written).
bool WritesAgain(const std::vector<journal::Check>& landed) {
  for (const journal::Check& c : landed)
    if (j.group.latest.contains(BlockKey(c.volume, c.position / blockSize))) return true;
  return false;
}

// What the groups after j.settled up to settled (all landed) leave for their settling, together:
// the volumes they wrote (each once), their table entries and their blocks as written, appended
// to landed. From here on they count as settled.
Unsettled TakeUnsettled(std::uint64_t settled, std::vector<journal::Check>& landed) {
  Unsettled all;
  for (std::uint64_t n = j.settled + 1; n <= settled; ++n) {
    const bool kept = !j.unsettled.empty() && j.unsettled.front().number == n;
    Unsettled u = kept ? std::move(j.unsettled.front()) : Leftover(FlightOf(n));
    if (kept) j.unsettled.pop_front();
    all.volumes.insert(all.volumes.end(), u.volumes.begin(), u.volumes.end());
    all.table.insert(all.table.end(), u.table.begin(), u.table.end());
    landed.insert(landed.end(), u.landed.begin(), u.landed.end());
  }
  std::sort(all.volumes.begin(), all.volumes.end());
  all.volumes.erase(std::unique(all.volumes.begin(), all.volumes.end()), all.volumes.end());
  j.settled = std::max(j.settled, settled);
  return all;
}

// The groups after j.settled up to settled (all landed) are flushed before the commit of flight f:
// it takes their volumes and table entries and, for its record, their blocks as written.
void SettleGroups(std::uint64_t settled, Flight& f, std::vector<journal::Check>& landed) {
  const bool any = settled > j.settled;
  Unsettled u = TakeUnsettled(settled, landed);
  // A flush takes the whole file, whichever handle it is made through: the main file's takes the mark.
  f.settleMark = j.markFile != platform::kInvalidFile && any && !std::binary_search(u.volumes.begin(), u.volumes.end(), 0u);
  f.settleVolumes = std::move(u.volumes);
  f.settleTable = std::move(u.table);
}

// The groups up to which the commit of the group being gathered is to have the files flushed:
// those that the last did, unless it would then name more than kMostOpenRecords records, or a
// group whose block this group writes again (a recovery could not tell which of the two writes
// a sector holds); then as far as the groups have landed. Waits for the groups that must land.
std::uint64_t GroupsToSettle(std::uint64_t number) {
  const std::uint64_t most = journal::kMostOpenRecords;
  std::uint64_t required = std::max<std::uint64_t>(j.settled, number > most ? number - most : 0);
  for (const Unsettled& u : j.unsettled)
    if (u.number > required && WritesAgain(u.landed)) required = u.number;
  for (std::uint64_t n = std::max(required, j.unsettled.empty() ? j.settled : j.unsettled.back().number) + 1; n < number; ++n) {
    Flight& f = FlightOf(n);
    if (f.number == n && WritesAgain(f.landed)) required = n;
  }
  AwaitFlightsThrough(required);
  return required > j.settled ? std::max(required, j.oldestBusy - 1) : j.settled;
}

// Hands the group on its way, once the group that last used its flight has landed: where the run
// made its undo, the recorder commits it while the groups before are written. A failure there
// shows what the groups before show first, as their writes come before it.
//
// A writer that commits the group before and a recorder that would commit this one could write
// the two commit sectors out of their order: this group then waits for the one before to land.
void Commit() {
  SetFailureHook(nullptr);  // a failure in here ends the run as it is
  SealGroup(j.group);
  // The files' handles first, so that the run holds them once the mark is made: files moved away
  // after it are written where they now lie. A first commit that cannot open a file leaves neither
  // journal nor mark.
  for (const HeldWrite& w : j.group.held) {
    if (OpenVolumeHandle(w.volume)) continue;
    const int error = platform::LastError();
    AwaitFlights();
    CapHeldOutput(w.cap);  // as where the writes before it were made
    ReleaseHeldOutput(UINT64_MAX);
    platform::SetLastError(error);
    FailOpeningVolume(w.volume);
  }
  if (!j.created) CreateJournal();
  const std::uint64_t number = j.nextNumber;
  // The flight is free once the group that used it landed; what that group leaves for its
  // settling is kept until then.
  AwaitFlightsThrough(number >= kFlights ? number - kFlights : 0);
  Flight& f = FlightOf(number);
  if (f.number > j.settled) j.unsettled.push_back(Leftover(f));
  f.number = 0;
  const Flight& before = FlightOf(number - 1);
  if (!j.group.byWriter && before.busy && before.group.byWriter) AwaitFlightsThrough(number - 1);
  const std::uint64_t settled = GroupsToSettle(number);
  journal::RecordHead head{j.header.runId, number, blockSize, j.groupBlock, j.groupMaps, {}, {}, {}, 1};
  for (const HeldWrite& w : j.group.held) head.entries.push_back({w.volume, w.size / blockSize, w.position});
  // What the files hold where this group does not write: the groups flushed before its commit as
  // written (or as the recovery's put-back left them), the sample.
  head.landed = std::move(j.landed);
  j.landed.clear();
  f.open = static_cast<std::uint32_t>(number - settled);
  SettleGroups(settled, f, head.landed);
  head.sampleModulus = j.sampleModulus;
  for (const auto& [key, check] : j.sample) head.sample.push_back(check);
  for (Journal::Tail& t : j.tails) {
    if (t.pending) t.check.after = journal::ChecksumOf(j.group.arena.data() + t.offset, journal::kCheckedBytes);
    t.pending = false;
    if (t.set && !j.sample.contains(BlockKey(t.check.volume, t.check.position / blockSize))) head.sample.push_back(t.check);
  }
  std::vector<std::uint8_t> headBytes = journal::EncodeRecordHead(head);
  // Where the writer is to make the undo, the record's place is kept for the largest it can be.
  const Group& g = j.group;
  Placed record{number, 0, headBytes.size() + (g.byWriter ? HeldBlocks(g) * journal::MaxBlockUndoBytes(blockSize) : g.undoSize),
                settled};
  record.offset = PlaceRecord(number, record.size);
  f.number = number;
  f.offset = record.offset;
  f.size = record.size;
  f.checksum = 0;
  f.flushing = {};
  f.head = std::move(headBytes);
  Landed(j.group, f.landed, f.table);
  // The blocks the recovery's put-back left as they were settle with this group, but for those it
  // writes itself: their table entries, and as landed in the record of the commit that settles it.
  // Should that commit's table piece be lost, the entries of the run's writes that an earlier
  // put-back undid are left out of the check as this group's own blocks are.
  for (const KeptBlock& k : j.kept)
    if (std::none_of(f.table.begin(), f.table.end(), [&](const TableEntry& t) { return t.block == k.block; })) {
      f.table.push_back({k.block, k.fingerprint, TableEntry::kKept});
      f.landed.push_back(k.landed);
    }
  j.kept.clear();
  const auto now = Clock::now();
  f.working = now - j.groupStart;
  j.groupStart = now;
  std::swap(f.group, j.group);
  ClearGroup(j.group);
  j.placed.push_back(record);
  ++j.nextNumber;
  j.messagesAtCommit = MessagesMade();
  HandToWriter(f);
  CapOutput();
  SetFailureHook(CommitBeforeFailure);
}

// A failure ends the run: what it wrote before the failure goes to the disk, as without a journal.
void CommitBeforeFailure() {
  if (!j.group.held.empty()) Commit();
  AwaitFlights();
  ClearGroup(j.group);
  CapOutput();
}

// The bytes the group holds: its writes and their undo. Where the writer is to make the undo, a
// quarter of the bytes the writes replace stands for it, about what an undo of a conversion takes.
std::size_t GroupBytes() {
  const Group& g = j.group;
  return g.arena.size() + (g.byWriter ? g.befores.size() / 4 : g.undoSize);
}

}  // namespace

// From here on the run's writes are held in groups (of the size the tests ask for, if they do).
void StartGroups() {
  if (platform::TestGroupBytes() != 0) j.groupLimit = platform::TestGroupBytes();
  j.files.resize(std::size_t{furtherVolumeCount} + 1);
  j.tails.assign(std::size_t{furtherVolumeCount} + 1, {});
  j.oldestBusy = j.nextNumber;
  TheJournalState().recorded.clear();  // no flight is on its way
  {
    const std::lock_guard<std::mutex> hold(TheJournalState().handover.lock);
    TheJournalState().handover.stopped = false;
  }
  // As much as a group can hold before it must end (JournalGroupFull), and a block more: an arena
  // that grew would for a moment be there twice.
  j.group.arena.reserve(kGroupBytes + kGroupBytes / 4 + kMaxBlockSize);
  for (Flight& f : j.flights) f.group.arena.reserve(kGroupBytes + kGroupBytes / 4 + kMaxBlockSize);
  SetFailureHook(CommitBeforeFailure);
}

// Whether the writer thread is to make the undo of the group starting and write its record: where
// flushes cost little (the group limit is at its floor), the run's thread is the busier one, and
// the recorder's flush would gain nothing.
bool RecordByWriter() {
  const std::uint32_t asked = platform::TestRecordByRun();
  return asked == 0 ? j.groupLimit <= kMinGroupBytes : asked == 2 && j.nextNumber % 2 == 0;
}

// A group is as large as its flushes make worth it: a small one is still in the processor's
// cache when its writes are made, a large one spreads the flushes' cost (which a disk makes high
// and memory nearly nil). The limit doubles while the flushes took more than an eighth of the
// time the group took to gather and halves while they took less than a 64th, between
// kMinGroupBytes and kGroupBytes.
void AdaptGroupLimit(Clock::duration flushing, Clock::duration working) {
  if (platform::TestGroupBytes() != 0) return;
  if (flushing * 8 > working)
    j.groupLimit = std::min(j.groupLimit * 2, kGroupBytes);
  else if (flushing * 64 < working)
    j.groupLimit = std::max(j.groupLimit / 2, kMinGroupBytes);
}

// A write of a sampled block: its first write gives the block as it was before the run, every
// write what it holds now. Past kSampleLimit blocks, the modulus doubles and the sample keeps
// the blocks whose keys still qualify (those that did at every modulus before).
void SampleWrite(std::uint64_t key, std::uint32_t volume, std::uint64_t position, std::uint64_t beforeSum,
                 const std::uint8_t* written) {
  const std::uint64_t afterSum = journal::ChecksumOf(written, journal::kCheckedBytes);
  const auto [it, first] = j.sample.try_emplace(key, journal::Check{j.fileKey[volume], position, beforeSum, afterSum});
  if (!first) it->second.after = afterSum;
  if (j.sample.size() <= kSampleLimit) return;
  j.sampleModulus *= 2;
  std::erase_if(j.sample, [](const auto& entry) { return !Sampled(entry.first, j.sampleModulus); });
}

// The messages of the group on its way wait for it; then those of the group being gathered wait
// for its first write.
void CapOutput() {
  const Flight& oldest = FlightOf(j.oldestBusy);
  CapHeldOutput(j.oldestBusy < j.nextNumber && oldest.busy ? oldest.group.cap : j.group.cap);
}

std::vector<TableEntry> SettleEveryGroup() {
  std::vector<journal::Check> landed;
  return TakeUnsettled(j.nextNumber - 1, landed).table;
}

}  // namespace journaling

using namespace journaling;

bool Sampled(std::uint64_t key, std::uint64_t modulus) {
  std::uint64_t h = key + 0x9E3779B97F4A7C15ull;
  h = (h ^ h >> 30) * 0xBF58476D1CE4E5B9ull;
  h = (h ^ h >> 27) * 0x94D049BB133111EBull;
  h ^= h >> 31;
  return key == 0 || (h & (modulus - 1)) == 0;
}

bool JournalGroupFull() {
  return j.active && GroupBytes() >= j.groupLimit + std::min(j.groupLimit, kGroupBytes / 4);
}
bool JournalGroupWaits() {
  return j.active && !j.group.held.empty() && (GroupBytes() >= j.groupLimit || MessagesMade() > j.messagesAtCommit);
}

void CommitJournalGroup(std::uint32_t resumeBlock, std::uint64_t releaseMark) {
  if (!j.active) return;
  if (!j.group.held.empty()) Commit();
  j.releasedUpTo = releaseMark;
  ReleaseHeldOutput(releaseMark);
  // Messages made while the group was gathered are not kept waiting for the next commit.
  for (std::uint64_t n = j.oldestBusy; n < j.nextNumber && MessagesMade() > FlightOf(n).group.cap; ++n)
    AwaitFlightsThrough(n);
  j.groupBlock = resumeBlock;
  j.groupMaps = SaveMapState(*j.maps);
}

void AwaitJournalWrites() {
  if (j.active) AwaitFlights();
}

}  // namespace bt
