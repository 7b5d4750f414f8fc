// Windows implementation of the platform interface, with the calls the system has always used.
#include "platform.h"

#include "fault_seam.h"
#include "transfer.h"

#include <windows.h>
#include <winioctl.h>
#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace platform {

namespace {
File FromHandle(HANDLE h) { return h == INVALID_HANDLE_VALUE ? kInvalidFile : reinterpret_cast<File>(h); }
HANDLE ToHandle(File f) { return reinterpret_cast<HANDLE>(f); }

// The position of a transfer travels in the OVERLAPPED block, so no file pointer is shared.
OVERLAPPED At(std::uint64_t position) {
  OVERLAPPED at{};
  at.Offset = static_cast<DWORD>(position & 0xFFFFFFFFu);
  at.OffsetHigh = static_cast<DWORD>(position >> 32);
  return at;
}

DWORD Chunk(std::size_t size) { return static_cast<DWORD>(std::min<std::size_t>(size, 0x40000000u)); }

// Records this platform's code for an injected fault (test builds only); false when there is none.
bool Injected(faults::Fault fault) {
  switch (fault) {
    case faults::Fault::kIo: ::SetLastError(ERROR_IO_DEVICE); return true;
    case faults::Fault::kNoSpace: ::SetLastError(ERROR_DISK_FULL); return true;
    case faults::Fault::kAccess: ::SetLastError(ERROR_ACCESS_DENIED); return true;
    default: return false;
  }
}

File OpenExisting(const std::string& path, DWORD access) {
  if (Injected(faults::BeforeOpen(path, (access & GENERIC_WRITE) != 0))) return kInvalidFile;
  File file = FromHandle(CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file != kInvalidFile) faults::NoteOpened(file, path);
  return file;
}
}  // namespace

// Read and write access, shared for reading and writing, existing files only. CreateFileA
// refuses a directory here (it would need FILE_FLAG_BACKUP_SEMANTICS).
File OpenReadWrite(const std::string& path) { return OpenExisting(path, GENERIC_READ | GENERIC_WRITE); }
File OpenReadOnly(const std::string& path) { return OpenExisting(path, GENERIC_READ); }

std::FILE* CreateNewTextFile(const std::string& path) {
  faults::BeforeCreate(path);
  // Shared as fopen shares it: another run that looks for the lock while this one is writing it
  // finds it and is told "locked", instead of failing to open it.
  HANDLE h = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return nullptr;
  faults::NoteCreated(kInvalidFile, path);
  faults::AfterCreate(path);
  int fd = _open_osfhandle(reinterpret_cast<std::intptr_t>(h), _O_WRONLY | _O_TEXT);
  if (fd < 0) {
    CloseHandle(h);
    return nullptr;
  }
  std::FILE* file = _fdopen(fd, "w");
  if (file == nullptr) _close(fd);
  return file;
}

// Read-ahead is the system's own choice for a file read from start to end.
bool CloseTextFile(std::FILE* file, const std::string& path) {
  const faults::Fault fault = faults::BeforeTextClose(path);
  const bool closed = std::fclose(file) == 0;
  return !Injected(fault) && closed;
}

void AdviseSequentialRead(File) {}

File CreateReadWrite(const std::string& path) {
  const File file = FromHandle(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                           nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file != kInvalidFile) faults::NoteCreated(file, path);
  return file;
}

File CreateNewReadWrite(const std::string& path) {
  const File file = FromHandle(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                           nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file != kInvalidFile) faults::NoteCreated(file, path);
  return file;
}

void Close(File file) {
  if (file == kInvalidFile) return;
  faults::NoteClosed(file);
  CloseHandle(ToHandle(file));
}

FileIdentity IdentityOf(File file) {
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(ToHandle(file), &info)) return {};
  return {info.dwVolumeSerialNumber, std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow};
}

std::string PathNow(File file) {
  std::vector<char> buffer(32768);
  const DWORD n = GetFinalPathNameByHandleA(ToHandle(file), buffer.data(), static_cast<DWORD>(buffer.size()),
                                            FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
  if (n == 0 || n >= buffer.size()) return "";
  const std::string path(buffer.data(), n);
  if (path.starts_with("\\\\?\\UNC\\")) return "\\\\" + path.substr(8);
  return path.starts_with("\\\\?\\") ? path.substr(4) : path;
}

std::uint64_t ChangedTimeOf(File file) {
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(ToHandle(file), &info)) return 0;
  return std::uint64_t{info.ftLastWriteTime.dwHighDateTime} << 32 | info.ftLastWriteTime.dwLowDateTime;
}

