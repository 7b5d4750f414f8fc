// Commits: where a group ends, its record is written and the group handed to the writer; how
// large groups grow; what the next record names of the blocks written (those that landed, and a
// sample); and which messages wait for which group.
#pragma once

#include <cstdint>
#include <vector>

#include "journal_state.h"

namespace bt::journaling {

// From here on the run's writes are held in groups.
void StartGroups();
// Whether the writer makes the undo of the group starting; the group limit after a flight landed.
bool RecordByWriter();
void AdaptGroupLimit(Clock::duration flushing, Clock::duration working);
// Notes a write of a block in the sample (key: its block key).
void SampleWrite(std::uint64_t key, std::uint32_t volume, std::uint64_t position, std::uint64_t beforeSum,
                 const std::uint8_t* written);
// Keeps back the messages that wait for the groups held.
void CapOutput();
// At the run's end, every group landed and every file flushed: the table entries of the groups
// not settled yet, which count as settled from here on.
std::vector<TableEntry> SettleEveryGroup();

}  // namespace bt::journaling
