#include "util/WholeFile.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>

#include "LoginStorage/platform/Durability.h"
#include "LoginStorage/storage/Exception.h"
#include "util/FileSystem.h"
#include "util/TemporaryFileName.h"

namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kPermissionBits = 0777;

std::atomic<unsigned> g_temporaryCounter{0};

[[noreturn]] void fail(const char* what, int error, const std::string& path) {
  throw VelLogin::Exception(std::string(what) + ": " + std::strerror(error), path);
}

void refuseNul(const std::string& path) {
  if (path.find('\0') != std::string::npos) {
    throw VelLogin::Exception("path contains a NUL byte", path.substr(0, path.find('\0')));
  }
}

// The folder part of path, with its trailing "/"; "./" when there is none.
std::string folderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
}

// A hidden name for a temporary file, unique within this process and, by the
// process id, among live processes.
void appendTemporaryName(std::string& folder) {
  folder += VelLogin::temporary_file_name::make(
      static_cast<unsigned long long>(::getpid()),
      g_temporaryCounter.fetch_add(1, std::memory_order_relaxed));
}

// Keeps SIGXFSZ from this thread while it writes under a file-size limit:
// past RLIMIT_FSIZE, write() then fails with EFBIG instead of the signal
// ending the process. The signal the kernel still raises is taken off the
// thread before the mask is undone. Without a limit there is nothing to hold.
class FileSizeSignalHold {
 public:
  FileSizeSignalHold() {
    rlimit limit;
    m_active = ::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY;
    if (!m_active) return;
    sigemptyset(&m_signal);
    sigaddset(&m_signal, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &m_signal, &m_previous);
  }
  ~FileSizeSignalHold() {
    if (m_active) pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
  }
  FileSizeSignalHold(const FileSizeSignalHold&) = delete;
  FileSizeSignalHold& operator=(const FileSizeSignalHold&) = delete;

  void discardRaised() {
    if (!m_active) return;
    const timespec now = {0, 0};
    while (sigtimedwait(&m_signal, nullptr, &now) == SIGXFSZ) {
    }
  }

 private:
  bool m_active;
  sigset_t m_signal;
  sigset_t m_previous;
};

bool writeAll(int fd, const char* next, size_t left) {
  FileSizeSignalHold hold;
  while (left > 0) {
    ssize_t written = ::write(fd, next, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EFBIG) {
        hold.discardRaised();
        errno = EFBIG;
      }
      return false;
    }
    next += written;
    left -= static_cast<size_t>(written);
  }
  return true;
}

// A replaced record keeps who may read it: its permission bits, and its owner
// and group where this process may give them (as root, or a group of ours).
// A file of the new-record mode needs neither change: the new file was made
// so (less the umask, as every new record).
bool takeOverAccess(int fd, const struct stat& old) {
  if (old.st_uid != ::geteuid() || old.st_gid != ::getegid()) {
    // Where neither is ours to give, the new file stays ours, with the old bits.
    const bool given = ::fchown(fd, old.st_uid, old.st_gid) == 0 ||
                       ::fchown(fd, static_cast<uid_t>(-1), old.st_gid) == 0;
    static_cast<void>(given);
  }
  const mode_t bits = old.st_mode & kPermissionBits;
  return bits == kFileMode || ::fchmod(fd, bits) == 0;
}

}  // namespace

namespace VelLogin {

WholeFileReader::WholeFileReader(const std::string& path) noexcept
    : m_fd(-1), m_size(0), m_failure(nullptr), m_error(0) {
  if (path.find('\0') != std::string::npos) {
    m_failure = "path contains a NUL byte";
    return;
  }
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
  do {
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  } while (m_fd < 0 && errno == EINTR);
  if (m_fd < 0) {
    m_failure = "cannot open file";
    m_error = errno;
    return;
  }
  struct stat info;
  if (::fstat(m_fd, &info) != 0) {
    m_failure = "cannot stat file";
    m_error = errno;
  } else if (!S_ISREG(info.st_mode)) {
    m_failure = "not a regular file";
  } else {
    m_size = static_cast<unsigned long long>(info.st_size);
  }
}

WholeFileReader::~WholeFileReader() {
  if (m_fd >= 0) ::close(m_fd);
}

bool WholeFileReader::readInto(char* buffer, size_t* got) noexcept {
  // A size that does not fit in size_t cannot have been allocated: the
  // caller's REQUIRES already excludes it.
  const size_t size = static_cast<size_t>(m_size);
  size_t done = 0;
  while (done < size) {
    errno = VelLogin::filesystem_testing::fileIoFault();
    const ssize_t n = errno != 0 ? -1 : ::read(m_fd, buffer + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      m_failure = "cannot read file";
      m_error = errno;
      *got = 0;
      return false;
    }
    if (n == 0) break;  // shrunk since fstat: what was there is the content
    done += static_cast<size_t>(n);
  }
  *got = done;
  return true;
}

void writeFile(const std::string& path, const std::string& content) {
  writeFile(path, content.data(), content.size());
}

void writeFile(const std::string& path, const char* data, size_t size) {
  refuseNul(path);
  const bool durable = durableWrites();
  const std::string folder = folderOf(path);
  struct stat old;
  const bool replacing = ::lstat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode);

  std::string temporary;
  int fd;
  do {
    temporary = folder;
    appendTemporaryName(temporary);
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
  } while (fd < 0 && (errno == EEXIST || errno == EINTR));
  if (fd < 0) fail("cannot create temporary file", errno, path);

  bool written = (!replacing || takeOverAccess(fd, old)) && writeAll(fd, data, size) &&
                 (!durable || FsSync(fd));
  int error = errno;
  if (::close(fd) != 0 && errno != EINTR && written) {
    written = false;
    error = errno;
  }
  if (!written) {
    ::unlink(temporary.c_str());
    fail("cannot write temporary file", error, path);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    error = errno;
    ::unlink(temporary.c_str());
    fail("cannot replace file", error, path);
  }
  if (durable && !FsDirSync(folder)) fail("cannot flush folder", errno, folder);
}

}  // namespace VelLogin
