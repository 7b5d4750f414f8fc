#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "run.h"
#include "database.h"
#include "volume_info.h"
#include "volume_set.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

gendb::Params VolumeSet(unsigned volumes, bool big, std::uint64_t seed) {
  gendb::Params p;
  p.seed = seed;
  p.sizeCode = 1;
  p.bigEndian = big;
  p.lastBlock = 30720 + 2000;  // two maps: the second lies in a further volume
  p.sparse = true;
  p.freeShare = 0.9;
  p.mix = gendb::Mix{4, 6, 1, 3, 1, 1, 1};
  p.bigRefShare = 0.8;
  p.volumeSet.volumes = volumes;
  p.volumeSet.directories = {"vols-a/", "vols-b/"};
  for (unsigned v = 1; v <= volumes; ++v) p.volumeSet.placement.push_back(v % 3);
  p.volumeSet.storedList = {"vols-a/", "vols-b/"};
  return p;
}

void MakeDirectories(const gendb::Params& p, const std::string& root) {
  fs::create_directories(root);
  for (const auto& d : p.volumeSet.directories) fs::create_directories(root + "/" + d);
}

// Generates the set under src/ and its converted twin under twin/, converts src/ORVA.DAT from
// inside src/ (so the stored relative directories resolve) and compares every file.
RunResult ConvertsToTwin(gendb::Params p, const Scratch& s, const std::string& input) {
  MakeDirectories(p, s.Path("src"));
  MakeDirectories(p, s.Path("twin"));
  Generate(p, s.Path("src/ORVA.DAT"));
  const gendb::Params twin = TwinOf(p);
  Generate(twin, s.Path("twin/ORVA.DAT"));
  RunResult r = RunByteturn({"-t", "ORVA.DAT"}, input, s.Path("src"));
  EXPECT_EQ(r.status, 0) << r.out;
  const auto a = gendb::DatabaseFiles(p, s.Path("src/ORVA.DAT")), b = gendb::DatabaseFiles(twin, s.Path("twin/ORVA.DAT"));
  for (std::size_t i = 0; i < a.size(); ++i) EXPECT_EQ(gendb::CompareFiles(a[i], b[i], 4096), "") << a[i];
  EXPECT_FALSE(Exists(s.Path("src/orva.lck")));
  return r;
}

TEST(VolumeSets, SetsOfOneToTwelveVolumesConvertToTheirMirrorImages) {
  for (unsigned volumes : {1u, 3u, 12u}) {
    for (bool big : {true, false}) {
      Scratch s;
      RunResult r = ConvertsToTwin(VolumeSet(volumes, big, volumes * 2 + big), s, "yes\n");
      EXPECT_NE(r.out.find("\r\nDatabase has " + std::to_string(volumes + 1) + " volumes.\r\n"
                           "Volumes are expected to be in the primary directory:\r\n ." + Sep() + "\r\n"
                           "Plus the following set of additional volume directories:\r\n vols-a/\r\n vols-b/\r\n"),
                std::string::npos)
          << r.out;
      EXPECT_NE(r.out.find("\r\nFound all volumes, proceeding with conversion.\r\n"), std::string::npos);
    }
  }
}

TEST(VolumeSets, EncryptedSetWithMoreThanTwentyStoredDirectories) {
  Scratch s;
  gendb::Params p = VolumeSet(4, false, 77);
  for (int i = 0; i < 20; ++i) p.volumeSet.storedList.push_back("spare-" + std::to_string(i) + "/");
  p.databaseKey = std::vector<std::uint8_t>(24, 0x42);
  p.keyId = "k";
  ASSERT_EQ(gendb::WriteKeyfile(s.Path("k.key"), "2.0", "k", "dba", "pw", p.databaseKey), "");
  RunResult r = ConvertsToTwin(p, s, s.Path("k.key") + "\ndba\npw\nY\n");
  EXPECT_NE(r.out.find(" spare-17/\r\n\r\nIf volumes"), std::string::npos) << r.out;  // the first twenty only
}

