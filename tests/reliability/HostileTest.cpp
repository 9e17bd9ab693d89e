// The folder store on failing disks and among hostile folder entries and
// keys: every case ends in the result the store's rules imply or a clean
// false, never a hang, a crash, a lost record or a write outside the folder
// that the caller did not ask for. The tests run as root, so they fail
// writes with mechanisms that stop root too: a file-size limit, a removed
// folder, immutable files and folders.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using testsupport::listFolder;
using testsupport::pathExists;
using testsupport::readFileBytes;
using testsupport::TempFolder;
using testsupport::TraceCapture;
using testsupport::writeFileBytes;
using VelLogin::FileSystemStorage;
using Lines = std::vector<std::string>;
using Records = std::map<std::string, std::string>;

namespace {

class FolderStore {
 public:
  explicit FolderStore(const std::string& folder)
      : m_folder(folder + "/"), store(folder, 0, false, false, 0) {}
  bool write(const std::string& key, const std::string& bytes) {
    return store.setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0);
  }
  // The record's bytes; "<false>" with len 0 left, "<false len N>" otherwise.
  std::string read(const std::string& key) {
    char* data = nullptr;
    unsigned len = store.getMaxRecordLen();
    if (!store.getRaw(key, data, len)) {
      return len == 0 && data == nullptr ? "<false>" : "<false len " + std::to_string(len) + ">";
    }
    std::string bytes(data, len);
    delete[] data;
    return bytes;
  }
  Records drain() {
    Records records;
    if (!store.startGetAll()) return {{"<startGetAll failed>", ""}};
    std::string key;
    char* data = nullptr;
    unsigned len = store.getMaxRecordLen();
    while (store.getNextRaw(key, data, len)) {
      records.emplace(key, std::string(data, len));
      delete[] data;
      data = nullptr;
      len = store.getMaxRecordLen();
    }
    store.endGetAll();
    return records;
  }
  std::string writeFailure(const std::string& key, size_t size) const {
    return "[ERROR] FileSystemStorage::setRaw: VelLogin::writeFile failed to write data with len " +
           std::to_string(size) + " to file: " + key;
  }
  std::string readFailure(const std::string& key) const {
    return "[ERROR] FileSystemStorage::getRaw: Folder <" + m_folder +
           "> VelLogin::readFile failed to read file: " + key;
  }

  std::string m_folder;
  FileSystemStorage store;
};

// Sets a file's or folder's immutable flag for the object's lifetime. Even
// root can then neither write nor rename into, nor remove from, it.
class Immutable {
 public:
  explicit Immutable(const std::string& path) : m_path(path) { m_set = change(true); }
  ~Immutable() {
    if (m_set) change(false);
  }
  bool isSet() const { return m_set; }

 private:
  bool change(bool on) {
    const int fd = ::open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    ::close(fd);
    return done;
  }
  std::string m_path;
  bool m_set;
};

// Limits the size of files this process writes for the object's lifetime,
// with SIGXFSZ ignored so that an oversized write fails instead of killing.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    m_previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &m_previous);
    rlimit limit = m_previous;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &m_previous);
    ::signal(SIGXFSZ, m_previousHandler);
  }

 private:
  rlimit m_previous;
  sighandler_t m_previousHandler;
};

class FailingDiskTest : public ::testing::Test {
 protected:
  TempFolder tmp;
  FolderStore folder{tmp.path()};
  const std::string old = std::string(100, 'o');
  const std::string big = std::string(10000, 'n');
};

TEST_F(FailingDiskTest, WriteOverTheFileSizeLimitFailsAndKeepsTheOldRecord) {
  ASSERT_TRUE(folder.write("rec", old));
  {
    FileSizeLimit limit(4096);
    TraceCapture trace(2);
    EXPECT_FALSE(folder.write("rec", big));
    EXPECT_FALSE(folder.write("new", big));
    EXPECT_EQ(trace.messages(),
              (Lines{folder.writeFailure("rec", 10000), folder.writeFailure("new", 10000)}));
    EXPECT_TRUE(folder.write("fits", std::string(4096, 'f'))) << "up to the limit is fine";
  }
  EXPECT_EQ(folder.read("rec"), old);
  EXPECT_EQ(listFolder(tmp.path()), (Lines{"fits", "rec"})) << "no part of a failed write is left";
  EXPECT_TRUE(folder.write("rec", big)) << "without the limit";
}

