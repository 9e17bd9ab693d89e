// The folder store on real temporary folders: files on disk, results,
// out-parameters and trace lines.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "LoginStorage/fs/FileSystemStorage.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using VelLogin::FileSystemStorage;
using testsupport::TempFolder;
using testsupport::TraceCapture;
using testsupport::listFolder;
using testsupport::pathExists;
using testsupport::readFileBytes;
using testsupport::writeFileBytes;
using Lines = std::vector<std::string>;

namespace {

const std::string kBinary("\0\x01\xff\x7f rec\0\0\n", 11);

struct Read {
  bool result;
  std::string bytes;
  unsigned len;
};

// getRaw into a store-allocated buffer, released here.
Read readRecord(const VelLogin::AbstractStorage& store, const std::string& key,
                unsigned capacity = VelLogin::AbstractStorage::kNoRecordLimit) {
  char* data = nullptr;
  Read read{false, "", capacity};
  read.result = store.getRaw(key, data, read.len);
  if (data != nullptr) {
    EXPECT_TRUE(read.result) << "a buffer after a failed read";
    read.bytes.assign(data, read.len);
    delete[] data;
  }
  return read;
}

// Iterates to the end and returns what was delivered, key to bytes.
std::map<std::string, std::string> drain(FileSystemStorage& store) {
  std::map<std::string, std::string> records;
  std::string key;
  for (;;) {
    char* data = nullptr;
    unsigned len = store.getMaxRecordLen();
    if (!store.getNextRaw(key, data, len)) break;
    EXPECT_NE(data, nullptr) << key;
    EXPECT_EQ(records.count(key), 0u) << key << " delivered twice";
    records[key].assign(data, len);
    delete[] data;
  }
  return records;
}

class FileSystemStorageTest : public ::testing::Test {
 protected:
  std::string folder() const { return tmp.path() + "/"; }
  bool write(FileSystemStorage& store, const std::string& key, const std::string& bytes) {
    return store.setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0);
  }
  TempFolder tmp;
};

TEST_F(FileSystemStorageTest, FolderNameGetsExactlyOneTrailingSlash) {
  auto folderSeen = [](const std::string& argument) {
    FileSystemStorage store(argument, 0, false, false, 0);
    TraceCapture trace(4);
    store.endGetAll();
    return trace.messages().at(0);
  };
  EXPECT_EQ(folderSeen(""), "[INFO] FileSystemStorage::endGetAll: <./>: ending GetAll session");
  EXPECT_EQ(folderSeen("/"), "[INFO] FileSystemStorage::endGetAll: </>: ending GetAll session");
  EXPECT_EQ(folderSeen(tmp.path()),
            "[INFO] FileSystemStorage::endGetAll: <" + folder() + ">: ending GetAll session");
  EXPECT_EQ(folderSeen(folder()),
            "[INFO] FileSystemStorage::endGetAll: <" + folder() + ">: ending GetAll session");
}