TEST(VolumeSets, AnsweringNoEntersANewList) {
  Scratch s;
  gendb::Params p = VolumeSet(3, true, 5);
  p.volumeSet.storedList = {"nowhere/"};
  const std::string longName(230, 'x');
  RunResult r = ConvertsToTwin(p, s, "ye\nyess\n yes\n\nmaybe-not\nNo\n." + std::string(1, Sep()) + "\n" + longName +
                                        "\nvols-a\nvols-b" + Sep() + "\n\n");
  EXPECT_NE(r.out.find("\r\nAre volumes in their expected locations? Please enter Yes or No."
                       "\r\nAre volumes in their expected locations? Please enter Yes or No."
                       "\r\nAre volumes in their expected locations? Please enter Yes or No."
                       "\r\nAre volumes in their expected locations? Please enter Yes or No."
                       "\r\nAre volumes in their expected locations? Please enter Yes or No."
                       "\r\nAre volumes in their expected locations? "
                       "\r\nEnter a new set of additional volume directories.\r\nThe primary directory is implicitly "
                       "included.\r\nDirectory #1 (null=end)? Directory matches primary directory, which is "
                       "implicitly included.\r\nDirectory #1 (null=end)? Invalid volume directory - too long or "
                       "invalid syntax.\r\nDirectory #1 (null=end)? Directory #2 (null=end)? Directory #3 "
                       "(null=end)? \r\nFound all volumes"),
            std::string::npos)
      << r.out;
}

// The question is asked again and again, even when the reader of its output has gone away: the
// run is still going when it is stopped from outside.
TEST(VolumeSets, EndOfInputAsksAgainWithoutEnd) {
  Scratch s;
  gendb::Params p = VolumeSet(1, true, 9);
  MakeDirectories(p, s.Path("src"));
  Generate(p, s.Path("src/ORVA.DAT"));
  const std::string shown = RunConsole("head", 60, "4000", {"-t", "ORVA.DAT"}, s.Path("src"));
  EXPECT_EQ(shown.find("timeout"), std::string::npos) << shown;
  EXPECT_NE(shown.find("bytes 4000\nrunning yes\n"), std::string::npos) << shown;
  std::size_t asks = 0;
  for (std::size_t at = shown.find("Please enter Yes or No."); at != std::string::npos;
       at = shown.find("Please enter Yes or No.", at + 1))
    ++asks;
  EXPECT_GT(asks, 20u) << shown;
  MakeDirectories(p, s.Path("copy"));
  Generate(p, s.Path("copy/ORVA.DAT"));
  EXPECT_EQ(ReadBytes(s.Path("src/ORVA.DAT")), ReadBytes(s.Path("copy/ORVA.DAT")));
}

