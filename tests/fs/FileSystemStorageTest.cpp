// The folder store on real temporary folders: files on disk, results,
// out-parameters and trace lines.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "LoginStorage/fs/FileSystemStorage.h"
#include "LoginStorage/platform/Durability.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using testsupport::listFolder;
using testsupport::readFileBytes;
using testsupport::TraceCapture;
using VelLogin::FileSystemStorage;
using Lines = std::vector<std::string>;
using Records = std::map<std::string, std::string>;

namespace {

const std::string kBinary("\0\x01\xff\x7f rec\0\0\n", 11);

class FileSystemStorageTest : public ::testing::Test {
 protected:
  std::string folder() const { return tmp.path() + "/"; }
  bool write(const std::string& key, const std::string& bytes) {
    return store.setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0);
  }
  // getRaw with the given capacity into a buffer the store allocates;
  // "<false>" when it fails. Leaves the length in len.
  std::string read(const std::string& key, unsigned capacity = 0xFFFFFFFFu) {
    char* data = nullptr;
    len = capacity;
    if (!store.getRaw(key, data, len)) return data == nullptr ? "<false>" : "<buffer left>";
    std::string bytes(data, len);
    delete[] data;
    return bytes;
  }
  // Iterates to the end: key to bytes of every record delivered.
  Records drain() {
    Records records;
    std::string key;
    char* data = nullptr;
    unsigned size = store.getMaxRecordLen();
    while (store.getNextRaw(key, data, size)) {
      EXPECT_TRUE(records.emplace(key, std::string(data, size)).second) << key << " twice";
      delete[] data;
      data = nullptr;
      size = store.getMaxRecordLen();
    }
    return records;
  }
  void makeFolder(const std::string& name) { ASSERT_EQ(::mkdir((tmp / name).c_str(), 0700), 0); }
  std::string line(const char* method, const std::string& text) const {
    return std::string(method) + "<" + folder() + ">: " + text;
  }

  testsupport::TempFolder tmp;
  FileSystemStorage store{tmp.path(), 0, false, false, 0};
  unsigned len = 0;
};

