// Operating system interface: files, error texts, the executable's path, run-time library
// loading, terminal echo and the program's own threads. Everything that needs an operating system
// header lives behind this header, in one source file per platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace platform {

using File = std::intptr_t;
inline constexpr File kInvalidFile = -1;

// Opens an existing file for reading and writing, shared; never creates one. A directory fails.
File OpenReadWrite(const std::string& path);
// Opens an existing file for reading only, without any newline translation. A directory fails.
File OpenReadOnly(const std::string& path);
// Creates a file that must not exist yet (atomically) and opens it for writing as text;
// nullptr when it exists already or cannot be created.
std::FILE* CreateNewTextFile(const std::string& path);
// Closes a text file made so; false with the system error set where what its stream still held
// could not be written (the disk full, say).
bool CloseTextFile(std::FILE* file, const std::string& path);
// Creates (or truncates) a file for reading and writing: the tools' files.
File CreateReadWrite(const std::string& path);
// Creates a file that must not exist yet (atomically) and opens it for reading and writing.
File CreateNewReadWrite(const std::string& path);
void Close(File file);
// What identifies the file behind a handle: handles opened through different paths to one file
// (links) have the same identity.
struct FileIdentity {
  std::uint64_t device = 0, index = 0;
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
  friend auto operator<=>(const FileIdentity&, const FileIdentity&) = default;
};
FileIdentity IdentityOf(File file);
// When the file last changed, in the system's own units (0 where it cannot be told): with its
// identity, it tells a file from another given the same index after it was removed. On POSIX the
// time its status changed, which a copy or a restore cannot carry over; on Windows, whose file
// indexes count their reuse, the time it was last written.
std::uint64_t ChangedTimeOf(File file);
// Creates a file for reading and writing in the system's temporary directory that goes away when
// it is closed or the process ends; unwritten ranges take no space where the system allows.
File CreateTemporaryFile();
// Hint that the file will be read from start to end, so that the system reads further ahead.
// Failures are ignored: it changes no result.
void AdviseSequentialRead(File file);

