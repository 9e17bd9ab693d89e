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
// when it is exhausted, when reading it failed (see FsDirError) or handle is
// null. The text stays valid until the next FsDirRead or FsDirClose on the
// handle.
const char* FsDirRead(FsDirHandle handle);

// Why the listing ended early: the errno of the read that failed, told once,
// so that a caller asking at every null reports the failure once; 0 while
// the listing goes on, once it is exhausted, after the error was told, or for
// a null handle. A failed listing stays failed: FsDirRead keeps answering
// null.
int FsDirError(FsDirHandle handle);

// Flushes the folder's entries to the device, so that a file created, renamed
// or removed in it survives a power cut. False when that fails.
bool FsDirSync(const std::string& path);

// Closes the listing; a null handle is ignored.
void FsDirClose(FsDirHandle handle);

namespace VelLogin {

// The whole content of the regular file at path (binary-safe): one open,
// fstat, read and close, and one allocation of the file's size. Throws
// Exception when the file cannot be read, is not a regular file (a folder,
// a FIFO, a socket, a device) or does not fit in memory; never blocks on a
// FIFO.
std::string readFile(const std::string& path);

// The same read in two steps and without exceptions, for a caller that picks
// the buffer once it knows the file's size, and for which a missing file is
// an everyday answer rather than a failure:
//
//   WholeFileReader file(path);             // opens and stats
//   if (!file.ok()) ...                     // file.failure() says why
//   char* bytes = new char[file.size()];
//   size_t got;
//   if (!file.readInto(bytes, &got)) ...    // at most size() bytes
//
// Refuses what readFile refuses. readInto() gives fewer than size() bytes
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
// before the rename leaves its file behind (isAbandonedTemporaryFileName).
// With durableWrites() on, the data and the folder entry are flushed to the
// device before the call returns. Throws Exception on failure, leaving the
// old file (if any) untouched.
void writeFile(const std::string& path, const char* data, size_t size);
void writeFile(const std::string& path, const std::string& content);

// Flushes an open file's (or folder's) data to the device. False, with
// errno set, when that fails.
bool FsSync(int fd);

// True when name, an entry of a folder, is one of writeFile's temporary
// files (".lstmp-<digits>-<digits>"): a record's new content on its way to its
// own name, or what a writer killed on that way left behind. Never a record.
bool isTemporaryFileName(const char* name);

// True when name is a temporary file whose writing process no longer exists,
// so that nothing will ever rename it: safe to remove.
bool isAbandonedTemporaryFileName(const char* name);

namespace filesystem_testing {
// Makes every folder listing fail with error (an errno value) once it has
// given entries names; error 0 lets listings run as the system gives them.
// No real file system fails a listing on demand.
void failListingsAfter(unsigned entries, int error);
// Makes every flush (FsSync, FsDirSync) and every read of a whole file fail
// with error; 0 ends it. Devices fail these only when they are dying.
void failFileIo(int error);
}  // namespace filesystem_testing

}  // namespace VelLogin

#endif