TEST_F(FailingDiskTest, RemovedFolderFailsEveryOperationCleanly) {
  const std::string path = tmp / "gone";
  FolderStore gone(path);
  ASSERT_TRUE(gone.write("rec", old));
  ASSERT_EQ(::unlink((path + "/rec").c_str()), 0);
  ASSERT_EQ(::rmdir(path.c_str()), 0);
  TraceCapture trace(2);
  EXPECT_FALSE(gone.write("rec", old));
  EXPECT_EQ(gone.read("rec"), "<false>");
  EXPECT_FALSE(gone.store.isInStorage("rec"));
  EXPECT_FALSE(gone.store.del("rec"));
  EXPECT_FALSE(gone.store.delAll());
  EXPECT_FALSE(gone.store.startGetAll());
  EXPECT_EQ(trace.messages(),
            (Lines{gone.writeFailure("rec", 100), gone.readFailure("rec"),
                   "[ERROR] FileSystemStorage::del: folder <" + path +
                       "/>: FAILURE in deleting record with key <rec>",
                   "[ERROR] FileSystemStorage::delAll: folder <" + path + "/>: FsDirOpen failed"}));
  EXPECT_FALSE(pathExists(path)) << "no operation but construction makes the folder";
}

TEST_F(FailingDiskTest, ImmutableFolderOrRecordRefusesWritesAndKeepsEveryRecord) {
  ASSERT_TRUE(folder.write("rec", old));
  ASSERT_TRUE(folder.write("other", "x"));
  {
    Immutable frozen(tmp.path());
    if (!frozen.isSet())
      GTEST_SKIP() << "this file system has no immutable flag: " << std::strerror(errno);
    TraceCapture trace(2);
    EXPECT_FALSE(folder.write("rec", big));
    EXPECT_FALSE(folder.write("new", big));
    EXPECT_EQ(trace.messages(),
              (Lines{folder.writeFailure("rec", 10000), folder.writeFailure("new", 10000)}));
    EXPECT_FALSE(folder.store.del("rec"));
    EXPECT_FALSE(folder.store.delAll());
    EXPECT_EQ(folder.drain(), (Records{{"other", "x"}, {"rec", old}}));
  }
  {
    Immutable frozen(tmp / "rec");
    ASSERT_TRUE(frozen.isSet());
    EXPECT_FALSE(folder.write("rec", big)) << "an immutable record is not replaced";
    EXPECT_TRUE(folder.write("other", "y")) << "the folder itself is writable";
  }
  EXPECT_EQ(folder.read("rec"), old);
  EXPECT_EQ(listFolder(tmp.path()), (Lines{"other", "rec"}))
      << "the new file of the refused write is gone";
}

// Every hostile input tried, for the closing figure.
unsigned g_hostileInputs = 0;

class HostileInputTest : public ::testing::Test {
 protected:
  static void TearDownTestSuite() {
    std::cout << "[ figures  ] " << g_hostileInputs << " hostile entries and keys tried"
              << std::endl;
  }
  TempFolder outer;  // the store's parent: what keys with ".." reach
  TempFolder elsewhere;
  const std::string path = outer / "store";
  FolderStore folder{path};
};

void makeSocket(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path) << path;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
}