// In the user's temporary directory, deleted when its handle is closed, and sparse.
File CreateTemporaryFile() {
  char dir[MAX_PATH + 1], name[MAX_PATH + 1];
  const DWORD n = GetTempPathA(sizeof dir, dir);
  if (n == 0 || n > sizeof dir || GetTempFileNameA(dir, "btc", 0, name) == 0) return kInvalidFile;
  HANDLE h = CreateFileA(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                         FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  if (h == INVALID_HANDLE_VALUE) return kInvalidFile;
  DWORD returned = 0;
  // Without this, the ranges never written would take space on the disk.
  DeviceIoControl(h, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  return FromHandle(h);
}

std::int64_t ReadAt(File file, void* buffer, std::size_t size, std::uint64_t position) {
  if (Injected(faults::TransferFault(false, file, position, &size))) return -1;
  auto* out = static_cast<unsigned char*>(buffer);
  return TransferAll(size, [&](std::size_t done) -> std::int64_t {
    OVERLAPPED at = At(position + done);
    DWORD moved = 0;
    if (ReadFile(ToHandle(file), out + done, Chunk(size - done), &moved, &at)) return moved;
    return GetLastError() == ERROR_HANDLE_EOF ? 0 : -1;
  });
}

std::int64_t WriteAt(File file, const void* buffer, std::size_t size, std::uint64_t position) {
  if (Injected(faults::TransferFault(true, file, position, &size))) return -1;
  faults::BeforeWrite(file, position, size);
  auto* in = static_cast<const unsigned char*>(buffer);
  const std::int64_t n = TransferAll(size, [&](std::size_t done) -> std::int64_t {
    OVERLAPPED at = At(position + done);
    DWORD moved = 0;
    return WriteFile(ToHandle(file), in + done, Chunk(size - done), &moved, &at) ? moved : -1;
  });
  faults::AfterWrite();
  return n;
}

void RecordShortTransfer(bool writing) { ::SetLastError(writing ? ERROR_DISK_FULL : ERROR_HANDLE_EOF); }

bool Sync(File file) { return !Injected(faults::BeforeSync(file)) && FlushFileBuffers(ToHandle(file)) != 0; }

// The system's lazy writer already writes a file back while it is being written.
void StartWriteBack(File, std::uint64_t, std::uint64_t) {}
// The system reads ahead of a file read in order only a short way, and has no call to ask for a
// range: the range is read into memory thrown away, which leaves it in the system's cache. Through
// a handle of its own, so that the run's reads through the file's handle do not queue behind it.
void WillRead(File file, std::uint64_t position, std::uint64_t size) {
  constexpr DWORD kPiece = DWORD{1} << 20;
  const HANDLE own = ReOpenFile(ToHandle(file), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_FLAG_SEQUENTIAL_SCAN);
  if (own == INVALID_HANDLE_VALUE) return;
  std::vector<char> scratch(kPiece);
  for (std::uint64_t done = 0; done < size;) {
    OVERLAPPED at = At(position + done);
    DWORD got = 0;
    const auto want = static_cast<DWORD>(std::min<std::uint64_t>(kPiece, size - done));
    if (!ReadFile(own, scratch.data(), want, &got, &at) || got == 0) break;
    done += got;
  }
  CloseHandle(own);
}

std::uint64_t MemoryBytes() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  return GlobalMemoryStatusEx(&status) ? status.ullTotalPhys : 0;
}

std::uint32_t TestBatchBlocks() { return faults::BatchBlocks(); }
std::uint32_t TestCheckSlots() { return faults::CheckSlots(); }
std::uint32_t TestGroupBytes() { return faults::GroupBytes(); }
bool TestWriterLags() { return faults::WriterLag() != 0; }
std::uint32_t TestRecordByRun() { return faults::RecordByRun(); }

std::int64_t Read(File file, void* buffer, std::size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  return TransferAll(size, [&](std::size_t done) -> std::int64_t {
    DWORD moved = 0;
    return ReadFile(ToHandle(file), out + done, Chunk(size - done), &moved, nullptr) ? moved : -1;
  });
}

bool SetFileSize(File file, std::uint64_t size) {
  LARGE_INTEGER to;
  to.QuadPart = static_cast<LONGLONG>(size);
  return SetFilePointerEx(ToHandle(file), to, nullptr, FILE_BEGIN) && SetEndOfFile(ToHandle(file));
}

std::int64_t FileSize(File file) {
  LARGE_INTEGER size;
  return GetFileSizeEx(ToHandle(file), &size) ? size.QuadPart : -1;
}

// No holes are looked for: every byte counts as data.
std::int64_t NextData(File, std::uint64_t position) { return static_cast<std::int64_t>(position); }
std::int64_t NextHole(File file, std::uint64_t) { return FileSize(file); }

int LastError() { return static_cast<int>(GetLastError()); }
void ClearLastError() { ::SetLastError(0); }
void SetLastError(int code) { ::SetLastError(static_cast<DWORD>(code)); }

// The system's text as it comes, line end included; "" when it has none.
std::string SystemErrorText(int code) {
  char text[200];
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, static_cast<DWORD>(code),
                           MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), text, sizeof text, nullptr);
  return std::string(text, n);
}

