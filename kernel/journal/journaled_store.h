// The store of a journaled run (store.h): its writes are held in groups and committed to the
// journal before they are written (journal.h).
#pragma once

#include "store.h"

namespace bt {

// Used once the journal is begun (BeginJournal) or continued (ContinueJournal).
Store& JournaledStore();

}  // namespace bt
