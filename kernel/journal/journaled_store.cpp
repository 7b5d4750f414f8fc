// The journaled store: writes held in groups with their undo, committed to the journal and then
// written (journal.h). Reads see the writes held.
#include "journaled_store.h"

#include "direct_store.h"
#include "journal.h"
#include "volume_io.h"

namespace bt {

namespace {

class Journaled final : public WritingStore {
 public:
  bool Read(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) override {
    if (!ReadThrough(file, position, buffer, size)) return false;
    if (ReadReachesMark(file, position, size)) {
      platform::RecordShortTransfer(false);  // the read the file would give without the mark
      return false;
    }
    SeeJournaledWrites(file, position, buffer, size);
    return true;
  }
  bool Write(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
             const char* failure, std::uint32_t block) override {
    HoldJournaledWrite(file, position, bytes, size, failure, block);
    return true;
  }
  bool WriteInTurn(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
                   std::uint32_t block) override {
    HoldJournaledWrite(file, position, bytes, size, nullptr, block);
    return true;
  }
  bool EncryptsInTurn() const override { return JournalEncryptsInTurn(); }
  void KeepOriginals(platform::File file, std::uint64_t position, const std::uint8_t* bytes,
                     std::uint32_t size) override {
    KeepBatchOriginals(file, position, bytes, size);
  }
  void BeforeRead(std::uint32_t b) override {
    if (JournalGroupWaits()) CommitJournalGroup(b, b);
  }
  bool WantsToSettle() override { return JournalGroupFull(); }
  void Settle(std::uint32_t resume, std::uint64_t releaseMark) override { CommitJournalGroup(resume, releaseMark); }
  void EndVolume(std::uint32_t next) override {
    CommitJournalGroup(next, UINT64_MAX);
    AwaitJournalWrites();
  }
  void Finish() override { EndJournal(); }
} journaled;

}  // namespace

Store& JournaledStore() { return journaled; }

}  // namespace bt
