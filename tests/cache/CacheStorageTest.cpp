#include "LoginStorage/cache/CacheStorage.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "LoginStorage/mem/MemStorage.h"
#include "support/TestItem.h"
#include "support/FakeClock.h"
#include "support/TraceCapture.h"

using testsupport::Events;
using testsupport::FakeClock;
using testsupport::makeItem;
using testsupport::TraceCapture;
using VelLogin::CacheStorage;
using VelLogin::FactoryFunc;
using VelLogin::IStorable;
using VelLogin::RefCountPtr;
using Strings = std::vector<std::string>;
using Ptr = RefCountPtr<IStorable>;

// A backing store that keeps objects in a map, can refuse writes, and logs
// into a shared event log the calls that a test checks and its destruction.
class RecordingStore : public VelLogin::AbstractObjectStorage {
 public:
  explicit RecordingStore(Events* events) : m_events(events) {}
  ~RecordingStore() override { log("~store"); }

  std::map<std::string, Ptr> objects;
  bool refuseSet = false;
  // Run once by the next get() or set(), as a factory or a store that calls
  // back into the cache would.
  std::function<void()> callBack;

  bool getRaw(const std::string& k, char*&, unsigned& len) const override {
    len = 7;
    return log("getRaw " + k);
  }
  bool setRaw(const std::string& k, const char*, unsigned, unsigned e) override {
    return log("setRaw " + k + " " + std::to_string(e));
  }
  bool setExpiration(const std::string& k, unsigned) override { return log("setExpiration " + k); }
  bool del(const std::string& k) override { return objects.erase(k) == 1; }
  bool delAll() override { return log("delAll"); }
  bool startGetAll() override { return log("startGetAll"); }
  bool getNextRaw(std::string&, char*&, unsigned&) override { return log("getNextRaw"); }
  void endGetAll() override { log("endGetAll"); }
  unsigned getMaxRecordLen() const override { return 777; }
  unsigned getNumElements() const override { return static_cast<unsigned>(objects.size()); }
  bool isInStorage(const std::string& k) const override {
    log("isInStorage " + k);
    return objects.count(k) == 1;
  }
  bool getNextInternal(std::string&, char*&, unsigned&, bool&) override {
    return log("getNextInternal");
  }
  Ptr get(const std::string& k, FactoryFunc f) override {
    log(std::string("get ") + k + (f != nullptr ? " with factory" : ""));
    runCallBack();
    auto found = objects.find(k);
    return found != objects.end() ? found->second : Ptr();
  }
  bool set(Ptr obj, unsigned e) override {
    log("set " + obj->getKey() + " " + std::to_string(e));
    if (!refuseSet) objects[obj->getKey()] = obj;
    runCallBack();
    return !refuseSet;
  }
  Ptr getNext() override {
    log("getNext");
    return objects.empty() ? Ptr() : objects.begin()->second;
  }
  void setFactoryFunc(FactoryFunc) override { log("setFactoryFunc"); }

 private:
  void runCallBack() {
    std::function<void()> once;
    once.swap(callBack);
    if (once) once();
  }
  bool log(const std::string& call) const {
    m_events->push_back(call);
    return true;
  }
  Events* m_events;
};

