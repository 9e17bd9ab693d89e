// Helpers shared by the benchmark programs: keys, fresh folders, the system
// calls that make up the floors, and a count of heap allocations.
#ifndef LOGINSTORAGE_BENCH_BENCHSUPPORT_H
#define LOGINSTORAGE_BENCH_BENCHSUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// True when LOGINSTORAGE_BENCH_SHORT is set: the smallest sizes only, so
// that a CI run proves the programs build and run.
bool shortMode();

// Record counts for the growth benchmarks of the memory stores.
std::vector<int64_t> growthSizes();

// n distinct keys of 22 characters ("login/00000042/session"): longer than a
// std::string keeps inline, like real session keys.
std::vector<std::string> sessionKeys(size_t n);

// n distinct short keys usable as file names ("r000042").
std::vector<std::string> fileKeys(size_t n);

// size bytes of non-text data, different per seed.
std::string recordBytes(size_t size, unsigned seed);

// Allocations made through operator new since the program started.
uint64_t allocationCount();

// A new, empty folder under LOGINSTORAGE_BENCH_DIR (default /tmp), ending in
// "/". Folders are removed when the program exits, not during the run:
// removing many files makes file creation on some file systems slow for
// minutes, which would bias the benchmarks that run after the removal.
std::string freshFolder();

// Writes content to folder + name with a plain open/write/close.
void writeRecordFile(const std::string& folder, const std::string& name,
                     const std::string& content);

// A fresh folder holding one record file of content per key.
std::string filledFolder(const std::vector<std::string>& keys, const std::string& content);

// The system calls of a whole-file read into buf (at least the file's size):
// open, fstat, read, close. Returns the bytes read.
size_t floorRead(const char* path, char* buf, size_t capacity);

// The cheapest atomic replace there is: a new file under a temporary name in
// the folder (open with O_CREAT | O_EXCL, write, close), renamed over path.
void floorAtomicReplace(const std::string& folder, const std::string& path, const char* data,
                        size_t len);

// The cheapest miss: an open() of path that fails. True when it failed.
bool floorOpenFails(const char* path);

// The cheapest existence test: stat() of path. True when path is a regular
// file.
bool floorStatFile(const char* path);

// A plain overwrite in place: open with O_TRUNC, write, close. Not atomic.
void floorPlainOverwrite(const char* path, const char* data, size_t len);

// Every record of folder, read through readdir plus floorRead. Returns the
// records read.
size_t floorReadFolder(const std::string& folder, char* buf, size_t capacity);

// Removes every entry of folder with readdir plus unlink. Returns the count.
size_t floorRemoveAll(const std::string& folder);

}  // namespace bench

#endif
