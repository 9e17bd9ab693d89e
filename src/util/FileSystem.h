// The file and folder helpers under the folder store: existence tests, folder
// creation, file removal and folder listings, directly over POSIX calls.
// Whole files are read and written by WholeFile.h. Private to the library.
//
// Paths are std::string so that a path with an embedded NUL byte (a key that
// holds one) can be refused instead of being cut at the NUL onto another
// file: every helper treats such a path as a failure.
//
// Records are login data: files are created owner-only (0600), folders too
// (0700), both further restricted by the process's umask.
#ifndef LOGINSTORAGE_UTIL_FILESYSTEM_H
#define LOGINSTORAGE_UTIL_FILESYSTEM_H

#include <cstddef>
#include <string>

// "." and ".." are a folder's links, never records; any other name may be
// one, "..." and hidden names included.
inline bool isDotEntry(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// An open folder listing; null when there is none.
typedef void* FsDirHandle;

// Non-zero when path exists and is a folder (symbolic links followed).
int velIsDir(const std::string& path);

// Creates the folder path, with any missing parent folders, owner-only. A
// trailing "/" is allowed. Non-zero when the folder exists afterwards.
int velDirCreate(const std::string& path);

// Non-zero when path names a regular file (symbolic links followed): exactly
// the paths that WholeFileReader may be able to read.
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

// Flushes an open file's (or folder's) data to the device. False, with
// errno set, when that fails.
bool FsSync(int fd);

// Closes the listing; a null handle is ignored.
void FsDirClose(FsDirHandle handle);

namespace VelLogin {
namespace filesystem_testing {
// Makes every folder listing fail with error (an errno value) once it has
// given entries names; error 0 lets listings run as the system gives them.
// No real file system fails a listing on demand.
void failListingsAfter(unsigned entries, int error);
// Makes every flush (FsSync, FsDirSync) and every read of a whole file fail
// with error once `after` of them have passed; error 0 ends it. Devices fail
// these only when they are dying.
void failFileIo(int error, unsigned after = 0);
// The error the next flush or read is to fail with, 0 when none (and that
// operation then counts as one that passed).
int fileIoFault();
}  // namespace filesystem_testing
}  // namespace VelLogin

#endif
