// A fresh temporary folder for one test, removed with everything in it when
// the object goes. Made under $LOGINSTORAGE_TEST_TMP when set, else $TMPDIR or
// /tmp.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_TEMPFOLDER_H
#define LOGINSTORAGE_TESTS_SUPPORT_TEMPFOLDER_H

#include <string>
#include <vector>

namespace testsupport {

class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // The folder's path, without a trailing "/".
  const std::string& path() const { return m_path; }
  // path() + "/" + name.
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Whole-file helpers for checking what a store left on disk, written over
// the standard library so that they share nothing with the code under test.
std::string readFileBytes(const std::string& path);
void writeFileBytes(const std::string& path, const std::string& bytes);
bool pathExists(const std::string& path);
// A file of size bytes that holds no disk blocks (a hole); false on failure.
bool makeSparseFile(const std::string& path, unsigned long long size);
// The names in a folder, "." and ".." left out, sorted.
std::vector<std::string> listFolder(const std::string& path);

}  // namespace testsupport

#endif
