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

using VelLogin::FileSystemStorage;
using VelLogin::IStorable;
using VelLogin::ObjectStorage;
using VelLogin::RefCountPtr;
using testsupport::TempFolder;
using testsupport::TraceCapture;
using testsupport::listFolder;
using testsupport::readFileBytes;
using Lines = std::vector<std::string>;

// A badge: a user name and a token, stored as "user\ntoken".
class Badge : public IStorable {
 public:
  Badge(std::string user, std::string token, bool serializable = true)
      : m_user(std::move(user)), m_token(std::move(token)), m_serializable(serializable) {}

  std::string getKey() const override { return m_user; }
  bool serialize(char*& data, unsigned& len) override {
    m_image = m_user + '\n' + m_token;
    if (!m_serializable || m_image.size() > len) return false;
    data = &m_image[0];
    len = static_cast<unsigned>(m_image.size());
    return true;
  }
  std::string toString() const override { return m_user + ":" + m_token; }

  // Rejects images without a separator and those of user "bad".
  static RefCountPtr<IStorable> fromBytes(const char* data, unsigned len) {
    const std::string image(data, len);
    const size_t separator = image.find('\n');
    if (separator == std::string::npos || image.compare(0, separator, "bad") == 0) {
      return RefCountPtr<IStorable>();
    }
    return RefCountPtr<IStorable>(new Badge(image.substr(0, separator), image.substr(separator + 1)));
  }
  // A second factory, to tell which one was used.
  static RefCountPtr<IStorable> revokedFromBytes(const char* data, unsigned len) {
    const std::string image(data, len);
    return RefCountPtr<IStorable>(new Badge(image.substr(0, image.find('\n')), "revoked"));
  }

 private:
  std::string m_user;
  std::string m_token;
  bool m_serializable;
  std::string m_image;
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

// Every object getNext() delivers, described, until it returns null.
std::multiset<std::string> drain(ObjectStorage& store) {
  std::multiset<std::string> seen;
  for (RefCountPtr<IStorable> next = store.getNext(); !next.isNull(); next = store.getNext()) {
    seen.insert(next->toString());
  }
  return seen;
}

class ObjectStorageTest : public ::testing::Test {
 protected:
  TempFolder tmp;
  ObjectStorage store{new FileSystemStorage(tmp.path(), 0, false, false, 0), Badge::fromBytes};
};

TEST_F(ObjectStorageTest, ObjectIsKeptAsItsImageAndRebuiltByTheChosenFactory) {
  const std::string token("t\0k\xff", 4);
  ASSERT_TRUE(store.set(badge("alice", token), 3600));
  EXPECT_EQ(readFileBytes(tmp / "alice"), "alice\n" + token);
  EXPECT_EQ(listFolder(tmp.path()), Lines{"alice"});

  TraceCapture trace(4);
  EXPECT_EQ(describe(store.get("alice", nullptr)), "alice:" + token);
  EXPECT_EQ(describe(store.get("alice", Badge::revokedFromBytes)), "alice:revoked");
  store.setFactoryFunc(Badge::revokedFromBytes);
  EXPECT_EQ(describe(store.get("alice", nullptr)), "alice:revoked");
  EXPECT_EQ(trace.messages(),
            Lines(3, "[INFO] ObjectStorage::get: 'getRaw' completed (success=1): key 'alice' "
                     "len=10"));
}

TEST_F(ObjectStorageTest, SetRefusesNullAndUnserializableObjects) {
  TraceCapture trace(4);
  EXPECT_FALSE(store.set(RefCountPtr<IStorable>(), 0));
  EXPECT_FALSE(store.set(RefCountPtr<IStorable>(new Badge("bob", "t", false)), 0));
  EXPECT_EQ(listFolder(tmp.path()), Lines{});
  EXPECT_EQ(trace.messages(), Lines{"[ERROR] ObjectStorage::set: set to a null storable"});
}

TEST_F(ObjectStorageTest, GetOfAMissingOrUnreadableRecordIsNull) {
  testsupport::writeFileBytes(tmp / "junk", "no separator");
  TraceCapture trace(4);
  EXPECT_EQ(describe(store.get("nobody", nullptr)), "null");
  EXPECT_EQ(describe(store.get("junk", nullptr)), "null");
  EXPECT_EQ(trace.messages(),
            (Lines{"[ERROR] FileSystemStorage::getRaw: Folder <" + tmp.path() +
                       "/> VelLogin::readFile failed to read file: nobody",
                   "[INFO] ObjectStorage::get: 'getRaw' completed (success=0): key 'nobody' len=0",
                   "[WARNING] ObjectStorage::get: failed to get entity by key 'nobody'",
                   "[INFO] ObjectStorage::get: 'getRaw' completed (success=1): key 'junk' "
                   "len=12"}));
}

TEST_F(ObjectStorageTest, WithoutAnyFactoryNothingIsAskedOfTheWrappedStore) {
  ASSERT_TRUE(store.set(badge("alice", "t"), 0));
  ObjectStorage bare(new FileSystemStorage(tmp.path(), 0, false, false, 0), nullptr);
  TraceCapture trace(7, true);
  EXPECT_EQ(describe(bare.get("alice", nullptr)), "null");
  EXPECT_EQ(trace.texts(),
            (Lines{"[TRACE] ObjectStorage::get: begin",
                   "[ERROR] ObjectStorage::get: method was called when no factoty set"}));

  ASSERT_TRUE(bare.startGetAll());
  trace.clear();
  EXPECT_EQ(describe(bare.getNext()), "null");
  EXPECT_EQ(trace.texts(),
            (Lines{"[TRACE] ObjectStorage::getNext: begin",
                   "[ERROR] ObjectStorage::getNext: method was called while m_factoryFunc is "
                   "null"}));
  bare.setFactoryFunc(Badge::fromBytes);
  EXPECT_EQ(describe(bare.getNext()), "alice:t") << "no record was consumed";
  bare.endGetAll();
}

TEST_F(ObjectStorageTest, IterationSkipsRecordsTheFactoryRejects) {
  for (const char* user : {"ann", "bad", "cid"}) ASSERT_TRUE(store.set(badge(user, "t"), 0));
  ASSERT_TRUE(store.startGetAll());
  TraceCapture trace(2);
  EXPECT_EQ(drain(store), (std::multiset<std::string>{"ann:t", "cid:t"}));
  EXPECT_EQ(describe(store.getNext()), "null");
  store.endGetAll();
  const Lines messages = trace.messages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(),
                       "[ERROR] ObjectStorage::getNext: SKIPPING RECORD because factory function "
                       "failed"),
            1);
}

