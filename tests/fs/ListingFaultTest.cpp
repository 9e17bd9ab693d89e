// A folder listing that fails part-way, which no real file system does on
// demand: the store is linked here from its own objects, so that the file
// helpers' fault switch reaches it.
#include <gtest/gtest.h>

#include <errno.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "LoginStorage/fs/FileSystemStorage.h"
#include "util/FileSystem.h"
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
  void TearDown() override { VelLogin::filesystem_testing::failListingsAfter(0, 0); }
  std::string failure(int error = EIO) const {
    return "[ERROR] FileSystemStorage::" + method + ": folder <" + tmp.path() +
           "/>: FsDirRead failed: " + std::strerror(error);
  }

  testsupport::TempFolder tmp;
  VelLogin::FileSystemStorage store{tmp.path(), 0, false, false, 0};
  std::string method;
};

// Four entries: "." and ".." and two of the three records, in listing order.
// EOVERFLOW is what a listing without large-file support meets at an inode
// number above 2^32.
TEST_F(ListingFaultTest, IterationEndsWithTheErrorAfterWhatWasListed) {
  method = "getNextInternal";
  for (int error : {EIO, EOVERFLOW}) {
    VelLogin::filesystem_testing::failListingsAfter(4, error);
    ASSERT_TRUE(store.startGetAll());
    std::string key;
    unsigned delivered = 0;
    char* data = nullptr;
    unsigned len = store.getMaxRecordLen();
    TraceCapture trace(4);
    while (store.getNextRaw(key, data, len)) {
      ++delivered;
      delete[] data;
      data = nullptr;
      len = store.getMaxRecordLen();
    }
    store.endGetAll();
    EXPECT_EQ(delivered, 2u) << error;
    Lines lines = trace.messages();
    lines.pop_back();  // "ending GetAll session"
    EXPECT_EQ(std::count(lines.begin(), lines.end(), failure(error)), 1) << error;
    EXPECT_EQ(lines.back(), "[INFO] FileSystemStorage::getNextRaw: end of storage was reached");
  }
}

TEST_F(ListingFaultTest, DelAllRemovesWhatWasListedAndFails) {
  VelLogin::filesystem_testing::failListingsAfter(4, EIO);
  TraceCapture trace(4);
  EXPECT_FALSE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()).size(), 1u);
  const Lines lines = trace.messages();
  ASSERT_EQ(lines.size(), 4u);
  method = "delAll";
  EXPECT_EQ(lines.front(), failure());
  EXPECT_EQ(lines.back(), "[ERROR] FileSystemStorage::delAll: folder <" + tmp.path() +
                              "/>: FAILURE in deleting all content");
}

}  // namespace
