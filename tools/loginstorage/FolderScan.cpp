#include "FolderScan.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "KeyText.h"
#include "Progress.h"
#include "util/FileSystem.h"
#include "util/TemporaryFileName.h"

namespace tool {

namespace {

namespace tmpname = VelLogin::temporary_file_name;

// Errors that mean "this entry is not (or no longer) a record": it vanished,
// dangles, or loops.
bool isNotARecord(int error) { return error == ENOENT || error == ELOOP || error == ENOTDIR; }

std::string systemError(const std::string& what, int error) {
  return what + ": " + std::strerror(error);
}

int openFolder(const std::string& folder, std::string& error) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) error = systemError("cannot open folder " + escapeKey(folder), errno);
  return fd;
}

}  // namespace

bool FolderScan::scan(const std::string& folder, bool withStat, Progress* progress,
                      std::string& error) {
  m_records.clear();
  m_abandoned.clear();
  m_inProgress = 0;
  const int fd = openFolder(folder, error);
  if (fd < 0) return false;
  DIR* listing = ::fdopendir(fd);
  if (listing == nullptr) {
    error = systemError("cannot list " + escapeKey(folder), errno);
    ::close(fd);
    return false;
  }
  bool ok = true;
  for (;;) {
    errno = 0;
    const struct dirent* entry = ::readdir(listing);
    if (entry == nullptr) {
      if (errno != 0) {
        ok = false;
        error = systemError("cannot list " + escapeKey(folder), errno);
      }
      break;
    }
    const char* name = entry->d_name;
    if (isDotEntry(name)) continue;
    if (progress != nullptr) progress->step();
    Entry found{name, {}};
    if (tmpname::isAbandoned(name)) {
      if (::fstatat(fd, name, &found.info, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISREG(found.info.st_mode)) {
        m_abandoned.push_back(std::move(found));
      }
      continue;
    }
    if (tmpname::matches(name)) {
      ++m_inProgress;
      continue;
    }
    const unsigned char type = entry->d_type;
    if (!withStat && type == DT_REG) {
      m_records.push_back(std::move(found));
      continue;
    }
    if (!withStat && type != DT_LNK && type != DT_UNKNOWN) continue;
    if (::fstatat(fd, name, &found.info, 0) != 0) {
      if (isNotARecord(errno)) continue;
      ok = false;
      error =
          systemError("cannot examine '" + escapeKey(name) + "' in " + escapeKey(folder), errno);
      break;
    }
    if (S_ISREG(found.info.st_mode)) m_records.push_back(std::move(found));
  }
  ::closedir(listing);
  std::sort(m_records.begin(), m_records.end(),
            [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return ok;
}

bool FolderScan::removeAbandoned(const std::string& folder, Progress* progress,
                                 unsigned long& removed, unsigned long long& bytes,
                                 std::string& error) const {
  removed = 0;
  bytes = 0;
  const int fd = openFolder(folder, error);
  if (fd < 0) return false;
  for (const Entry& file : m_abandoned) {
    if (progress != nullptr) progress->step();
    // Asked again right before removing: the file may have been renamed or
    // replaced since the scan, and a writer's process id checked once more.
    struct stat now {};
    if (!tmpname::isAbandoned(file.name.c_str()) ||
        ::fstatat(fd, file.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(now.st_mode)) {
      continue;
    }
    if (::unlinkat(fd, file.name.c_str(), 0) != 0) {
      if (errno == ENOENT) continue;
      if (error.empty()) {
        error = systemError("cannot remove '" + escapeKey(file.name) + "' in " + escapeKey(folder),
                            errno);
      }
      continue;
    }
    ++removed;
    bytes += static_cast<unsigned long long>(now.st_size);
  }
  ::close(fd);
  return error.empty();
}

}  // namespace tool
