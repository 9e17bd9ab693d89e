// The folder store on real temporary folders: the raw-store contract, and
// what only a folder has: files on disk, temporary files, open descriptors
// and trace lines naming the folder.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "LoginStorage/fs/FileSystemStorage.h"
#include "support/FakeClock.h"
#include "support/RawStoreContract.h"
#include "support/TempFolder.h"
#include "support/ToolRun.h"
#include "support/TraceCapture.h"
#include "util/TemporaryFileName.h"

using testsupport::drain;
using testsupport::listFolder;
using testsupport::readRecord;
using testsupport::Records;
using testsupport::TraceCapture;
using testsupport::writeRecord;
using VelLogin::FileSystemStorage;
using Lines = std::vector<std::string>;

// Outside the anonymous namespace: its name becomes part of each contract
// test's name, which then holds no space.
struct FolderEnvironment {
  static constexpr const char* kClass = "FileSystemStorage";
  static constexpr bool kCounts = false;  // a folder keeps no count
  bool ready() const { return true; }
  VelLogin::AbstractStorage& store() { return files; }
  std::string folder() const { return tmp.path() + "/"; }
  std::string where() const { return "folder <" + folder() + ">: "; }

  testsupport::TempFolder tmp;
  FileSystemStorage files{tmp.path(), 0, false, false, 0};
};

namespace testsupport {
INSTANTIATE_TYPED_TEST_SUITE_P(Folder, RawStoreContract, FolderEnvironment);
}  // namespace testsupport

