// Windows implementation of the platform interface (built only on Windows).
#include "platform.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>

#include <cstring>

namespace platform {

namespace {
File FromHandle(HANDLE h) { return h == INVALID_HANDLE_VALUE ? kInvalidFile : reinterpret_cast<File>(h); }
HANDLE ToHandle(File f) { return reinterpret_cast<HANDLE>(f); }

bool SeekTo(File file, std::uint64_t position) {
  LONG high = static_cast<LONG>(position >> 32);
  DWORD low = SetFilePointer(ToHandle(file), static_cast<LONG>(position & 0xFFFFFFFFu), &high, FILE_BEGIN);
  return !(low == 0xFFFFFFFFu && GetLastError() != NO_ERROR);
}
}  // namespace

File OpenReadWrite(const std::string& path) {
  return FromHandle(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

File OpenReadOnly(const std::string& path) {
  return FromHandle(CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

// Read-ahead is chosen when a file is opened (FILE_FLAG_SEQUENTIAL_SCAN); nothing to do later.
void AdviseSequentialRead(File) {}

File CreateReadWrite(const std::string& path) {
  return FromHandle(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
}

void Close(File file) {
  if (file != kInvalidFile) CloseHandle(ToHandle(file));
}

std::int64_t ReadAt(File file, void* buffer, std::size_t size, std::uint64_t position) {
  if (!SeekTo(file, position)) return -1;
  DWORD done = 0;
  if (!ReadFile(ToHandle(file), buffer, static_cast<DWORD>(size), &done, nullptr)) return -1;
  return done;
}

std::int64_t WriteAt(File file, const void* buffer, std::size_t size, std::uint64_t position) {
  if (!SeekTo(file, position)) return -1;
  DWORD done = 0;
  if (!WriteFile(ToHandle(file), buffer, static_cast<DWORD>(size), &done, nullptr)) return -1;
  return done;
}

std::int64_t Read(File file, void* buffer, std::size_t size) {
  DWORD done = 0;
  if (!ReadFile(ToHandle(file), buffer, static_cast<DWORD>(size), &done, nullptr)) return -1;
  return done;
}

bool SetFileSize(File file, std::uint64_t size) { return SeekTo(file, size) && SetEndOfFile(ToHandle(file)); }
std::int64_t FileSize(File file) {
  LARGE_INTEGER size;
  return GetFileSizeEx(ToHandle(file), &size) ? size.QuadPart : -1;
}

std::int64_t NextData(File, std::uint64_t position) { return static_cast<std::int64_t>(position); }
std::int64_t NextHole(File file, std::uint64_t) {
  LARGE_INTEGER size;
  return GetFileSizeEx(ToHandle(file), &size) ? size.QuadPart : -1;
}

int LastError() { return static_cast<int>(GetLastError()); }
void ClearLastError() { SetLastError(0); }

std::string SystemErrorText(int code) {
  char text[200];
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, static_cast<DWORD>(code),
                           MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), text, sizeof text, nullptr);
  return std::string(text, n);
}

bool IsNotFoundError(int code) { return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND; }

std::string ExecutablePath(std::size_t limit) {
  char path[MAX_PATH];
  DWORD n = GetModuleFileNameA(nullptr, path, static_cast<DWORD>(limit < sizeof path ? limit : sizeof path));
  return n == 0 ? std::string() : std::string(path, n);
}

std::string FullPathName(const std::string& path) {
  char full[228];
  DWORD n = GetFullPathNameA(path.c_str(), sizeof full, full, nullptr);
  return (n == 0 || n >= sizeof full) ? std::string() : std::string(full, n);
}

std::string SharedLibraryFileName(const std::string& baseName) { return baseName + ".dll"; }

void* LibraryOpen(const std::string& path) { return LoadLibraryA(path.c_str()); }
void* LibrarySymbol(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
void LibraryClose(void* library) {
  if (library != nullptr) FreeLibrary(static_cast<HMODULE>(library));
}

bool FileExists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
bool RemoveFile(const std::string& path) { return _unlink(path.c_str()) == 0; }

// A write to a pipe without a reader just fails here. A closed console window still ends the
// process: the system ends it shortly after any handler returns.
void KeepRunningWithoutConsole() {}

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
