#include "keyfile.h"

#include <cstdio>

namespace bt {

int LoadDatabaseKey(int, const std::uint8_t*) {
  std::fputs("Encrypted databases cannot be converted by this build.\n", stderr);
  return 0;
}

}  // namespace bt