TEST_F(FileSystemStorageTest, FolderGetsOneTrailingSlashAndIsCreatedOwnerOnlyWhenMissing) {
  for (const auto& [argument, normalised] : std::map<std::string, std::string>{
           {"", "./"}, {"/", "/"}, {tmp.path(), folder()}, {folder(), folder()}}) {
    FileSystemStorage other(argument, 0, false, false, 0);
    TraceCapture trace(4);
    other.endGetAll();
    EXPECT_EQ(trace.messages(), Lines{"[INFO] FileSystemStorage::endGetAll: <" + normalised +
                                      ">: ending GetAll session"});
  }
  TraceCapture trace(4);
  FileSystemStorage nested(tmp / "a/b", 0, false, false, 0);
  FileSystemStorage existing(tmp / "a/b/", 0, false, false, 0);
  const std::string prefix = "[INFO] FileSystemStorage::FileSystemStorage: <" + (tmp / "a/b/");
  EXPECT_EQ(trace.messages(), (Lines{prefix + ">: folder doesn't exist. Creating...",
                                     prefix + ">: SUCCESS in folder creation"}));
  struct stat info;
  ASSERT_EQ(::stat((tmp / "a/b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(FileSystemStorageTest, RecordIsExactlyItsBytesOnDiskAndNeverExpires) {
  testsupport::FakeClock::set(1000);
  ASSERT_TRUE(store.setRaw("bin", kBinary.data(), static_cast<unsigned>(kBinary.size()), 5));
  EXPECT_FALSE(store.setRaw("k", "abc", 0, 0));
  EXPECT_FALSE(store.setRaw("k", nullptr, 3, 0));
  EXPECT_EQ(listFolder(tmp.path()), Lines{"bin"});
  EXPECT_EQ(readFileBytes(tmp / "bin"), kBinary);

  testsupport::FakeClock::advance(1000000);
  EXPECT_EQ(read("bin"), kBinary);
  EXPECT_EQ(len, kBinary.size());
  EXPECT_TRUE(store.isInStorage("bin"));
  EXPECT_FALSE(store.isInStorage("k"));
  EXPECT_EQ(store.getNumElements(), 0u);
  testsupport::FakeClock::useRealTime();

  char buffer[16] = "###############";
  char* data = buffer;
  len = sizeof buffer;
  ASSERT_TRUE(store.getRaw("bin", data, len));
  EXPECT_EQ(std::string(buffer, sizeof buffer), kBinary + std::string("####\0", 5));
}

TEST_F(FileSystemStorageTest, FailuresGiveFalseTheLengthConventionAndTheirLines) {
  ASSERT_TRUE(write("ten", "0123456789"));
  TraceCapture trace(4);
  EXPECT_EQ(read("ten", 10), "0123456789");
  EXPECT_EQ(read("ten", 9), "<false>");
  EXPECT_EQ(len, 10u);
  EXPECT_EQ(read("ten", 0), "<false>");
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(read("missing"), "<false>");
  EXPECT_EQ(len, 0u);
  EXPECT_FALSE(write("no/such/k", "abc"));
  EXPECT_TRUE(store.del("ten"));
  EXPECT_FALSE(store.del("ten"));
  EXPECT_EQ(trace.messages(),
            (Lines{"[WARNING] FileSystemStorage::getRaw: WARNING: data was not written, because "
                   "len <9> is less then needed <10>",
                   "[ERROR] FileSystemStorage::getRaw: ERROR: wrong usage! len==0",
                   "[ERROR] FileSystemStorage::getRaw: Folder <" + folder() +
                       "> VelLogin::readFile failed to read file: missing",
                   "[ERROR] FileSystemStorage::setRaw: VelLogin::writeFile failed to write data "
                   "with len 3 to file: no/such/k",
                   line("[ERROR] FileSystemStorage::del: folder ",
                        "SUCCESS in deleting record with key <ten>"),
                   line("[ERROR] FileSystemStorage::del: folder ",
                        "FAILURE in deleting record with key <ten>")}));
}

TEST_F(FileSystemStorageTest, DeleteAfterSetWritesThenRemovesTheRecord) {
  FileSystemStorage once(tmp.path(), 0, false, true, 0);
  TraceCapture trace(4);
  EXPECT_TRUE(once.setRaw("k", "x", 1, 0));
  EXPECT_EQ(listFolder(tmp.path()), Lines{});
  EXPECT_EQ(trace.messages(), Lines{line("[ERROR] FileSystemStorage::del: folder ",
                                         "SUCCESS in deleting record with key <k>")});
}

// Keys name files byte for byte; the odd ones must reach neither the folder
// itself, nor its parent, nor a file that a NUL would cut the name to.
TEST_F(FileSystemStorageTest, OddKeysNeverReplaceOrRemoveTheFolderOrOtherFiles) {
  ASSERT_TRUE(write("a", "kept"));
  for (const std::string& key : {std::string(""), std::string("."), std::string(".."),
                                 std::string("a\0b", 3), std::string("sub/k")}) {
    EXPECT_FALSE(write(key, "x")) << key;
    EXPECT_EQ(read(key), "<false>") << key;
    EXPECT_FALSE(store.del(key)) << key;
    EXPECT_FALSE(FileSystemStorage::isPlainKey(key)) << key;
  }
  EXPECT_EQ(listFolder(tmp.path()), Lines{"a"});
  EXPECT_TRUE(FileSystemStorage::isPlainKey("..."));

  makeFolder("sub");  // now "sub/k" names a file in it, outside the listing
  ASSERT_TRUE(write("sub/k", "deep"));
  EXPECT_EQ(readFileBytes(tmp / "sub/k"), "deep");
  ASSERT_TRUE(store.startGetAll());
  EXPECT_EQ(drain(), (Records{{"a", "kept"}}));
}

TEST_F(FileSystemStorageTest, DelAllTriesEveryRecordAndReportsTheOutcome) {
  VelLogin::setDurableWrites(true);  // the folder's flush must not change the outcome
  EXPECT_TRUE(store.delAll()) << "nothing to delete";
  for (const char* key : {"a", ".hidden", "..."}) ASSERT_TRUE(write(key, "x"));
  makeFolder("sub");
  ASSERT_TRUE(write("sub/k", "x"));
  TraceCapture trace(4);
  EXPECT_FALSE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()), Lines{"sub"});
  EXPECT_EQ(listFolder(tmp / "sub"), Lines{"k"});
  Lines lines = trace.messages();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines.back(),
            line("[ERROR] FileSystemStorage::delAll: folder ", "FAILURE in deleting all content"));
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       line("[ERROR] FileSystemStorage::del: folder ",
                            "FAILURE in deleting record with key <sub>")),
            1);
  VelLogin::setDurableWrites(false);
}

TEST_F(FileSystemStorageTest, IterationDeliversHiddenRecordsSkipsTheRestAndEndsForGood) {
  for (const char* key : {".hidden", "...", "empty"}) ASSERT_TRUE(write(key, key));
  ASSERT_TRUE(write("bin", kBinary));
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  makeFolder("sub");
  ASSERT_TRUE(store.startGetAll());
  std::string first;
  char* data = nullptr;
  len = store.getMaxRecordLen();
  ASSERT_TRUE(store.getNextRaw(first, data, len));
  delete[] data;
  {
    TraceCapture trace(4);
    EXPECT_FALSE(store.startGetAll());
    EXPECT_EQ(trace.messages().back(),
              "[ERROR] FileSystemStorage::startGetAll: ERROR: previous GetAll session was not "
              "ended with endGetAll()");
  }
  Records rest = drain();  // the first session goes on
  EXPECT_EQ(rest.count(first), 0u);
  rest.emplace(first, readFileBytes(tmp / first));
  EXPECT_EQ(
      rest,
      (Records{{".hidden", ".hidden"}, {"...", "..."}, {"empty", "empty"}, {"bin", kBinary}}));
  bool endReached = false;
  len = 100;  // and so again on every further call
  EXPECT_TRUE(store.getNextInternal(first, data, len, endReached) && endReached && len == 0);
}

