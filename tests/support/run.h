// Helpers shared by the tests: running the byteturn binary, scratch directories, file bytes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gendb.h"
#include "messages.h"

namespace testsupport {

// The byteturn under test: by default this build's program (run through the emulator when the
// tests themselves are cross-built), or, when BYTETURN_UNDER_TEST names another program (the
// Windows build), that one, run through BYTETURN_RUNNER ("wine"). What depends on the platform
// under test (path form, system error numbers and texts, library file names) is computed here.
struct Target {
  std::string exe;
  std::string faultsExe;  // the same program with the fault seam (see fault_seam.h)
  std::string checkExe, checkFaultsExe;  // byteturn-check beside it, and its build with the seam
  std::string recoverExe, recoverFaultsExe;  // byteturn-recover, likewise
  std::string runner;    // "" or the command that runs exe
  bool windows = false;  // Windows paths, error codes and library names
  std::string stubDir;   // where the compression library stand-ins of that platform are
};
const Target& UnderTest();
// The program (or a copy of it at exe) as the start of a shell command.
std::string ShellCommand(const std::string& exe = "");
// A path of this machine as the program under test takes and prints it.
std::string Shown(const std::string& path);
// The directory separator of the platform under test.
char Sep();
// The platform's file name of a compression library: "zlib1", "zstd", "lz4".
std::string LibraryFile(const std::string& baseName);
// "Error %d=(%s)" as the program under test prints the system error code, and the codes of the
// causes that the tests provoke.
std::string ErrorShown(int code);
std::string SystemText(int code);
struct ErrorCodes {
  int fileNotFound, openDirectory, endOfFile, nameTooLong, libraryMissing, libraryNotLoadable, symbolMissing;
};
const ErrorCodes& Codes();

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs byteturn (or a copy of it at exe) with the arguments, in directory cwd when given,
// feeding input on stdin; environment holds "NAME=value" words for its environment.
RunResult RunByteturn(const std::vector<std::string>& args, const std::string& input = "",
                      const std::string& cwd = "", const std::string& exe = "", const std::string& environment = "");

// A fresh directory for the running test, removed when the object goes away.
struct Scratch {
  std::string dir;
  Scratch();
  ~Scratch();
  std::string Path(const std::string& name) const { return dir + "/" + name; }
};

// Where a conversion's writes go: straight to the files, or through the journal (the default).
// A test of what a run leaves on disk is written once and run against each (TEST_P on a fixture
// derived from PerStore, instantiated by PER_STORE(suite): cases named .../Direct and .../Journaled).
enum class Store { kDirect, kJournaled };
// The environment word that chooses the store ("BYTETURN_JOURNAL=off " or ""), for RunByteturn.
std::string StoreWord(Store store);
std::string StoreName(const ::testing::TestParamInfo<Store>& info);
class PerStore : public ::testing::TestWithParam<Store> {
 protected:
  static bool Journaled() { return GetParam() == Store::kJournaled; }
  static std::string Env() { return StoreWord(GetParam()); }
};
#define PER_STORE(suite) \
  INSTANTIATE_TEST_SUITE_P(, suite, ::testing::Values(testsupport::Store::kDirect, testsupport::Store::kJournaled), \
                           testsupport::StoreName)

// The stages where each process runs several times slower: the emulated platforms (qemu-user,
// Wine) and the sanitizers. Sweeps take fewer cases there; the plain stage takes them all.
bool Emulated();
bool Sanitized();
inline bool SlowStage() { return Emulated() || Sanitized(); }

// The whole file as text ("" when it cannot be read).
std::string ReadText(const std::string& path);
std::vector<std::uint8_t> ReadBytes(const std::string& path, std::uint64_t offset = 0, std::size_t size = SIZE_MAX);
void WriteBytes(const std::string& path, std::uint64_t offset, const std::vector<std::uint8_t>& bytes);
void PatchU16(const std::string& path, std::uint64_t offset, std::uint16_t value, bool big);
void PatchU32(const std::string& path, std::uint64_t offset, std::uint32_t value, bool big);
bool Exists(const std::string& path);

// Output with the addresses that some messages show ("bbuf=0x...") blotted out: they are the
// process's own.
std::string WithoutAddresses(std::string out);

// What byteturn shows for a file that ends before the bytes it needs.
inline std::string EndOfFileError() { return ErrorShown(Codes().endOfFile); }

// Runs body in a child process that must end with status 1 (a fatal failure of the program's
// own code, which ends the run by throwing RunEnded), and returns what it printed on standard
// output.
#define OUTPUT_OF_FAILURE(body)                                                  \
  [&] {                                                                          \
    const std::string file_ = testsupport::ScratchFileName("failure-output");    \
    EXPECT_EXIT(                                                                 \
        {                                                                        \
          if (std::freopen(file_.c_str(), "wb", stdout) == nullptr) std::abort(); \
          try {                                                                  \
            body;                                                                \
          } catch (const bt::RunEnded& end_) {                                   \
            std::exit(end_.status);                                              \
          }                                                                      \
        },                                                                       \
        ::testing::ExitedWithCode(1), "");                                       \
    return testsupport::ReadText(file_);                                         \
  }()
// A file name of the running test's own, in the system's temporary directory.
std::string ScratchFileName(const std::string& what);

// Runs tests/support/console.py in mode "pty" or "head" (see there) on byteturn (or the program
// exe) with args, in directory cwd, with environment's "NAME=value" words, and returns what it
// printed.
std::string RunConsole(const std::string& mode, int seconds, const std::string& modeArgument,
                       const std::vector<std::string>& args, const std::string& cwd = "", const std::string& exe = "",
                       const std::string& environment = "");

// The image a conversion of params must give: the other order, converted.
gendb::Params TwinOf(gendb::Params params);
// A big-endian database of 4096-byte blocks up to lastBlock, mostly free blocks left as holes:
// many blocks and progress lines that cost little disk.
gendb::Params SparseDatabase(std::uint32_t lastBlock, double freeShare);

// Makes the first node of the first data block from block 400 on zero length, in the files
// generated for p into directory dir: its message, and the rest of the block as it was.
void MakeNodeMalformed(const gendb::Params& p, const std::string& dir);
inline std::function<void(const std::string&)> MalformedNode(const gendb::Params& p) {
  return [p](const std::string& dir) { MakeNodeMalformed(p, dir); };
}

// A big-endian data block of size bytes whose one node is a big vector naming block named, which
// is no big string block: byteturn reads it and tells its type byte.
std::vector<std::uint8_t> NodeNamingAsBigVector(std::uint32_t size, std::uint32_t named);

// Cuts off the mark that a journaled run that stopped leaves at the end of the main file (until
// byteturn-recover finishes the run); true when there was one.
bool Unmark(const std::string& mainFile);

// Blocks before first of the file db are those of the file twin (converted), blocks from first on
// those of original (as they were).
void ExpectConvertedBefore(const std::string& db, const std::string& twin, const std::string& original,
                           std::uint32_t first, std::uint32_t blockSize);

// Generates the database for params into path, its markers in the form of the program under
// test: "" or what went wrong.
std::string GenerateFor(const gendb::Params& params, const std::string& path, gendb::Stats* stats = nullptr);
// The same, failing the test on error.
void Generate(const gendb::Params& params, const std::string& path);
// Generates params in the source order and its converted twin in the other order, converts the
// source with byteturn -t (environment's "NAME=value" words in its environment) and expects the
// twin's exact bytes. Returns byteturn's result.
RunResult ExpectConvertsToTwin(gendb::Params params, const Scratch& scratch, const std::string& input = "",
                               gendb::Stats* stats = nullptr, const std::string& exe = "",
                               const std::string& environment = "");

}  // namespace testsupport
