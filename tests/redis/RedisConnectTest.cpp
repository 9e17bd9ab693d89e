// RedisStorage reaching a production-like server: with a password or an ACL
// user, in a database of its own, over a unix socket, and through sentinels
// that fail the master over to its replica while the same store object
// keeps working.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "LoginStorage/redis/RedisStorage.h"
#include "RedisServer.h"
#include "ScriptedServer.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using testsupport::readRecord;
using testsupport::RedisServer;
using testsupport::writeRecord;
using VelLogin::RedisOptions;
using VelLogin::RedisStorage;

namespace {

// Polls a server's state while it settles; false when it has not within
// the time.
template <typename Condition>
bool eventually(Condition condition, std::chrono::seconds within) {
  const auto end = std::chrono::steady_clock::now() + within;
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
  struct Case {
    const char* name;
    std::string user, password;
    unsigned database;
    bool viaSocket;
    std::string error;  // empty: the record is stored and read back
  };
  const std::vector<Case> cases = {
      {"password", "", "pw", 0, false, ""},
      {"ACL user", "alice", "secret", 0, false, ""},
      {"database", "", "pw", 3, false, ""},
      {"unix socket", "alice", "secret", 5, true, ""},
      {"no password", "", "", 0, false, "SET failed: NOAUTH Authentication required."},
      {"wrong password", "alice", "pw", 0, false,
       "AUTH failed: WRONGPASS invalid username-password pair or user is disabled."},
      {"no such database", "", "pw", 99, false, "SELECT failed: ERR DB index is out of range"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RedisOptions options;
    options.port = server.port();
    if (c.viaSocket) {
      options.host = "nowhere.invalid";
      options.unixSocket = socket;
    }
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

  RedisOptions bad;
  bad.unixSocket = sockets / std::string(120, 's');
  EXPECT_FALSE(RedisStorage(bad).isInStorage("k"));
  EXPECT_EQ(RedisStorage(bad).lastError(), "cannot connect: unix socket path too long");
  bad.unixSocket.clear();
  bad.port = 70000;
  EXPECT_EQ(RedisStorage(bad).lastError(), "cannot connect: port 70000 out of range");
}

TEST(RedisConnectTest, TheSameStoreFollowsAFailoverAndKeepsWhatReplicasConfirmed) {
  RedisServer master;
  if (!master.started()) GTEST_SKIP() << "redis-server could not be started";
  const std::string masterPort = std::to_string(master.port());
  RedisServer replica({"--replicaof", "127.0.0.1", masterPort});
  std::vector<std::unique_ptr<RedisServer>> sentinels;
  RedisOptions options;
  for (int i = 0; i < 3; ++i) {
    sentinels.emplace_back(new RedisServer(RedisServer::Sentinel{master.port(), "logins"}));
    ASSERT_TRUE(sentinels.back()->started());
    options.sentinels.push_back({"127.0.0.1", sentinels.back()->port()});
  }
  ASSERT_TRUE(eventually(
      [&] {
        for (const auto& sentinel : sentinels) {
          if (sentinel->command({"INFO", "sentinel"}).find("slaves=1,sentinels=3") ==
              std::string::npos) {
            return false;
          }
        }
        return master.command({"INFO", "replication"}).find("state=online") != std::string::npos;
      },
      std::chrono::seconds(30)));

  options.masterName = "logins";
  options.prefix = "app:";
  options.timeoutMs = 1000;
  RedisStorage store(options);
  options.waitReplicas = 1;
  RedisStorage durable(options);
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(writeRecord(durable, "k" + std::to_string(i), "confirmed"));
  ASSERT_TRUE(writeRecord(store, "before", "x"));

  master.stop(SIGKILL);
  testsupport::TraceCapture quiet;
  auto slowest = std::chrono::steady_clock::duration::zero();
  const auto timed = [&](auto operation) {
    const auto begin = std::chrono::steady_clock::now();
    const bool ok = operation();
    slowest = std::max(slowest, std::chrono::steady_clock::now() - begin);
    return ok;
  };
  const auto promoted = [&] {
    return timed([&] { return writeRecord(store, "after", "y"); }) &&
           timed([&] { return readRecord(store, "after") == "y"; });
  };
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(eventually(promoted, std::chrono::seconds(30))) << store.lastError();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  EXPECT_LT(slowest, std::chrono::milliseconds(1200));
  EXPECT_EQ(replica.command({"ROLE"}).substr(0, 8), "[master,");

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

TEST(RedisConnectTest, ADemotedMasterSendsTheStoreBackToTheSentinels) {
  RedisServer server, other;
  if (!server.started()) GTEST_SKIP() << "redis-server could not be started";
  const std::string port = std::to_string(server.port());
  testsupport::ScriptedServer sentinel(
      {"*2\r\n$9\r\n127.0.0.1\r\n$" + std::to_string(port.size()) + "\r\n" + port + "\r\n"});
  RedisOptions options;
  options.sentinels = {{"127.0.0.1", sentinel.port()}};
  options.masterName = "logins";
  RedisStorage store(options);
  ASSERT_TRUE(writeRecord(store, "k", "v"));

  EXPECT_EQ(server.command({"REPLICAOF", "127.0.0.1", std::to_string(other.port())}), "+OK");
  EXPECT_FALSE(writeRecord(store, "k", "w"));
  EXPECT_EQ(store.lastError(), "SET failed: READONLY You can't write against a read only replica.");
  // Asked again, the sentinel still names it: the store will not read a
  // replica as if it were the master.
  EXPECT_EQ(readRecord(store, "k"), "missing");
  EXPECT_EQ(store.lastError(), "the server the sentinels name is a slave, not a master");

  EXPECT_EQ(server.command({"REPLICAOF", "NO", "ONE"}), "+OK");
  EXPECT_TRUE(writeRecord(store, "k", "x"));
  EXPECT_EQ(readRecord(store, "k"), "x");
}

}  // namespace
