// POSIX implementation of the platform interface.
#include "platform.h"

#include "fault_seam.h"
#include "transfer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <limits.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

static_assert(sizeof(termios) <= sizeof(platform::EchoState::saved));

namespace platform {

namespace {
// Records this platform's code for an injected fault (test builds only); false when there is none.
bool Injected(faults::Fault fault) {
  switch (fault) {
    case faults::Fault::kIo: errno = EIO; return true;
    case faults::Fault::kNoSpace: errno = ENOSPC; return true;
    case faults::Fault::kAccess: errno = EACCES; return true;
    default: return false;
  }
}

// Opening a directory as a file fails, as it does on Windows.
File OpenExisting(const std::string& path, int access) {
  if (Injected(faults::BeforeOpen(path, access == O_RDWR))) return kInvalidFile;
  int fd = ::open(path.c_str(), access | O_CLOEXEC);
  if (fd < 0) return kInvalidFile;
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    errno = EISDIR;
    return kInvalidFile;
  }
  faults::NoteOpened(fd, path);
  return fd;
}

}  // namespace

File OpenReadWrite(const std::string& path) { return OpenExisting(path, O_RDWR); }
File OpenReadOnly(const std::string& path) { return OpenExisting(path, O_RDONLY); }

std::FILE* CreateNewTextFile(const std::string& path) {
  faults::BeforeCreate(path);
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  faults::NoteCreated(kInvalidFile, path);
  faults::AfterCreate(path);
  std::FILE* file = ::fdopen(fd, "w");
  if (file == nullptr) ::close(fd);
  return file;
}

bool CloseTextFile(std::FILE* file, const std::string& path) {
  const faults::Fault fault = faults::BeforeTextClose(path);
  const bool closed = std::fclose(file) == 0;
  return !Injected(fault) && closed;
}

void AdviseSequentialRead(File file) {
  (void)::posix_fadvise(static_cast<int>(file), 0, 0, POSIX_FADV_SEQUENTIAL);
}

File CreateReadWrite(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return kInvalidFile;
  faults::NoteCreated(fd, path);
  return fd;
}

File CreateNewReadWrite(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return kInvalidFile;
  faults::NoteCreated(fd, path);
  return fd;
}

void Close(File file) {
  if (file == kInvalidFile) return;
  faults::NoteClosed(file);
  ::close(static_cast<int>(file));
}

FileIdentity IdentityOf(File file) {
  struct stat st;
  if (::fstat(static_cast<int>(file), &st) != 0) return {};
  return {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino)};
}

std::uint64_t ChangedTimeOf(File file) {
  struct stat st;
  if (::fstat(static_cast<int>(file), &st) != 0) return 0;
  return static_cast<std::uint64_t>(st.st_ctim.tv_sec) * 1000000000u + static_cast<std::uint64_t>(st.st_ctim.tv_nsec);
}