namespace {

constexpr long kT0 = 1700000000;

Ptr neverCalledFactory(const char*, unsigned) {
  ADD_FAILURE() << "the cache called the factory";
  return Ptr();
}

class CacheStorageTest : public ::testing::Test {
 protected:
  void SetUp() override { FakeClock::set(kT0); }
  // Everything the backing store was asked since the last call.
  Strings backingCalls() {
    Strings calls;
    calls.swap(events);
    return calls;
  }
  Events events;
  RecordingStore* backing = new RecordingStore(&events);
  CacheStorage cache{backing, 10, 100};
};

TEST_F(CacheStorageTest, RepeatedGetWithinTheLifetimeReturnsTheSameObjectFromMemory) {
  EXPECT_TRUE(cache.get("k", nullptr).isNull());  // a miss is not cached
  backing->objects["k"] = makeItem("other-key");
  TraceCapture trace(4);
  Ptr first = cache.get("k", neverCalledFactory);
  EXPECT_EQ(trace.messages(), Strings{"[INFO] CacheStorage::get: adding new cache record key=k"});
  FakeClock::set(kT0 + 10);  // the expiry second itself is still fresh
  backing->objects.clear();
  EXPECT_EQ(cache.get("k", nullptr).get(), first.get());
  EXPECT_TRUE(cache.isInStorage("k"));  // cached under the key asked for
  EXPECT_FALSE(cache.isInStorage("other-key"));
  EXPECT_EQ(backingCalls(),
            (Strings{"get k", "get k with factory", "isInStorage other-key"}));
}

TEST_F(CacheStorageTest, StaleRecordIsReadAgainAndRenewedFromTheCurrentTime) {
  backing->objects["k"] = makeItem("k");
  cache.get("k", nullptr);
  FakeClock::set(kT0 + 11);
  Ptr newer = makeItem("k");
  backing->objects["k"] = newer;
  TraceCapture trace(4);
  EXPECT_EQ(cache.get("k", nullptr).get(), newer.get());
  EXPECT_EQ(trace.texts(), (Strings{"[INFO] CacheStorage::get: getting from cache key=k",
                                    "[WARNING] CacheStorage::get: cache expired!!!",
                                    "[INFO] CacheStorage::get: update cache record key=k"}));
  EXPECT_EQ(trace.lines()[1].severity, 2);
  backing->objects.clear();
  FakeClock::set(kT0 + 21);
  EXPECT_EQ(cache.get("k", nullptr).get(), newer.get());
  FakeClock::set(kT0 + 22);
  backingCalls();
  EXPECT_TRUE(cache.get("k", nullptr).isNull());  // gone from the backing store
  EXPECT_TRUE(cache.isInStorage("k"));            // but the stale record stays
  EXPECT_EQ(backingCalls(), Strings{"get k"});
  const CacheStorage::Counters& c = cache.counters();
  EXPECT_EQ(c.hits, 1u);
  EXPECT_EQ(c.misses, 1u);
  EXPECT_EQ(c.staleHits, 2u);
  EXPECT_EQ(c.backingReads, 3u);
  EXPECT_EQ(c.backingReadFailures, 1u);
}

TEST_F(CacheStorageTest, SetWritesThroughFirstAndCachesOnlyWhatTheBackingStoreTook) {
  Ptr older = makeItem("k");
  EXPECT_FALSE(cache.set(Ptr(), 5));
  TraceCapture trace(4);
  EXPECT_TRUE(cache.set(older, 5));
  EXPECT_EQ(trace.messages(), Strings{"[INFO] CacheStorage::set: adding to cache storable key=k"});
  backing->refuseSet = true;
  EXPECT_FALSE(cache.set(makeItem("k", &events), 5));
  backing->objects.clear();
  EXPECT_EQ(cache.get("k", nullptr).get(), older.get());
  EXPECT_EQ(backingCalls(), (Strings{"set k 5", "set k 5", "~k"}));
  EXPECT_EQ(cache.counters().writeThroughsRefused, 1u);
}

TEST_F(CacheStorageTest, OtherOperationsPassThroughAndOnlyDelTrimsTheCache) {
  Ptr item = makeItem("k");
  cache.set(item, 0);
  cache.set(makeItem("gone"), 0);
  backing->objects.clear();
  backingCalls();
  std::string key;
  char* data = nullptr;
  unsigned len = 3;
  bool end = false;
  EXPECT_TRUE(cache.setRaw("k", "ab", 2, 9) && cache.setExpiration("k", 4));
  EXPECT_TRUE(cache.getRaw("k", data, len) && len == 7);
  EXPECT_TRUE(cache.startGetAll() && cache.getNextRaw(key, data, len) &&
              cache.getNextInternal(key, data, len, end));
  EXPECT_TRUE(cache.getNext().isNull());
  cache.endGetAll();
  cache.setFactoryFunc(nullptr);
  EXPECT_EQ(cache.getMaxRecordLen(), 777u);
  EXPECT_EQ(cache.getNumElements(), 0u);  // the backing store's count
  EXPECT_EQ(cache.get("k", nullptr).get(), item.get());
  EXPECT_FALSE(cache.del("gone"));  // erased here, the backing store's answer
  EXPECT_FALSE(cache.isInStorage("gone"));
  EXPECT_TRUE(cache.delAll());
  EXPECT_FALSE(cache.isInStorage("k"));
  EXPECT_EQ(backingCalls(), (Strings{"setRaw k 9", "setExpiration k", "getRaw k", "startGetAll",
                                     "getNextRaw", "getNextInternal", "getNext", "endGetAll",
                                     "setFactoryFunc", "isInStorage gone", "delAll",
                                     "isInStorage k"}));
}

TEST_F(CacheStorageTest, CleanupSweepsOnlyStaleRecordsPastBothGates) {
  CacheStorage small(new RecordingStore(&events), 10, 1);
  small.set(makeItem("old"), 0);
  FakeClock::set(kT0 + 11);
  small.set(makeItem("new"), 0);  // time gate passed, count gate (1 <= 1) not
  EXPECT_EQ(small.counters().sweeps, 0u);
  TraceCapture trace(4);
  small.get("new", nullptr);  // 2 records: runs now, the count gate kept the old time
  EXPECT_EQ(trace.messages(),
            (Strings{"[INFO] CacheStorage::cleanup: Running cleanup...",
                     "[INFO] CacheStorage::get: getting from cache key=new"}));
  EXPECT_EQ(small.counters().recordsSwept, 1u);
  small.set(makeItem("x"), 0);
  FakeClock::set(kT0 + 21);  // "new" is still fresh, "x" too
  small.get("new", nullptr);
  FakeClock::set(kT0 + 22);
  small.get("new", nullptr);  // runs: more than 10 s since kT0 + 11
  EXPECT_EQ(small.counters().sweeps, 2u);
  EXPECT_EQ(small.counters().recordsSwept, 3u);
  // Near the largest long a record never goes stale and a pass never falls due.
  CacheStorage forever(new RecordingStore(&events), LONG_MAX, 0);
  forever.set(makeItem("k"), 0);
  FakeClock::set(LONG_MAX);
  EXPECT_FALSE(forever.get("k", nullptr).isNull());
  EXPECT_EQ(forever.counters().hits + forever.counters().sweeps, 1u);
}

// The backing store calls back into the cache in the middle of get() and of
// set(); the nested calls run a sweep that drops the stale record of "k".
TEST_F(CacheStorageTest, CallsBackIntoTheCacheThatSweepLeaveTheOuterCallWhole) {
  for (bool throughGet : {true, false}) {
    SCOPED_TRACE(throughGet ? "get" : "set");
    FakeClock::set(kT0);
    auto* store = new RecordingStore(&events);
    CacheStorage reentered(store, 10, 1);
    ASSERT_TRUE(reentered.set(makeItem("k"), 0));
    FakeClock::set(kT0 + 11);
    store->callBack = [&reentered] {
      reentered.set(makeItem("other"), 0);  // 2 records now: the next call sweeps
      reentered.get("other", nullptr);
    };
    TraceCapture trace(4);
    Ptr newer = makeItem("k");
    if (throughGet) {
      store->objects["k"] = newer;
      EXPECT_EQ(reentered.get("k", nullptr).get(), newer.get());
    } else {
      EXPECT_TRUE(reentered.set(newer, 0));
    }
    EXPECT_EQ(reentered.counters().recordsSwept, 1u);
    EXPECT_EQ(trace.messages().back(),
              throughGet ? "[INFO] CacheStorage::get: update cache record key=k"
                         : "[INFO] CacheStorage::set: adding to cache storable key=k");
    store->objects.clear();
    EXPECT_EQ(reentered.get("k", nullptr).get(), newer.get());  // fresh from the outer call
    EXPECT_EQ(newer.getCount(), 2u);
  }
}

TEST_F(CacheStorageTest, FreshHitTraceLines) {
  cache.set(makeItem("k"), 0);
  TraceCapture trace(7, true);
  cache.get("k", nullptr);
  EXPECT_EQ(trace.texts(), (Strings{"[TRACE] CacheStorage::get: begin",
                                    "[TRACE] CacheStorage::cleanup: begin",
                                    "[INFO] CacheStorage::get: getting from cache key=k",
                                    "[TRACE] CacheStorage::CacheRecord::expired: begin",
                                    "[TRACE] CacheStorage::CacheRecord::getStorable: begin"}));
}

TEST(CacheStorageChainTest, BackingStoreIsDeletedBeforeTheCachedObjects) {
  FakeClock::set(kT0);
  Events events;
  auto* backing = new RecordingStore(&events);
  auto* cache = new CacheStorage(backing, 10, 0);
  cache->set(makeItem("k", &events), 0);
  backing->objects.clear();  // only the cache holds the object now
  events.clear();
  delete cache;
  EXPECT_EQ(events, (Strings{"~store", "~k"}));
  delete new CacheStorage(nullptr, 10, 0);
}

TEST(CacheStorageChainTest, CacheInFrontOfMemStorageOutlivesTheShorterBackingLifetime) {
  FakeClock::set(kT0);
  Events events;
  {
    CacheStorage cache(new VelLogin::MemStorage(5, 0), 100, 1);
    Ptr item = makeItem("k", &events);
    ASSERT_TRUE(cache.set(item, 1));
    FakeClock::set(kT0 + 100);
    EXPECT_EQ(cache.get("k", nullptr).get(), item.get());  // memory store let it expire
    EXPECT_EQ(cache.getNumElements(), 1u);
    FakeClock::set(kT0 + 101);
    EXPECT_TRUE(cache.get("k", nullptr).isNull());  // stale here, expired there
    EXPECT_EQ(cache.getNumElements(), 0u);
    EXPECT_TRUE(cache.isInStorage("k"));  // the stale record answers
  }
  EXPECT_EQ(events, Strings{"~k"});
}

}  // namespace
