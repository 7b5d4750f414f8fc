#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "compression.h"
#include "platform.h"
#include "run.h"
#include "database.h"

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
  // The libraries come from beside the program (the Windows build has them there), else from the system.
  int Decompress() {
    const std::string bin = std::filesystem::path(UnderTest().exe).parent_path().string() + "/";
    return compression::DecompressBlock(block.data(), static_cast<std::uint32_t>(block.size()), true, bin);
  }
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
  bt::SetGeometry(2);
  bt::binDirectory.clear();
  EXPECT_EQ(OUTPUT_OF_FAILURE(bt::DecompressBlock(e.block.data())),
            "\n\rCould not determine bin directory to locate compression library\n\r");
}

namespace fs = std::filesystem;

// Copies the program under test into dir, with the compression libraries that lie beside it
// (the Windows build has them there; elsewhere the system's are found).
std::string CopyOfByteturn(const std::string& dir, const std::string& name) {
  fs::create_directories(dir);
  const fs::path exe = UnderTest().exe;
  fs::copy_file(exe, dir + "/" + name + exe.extension().string());
  for (const char* base : {"zlib1", "zstd", "lz4"}) {
    const fs::path library = exe.parent_path() / LibraryFile(base);
    if (fs::exists(library)) fs::copy_file(library, dir + "/" + LibraryFile(base), fs::copy_options::overwrite_existing);
  }
  return dir + "/" + name + exe.extension().string();
}

// A copy of byteturn whose bin directory holds the given library files: a stand-in of that
// name, or (from "") a file that is no library at all.
std::string ByteturnWith(const Scratch& s, const std::vector<std::pair<std::string, std::string>>& libraries) {
  const std::string exe = CopyOfByteturn(s.Path("bin"), "byteturn");
  // A Windows stand-in finds the library it depends on beside the program.
  const std::string dependency = UnderTest().stubDir + "/libstub-dependency.dll";
  if (fs::exists(dependency)) fs::copy_file(dependency, s.Path("bin/libstub-dependency.dll"));
  for (const auto& [from, name] : libraries) {
    if (from.empty())
      WriteBytes(s.Path("bin/" + name), 0, {'n', 'o', 't', ' ', 'a', ' ', 'l', 'i', 'b'});
    else
      fs::copy_file(from, s.Path("bin/" + name), fs::copy_options::overwrite_existing);
  }
  return exe;
}

// Each library's table is walked to its end; a symbol that only a dependency of the library
// defines does not count. The error number is never 0.
TEST(Compression, LibraryLackingASymbolIsRefused) {
  const struct {
    int method;
    std::string file, symbol;
  } stubs[] = {{1, LibraryFile("zlib1"), "deflateBound"},
               {2, LibraryFile("zstd"), "ZSTD_getErrorName"},
               {3, LibraryFile("lz4"), "LZ4_decompress_safe_continue"}};
  for (const auto& stub : stubs) {
    Scratch s;
    const std::string exe = ByteturnWith(s, {{UnderTest().stubDir + "/" + stub.file, stub.file}});
    gendb::Params p = Compressed(2, true, 5);
    p.methods = {stub.method};
    p.bigRefShare = 0;  // the block loop meets the first compressed block, not a big string
    Generate(p, s.Path("db.dat"));
    RunResult r = RunByteturn({"-t", s.Path("db.dat")}, "", "", exe);
    EXPECT_EQ(r.status, 1);
    const std::string expected = "\n\rError loading symbol " + stub.symbol + " from " + Shown(s.Path("bin/" + stub.file)) +
                                 ": " + std::to_string(Codes().symbolMissing) + "\n\r";
    EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\r\nError uncompressing "), std::string::npos) << r.out;
  }
}

