#include "run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform.h"

namespace testsupport {

namespace fs = std::filesystem;

namespace {
// The running test's name and a token of this process: no other test process, of this suite or
// of another one run at the same time, shares it. A base for names of scratch files.
std::string TestName() {
  static const std::string token = std::to_string(std::random_device{}() % 1000000);
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "anon";
  for (char& c : name)
    if (c == '/') c = '_';
  return name + "." + token;
}

std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'')
      q += "'\\''";
    else
      q += c;
  }
  return q + "'";
}

// The arguments as a shell command's words; absolute paths in the form the program takes them.
std::string Words(const std::vector<std::string>& args) {
  std::string words;
  for (const auto& a : args) {
    words += ' ';
    words += Quote(a.starts_with("/") ? Shown(a) : a);
  }
  return words;
}

}  // namespace

Scratch::Scratch() {
  static std::atomic<int> counter{0};
  dir = (fs::temp_directory_path() / "byteturn-tests" / (TestName() + "-" + std::to_string(counter++))).string();
  fs::remove_all(dir);
  fs::create_directories(dir);
}

Scratch::~Scratch() {
  std::error_code ec;
  fs::remove_all(dir, ec);
}

RunResult RunByteturn(const std::vector<std::string>& args, const std::string& input, const std::string& cwd,
                      const std::string& exe, const std::string& environment) {
  static std::atomic<int> counter{0};
  // Tests run as parallel processes: the test's name keeps their files apart.
  const fs::path runs = fs::temp_directory_path() / "byteturn-runs";
  fs::create_directories(runs);
  const std::string base = (runs / (TestName() + "-" + std::to_string(counter++) + "-")).string();
  {
    std::ofstream in(base + "in", std::ios::binary);
    in << input;
  }
  std::string command;
  if (!cwd.empty()) command += "cd " + Quote(cwd) + " && ";
  if (!environment.empty()) command += environment + " ";
  command += ShellCommand(exe);
  command += Words(args);
  command += " < " + Quote(base + "in") + " > " + Quote(base + "out") + " 2> " + Quote(base + "err");
  int raw = std::system(command.c_str());
  RunResult r;
  r.status = (raw >> 8) & 0xFF;
  r.out = ReadText(base + "out");
  r.err = ReadText(base + "err");
  for (const char* suffix : {"in", "out", "err"}) fs::remove(base + suffix);
  return r;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// In one read: byte by byte, the tests' reads of whole databases took much of their time on the
// emulated platforms and under the sanitizers.
std::vector<std::uint8_t> ReadBytes(const std::string& path, std::uint64_t offset, std::size_t size) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  const std::streamoff end = in ? static_cast<std::streamoff>(in.tellg()) : -1;
  if (end < 0 || offset >= static_cast<std::uint64_t>(end)) return {};
  std::vector<std::uint8_t> out(static_cast<std::size_t>(std::min<std::uint64_t>(size, static_cast<std::uint64_t>(end) - offset)));
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(out.size()));
  out.resize(static_cast<std::size_t>(in.gcount()));
  return out;
}

