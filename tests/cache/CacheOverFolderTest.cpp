// The whole persistent stack: CacheStorage -> ObjectStorage -> FileSystemStorage
// on a real folder, with the clock under the test's control.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "support/TestItem.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using testsupport::FakeClock;
using testsupport::makeItem;
using testsupport::TempFolder;
using testsupport::TraceCapture;
using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::IStorable;
using VelLogin::ObjectStorage;
using VelLogin::RefCountPtr;
using Strings = std::vector<std::string>;

namespace {

// A test item's image is its key; "corrupt" images are refused.
RefCountPtr<IStorable> itemFromBytes(const char* data, unsigned len) {
  std::string key(data, len);
  if (key == "corrupt") return RefCountPtr<IStorable>();
  return makeItem(key);
}

constexpr long kLifetime = 60;

class CacheOverFolderTest : public ::testing::Test {
 protected:
  CacheOverFolderTest() {
    FakeClock::set(1000000);
    m_cache = new CacheStorage(
        new ObjectStorage(new FileSystemStorage(m_folder.path(), 0, false, false, 0),
                          &itemFromBytes),
        kLifetime, 1000);
  }
  ~CacheOverFolderTest() override { delete m_cache; }

  std::string file(const std::string& key) const { return m_folder / key; }

  TempFolder m_folder;
  CacheStorage* m_cache;
};

TEST_F(CacheOverFolderTest, WriteGoesToDiskAndHotReadsNeverTouchIt) {
  RefCountPtr<IStorable> alice = makeItem("alice");
  ASSERT_TRUE(m_cache->set(alice, 5));
  EXPECT_EQ(testsupport::readFileBytes(file("alice")), "alice");

  // The file goes behind the cache's back: a fresh hit does not notice.
  ASSERT_EQ(::unlink(file("alice").c_str()), 0);
  FakeClock::advance(kLifetime);  // the last fresh second
  TraceCapture trace(4);
  EXPECT_EQ(m_cache->get("alice", nullptr).get(), alice.get());
  EXPECT_EQ(trace.messages(), (Strings{"[INFO] CacheStorage::get: getting from cache key=alice"}));
  EXPECT_EQ(m_cache->counters().hits, 1u);
}

TEST_F(CacheOverFolderTest, MissReadsTheFileOnceAndCachesUnderTheCallersKey) {
  testsupport::writeFileBytes(file("bob"), "bob");
  TraceCapture trace(4);
  RefCountPtr<IStorable> first = m_cache->get("bob", nullptr);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->getKey(), "bob");
  EXPECT_EQ(trace.messages(),
            (Strings{"[INFO] ObjectStorage::get: 'getRaw' completed (success=1): key 'bob' len=3",
                     "[INFO] CacheStorage::get: adding new cache record key=bob"}));

  testsupport::writeFileBytes(file("bob"), "changed on disk");
  EXPECT_EQ(m_cache->get("bob", nullptr).get(), first.get());
  EXPECT_EQ(m_cache->counters().backingReads, 1u);
}

TEST_F(CacheOverFolderTest, StaleRecordIsReReadOrKeptWhenTheFileIsGone) {
  ASSERT_TRUE(m_cache->set(makeItem("carol"), 0));
  ASSERT_TRUE(m_cache->set(makeItem("dave"), 0));
  ASSERT_EQ(::unlink(file("dave").c_str()), 0);
  FakeClock::advance(kLifetime + 1);

  TraceCapture trace(4);
  RefCountPtr<IStorable> carol = m_cache->get("carol", nullptr);
  ASSERT_TRUE(carol);
  EXPECT_EQ(trace.messages(),
            (Strings{"[INFO] CacheStorage::get: getting from cache key=carol",
                     "[WARNING] CacheStorage::get: cache expired!!!",
                     "[INFO] ObjectStorage::get: 'getRaw' completed (success=1): key 'carol' len=5",
                     "[INFO] CacheStorage::get: update cache record key=carol"}));

  // The renewed record is fresh again for a whole lifetime from now.
  FakeClock::advance(kLifetime);
  EXPECT_EQ(m_cache->get("carol", nullptr).get(), carol.get());

  // dave's file is gone: null, but the stale record stays and still answers
  // isInStorage.
  EXPECT_FALSE(m_cache->get("dave", nullptr));
  EXPECT_TRUE(m_cache->isInStorage("dave"));
  EXPECT_FALSE(m_cache->isInStorage("nobody"));
}

TEST_F(CacheOverFolderTest, DeletesTrimTheCacheAndTheFolder) {
  for (const char* key : {"a", "b", "c"}) ASSERT_TRUE(m_cache->set(makeItem(key), 0));
  EXPECT_EQ(m_cache->getNumElements(), 0u);  // the folder store does not count
  EXPECT_TRUE(m_cache->del("a"));
  EXPECT_FALSE(m_cache->get("a", nullptr));
  EXPECT_EQ(testsupport::listFolder(m_folder.path()), (Strings{"b", "c"}));

  EXPECT_TRUE(m_cache->delAll());
  EXPECT_TRUE(testsupport::listFolder(m_folder.path()).empty());
  EXPECT_FALSE(m_cache->isInStorage("b"));
}

TEST_F(CacheOverFolderTest, IterationRunsOnTheFolderAndSkipsWhatCannotBeRebuilt) {
  for (const char* key : {"k1", "k2"}) ASSERT_TRUE(m_cache->set(makeItem(key), 0));
  testsupport::writeFileBytes(file("corrupt"), "corrupt");
  ASSERT_TRUE(m_cache->startGetAll());
  Strings keys;
  while (RefCountPtr<IStorable> item = m_cache->getNext()) keys.push_back(item->getKey());
  m_cache->endGetAll();
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (Strings{"k1", "k2"}));
}

TEST(CacheOverFolderLifetimeTest, DeletingTheCacheKeepsTheRecordsOnDisk) {
  TempFolder folder;
  FakeClock::set(2000000);
  RefCountPtr<IStorable> kept = makeItem("kept");
  auto* cache = new CacheStorage(
      new ObjectStorage(new FileSystemStorage(folder.path(), 0, false, false, 0), &itemFromBytes),
      kLifetime, 0);
  ASSERT_TRUE(cache->set(kept, 0));
  EXPECT_EQ(kept.getCount(), 2u);  // the caller's and the cache's
  delete cache;
  EXPECT_EQ(kept.getCount(), 1u);
  EXPECT_EQ(testsupport::readFileBytes(folder / "kept"), "kept");

  auto* reopened = new CacheStorage(
      new ObjectStorage(new FileSystemStorage(folder.path(), 0, false, false, 0), &itemFromBytes),
      kLifetime, 0);
  RefCountPtr<IStorable> again = reopened->get("kept", nullptr);
  ASSERT_TRUE(again);
  EXPECT_NE(again.get(), kept.get());
  EXPECT_EQ(again->getKey(), "kept");
  delete reopened;
}

}  // namespace
