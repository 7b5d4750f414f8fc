#include <gtest/gtest.h>

#include <cstring>

#include <cstdio>
#include <filesystem>

#include "platform.h"
#include "run.h"
#include "pass.h"
#include "database.h"
#include "block_batch.h"
#include "map_block.h"
#include "volume_io.h"

using namespace testsupport;

namespace {

// Twelve volumes of ten blocks each: volume v holds blocks 10v+1 .. 10v+10.
void SetUpTwelveVolumes(const Scratch& s) {
  bt::databaseFileName = s.Path("ORVA.DAT");
  bt::primaryDirectory = s.dir + "/";
  bt::volumeDirectories.clear();
  bt::furtherVolumeCount = 11;
  bt::primaryVolumeLastBlock = 10;
  bt::lastBlock = 120;
  for (std::uint32_t v = 1; v <= 11; ++v) {
    bt::volumeFirstBlock[v] = 10 * v + 1;
    bt::volumeDirIndex[v] = 0;
    char name[32];
    std::snprintf(name, sizeof name, "ORVA-%04u.VOL", v);
    WriteBytes(s.Path(name), 0, {1});
  }
  WriteBytes(bt::databaseFileName, 0, {1});
}

TEST(VolumeIo, VolumeOfBlockFindsRangesAtTheirEdges) {
  Scratch s;
  SetUpTwelveVolumes(s);
  std::uint32_t first = 0, last = 0;
  EXPECT_EQ(bt::VolumeIndexOfBlock(10, &first, &last), 0u);
  EXPECT_EQ(first, 1u);
  EXPECT_EQ(last, 10u);
  EXPECT_EQ(bt::VolumeIndexOfBlock(11, &first, &last), 1u);
  EXPECT_EQ(last, 20u);
  EXPECT_EQ(bt::VolumeIndexOfBlock(110, &first, &last), 10u);
  EXPECT_EQ(bt::VolumeIndexOfBlock(111, &first, &last), 11u);
  EXPECT_EQ(first, 111u);
  EXPECT_EQ(last, 120u);

  bt::furtherVolumeCount = 0;
  EXPECT_EQ(bt::VolumeIndexOfBlock(115, &first, &last), 0u);
  EXPECT_EQ(last, 120u);
}

TEST(VolumeIo, HandleCacheRefillsRoundRobin) {
  Scratch s;
  SetUpTwelveVolumes(s);
  bt::HandleCache cache;
  std::uint32_t first = 0, last = 0;
  platform::File f0 = cache.Of(5, &first, &last);
  ASSERT_NE(f0, platform::kInvalidFile);
  EXPECT_EQ(cache.Of(7, &first, &last), f0);  // reused, not opened again
  for (std::uint32_t v = 1; v <= 9; ++v) EXPECT_NE(cache.Of(10 * v + 1, &first, &last), platform::kInvalidFile);
  for (int slot = 0; slot < bt::kHandleCacheSlots; ++slot) EXPECT_EQ(cache.SlotVolume(slot), slot);
  // The eleventh volume replaces the oldest slot; touching volume 1 again does not protect it.
  cache.Of(11, &first, &last);
  cache.Of(101, &first, &last);
  EXPECT_EQ(cache.SlotVolume(0), 10);
  cache.Of(111, &first, &last);
  EXPECT_EQ(cache.SlotVolume(1), 11);
  EXPECT_EQ(cache.SlotVolume(2), 2);
  cache.CloseAll();
  for (int slot = 0; slot < bt::kHandleCacheSlots; ++slot) EXPECT_EQ(cache.SlotVolume(slot), -1);
}

TEST(VolumeIo, MissingVolumeGivesInvalidHandleAndAdvances) {
  Scratch s;
  SetUpTwelveVolumes(s);
  std::filesystem::remove(s.Path("ORVA-0003.VOL"));
  bt::HandleCache cache;
  std::uint32_t first = 0, last = 0;
  EXPECT_EQ(cache.Of(31, &first, &last), platform::kInvalidFile);
  EXPECT_EQ(cache.SlotVolume(0), -1);
  EXPECT_NE(cache.Of(41, &first, &last), platform::kInvalidFile);
  EXPECT_EQ(cache.SlotVolume(1), 4);
}

TEST(VolumeIo, ErrorText) {
  platform::RecordShortTransfer(false);  // never a code that reads like success
  const int code = platform::LastError();
  EXPECT_NE(code, 0);
  EXPECT_EQ(bt::ErrorText(), "Error " + std::to_string(code) + "=(" + platform::SystemErrorText(code) + ")");
  platform::SetLastError(9999);
  EXPECT_STREQ(bt::ErrorText(), "Error 9999=(unknown error)");
}

}  // namespace

