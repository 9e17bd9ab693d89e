// Objects kept on disk: the adapter over a real folder store, with a storable
// class of the tests' own.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "LoginStorage/fs/FileSystemStorage.h"
#include "LoginStorage/object/ObjectStorage.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using testsupport::listFolder;
using testsupport::TraceCapture;
using VelLogin::FileSystemStorage;
using VelLogin::IStorable;
using VelLogin::ObjectStorage;
using VelLogin::RefCountPtr;
using Lines = std::vector<std::string>;

// A badge: a user name and a token, stored as "user\ntoken".
class Badge : public IStorable {
 public:
  Badge(std::string user, std::string token) : m_user(std::move(user)), m_token(std::move(token)) {}
  std::string getKey() const override { return m_user; }
  bool serialize(char*& data, unsigned& len) override {
    m_image = m_user + '\n' + m_token;
    if (m_token == "secret" || m_image.size() > len) return false;
    data = &m_image[0];
    len = static_cast<unsigned>(m_image.size());
    return true;
  }
  std::string toString() const override { return m_user + ":" + m_token; }

  // Rejects images without a separator and those of user "bad".
  static RefCountPtr<IStorable> fromBytes(const char* data, unsigned len) {
    const std::string image(data, len);
    const size_t cut = image.find('\n');
    if (cut == std::string::npos || image.compare(0, cut, "bad") == 0) {
      return RefCountPtr<IStorable>();
    }
    return RefCountPtr<IStorable>(new Badge(image.substr(0, cut), image.substr(cut + 1)));
  }
  static RefCountPtr<IStorable> revoked(const char* data, unsigned len) {
    const std::string image(data, len);
    return RefCountPtr<IStorable>(new Badge(image.substr(0, image.find('\n')), "revoked"));
  }

 private:
  std::string m_user, m_token, m_image;
};

// A folder store that keeps records of at most 8 bytes.
class SmallRecordFolder : public FileSystemStorage {
 public:
  explicit SmallRecordFolder(const std::string& folder)
      : FileSystemStorage(folder, 0, false, false, 0) {}
  unsigned getMaxRecordLen() const override { return 8; }
};