// Made with mkstemp in TMPDIR (else /tmp) and unlinked at once: nothing is left behind.
File CreateTemporaryFile() {
  const char* dir = std::getenv("TMPDIR");
  std::string name = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/byteturn-XXXXXX";
  const int fd = ::mkstemp(name.data());
  if (fd < 0) return kInvalidFile;
  ::unlink(name.c_str());
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

namespace {
off_t Offset(std::uint64_t position) { return static_cast<off_t>(position); }

// One system call of a transfer, repeated when a signal interrupts it.
template <typename Call>
std::int64_t Retrying(Call call) {
  for (;;) {
    const ssize_t n = call();
    if (n >= 0 || errno != EINTR) return n;
  }
}
}  // namespace

std::int64_t ReadAt(File file, void* buffer, std::size_t size, std::uint64_t position) {
  if (Injected(faults::TransferFault(false, file, position, &size))) return -1;
  auto* out = static_cast<unsigned char*>(buffer);
  return TransferAll(size, [&](std::size_t done) {
    return Retrying([&] { return ::pread(static_cast<int>(file), out + done, size - done, Offset(position + done)); });
  });
}

std::int64_t WriteAt(File file, const void* buffer, std::size_t size, std::uint64_t position) {
  if (Injected(faults::TransferFault(true, file, position, &size))) return -1;
  faults::BeforeWrite(file, position, size);
  auto* in = static_cast<const unsigned char*>(buffer);
  const std::int64_t n = TransferAll(size, [&](std::size_t done) {
    return Retrying([&] { return ::pwrite(static_cast<int>(file), in + done, size - done, Offset(position + done)); });
  });
  faults::AfterWrite();
  return n;
}

void RecordShortTransfer(bool writing) { errno = writing ? ENOSPC : ENODATA; }

bool Sync(File file) { return !Injected(faults::BeforeSync(file)) && ::fdatasync(static_cast<int>(file)) == 0; }

void StartWriteBack(File file, std::uint64_t position, std::uint64_t size) {
#ifdef __linux__
  (void)::sync_file_range(static_cast<int>(file), Offset(position), Offset(size), SYNC_FILE_RANGE_WRITE);
#else
  (void)file, (void)position, (void)size;
#endif
}

void WillRead(File file, std::uint64_t position, std::uint64_t size) {
  (void)::posix_fadvise(static_cast<int>(file), Offset(position), Offset(size), POSIX_FADV_WILLNEED);
}

std::uint64_t MemoryBytes() {
  const long pages = ::sysconf(_SC_PHYS_PAGES), page = ::sysconf(_SC_PAGESIZE);
  return pages > 0 && page > 0 ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page) : 0;
}

std::uint32_t TestBatchBlocks() { return faults::BatchBlocks(); }
std::uint32_t TestCheckSlots() { return faults::CheckSlots(); }
std::uint32_t TestGroupBytes() { return faults::GroupBytes(); }
bool TestWriterLags() { return faults::WriterLag() != 0; }
std::uint32_t TestRecordByRun() { return faults::RecordByRun(); }

std::int64_t Read(File file, void* buffer, std::size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  return TransferAll(size, [&](std::size_t done) {
    return Retrying([&] { return ::read(static_cast<int>(file), out + done, size - done); });
  });
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
void SetLastError(int code) { errno = code; }

std::string SystemErrorText(int code) {
  const char* text = ::strerror(code);
  if (text == nullptr || std::strncmp(text, "Unknown error", 13) == 0) return "";
  return text;
}

bool IsNotFoundError(int code) { return code == ENOENT || code == ENOTDIR; }

std::string ExecutablePath(std::size_t limit) {
  std::vector<char> buffer(PATH_MAX + 1);
  ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (n <= 0 || limit == 0) return "";
  return std::string(buffer.data(), std::min(static_cast<std::size_t>(n), limit - 1));
}

std::string PathNow(File file) {
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  std::vector<char> buffer(PATH_MAX + 1);
  const ssize_t n = ::readlink(link.c_str(), buffer.data(), buffer.size() - 1);
  if (n <= 0 || buffer[0] != '/') return "";
  const std::string path(buffer.data(), static_cast<std::size_t>(n));
  return path.ends_with(" (deleted)") ? "" : path;
}

namespace {
// Where the last ".." of an absolute path ends; npos where it has none.
std::size_t EndOfLastDotDot(const std::string& path) {
  for (std::size_t at = path.rfind("/.."); at != std::string::npos; at = path.rfind("/..", at - 1)) {
    if (at + 3 == path.size() || path[at + 3] == '/') return at + 3;
    if (at == 0) break;
  }
  return std::string::npos;
}
}  // namespace

std::string FullPathName(const std::string& path, std::size_t limit) {
  std::string joined = path;
  if (path.empty() || path[0] != '/') {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd) == nullptr) return "";
    joined = std::string(cwd) + "/" + path;
  }
  // The system takes a ".." after a link from where the link leads, not by the text: the path up
  // to its last ".." is resolved as the system resolves it, where it exists, and the rest folded.
  if (const std::size_t end = EndOfLastDotDot(joined); end != std::string::npos) {
    char resolved[PATH_MAX];
    if (::realpath(joined.substr(0, end).c_str(), resolved) != nullptr) joined = resolved + joined.substr(end);
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
  if (out.size() >= limit) {
    errno = ENAMETOOLONG;
    return "";
  }
  return out;
}

