// What the fuzz targets share. Each target is one LLVMFuzzerTestOneInput over a pure part of the
// program; built with libFuzzer by tools/fuzz, and with replay_main.cpp into a program that runs
// the kept inputs (tests/fuzz/regressions) under CTest. The conversion code ends a run by throwing
// RunEnded, so that a refusal is an outcome.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "messages.h"
#include "other_blocks.h"
#include "database.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Runs body; a run that the program would end (a refusal, a fatal message) is caught.
template <typename Body>
void Guarded(Body body) {
  try {
    body();
  } catch (const bt::RunEnded&) {
  }
}

// Puts the process-wide state of a run back to its start: block size code from 1 to 5, the swap
// flag, no volume set, no key, no big string reachable.
void ResetRun(std::uint32_t code, int swap);

// The blocks a converter reaches beyond its own: none is there (lastBlock is 0, so none is asked).
bt::OtherBlocks& NoOtherBlocks();

// The input after its first skip bytes, as a block of the current block size (zero-filled).
std::vector<std::uint8_t> BlockOf(const std::uint8_t* data, std::size_t size, std::size_t skip);

}  // namespace fuzz