// Twenty typed directories end the list without a further prompt; an empty stored list shows
// as " <none>". Answers written on Windows (CR LF) are the same answers.
TEST(VolumeSets, TwentyTypedDirectoriesEndTheList) {
  Scratch s;
  gendb::Params p = VolumeSet(2, false, 14);
  p.volumeSet.placement = {0, 0};
  p.volumeSet.storedList = {};
  std::string input = "n\r\n";
  for (int i = 1; i <= 21; ++i) input += "typed-" + std::to_string(i) + "\r\n";
  RunResult r = ConvertsToTwin(p, s, input);
  EXPECT_NE(r.out.find("Plus the following set of additional volume directories:\r\n <none>\r\n"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("Directory #20 (null=end)? \r\nFound all volumes"), std::string::npos) << r.out;
}

// A marker names the primary directory in UTF-8; its line may end in CR LF.
TEST(VolumeSets, MarkerInUtf8EndingInCrLf) {
  Scratch s;
  gendb::Params p = VolumeSet(2, true, 15);
  p.volumeSet.directories = {"caf\xC3\xA9-vols/"};
  // The stored list holds the name in the system's own form: the 8-bit code page on Windows.
  p.volumeSet.storedList = {UnderTest().windows ? "caf\xE9-vols/" : "caf\xC3\xA9-vols/"};
  p.volumeSet.placement = {1, 1};
  const std::string root = s.Path("d\xC3\xA9j\xC3\xA0");
  MakeDirectories(p, root);
  Generate(p, root + "/ORVA.DAT");
  const std::string marker = root + "/caf\xC3\xA9-vols/orva.dbdir";
  std::string named = ReadText(marker);
  ASSERT_EQ(named.back(), '\n');
  named.insert(named.size() - 1, "\r");
  std::filesystem::remove(marker);
  WriteBytes(marker, 0, std::vector<std::uint8_t>(named.begin(), named.end()));
  RunResult r = RunByteturn({"-t", "ORVA.DAT"}, "Yes\r\n", root);
  EXPECT_EQ(r.status, 0) << r.out;
}

// The primary directory must fit 227 bytes; when its absolute form does not, a marker that does
// not match says why it may have failed.
TEST(VolumeSets, PrimaryDirectoryLengthLimits) {
  Scratch s;
  gendb::Params p = VolumeSet(2, true, 16);
  // 240 bytes as the program shows it: over 227, with room for the file's name in Windows' 260.
  const std::size_t room = 240 - Shown(s.dir).size() - 2;
  const std::string deep = s.Path(std::string(room / 2, 'a') + "/" + std::string(room - room / 2, 'b'));
  ASSERT_EQ(Shown(deep).size(), 240u);
  MakeDirectories(p, deep);
  Generate(p, deep + "/ORVA.DAT");
  RunResult r = RunByteturn({"-t", deep + "/ORVA.DAT"}, "yes\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.ends_with("\r\nInvalid primary volume directory - too long or invalid syntax.\r\n")) << r.out;

  r = RunByteturn({"-t", "ORVA.DAT"}, "yes\n", deep);
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.ends_with("\r\nThe orva.dbdir file in vols-a/ indicates it is a volume directory of another "
                              "database.\r\nThis may have occurred due to an error resolving the absolute path of the "
                              "primary directory: " + ErrorShown(Codes().nameTooLong) + ".\r\n"))
      << r.out;
}

struct Failure {
  std::string name;
  std::function<void(const Scratch&, const gendb::Params&)> damage;
  std::string message;
};

TEST(VolumeSets, EveryFailureEndsBeforeAnythingIsWritten) {
  auto volumeFile = [](const Scratch& s, const gendb::Params& p, unsigned v) {
    return gendb::DatabaseFiles(p, s.Path("src/ORVA.DAT"))[v];
  };
  const std::vector<Failure> failures = {
      {"missing volume", [&](const Scratch& s, const gendb::Params& p) { fs::remove(volumeFile(s, p, 2)); },
       "\r\nUnable to find or open file ORVA-0002.VOL.\r\n"},
      {"found twice",
       [&](const Scratch& s, const gendb::Params& p) { fs::copy_file(volumeFile(s, p, 1), s.Path("src/vols-b/ORVA-0001.VOL")); },
       "\r\nMultiple files named ORVA-0001.VOL were found among the volume directories.\r\n"},
      {"wrong database", [&](const Scratch& s, const gendb::Params& p) { PatchU32(volumeFile(s, p, 2), 48, 1234, true); },
       "volume appears to be from the wrong database.\r\n"},
      {"wrong checkpoint", [&](const Scratch& s, const gendb::Params& p) { PatchU32(volumeFile(s, p, 3), 40, 1, true); },
       "volume appears to be from a different point in time (discrepancy in checkpoint values).\r\n"},
      {"wrong start", [&](const Scratch& s, const gendb::Params& p) { PatchU32(volumeFile(s, p, 1), 60, 77, true); },
       "volume doesn't have the expected starting block number.\r\n"},
      {"wrong volume number", [&](const Scratch& s, const gendb::Params& p) { PatchU32(volumeFile(s, p, 1), 36, 2, true); },
       "\r\nBad volume info block in vols-a/ORVA-0001.VOL.\r\n"},
      {"marker of another database",
       [&](const Scratch& s, const gendb::Params&) { WriteBytes(s.Path("src/vols-b/orva.dbdir"), 0, {'/', 'x', '/', '\n'}); },
       "\r\nThe orva.dbdir file in vols-b/ indicates it is a volume directory of another database.\r\n"},
      {"marker that cannot be opened",
       [&](const Scratch& s, const gendb::Params&) {
         fs::remove(s.Path("src/vols-a/orva.dbdir"));
         fs::create_directory(s.Path("src/vols-a/orva.dbdir"));
       },
       "\r\nError reading orva.dbdir file in vols-a/.\r\n"},
      {"zero-length stored entry",
       [&](const Scratch& s, const gendb::Params&) { PatchU16(s.Path("src/ORVA.DAT"), 2 * 4096 + 1028, 0, true); },
       "\r\nBad volume info block in primary volume.\r\n"},
      {"volume info block outside the primary volume",
       [&](const Scratch& s, const gendb::Params&) { PatchU32(s.Path("src/ORVA.DAT"), 1144, 99999, true); },
       "\r\nVolume info block #99999 in primary volume is not in the file.\r\n"},
      {"more than 200 volumes", [&](const Scratch& s, const gendb::Params&) { PatchU16(s.Path("src/ORVA.DAT"), 1148, 201, true); },
       "\r\nThis database names 201 further volumes; at most 200 are supported.\r\n"},
      {"200 volumes pass the limit",
       [&](const Scratch& s, const gendb::Params&) { PatchU16(s.Path("src/ORVA.DAT"), 1148, 200, true); },
       "\r\nUnable to find or open file ORVA-0004.VOL.\r\n"},
      {"primary volume info block of another type",
       [&](const Scratch& s, const gendb::Params&) { WriteBytes(s.Path("src/ORVA.DAT"), 2 * 4096 + 4, {17}); },
       "\r\nBad volume info block in primary volume.\r\n"},
      {"stored directory of 228 bytes",
       [&](const Scratch& s, const gendb::Params&) { PatchU16(s.Path("src/ORVA.DAT"), 2 * 4096 + 1028, 228, true); },
       "\r\nBad volume info block in primary volume.\r\n"},
      {"primary volume ending inside its volume info block",
       [&](const Scratch& s, const gendb::Params&) { fs::resize_file(s.Path("src/ORVA.DAT"), 2 * 4096 + 100); },
       "\r\nFailed to read volume info block #3 in primary volume. " + EndOfFileError() + "\r\n"},
      {"further volume shorter than a block",
       [&](const Scratch& s, const gendb::Params& p) { fs::resize_file(volumeFile(s, p, 2), 100); },
       "\r\nError reading volume info block in vols-b/ORVA-0002.VOL. " + EndOfFileError() + "\r\n"},
  };
  for (const Failure& f : failures) {
    Scratch s;
    gendb::Params p = VolumeSet(3, true, 31);
    p.lastBlock = 4000;  // one map: the failures come before any block is converted
    MakeDirectories(p, s.Path("src"));
    Generate(p, s.Path("src/ORVA.DAT"));
    f.damage(s, p);
    const auto before = ReadBytes(s.Path("src/ORVA.DAT"));
    RunResult r = RunByteturn({"-t", "ORVA.DAT"}, "yes\n", s.Path("src"));
    EXPECT_EQ(r.status, 1) << f.name;
    EXPECT_TRUE(r.out.ends_with(f.message)) << f.name << ": " << r.out << r.err;
    EXPECT_EQ(ReadBytes(s.Path("src/ORVA.DAT")), before) << f.name;
    EXPECT_FALSE(Exists(s.Path("src/orva.lck"))) << f.name;
    // byteturn-check's verdict quotes the failure, on one line.
    const std::size_t text = f.message.find_first_not_of("\r\n");
    const std::string quoted = f.message.substr(text, f.message.find("\r\n", text) - text);
    r = RunByteturn({"-t", "ORVA.DAT"}, "yes\n", s.Path("src"), UnderTest().checkExe);
    const std::size_t verdict = r.out.find("\r\nbyteturn-check: byteturn would not start the conversion (");
    EXPECT_TRUE(verdict != std::string::npos && r.out.find(quoted + ")", verdict) != std::string::npos)
        << f.name << ": " << r.out;
  }
}

TEST(VolumeSets, DirectoryWithoutMarkerIsAccepted) {
  Scratch s;
  gendb::Params p = VolumeSet(2, false, 12);
  p.volumeSet.markers = false;
  ConvertsToTwin(p, s, "y\n");
}

TEST(VolumeSets, VolumeInfoBlockConversion) {
  bt::SetGeometry(1);
  bt::swapFlag = 1;
  std::vector<std::uint8_t> block(4096, 0xEE);
  auto put16 = [&](std::size_t at, std::uint16_t v) { block[at] = static_cast<std::uint8_t>(v >> 8), block[at + 1] = static_cast<std::uint8_t>(v); };
  block[1024] = 0, block[1025] = 0, block[1026] = 0, block[1027] = 24;  // 24 bytes of list
  put16(1028, 3);                      // "abc" and a pad byte
  put16(1034, 0x8002);                 // two 16-bit characters
  block[1036] = 1, block[1037] = 2, block[1038] = 3, block[1039] = 4;
  put16(1040, 0x8000);                 // no characters: only its header
  put16(1042, 0);                      // the end: what follows stays
  block[56] = 1, block[63] = 2;
  auto original = block;
  bt::CvVolInfo(bt::Bytes(block), 0);
  EXPECT_EQ(block[1028], 3);
  EXPECT_EQ(block[1030], 0xEE);  // text untouched
  EXPECT_EQ(block[1036], 2);
  EXPECT_EQ(block[1038], 4);
  EXPECT_EQ(block[1040], 0x00);
  EXPECT_EQ(block[1041], 0x80);
  EXPECT_EQ(block[1044], 0xEE);
  EXPECT_EQ(block[56], 2);
  EXPECT_EQ(block[63], 1);
  bt::swapFlag = 0;
  bt::CvVolInfo(bt::Bytes(block), 0);
  EXPECT_EQ(block, original);

  std::vector<std::uint8_t> other = original;
  bt::CvVolInfo(bt::Bytes(other), 3);  // a further volume: bytes from 1024 on stay
  EXPECT_TRUE(std::equal(other.begin() + 1024, other.end(), original.begin() + 1024));

  bt::swapFlag = 1;
  block.assign(4096, 0);
  block[1026] = 0x0B, block[1027] = 0xFC;  // 1028 + 3068 = 4096: accepted
  bt::CvVolInfo(bt::Bytes(block), 0);
  block.assign(4096, 0);
  block[1026] = 0x0B, block[1027] = 0xFD;  // one more
  EXPECT_EQ(OUTPUT_OF_FAILURE(bt::CvVolInfo(bt::Bytes(block), 0)),
            "\r\nCvVolInfo: Volume directory list in primary volume has invalid length (3069 bytes)\r\n");
}

TEST(VolumeSets, NamesAndTextConversion) {
  char name[14] = {};
  EXPECT_EQ(bt::VolumeFileName(7, name), 1);
  EXPECT_EQ(std::string(name), "ORVA-0007.VOL");
  EXPECT_EQ(bt::VolumeFileName(200, name), 1);
  EXPECT_EQ(std::string(name), "ORVA-0200.VOL");
  EXPECT_EQ(bt::VolumeFileName(0, name), 0);
  EXPECT_EQ(bt::VolumeFileName(201, name), 0);

  std::uint8_t out[240];
  auto convert = [&](const std::string& in) {
    return bt::Utf8ToLatin1(reinterpret_cast<const std::uint8_t*>(in.data()), static_cast<int>(in.size()), out);
  };
  EXPECT_EQ(convert(""), 0);
  EXPECT_EQ(convert("/d\xC3\xA9j\xC3\xA0/"), 6);
  EXPECT_EQ(out[2], 0xE9);
  EXPECT_EQ(convert("\xC1\x81"), 1);  // overlong forms count by their value
  EXPECT_EQ(out[0], 'A');
  EXPECT_EQ(convert("\xC4\x80"), -1);   // above 255
  EXPECT_EQ(convert("\x80"), -1);       // a stray continuation byte
  EXPECT_EQ(convert("\xE0\x80"), -1);   // cut short
  EXPECT_EQ(convert("\xF8\x80\x80\x80\x80"), -1);
  EXPECT_EQ(convert(std::string(227, 'a')), 227);
  EXPECT_EQ(convert(std::string(228, 'a')), -1);
  EXPECT_EQ(bt::Utf8ToLatin1(out, -1, out), -1);
}

}  // namespace
