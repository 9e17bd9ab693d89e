// A fresh folder for one fuzzer process, removed at exit, and the checks the
// harnesses share. A broken promise aborts, which libFuzzer reports with the
// input that caused it.
#ifndef LOGINSTORAGE_FUZZ_FUZZFOLDER_H
#define LOGINSTORAGE_FUZZ_FUZZFOLDER_H

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzzsupport {

inline void require(bool promise, const char* what) {
  if (!promise) {
    std::fprintf(stderr, "broken promise: %s\n", what);
    std::abort();
  }
}

// The names in folder, "." and ".." left out.
inline std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(folder.c_str())) {
    while (const dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
  }
  return names;
}

class FuzzFolder {
 public:
  FuzzFolder() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr ? base : "/tmp") + "/loginstorage-fuzz-XXXXXX";
    if (::mkdtemp(&pattern[0]) == nullptr) require(false, "a temporary folder can be made");
    m_path = pattern;
  }
  ~FuzzFolder() {
    for (const std::string& name : namesIn(m_path)) ::unlink((m_path + "/" + name).c_str());
    ::rmdir(m_path.c_str());
  }
  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

}  // namespace fuzzsupport

#endif
