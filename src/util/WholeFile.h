// Whole-file read and atomic whole-file replace, directly over POSIX calls.
// Private to the library.
//
// Paths are std::string so that a path with an embedded NUL byte is refused
// instead of being cut at the NUL onto another file.
#ifndef LOGINSTORAGE_UTIL_WHOLEFILE_H
#define LOGINSTORAGE_UTIL_WHOLEFILE_H

#include <cstddef>
#include <string>

namespace VelLogin {

// The whole content of the regular file at path (binary-safe), read in two
// steps and without exceptions, for a caller that picks the buffer once it
// knows the file's size, and for which a missing file is an everyday answer
// rather than a failure:
//
//   WholeFileReader file(path);             // opens and stats
//   if (!file.ok()) ...                     // file.failure() says why
//   char* bytes = new char[file.size()];
//   size_t got;
//   if (!file.readInto(bytes, &got)) ...    // at most size() bytes
//
// Refuses a path that is not a regular file (a folder, a FIFO, a socket, a
// device), and never blocks on a FIFO. readInto() gives fewer than size() bytes
// when the file shrank after it was opened. size() is the file's full size,
// also where it exceeds what size_t can count. The file is closed by the
// destructor.
class WholeFileReader {
 public:
  explicit WholeFileReader(const std::string& path) noexcept;
  ~WholeFileReader();
  WholeFileReader(const WholeFileReader&) = delete;
  WholeFileReader& operator=(const WholeFileReader&) = delete;

  bool ok() const { return m_failure == nullptr; }
  // What went wrong, for a message: a short text and the errno behind it
  // (0 when none); null text while ok().
  const char* failure() const { return m_failure; }
  int error() const { return m_error; }
  unsigned long long size() const { return m_size; }
  // REQUIRES: ok(), and buffer holds size() bytes.
  bool readInto(char* buffer, size_t* got) noexcept;

 private:
  int m_fd;
  unsigned long long m_size;
  const char* m_failure;
  int m_error;
};

// Creates or replaces the file at path so that it holds exactly the size
// bytes at data, atomically: another process reading path sees the old or the
// new content, never a part, and a process killed during the call leaves the
// old or the new file. The bytes are written, straight from data, to a new
// file in the same folder under a hidden temporary name (".lstmp-<pid>-<n>",
// created exclusively), which is then renamed over path. The new file is
// owner-only; one that replaces a regular file takes over its permission bits
// and, where the process may change them, its owner and group. A write beyond
// the process's file-size limit (RLIMIT_FSIZE) fails without the limit's
// signal. No temporary file outlives a call that returns; a process killed
// before the rename leaves its file behind (temporary_file_name::isAbandoned).
// With durableWrites() on, the data and the folder entry are flushed to the
// device before the call returns. Throws Exception on failure, leaving the
// old file (if any) untouched.
void writeFile(const std::string& path, const char* data, size_t size);
void writeFile(const std::string& path, const std::string& content);

}  // namespace VelLogin

#endif
