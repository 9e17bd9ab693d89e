// RedisStorage against a real server: the raw-store contract, keys under the
// prefix, lifetimes, the SCAN walk, and what the store does when the server
// is missing or restarted (a hostile one: RedisConnectTest).
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "LoginStorage/redis/RedisStorage.h"
#include "RedisServer.h"
#include "support/RawStoreContract.h"
#include "support/TraceCapture.h"

using testsupport::drain;
using testsupport::readRecord;
using testsupport::Records;
using testsupport::TraceCapture;
using testsupport::writeRecord;
using VelLogin::RedisStorage;
using Lines = std::vector<std::string>;

namespace {

struct RedisEnvironment {
  static constexpr const char* kClass = "RedisStorage";
  static constexpr bool kCounts = true;
  bool ready() const { return server.started(); }
  VelLogin::AbstractStorage& store() { return redis; }
  std::string where() const { return "<127.0.0.1:" + std::to_string(server.port()) + "/app:>: "; }

  testsupport::RedisServer server;
  RedisStorage redis{"127.0.0.1", server.port(), "app:", 1000};
};

}  // namespace

namespace testsupport {
INSTANTIATE_TYPED_TEST_SUITE_P(Redis, RawStoreContract, RedisEnvironment);
}  // namespace testsupport

namespace {

class RedisStorageTest : public ::testing::Test, protected RedisEnvironment {
 protected:
  void SetUp() override {
    if (!ready()) GTEST_SKIP() << "redis-server could not be started";
  }
};

// Keys are bytes under the prefix, whatever pattern characters it holds; a
// key that is a value of another kind is missing, with the server's cause.
TEST_F(RedisStorageTest, KeysAreBytesUnderThePrefixAndOtherKindsAreMissing) {
  const std::string key("k\0ey", 4), value("\x00\x01\xff\nbytes\x00", 10);
  RedisStorage glob("127.0.0.1", server.port(), "g*[x]?\\", 1000);
  RedisStorage all("127.0.0.1", server.port(), "", 1000);
  ASSERT_TRUE(writeRecord(redis, key, value) && writeRecord(glob, "k", "G"));
  EXPECT_EQ(server.command({"SET", "gyyx?\\k", "decoy"}), "+OK");
  EXPECT_EQ(server.command({"GET", "app:" + key}), value);
  EXPECT_EQ(readRecord(redis, "k"), "missing");
  EXPECT_EQ(redis.lastError(), "");  // missing, not failed
  EXPECT_EQ(glob.getNumElements(), 1u);
  EXPECT_EQ(drain(glob), (Records{{"k", "G"}}));
  EXPECT_TRUE(glob.delAll());
  EXPECT_EQ(drain(all), (Records{{"app:" + key, value}, {"gyyx?\\k", "decoy"}}));

  TraceCapture trace;
  EXPECT_EQ(server.command({"HSET", "app:hash", "f", "v"}), ":1");
  EXPECT_EQ(readRecord(redis, "hash"), "missing");
  EXPECT_EQ(trace.messages(),
            Lines{"[ERROR] RedisStorage::getRaw: " + where() +
                  "GET failed: WRONGTYPE Operation against a key holding the wrong kind of value"});
}

TEST_F(RedisStorageTest, ExpirationIsTheServersTimeToLive) {
  ASSERT_TRUE(writeRecord(redis, "k", "v", 100));
  const long left = std::stol(server.command({"PTTL", "app:k"}).substr(1));
  EXPECT_TRUE(left > 98000 && left <= 100000) << left;
  ASSERT_TRUE(writeRecord(redis, "k", "v"));  // replaced: no lifetime any more
  EXPECT_EQ(server.command({"TTL", "app:k"}), ":-1");
  // Key, seconds, result, then TTL (-1: no lifetime, -2: no key); taking a
  // lifetime from a record without one still finds a record.
  for (const auto& [key, seconds, result, ttl] :
       std::vector<std::tuple<std::string, unsigned, bool, std::string>>{
           {"k", 3600, true, ":3600"}, {"k", 0, true, ":-1"}, {"k", 0, true, ":-1"},
           {"nobody", 10, false, ":-2"}, {"nobody", 0, false, ":-2"}}) {
    EXPECT_EQ(redis.setExpiration(key, seconds), result) << key << seconds;
    EXPECT_EQ(server.command({"TTL", "app:" + key}), ttl) << key << seconds;
  }
}

// Thousands of records take many SCAN batches (never KEYS). A stopped server
// ends a walk at once, fails every operation cleanly with a line naming it,
// and serves the same store again once it is back.
TEST_F(RedisStorageTest, WalksScanAndRecoverWhenTheServerComesBack) {
  Records records;
  for (unsigned i = 0; i < 1500; ++i) records["k" + std::to_string(i)] = std::to_string(i);
  for (const auto& [key, bytes] : records) ASSERT_TRUE(writeRecord(redis, key, bytes));
  EXPECT_EQ(server.command({"CONFIG", "RESETSTAT"}), "+OK");
  EXPECT_EQ(drain(redis), records);
  EXPECT_EQ(redis.getNumElements(), 1500u);
  const std::string stats = server.command({"INFO", "commandstats"});
  EXPECT_NE(stats.find("cmdstat_scan:"), std::string::npos);
  EXPECT_EQ(stats.find("cmdstat_keys:"), std::string::npos);
  EXPECT_TRUE(redis.delAll());
  EXPECT_EQ(server.command({"DBSIZE"}), ":0");

  ASSERT_TRUE(writeRecord(redis, "a", "1") && writeRecord(redis, "b", "2"));
  ASSERT_TRUE(redis.startGetAll());
  server.stop();
  TraceCapture trace;
  std::string key;
  char* data = nullptr;
  unsigned len = 100;
  EXPECT_FALSE(redis.getNextRaw(key, data, len));  // the walk ends, not a skip per record
  EXPECT_TRUE(len == 0 && data == nullptr) << len;
  const std::string closed = "GET failed: connection closed by the server";
  EXPECT_EQ(redis.lastError(), closed);
  EXPECT_EQ(trace.messages(),
            (Lines{"[ERROR] RedisStorage::getRaw: " + where() + closed,
                   "[ERROR] RedisStorage::getNextInternal: " + where() +
                       "the walk over the records broke off: " + closed,
                   "[INFO] RedisStorage::getNextRaw: end of storage was reached"}));
  redis.endGetAll();
  trace.clear();
  RedisStorage lost("127.0.0.1", server.port(), "app:", 1000);
  EXPECT_FALSE(redis.isInStorage("a"));
  const std::string refused = where() + "cannot connect: Connection refused";
  EXPECT_EQ(trace.messages(), (Lines{"[ERROR] RedisStorage::RedisStorage: " + refused,
                                     "[ERROR] RedisStorage::isInStorage: " + refused}));

  ASSERT_TRUE(server.restart());  // empty: the server keeps nothing on disk
  EXPECT_TRUE(writeRecord(redis, "a", "again"));
  EXPECT_EQ(readRecord(redis, "a"), "again");
  EXPECT_EQ(redis.getNumElements(), 1u);
}

}  // namespace
