// What every raw store promises, whatever keeps the bytes: a suite typed on
// an environment that owns one store and what it needs (a folder, a server).
// An environment E gives:
//   bool ready() const              false skips the suite (no server)
//   VelLogin::AbstractStorage& store()
//   static const char* const kClass the class name its trace lines carry
//   std::string where() const       what names the store in them ("folder <f/>: ")
//   static const bool kCounts       whether getNumElements() counts records
// A test folder instantiates it with
//   INSTANTIATE_TYPED_TEST_SUITE_P(Name, RawStoreContract, E);
#ifndef LOGINSTORAGE_TESTS_SUPPORT_RAWSTORECONTRACT_H
#define LOGINSTORAGE_TESTS_SUPPORT_RAWSTORECONTRACT_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/Records.h"
#include "support/TraceCapture.h"

namespace testsupport {

template <typename Environment>
class RawStoreContract : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!env.ready()) GTEST_SKIP() << "the store's backend could not be started";
  }
  std::string line(const char* severity, const char* method, const std::string& text) const {
    return std::string("[") + severity + "] " + Environment::kClass + "::" + method + ": " + text;
  }

  Environment env;
};

TYPED_TEST_SUITE_P(RawStoreContract);

TYPED_TEST_P(RawStoreContract, RecordsAreTheirBytesUntilReplacedOrDeleted) {
  VelLogin::AbstractStorage& store = this->env.store();
  const std::string binary("\0\x01\xff\n rec\0", 9);
  ASSERT_TRUE(writeRecord(store, "k", binary));
  EXPECT_EQ(readRecord(store, "k"), binary);
  ASSERT_TRUE(writeRecord(store, "k", "ab"));
  EXPECT_EQ(readRecord(store, "k"), "ab");
  EXPECT_TRUE(store.isInStorage("k"));
  {
    TraceCapture trace;
    EXPECT_TRUE(store.del("k"));
    EXPECT_FALSE(store.del("k"));
    const std::string where = this->env.where(), deleting = " in deleting record with key <k>";
    EXPECT_EQ(trace.messages(),
              (std::vector<std::string>{this->line("ERROR", "del", where + "SUCCESS" + deleting),
                                        this->line("ERROR", "del", where + "FAILURE" + deleting)}));
  }
  EXPECT_FALSE(store.setRaw("empty", "x", 0, 0));
  EXPECT_FALSE(store.setRaw("null", nullptr, 3, 0));
  for (const char* key : {"k", "missing", "empty", "null"}) {
    EXPECT_EQ(readRecord(store, key), "missing") << key;
    EXPECT_FALSE(store.isInStorage(key)) << key;
  }
}

// The caller's len says how much it takes: a record that does not fit is
// refused with its length, and a caller's buffer is filled only when it fits.
TYPED_TEST_P(RawStoreContract, LengthIsTheCapacityInAndTheRecordsLengthOut) {
  VelLogin::AbstractStorage& store = this->env.store();
  ASSERT_TRUE(writeRecord(store, "ten", "0123456789"));
  for (const auto& [capacity, read] : std::map<unsigned, std::string>{
           {11, "0123456789"}, {10, "0123456789"}, {9, "too long: 10"}, {1, "too long: 10"}}) {
    EXPECT_EQ(readRecord(store, "ten", capacity), read) << capacity;
  }
  char buffer[12] = "untouched!!";
  char* data = buffer;
  unsigned len = 9;
  EXPECT_FALSE(store.getRaw("ten", data, len));
  EXPECT_TRUE(len == 10 && data == buffer) << len;
  EXPECT_STREQ(buffer, "untouched!!");
  len = sizeof buffer;
  ASSERT_TRUE(store.getRaw("ten", data, len));
  EXPECT_TRUE(len == 10 && data == buffer) << len;
  EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("0123456789!\0", 12));

  TraceCapture trace;
  EXPECT_EQ(readRecord(store, "ten", 0), "missing");
  EXPECT_EQ(trace.messages(), std::vector<std::string>{
                                  this->line("ERROR", "getRaw", "ERROR: wrong usage! len==0")});
}

TYPED_TEST_P(RawStoreContract, IterationDeliversEveryRecordOnceAndDelAllEmpties) {
  VelLogin::AbstractStorage& store = this->env.store();
  EXPECT_TRUE(store.delAll()) << "nothing to delete";
  EXPECT_EQ(drain(store), Records{});
  const Records records = {{"a", "1"}, {".hidden", std::string("\0", 1)}, {"c.d", "three"}};
  for (const auto& [key, bytes] : records) ASSERT_TRUE(writeRecord(store, key, bytes));
  EXPECT_EQ(store.getNumElements(), TypeParam::kCounts ? 3u : 0u);

  ASSERT_TRUE(store.startGetAll());
  {
    TraceCapture trace;
    EXPECT_FALSE(store.startGetAll());  // one iteration at a time; the first goes on
    EXPECT_EQ(trace.messages().back(),
              this->line("ERROR", "startGetAll",
                         "ERROR: previous GetAll session was not ended with endGetAll()"));
  }
  EXPECT_EQ(drain(store, false), records);
  std::string key = "kept";
  char* data = nullptr;
  unsigned len = 100;
  EXPECT_FALSE(store.getNextRaw(key, data, len));  // and stays at its end
  EXPECT_TRUE(len == 0 && data == nullptr) << len;
  store.endGetAll();
  EXPECT_EQ(drain(store), records) << "a new iteration starts over";

  EXPECT_TRUE(store.delAll());
  EXPECT_EQ(drain(store), Records{});
  EXPECT_EQ(store.getNumElements(), 0u);
}

REGISTER_TYPED_TEST_SUITE_P(RawStoreContract, RecordsAreTheirBytesUntilReplacedOrDeleted,
                            LengthIsTheCapacityInAndTheRecordsLengthOut,
                            IterationDeliversEveryRecordOnceAndDelAllEmpties);

}  // namespace testsupport

#endif
