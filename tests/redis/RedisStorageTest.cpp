// RedisStorage against a real server: the raw contract, lifetimes, the SCAN
// walk, and what the store does when the server is missing, silent or
// restarted.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "LoginStorage/redis/RedisStorage.h"
#include "RedisServer.h"
#include "support/TraceCapture.h"

using testsupport::readRecord;
using testsupport::TraceCapture;
using VelLogin::RedisStorage;

namespace {

class RedisStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!server.started()) GTEST_SKIP() << "redis-server could not be started";
    store.reset(new RedisStorage("127.0.0.1", server.port(), "app:", 1000));
  }
  bool set(const std::string& key, const std::string& value, unsigned expiration = 0) {
    return store->setRaw(key, value.data(), static_cast<unsigned>(value.size()), expiration);
  }
  std::string where(unsigned port = 0) const {
    return "<127.0.0.1:" + std::to_string(port != 0 ? port : server.port()) + "/app:>: ";
  }

  testsupport::RedisServer server;
  std::unique_ptr<RedisStorage> store;
};

TEST_F(RedisStorageTest, RawContractOnBinaryRecordsUnderThePrefix) {
  const std::string key("k\0ey", 4), value("\x00\x01\xff\nbytes\x00", 10);
  ASSERT_TRUE(set(key, value));
  EXPECT_EQ(server.command({"GET", "app:" + key}), value);
  EXPECT_EQ(readRecord(*store, key), value);
  EXPECT_EQ(readRecord(*store, key, 9), "too long: 10");
  EXPECT_EQ(readRecord(*store, "k"), "missing");
  EXPECT_EQ(store->lastError(), "");  // missing, not failed
  EXPECT_TRUE(store->isInStorage(key));
  EXPECT_FALSE(store->isInStorage("k"));

  char buffer[10] = "untouched";
  char* data = buffer;
  unsigned len = 4;
  EXPECT_FALSE(store->getRaw(key, data, len));  // too small: the caller's bytes stay
  EXPECT_EQ(len, 10u);
  EXPECT_STREQ(buffer, "untouched");
  len = 10;
  ASSERT_TRUE(store->getRaw(key, data, len));
  EXPECT_EQ(std::string(buffer, len), value);

  TraceCapture trace;
  EXPECT_EQ(readRecord(*store, key, 0), "missing");
  EXPECT_FALSE(store->setRaw("empty", "", 0, 0));
  EXPECT_FALSE(store->setRaw("null", nullptr, 3, 0));
  EXPECT_EQ(server.command({"HSET", "app:hash", "f", "v"}), ":1");
  EXPECT_EQ(readRecord(*store, "hash"), "missing");
  EXPECT_TRUE(store->del(key));
  EXPECT_FALSE(store->del(key));
  EXPECT_EQ(server.command({"DBSIZE"}), ":1");
  EXPECT_EQ(trace.messages(),
            (std::vector<std::string>{
                "[ERROR] RedisStorage::getRaw: ERROR: wrong usage! len==0",
                "[ERROR] RedisStorage::getRaw: " + where() +
                    "GET failed: WRONGTYPE Operation against a key holding the wrong kind of value",
                "[ERROR] RedisStorage::del: " + where() + "SUCCESS in deleting record with key <k>",
                "[ERROR] RedisStorage::del: " + where() + "FAILURE in deleting record with key <k>"}));
}

TEST_F(RedisStorageTest, ExpirationIsTheServersTimeToLive) {
  ASSERT_TRUE(set("k", "v", 100));
  const long ttl = std::stol(server.command({"PTTL", "app:k"}).substr(1));
  EXPECT_GT(ttl, 98000);
  EXPECT_LE(ttl, 100000);
  ASSERT_TRUE(set("k", "v"));  // replaced: no lifetime any more
  EXPECT_EQ(server.command({"TTL", "app:k"}), ":-1");

  EXPECT_TRUE(store->setExpiration("k", 3600));
  EXPECT_EQ(server.command({"TTL", "app:k"}), ":3600");
  EXPECT_TRUE(store->setExpiration("k", 0));
  EXPECT_EQ(server.command({"TTL", "app:k"}), ":-1");
  EXPECT_TRUE(store->setExpiration("k", 0));  // already without one: still a record
  EXPECT_FALSE(store->setExpiration("nobody", 10));
  EXPECT_FALSE(store->setExpiration("nobody", 0));
  EXPECT_EQ(server.command({"EXISTS", "app:nobody"}), ":0");
}

