// Whole-file read and atomic whole-file replace, and the durability switch.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "platform/Durability.h"
#include "platform/FileSystem.h"
#include "platform/TemporaryFileName.h"
#include "storage/Exception.h"

namespace {

constexpr mode_t kFileMode = 0600;

std::atomic<bool> g_durableWrites{false};
std::atomic<bool> g_forceNamedTemporaryFiles{false};
std::atomic<unsigned> g_temporaryCounter{0};

[[noreturn]] void fail(const char* what, int error, const std::string& path) {
  throw VelLogin::Exception(std::string(what) + ": " + std::strerror(error), path);
}

void refuseNul(const std::string& path) {
  if (path.find('\0') != std::string::npos) {
    throw VelLogin::Exception("path contains a NUL byte", path.substr(0, path.find('\0')));
  }
}

// Closes fd, keeping errno of an earlier failure for the caller.
void closeQuietly(int fd) {
  int saved = errno;
  ::close(fd);
  errno = saved;
}

// The folder part of path, with its trailing "/"; "./" when there is none.
std::string folderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
}

// A hidden name for a temporary file, unique within this process and, by the
// process id, among live processes.
std::string temporaryName() {
  char name[64];
  std::snprintf(name, sizeof name, "%s%ld-%u", VelLogin::temporary_file_name::kPrefix,
                static_cast<long>(::getpid()),
                g_temporaryCounter.fetch_add(1, std::memory_order_relaxed));
  return name;
}

bool writeAll(int fd, const std::string& content) {
  const char* next = content.data();
  size_t left = content.size();
  while (left > 0) {
    ssize_t written = ::write(fd, next, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    next += written;
    left -= static_cast<size_t>(written);
  }
  return true;
}

// Flushes the folder's entries, so that a rename into it survives a power cut.
void syncFolder(const std::string& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) fail("cannot open folder to flush it", errno, folder);
  if (::fsync(fd) != 0) {
    closeQuietly(fd);
    fail("cannot flush folder", errno, folder);
  }
  ::close(fd);
}

// Moves the named temporary file over path, or removes it and throws.
void renameIntoPlace(const std::string& temporary, const std::string& path, bool durable,
                     const std::string& folder) {
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(temporary.c_str());
    fail("cannot replace file", error, path);
  }
  if (durable) syncFolder(folder);
}

// The fallback where unnamed files are unavailable: an exclusively created
// hidden file in the same folder, removed on every failure.
void writeThroughNamedFile(const std::string& path, const std::string& content, bool durable) {
  const std::string folder = folderOf(path);
  std::string temporary;
  int fd;
  do {
    temporary = folder + temporaryName();
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
  } while (fd < 0 && (errno == EEXIST || errno == EINTR));
  if (fd < 0) fail("cannot create temporary file", errno, path);

  bool written = writeAll(fd, content) && (!durable || ::fsync(fd) == 0);
  int error = errno;
  if (::close(fd) != 0 && errno != EINTR && written) {
    written = false;
    error = errno;
  }
  if (!written) {
    ::unlink(temporary.c_str());
    fail("cannot write temporary file", error, path);
  }
  renameIntoPlace(temporary, path, durable, folder);
}

// True when open(O_TMPFILE) failed because the file system or kernel cannot
// make unnamed files, rather than for a reason a named file would share.
bool unnamedFilesUnsupported(int error) {
  return error == EOPNOTSUPP || error == EISDIR || error == EINVAL;
}

}  // namespace

namespace VelLogin {

void setDurableWrites(bool on) { g_durableWrites.store(on, std::memory_order_relaxed); }

bool durableWrites() { return g_durableWrites.load(std::memory_order_relaxed); }

bool isTemporaryFileName(const char* name) {
  unsigned long long pid = 0;
  return temporary_file_name::parse(name, &pid);
}

bool isAbandonedTemporaryFileName(const char* name) {
  return temporary_file_name::isAbandoned(name);
}

namespace filesystem_testing {
void forceNamedTemporaryFiles(bool on) { g_forceNamedTemporaryFiles.store(on); }
}  // namespace filesystem_testing

WholeFileReader::WholeFileReader(const std::string& path) : m_path(path), m_fd(-1), m_size(0) {
  refuseNul(path);
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
  do {
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  } while (m_fd < 0 && errno == EINTR);
  if (m_fd < 0) fail("cannot open file", errno, path);

  struct stat info;
  if (::fstat(m_fd, &info) != 0) {
    closeQuietly(m_fd);
    fail("cannot stat file", errno, path);
  }
  if (!S_ISREG(info.st_mode)) {
    ::close(m_fd);
    throw Exception("not a regular file", path);
  }
  if (static_cast<unsigned long long>(info.st_size) > std::string().max_size()) {
    ::close(m_fd);
    throw Exception("file too large to read", path);
  }
  m_size = static_cast<size_t>(info.st_size);
}

WholeFileReader::~WholeFileReader() { ::close(m_fd); }

size_t WholeFileReader::readInto(char* buffer) {
  size_t got = 0;
  while (got < m_size) {
    ssize_t n = ::read(m_fd, buffer + got, m_size - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail("cannot read file", errno, m_path);
    }
    if (n == 0) break;  // shrunk since fstat: what was there is the content
    got += static_cast<size_t>(n);
  }
  return got;
}

std::string readFile(const std::string& path) {
  WholeFileReader file(path);
  std::string content;
  try {
    content.resize(file.size());
  } catch (const std::exception&) {  // bad_alloc, or length_error on 32 bits
    throw Exception("file too large to read", path);
  }
  content.resize(file.readInto(&content[0]));
  return content;
}

void writeFile(const std::string& path, const std::string& content) {
  refuseNul(path);
  const bool durable = durableWrites();
  if (g_forceNamedTemporaryFiles.load()) {
    writeThroughNamedFile(path, content, durable);
    return;
  }

  // An unnamed file cannot be seen by any listing while it is written, and
  // vanishes by itself if the process dies before it is named.
  const std::string folder = folderOf(path);
  int fd = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kFileMode);
  if (fd < 0) {
    if (unnamedFilesUnsupported(errno)) {
      writeThroughNamedFile(path, content, durable);
      return;
    }
    fail("cannot create file in folder", errno, path);
  }
  if (!writeAll(fd, content) || (durable && ::fsync(fd) != 0)) {
    closeQuietly(fd);
    fail("cannot write file", errno, path);
  }

  // A file can be given a name but cannot replace another one directly: name
  // it, then rename the name over path. The name lives for these two calls.
  char fdPath[32];
  std::snprintf(fdPath, sizeof fdPath, "/proc/self/fd/%d", fd);
  std::string temporary;
  int linked;
  do {
    temporary = folder + temporaryName();
    linked = ::linkat(AT_FDCWD, fdPath, AT_FDCWD, temporary.c_str(), AT_SYMLINK_FOLLOW);
  } while (linked != 0 && errno == EEXIST);
  if (linked != 0) {
    // No /proc to name the file through: write it again under a name.
    closeQuietly(fd);
    writeThroughNamedFile(path, content, durable);
    return;
  }
  ::close(fd);
  renameIntoPlace(temporary, path, durable, folder);
}

}  // namespace VelLogin
