// byteturn-check: the run that byteturn would perform on the same files with the same answers,
// done in memory through the held store (held_store.h). Every block is read, decrypted,
// decompressed and converted as byteturn would. It prints what byteturn would print, without its
// final line, then a verdict of its own; status 0 when byteturn would complete, 1 otherwise.
#pragma once

namespace bt {

int CheckMain(int argc, const char* const* argv);

}  // namespace bt
