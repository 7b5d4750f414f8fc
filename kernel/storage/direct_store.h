// The direct store: every write goes to its file at once (BYTETURN_JOURNAL=off; and every read
// before a command chooses its store).
#pragma once

#include "store.h"

namespace bt {

// What every store that writes the files shares: they are opened for reading and writing, the
// run's lock is taken and the main file held against a second run, a flush goes to the disk.
class WritingStore : public Store {
 public:
  platform::File Open(const std::string& path) override;
  void Lock(const std::string& lockPath, const std::string& fileName) override;
  void Unlock(const std::string& lockPath) override;
  bool Flush(platform::File file) override;
};

Store& DirectStore();

}  // namespace bt
