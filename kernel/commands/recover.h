// byteturn-recover FILE: finishes the conversion that a run interrupted, from its journal
// (journal.h). The bytes the last recorded writes replaced are put back, then the run goes on from
// the point recorded with them, printing what the rest of the run prints; at its end the journal
// and the lock are removed. A journal that is damaged, or written for other files, is refused
// with nothing changed.
#pragma once

namespace bt {

int RecoverMain(int argc, const char* const* argv);

}  // namespace bt