TEST_F(FileSystemStorageTest, MissingFolderIsCreatedOwnerOnlyWithParents) {
  const std::string created = tmp / "a/b/";
  {
    TraceCapture trace(4);
    FileSystemStorage store(tmp / "a/b", 0, false, false, 0);
    EXPECT_EQ(trace.messages(),
              (Lines{"[INFO] FileSystemStorage::FileSystemStorage: <" + created +
                         ">: folder doesn't exist. Creating...",
                     "[INFO] FileSystemStorage::FileSystemStorage: <" + created +
                         ">: SUCCESS in folder creation"}));
    EXPECT_TRUE(write(store, "k", "v"));
  }
  struct stat info;
  ASSERT_EQ(::stat(created.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);

  TraceCapture trace(4);
  FileSystemStorage again(created, 0, false, false, 0);
  EXPECT_EQ(trace.messages(), Lines{}) << "an existing folder is taken as it is";
}

TEST_F(FileSystemStorageTest, FolderThatCannotBeCreatedIsReportedAndWritesFail) {
  writeFileBytes(tmp / "file", "");
  TraceCapture trace(4);
  FileSystemStorage store(tmp / "file/sub", 0, false, false, 0);
  EXPECT_EQ(trace.messages().back(), "[INFO] FileSystemStorage::FileSystemStorage: <" +
                                         (tmp / "file/sub/") + ">: FAIL in folder creation");
  EXPECT_FALSE(write(store, "k", "v"));
  EXPECT_FALSE(store.startGetAll());
}

TEST_F(FileSystemStorageTest, RecordIsExactlyItsBytesOnDiskAndNeverExpires) {
  testsupport::FakeClock::set(1000);
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  ASSERT_TRUE(store.setRaw("bin", kBinary.data(), static_cast<unsigned>(kBinary.size()), 5));
  EXPECT_EQ(readFileBytes(tmp / "bin"), kBinary);
  EXPECT_EQ(listFolder(tmp.path()), Lines{"bin"});

  testsupport::FakeClock::advance(1000000);
  Read read = readRecord(store, "bin");
  EXPECT_TRUE(read.result);
  EXPECT_EQ(read.len, kBinary.size());
  EXPECT_EQ(read.bytes, kBinary);
  EXPECT_TRUE(store.isInStorage("bin"));
  EXPECT_FALSE(store.isInStorage("other"));
  EXPECT_EQ(store.getNumElements(), 0u) << "the store does not count its files";
  EXPECT_FALSE(store.setExpiration("bin", 10));

  // Into the caller's own buffer, no terminator added.
  char buffer[16];
  std::memset(buffer, '#', sizeof buffer);
  char* data = buffer;
  unsigned len = sizeof buffer;
  EXPECT_TRUE(store.getRaw("bin", data, len));
  EXPECT_EQ(data, buffer);
  EXPECT_EQ(std::string(buffer, sizeof buffer), kBinary + "#####");
  testsupport::FakeClock::useRealTime();
}

TEST_F(FileSystemStorageTest, EmptyOrNullRecordIsRefusedWithoutTouchingAFile) {
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  EXPECT_FALSE(store.setRaw("k", "abc", 0, 0));
  EXPECT_FALSE(store.setRaw("k", nullptr, 3, 0));
  EXPECT_EQ(listFolder(tmp.path()), Lines{});

  writeFileBytes(tmp / "empty", "");  // made by another program
  Read read = readRecord(store, "empty");
  EXPECT_TRUE(read.result);
  EXPECT_EQ(read.len, 0u);
}

TEST_F(FileSystemStorageTest, CapacityDecidesWhetherTheRecordIsDelivered) {
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  ASSERT_TRUE(write(store, "ten", "0123456789"));
  TraceCapture trace(4);

  Read fits = readRecord(store, "ten", 10);
  EXPECT_TRUE(fits.result);
  EXPECT_EQ(fits.bytes, "0123456789");

  Read tooSmall = readRecord(store, "ten", 9);
  EXPECT_FALSE(tooSmall.result);
  EXPECT_EQ(tooSmall.len, 10u) << "the length needed";
  Read zero = readRecord(store, "ten", 0);
  EXPECT_FALSE(zero.result);
  EXPECT_EQ(zero.len, 0u);
  Read missing = readRecord(store, "missing");
  EXPECT_FALSE(missing.result);
  EXPECT_EQ(missing.len, 0u);

  EXPECT_EQ(trace.messages(),
            (Lines{"[WARNING] FileSystemStorage::getRaw: WARNING: data was not written, because "
                   "len <9> is less then needed <10>",
                   "[ERROR] FileSystemStorage::getRaw: ERROR: wrong usage! len==0",
                   "[ERROR] FileSystemStorage::getRaw: Folder <" + folder() +
                       "> VelLogin::readFile failed to read file: missing"}));
}

TEST_F(FileSystemStorageTest, DeleteAfterSetWritesThenRemovesTheRecord) {
  FileSystemStorage store(tmp.path(), 0, false, true, 0);
  TraceCapture trace(4);
  EXPECT_TRUE(write(store, "once", "x"));
  EXPECT_EQ(listFolder(tmp.path()), Lines{});
  EXPECT_EQ(trace.messages(), Lines{"[ERROR] FileSystemStorage::del: folder <" + folder() +
                                    ">: SUCCESS in deleting record with key <once>"});
}

TEST_F(FileSystemStorageTest, FailuresToWriteAndDeleteAreReportedWithTheKey) {
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  ASSERT_TRUE(write(store, "k", "v"));
  TraceCapture trace(4);
  EXPECT_FALSE(write(store, "no/such/k", "abc"));
  EXPECT_TRUE(store.del("k"));
  EXPECT_FALSE(store.del("k"));
  EXPECT_EQ(trace.messages(),
            (Lines{"[ERROR] FileSystemStorage::setRaw: VelLogin::writeFile failed to write data "
                   "with len 3 to file: no/such/k",
                   "[ERROR] FileSystemStorage::del: folder <" + folder() +
                       ">: SUCCESS in deleting record with key <k>",
                   "[ERROR] FileSystemStorage::del: folder <" + folder() +
                       ">: FAILURE in deleting record with key <k>"}));
}

// Keys are file names byte for byte; the odd ones must not reach the folder
// itself, its parent or a file that a NUL would cut the name to.
TEST_F(FileSystemStorageTest, OddKeysNeverReplaceOrRemoveTheFolderOrOtherFiles) {
  ASSERT_EQ(::mkdir((tmp / "store").c_str(), 0700), 0);
  writeFileBytes(tmp / "outside", "parent's");
  FileSystemStorage store(tmp / "store", 0, false, false, 0);
  for (const std::string key : {"", ".", ".."}) {
    EXPECT_FALSE(write(store, key, "x")) << key;
    EXPECT_FALSE(readRecord(store, key).result) << key;
    EXPECT_FALSE(store.del(key)) << key;
    EXPECT_FALSE(store.isInStorage(key)) << key;
  }
  EXPECT_TRUE(pathExists(tmp / "store"));
  EXPECT_EQ(listFolder(tmp.path()), (Lines{"outside", "store"}));

  ASSERT_TRUE(write(store, "a", "kept"));
  const std::string withNul("a\0b", 3);
  EXPECT_FALSE(write(store, withNul, "x"));
  EXPECT_FALSE(readRecord(store, withNul).result);
  EXPECT_FALSE(store.del(withNul));
  EXPECT_EQ(readFileBytes(tmp / "store/a"), "kept");

  EXPECT_FALSE(FileSystemStorage::isPlainKey(""));
  EXPECT_FALSE(FileSystemStorage::isPlainKey("."));
  EXPECT_FALSE(FileSystemStorage::isPlainKey(".."));
  EXPECT_FALSE(FileSystemStorage::isPlainKey("sub/key"));
  EXPECT_FALSE(FileSystemStorage::isPlainKey(withNul));
  EXPECT_TRUE(FileSystemStorage::isPlainKey("..."));
  EXPECT_TRUE(FileSystemStorage::isPlainKey(".hidden"));
}

TEST_F(FileSystemStorageTest, KeyWithASlashNamesAFileInASubFolderOutsideTheListing) {
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  EXPECT_FALSE(write(store, "sub/key", "x")) << "sub-folders are not created";
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  ASSERT_TRUE(write(store, "sub/key", "deep"));
  ASSERT_TRUE(write(store, "top", "t"));
  EXPECT_EQ(readFileBytes(tmp / "sub/key"), "deep");
  EXPECT_EQ(readRecord(store, "sub/key").bytes, "deep");

  ASSERT_TRUE(store.startGetAll());
  EXPECT_EQ(drain(store), (std::map<std::string, std::string>{{"top", "t"}}));
  store.endGetAll();
  EXPECT_FALSE(store.delAll()) << "the sub-folder is listed and cannot be removed";
  EXPECT_EQ(readFileBytes(tmp / "sub/key"), "deep");
  EXPECT_FALSE(pathExists(tmp / "top"));
}

TEST_F(FileSystemStorageTest, DelAllTriesEveryRecordAndReportsTheOutcome) {
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  {
    TraceCapture trace(4);
    EXPECT_TRUE(store.delAll());
    EXPECT_EQ(trace.messages(), Lines{"[ERROR] FileSystemStorage::delAll: folder <" + folder() +
                                      ">: SUCCESS in deleting all content"});
  }
  for (const char* key : {"a", ".hidden", "..."}) ASSERT_TRUE(write(store, key, "x"));
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  TraceCapture trace(4);
  EXPECT_FALSE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()), Lines{"sub"});
  Lines lines = trace.messages();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines.back(), "[ERROR] FileSystemStorage::delAll: folder <" + folder() +
                              ">: FAILURE in deleting all content");
  lines.pop_back();
  std::sort(lines.begin(), lines.end());
  const std::string del = "[ERROR] FileSystemStorage::del: folder <" + folder() + ">: ";
  EXPECT_EQ(lines, (Lines{del + "FAILURE in deleting record with key <sub>",
                          del + "SUCCESS in deleting record with key <...>",
                          del + "SUCCESS in deleting record with key <.hidden>",
                          del + "SUCCESS in deleting record with key <a>"}));

  ASSERT_EQ(::rmdir((tmp / "sub").c_str()), 0);
  ASSERT_EQ(::rmdir(tmp.path().c_str()), 0);
  TraceCapture gone(4);
  EXPECT_FALSE(store.delAll());
  EXPECT_EQ(gone.messages(),
            Lines{"[ERROR] FileSystemStorage::delAll: folder <" + folder() + ">: FsDirOpen failed"});
  ASSERT_EQ(::mkdir(tmp.path().c_str(), 0700), 0);
}

