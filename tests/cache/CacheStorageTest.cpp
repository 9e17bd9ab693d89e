// What the model-based test cannot say about the cache: what it asks of the
// backing store, its exact trace lines, calls back into it, and the order in
// which it destroys what it owns. Lifetimes, sweeps and counters are checked
// there.
#include "LoginStorage/cache/CacheStorage.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/FakeClock.h"
#include "support/TestItem.h"
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

std::string describe(const Ptr& object) { return object ? object->toString() : "null"; }
std::string describe(bool result) { return result ? "true" : "false"; }

// Every operation on a cache of lifetime 10 and threshold 1 that holds "k"
// (also in the backing store, object "item k"): its answer, what it asks of
// the backing store, and its trace lines at the fullest level.
TEST(CacheStorageTest, EachOperationsAnswerBackingCallsAndTraceLines) {
  struct Case {
    const char* name;
    std::function<std::string(CacheStorage&, RecordingStore&)> run;
    std::string answer;
    Strings backing;
    Strings lines;  // those without a '[' are "[TRACE] CacheStorage::<line>: begin"
  };
  std::string key;
  char* data = nullptr;
  unsigned len = 3;
  bool end = false;
  const Ptr refused = makeItem("k");
  const Case cases[] = {
      {"fresh hit", [](CacheStorage& c, RecordingStore& b) {
         b.objects.clear();
         return describe(c.get("k", factory));
       },
       "item k", {},
       {"get", "cleanup", "[INFO] CacheStorage::get: getting from cache key=k",
        "CacheRecord::expired", "CacheRecord::getStorable"}},
      {"miss, cached under the key asked for", [](CacheStorage& c, RecordingStore& b) {
         b.objects["n"] = makeItem("other");
         std::string answer = describe(c.get("n", factory)) + ", ";
         answer += describe(c.isInStorage("n"));
         return answer + describe(c.isInStorage("other"));
       },
       "item other, truefalse", {"get n with factory", "isInStorage other"},
       {"get", "cleanup", "[INFO] CacheStorage::get: adding new cache record key=n",
        "isInStorage", "isInStorage"}},
      {"miss in both", [](CacheStorage& c, RecordingStore&) {
         const std::string answer = describe(c.get("n", nullptr)) + ", ";
         return answer + describe(c.isInStorage("n"));
       },
       "null, false", {"get n", "isInStorage n"}, {"get", "cleanup", "isInStorage"}},
      {"stale, renewed from the backing store", [](CacheStorage& c, RecordingStore& b) {
         FakeClock::advance(11);
         b.objects["k"] = makeItem("newer");
         return describe(c.get("k", nullptr));
       },
       "item newer", {"get k"},
       {"get", "cleanup", "[INFO] CacheStorage::get: getting from cache key=k",
        "CacheRecord::expired", "[WARNING] CacheStorage::get: cache expired!!!",
        "[INFO] CacheStorage::get: update cache record key=k", "CacheRecord::set"}},
      {"stale, gone from the backing store", [](CacheStorage& c, RecordingStore& b) {
         FakeClock::advance(11);
         b.objects.clear();
         const std::string answer = describe(c.get("k", nullptr)) + ", ";
         return answer + describe(c.isInStorage("k"));
       },
       "null, true", {"get k"},
       {"get", "cleanup", "[INFO] CacheStorage::get: getting from cache key=k",
        "CacheRecord::expired", "[WARNING] CacheStorage::get: cache expired!!!", "isInStorage"}},
      {"set writes through first", [](CacheStorage& c, RecordingStore& b) {
         const bool stored = c.set(makeItem("k"), 5);
         b.objects.clear();
         return describe(stored) + ", " + describe(c.get("k", nullptr).get() != nullptr);
       },
       "true, true", {"set k 5"},
       {"set", "cleanup", "[INFO] CacheStorage::set: adding to cache storable key=k", "get",
        "cleanup", "[INFO] CacheStorage::get: getting from cache key=k", "CacheRecord::expired",
        "CacheRecord::getStorable"}},
      {"refused set keeps the cached object", [&](CacheStorage& c, RecordingStore& b) {
         b.refuseSet = true;
         const bool stored = c.set(refused, 5);
         b.objects.clear();
         return describe(stored) + ", " + describe(c.get("k", nullptr).get() != refused.get());
       },
       "false, true", {"set k 5"},
       {"set", "cleanup", "get", "cleanup", "[INFO] CacheStorage::get: getting from cache key=k",
        "CacheRecord::expired", "CacheRecord::getStorable"}},
      {"set of nothing", [](CacheStorage& c, RecordingStore&) { return describe(c.set(Ptr(), 5)); },
       "false", {}, {"set", "cleanup"}},
      {"sweep drops only the stale record", [](CacheStorage& c, RecordingStore&) {
         FakeClock::advance(11);
         c.set(makeItem("m"), 0);  // 2 records from now on: the count gate opens
         c.cleanup();
         const std::string answer = describe(c.isInStorage("m"));
         return answer + describe(c.isInStorage("k"));
       },
       "truetrue", {"set m 0", "isInStorage k"},
       {"set", "cleanup", "[INFO] CacheStorage::set: adding to cache storable key=m", "cleanup",
        "[INFO] CacheStorage::cleanup: Running cleanup...", "CacheRecord::expired",
        "CacheRecord::expired", "isInStorage", "isInStorage"}},
      {"del trims the cache", [](CacheStorage& c, RecordingStore&) {
         const std::string answer = describe(c.del("k"));
         return answer + describe(c.isInStorage("k"));
       },
       "truefalse", {"isInStorage k"}, {"del", "isInStorage"}},
      {"delAll empties the cache", [](CacheStorage& c, RecordingStore&) {
         const std::string answer = describe(c.delAll());
         return answer + describe(c.isInStorage("k"));
       },
       "truetrue", {"delAll", "isInStorage k"}, {"delAll", "isInStorage"}},
      {"getRaw", [&](CacheStorage& c, RecordingStore&) {
         const std::string answer = describe(c.getRaw("k", data, len));
         return answer + std::to_string(len);
       },
       "true7", {"getRaw k"}, {"getRaw"}},
      {"setRaw", [](CacheStorage& c, RecordingStore&) { return describe(c.setRaw("k", "ab", 2, 9)); },
       "true", {"setRaw k 9"}, {"setRaw"}},
      {"setExpiration",
       [](CacheStorage& c, RecordingStore&) { return describe(c.setExpiration("k", 4)); }, "true",
       {"setExpiration k"}, {"setExpiration"}},
      {"startGetAll", [](CacheStorage& c, RecordingStore&) { return describe(c.startGetAll()); },
       "true", {"startGetAll"}, {"startGetAll"}},
      {"getNextRaw",
       [&](CacheStorage& c, RecordingStore&) { return describe(c.getNextRaw(key, data, len)); },
       "true", {"getNextRaw"}, {"getNextRaw"}},
      {"getNextInternal", [&](CacheStorage& c, RecordingStore&) {
         return describe(c.getNextInternal(key, data, len, end));
       },
       "true", {"getNextInternal"}, {"getNextInternal"}},
      {"getNext", [](CacheStorage& c, RecordingStore&) { return describe(c.getNext()); }, "item k",
       {"getNext"}, {"getNext"}},
      {"endGetAll", [](CacheStorage& c, RecordingStore&) {
         c.endGetAll();
         return "";
       },
       "", {"endGetAll"}, {"endGetAll"}},
      {"setFactoryFunc", [](CacheStorage& c, RecordingStore&) {
         c.setFactoryFunc(factory);
         return "";
       },
       "", {"setFactoryFunc"}, {"setFactoryFunc"}},
      {"getMaxRecordLen",
       [](CacheStorage& c, RecordingStore&) { return std::to_string(c.getMaxRecordLen()); }, "777",
       {}, {"getMaxRecordLen"}},
      {"getNumElements",
       [](CacheStorage& c, RecordingStore&) { return std::to_string(c.getNumElements()); }, "42",
       {}, {"getNumElements"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeClock::set(kT0);
    Events events;
    auto* backing = new RecordingStore(&events);
    CacheStorage cache(backing, 10, 1);
    ASSERT_TRUE(cache.set(makeItem("k"), 0));
    events.clear();
    Strings expected;
    for (const std::string& line : c.lines) {
      expected.push_back(line[0] == '[' ? line : "[TRACE] CacheStorage::" + line + ": begin");
    }
    TraceCapture trace(7, true);
    EXPECT_EQ(c.run(cache, *backing), c.answer);
    EXPECT_EQ(trace.texts(), expected);
    EXPECT_EQ(events, c.backing);
  }
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
