// What the model-based test cannot say about the memory store: exact trace
// lines, when objects are released, and the fixed answers of the raw
// interface. Lifetimes, sweeps and counters are checked there.
#include "LoginStorage/mem/MemStorage.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/FakeClock.h"
#include "support/TestItem.h"
#include "support/TraceCapture.h"

using testsupport::Events;
using testsupport::FakeClock;
using testsupport::makeItem;
using VelLogin::IStorable;
using VelLogin::MemStorage;
using VelLogin::RefCountPtr;
using Strings = std::vector<std::string>;

namespace {

constexpr long kT0 = 1700000000;

class MemStorageTest : public ::testing::Test {
 protected:
  void SetUp() override { FakeClock::set(kT0); }
  Events events;
};

// Every operation on a store of lifetime 60 and threshold 1 that holds "k",
// traced at the fullest level.
TEST_F(MemStorageTest, TraceLinesOfEveryOperation) {
  const std::string begin = "[TRACE] MemStorage::";
  struct Case {
    const char* name;
    std::function<void(MemStorage&)> run;
    Strings lines;
  };
  std::string key;
  char* data = nullptr;
  unsigned len = 0;
  bool end = false;
  const Case cases[] = {
      {"set", [](MemStorage& s) { s.set(makeItem("n"), 0); },
       {"set: begin", "[INFO] MemStorage::set: [MEMSTORAGE] adding key 'n'",
        "[INFO] MemStorage::set: adding to memory storable key=n"}},
      {"get", [](MemStorage& s) { s.get("k", nullptr); },
       {"get: begin", "[INFO] MemStorage::get: [MEMSTORAGE] getting key 'k'",
        "MemRecord::expired: begin", "MemRecord::getStorable: begin"}},
      {"del", [](MemStorage& s) { s.del("k"); },
       {"del: begin", "[INFO] MemStorage::del: [MEMSTORAGE] del key 'k'"}},
      {"delAll", [](MemStorage& s) { s.delAll(); },
       {"delAll: begin", "[INFO] MemStorage::delAll: [MEMSTORAGE] delAll"}},
      {"getRaw", [&](MemStorage& s) { s.getRaw("k", data, len); },
       {"getRaw: begin", "[INFO] MemStorage::getRaw: [MEMSTORAGE] get raw for key 'k'"}},
      {"setRaw", [](MemStorage& s) { s.setRaw("k", "x", 1, 0); },
       {"setRaw: begin", "[INFO] MemStorage::setRaw: [MEMSTORAGE] set raw for key 'k'"}},
      {"setExpiration", [](MemStorage& s) { s.setExpiration("k", 5); }, {"setExpiration: begin"}},
      {"startGetAll", [](MemStorage& s) { s.startGetAll(); }, {"startGetAll: begin"}},
      {"getNextRaw", [&](MemStorage& s) { s.getNextRaw(key, data, len); }, {"getNextRaw: begin"}},
      {"getNextInternal", [&](MemStorage& s) { s.getNextInternal(key, data, len, end); },
       {"getNextInternal: begin"}},
      {"getNext", [](MemStorage& s) { s.getNext(); }, {"getNext: begin"}},
      {"endGetAll", [](MemStorage& s) { s.endGetAll(); }, {"endGetAll: begin"}},
      {"getNumElements", [](MemStorage& s) { s.getNumElements(); }, {"getNumElements: begin"}},
      {"getMaxRecordLen", [](MemStorage& s) { s.getMaxRecordLen(); }, {"getMaxRecordLen: begin"}},
      {"isInStorage", [](MemStorage& s) { s.isInStorage("k"); }, {"isInStorage: begin"}},
      {"setFactoryFunc", [](MemStorage& s) { s.setFactoryFunc(nullptr); },
       {"setFactoryFunc: begin"}},
      {"cleanup, gated", [](MemStorage& s) { s.cleanup(); }, {"cleanup: begin"}},
      {"cleanup, sweeping",
       [](MemStorage& s) {
         FakeClock::advance(61);
         s.cleanup();
       },
       {"cleanup: begin", "[INFO] MemStorage::cleanup: Running cleanup...",
        "MemRecord::expired: begin", "MemRecord::expired: begin"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeClock::set(kT0);
    MemStorage store(60, 1);
    store.set(makeItem("k"), 0);
    store.set(makeItem("k2"), 0);
    Strings expected;
    for (const std::string& line : c.lines) {
      expected.push_back(line[0] == '[' ? line : begin + line);
    }
    testsupport::TraceCapture trace(7, true);
    c.run(store);
    EXPECT_EQ(trace.texts(), expected);
  }
}

TEST_F(MemStorageTest, TheKeyIsAskedForOnceWhenNotTracing) {
  auto* item = new testsupport::TestItem("k");
  MemStorage store(60, 100);
  store.set(RefCountPtr<IStorable>(item), 0);
  EXPECT_EQ(item->keyCalls, 1);
}

TEST_F(MemStorageTest, SetReplacesByTheObjectsKeyAndReleasesTheOldObject) {
  RefCountPtr<IStorable> kept = makeItem("kept", &events);
  {
    MemStorage store(60, 100);
    store.set(kept, 0);
    store.set(makeItem("", &events), 0);
    store.set(makeItem("", &events), 0);
    EXPECT_EQ(events, Strings{"~"});
    EXPECT_FALSE(store.set(RefCountPtr<IStorable>(), 0));
    EXPECT_TRUE(store.del(""));
    EXPECT_EQ(events, (Strings{"~", "~"}));
    EXPECT_TRUE(store.del("missing"));
  }
  EXPECT_EQ(events, (Strings{"~", "~"}));  // the caller's share of "kept" remains
  EXPECT_EQ(kept.getCount(), 1u);
}

TEST_F(MemStorageTest, RecordSetRestartsTheLifetimeAndSwapsTheObject) {
  MemStorage::MemRecord record(10, makeItem("a", &events));
  FakeClock::advance(11);
  ASSERT_TRUE(record.expired());
  record.set(5, makeItem("b"));
  EXPECT_EQ(events, Strings{"~a"});
  EXPECT_EQ(record.getStorable()->getKey(), "b");
  FakeClock::advance(5);
  EXPECT_FALSE(record.expired());
  EXPECT_TRUE(record.expired(kT0 + 17));
}

TEST_F(MemStorageTest, RawOperationsAndIterationAreFixedStubs) {
  MemStorage store(60, 100);
  char buffer[4];
  char* data = buffer;
  unsigned len = 4;
  bool end = false;
  std::string key = "untouched";
  EXPECT_TRUE(store.setRaw("r", "xy", 2, 0));
  EXPECT_TRUE(store.setExpiration("r", 5));
  EXPECT_FALSE(store.getRaw("r", data, len));
  EXPECT_TRUE(data == nullptr && len == 0 && !store.isInStorage("r"));
  data = buffer;
  EXPECT_FALSE(store.startGetAll() || store.getNextRaw(key, data, len) ||
               store.getNextInternal(key, data, len, end));
  EXPECT_TRUE(key == "untouched" && data == buffer && len == 0 && !end);
  EXPECT_TRUE(store.getNext().isNull());
  EXPECT_EQ(store.getMaxRecordLen(), 1000000u);
}

}  // namespace