TEST_F(FileSystemStorageTest, IterationSkipsWhatIsNoRecordAndEndsForGood) {
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  ASSERT_TRUE(write(store, "a", kBinary));
  ASSERT_TRUE(write(store, ".hidden", "h"));
  ASSERT_TRUE(write(store, "...", "dots"));
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);

  ASSERT_TRUE(store.startGetAll());
  EXPECT_EQ(drain(store), (std::map<std::string, std::string>{
                              {"a", kBinary}, {".hidden", "h"}, {"...", "dots"}}));
  std::string key = "unchanged";
  char* data = nullptr;
  unsigned len = 100;
  bool endReached = false;
  for (int call = 0; call < 2; ++call) {
    EXPECT_TRUE(store.getNextInternal(key, data, len, endReached));
    EXPECT_TRUE(endReached);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(key, "unchanged");
    EXPECT_EQ(data, nullptr);
  }
  EXPECT_FALSE(store.getNextRaw(key, data, len));
  store.endGetAll();
}

TEST_F(FileSystemStorageTest, SecondStartIsRefusedAndTheOpenIterationGoesOn) {
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  for (const char* key : {"a", "b", "c"}) ASSERT_TRUE(write(store, key, key));
  ASSERT_TRUE(store.startGetAll());
  std::string first;
  char* data = nullptr;
  unsigned len = store.getMaxRecordLen();
  ASSERT_TRUE(store.getNextRaw(first, data, len));
  delete[] data;

  TraceCapture trace(4);
  EXPECT_FALSE(store.startGetAll());
  EXPECT_EQ(trace.messages(),
            (Lines{"[INFO] FileSystemStorage::startGetAll: <" + folder() +
                       ">: starting GetAll session",
                   "[ERROR] FileSystemStorage::startGetAll: ERROR: previous GetAll session was "
                   "not ended with endGetAll()"}));
  std::map<std::string, std::string> rest = drain(store);
  EXPECT_EQ(rest.size(), 2u);
  EXPECT_EQ(rest.count(first), 0u);
  store.endGetAll();
  store.endGetAll();  // harmless without a session
  EXPECT_TRUE(store.startGetAll());
  EXPECT_EQ(drain(store).size(), 3u);
}

