// What the model-based test cannot say about the cache: what it asks of the
// backing store, its exact trace lines, calls back into it, and the order in
// which it destroys what it owns. Lifetimes, sweeps and counters are checked
// there.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
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
  unsigned getNumElements() const override { return 42; }
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

Ptr factory(const char*, unsigned) { return Ptr(); }

// Every operation's answer, what it asks of the backing store and its trace
// lines at the fullest level, in one run over a cache of lifetime 10 and
// threshold 2.
TEST(CacheStorageTest, AnswersBackingCallsAndTraceLinesOfEveryOperation) {
  FakeClock::set(kT0);
  Events events;
  auto* backing = new RecordingStore(&events);
  CacheStorage cache(backing, 10, 2);
  const Ptr cached = makeItem("k"), refused = makeItem("k"), newer = makeItem("k");
  std::string key;
  char* data = nullptr;
  unsigned len = 3;
  bool end = false;
  TraceCapture trace(7, true);
  EXPECT_TRUE(cache.set(cached, 5));
  EXPECT_EQ(cache.get("k", factory), cached);  // from memory: no backing call
  backing->refuseSet = true;
  EXPECT_FALSE(cache.set(refused, 6));
  EXPECT_FALSE(cache.set(Ptr(), 7));
  EXPECT_EQ(cache.get("k", nullptr), cached);  // the refused write left it
  backing->objects["n"] = makeItem("other");
  EXPECT_EQ(cache.get("n", factory)->getKey(), "other");
  EXPECT_TRUE(cache.isInStorage("n"));  // cached under the key asked for
  EXPECT_FALSE(cache.isInStorage("other"));
  EXPECT_TRUE(cache.get("m", nullptr).isNull());
  EXPECT_FALSE(cache.isInStorage("m"));  // a miss is not cached
  EXPECT_TRUE(cache.getRaw("k", data, len) && len == 7);
  EXPECT_TRUE(cache.setRaw("k", "ab", 2, 9) && cache.setExpiration("k", 4));
  EXPECT_TRUE(cache.startGetAll() && cache.getNextRaw(key, data, len) &&
              cache.getNextInternal(key, data, len, end));
  EXPECT_EQ(cache.getNext(), cached);
  cache.endGetAll();
  cache.setFactoryFunc(factory);
  EXPECT_EQ(cache.getMaxRecordLen(), 777u);
  EXPECT_EQ(cache.getNumElements(), 42u);
  const std::string info = "[INFO] CacheStorage::", hit = info + "get: getting from cache key=k";
  // Grouped by call, as written.
  // clang-format off
  EXPECT_EQ(trace.texts(),
            withEntries("CacheStorage",
                        {"set", "cleanup", info + "set: adding to cache storable key=k",
                         "get", "cleanup", hit, "CacheRecord::expired", "CacheRecord::getStorable",
                         "set", "cleanup", "set", "cleanup",
                         "get", "cleanup", hit, "CacheRecord::expired", "CacheRecord::getStorable",
                         "get", "cleanup", info + "get: adding new cache record key=n",
                         "isInStorage", "isInStorage", "get", "cleanup", "isInStorage", "getRaw",
                         "setRaw", "setExpiration", "startGetAll", "getNextRaw", "getNextInternal",
                         "getNext", "endGetAll", "setFactoryFunc", "getMaxRecordLen",
                         "getNumElements"}));
  // clang-format on
  EXPECT_EQ(events,
            (Strings{"set k 5", "set k 6", "get n with factory", "isInStorage other", "get m",
                     "isInStorage m", "getRaw k", "setRaw k 9", "setExpiration k", "startGetAll",
                     "getNextRaw", "getNextInternal", "getNext", "endGetAll", "setFactoryFunc"}));

  // Past the lifetime: "k" is read again, "n" stays stale, and a sweep drops it.
  FakeClock::advance(11);
  backing->refuseSet = false;
  backing->objects = {{"k", newer}};
  trace.clear();
  events.clear();
  EXPECT_EQ(cache.get("k", nullptr), newer);
  EXPECT_TRUE(cache.get("n", nullptr).isNull());
  EXPECT_TRUE(cache.isInStorage("n"));
  EXPECT_TRUE(cache.set(makeItem("m"), 0));  // three records: the count gate opens
  cache.cleanup();
  EXPECT_FALSE(cache.isInStorage("n"));
  EXPECT_TRUE(cache.del("k") && !cache.isInStorage("k"));
  EXPECT_TRUE(cache.delAll() && cache.isInStorage("m"));  // the backing store's answer
  const std::string stale = "[WARNING] CacheStorage::get: cache expired!!!";
  // Grouped by call, as written.
  // clang-format off
  EXPECT_EQ(trace.texts(),
            withEntries("CacheStorage",
                        {"get", "cleanup", hit, "CacheRecord::expired", stale,
                         info + "get: update cache record key=k", "CacheRecord::set",
                         "get", "cleanup", info + "get: getting from cache key=n",
                         "CacheRecord::expired", stale, "isInStorage",
                         "set", "cleanup", info + "set: adding to cache storable key=m",
                         "cleanup", info + "cleanup: Running cleanup...", "CacheRecord::expired",
                         "CacheRecord::expired", "CacheRecord::expired", "isInStorage",
                         "del", "isInStorage", "delAll", "isInStorage"}));
  // clang-format on
  EXPECT_EQ(events, (Strings{"get k", "get n", "set m 0", "isInStorage n", "isInStorage k",
                             "delAll", "isInStorage m"}));
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
