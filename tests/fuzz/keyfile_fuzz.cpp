// The keyfile reader and LoadDatabaseKey on arbitrary keyfile bytes, answered as user "admin"
// with password "pw". Input: the label's key ID length and ID, then the keyfile. Keyfiles whose
// numbers have six digits or more are left out: their key derivation is slow by design.
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "fuzz_target.h"
#include "keyfile.h"

namespace {
// The keyfile and the answers of each input, removed when the process ends.
struct Scratch {
  std::string base = std::string("/tmp/byteturn-fuzz-") + std::to_string(std::random_device{}());
  ~Scratch() {
    std::remove((base + ".key").c_str());
    std::remove((base + ".in").c_str());
  }
};
std::string ScratchName(const char* what) {
  static const Scratch scratch;
  return scratch.base + what;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::size_t idLength = std::min<std::size_t>(data[0] % 65, size - 1);
  for (std::size_t i = 0, run = 0; i < size; ++i) {
    run = data[i] >= '0' && data[i] <= '9' ? run + 1 : 0;
    if (run >= 6) return 0;
  }
  fuzz::ResetRun(0, 0);
  const std::string keyfile = ScratchName(".key"), answers = ScratchName(".in");
  if (std::FILE* f = std::fopen(keyfile.c_str(), "wb")) {
    std::fwrite(data + 1 + idLength, 1, size - 1 - idLength, f);
    std::fclose(f);
  }
  if (std::FILE* f = std::fopen(answers.c_str(), "wb")) {
    std::fprintf(f, "%s\nadmin\npw\n", keyfile.c_str());
    std::fclose(f);
  }
  if (std::freopen(answers.c_str(), "rb", stdin) == nullptr) return 0;
  fuzz::Guarded([&] { bt::LoadDatabaseKey(static_cast<int>(idLength), data + 1); });
  return 0;
}
