// Helpers shared by the tests: running the byteturn binary, scratch directories, file bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gendb.h"

namespace testsupport {

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs byteturn (or a copy of it at exe) with the arguments, in directory cwd when given,
// feeding input on stdin.
RunResult RunByteturn(const std::vector<std::string>& args, const std::string& input = "",
                      const std::string& cwd = "", const std::string& exe = "");

// A fresh directory for the running test, removed when the object goes away.
struct Scratch {
  std::string dir;
  Scratch();
  ~Scratch();
  std::string Path(const std::string& name) const { return dir + "/" + name; }
};

// The whole file as text ("" when it cannot be read).
std::string ReadText(const std::string& path);
std::vector<std::uint8_t> ReadBytes(const std::string& path, std::uint64_t offset = 0, std::size_t size = SIZE_MAX);
void WriteBytes(const std::string& path, std::uint64_t offset, const std::vector<std::uint8_t>& bytes);
void PatchU16(const std::string& path, std::uint64_t offset, std::uint16_t value, bool big);
void PatchU32(const std::string& path, std::uint64_t offset, std::uint32_t value, bool big);
bool Exists(const std::string& path);

// What byteturn shows for a file that ends before the bytes it needs: the system's text, and the
// whole "Error %d=(%s)".
std::string EndOfFileText();
std::string EndOfFileError();

// Runs tests/support/console.py in mode "pty" or "head" (see there) on byteturn with args, in
// directory cwd, and returns what it printed.
std::string RunConsole(const std::string& mode, int seconds, const std::string& modeArgument,
                       const std::vector<std::string>& args, const std::string& cwd = "");

// Generates the database for params into path, failing the test on error.
void Generate(const gendb::Params& params, const std::string& path);
// Generates params in the source order and its converted twin in the other order, converts the
// source with byteturn -t and expects the twin's exact bytes. Returns byteturn's result.
RunResult ExpectConvertsToTwin(gendb::Params params, const Scratch& scratch, const std::string& input = "",
                               gendb::Stats* stats = nullptr, const std::string& exe = "");

}  // namespace testsupport