// A record reaches its name through a hidden temporary file; a writer killed
// in between leaves that file behind. Neither kind is ever a record, no key
// may take that shape, and the next iteration or delAll() removes the files
// whose writer is gone.
TEST_F(FileSystemStorageTest, TemporaryFilesAreNoRecordsAndKilledWritersFilesGo) {
  const pid_t gone = ::fork();
  ASSERT_GE(gone, 0);
  if (gone == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
  const std::string left = ".lstmp-" + std::to_string(gone) + "-7";
  const std::string inFlight = ".lstmp-" + std::to_string(::getpid()) + "-4000000";
  testsupport::writeFileBytes(tmp / left, "debris");
  testsupport::writeFileBytes(tmp / inFlight, "new bytes");
  testsupport::writeFileBytes(tmp / ".lstmp-0-1", "no writer has id 0");
  for (const char* key : {"a", ".lstmp-", ".lstmp-x-1", ".lstmp-1-2-3"})
    ASSERT_TRUE(write(key, key));
  {
    TraceCapture trace(4);
    EXPECT_FALSE(write(".lstmp-1-2", "hidden"));
    EXPECT_EQ(trace.messages(), Lines{"[ERROR] FileSystemStorage::setRaw: ERROR: key "
                                      "<.lstmp-1-2> has the form of a temporary file"});
  }

  ASSERT_TRUE(store.startGetAll());
  EXPECT_EQ(drain(), (Records{{"a", "a"},
                              {".lstmp-", ".lstmp-"},
                              {".lstmp-x-1", ".lstmp-x-1"},
                              {".lstmp-1-2-3", ".lstmp-1-2-3"}}));
  store.endGetAll();
  EXPECT_EQ(listFolder(tmp.path()),
            (Lines{".lstmp-", ".lstmp-1-2-3", inFlight, ".lstmp-x-1", "a"}));
  testsupport::writeFileBytes(tmp / left, "debris again");
  EXPECT_TRUE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()), Lines{inFlight});
}

// A record's length is an unsigned: a file of 4 GiB or more has none, and is
// unreadable rather than cut to a wrong length; below that, 32-bit builds
// too see the true size. Sparse files cost no disk.
TEST_F(FileSystemStorageTest, FilesOfGibibytesGiveTheirTrueSizeOrNone) {
  const struct {
    const char* key;
    unsigned long long size;
    unsigned len;  // after getRaw with capacity 100
  } cases[] = {{"2GiB+1", (1ull << 31) + 1, 2147483649u},
               {"4GiB-1", (1ull << 32) - 1, 4294967295u},
               {"4GiB", 1ull << 32, 0},
               {"4GiB+10", (1ull << 32) + 10, 0}};
  for (const auto& c : cases) {
    ASSERT_TRUE(testsupport::makeSparseFile(tmp / c.key, c.size));
    TraceCapture trace(4);
    EXPECT_EQ(read(c.key, 100), "<false>") << c.key;
    EXPECT_EQ(len, c.len) << c.key;
    EXPECT_TRUE(store.isInStorage(c.key)) << c.key;
    if (c.len == 0) {
      EXPECT_EQ(trace.messages(), Lines{"[ERROR] FileSystemStorage::getRaw: Folder <" + folder() +
                                        "> VelLogin::readFile failed to read file: " + c.key});
    }
  }
  ASSERT_TRUE(store.del("2GiB+1") && store.del("4GiB-1"));  // readable, but not in memory
  ASSERT_TRUE(write("a", "x"));
  ASSERT_TRUE(store.startGetAll());
  EXPECT_EQ(drain(), (Records{{"a", "x"}}));
}

TEST_F(FileSystemStorageTest, WriteBeyondTheFileSizeLimitFailsAndTheProcessLives) {
  ASSERT_TRUE(write("k", "old"));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const rlimit limit = {4096, 4096};
    ::_exit(::setrlimit(RLIMIT_FSIZE, &limit) == 0 && !write("k", std::string(8192, 'n')) &&
                    read("k") == "old"
                ? 0
                : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(read("k"), "old");
  EXPECT_EQ(listFolder(tmp.path()), Lines{"k"});
}

}  // namespace
