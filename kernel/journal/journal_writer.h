// The journal's two threads: the recorder commits each group whose undo the run made (its record
// written and flushed, the files of the groups its commit settles flushed, its commit sector
// written and flushed, with the next record where that one waits), the writer makes the writes of
// each group committed (committing first the groups whose undo it makes), while the run gathers
// the next.
#pragma once

#include <cstdint>
#include <vector>

#include "journal_state.h"

namespace bt::journaling {

// Flushes the files written since their last flush; false, with outcome set, where one fails.
bool SyncWrittenFiles(Outcome& outcome);
// Writes the table entries due (of groups whose files are flushed) and flushes the journal;
// false, with outcome set, where that fails.
bool WriteTableAndSync(Outcome& outcome, std::vector<TableEntry>& due);
// The flight of a group committed goes on its way; the run waits for the flights, oldest first,
// up to group number n, or all of them.
void HandToWriter(Flight& f);
void AwaitFlightsThrough(std::uint64_t n);
void AwaitFlights();
// After a flight stopped: waits until the threads have let go of every flight on its way (those
// after the one that stopped land neither recorded nor written), so that nothing they do outlives
// the run's end.
void AwaitLandings();
// The flight group number n travels in.
inline Flight& FlightOf(std::uint64_t n) { return TheJournalState().journal.flights[n % kFlights]; }

}  // namespace bt::journaling