namespace {

// A block rewritten out of order through another path to the file being converted (a link: two
// volumes of a set may be one file): the copy read ahead of it is dropped and read again.
TEST(VolumeIo, OutOfOrderWriteThroughAnotherPathIsReadAgain) {
  Scratch s;
  bt::SetGeometry(1);
  bt::swapFlag = 0;
  bt::furtherVolumeCount = 0;
  bt::lastBlock = 64;
  bt::databaseFileName = s.Path("ORVA.DAT");
  std::vector<std::uint8_t> bytes(64 * 4096, 0x11);
  std::fill(bytes.begin() + 4096, bytes.begin() + 8192, 0);  // map block 2: no free bits consulted
  bytes[4096 + bt::map::kMapMark] = bt::map::kMapMarkValue;
  WriteBytes(bt::databaseFileName, 0, bytes);
  std::filesystem::create_hard_link(bt::databaseFileName, s.Path("link.dat"));
  bt::Pass pass;
  bt::FetchGoverningMap(pass.maps, pass.blocks, 2, 2);  // read ahead: it governs the blocks to come
  const platform::File read = platform::OpenReadWrite(bt::databaseFileName);
  const platform::File write = platform::OpenReadWrite(bt::databaseFileName);
  const platform::File other = platform::OpenReadWrite(s.Path("link.dat"));
  bt::BeginVolumeBatch(pass.maps, 1, 64, 1, read, write);
  for (std::uint32_t b = 1; b <= 20; ++b) {
    ASSERT_FALSE(bt::FetchBlock(b).empty());
    bt::KeepBlock(b, false);
  }
  const std::vector<std::uint8_t> rewritten(4096, 0x22);
  ASSERT_EQ(platform::WriteAt(other, rewritten.data(), 4096, 39 * 4096), 4096);
  bt::NoteOutOfOrderWrite(other, 39 * 4096, rewritten.data());
  for (std::uint32_t b = 21; b <= 40; ++b) {
    const bt::Bytes block = bt::FetchBlock(b);
    ASSERT_FALSE(block.empty());
    EXPECT_EQ(block[100], b == 40 ? 0x22 : 0x11) << b;
    bt::KeepBlock(b, false);
  }
  bt::EndVolumeBatch();
  for (const platform::File f : {read, write, other}) platform::Close(f);
}

// A full path names the file the system opens by the path given: a ".." after a link goes up from
// where the link leads, as the system takes it, not back over the link's name.
TEST(VolumeIo, FullPathTakesDotDotAfterALinkAsTheSystemDoes) {
#ifdef _WIN32
  GTEST_SKIP() << "the system folds \"..\" by the text";
#else
  Scratch s;
  std::filesystem::create_directories(s.Path("real/x"));
  std::filesystem::create_directories(s.Path("real/db"));
  std::filesystem::create_directories(s.Path("db"));
  std::filesystem::create_directory_symlink(s.Path("real/x"), s.Path("link"));
  WriteBytes(s.Path("real/db/ORVA.DAT"), 0, {1});
  WriteBytes(s.Path("db/ORVA.DAT"), 0, {2});
  const std::string full = platform::FullPathName(s.Path("link/../db/./ORVA.DAT"), 4096);
  EXPECT_EQ(ReadBytes(full), std::vector<std::uint8_t>{1}) << full;
  EXPECT_EQ(full.find(".."), std::string::npos) << full;
  // Without a "..", links stay as they are; a path that does not exist yet is folded by the text.
  EXPECT_EQ(platform::FullPathName(s.Path("link/file"), 4096), s.Path("link/file"));
  EXPECT_EQ(platform::FullPathName(s.Path("none/../db/ORVA.DAT"), 4096), s.Path("db/ORVA.DAT"));
#endif
}

}  // namespace
