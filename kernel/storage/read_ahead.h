// A volume file read ahead of the run, on a thread of its own: the system is asked to read the
// file into its cache well past the run's reads (a quarter of the machine's memory), so that a run
// over a file not in the cache does not wait for the disk at each read (the batch's reads go in
// order, but the big strings and vectors a data node names lie anywhere in the file, and each
// read of one alone would wait). A hint: what the run reads is the same either way.
#pragma once

#include <cstdint>

#include "platform.h"

namespace bt {

// The run reads file, size bytes of it, from position on.
void StartReadAhead(platform::File file, std::uint64_t size, std::uint64_t position);
// The run reads the file at position now.
void ReadAheadOf(std::uint64_t position);
// The run is done with the file: returns once the thread no longer uses it.
void StopReadAhead();

}  // namespace bt
