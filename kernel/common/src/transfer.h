// The loop that both platform files use to move a whole buffer: a system call may move fewer
// bytes than asked, so it is repeated until everything is moved, the file ends, or it fails.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// step(done) moves bytes from offset done on: the count moved, 0 at the end of the file, or -1
// on failure (with the system error recorded). Returns the bytes moved, or -1 on failure.
template <typename Step>
std::int64_t TransferAll(std::size_t size, Step step) {
  std::size_t done = 0;
  while (done < size) {
    const std::int64_t n = step(done);
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return static_cast<std::int64_t>(done);
}

}  // namespace platform
