// Faults no real file system gives on demand: a folder listing that fails
// part-way, a flush or a read that fails, a file that shrinks while read.
// The store is linked here from its own objects, so that the file helpers'
// fault switches reach it.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "LoginStorage/fs/FileSystemStorage.h"
#include "LoginStorage/platform/Durability.h"
#include "util/FileSystem.h"
#include "util/WholeFile.h"
#include "LoginStorage/storage/Exception.h"
#include "support/Records.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using testsupport::listFolder;
using testsupport::TraceCapture;
using Lines = std::vector<std::string>;

namespace {

class ListingFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* key : {"a", "b", "c"}) ASSERT_TRUE(store.setRaw(key, "x", 1, 0));
  }
  void TearDown() override {
    VelLogin::filesystem_testing::failListingsAfter(0, 0);
    VelLogin::filesystem_testing::failFileIo(0);
    VelLogin::setDurableWrites(false);
  }
  std::string line(const std::string& method, const std::string& text) const {
    return "[ERROR] FileSystemStorage::" + method + ": folder <" + tmp.path() + "/>: " + text;
  }
  std::string failure(const std::string& method, int error) const {
    return line(method, std::string("FsDirRead failed: ") + std::strerror(error));
  }

  testsupport::TempFolder tmp;
  VelLogin::FileSystemStorage store{tmp.path(), 0, false, false, 0};
};

// Four entries: "." and ".." and two of the three records, in listing order.
// EOVERFLOW is what a listing without large-file support meets at an inode
// number above 2^32. An iteration ends with the error after what was listed;
// delAll() removes what was listed and fails.
TEST_F(ListingFaultTest, AListingThatFailsPartWayEndsTheOperationWithTheError) {
  for (int error : {EIO, EOVERFLOW}) {
    VelLogin::filesystem_testing::failListingsAfter(4, error);
    TraceCapture trace(4);
    EXPECT_EQ(testsupport::drain(store).size(), 2u) << error;
    Lines lines = trace.messages();
    lines.pop_back();  // "ending GetAll session"
    EXPECT_EQ(std::count(lines.begin(), lines.end(), failure("getNextInternal", error)), 1);
    EXPECT_EQ(lines.back(), "[INFO] FileSystemStorage::getNextRaw: end of storage was reached");
  }
  VelLogin::filesystem_testing::failListingsAfter(4, EIO);
  TraceCapture trace(4);
  EXPECT_FALSE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()).size(), 1u);
  const Lines lines = trace.messages();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines.front(), failure("delAll", EIO));
  EXPECT_EQ(lines.back(), line("delAll", "FAILURE in deleting all content"));
}

// The message of the Exception the call throws; "" when it throws none.
template <typename Call>
std::string thrown(Call call) {
  try {
    call();
  } catch (const VelLogin::Exception& e) {
    return e.getMessage();
  }
  return "";
}

// A record that cannot be read or flushed is no record: nothing half-read
// reaches the caller, and a replacement that was not flushed keeps the old
// record in place.
TEST_F(ListingFaultTest, FailedReadsAndFlushesFailTheOperation) {
  VelLogin::setDurableWrites(true);
  VelLogin::filesystem_testing::failFileIo(EIO);
  EXPECT_FALSE(store.setRaw("a", "new", 3, 0));
  EXPECT_EQ(thrown([&] { VelLogin::writeFile(tmp / "a", "new"); }),
            std::string("cannot write temporary file: ") + std::strerror(EIO));
  EXPECT_EQ(listFolder(tmp.path()), (Lines{"a", "b", "c"}));
  EXPECT_EQ(testsupport::readFileBytes(tmp / "a"), "x");

  char buffer[4] = "abc";
  char* data = buffer;
  unsigned len = sizeof buffer;
  TraceCapture trace(4);
  EXPECT_FALSE(store.getRaw("a", data, len));
  EXPECT_TRUE(data == buffer && len == 0) << len;
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(testsupport::readRecord(store, "a"), "missing");
  VelLogin::WholeFileReader file(tmp / "a");
  size_t got = 7;
  EXPECT_TRUE(file.ok() && !file.readInto(buffer, &got) && got == 0) << got;
  EXPECT_EQ(file.failure() + std::to_string(file.error()),
            "cannot read file" + std::to_string(EIO));
  EXPECT_FALSE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()), Lines{});
  // The records' own flushes wait for the folder's one at the end. Records
  // go in listing order.
  const std::string unread = "[ERROR] FileSystemStorage::getRaw: Folder <" + tmp.path() +
                             "/> VelLogin::readFile failed to read file: a";
  const std::string deleted = "SUCCESS in deleting record with key <";
  const Lines messages = trace.messages();
  EXPECT_EQ(std::multiset<std::string>(messages.begin(), messages.end()),
            (std::multiset<std::string>{unread, unread, line("del", deleted + "a>"),
                                        line("del", deleted + "b>"), line("del", deleted + "c>"),
                                        line("delAll", "FAILURE in deleting all content")}));
  VelLogin::filesystem_testing::failFileIo(EIO, 1);  // the record's flush passes, not the folder's
  EXPECT_EQ(thrown([&] { VelLogin::writeFile(tmp / "d", "new"); }),
            std::string("cannot flush folder: ") + std::strerror(EIO));
}

// Between the size and the read another writer may truncate the file in
// place: what is there then is the content, not the bytes beyond it.
TEST_F(ListingFaultTest, AFileThatShrinksWhileReadGivesWhatItHolds) {
  VelLogin::WholeFileReader file(tmp / "a");
  ASSERT_TRUE(file.ok());
  ASSERT_EQ(::truncate((tmp / "a").c_str(), 0), 0);
  char buffer[1] = {'#'};
  size_t got = 7;
  EXPECT_TRUE(file.readInto(buffer, &got));
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(buffer[0], '#');
}

}  // namespace
