#include "support/TempFolder.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace testsupport {

TempFolder::TempFolder() {
  std::string base = "/tmp";
  for (const char* name : {"TMPDIR", "LOGINSTORAGE_TEST_TMP"}) {  // the last one set wins
    if (const char* value = std::getenv(name); value != nullptr && *value != '\0') base = value;
  }
  m_path = base + "/loginstorage-test-XXXXXX";
  if (::mkdtemp(&m_path[0]) == nullptr) throw std::runtime_error("mkdtemp failed for " + m_path);
}

TempFolder::~TempFolder() {
  // Removes symbolic links, never what they point to.
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

std::string readFileBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot open " + path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void writeFileBytes(const std::string& path, const std::string& bytes) {
  if (!(std::ofstream(path, std::ios::binary) << bytes)) {
    throw std::runtime_error("cannot create " + path);
  }
}

bool pathExists(const std::string& path) {
  std::error_code error;  // a dangling symbolic link exists too
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;  // an unreadable folder lists as empty
  for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool makeSparseFile(const std::string& path, unsigned long long size) {
  return std::ofstream(path, std::ios::binary).good() &&
         ::truncate(path.c_str(), static_cast<off_t>(size)) == 0;
}

}  // namespace testsupport