// An executable path longer than the system gives is cut, and the bin directory is what remains
// up to its last separator: the libraries are still found.
TEST(Compression, LongExecutablePathStillGivesABinDirectory) {
  Scratch s;
  const std::string dir = s.Path(std::string(80, 'a') + "/" + std::string(80, 'b'));
  const std::string exe = CopyOfByteturn(dir, "byteturn-with-a-long-name");
  const std::string shown = Shown(exe);
  ASSERT_GT(shown.size(), 227u);
  // Where the program then looks for its libraries (the Windows build only there): 226
  // characters of the path as the program sees it, up to the last separator.
  const std::string cut = exe.substr(0, 226 - (shown.size() - exe.size()));
  const std::string bin = cut.substr(0, cut.rfind('/') + 1);
  for (const char* base : {"zlib1", "zstd", "lz4"})
    if (fs::exists(dir + "/" + LibraryFile(base))) fs::copy_file(dir + "/" + LibraryFile(base), bin + LibraryFile(base));
  gendb::Params p = Compressed(2, true, 8);
  p.methods = {1, 2, 3};
  Generate(p, s.Path("db.dat"));
  RunResult r = RunByteturn({"-t", s.Path("db.dat")}, "", "", exe);
  EXPECT_EQ(r.status, 0) << r.out;
}

TEST(Compression, MissingLibraryMattersOnlyWhenItsMethodIsMet) {
  Scratch s;
  const std::string exe = ByteturnWith(s, {{"", LibraryFile("lz4")}});
  gendb::Params p = Compressed(2, false, 6);
  p.methods = {1, 2, 5};
  Generate(p, s.Path("db.dat"));
  EXPECT_EQ(RunByteturn({"-t", s.Path("db.dat")}, "", "", exe).status, 0);

  // Met in the middle of a run: the blocks before the first lz4 block are converted on disk, that
  // block and every one after it are as they were, and the lock stays.
  p.methods = {3};
  p.bigRefShare = 0;
  p.compressShare = 0.02;
  Generate(p, s.Path("ORVA.DAT"));
  Generate(p, s.Path("original.dat"));
  Generate(TwinOf(p), s.Path("twin.dat"));
  RunResult r = RunByteturn({"-t", s.Path("ORVA.DAT")}, "", "", exe);
  EXPECT_EQ(r.status, 1);
  const std::size_t number = r.out.rfind('#');
  ASSERT_NE(number, std::string::npos) << r.out;
  const auto failed = static_cast<std::uint32_t>(std::stoul(r.out.substr(number + 1)));
  EXPECT_GT(failed, 100u);
  ExpectConvertedBefore(s.Path("ORVA.DAT"), s.Path("twin.dat"), s.Path("original.dat"), failed, 8192);
  EXPECT_EQ(ReadText(s.Path("orva.lck")), "\tsealturn");
  // A file that is not a loadable library.
  EXPECT_NE(r.out.find("\n\rError loading " + Shown(s.Path("bin/" + LibraryFile("lz4"))) + ": " +
                       std::to_string(Codes().libraryNotLoadable) + "\n\r"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\r\nError uncompressing "), std::string::npos) << r.out;
}

TEST(Compression, FailedLoadIsReportedOnce) {
  Scratch s;
  WriteBytes(s.Path(platform::SharedLibraryFileName("lz4")), 0, {'x'});
  Envelope e(8192, 100, 3);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(compression::DecompressBlock(e.block.data(), 8192, true, s.dir + "/"), 0);
  EXPECT_EQ(compression::DecompressBlock(e.block.data(), 8192, true, s.dir + "/"), 0);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("\n\rError loading " + s.Path(platform::SharedLibraryFileName("lz4")) + ": ", 0), 0u) << out;
  EXPECT_EQ(out.find("Error loading", 5), std::string::npos) << out;
  EXPECT_TRUE(compression::compressionMethodTable[2].stateFlags & compression::kLoadFailed);

  // A library that is nowhere.
  platform::ClearLastError();
  EXPECT_EQ(platform::LibraryOpen(s.Path("libnothing.so.1")), nullptr);
  EXPECT_EQ(platform::LastError(), platform::kSeparator == '\\' ? 126 : ENOENT);  // module not found
}

}  // namespace
