// What the model-based test cannot say about the cache: what it asks of the
// backing store, its exact trace lines, calls back into it, and the order in
// which it destroys what it owns. Lifetimes, sweeps and counters are checked
// there.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "LoginStorage/cache/CacheStorage.h"
#include "support/FakeClock.h"
#include "support/TestItem.h"
#include "support/TraceCapture.h"

using testsupport::Events;
using testsupport::FakeClock;
using testsupport::makeItem;
using testsupport::TraceCapture;
using testsupport::withEntries;
using VelLogin::CacheStorage;
using VelLogin::FactoryFunc;
using Strings = std::vector<std::string>;
using Ptr = VelLogin::RefCountPtr<VelLogin::IStorable>;

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
  unsigned getNumElements() const override { return 42; }
  bool isInStorage(const std::string& k) const override {
    return log("isInStorage " + k) && objects.count(k) == 1;
  }
  bool getNextInternal(std::string&, char*&, unsigned&, bool&) override {
    return log("getNextInternal");
  }
  Ptr get(const std::string& k, FactoryFunc f) override {
    log(std::string("get ") + k + (f != nullptr ? " with factory" : ""));
    if (auto once = std::exchange(callBack, nullptr)) once();
    return objects.count(k) == 1 ? objects[k] : Ptr();
  }
  bool set(Ptr obj, unsigned e) override {
    log("set " + obj->getKey() + " " + std::to_string(e));
    if (!refuseSet) objects[obj->getKey()] = obj;
    if (auto once = std::exchange(callBack, nullptr)) once();
    return !refuseSet;
  }
  Ptr getNext() override {
    return log("getNext") && !objects.empty() ? objects.begin()->second : Ptr();
  }
  void setFactoryFunc(FactoryFunc) override { log("setFactoryFunc"); }

 private:
  bool log(const std::string& call) const {
    m_events->push_back(call);
    return true;
  }
  Events* m_events;
};

