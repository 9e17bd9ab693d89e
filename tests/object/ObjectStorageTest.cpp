// Objects kept on disk: the adapter over a real folder store.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "LoginStorage/fs/FileSystemStorage.h"
#include "LoginStorage/object/ObjectStorage.h"
#include "support/TempFolder.h"
#include "support/TestItem.h"
#include "support/TraceCapture.h"

using testsupport::listFolder;
using testsupport::makeItem;
using testsupport::TestItem;
using testsupport::TraceCapture;
using VelLogin::FileSystemStorage;
using VelLogin::ObjectStorage;
using Lines = std::vector<std::string>;
using Ptr = VelLogin::RefCountPtr<VelLogin::IStorable>;

// A folder store that keeps records of at most 8 bytes. In the global
// namespace so that trace labels read "SmallRecordFolder::...".
class SmallRecordFolder : public FileSystemStorage {
 public:
  explicit SmallRecordFolder(const std::string& folder)
      : FileSystemStorage(folder, 0, false, false, 0) {}
  unsigned getMaxRecordLen() const override { return 8; }
};

namespace {

// A test item whose image (its key) must fit the capacity it is offered; the
// item "secret" refuses to give one.
class FittedItem : public TestItem {
 public:
  using TestItem::TestItem;
  bool serialize(char*& data, unsigned& len) override {
    const unsigned capacity = len;
    return getKey() != "secret" && TestItem::serialize(data, len) && len <= capacity;
  }
};

Ptr item(const std::string& key) { return Ptr(new FittedItem(key)); }

// Rebuilds an item from its image, except the image "bad".
Ptr fromBytes(const char* data, unsigned len) {
  const std::string image(data, len);
  return image == "bad" ? Ptr() : makeItem(image);
}
Ptr revoked(const char* data, unsigned len) {
  return makeItem("revoked " + std::string(data, len));
}

std::string describe(const Ptr& object) { return object ? object->toString() : "null"; }

class ObjectStorageTest : public ::testing::Test {
 protected:
  testsupport::TempFolder tmp;
  ObjectStorage store{new SmallRecordFolder(tmp.path()), fromBytes};
};

TEST_F(ObjectStorageTest, ObjectIsKeptAsItsImageAndRebuiltByTheChosenFactory) {
  TraceCapture trace(4);
  EXPECT_FALSE(store.set(Ptr(), 0));
  EXPECT_FALSE(store.set(item("secret"), 0));  // serialize() refuses, silently
  ASSERT_TRUE(store.set(item("alice"), 3600));
  EXPECT_EQ(listFolder(tmp.path()), Lines{"alice"});
  EXPECT_EQ(testsupport::readFileBytes(tmp / "alice"), "alice");
  EXPECT_EQ(describe(store.get("nobody", nullptr)), "null");
  EXPECT_EQ(describe(store.get("alice", nullptr)), "item alice");
  EXPECT_EQ(describe(store.get("alice", revoked)), "item revoked alice");
  store.setFactoryFunc(revoked);
  EXPECT_EQ(describe(store.get("alice", nullptr)), "item revoked alice");
  const std::string got =
      "[INFO] ObjectStorage::get: 'getRaw' completed (success=1): key 'alice' len=5";
  EXPECT_EQ(
      trace.messages(),
      (Lines{"[ERROR] ObjectStorage::set: set to a null storable",
             "[ERROR] SmallRecordFolder::getRaw: Folder <" + tmp.path() +
                 "/> VelLogin::readFile failed to read file: nobody",
             "[INFO] ObjectStorage::get: 'getRaw' completed (success=0): key 'nobody' len=0",
             "[WARNING] ObjectStorage::get: failed to get entity by key 'nobody'", got, got, got}));
}

TEST_F(ObjectStorageTest, WithoutAnyFactoryNothingIsAskedOfTheWrappedStore) {
  ASSERT_TRUE(store.set(item("alice"), 0));
  ObjectStorage bare(new SmallRecordFolder(tmp.path()), nullptr);
  ASSERT_TRUE(bare.startGetAll());
  TraceCapture trace(7, true);
  EXPECT_EQ(describe(bare.get("alice", nullptr)), "null");
  EXPECT_EQ(describe(bare.getNext()), "null");
  EXPECT_EQ(trace.texts(),
            (Lines{"[TRACE] ObjectStorage::get: begin",
                   "[ERROR] ObjectStorage::get: method was called when no factoty set",
                   "[TRACE] ObjectStorage::getNext: begin",
                   "[ERROR] ObjectStorage::getNext: method was called while m_factoryFunc is "
                   "null"}));
  bare.setFactoryFunc(fromBytes);
  EXPECT_EQ(describe(bare.getNext()), "item alice") << "no record was consumed";
}

// A record of exactly the capacity is delivered; longer ones and those the
// factory rejects are skipped. The raw answers pass through unchanged.
TEST_F(ObjectStorageTest, IterationSkipsRecordsTooLongOrRejectedByTheFactory) {
  for (const char* key : {"ann", "bad", "exactly8"}) ASSERT_TRUE(store.set(item(key), 0));
  EXPECT_FALSE(store.set(item("too-long!"), 0));
  testsupport::writeFileBytes(tmp / "too-long!", "too-long!");  // from elsewhere
  ASSERT_TRUE(store.startGetAll());
  TraceCapture trace(2);
  Lines delivered;
  while (Ptr next = store.getNext()) delivered.push_back(next->toString());
  Lines messages = trace.messages();
  std::sort(delivered.begin(), delivered.end());
  std::sort(messages.begin(), messages.end());
  EXPECT_EQ(delivered, (Lines{"item ann", "item exactly8"}));
  const std::string skip = "[ERROR] ObjectStorage::getNext: SKIPPING RECORD because ";
  EXPECT_EQ(messages, (Lines{skip + "factory function failed", skip + "needed len=9 > maxLen=8"}));
  std::string key;
  char* data = nullptr;
  unsigned len = 8;
  bool end = false;
  EXPECT_TRUE(store.getNextInternal(key, data, len, end) && end && len == 0);
  store.endGetAll();
  EXPECT_TRUE(store.startGetAll());  // the folder store's iteration was ended
  store.endGetAll();
  EXPECT_FALSE(store.setExpiration("ann", 5));  // the folder store keeps no expiry
}

TEST_F(ObjectStorageTest, DeletingTheStoreDeletesTheFolderStoreWhichEndsItsIteration) {
  auto owner = std::make_unique<ObjectStorage>(
      new FileSystemStorage(tmp / "items", 0, false, false, 0), fromBytes);
  ASSERT_TRUE(owner->set(item("ann"), 0));
  ASSERT_TRUE(owner->startGetAll());
  TraceCapture trace(7, true);
  owner.reset();
  EXPECT_EQ(trace.texts(), (Lines{"[TRACE] FileSystemStorage::FileSystemStorage: begin",
                                  "[TRACE] FileSystemStorage::endGetAll: begin",
                                  "[INFO] FileSystemStorage::endGetAll: <" + (tmp / "items/") +
                                      ">: ending GetAll session"}));
  EXPECT_EQ(listFolder(tmp / "items"), Lines{"ann"});
  { ObjectStorage empty(nullptr, nullptr); }
}

}  // namespace
