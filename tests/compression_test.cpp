#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "compression.h"
#include "platform.h"
#include "run.h"

using namespace testsupport;

namespace {

gendb::Params Compressed(std::uint32_t code, bool big, std::uint64_t seed) {
  gendb::Params p;
  p.seed = seed;
  p.sizeCode = code;
  p.bigEndian = big;
  p.lastBlock = 1200;
  p.mix = gendb::Mix{8, 6, 1, 3, 1, 1, 1};
  p.compressShare = 0.6;
  p.methods = {1, 2, 3, 4, 5};
  return p;
}

// Every method, both orders: the converted file is the twin with those blocks uncompressed.
TEST(Compression, EveryMethodRoundTripsThroughAConversion) {
  for (std::uint32_t code : {2u, 3u}) {
    for (bool big : {true, false}) {
      Scratch s;
      gendb::Stats stats;
      ExpectConvertsToTwin(Compressed(code, big, 40 + code), s, "", &stats);
      for (int method = 1; method <= 5; ++method) EXPECT_GT(stats.compressed[method], 0u) << "method " << method;
      EXPECT_GT(stats.bigStrings, 0u);
    }
  }
}

// Compressed map blocks, among them the one read ahead before the loop reaches it.
TEST(Compression, CompressedMapsIncludingOneReadAhead) {
  for (bool big : {true, false}) {
    Scratch s;
    gendb::Params p;
    p.sizeCode = 3;
    p.bigEndian = big;
    p.lastBlock = 125952 + 400;
    p.sparse = true;
    p.freeShare = 0.995;
    p.compressShare = 1.0;
    p.methods = {2};
    gendb::Stats stats;
    ExpectConvertsToTwin(p, s, "", &stats);
    EXPECT_GT(stats.compressed[2], 20u);
  }
}

struct Envelope {
  std::vector<std::uint8_t> block;
  explicit Envelope(std::uint32_t size, std::uint32_t length, std::uint8_t method) : block(size) {
    for (std::size_t i = 0; i < size; ++i) block[i] = static_cast<std::uint8_t>(i * 7);
    block[0] = static_cast<std::uint8_t>(length >> 24), block[1] = static_cast<std::uint8_t>(length >> 16);
    block[2] = static_cast<std::uint8_t>(length >> 8), block[3] = static_cast<std::uint8_t>(length);
    block[4] = 0x88;
    block[5] = method;
  }
  int Decompress() { return compression::DecompressBlock(block.data(), static_cast<std::uint32_t>(block.size()), true, "/nonexistent/"); }
};

TEST(Compression, InvalidEnvelopesAreLeftUntouched) {
  const struct {
    std::uint32_t size, length;
    std::uint8_t method;
  } cases[] = {{8192, 100, 0}, {8192, 100, 6}, {8192, 0, 1}, {8192, 8192 - 4103, 1}, {8192, 0x80000000u, 2},
               {4096, 1, 1},   {8192, 200, 4}};  // "null" never yields a whole block
  for (const auto& c : cases) {
    Envelope e(c.size, c.length, c.method);
    auto before = e.block;
    EXPECT_EQ(e.Decompress(), 1);
    EXPECT_EQ(e.block, before) << c.size << " " << c.length << " " << int{c.method};
  }
  for (int method : {1, 2}) EXPECT_FALSE(compression::compressionMethodTable[method - 1].stateFlags & compression::kLoaded);
}

TEST(Compression, ShortOrLongStreamsRestoreOnlyTheEnvelope) {
  std::vector<std::uint8_t> payload(9000);
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i / 16);
  std::vector<std::uint8_t> stream(4000);
  for (std::size_t produced : {4000u, 9000u}) {
    std::size_t length = gendb::CompressStream(1, payload.data(), produced, stream.data(), stream.size());
    ASSERT_GT(length, 0u);
    Envelope e(8192, static_cast<std::uint32_t>(length), 1);
    std::copy(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(length), e.block.begin() + 8);
    auto before = e.block;
    EXPECT_EQ(e.Decompress(), 1);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + static_cast<std::ptrdiff_t>(length + 8), e.block.begin()));
    // What the failed decompression wrote past the envelope stays.
    EXPECT_EQ(e.block[length + 8], payload[length + 8]);
    EXPECT_EQ(e.block[3999], payload[3999]);
    if (produced == 4000) {
      EXPECT_EQ(e.block[4000], before[4000]);
    }
  }
}

TEST(Compression, NoBinDirectoryEndsTheRun) {
  Envelope e(8192, 100, 4);
  EXPECT_EXIT(
      {
        std::freopen("/dev/stderr", "w", stdout);
        compression::DecompressBlock(e.block.data(), 8192, true, "");
      },
      ::testing::ExitedWithCode(1), "\n\rCould not determine bin directory to locate compression library\n\r");
}