TEST_F(HostileInputTest, FoldersEntriesOfEveryKindNeitherHangNorLeakWritesOutside) {
  ASSERT_TRUE(folder.write("ok", "record"));
  ASSERT_EQ(::mkfifo((path + "/fifo").c_str(), 0600), 0);
  makeSocket(path + "/sock");
  ASSERT_EQ(::mkdir((path + "/sub").c_str(), 0700), 0);
  writeFileBytes(path + "/sub/inner", "inner");
  writeFileBytes(elsewhere / "target", "outside");
  ASSERT_EQ(::symlink((elsewhere / "missing").c_str(), (path + "/dangling").c_str()), 0);
  ASSERT_EQ(::symlink((elsewhere / "target").c_str(), (path + "/outlink").c_str()), 0);
  ASSERT_EQ(::symlink(elsewhere.path().c_str(), (path + "/dirlink").c_str()), 0);
  g_hostileInputs += 6;

  // Only what reads as a regular file is a record; a link is followed.
  EXPECT_EQ(folder.drain(), (Records{{"ok", "record"}, {"outlink", "outside"}}));
  for (const char* key : {"fifo", "sock", "sub", "dangling", "dirlink"}) {
    EXPECT_EQ(folder.read(key), "<false>") << key;
    EXPECT_FALSE(folder.store.isInStorage(key)) << key;
  }
  EXPECT_TRUE(folder.store.isInStorage("outlink"));

  // A write replaces the entry itself, never what a link points at.
  EXPECT_TRUE(folder.write("dangling", "new"));
  EXPECT_TRUE(folder.write("outlink", "new"));
  EXPECT_FALSE(folder.write("sub", "new")) << "a folder is not replaced";
  EXPECT_EQ(listFolder(elsewhere.path()), Lines{"target"});
  EXPECT_EQ(readFileBytes(elsewhere / "target"), "outside");
  EXPECT_EQ(readFileBytes(path + "/sub/inner"), "inner");
  // A key with "/" is a path and goes where it leads, through a linked
  // folder too: the hazard that isPlainKey() lets callers refuse.
  EXPECT_FALSE(FileSystemStorage::isPlainKey("dirlink/target"));
  EXPECT_TRUE(folder.write("dirlink/target", "through the link"));
  EXPECT_EQ(readFileBytes(elsewhere / "target"), "through the link");

  // delAll removes every entry it can, links as links, and keeps the folder.
  EXPECT_FALSE(folder.store.delAll());
  EXPECT_EQ(listFolder(path), Lines{"sub"});
  EXPECT_EQ(listFolder(elsewhere.path()), Lines{"target"});
}

TEST_F(HostileInputTest, OddKeysGiveTheirOwnResultOrACleanFalse) {
  writeFileBytes(outer / "neighbour", "kept");
  struct Case {
    std::string key;
    bool stored;  // written, read back, listed as itself and removed by del
    bool plain;   // isPlainKey(): no path, though maybe too long for a name
  };
  const std::vector<Case> cases{
      {"", false, false},
      {".", false, false},
      {"..", false, false},
      {"/", false, false},
      {"//", false, false},
      {"no/such", false, false},
      {std::string("nul\0byte", 8), false, false},
      {std::string("\0", 1), false, false},
      {std::string(256, 'n'), false, true},  // longer than a file name may be
      {std::string(5000, 'p'), false, true},
      {"line\nbreak", true, true},
      {"tab\there", true, true},
      {" ", true, true},
      {"-", true, true},
      {"...", true, true},
      {"\xff\xfe\x80 not text", true, true},
      {std::string(255, 'n'), true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("key of " + std::to_string(c.key.size()) + " bytes: " + c.key.substr(0, 20));
    ++g_hostileInputs;
    EXPECT_EQ(folder.write(c.key, "bytes"), c.stored);
    EXPECT_EQ(folder.read(c.key), c.stored ? "bytes" : "<false>");
    EXPECT_EQ(folder.store.isInStorage(c.key), c.stored);
    EXPECT_EQ(FileSystemStorage::isPlainKey(c.key), c.plain);
    if (c.stored) {
      EXPECT_EQ(folder.drain(), (Records{{c.key, "bytes"}}));
      EXPECT_TRUE(folder.store.del(c.key));
    } else {
      EXPECT_FALSE(folder.store.del(c.key));
    }
    EXPECT_EQ(listFolder(path), Lines{});
    EXPECT_EQ(listFolder(outer.path()), (Lines{"neighbour", "store"}));
  }
  EXPECT_EQ(readFileBytes(outer / "neighbour"), "kept");
}

// Keys are file names byte for byte: "../" reaches the parent folder, as
// asked. isPlainKey() is how a caller refuses such keys beforehand.
TEST_F(HostileInputTest, KeysThatClimbOutReachExactlyTheNamedPath) {
  g_hostileInputs += 3;
  for (const std::string key : {"../escaped", "../store/../escaped", "./../escaped"}) {
    EXPECT_FALSE(FileSystemStorage::isPlainKey(key)) << key;
    ASSERT_TRUE(folder.write(key, "out")) << key;
    EXPECT_EQ(readFileBytes(outer / "escaped"), "out") << key;
    EXPECT_EQ(folder.drain(), Records{}) << key;
    EXPECT_TRUE(folder.store.del(key)) << key;
    EXPECT_EQ(listFolder(outer.path()), Lines{"store"}) << key;
  }
}

}  // namespace
