#include "util/FileSystem.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "LoginStorage/platform/Durability.h"

// Without large-file support a 32-bit build cannot stat a file of 2 GiB or
// more, nor list a folder with an inode number above 2^32 (XFS inode64,
// overlayfs xino, NFS): every record there would vanish.
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8,
              "the file helpers need 64-bit file offsets and inode numbers");

namespace {

constexpr mode_t kFolderMode = 0700;

struct Listing {
  DIR* dir;
  bool failed;
  int error;      // errno of the read that failed, until FsDirError tells it
  unsigned read;  // entries given so far
};

std::atomic<int> g_listingFault{0};
std::atomic<unsigned> g_listingFaultAfter{0};
std::atomic<int> g_fileIoFault{0};
std::atomic<unsigned> g_fileIoPassesLeft{0};

bool hasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

// The folder that holds path's last component, for flushing its entry.
std::string parentOf(const std::string& path) {
  size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return "/";
  size_t slash = path.rfind('/', end);
  if (slash == std::string::npos) return ".";
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

// mkdir that counts an existing folder as success. A folder made here is
// flushed into its parent with durable writes on, or a power cut could take
// the store's folder, and every record in it, away again.
bool makeOneFolder(const std::string& path) {
  if (::mkdir(path.c_str(), kFolderMode) == 0) {
    return !VelLogin::durableWrites() || FsDirSync(parentOf(path));
  }
  return errno == EEXIST && velIsDir(path) != 0;
}

}  // namespace

int velIsDir(const std::string& path) {
  if (hasNul(path)) return 0;
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) ? 1 : 0;
}

int velDirCreate(const std::string& path) {
  if (path.empty() || hasNul(path)) return 0;
  // Each parent in turn, from the top; the root and empty components (from
  // "a//b") need no creating.
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (path[slash - 1] == '/') continue;
    if (!makeOneFolder(path.substr(0, slash))) return 0;
  }
  if (path.back() != '/' && !makeOneFolder(path)) return 0;
  return velIsDir(path);
}

int velFileExist(const std::string& path) {
  if (hasNul(path)) return 0;
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? 1 : 0;
}

int velFileRemove(const std::string& path) {
  // unlink(2), not remove(3): remove() would also delete an empty folder,
  // and the folder store's own folder is one path away from every key.
  if (hasNul(path)) return 0;
  return ::unlink(path.c_str()) == 0 ? 1 : 0;
}

FsDirHandle FsDirOpen(const std::string& path) {
  if (hasNul(path)) return nullptr;
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) return nullptr;
  Listing* listing = new (std::nothrow) Listing{dir, false, 0, 0};
  if (listing == nullptr) ::closedir(dir);
  return listing;
}

const char* FsDirRead(FsDirHandle handle) {
  if (handle == nullptr) return nullptr;
  Listing& listing = *static_cast<Listing*>(handle);
  if (listing.failed) return nullptr;
  const int fault = g_listingFault.load(std::memory_order_relaxed);
  if (fault != 0 && listing.read >= g_listingFaultAfter.load(std::memory_order_relaxed)) {
    listing.failed = true;
    listing.error = fault;
    return nullptr;
  }
  // readdir() answers null both at the end and on failure; only errno, left
  // alone at the end, tells them apart.
  errno = 0;
  const dirent* entry = ::readdir(listing.dir);
  if (entry == nullptr) {
    listing.failed = errno != 0;
    listing.error = errno;
    return nullptr;
  }
  ++listing.read;
  return entry->d_name;
}

int FsDirError(FsDirHandle handle) {
  if (handle == nullptr) return 0;
  Listing& listing = *static_cast<Listing*>(handle);
  const int error = listing.error;
  listing.error = 0;
  return error;
}

bool FsDirSync(const std::string& path) {
  if (hasNul(path)) return false;
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = FsSync(fd);
  const int error = errno;
  ::close(fd);
  errno = error;
  return synced;
}

bool FsSync(int fd) {
  errno = VelLogin::filesystem_testing::fileIoFault();
  return errno == 0 && ::fsync(fd) == 0;
}

void FsDirClose(FsDirHandle handle) {
  if (handle == nullptr) return;
  Listing* listing = static_cast<Listing*>(handle);
  ::closedir(listing->dir);
  delete listing;
}

namespace VelLogin {
namespace filesystem_testing {
void failListingsAfter(unsigned entries, int error) {
  g_listingFaultAfter.store(entries);
  g_listingFault.store(error);
}

void failFileIo(int error, unsigned after) {
  g_fileIoPassesLeft.store(after);
  g_fileIoFault.store(error);
}

int fileIoFault() {
  const int fault = g_fileIoFault.load(std::memory_order_relaxed);
  if (fault == 0) return 0;
  for (unsigned left = g_fileIoPassesLeft.load(); left > 0;) {
    if (g_fileIoPassesLeft.compare_exchange_weak(left, left - 1)) return 0;
  }
  return fault;
}
}  // namespace filesystem_testing
}  // namespace VelLogin