bool IsNotFoundError(int code) { return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND; }

// GetModuleFileNameA cuts a longer path to limit - 1 characters and a terminator.
std::string ExecutablePath(std::size_t limit) {
  char path[MAX_PATH + 1] = {};
  DWORD n = GetModuleFileNameA(nullptr, path, static_cast<DWORD>(std::min<std::size_t>(limit, MAX_PATH)));
  return n == 0 ? std::string() : std::string(path, strnlen(path, n));
}

std::string FullPathName(const std::string& path, std::size_t limit) {
  char full[MAX_PATH + 1];
  const DWORD room = static_cast<DWORD>(std::min<std::size_t>(limit, sizeof full));
  DWORD n = GetFullPathNameA(path.c_str(), room, full, nullptr);
  if (n == 0) return "";
  if (n >= room) {
    ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return "";
  }
  return std::string(full, n);
}

std::string SharedLibraryFileName(const std::string& baseName) { return baseName + ".dll"; }
std::string LibraryPath(const std::string& binDirectory, const std::string& baseName) {
  return binDirectory + SharedLibraryFileName(baseName);
}

void* LibraryOpen(const std::string& path) { return LoadLibraryA(path.c_str()); }
// GetProcAddress looks in the named module only.
void* LibrarySymbol(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
void LibraryClose(void* library) {
  if (library != nullptr) FreeLibrary(static_cast<HMODULE>(library));
}

bool FileExists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
std::vector<std::string> DirectoryEntries(const std::string& directory) {
  std::vector<std::string> names;
  WIN32_FIND_DATAA found;
  const HANDLE h = FindFirstFileA((directory + "\\*").c_str(), &found);
  if (h == INVALID_HANDLE_VALUE) return names;
  do {
    const std::string name = found.cFileName;
    if (name != "." && name != "..") names.push_back(name);
  } while (FindNextFileA(h, &found));
  FindClose(h);
  return names;
}

bool RemoveFile(const std::string& path) {
  if (faults::RemoveHeld(path)) return true;
  return _unlink(path.c_str()) == 0;
}

bool RenameFile(const std::string& from, const std::string& to) {
  if (!MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return false;
  faults::NoteRenamed(from, to);
  return true;
}

bool RenameNoReplace(const std::string& from, const std::string& to) {
  if (!MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_WRITE_THROUGH)) return false;
  faults::NoteRenamed(from, to);
  return true;
}

bool SyncDirectory(const std::string&) {
  faults::NoteDirectorySynced();
  return true;
}

// A byte range far beyond any data: Windows locks keep other processes from the bytes they cover.
bool TryLockExclusive(File file) {
  OVERLAPPED at = At(std::uint64_t{1} << 62);
  return LockFileEx(ToHandle(file), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &at) != 0;
}

// Binary mode: "\r\n" reaches the console as two bytes. A write to a pipe without a reader just
// fails here; nothing more is needed.
void PrepareConsole() {
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
}

// A closed console window still ends the process: the system ends it shortly after any handler
// returns, so there is nothing to change.
void KeepRunningWithoutConsole() {}

// The console mode without echo; changing it discards no typed-ahead input.
void DisableEcho(EchoState& state) {
  HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
  DWORD mode = 0;
  state.changed = false;
  if (!GetConsoleMode(in, &mode)) return;
  std::memcpy(state.saved, &mode, sizeof mode);
  if (SetConsoleMode(in, (mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT)) | ENABLE_PROCESSED_INPUT | ENABLE_LINE_INPUT))
    state.changed = true;
}

void RestoreEcho(const EchoState& state) {
  if (!state.changed) return;
  DWORD mode;
  std::memcpy(&mode, state.saved, sizeof mode);
  SetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), mode);
}

}  // namespace platform
