// RedisStorage against a real server: the raw-store contract, keys under the
// prefix, lifetimes, the SCAN walk, and what the store does when the server
// is missing or restarted (a silent or hostile one: RedisHostileTest).
#include <gtest/gtest.h>

#include <string>

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
  bool set(const std::string& key, const std::string& value, unsigned expiration = 0) {
    return writeRecord(redis, key, value, expiration);
  }
};

// Keys are bytes under the prefix; a key that is no record, or is a value of
// another kind, is missing rather than an outage.
TEST_F(RedisStorageTest, BinaryKeysLiveUnderThePrefixAndOtherKindsAreMissing) {
  const std::string key("k\0ey", 4), value("\x00\x01\xff\nbytes\x00", 10);
  ASSERT_TRUE(set(key, value));
  EXPECT_EQ(server.command({"GET", "app:" + key}), value);
  EXPECT_EQ(readRecord(redis, key), value);
  EXPECT_EQ(readRecord(redis, "k"), "missing");
  EXPECT_EQ(redis.lastError(), "");  // missing, not failed

  TraceCapture trace;
  EXPECT_EQ(server.command({"HSET", "app:hash", "f", "v"}), ":1");
  EXPECT_EQ(readRecord(redis, "hash"), "missing");
  EXPECT_EQ(trace.messages(),
            std::vector<std::string>{
                "[ERROR] RedisStorage::getRaw: " + where() +
                "GET failed: WRONGTYPE Operation against a key holding the wrong kind of value"});
}

TEST_F(RedisStorageTest, PrefixesKeepStoresApartEvenWithPatternCharacters) {
  RedisStorage glob("127.0.0.1", server.port(), "g*[x]?\\", 1000);
  RedisStorage all("127.0.0.1", server.port(), "", 1000);
  ASSERT_TRUE(set("k", "A") && writeRecord(glob, "k", "G") && writeRecord(glob, "j", "J"));
  EXPECT_EQ(server.command({"SET", "gyyx?\\k", "decoy"}), "+OK");
  EXPECT_EQ(readRecord(redis, "k"), "A");
  EXPECT_EQ(redis.getNumElements(), 1u);
  EXPECT_EQ(glob.getNumElements(), 2u);
  EXPECT_EQ(all.getNumElements(), 4u);
  EXPECT_EQ(drain(glob), (Records{{"j", "J"}, {"k", "G"}}));
  EXPECT_TRUE(glob.delAll());
  EXPECT_EQ(drain(all), (Records{{"app:k", "A"}, {"gyyx?\\k", "decoy"}}));
}

TEST_F(RedisStorageTest, ExpirationIsTheServersTimeToLive) {
  ASSERT_TRUE(set("k", "v", 100));
  const long ttl = std::stol(server.command({"PTTL", "app:k"}).substr(1));
  EXPECT_GT(ttl, 98000);
  EXPECT_LE(ttl, 100000);
  ASSERT_TRUE(set("k", "v"));  // replaced: no lifetime any more
  EXPECT_EQ(server.command({"TTL", "app:k"}), ":-1");

  EXPECT_TRUE(redis.setExpiration("k", 3600));
  EXPECT_EQ(server.command({"TTL", "app:k"}), ":3600");
  EXPECT_TRUE(redis.setExpiration("k", 0));
  EXPECT_EQ(server.command({"TTL", "app:k"}), ":-1");
  EXPECT_TRUE(redis.setExpiration("k", 0));  // already without one: still a record
  EXPECT_FALSE(redis.setExpiration("nobody", 10));
  EXPECT_FALSE(redis.setExpiration("nobody", 0));
  EXPECT_EQ(server.command({"EXISTS", "app:nobody"}), ":0");
}

TEST_F(RedisStorageTest, WalkDeliversThousandsOfRecordsOnceWithScan) {
  const unsigned kRecords = 3000;
  for (unsigned i = 0; i < kRecords; ++i) {
    ASSERT_TRUE(set("k" + std::to_string(i), std::to_string(i)));
  }
  EXPECT_EQ(server.command({"CONFIG", "RESETSTAT"}), "+OK");

  const Records records = drain(redis);
  ASSERT_EQ(records.size(), kRecords);
  for (unsigned i = 0; i < kRecords; i += 7) {
    EXPECT_EQ(records.at("k" + std::to_string(i)), std::to_string(i));
  }
  EXPECT_EQ(redis.getNumElements(), kRecords);
  const std::string stats = server.command({"INFO", "commandstats"});
  EXPECT_NE(stats.find("cmdstat_scan:"), std::string::npos);
  EXPECT_EQ(stats.find("cmdstat_keys:"), std::string::npos);

  EXPECT_TRUE(redis.delAll());
  EXPECT_EQ(server.command({"DBSIZE"}), ":0");
}

// A stopped server ends a walk at once, fails every operation cleanly with
// a line naming it, and serves the same store again once it is back.
TEST_F(RedisStorageTest, RecoversWhenTheServerComesBack) {
  for (int i = 0; i < 1500; ++i) ASSERT_TRUE(set("k" + std::to_string(i), "v"));
  ASSERT_TRUE(redis.startGetAll());
  std::string key;
  char* data = nullptr;
  unsigned len = 100;
  ASSERT_TRUE(redis.getNextRaw(key, data, len));
  delete[] data;
  data = nullptr;

  server.stop();
  TraceCapture trace;
  len = 100;
  EXPECT_FALSE(redis.getNextRaw(key, data, len));  // the walk ends, not a skip per record
  EXPECT_EQ(len, 0u);
  const std::string closed = "GET failed: connection closed by the server";
  EXPECT_EQ(redis.lastError(), closed);
  EXPECT_EQ(trace.messages(), (std::vector<std::string>{
                                  "[ERROR] RedisStorage::getRaw: " + where() + closed,
                                  "[ERROR] RedisStorage::getNextInternal: " + where() +
                                      "the walk over the records broke off: " + closed,
                                  "[INFO] RedisStorage::getNextRaw: end of storage was reached"}));
  redis.endGetAll();
  trace.clear();
  RedisStorage lost("127.0.0.1", server.port(), "app:", 1000);
  EXPECT_EQ(readRecord(lost, "k"), "missing");
  EXPECT_FALSE(lost.setRaw("k", "v", 1, 0));
  EXPECT_EQ(lost.getNumElements(), 0u);
  EXPECT_FALSE(lost.startGetAll());
  EXPECT_FALSE(redis.isInStorage("k1"));
  const std::string refused = where() + "cannot connect: Connection refused";
  EXPECT_EQ(
      trace.messages(),
      (std::vector<std::string>{
          "[ERROR] RedisStorage::RedisStorage: " + refused,
          "[ERROR] RedisStorage::getRaw: " + refused, "[ERROR] RedisStorage::setRaw: " + refused,
          "[ERROR] RedisStorage::getNumElements: " + refused,
          "[INFO] RedisStorage::startGetAll: " + where() + "starting GetAll session",
          "[ERROR] RedisStorage::startGetAll: " + refused,
          "[ERROR] RedisStorage::isInStorage: " + refused}));

  ASSERT_TRUE(server.restart());  // empty: the server keeps nothing on disk
  EXPECT_TRUE(set("k1", "again"));
  EXPECT_EQ(readRecord(redis, "k1"), "again");
  EXPECT_EQ(redis.getNumElements(), 1u);
}

}  // namespace