TEST_F(RedisStorageTest, WalkDeliversThousandsOfRecordsOnceWithScan) {
  const unsigned kRecords = 3000;
  for (unsigned i = 0; i < kRecords; ++i) ASSERT_TRUE(set("k" + std::to_string(i), std::to_string(i)));
  EXPECT_EQ(server.command({"SET", "ap:k1", "not ours"}), "+OK");
  EXPECT_EQ(server.command({"CONFIG", "RESETSTAT"}), "+OK");

  ASSERT_TRUE(store->startGetAll());
  TraceCapture trace;
  EXPECT_FALSE(store->startGetAll());  // one walk at a time
  EXPECT_EQ(trace.messages().back(),
            "[ERROR] RedisStorage::startGetAll: ERROR: previous GetAll session was not ended with "
            "endGetAll()");
  store->endGetAll();
  const std::map<std::string, std::string> records = testsupport::drain(*store);
  ASSERT_EQ(records.size(), kRecords);
  for (unsigned i = 0; i < kRecords; i += 7) EXPECT_EQ(records.at("k" + std::to_string(i)), std::to_string(i));
  EXPECT_EQ(store->getNumElements(), kRecords);
  const std::string stats = server.command({"INFO", "commandstats"});
  EXPECT_NE(stats.find("cmdstat_scan:"), std::string::npos);
  EXPECT_EQ(stats.find("cmdstat_keys:"), std::string::npos);

  EXPECT_TRUE(store->delAll());
  EXPECT_EQ(store->getNumElements(), 0u);
  EXPECT_EQ(store->lastError(), "");  // really empty
  EXPECT_EQ(server.command({"DBSIZE"}), ":1");
}

TEST_F(RedisStorageTest, NoServerOrASilentOneGivesCleanFailuresWithinTheTimeout) {
  const unsigned nobody = testsupport::freeLoopbackPort();
  TraceCapture trace;
  RedisStorage lost("127.0.0.1", nobody, "app:", 1000);
  EXPECT_EQ(readRecord(lost, "k"), "missing");
  EXPECT_FALSE(lost.setRaw("k", "v", 1, 0));
  EXPECT_EQ(lost.getNumElements(), 0u);
  EXPECT_FALSE(lost.startGetAll());
  const std::string refused = where(nobody) + "cannot connect: Connection refused";
  EXPECT_EQ(trace.messages(),
            (std::vector<std::string>{"[ERROR] RedisStorage::RedisStorage: " + refused,
                                      "[ERROR] RedisStorage::getRaw: " + refused,
                                      "[ERROR] RedisStorage::setRaw: " + refused,
                                      "[ERROR] RedisStorage::getNumElements: " + refused,
                                      "[INFO] RedisStorage::startGetAll: " + where(nobody) +
                                          "starting GetAll session",
                                      "[ERROR] RedisStorage::startGetAll: " + refused}));

  // A listener that never accepts: connections complete, replies never come.
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(listener, 8), 0);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  RedisStorage silent("127.0.0.1", ntohs(address.sin_port), "app:", 200);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(readRecord(silent, "k"), "missing");
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, std::chrono::milliseconds(150));
  EXPECT_LT(waited, std::chrono::milliseconds(1500));
  EXPECT_EQ(trace.messages().back(), "[ERROR] RedisStorage::getRaw: " +
                                         where(ntohs(address.sin_port)) +
                                         "timeout: GET not answered in time");
  EXPECT_EQ(silent.lastError(), "timeout: GET not answered in time");
  ::close(listener);
}

TEST_F(RedisStorageTest, RecoversWhenTheServerComesBack) {
  for (int i = 0; i < 1500; ++i) ASSERT_TRUE(set("k" + std::to_string(i), "v"));
  ASSERT_TRUE(store->startGetAll());
  std::string key;
  char* data = nullptr;
  unsigned len = 100;
  ASSERT_TRUE(store->getNextRaw(key, data, len));
  delete[] data;
  data = nullptr;

  server.stop();
  TraceCapture trace;
  len = 100;
  EXPECT_FALSE(store->getNextRaw(key, data, len));  // the walk ends, not a skip per record
  EXPECT_EQ(len, 0u);
  const std::string closed = "GET failed: connection closed by the server";
  EXPECT_EQ(store->lastError(), closed);
  EXPECT_EQ(trace.messages(),
            (std::vector<std::string>{
                "[ERROR] RedisStorage::getRaw: " + where() + closed,
                "[ERROR] RedisStorage::getNextInternal: " + where() +
                    "the walk over the records broke off: " + closed,
                "[INFO] RedisStorage::getNextRaw: end of storage was reached"}));
  store->endGetAll();
  EXPECT_FALSE(set("k1", "v"));
  EXPECT_FALSE(store->isInStorage("k1"));
  EXPECT_EQ(trace.messages().back(),
            "[ERROR] RedisStorage::isInStorage: " + where() + "cannot connect: Connection refused");

  ASSERT_TRUE(server.restart());  // empty: the server keeps nothing on disk
  EXPECT_TRUE(set("k1", "again"));
  EXPECT_EQ(readRecord(*store, "k1"), "again");
  EXPECT_EQ(store->getNumElements(), 1u);
}

}  // namespace