namespace {

constexpr long kT0 = 1700000000;

Ptr factory(const char*, unsigned) { return Ptr(); }

// Every operation's answer, what it asks of the backing store and its trace
// lines at the fullest level, in one run over a cache of lifetime 10 and
// threshold 2.
TEST(CacheStorageTest, AnswersBackingCallsAndTraceLinesOfEveryOperation) {
  FakeClock::set(kT0);
  Events events;
  auto* backing = new RecordingStore(&events);
  CacheStorage cache(backing, 10, 2);
  const Ptr cached = makeItem("k"), newer = makeItem("k");
  std::string key;
  char* data = nullptr;
  unsigned len = 3;
  bool end = false;
  TraceCapture trace(7, true);
  EXPECT_TRUE(cache.set(cached, 5));
  EXPECT_EQ(cache.get("k", factory), cached);  // from memory: no backing call
  backing->refuseSet = true;
  EXPECT_FALSE(cache.set(makeItem("k"), 6));
  EXPECT_EQ(cache.get("k", nullptr), cached);  // the refused write left it
  backing->objects["n"] = makeItem("other");
  EXPECT_EQ(cache.get("n", factory)->getKey(), "other");
  EXPECT_TRUE(cache.isInStorage("n") && !cache.isInStorage("other"));  // under the key asked for
  EXPECT_TRUE(cache.getRaw("k", data, len) && len == 7);
  EXPECT_TRUE(cache.setRaw("k", "ab", 2, 9) && cache.setExpiration("k", 4));
  EXPECT_TRUE(cache.startGetAll() && cache.getNextRaw(key, data, len) &&
              cache.getNextInternal(key, data, len, end));
  EXPECT_EQ(cache.getNext(), cached);
  cache.endGetAll();
  cache.setFactoryFunc(factory);
  EXPECT_TRUE(cache.getMaxRecordLen() == 777 && cache.getNumElements() == 42);
  const std::string info = "[INFO] CacheStorage::", hit = info + "get: getting from cache key=k";
  // Grouped by call, as written.
  // clang-format off
  EXPECT_EQ(trace.texts(),
            withEntries("CacheStorage",
                        {"set", "cleanup", info + "set: adding to cache storable key=k",
                         "get", "cleanup", hit, "CacheRecord::expired", "CacheRecord::getStorable",
                         "set", "cleanup",
                         "get", "cleanup", hit, "CacheRecord::expired", "CacheRecord::getStorable",
                         "get", "cleanup", info + "get: adding new cache record key=n",
                         "isInStorage", "isInStorage", "getRaw",
                         "setRaw", "setExpiration", "startGetAll", "getNextRaw", "getNextInternal",
                         "getNext", "endGetAll", "setFactoryFunc", "getMaxRecordLen",
                         "getNumElements"}));
  EXPECT_EQ(events,
            (Strings{"set k 5", "set k 6", "get n with factory", "isInStorage other",
                     "getRaw k", "setRaw k 9", "setExpiration k", "startGetAll", "getNextRaw",
                     "getNextInternal", "getNext", "endGetAll", "setFactoryFunc"}));
  // clang-format on

  // Past the lifetime: "k" is read again, "n" stays stale, and a sweep drops it.
  FakeClock::advance(11);
  backing->refuseSet = false;
  backing->objects = {{"k", newer}};
  trace.clear();
  events.clear();
  EXPECT_EQ(cache.get("k", nullptr), newer);
  EXPECT_TRUE(cache.get("n", nullptr).isNull());
  EXPECT_TRUE(cache.set(makeItem("m"), 0));  // three records: the count gate opens
  cache.cleanup();
  EXPECT_TRUE(cache.del("k") && cache.delAll());
  const std::string stale = "[WARNING] CacheStorage::get: cache expired!!!";
  // clang-format off
  EXPECT_EQ(trace.texts(),
            withEntries("CacheStorage",
                        {"get", "cleanup", hit, "CacheRecord::expired", stale,
                         info + "get: update cache record key=k", "CacheRecord::set",
                         "get", "cleanup", info + "get: getting from cache key=n",
                         "CacheRecord::expired", stale,
                         "set", "cleanup", info + "set: adding to cache storable key=m",
                         "cleanup", info + "cleanup: Running cleanup...", "CacheRecord::expired",
                         "CacheRecord::expired", "CacheRecord::expired", "del", "delAll"}));
  // clang-format on
  EXPECT_EQ(events, (Strings{"get k", "get n", "set m 0", "delAll"}));
}

// The backing store calls back into the cache in the middle of get() and of
// set(); the nested calls run a sweep that drops the stale record of "k".
TEST(CacheStorageTest, CallsBackIntoTheCacheThatSweepLeaveTheOuterCallWhole) {
  for (bool throughGet : {true, false}) {
    SCOPED_TRACE(throughGet ? "get" : "set");
    FakeClock::set(kT0);
    Events events;
    auto* store = new RecordingStore(&events);
    CacheStorage reentered(store, 10, 1);
    ASSERT_TRUE(reentered.set(makeItem("k"), 0));
    FakeClock::set(kT0 + 11);
    store->callBack = [&reentered] {
      reentered.set(makeItem("other"), 0);  // 2 records now: the next call sweeps
      reentered.get("other", nullptr);
    };
    TraceCapture trace(4);
    const Ptr newer = makeItem("k");
    if (throughGet) store->objects["k"] = newer;
    EXPECT_TRUE(throughGet ? reentered.get("k", nullptr) == newer : reentered.set(newer, 0));
    EXPECT_EQ(reentered.counters().recordsSwept, 1u);
    EXPECT_EQ(trace.messages().back(),
              throughGet ? "[INFO] CacheStorage::get: update cache record key=k"
                         : "[INFO] CacheStorage::set: adding to cache storable key=k");
    store->objects.clear();
    EXPECT_TRUE(reentered.get("k", nullptr) == newer);  // fresh from the outer call
    EXPECT_EQ(newer.getCount(), 2u);
  }
}

TEST(CacheStorageTest, BackingStoreIsDeletedBeforeTheCachedObjects) {
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

}  // namespace
