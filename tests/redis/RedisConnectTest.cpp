// RedisStorage reaching a production-like server: with a password or an ACL
// user, in a database of its own, over a unix socket, and through sentinels
// that fail the master over to its replica while the same store object
// keeps working.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "LoginStorage/redis/RedisStorage.h"
#include "RedisServer.h"
#include "ScriptedServer.h"
#include "support/Records.h"
#include "support/TraceCapture.h"

using testsupport::readRecord;
using testsupport::RedisServer;
using testsupport::writeRecord;
using VelLogin::RedisOptions;
using VelLogin::RedisStorage;

namespace {

// Polls a server's state while it settles; false when it has not within
// thirty seconds.
template <typename Condition>
bool eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

TEST(RedisConnectTest, PasswordAclUserDatabaseAndUnixSocket) {
  testsupport::TempFolder sockets;
  const std::string socket = sockets / "redis.sock";
  RedisServer server({"--requirepass", "pw", "--user", "alice", "on", ">secret", "~app:*", "+@all",
                      "--unixsocket", socket, "--unixsocketperm", "700"},
                     "pw");
  if (!server.started()) GTEST_SKIP() << "redis-server could not be started";
  const struct {
    const char* name;
    std::string user, password;
    unsigned database;
    std::string socket;  // when set, the host is one that does not resolve
    unsigned port;       // 0: the server's
    std::string error;   // empty: the record is stored and read back
  } cases[] = {
      {"password", "", "pw", 0, "", 0, ""},
      {"ACL user", "alice", "secret", 0, "", 0, ""},
      {"database", "", "pw", 3, "", 0, ""},
      {"unix socket", "alice", "secret", 5, socket, 0, ""},
      {"no password", "", "", 0, "", 0, "SET failed: NOAUTH Authentication required."},
      {"wrong password", "alice", "pw", 0, "", 0,
       "AUTH failed: WRONGPASS invalid username-password pair or user is disabled."},
      {"no such database", "", "pw", 99, "", 0, "SELECT failed: ERR DB index is out of range"},
      {"socket path too long", "", "pw", 0, sockets / std::string(120, 's'), 0,
       "cannot connect: unix socket path too long"},
      {"port out of range", "", "pw", 0, "", 70000, "cannot connect: port 70000 out of range"},
      {"no server", "", "pw", 0, "", testsupport::freeLoopbackPort(),
       "cannot connect: Connection refused"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RedisOptions options;
    options.port = c.port != 0 ? c.port : server.port();
    if (!c.socket.empty()) options.host = "nowhere.invalid";
    options.unixSocket = c.socket;
    options.user = c.user;
    options.password = c.password;
    options.database = c.database;
    options.prefix = "app:";
    testsupport::TraceCapture trace;
    RedisStorage store(options);
    const std::string value = std::string("from ") + c.name;
    EXPECT_EQ(writeRecord(store, "k", value), c.error.empty());
    EXPECT_EQ(store.lastError(), c.error);
    if (!c.error.empty()) {
      EXPECT_FALSE(store.startGetAll());  // an outage, not an empty store
      EXPECT_EQ(store.getNumElements(), 0u);
      EXPECT_EQ(store.lastError(),
                c.error.substr(0, 4) == "SET " ? "SCAN" + c.error.substr(3) : c.error);
      continue;
    }
    EXPECT_EQ(readRecord(store, "k"), value);
    EXPECT_EQ(store.getNumElements(), 1u);
    EXPECT_EQ(
        server.command({"EVAL", "redis.call('SELECT', ARGV[1]) return redis.call('GET', KEYS[1])",
                        "1", "app:k", std::to_string(c.database)}),
        value);
    EXPECT_TRUE(store.delAll());
  }
}

TEST(RedisConnectTest, TheSameStoreFollowsAFailoverAndKeepsWhatReplicasConfirmed) {
  RedisServer master;
  if (!master.started()) GTEST_SKIP() << "redis-server could not be started";
  const std::string masterPort = std::to_string(master.port());
  RedisServer replica({"--replicaof", "127.0.0.1", masterPort});
  RedisServer sentinel({"--sentinel", "--sentinel", "monitor", "logins", "127.0.0.1", masterPort,
                        "1", "--sentinel", "down-after-milliseconds", "logins", "1000"});
  ASSERT_TRUE(eventually([&] {
    return sentinel.command({"INFO", "sentinel"}).find("slaves=1") != std::string::npos &&
           master.command({"INFO", "replication"}).find("state=online") != std::string::npos;
  }));
  RedisOptions options;
  // The first sentinel is down: the store asks the next.
  options.sentinels = {{"127.0.0.1", testsupport::freeLoopbackPort()},
                       {"127.0.0.1", sentinel.port()}};
  options.masterName = "logins";
  options.prefix = "app:";
  RedisStorage store(options);
  options.waitReplicas = 1;
  RedisStorage durable(options);
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(writeRecord(durable, "k" + std::to_string(i), "confirmed"));
  ASSERT_TRUE(writeRecord(store, "before", "x"));
  // A sentinel that names a replica is not believed.
  const std::string port = std::to_string(replica.port());
  testsupport::ScriptedServer liar(
      {"*2\r\n$9\r\n127.0.0.1\r\n$" + std::to_string(port.size()) + "\r\n" + port + "\r\n"});
  options.sentinels = {{"127.0.0.1", liar.port()}};
  RedisStorage misled(options);
  EXPECT_FALSE(misled.isInStorage("before"));
  EXPECT_EQ(misled.lastError(), "the server the sentinels name is a slave, not a master");

  master.stop(SIGKILL);
  testsupport::TraceCapture quiet;
  ASSERT_TRUE(eventually([&] {
    return writeRecord(store, "after", "y") && readRecord(store, "after") == "y";
  })) << store.lastError();
  EXPECT_NE(replica.command({"INFO", "replication"}).find("role:master"), std::string::npos);
  EXPECT_EQ(store.getNumElements(), 22u);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(readRecord(store, "k" + std::to_string(i)), "confirmed");
  EXPECT_EQ(readRecord(store, "before"), "x");
  // Its connection went down with the old master: the operation that finds
  // it closed fails, the next one asks the sentinels.
  EXPECT_FALSE(durable.isInStorage("k0"));
  EXPECT_EQ(durable.lastError().rfind("EXISTS failed: ", 0), 0u) << durable.lastError();
  // The new master has no replica left: a write that must reach one fails.
  EXPECT_FALSE(writeRecord(durable, "lonely", "z"));
  EXPECT_EQ(durable.lastError(), "WAIT: 0 of 1 replicas confirmed the write in time");
}

}  // namespace