// Reads or writes up to size bytes at an absolute 64-bit position. Returns the number of bytes
// moved, or -1 with the system error recorded. A short count is not an error here.
std::int64_t ReadAt(File file, void* buffer, std::size_t size, std::uint64_t position);
std::int64_t WriteAt(File file, const void* buffer, std::size_t size, std::uint64_t position);
// Records the cause of a transfer that moved fewer bytes than asked with no system error: the
// end of the file for a read, a full disk for a write; so that no failure reads like success.
void RecordShortTransfer(bool writing);
// Flushes what was written to the file down to stable storage; false with the system error set.
bool Sync(File file);
// Starts writing the given range of the file back to the disk without waiting for it, so that a
// later Sync has less left to do. Failures are ignored: Sync reports them.
void StartWriteBack(File file, std::uint64_t position, std::uint64_t size);
// Has the system read the given range of the file into its cache, so that the reads that follow
// find it there: on Linux asked for and not waited for, on Windows read (the caller waits). A
// hint: failures are ignored.
void WillRead(File file, std::uint64_t position, std::uint64_t size);
// The machine's memory in bytes (0 where it cannot be told).
std::uint64_t MemoryBytes();
// Starts body on a thread of its own that runs until the process ends; false where the system
// cannot start one (the caller then does the work itself).
inline bool StartThread(void (*body)()) {
  try {
    std::thread(body).detach();
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}
// Blocks per batch that a test build asks the conversion to use; 0 in the program itself.
std::uint32_t TestBatchBlocks();
// Held blocks and chunks of marks that a test build asks byteturn-check to keep in memory; 0 in
// the program itself.
std::uint32_t TestCheckSlots();
// Bytes of writes a journaled run holds per group that a test build asks for; 0 in the program.
std::uint32_t TestGroupBytes();
// Whether a test build asks a journaled run's writer to start on a committed group only when the
// run waits for it (so that every read meanwhile finds the disk without it); false in the program.
bool TestWriterLags();
// Whether a test build asks a journaled run to write every group's record in the run's own thread
// (1, as where flushes cost much) or every other group's (2, as where the group limit moves across
// its floor); 0 in the program.
std::uint32_t TestRecordByRun();
// Sequential read from the file's current position.
std::int64_t Read(File file, void* buffer, std::size_t size);
bool SetFileSize(File file, std::uint64_t size);
std::int64_t FileSize(File file);
// Start of the next data extent at or after position, or -1 when only a hole follows.
std::int64_t NextData(File file, std::uint64_t position);
// Start of the next hole at or after position (the file end counts as a hole).
std::int64_t NextHole(File file, std::uint64_t position);

// The last system error code, and a way to clear it before a call that may fail silently.
int LastError();
void ClearLastError();
void SetLastError(int code);
// The system's own text for an error code, or "" when it has none.
std::string SystemErrorText(int code);
// True for the codes meaning "file not found" and "path not found".
bool IsNotFoundError(int code);

// Path of the running executable, cut to limit - 1 characters when longer (as the system's own
// call cuts it), or "" when it cannot be had.
std::string ExecutablePath(std::size_t limit);
// Absolute form of path; "." and ".." folded as the system takes them (on POSIX, the part up to the
// last ".." resolved where it exists, links in it included; else links not resolved), the path
// need not exist.
// "" with the system error set when it fails or needs limit characters or more.
std::string FullPathName(const std::string& path, std::size_t limit);

// Directory separator, and whether narrow paths are UTF-8 (else the 8-bit code page).
#ifdef _WIN32
inline constexpr char kSeparator = '\\';
inline constexpr bool kPathsAreUtf8 = false;
#else
inline constexpr char kSeparator = '/';
inline constexpr bool kPathsAreUtf8 = true;
#endif

// File name of a shared library by its base name ("zlib1", "zstd", "lz4").
std::string SharedLibraryFileName(const std::string& baseName);
// Where the library of that base name is loaded from, given the program's bin directory.
std::string LibraryPath(const std::string& binDirectory, const std::string& baseName);
// Loads a library; nullptr with the system error set (never 0) when it cannot be loaded.
void* LibraryOpen(const std::string& path);
// Address of a symbol that the library itself defines (not one of its dependencies); nullptr
// with the system error set (never 0) otherwise.
void* LibrarySymbol(void* library, const char* name);
void LibraryClose(void* library);
bool FileExists(const std::string& path);
// Names in the directory ("." and ".." left out); none when it cannot be read.
std::vector<std::string> DirectoryEntries(const std::string& directory);
bool RemoveFile(const std::string& path);
// Where the file behind the handle lies now, as a full path; "" where the system cannot tell or it
// was removed. After its directory was moved, the new place.
std::string PathNow(File file);
// The path by which the file behind the handle is to be removed once closed: path where it names
// that file, else where the file lies now (its directory moved away while the file was open, and
// another file, which stays, put at path, or none); path where neither tells; "" where path names
// another file and where the file lies now cannot be told.
inline std::string PathToRemove(const std::string& path, File file) {
  const File there = OpenReadOnly(path);
  const bool same = there != kInvalidFile && IdentityOf(there) == IdentityOf(file);
  Close(there);
  if (same) return path;
  const std::string now = PathNow(file);
  return now.empty() && there == kInvalidFile ? path : now;
}
// Gives file from the name to, replacing a file of that name; on Windows written through to disk.
bool RenameFile(const std::string& from, const std::string& to);
// The same, but fails (leaving both names as they are) when a file named to exists already.
bool RenameNoReplace(const std::string& from, const std::string& to);
// Makes the names created, renamed and removed in the directory durable (nothing to do on Windows,
// whose renames are written through).
bool SyncDirectory(const std::string& directory);
// Takes an exclusive lock on the file that lasts while this handle is open; false when another
// open of it holds one. The lock covers no byte the file uses.
bool TryLockExclusive(File file);

// Called first thing: output that a closed reader (a broken pipe) cannot take is simply lost and
// never ends the process; standard output and error pass every byte unchanged.
void PrepareConsole();

// From here on, a terminal that hangs up makes further output fail instead of ending the process,
// so that a run that rewrites files is never cut short half-way by it. An interrupt from the
// keyboard still stops the process.
void KeepRunningWithoutConsole();

// Turns terminal echo off on standard input while a password is typed; a no-op when standard
// input is not a terminal. RestoreEcho undoes exactly what DisableEcho changed.
struct EchoState {
  bool changed = false;
  unsigned char saved[64] = {};
};
void DisableEcho(EchoState& state);
void RestoreEcho(const EchoState& state);

}  // namespace platform