std::string SharedLibraryFileName(const std::string& baseName) {
  if (baseName == "zlib1") return "libz.so.1";
  return "lib" + baseName + ".so.1";
}

std::string LibraryPath(const std::string& binDirectory, const std::string& baseName) {
  // The bin directory's copy first; without one there, the system's library search path.
  const std::string file = SharedLibraryFileName(baseName);
  return FileExists(binDirectory + file) ? binDirectory + file : file;
}

void* LibraryOpen(const std::string& path) {
  void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library != nullptr) return library;
  // dlopen leaves no error number: a file that is there was not a loadable library.
  const char* why = ::dlerror();
  const bool missing = path.find('/') != std::string::npos
                           ? !FileExists(path)
                           : why != nullptr && std::strstr(why, "No such file or directory") != nullptr;
  errno = missing ? ENOENT : ENOEXEC;
  return nullptr;
}

void* LibrarySymbol(void* library, const char* name) {
  void* address = ::dlsym(library, name);
  link_map* own = nullptr;
  link_map* definer = nullptr;
  Dl_info info;
  if (address != nullptr && ::dlinfo(library, RTLD_DI_LINKMAP, &own) == 0 &&
      ::dladdr1(address, &info, reinterpret_cast<void**>(&definer), RTLD_DL_LINKMAP) != 0 && definer == own)
    return address;
  errno = ENOSYS;  // not defined by this library itself
  return nullptr;
}
void LibraryClose(void* library) {
  if (library != nullptr) ::dlclose(library);
}

bool FileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> DirectoryEntries(const std::string& directory) {
  std::vector<std::string> names;
  DIR* d = ::opendir(directory.c_str());
  if (d == nullptr) return names;
  while (const dirent* e = ::readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(d);
  return names;
}

bool RemoveFile(const std::string& path) {
  if (faults::RemoveHeld(path)) return true;
  return ::unlink(path.c_str()) == 0;
}

bool RenameFile(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return false;
  faults::NoteRenamed(from, to);
  return true;
}

// renameat2 where the kernel and the file system have it; else a link made under the new name
// (which fails where the name exists) and the old name removed.
bool RenameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (::link(from.c_str(), to.c_str()) != 0) return false;
    ::unlink(from.c_str());
  }
  faults::NoteRenamed(from, to);
  return true;
}

bool SyncDirectory(const std::string& directory) {
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  faults::NoteDirectorySynced();
  const bool synced = ::fsync(fd) == 0;
  const int error = errno;
  ::close(fd);
  errno = error;
  return synced;
}

bool TryLockExclusive(File file) { return ::flock(static_cast<int>(file), LOCK_EX | LOCK_NB) == 0; }

void PrepareConsole() { ::signal(SIGPIPE, SIG_IGN); }

void KeepRunningWithoutConsole() { ::signal(SIGHUP, SIG_IGN); }

void DisableEcho(EchoState& state) {
  state.changed = false;
  termios mode;
  if (!::isatty(STDIN_FILENO) || ::tcgetattr(STDIN_FILENO, &mode) != 0) return;
  std::memcpy(state.saved, &mode, sizeof mode);
  mode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  mode.c_lflag |= ICANON;
  // TCSANOW: typed-ahead input stays pending, as it does across a console mode change.
  if (::tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0) state.changed = true;
}

void RestoreEcho(const EchoState& state) {
  if (!state.changed) return;
  termios mode;
  std::memcpy(&mode, state.saved, sizeof mode);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &mode);
}

}  // namespace platform
