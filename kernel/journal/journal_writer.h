// The writer thread: it lands each group committed (the files the group before wrote flushed,
// the commit sector written and flushed, the group's writes made) while the run gathers the next,
// and it hands the group back to the run.
#pragma once

#include <cstdint>
#include <vector>

#include "journal_state.h"

namespace bt::journaling {

// Flushes the files written since their last flush; false, with outcome set, where one fails.
bool SyncWrittenFiles(Outcome& outcome);
// Writes and flushes a group's record (the run's thread, or the writer's where it makes the undo).
Stop WriteRecord(const Group& g, const std::vector<std::uint8_t>& head, std::uint64_t offset, std::uint64_t& checksum,
                 int& error, Clock::duration& flushing);
// The flight goes to the writer; the run waits for it to land.
void HandToWriter();
void AwaitFlight();

}  // namespace bt::journaling
