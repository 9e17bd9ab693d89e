// What the model-based test cannot say about the memory store: exact trace
// lines, when objects are released, and the fixed answers of the raw
// interface. Lifetimes, sweeps and counters are checked there.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LoginStorage/mem/MemStorage.h"
#include "support/FakeClock.h"
#include "support/TestItem.h"
#include "support/TraceCapture.h"

using testsupport::Events;
using testsupport::FakeClock;
using testsupport::makeItem;
using testsupport::withEntries;
using VelLogin::MemStorage;
using Strings = std::vector<std::string>;

namespace {

constexpr long kT0 = 1700000000;

// Every operation's answer, out-parameters and trace lines at the fullest
// level, in one run.
TEST(MemStorageTest, AnswersAndTraceLinesOfEveryOperation) {
  FakeClock::set(kT0);
  MemStorage store(60, 1);
  store.set(makeItem("k2"), 0);
  char buffer[4];
  char* data = buffer;
  unsigned len = 4;
  bool end = false;
  std::string key = "untouched";
  testsupport::TraceCapture trace(7, true);
  EXPECT_TRUE(store.set(makeItem("k"), 0));
  EXPECT_EQ(store.get("k", nullptr)->getKey(), "k");
  EXPECT_TRUE(store.setRaw("r", "xy", 2, 0) && store.setExpiration("r", 5));  // not kept
  EXPECT_TRUE(!store.getRaw("r", data, len) && data == nullptr && len == 0);
  data = buffer;
  EXPECT_FALSE(store.startGetAll() || store.getNextRaw(key, data, len) ||
               store.getNextInternal(key, data, len, end) || store.getNext());
  EXPECT_TRUE(key == "untouched" && data == buffer && len == 0 && !end);
  store.endGetAll();
  store.setFactoryFunc(nullptr);
  EXPECT_TRUE(!store.isInStorage("r") && store.getNumElements() == 2 &&
              store.getMaxRecordLen() == 1000000);
  store.cleanup();  // within the lifetime: no pass
  const std::string info = "[INFO] MemStorage::";
  // Grouped by call, as written.
  // clang-format off
  EXPECT_EQ(trace.texts(),
            withEntries("MemStorage",
                        {"set", info + "set: [MEMSTORAGE] adding key 'k'",
                         info + "set: adding to memory storable key=k",
                         "get", info + "get: [MEMSTORAGE] getting key 'k'", "MemRecord::expired",
                         "MemRecord::getStorable",
                         "setRaw", info + "setRaw: [MEMSTORAGE] set raw for key 'r'",
                         "setExpiration",
                         "getRaw", info + "getRaw: [MEMSTORAGE] get raw for key 'r'",
                         "startGetAll", "getNextRaw", "getNextInternal", "getNext", "endGetAll",
                         "setFactoryFunc", "isInStorage", "getNumElements", "getMaxRecordLen",
                         "cleanup"}));
  // clang-format on
  trace.clear();
  FakeClock::advance(61);
  store.cleanup();
  EXPECT_TRUE(store.del("k") && store.delAll());
  EXPECT_EQ(trace.texts(),
            withEntries("MemStorage",
                        {"cleanup", info + "cleanup: Running cleanup...", "MemRecord::expired",
                         "MemRecord::expired", "del", info + "del: [MEMSTORAGE] del key 'k'",
                         "delAll", info + "delAll: [MEMSTORAGE] delAll"}));
}

// The store lets go of its own shares only, when it goes; a record's set()
// releases the object it held and starts a new lifetime.
TEST(MemStorageTest, StoreAndRecordReleaseTheirOwnSharesOnly) {
  FakeClock::set(kT0);
  Events events;
  auto* item = new testsupport::TestItem("kept", &events);
  VelLogin::RefCountPtr<VelLogin::IStorable> kept(item);
  {
    MemStorage store(60, 100);
    store.set(kept, 0);
    EXPECT_EQ(item->keyCalls, 1);  // not tracing: asked for once
    store.set(makeItem("only", &events), 0);
  }
  EXPECT_EQ(events, Strings{"~only"});
  EXPECT_EQ(kept.getCount(), 1u);
  MemStorage::MemRecord record(10, makeItem("a", &events));
  FakeClock::advance(11);
  ASSERT_TRUE(record.expired());
  {
    testsupport::TraceCapture trace(7, true);
    record.set(5, makeItem("b"));
    EXPECT_EQ(trace.texts(), withEntries("MemStorage", {"MemRecord::set"}));
  }
  EXPECT_EQ(events, (Strings{"~only", "~a"}));
  EXPECT_EQ(record.getStorable()->getKey(), "b");
  FakeClock::advance(5);
  EXPECT_FALSE(record.expired());
  EXPECT_TRUE(record.expired(kT0 + 17));
}

// An object's destructor may call back into the store that releases it:
// here each drops the next record (whose object then does the same) and
// stores one of its own, whichever operation let it go.
TEST(MemStorageTest, ReleasedObjectsMayCallBackIntoTheStore) {
  const struct {
    const char* operation;
    long wait;
    void (*release)(MemStorage&);
  } releases[] = {{"del", 0, [](MemStorage& store) { store.del("k0"); }},
                  {"delAll", 0, [](MemStorage& store) { store.delAll(); }},
                  {"expired get", 61, [](MemStorage& store) { store.get("k0", nullptr); }},
                  {"sweep", 61, [](MemStorage& store) { store.cleanup(); }}};
  for (const auto& [operation, wait, release] : releases) {
    SCOPED_TRACE(operation);
    FakeClock::set(kT0);
    MemStorage store(60, 1);
    for (int i = 0; i < 8; ++i) {
      auto* item = new testsupport::TestItem("k" + std::to_string(i));
      item->onDestroy = [&store, i] {
        store.del("k" + std::to_string(i + 1));
        store.set(makeItem("late" + std::to_string(i)), 0);
      };
      store.set(VelLogin::RefCountPtr<VelLogin::IStorable>(item), 0);
    }
    FakeClock::advance(wait);
    release(store);
    EXPECT_EQ(store.getNumElements(), 8u);
    for (int i = 0; i < 8; ++i) EXPECT_TRUE(store.isInStorage("late" + std::to_string(i))) << i;
  }
}

}  // namespace
