#include "platform/FileSystem.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t kFolderMode = 0700;

bool hasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

// mkdir that counts an existing folder as success.
bool makeOneFolder(const std::string& path) {
  if (::mkdir(path.c_str(), kFolderMode) == 0) return true;
  return errno == EEXIST && velIsDir(path) != 0;
}

}  // namespace

int velIsDir(const std::string& path) {
  if (hasNul(path)) return 0;
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) ? 1 : 0;
}

int velDirCreate(const std::string& path) {
  if (path.empty() || hasNul(path)) return 0;
  // Each parent in turn, from the top; the root and empty components (from
  // "a//b") need no creating.
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (path[slash - 1] == '/') continue;
    if (!makeOneFolder(path.substr(0, slash))) return 0;
  }
  if (path.back() != '/' && !makeOneFolder(path)) return 0;
  return velIsDir(path);
}

int velFileExist(const std::string& path) {
  if (hasNul(path)) return 0;
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? 1 : 0;
}

int velFileRemove(const std::string& path) {
  // unlink(2), not remove(3): remove() would also delete an empty folder,
  // and the folder store's own folder is one path away from every key.
  if (hasNul(path)) return 0;
  return ::unlink(path.c_str()) == 0 ? 1 : 0;
}

FsDirHandle FsDirOpen(const std::string& path) {
  if (hasNul(path)) return nullptr;
  return ::opendir(path.c_str());
}

const char* FsDirRead(FsDirHandle handle) {
  if (handle == nullptr) return nullptr;
  const dirent* entry = ::readdir(static_cast<DIR*>(handle));
  return entry != nullptr ? entry->d_name : nullptr;
}

void FsDirClose(FsDirHandle handle) {
  if (handle != nullptr) ::closedir(static_cast<DIR*>(handle));
}
