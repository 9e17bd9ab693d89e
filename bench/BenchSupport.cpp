#include "BenchSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace {

uint64_t g_allocations = 0;

std::vector<std::string>& foldersToRemove() {
  static std::vector<std::string> folders;
  return folders;
}

void removeFolders() {
  for (const std::string& folder : foldersToRemove()) {
    bench::floorRemoveAll(folder);
    ::rmdir(folder.c_str());
  }
}

[[noreturn]] void fail(const char* what, const std::string& path) {
  throw std::runtime_error(std::string(what) + " " + path + ": " + std::strerror(errno));
}

bool writeAll(int fd, const char* data, size_t len) {
  while (len > 0) {
    ssize_t n = ::write(fd, data, len);
    if (n <= 0) return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

// Counting every allocation of the program, the shared library's included:
// one increment, paid alike by the stores and by their floors.
void* operator new(std::size_t size) {
  ++g_allocations;
  if (void* memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++g_allocations;
  return std::malloc(size != 0 ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace bench {

bool shortMode() {
  static const bool on = std::getenv("LOGINSTORAGE_BENCH_SHORT") != nullptr;
  return on;
}

std::vector<int64_t> growthSizes() {
  if (shortMode()) return {1000};
  return {1000, 100000, 1000000};
}

std::vector<std::string> sessionKeys(size_t n) {
  std::vector<std::string> keys;
  keys.reserve(n);
  char key[64];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(key, sizeof key, "login/%08zu/session", i);
    keys.emplace_back(key);
  }
  return keys;
}

std::vector<std::string> fileKeys(size_t n) {
  std::vector<std::string> keys;
  keys.reserve(n);
  char key[32];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(key, sizeof key, "r%06zu", i);
    keys.emplace_back(key);
  }
  return keys;
}

std::string recordBytes(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  unsigned state = seed * 2654435761u + 1;
  for (char& byte : bytes) {
    state = state * 1103515245u + 12345u;
    byte = static_cast<char>(state >> 16);
  }
  return bytes;
}

uint64_t allocationCount() { return g_allocations; }

std::string freshFolder() {
  const char* base = std::getenv("LOGINSTORAGE_BENCH_DIR");
  std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/lsbench-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) fail("cannot create folder", pattern);
  std::string folder = std::string(buffer.data()) + "/";
  if (foldersToRemove().empty()) std::atexit(removeFolders);
  foldersToRemove().push_back(folder);
  return folder;
}

void writeRecordFile(const std::string& folder, const std::string& name,
                     const std::string& content) {
  floorPlainOverwrite((folder + name).c_str(), content.data(), content.size());
}

std::string filledFolder(const std::vector<std::string>& keys, const std::string& content) {
  const std::string folder = freshFolder();
  for (const std::string& key : keys) writeRecordFile(folder, key, content);
  return folder;
}

size_t floorRead(const char* path, char* buf, size_t capacity) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) fail("cannot open", path);
  struct stat info;
  if (::fstat(fd, &info) != 0) fail("cannot stat", path);
  size_t size = static_cast<size_t>(info.st_size);
  if (size > capacity) fail("record too large", path);
  size_t got = 0;
  while (got < size) {
    ssize_t n = ::read(fd, buf + got, size - got);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  return got;
}

void floorAtomicReplace(const std::string& folder, const std::string& path, const char* data,
                        size_t len) {
  static unsigned counter = 0;
  char name[64];
  std::snprintf(name, sizeof name, ".floor-%u", counter++);
  const std::string temporary = folder + name;
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) fail("cannot create", temporary);
  if (!writeAll(fd, data, len)) fail("cannot write", temporary);
  ::close(fd);
  if (::rename(temporary.c_str(), path.c_str()) != 0) fail("cannot rename onto", path);
}

bool floorOpenFails(const char* path) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return true;
  ::close(fd);
  return false;
}

bool floorStatFile(const char* path) {
  struct stat info;
  return ::stat(path, &info) == 0 && S_ISREG(info.st_mode);
}

void floorPlainOverwrite(const char* path, const char* data, size_t len) {
  int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) fail("cannot open", path);
  if (!writeAll(fd, data, len)) fail("cannot write", path);
  ::close(fd);
}

size_t floorReadFolder(const std::string& folder, char* buf, size_t capacity) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) fail("cannot list", folder);
  size_t records = 0;
  std::string path = folder;
  while (const dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    path.resize(folder.size());
    path += name;
    floorRead(path.c_str(), buf, capacity);
    ++records;
  }
  ::closedir(dir);
  return records;
}

size_t floorRemoveAll(const std::string& folder) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return 0;
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    names.emplace_back(name);
  }
  ::closedir(dir);
  for (const std::string& name : names) ::unlink((folder + name).c_str());
  return names.size();
}

}  // namespace bench