// A copy of byteturn whose bin directory holds the given library files.
std::string ByteturnWith(const Scratch& s, const std::vector<std::pair<std::string, std::string>>& libraries) {
  std::filesystem::create_directories(s.Path("bin"));
  std::filesystem::copy_file(BYTETURN_EXE, s.Path("bin/byteturn"));
  for (const auto& [from, name] : libraries) {
    if (from.empty())
      WriteBytes(s.Path("bin/" + name), 0, {'n', 'o', 't', ' ', 'E', 'L', 'F'});
    else
      std::filesystem::copy_file(from, s.Path("bin/" + name));
  }
  return s.Path("bin/byteturn");
}

// Each library's table is walked to its end; a symbol that only a dependency of the library
// defines does not count. The error number is never 0.
TEST(Compression, LibraryLackingASymbolIsRefused) {
  const struct {
    int method;
    std::string file, symbol;
  } stubs[] = {{1, "libz.so.1", "deflateBound"},
               {2, "libzstd.so.1", "ZSTD_getErrorName"},
               {3, "liblz4.so.1", "LZ4_decompress_safe_continue"}};
  for (const auto& stub : stubs) {
    Scratch s;
    const std::string exe = ByteturnWith(s, {{std::string(STUB_DIR) + "/" + stub.file, stub.file}});
    gendb::Params p = Compressed(2, true, 5);
    p.methods = {stub.method};
    p.bigRefShare = 0;  // the block loop meets the first compressed block, not a big string
    Generate(p, s.Path("db.dat"));
    RunResult r = RunByteturn({"-t", s.Path("db.dat")}, "", "", exe);
    EXPECT_EQ(r.status, 1);
    const std::string expected = "\n\rError loading symbol " + stub.symbol + " from " + s.Path("bin/" + stub.file) +
                                 ": " + std::to_string(ENOSYS) + "\n\r";
    EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\r\nError uncompressing "), std::string::npos) << r.out;
  }
}

// An executable path longer than the system gives is cut, and the bin directory is what remains
// up to its last separator: the libraries are still found.
TEST(Compression, LongExecutablePathStillGivesABinDirectory) {
  Scratch s;
  const std::string dir = s.Path(std::string(100, 'a') + "/" + std::string(100, 'b'));
  std::filesystem::create_directories(dir);
  std::filesystem::copy_file(BYTETURN_EXE, dir + "/byteturn-with-a-long-name");
  ASSERT_GT(dir.size() + 26, 227u);
  gendb::Params p = Compressed(2, true, 8);
  p.methods = {1, 2, 3};
  Generate(p, s.Path("db.dat"));
  RunResult r = RunByteturn({"-t", s.Path("db.dat")}, "", "", dir + "/byteturn-with-a-long-name");
  EXPECT_EQ(r.status, 0) << r.out;
}

TEST(Compression, MissingLibraryMattersOnlyWhenItsMethodIsMet) {
  Scratch s;
  const std::string exe = ByteturnWith(s, {{"", "liblz4.so.1"}});
  gendb::Params p = Compressed(2, false, 6);
  p.methods = {1, 2, 5};
  Generate(p, s.Path("db.dat"));
  EXPECT_EQ(RunByteturn({"-t", s.Path("db.dat")}, "", "", exe).status, 0);

  p.methods = {3};
  p.bigRefShare = 0;
  Generate(p, s.Path("db.dat"));
  RunResult r = RunByteturn({"-t", s.Path("db.dat")}, "", "", exe);
  EXPECT_EQ(r.status, 1);
  // A file that is not a loadable library.
  EXPECT_NE(r.out.find("\n\rError loading " + s.Path("bin/liblz4.so.1") + ": " + std::to_string(ENOEXEC) + "\n\r"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\r\nError uncompressing "), std::string::npos) << r.out;
}

TEST(Compression, FailedLoadIsReportedOnce) {
  Scratch s;
  WriteBytes(s.Path("liblz4.so.1"), 0, {'x'});
  Envelope e(8192, 100, 3);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(compression::DecompressBlock(e.block.data(), 8192, true, s.dir + "/"), 0);
  EXPECT_EQ(compression::DecompressBlock(e.block.data(), 8192, true, s.dir + "/"), 0);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("\n\rError loading " + s.Path("liblz4.so.1") + ": ", 0), 0u) << out;
  EXPECT_EQ(out.find("Error loading", 5), std::string::npos) << out;
  EXPECT_TRUE(compression::compressionMethodTable[2].stateFlags & compression::kLoadFailed);

  // A library that is nowhere.
  platform::ClearLastError();
  EXPECT_EQ(platform::LibraryOpen(s.Path("libnothing.so.1")), nullptr);
  EXPECT_EQ(platform::LastError(), ENOENT);
}

}  // namespace