namespace {

const std::string kBinary("\0\x01\xff\x7f rec\0\0\n", 11);

class FileSystemStorageTest : public ::testing::Test, protected FolderEnvironment {};

TEST_F(FileSystemStorageTest, FolderGetsOneTrailingSlashAndIsCreatedOwnerOnlyWhenMissing) {
  for (const auto& [argument, normalised] : std::map<std::string, std::string>{
           {"", "./"}, {"/", "/"}, {tmp.path(), folder()}, {folder(), folder()}}) {
    FileSystemStorage other(argument, 0, false, false, 0);
    TraceCapture trace(4);
    other.endGetAll();
    EXPECT_EQ(trace.messages(), Lines{"[INFO] FileSystemStorage::endGetAll: <" + normalised +
                                      ">: ending GetAll session"});
  }
  testsupport::writeFileBytes(tmp / "file", "x");
  TraceCapture trace(4);
  FileSystemStorage nested(tmp / "a/b", 0, false, false, 0);
  FileSystemStorage existing(tmp / "a/b/", 0, false, false, 0);
  FileSystemStorage blocked(tmp / "file/sub", 0, false, false, 0);
  const std::string prefix = "[INFO] FileSystemStorage::FileSystemStorage: <";
  EXPECT_EQ(trace.messages(),
            (Lines{prefix + (tmp / "a/b/") + ">: folder doesn't exist. Creating...",
                   prefix + (tmp / "a/b/") + ">: SUCCESS in folder creation",
                   prefix + (tmp / "file/sub/") + ">: folder doesn't exist. Creating...",
                   prefix + (tmp / "file/sub/") + ">: FAIL in folder creation"}));
  struct stat info;
  ASSERT_EQ(::stat((tmp / "a/b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(FileSystemStorageTest, RecordIsExactlyItsBytesOnDiskAndNeverExpires) {
  testsupport::FakeClock::set(1000);
  ASSERT_TRUE(writeRecord(files, "bin", kBinary, 5));
  EXPECT_EQ(listFolder(tmp.path()), Lines{"bin"});
  EXPECT_EQ(testsupport::readFileBytes(tmp / "bin"), kBinary);
  testsupport::FakeClock::advance(1000000);
  EXPECT_EQ(readRecord(files, "bin"), kBinary);
  testsupport::FakeClock::useRealTime();

  TraceCapture trace(7, true);
  EXPECT_EQ(files.getNumElements(), 0u);
  EXPECT_EQ(readRecord(files, "bin", 9), "too long: 11");
  EXPECT_EQ(trace.texts(), (Lines{"[TRACE] FileSystemStorage::getNumElements: begin",
                                  "[TRACE] FileSystemStorage::getRaw: begin",
                                  "[WARNING] FileSystemStorage::getRaw: WARNING: data was not "
                                  "written, because len <9> is less then needed <11>"}));

  // A store that deletes after each write writes, then removes the record.
  FileSystemStorage once(tmp.path(), 0, false, true, 0);
  trace.clear();
  EXPECT_TRUE(once.setRaw("k", "x", 1, 0));
  EXPECT_EQ(listFolder(tmp.path()), Lines{"bin"});
  EXPECT_EQ(trace.messages(), Lines{"[ERROR] FileSystemStorage::del: " + where() +
                                    "SUCCESS in deleting record with key <k>"});
}

// A record reaches its name through a hidden temporary file; a writer killed
// in between leaves that file behind. Neither kind is ever a record, no key
// may take that shape, and the next iteration or delAll() removes the files
// whose writer is gone.
TEST_F(FileSystemStorageTest, TemporaryFilesAreNoRecordsAndKilledWritersFilesGo) {
  const pid_t gone = testsupport::goneProcessId();
  ASSERT_GT(gone, 0);
  using namespace VelLogin::temporary_file_name;
  const std::string prefix = kPrefix, left = make(gone, 7), inFlight = make(::getpid(), 4000000);
  testsupport::writeFileBytes(tmp / left, "debris");
  testsupport::writeFileBytes(tmp / inFlight, "new bytes");
  testsupport::writeFileBytes(tmp / (prefix + "0-1"), "no writer has id 0");
  // The prefix is exact and numbers have at most 10 digits: these are records.
  const Records records = {{prefix, "a"},
                           {prefix + "x-1", "b"},
                           {prefix + "1-2-3", "c"},
                           {prefix + "12345678901-1", "d"},
                           {".lstmp_1-2", "e"}};
  for (const auto& [key, bytes] : records) ASSERT_TRUE(writeRecord(files, key, bytes));
  EXPECT_EQ(drain(files), records);
  Lines names{inFlight};
  for (const auto& record : records) names.push_back(record.first);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(listFolder(tmp.path()), names);
  testsupport::writeFileBytes(tmp / left, "debris again");
  EXPECT_TRUE(files.delAll());
  EXPECT_EQ(listFolder(tmp.path()), Lines{inFlight});

  TraceCapture trace(4);
  EXPECT_FALSE(writeRecord(files, prefix + "1234567890-2", "hidden"));
  EXPECT_EQ(trace.messages(), Lines{"[ERROR] FileSystemStorage::setRaw: ERROR: key <" + prefix +
                                    "1234567890-2> has the form of a temporary file"});
}

// A record's length is an unsigned: a file of 4 GiB or more has none, and is
// unreadable rather than cut to a wrong length; below that, 32-bit builds
// too see the true size. Sparse files cost no disk.
TEST_F(FileSystemStorageTest, FilesOfGibibytesGiveTheirTrueSizeOrNone) {
  const struct {
    const char *key, *read;  // read with capacity 100
    unsigned long long size;
  } cases[] = {{"2GiB+1", "too long: 2147483649", (1ull << 31) + 1},
               {"4GiB-1", "too long: 4294967295", (1ull << 32) - 1},
               {"4GiB", "missing", 1ull << 32}, {"4GiB+10", "missing", (1ull << 32) + 10}};
  for (const auto& c : cases) {
    ASSERT_TRUE(testsupport::makeSparseFile(tmp / c.key, c.size));
    TraceCapture trace(4);
    EXPECT_EQ(readRecord(files, c.key, 100), c.read) << c.key;
    EXPECT_TRUE(files.isInStorage(c.key)) << c.key;
    if (std::string(c.read) == "missing") {
      EXPECT_EQ(trace.messages(), Lines{"[ERROR] FileSystemStorage::getRaw: Folder <" + folder() +
                                        "> VelLogin::readFile failed to read file: " + c.key});
    }
  }
  // Readable, but not in memory: gone before the iteration.
  ASSERT_TRUE(files.del("2GiB+1") && files.del("4GiB-1") && writeRecord(files, "a", "x"));
  EXPECT_EQ(drain(files), (Records{{"a", "x"}}));
}

size_t openDescriptors() { return listFolder("/proc/self/fd").size(); }

// The limit's signal is kept from the process, which only a child without
// SIGXFSZ ignored can show; nor does the failed write keep its file open.
TEST_F(FileSystemStorageTest, WriteBeyondTheFileSizeLimitFailsAndTheProcessLives) {
  ASSERT_TRUE(writeRecord(files, "k", "old"));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const rlimit limit = {4096, 4096};
    const size_t before = openDescriptors();
    ::_exit(::setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
                    !writeRecord(files, "k", std::string(8192, 'n')) &&
                    openDescriptors() == before && readRecord(files, "k") == "old"
                ? 0
                : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(listFolder(tmp.path()), Lines{"k"});
}

// Every way in and out of a file or a listing, failed or not, closes it; so
// does every flush of the folder.
TEST_F(FileSystemStorageTest, NoOperationLeavesADescriptorOpen) {
  EXPECT_FALSE(VelLogin::durableWrites());  // off until asked for
  VelLogin::setDurableWrites(true);
  ASSERT_TRUE(writeRecord(files, "a", "12"));
  const size_t before = openDescriptors();
  EXPECT_EQ(readRecord(files, "a", 1), "too long: 2");
  EXPECT_EQ(readRecord(files, "missing"), "missing");
  EXPECT_TRUE(writeRecord(files, "c", "3"));
  EXPECT_FALSE(writeRecord(files, "no/such", "3"));
  EXPECT_EQ(drain(files).size(), 2u);
  EXPECT_TRUE(files.startGetAll());
  files.endGetAll();
  EXPECT_TRUE(FileSystemStorage(tmp.path(), 0, false, false, 0).startGetAll());  // ended by its end
  EXPECT_TRUE(files.delAll());
  EXPECT_EQ(openDescriptors(), before);
  VelLogin::setDurableWrites(false);
}

}  // namespace
