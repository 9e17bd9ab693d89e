// The file and folder helpers under the folder store: existence tests, folder
// creation, file removal, folder listings and whole-file read and write, all
// directly over POSIX calls. Private to the library.
//
// Paths are std::string so that a path with an embedded NUL byte (a key that
// holds one) can be refused instead of being cut at the NUL onto another
// file: every helper treats such a path as a failure.
//
// Records are login data: files are created owner-only (0600), folders too
// (0700), both further restricted by the process's umask.
#ifndef LOGINSTORAGE_PLATFORM_FILESYSTEM_H
#define LOGINSTORAGE_PLATFORM_FILESYSTEM_H

#include <cstddef>
#include <string>

// An open folder listing; null when there is none.
typedef void* FsDirHandle;

// Non-zero when path exists and is a folder (symbolic links followed).
int velIsDir(const std::string& path);

// Creates the folder path, with any missing parent folders, owner-only. A
// trailing "/" is allowed. Non-zero when the folder exists afterwards.
int velDirCreate(const std::string& path);

// Non-zero when path names a regular file (symbolic links followed): exactly
// the paths that readFile may be able to read.
int velFileExist(const std::string& path);

// Removes the file at path: 1 on success, 0 on failure. Never removes a
// folder, not even an empty one.
int velFileRemove(const std::string& path);

// Opens a listing of the folder path; null on failure.
FsDirHandle FsDirOpen(const std::string& path);

// The name of the next entry of the listing ("." and ".." included), or null
// when it is exhausted or handle is null. The text stays valid until the next
// FsDirRead or FsDirClose on the handle.
const char* FsDirRead(FsDirHandle handle);

// Closes the listing; a null handle is ignored.
void FsDirClose(FsDirHandle handle);

namespace VelLogin {

// The whole content of the regular file at path (binary-safe): one open,
// fstat, read and close, and one allocation of the file's size. Throws
// Exception when the file cannot be read or is not a regular file (a folder,
// a FIFO, a socket, a device); never blocks on a FIFO.
std::string readFile(const std::string& path);

// The same read in two steps, for a caller that picks the buffer once it
// knows the file's size and so saves readFile's intermediate copy:
//
//   WholeFileReader file(path);             // opens and stats, or throws
//   char* bytes = new char[file.size()];
//   size_t got = file.readInto(bytes);      // at most size() bytes, or throws
//
// Refuses what readFile refuses, with the same Exception. readInto() returns
// fewer than size() bytes when the file shrank after it was opened. The file
// is closed by the destructor.
class WholeFileReader {
 public:
  explicit WholeFileReader(const std::string& path);
  ~WholeFileReader();
  WholeFileReader(const WholeFileReader&) = delete;
  WholeFileReader& operator=(const WholeFileReader&) = delete;

  size_t size() const { return m_size; }
  size_t readInto(char* buffer);

 private:
  std::string m_path;
  int m_fd;
  size_t m_size;
};

// Creates or replaces the file at path so that it holds exactly content,
// atomically: another process reading path sees the old or the new content,
// never a part, and a process killed during the call leaves the old or the
// new file. The content is written to an unnamed file in the same folder,
// which gets a short-lived hidden name (".lstmp-...") and is then renamed
// over path; where the file system cannot make unnamed files, a named
// temporary file is created exclusively instead. No temporary file outlives a
// call that returns; a process killed between the naming and the rename can
// leave one behind. With durableWrites() on, the data and the folder entry
// are flushed to the device before the call returns. Throws Exception on
// failure, leaving the old file (if any) untouched.
void writeFile(const std::string& path, const std::string& content);

// True when name, an entry of a folder, is one of writeFile's temporary
// files (".lstmp-<pid>-<n>"): a record's new content on its way to its own
// name, or what a writer killed on that way left behind. Never a record.
bool isTemporaryFileName(const char* name);

// True when name is a temporary file whose writing process no longer exists,
// so that nothing will ever rename it: safe to remove.
bool isAbandonedTemporaryFileName(const char* name);

namespace filesystem_testing {
// Makes writeFile act as on a file system without unnamed temporary files, so
// that tests can exercise the named-file path. Off by default.
void forceNamedTemporaryFiles(bool on);
}  // namespace filesystem_testing

}  // namespace VelLogin

#endif