TEST_F(FileSystemStorageTest, DestroyingClosesTheOpenIterationAndKeepsTheRecords) {
  auto store = std::make_unique<FileSystemStorage>(tmp.path(), 0, false, false, 0);
  ASSERT_TRUE(write(*store, "k", "v"));
  ASSERT_TRUE(store->startGetAll());
  TraceCapture trace(7, true);
  store.reset();
  EXPECT_EQ(trace.texts(),
            (Lines{"[TRACE] FileSystemStorage::FileSystemStorage: begin",
                   "[TRACE] FileSystemStorage::endGetAll: begin",
                   "[INFO] FileSystemStorage::endGetAll: <" + folder() +
                       ">: ending GetAll session"}));
  EXPECT_EQ(listFolder(tmp.path()), Lines{"k"});
}

TEST_F(FileSystemStorageTest, ThousandsOfRecordsAreEachDeliveredOnceThenAllDeleted) {
  FileSystemStorage writer(tmp.path(), 0, false, false, 0);
  std::map<std::string, std::string> written;
  for (int i = 0; i < 3000; ++i) {
    const std::string key = "user" + std::to_string(i);
    written[key] = key + std::string(i % 7, '\0');
    ASSERT_TRUE(write(writer, key, written[key]));
  }
  FileSystemStorage reader(folder(), 0, false, false, 0);  // a second object, same folder
  ASSERT_TRUE(reader.startGetAll());
  EXPECT_EQ(drain(reader), written);
  reader.endGetAll();
  EXPECT_TRUE(reader.delAll());
  EXPECT_EQ(listFolder(tmp.path()), Lines{});
}

}  // namespace