namespace {

RefCountPtr<IStorable> badge(const std::string& user, const std::string& token) {
  return RefCountPtr<IStorable>(new Badge(user, token));
}

std::string describe(const RefCountPtr<IStorable>& object) {
  return object.isNull() ? "null" : object->toString();
}

std::multiset<std::string> drain(ObjectStorage& store) {
  std::multiset<std::string> seen;
  for (RefCountPtr<IStorable> next = store.getNext(); next; next = store.getNext()) {
    seen.insert(next->toString());
  }
  return seen;
}

class ObjectStorageTest : public ::testing::Test {
 protected:
  testsupport::TempFolder tmp;
  ObjectStorage store{new FileSystemStorage(tmp.path(), 0, false, false, 0), Badge::fromBytes};
};

TEST_F(ObjectStorageTest, ObjectIsKeptAsItsImageAndRebuiltByTheChosenFactory) {
  const std::string token("t\0k\xff", 4);
  ASSERT_TRUE(store.set(badge("alice", token), 3600));
  EXPECT_EQ(testsupport::readFileBytes(tmp / "alice"), "alice\n" + token);
  TraceCapture trace(4);
  EXPECT_EQ(describe(store.get("alice", nullptr)), "alice:" + token);
  EXPECT_EQ(describe(store.get("alice", Badge::revoked)), "alice:revoked");
  store.setFactoryFunc(Badge::revoked);
  EXPECT_EQ(describe(store.get("alice", nullptr)), "alice:revoked");
  EXPECT_EQ(trace.messages(),
            Lines(3,
                  "[INFO] ObjectStorage::get: 'getRaw' completed (success=1): key 'alice' "
                  "len=10"));
}

TEST_F(ObjectStorageTest, RefusalsAndMissesAreNullOrFalseWithTheirLines) {
  TraceCapture trace(4);
  EXPECT_FALSE(store.set(RefCountPtr<IStorable>(), 0));
  EXPECT_FALSE(store.set(badge("bob", "secret"), 0));  // serialize() refuses, silently
  EXPECT_EQ(listFolder(tmp.path()), Lines{});
  EXPECT_EQ(describe(store.get("nobody", nullptr)), "null");
  EXPECT_EQ(trace.messages(),
            (Lines{"[ERROR] ObjectStorage::set: set to a null storable",
                   "[ERROR] FileSystemStorage::getRaw: Folder <" + tmp.path() +
                       "/> VelLogin::readFile failed to read file: nobody",
                   "[INFO] ObjectStorage::get: 'getRaw' completed (success=0): key 'nobody' len=0",
                   "[WARNING] ObjectStorage::get: failed to get entity by key 'nobody'"}));
}

TEST_F(ObjectStorageTest, WithoutAnyFactoryNothingIsAskedOfTheWrappedStore) {
  ASSERT_TRUE(store.set(badge("alice", "t"), 0));
  ObjectStorage bare(new FileSystemStorage(tmp.path(), 0, false, false, 0), nullptr);
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
  bare.setFactoryFunc(Badge::fromBytes);
  EXPECT_EQ(describe(bare.getNext()), "alice:t") << "no record was consumed";
}

// Over a folder store that keeps records of at most 8 bytes: a record of
// exactly 8 is delivered, longer ones and those the factory rejects are
// skipped. The raw answers pass through unchanged.
TEST(ObjectStorageSkipTest, IterationSkipsRecordsTooLongOrRejectedByTheFactory) {
  testsupport::TempFolder tmp;
  ObjectStorage store(new SmallRecordFolder(tmp.path()), Badge::fromBytes);
  for (const char* user : {"ann", "bad", "dan"}) ASSERT_TRUE(store.set(badge(user, "t"), 0));
  ASSERT_TRUE(store.set(badge("cid", "toke"), 0));  // 8 bytes
  EXPECT_FALSE(store.set(badge("b", "too long"), 0));
  testsupport::writeFileBytes(tmp / "b", "b\ntoo long");  // 10 bytes, from elsewhere
  ASSERT_TRUE(store.startGetAll());
  TraceCapture trace(2);
  EXPECT_EQ(drain(store), (std::multiset<std::string>{"ann:t", "cid:toke", "dan:t"}));
  const Lines messages = trace.messages();
  for (const char* skip : {"needed len=10 > maxLen=8", "factory function failed"}) {
    EXPECT_EQ(
        std::count(messages.begin(), messages.end(),
                   std::string("[ERROR] ObjectStorage::getNext: SKIPPING RECORD because ") + skip),
        1);
  }
  std::string key;
  char* data = nullptr;
  unsigned len = 8;
  bool end = false;
  EXPECT_TRUE(store.getNextInternal(key, data, len, end) && end && len == 0);
  EXPECT_FALSE(store.setExpiration("ann", 5));  // the folder store keeps no expiry
}

TEST(ObjectStorageStackTest, DeletingTheStoreDeletesTheFolderStoreWhichEndsItsIteration) {
  testsupport::TempFolder tmp;
  auto store = std::make_unique<ObjectStorage>(
      new FileSystemStorage(tmp / "badges", 0, false, false, 0), Badge::fromBytes);
  ASSERT_TRUE(store->set(badge("ann", "t"), 0));
  ASSERT_TRUE(store->startGetAll());
  TraceCapture trace(7, true);
  store.reset();
  EXPECT_EQ(trace.texts(), (Lines{"[TRACE] FileSystemStorage::FileSystemStorage: begin",
                                  "[TRACE] FileSystemStorage::endGetAll: begin",
                                  "[INFO] FileSystemStorage::endGetAll: <" + (tmp / "badges/") +
                                      ">: ending GetAll session"}));
  EXPECT_EQ(listFolder(tmp / "badges"), Lines{"ann"});
  { ObjectStorage empty(nullptr, nullptr); }
}

}  // namespace
