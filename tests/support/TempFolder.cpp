#include "support/TempFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace testsupport {

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  ::remove(path);
  return 0;
}

std::string baseFolder() {
  for (const char* variable : {"LOGINSTORAGE_TEST_TMP", "TMPDIR"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != '\0') return value;
  }
  return "/tmp";
}

}  // namespace

TempFolder::TempFolder() {
  std::string pattern = baseFolder() + "/loginstorage-test-XXXXXX";
  if (::mkdtemp(&pattern[0]) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + pattern);
  }
  m_path = pattern;
}

TempFolder::~TempFolder() {
  // Children first, and without following symbolic links out of the folder.
  ::nftw(m_path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string readFileBytes(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) throw std::runtime_error("cannot open " + path);
  std::string bytes;
  char chunk[4096];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
  std::fclose(file);
  return bytes;
}

void writeFileBytes(const std::string& path, const std::string& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw std::runtime_error("cannot create " + path);
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
}

bool pathExists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  DIR* folder = ::opendir(path.c_str());
  if (folder == nullptr) return names;
  while (dirent* entry = ::readdir(folder)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  ::closedir(folder);
  std::sort(names.begin(), names.end());
  return names;
}

bool makeSparseFile(const std::string& path, unsigned long long size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const bool sized = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
  return ::close(fd) == 0 && sized;
}

}  // namespace testsupport
