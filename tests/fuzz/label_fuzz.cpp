// The label check and ConvertLabelBlock on an arbitrary label copy, under every form of the
// command line. Input: a command line selector, then the first 4096 bytes of a database.
#include <cstring>

#include "command_line.h"
#include "fuzz_target.h"
#include "label_block.h"
#include "label_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  fuzz::ResetRun(0, 0);
  std::vector<std::uint8_t> label(bt::kLabelCopySize, 0);
  std::memcpy(label.data(), data + 1, std::min<std::size_t>(size - 1, label.size()));
  // An encrypted database would ask for a keyfile on the console: that dialogue has a target of
  // its own.
  label[bt::label::kFlagsWord] &= static_cast<std::uint8_t>(~0x08);
  label[bt::label::kFlagsWord + 1] &= static_cast<std::uint8_t>(~0x08);
  static const char* const kForms[][3] = {{"-t", "db", nullptr}, {"-b", "db", nullptr}, {"-l", "db", nullptr},
                                          {"-r", "db", nullptr}, {"db", "big", nullptr},  {"db", "little", nullptr}};
  const auto& form = kForms[data[0] % 6];
  const char* argv[] = {"byteturn", form[0], form[1], nullptr};
  bt::CommandLine cl;
  if (!bt::ParseCommandLine(3, argv, cl)) __builtin_trap();
  cl.verbose = (data[0] & 0x80) == 0;
  fuzz::Guarded([&] {
    bt::CheckLabel(label.data(), cl);
    bt::ConvertLabelBlock(bt::Bytes(label));
  });
  return 0;
}