void WriteBytes(const std::string& path, std::uint64_t offset, const std::vector<std::uint8_t>& bytes) {
  if (!fs::exists(path)) std::ofstream(path, std::ios::binary).flush();
  std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
  f.seekp(static_cast<std::streamoff>(offset));
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void PatchU16(const std::string& path, std::uint64_t offset, std::uint16_t v, bool big) {
  std::uint8_t lo = static_cast<std::uint8_t>(v), hi = static_cast<std::uint8_t>(v >> 8);
  WriteBytes(path, offset, big ? std::vector<std::uint8_t>{hi, lo} : std::vector<std::uint8_t>{lo, hi});
}

void PatchU32(const std::string& path, std::uint64_t offset, std::uint32_t v, bool big) {
  std::vector<std::uint8_t> b(4);
  for (int i = 0; i < 4; ++i) b[big ? 3 - i : i] = static_cast<std::uint8_t>(v >> (8 * i));
  WriteBytes(path, offset, b);
}

bool Exists(const std::string& path) { return fs::exists(path); }

std::string WithoutAddresses(std::string out) {
  for (std::size_t at = out.find("=0x"); at != std::string::npos; at = out.find("=0x", at + 1))
    for (std::size_t i = at + 3; i < at + 19 && i < out.size(); ++i) out[i] = '#';
  return out;
}

std::string ScratchFileName(const std::string& what) {
  // Without the process token: a death test's child (a new process on Windows) must find it.
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const fs::path runs = fs::temp_directory_path() / "byteturn-runs";
  fs::create_directories(runs);
  return (runs / (std::string(info->test_suite_name()) + "." + info->name() + "-" + what)).string();
}

const Target& UnderTest() {
  static const Target target = [] {
    Target t;
    const char* exe = std::getenv("BYTETURN_UNDER_TEST");
    const char* runner = std::getenv("BYTETURN_RUNNER");
    const char* stubs = std::getenv("BYTETURN_STUB_DIR");
    const char* faults = std::getenv("BYTETURN_FAULTS_UNDER_TEST");
    t.exe = exe != nullptr ? exe : BYTETURN_EXE;
    t.faultsExe = faults != nullptr ? faults : BYTETURN_FAULTS_EXE;
    t.runner = runner != nullptr ? runner : BYTETURN_RUNNER;
    t.windows = t.exe.ends_with(".exe");
    const fs::path program = t.exe, faultsProgram = t.faultsExe;
    t.checkExe = (program.parent_path() / ("byteturn-check" + program.extension().string())).string();
    t.checkFaultsExe = (faultsProgram.parent_path() / ("byteturn-check-faults" + program.extension().string())).string();
    t.recoverExe = (program.parent_path() / ("byteturn-recover" + program.extension().string())).string();
    t.recoverFaultsExe = (faultsProgram.parent_path() / ("byteturn-recover-faults" + program.extension().string())).string();
    t.stubDir = stubs != nullptr ? stubs : STUB_DIR;
    return t;
  }();
  return target;
}

std::string StoreWord(Store store) { return store == Store::kDirect ? "BYTETURN_JOURNAL=off " : ""; }

std::string StoreName(const ::testing::TestParamInfo<Store>& info) {
  return info.param == Store::kDirect ? "Direct" : "Journaled";
}

bool Emulated() { return !UnderTest().runner.empty(); }

bool Sanitized() {
#ifdef BYTETURN_SANITIZED
  return true;
#else
  return false;
#endif
}

std::string ShellCommand(const std::string& exe) {
  const Target& t = UnderTest();
  return (t.runner.empty() ? "" : t.runner + " ") + Quote(exe.empty() ? t.exe : exe);
}

std::string Shown(const std::string& path) {
  if (!UnderTest().windows) return path;
  std::string shown = path;
  for (char& c : shown)
    if (c == '/') c = '\\';
  return shown.starts_with("\\") ? "Z:" + shown : shown;
}

char Sep() { return UnderTest().windows ? '\\' : '/'; }

std::string LibraryFile(const std::string& baseName) {
  return UnderTest().windows ? baseName + ".dll" : platform::SharedLibraryFileName(baseName);
}

std::string SystemText(int code) {
  // The texts of the platform these tests run on are at hand.
  const bool testsRunOnWindows = platform::kSeparator == '\\';
  if (UnderTest().windows == testsRunOnWindows) return platform::SystemErrorText(code);
  // The Windows system's own text, from a program of that platform that prints it.
  const std::string out = (fs::temp_directory_path() / "byteturn-runs" / (TestName() + "-text")).string();
  const std::string command = UnderTest().runner + " " + Quote(UnderTest().stubDir + "/system_text.exe") + " " +
                              std::to_string(code) + " > " + Quote(out);
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  std::string text = ReadText(out);
  fs::remove(out);
  return text;
}

std::string ErrorShown(int code) {
  const std::string text = SystemText(code);
  return "Error " + std::to_string(code) + "=(" + (text.empty() ? "unknown error" : text) + ")";
}

const ErrorCodes& Codes() {
  // Windows: file not found, access denied, end of file, name too long, module not found, not a
  // valid image, no such procedure.
  static const ErrorCodes windows{2, 5, 38, 206, 126, 193, 127};
  static const ErrorCodes posix{ENOENT, EISDIR, ENODATA, ENAMETOOLONG, ENOENT, ENOEXEC, ENOSYS};
  return UnderTest().windows ? windows : posix;
}

std::string RunConsole(const std::string& mode, int seconds, const std::string& modeArgument,
                       const std::vector<std::string>& args, const std::string& cwd, const std::string& exe,
                       const std::string& environment) {
  const std::string out = (fs::temp_directory_path() / "byteturn-runs" / (TestName() + "-console")).string();
  fs::create_directories(fs::path(out).parent_path());
  std::string command;
  if (!cwd.empty()) command += "cd " + Quote(cwd) + " && ";
  if (!environment.empty()) command += environment + " ";
  command += "python3 " + Quote(CONSOLE_HELPER) + " " + mode + " " + std::to_string(seconds) + " " +
             Quote(modeArgument) + " -- " + ShellCommand(exe);
  command += Words(args);
  command += " > " + Quote(out);
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  std::string text = ReadText(out);
  fs::remove(out);
  return text;
}

namespace {
// The markers name the primary directory as this machine writes it; the program under test
// reads them in its own path form.
void ShowMarkers(const gendb::Params& params, const std::string& path) {
  if (!UnderTest().windows || !params.volumeSet.markers) return;
  const std::string main = fs::path(path).parent_path().string() + "/";
  for (const std::string& dir : params.volumeSet.directories) {
    const std::string marker = (dir[0] == '/' ? dir : main + dir) + "orva.dbdir";
    std::string line = ReadText(marker);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    std::ofstream(marker, std::ios::binary | std::ios::trunc) << Shown(line) << "\n";
  }
}
}  // namespace

gendb::Params TwinOf(gendb::Params params) {
  params.bigEndian = !params.bigEndian;
  params.converted = true;
  return params;
}

gendb::Params SparseDatabase(std::uint32_t lastBlock, double freeShare) {
  gendb::Params p;
  p.sizeCode = 1;
  p.lastBlock = lastBlock;
  p.freeShare = freeShare;
  p.sparse = true;
  return p;
}

std::string GenerateFor(const gendb::Params& params, const std::string& path, gendb::Stats* stats) {
  std::filesystem::remove(path + ".journal");  // a database made afresh has no interrupted run
  std::string error = gendb::GenerateDatabase(params, path, stats);
  if (error.empty()) ShowMarkers(params, path);
  return error;
}

void Generate(const gendb::Params& params, const std::string& path) {
  std::string error = GenerateFor(params, path);
  ASSERT_EQ(error, "") << path;
}

std::vector<std::uint8_t> NodeNamingAsBigVector(std::uint32_t size, std::uint32_t named) {
  std::vector<std::uint8_t> block(size, 0);
  block[3] = 16;  // offset: one node of 16 bytes
  block[4] = 8;
  block[28] = 0x80, block[31] = 16;  // a typed node of 16 bytes
  block[32] = 14;                    // a big vector: one carried word, one block number
  for (int i = 0; i < 4; ++i) block[37 + i] = static_cast<std::uint8_t>(named >> (24 - 8 * i));
  return block;
}

void MakeNodeMalformed(const gendb::Params& p, const std::string& dir) {
  const std::string db = dir + "/ORVA.DAT";
  const std::uint32_t size = gendb::GeometryFor(p.sizeCode).blockSize;
  const auto bytes = ReadBytes(db);
  for (std::uint64_t at = 400ull * size; at < bytes.size(); at += size) {
    if (bytes[at + 4] != 8) continue;
    PatchU32(db, at + 28, 0x80000000u, p.bigEndian);
    return;
  }
}

bool Unmark(const std::string& mainFile) {
  const std::uintmax_t size = fs::file_size(mainFile);
  if (size < 4096 || ReadBytes(mainFile, size - 4096, 8) != std::vector<std::uint8_t>{'B', 'T', 'R', 'U', 'N', 'M', 'R', 'K'})
    return false;
  fs::resize_file(mainFile, size - 4096);
  return true;
}

void ExpectConvertedBefore(const std::string& db, const std::string& twin, const std::string& original,
                           std::uint32_t first, std::uint32_t blockSize) {
  Unmark(db);
  const auto now = ReadBytes(db), converted = ReadBytes(twin), before = ReadBytes(original);
  ASSERT_EQ(now.size(), before.size());
  ASSERT_EQ(now.size(), converted.size());
  for (std::uint64_t offset = 0; offset + blockSize <= now.size(); offset += blockSize) {
    const std::uint32_t b = static_cast<std::uint32_t>(offset / blockSize + 1);
    const auto& expected = b < first ? converted : before;
    EXPECT_TRUE(std::equal(now.begin() + offset, now.begin() + offset + blockSize, expected.begin() + offset))
        << "block " << b << (b < first ? " not converted" : " changed");
  }
}

RunResult ExpectConvertsToTwin(gendb::Params params, const Scratch& scratch, const std::string& input,
                               gendb::Stats* stats, const std::string& exe, const std::string& environment) {
  const std::string source = scratch.Path("source.dat"), twin = scratch.Path("twin.dat");
  params.converted = false;
  std::string error = GenerateFor(params, source, stats);
  EXPECT_EQ(error, "");
  Generate(TwinOf(params), twin);
  RunResult r = RunByteturn({"-t", source}, input, "", exe, environment);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(gendb::CompareFiles(source, twin, gendb::GeometryFor(params.sizeCode).blockSize), "")
      << "seed " << params.seed << " code " << params.sizeCode << (params.bigEndian ? " big" : " little");
  return r;
}

}  // namespace testsupport
