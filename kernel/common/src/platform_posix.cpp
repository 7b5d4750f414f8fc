// POSIX implementation of the platform interface.
#include "platform.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <vector>

static_assert(sizeof(termios) <= sizeof(platform::EchoState::saved));

namespace platform {

File OpenReadWrite(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  return fd < 0 ? kInvalidFile : fd;
}

File OpenReadOnly(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return fd < 0 ? kInvalidFile : fd;
}

void AdviseSequentialRead(File file) {
  (void)::posix_fadvise(static_cast<int>(file), 0, 0, POSIX_FADV_SEQUENTIAL);
}

File CreateReadWrite(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  return fd < 0 ? kInvalidFile : fd;
}

void Close(File file) {
  if (file != kInvalidFile) ::close(static_cast<int>(file));
}

namespace {
// Repeats a transfer until size bytes are moved, the end is met (a short count) or it fails (-1).
template <typename Step>
std::int64_t TransferAll(std::size_t size, Step step) {
  std::size_t done = 0;
  while (done < size) {
    ssize_t n = step(done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return static_cast<std::int64_t>(done);
}
}  // namespace

std::int64_t ReadAt(File file, void* buffer, std::size_t size, std::uint64_t position) {
  auto* out = static_cast<unsigned char*>(buffer);
  return TransferAll(size, [&](std::size_t done) {
    return ::pread(static_cast<int>(file), out + done, size - done, static_cast<off_t>(position + done));
  });
}

std::int64_t WriteAt(File file, const void* buffer, std::size_t size, std::uint64_t position) {
  auto* in = static_cast<const unsigned char*>(buffer);
  return TransferAll(size, [&](std::size_t done) {
    return ::pwrite(static_cast<int>(file), in + done, size - done, static_cast<off_t>(position + done));
  });
}

std::int64_t Read(File file, void* buffer, std::size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  return TransferAll(size, [&](std::size_t done) { return ::read(static_cast<int>(file), out + done, size - done); });
}

bool SetFileSize(File file, std::uint64_t size) {
  return ::ftruncate(static_cast<int>(file), static_cast<off_t>(size)) == 0;
}

std::int64_t FileSize(File file) {
  struct stat st;
  return ::fstat(static_cast<int>(file), &st) == 0 ? st.st_size : -1;
}

std::int64_t NextData(File file, std::uint64_t position) {
  off_t r = ::lseek(static_cast<int>(file), static_cast<off_t>(position), SEEK_DATA);
  return r < 0 ? -1 : r;
}

std::int64_t NextHole(File file, std::uint64_t position) {
  off_t r = ::lseek(static_cast<int>(file), static_cast<off_t>(position), SEEK_HOLE);
  return r < 0 ? -1 : r;
}

int LastError() { return errno; }
void ClearLastError() { errno = 0; }

std::string SystemErrorText(int code) {
  const char* text = ::strerror(code);
  if (text == nullptr || std::strncmp(text, "Unknown error", 13) == 0) return "";
  return text;
}

bool IsNotFoundError(int code) { return code == ENOENT || code == ENOTDIR; }

std::string ExecutablePath(std::size_t limit) {
  std::vector<char> buffer(limit + 1);
  ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (n <= 0 || static_cast<std::size_t>(n) >= limit) return "";
  return std::string(buffer.data(), static_cast<std::size_t>(n));
}

std::string FullPathName(const std::string& path) {
  std::string joined = path;
  if (path.empty() || path[0] != '/') {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd) == nullptr) return "";
    joined = std::string(cwd) + "/" + path;
  }
  bool trailing = !path.empty() && path.back() == '/';
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i < joined.size()) {
    std::size_t j = joined.find('/', i);
    if (j == std::string::npos) j = joined.size();
    std::string part = joined.substr(i, j - i);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    i = j + 1;
  }
  std::string out;
  for (const auto& part : parts) out += "/" + part;
  if (out.empty() || trailing) out += "/";
  return out;
}

std::string SharedLibraryFileName(const std::string& baseName) {
  if (baseName == "zlib1") return "libz.so.1";
  return "lib" + baseName + ".so.1";
}

void* LibraryOpen(const std::string& path) { return ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL); }
void* LibrarySymbol(void* library, const char* name) { return ::dlsym(library, name); }
void LibraryClose(void* library) {
  if (library != nullptr) ::dlclose(library);
}

bool FileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool RemoveFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

void KeepRunningWithoutConsole() {
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGHUP, SIG_IGN);
}

void DisableEcho(EchoState& state) {
  state.changed = false;
  termios mode;
  if (!::isatty(STDIN_FILENO) || ::tcgetattr(STDIN_FILENO, &mode) != 0) return;
  std::memcpy(state.saved, &mode, sizeof mode);
  mode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  mode.c_lflag |= ICANON;
  if (::tcsetattr(STDIN_FILENO, TCSAFLUSH, &mode) == 0) state.changed = true;
}

void RestoreEcho(const EchoState& state) {
  if (!state.changed) return;
  termios mode;
  std::memcpy(&mode, state.saved, sizeof mode);
  ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &mode);
}

}  // namespace platform
