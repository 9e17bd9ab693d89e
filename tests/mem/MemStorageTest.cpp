#include "LoginStorage/mem/MemStorage.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "support/TestItem.h"
#include "support/FakeClock.h"
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

TEST_F(MemStorageTest, RecordsLiveTheStoreLifetimeWhateverExpirationSetGets) {
  MemStorage store(3600, 100);
  RefCountPtr<IStorable> item = makeItem("k");
  ASSERT_TRUE(store.set(item, 5));
  FakeClock::set(kT0 + 3600);  // the expiry second itself is still fresh
  EXPECT_EQ(store.get("k", nullptr).get(), item.get());
  EXPECT_EQ(item.getCount(), 2u);  // ours and the table's
  FakeClock::set(kT0 + 3601);
  EXPECT_EQ(store.getNumElements(), 1u);  // expired, but nothing has met it yet
  EXPECT_TRUE(store.isInStorage("k"));
  EXPECT_TRUE(store.get("k", nullptr).isNull());
  EXPECT_FALSE(store.isInStorage("k"));
  EXPECT_TRUE(store.get("k", nullptr).isNull());
  EXPECT_EQ(store.counters().hits, 1u);
  EXPECT_EQ(store.counters().expiredOnRead, 1u);
  EXPECT_EQ(store.counters().misses, 1u);
}

TEST_F(MemStorageTest, LifetimeZeroNegativeAndHuge) {
  MemStorage zero(0, 100), negative(-1, 0), huge(LONG_MAX, 0);
  for (MemStorage* store : {&zero, &negative, &huge}) store->set(makeItem("k"), 0);
  EXPECT_FALSE(zero.get("k", nullptr).isNull());
  EXPECT_TRUE(negative.get("k", nullptr).isNull());
  EXPECT_EQ(negative.getNumElements(), 0u);
  FakeClock::advance(1);
  EXPECT_TRUE(zero.get("k", nullptr).isNull());
  EXPECT_EQ(zero.getNumElements(), 0u);
  // Near the largest long: never expires, and a pass never falls due.
  FakeClock::set(LONG_MAX - 1);
  huge.cleanup();
  EXPECT_FALSE(huge.get("k", nullptr).isNull());
  EXPECT_EQ(huge.counters().sweeps, 0u);
  negative.set(makeItem("n"), 0);
  negative.cleanup();  // a negative lifetime passes the time gate at once
  EXPECT_EQ(negative.counters().recordsSwept, 1u);
}

TEST_F(MemStorageTest, SetReplacesByTheObjectsKeyAndRestartsItsLifetime) {
  MemStorage store(60, 100);
  store.set(makeItem("", &events), 0);
  FakeClock::advance(50);
  store.set(makeItem("", &events), 0);
  EXPECT_EQ(events, Strings{"~"});
  EXPECT_FALSE(store.set(RefCountPtr<IStorable>(), 0));
  EXPECT_EQ(store.getNumElements(), 1u);
  FakeClock::advance(60);
  EXPECT_FALSE(store.get("", nullptr).isNull());
  EXPECT_TRUE(store.del("missing"));
  EXPECT_TRUE(store.del(""));
  EXPECT_EQ(events, (Strings{"~", "~"}));
  EXPECT_TRUE(store.delAll());
}

TEST_F(MemStorageTest, RawOperationsAndIterationAreFixedStubs) {
  MemStorage store(60, 100);
  store.set(makeItem("k"), 0);
  char buffer[4];
  char* data = buffer;
  unsigned len = 4;
  bool end = false;
  std::string key = "untouched";
  EXPECT_TRUE(store.setRaw("r", "xy", 2, 0));
  EXPECT_FALSE(store.getRaw("r", data, len));
  EXPECT_TRUE(data == nullptr && len == 0 && !store.isInStorage("r"));
  data = buffer;
  EXPECT_FALSE(store.startGetAll() || store.getNextRaw(key, data, len) ||
               store.getNextInternal(key, data, len, end));
  EXPECT_TRUE(key == "untouched" && data == buffer && len == 0 && !end);
  EXPECT_TRUE(store.getNext().isNull());
  EXPECT_EQ(store.getMaxRecordLen(), 1000000u);
}

TEST_F(MemStorageTest, CleanupRunsOnlyPastBothGates) {
  MemStorage store(10, 2);
  store.set(makeItem("a"), 0);
  store.set(makeItem("b"), 0);
  FakeClock::set(kT0 + 10);
  store.cleanup();  // time gate: not more than 10 s since construction
  FakeClock::set(kT0 + 30);
  store.cleanup();  // count gate: 2 records, threshold 2
  EXPECT_EQ(store.counters().sweeps, 0u);
  store.set(makeItem("c"), 0);
  testsupport::TraceCapture trace(4);
  store.cleanup();  // at once: the count gate left the last pass time alone
  EXPECT_EQ(trace.messages(), Strings{"[INFO] MemStorage::cleanup: Running cleanup..."});
  EXPECT_EQ(store.counters().recordsSwept, 2u);
  FakeClock::set(kT0 + 40);
  store.set(makeItem("d"), 0);
  store.set(makeItem("e"), 0);
  store.cleanup();  // within 10 s of the pass at kT0 + 30
  EXPECT_EQ(store.counters().sweeps, 1u);
  FakeClock::set(kT0 + 41);
  store.cleanup();
  EXPECT_EQ(store.counters().recordsSwept, 3u);  // "c" went, "d" and "e" stay
  EXPECT_EQ(store.getNumElements(), 2u);
}

TEST_F(MemStorageTest, TraceLinesAndKeyRequests) {
  MemStorage store(60, 100);
  auto* item = new testsupport::TestItem("k");
  RefCountPtr<IStorable> shared(item);
  store.set(shared, 0);
  EXPECT_EQ(item->keyCalls, 1);  // tracing off: the key is asked for once
  testsupport::TraceCapture trace(7, true);
  store.set(shared, 0);
  store.get("k", nullptr);
  store.del("k");
  EXPECT_EQ(trace.texts(), (Strings{"[TRACE] MemStorage::set: begin",
                                    "[INFO] MemStorage::set: [MEMSTORAGE] adding key 'k'",
                                    "[INFO] MemStorage::set: adding to memory storable key=k",
                                    "[TRACE] MemStorage::get: begin",
                                    "[INFO] MemStorage::get: [MEMSTORAGE] getting key 'k'",
                                    "[TRACE] MemStorage::MemRecord::expired: begin",
                                    "[TRACE] MemStorage::MemRecord::getStorable: begin",
                                    "[TRACE] MemStorage::del: begin",
                                    "[INFO] MemStorage::del: [MEMSTORAGE] del key 'k'"}));
  EXPECT_EQ(item->keyCalls, 4);
  EXPECT_EQ(trace.lines()[1].severity, 3);
}

TEST_F(MemStorageTest, DestroyingTheStoreReleasesEveryObject) {
  RefCountPtr<IStorable> kept = makeItem("kept", &events);
  {
    MemStorage store(60, 100);
    store.set(kept, 0);
    store.set(makeItem("only", &events), 0);
  }
  EXPECT_EQ(events, Strings{"~only"});
  EXPECT_EQ(kept.getCount(), 1u);
}

}  // namespace