TEST(ObjectStorageLimitTest, IterationSkipsRecordsLongerThanTheWrappedStoreKeeps) {
  TempFolder tmp;
  ObjectStorage store(new SmallRecordFolder(tmp.path()), Badge::fromBytes);
  ASSERT_TRUE(store.set(badge("a", "short"), 0));                 // 7 bytes
  EXPECT_FALSE(store.set(badge("b", "much longer"), 0)) << "serialize refuses beyond 8";
  testsupport::writeFileBytes(tmp / "b", "b\nmuch longer");       // 13 bytes, from elsewhere
  EXPECT_EQ(store.getMaxRecordLen(), 8u);

  ASSERT_TRUE(store.startGetAll());
  TraceCapture trace(2);
  EXPECT_EQ(drain(store), std::multiset<std::string>{"a:short"});
  store.endGetAll();
  const Lines messages = trace.messages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(),
                       "[ERROR] ObjectStorage::getNext: SKIPPING RECORD because needed len=13 > "
                       "maxLen=8"),
            1);
}

TEST_F(ObjectStorageTest, RawOperationsAreTheWrappedStoresOwn) {
  const char bytes[] = "x\ny";
  ASSERT_TRUE(store.setRaw("x", bytes, 3, 0));
  ASSERT_TRUE(store.set(badge("z", "1"), 0));
  EXPECT_TRUE(store.isInStorage("x"));
  EXPECT_EQ(store.getNumElements(), 0u);
  EXPECT_FALSE(store.setExpiration("x", 5));
  EXPECT_EQ(store.getMaxRecordLen(), VelLogin::AbstractStorage::kNoRecordLimit);
  char* data = nullptr;
  unsigned len = store.getMaxRecordLen();
  ASSERT_TRUE(store.getRaw("z", data, len));
  EXPECT_EQ(std::string(data, len), "z\n1");
  delete[] data;

  EXPECT_TRUE(store.del("x"));
  EXPECT_EQ(listFolder(tmp.path()), Lines{"z"});
  EXPECT_TRUE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()), Lines{});
}

TEST(ObjectStorageOwnershipTest, DestroyingTheAdapterDestroysTheWrappedStore) {
  TempFolder tmp;
  auto store = std::make_unique<ObjectStorage>(
      new FileSystemStorage(tmp.path(), 0, false, false, 0), Badge::fromBytes);
  ASSERT_TRUE(store->startGetAll());
  TraceCapture trace(4);
  store.reset();
  EXPECT_EQ(trace.messages(), Lines{"[INFO] FileSystemStorage::endGetAll: <" + tmp.path() +
                                    "/>: ending GetAll session"});
  { ObjectStorage empty(nullptr, nullptr); }
}

TEST(ObjectStorageEndToEndTest, ManyObjectsSurviveTheStackAndAreIteratedOnce) {
  TempFolder tmp;
  std::multiset<std::string> written;
  {
    ObjectStorage writer(new FileSystemStorage(tmp / "badges", 0, false, false, 0),
                         Badge::fromBytes);
    for (int i = 0; i < 2000; ++i) {
      RefCountPtr<IStorable> object = badge("user" + std::to_string(i), std::to_string(i * 7));
      ASSERT_TRUE(writer.set(object, 0));
      written.insert(object->toString());
    }
  }
  ObjectStorage reader(new FileSystemStorage(tmp / "badges", 0, false, false, 0), nullptr);
  EXPECT_EQ(describe(reader.get("user1999", Badge::fromBytes)), "user1999:13993");
  reader.setFactoryFunc(Badge::fromBytes);
  ASSERT_TRUE(reader.startGetAll());
  EXPECT_EQ(drain(reader), written);
  reader.endGetAll();
}

}  // namespace
