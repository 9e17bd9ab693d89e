// RedisStorage against real servers: the raw-store contract, keys under the
// prefix, lifetimes, the SCAN walk, and what the store does when the server
// is missing or restarted; reaching a production-like one (a password or an
// ACL user, a database of its own, a unix socket, sentinels that fail the
// master over to its replica while the same store object keeps working);
// and one that misbehaves.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "LoginStorage/redis/RedisStorage.h"
#include "RedisServer.h"
#include "ScriptedServer.h"
#include "support/RawStoreContract.h"
#include "support/TraceCapture.h"

using testsupport::drain;
using testsupport::readRecord;
using testsupport::Records;
using testsupport::RedisServer;
using testsupport::TraceCapture;
using testsupport::writeRecord;
using VelLogin::RedisOptions;
using VelLogin::RedisStorage;
using Lines = std::vector<std::string>;

// Outside the anonymous namespace: its name becomes part of each contract
// test's name, which then holds no space.
struct RedisEnvironment {
  static constexpr const char* kClass = "RedisStorage";
  static constexpr bool kCounts = true;
  bool ready() const { return server.started(); }
  VelLogin::AbstractStorage& store() { return redis; }
  std::string where() const { return "<127.0.0.1:" + std::to_string(server.port()) + "/app:>: "; }

  testsupport::RedisServer server;
  RedisStorage redis{"127.0.0.1", server.port(), "app:", 1000};
};

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
  ASSERT_TRUE(writeRecord(redis, key, value) && writeRecord(glob, "k", "G"));
  EXPECT_EQ(server.command({"SET", "gyyx?\\k", "decoy"}), "+OK");
  EXPECT_EQ(server.command({"GET", "app:" + key}), value);
  EXPECT_EQ(readRecord(redis, "k"), "missing");
  EXPECT_EQ(redis.lastError(), "");  // missing, not failed
  EXPECT_EQ(glob.getNumElements(), 1u);
  EXPECT_EQ(drain(glob), (Records{{"k", "G"}}));
  EXPECT_TRUE(glob.delAll());
  EXPECT_EQ(server.command({"DBSIZE"}), ":2");  // the record and the decoy

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
  EXPECT_EQ(drain(redis), records);
  EXPECT_EQ(redis.getNumElements(), 1500u);
  EXPECT_EQ(server.command({"INFO", "commandstats"}).find("cmdstat_keys:"), std::string::npos);
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

// Polls a server's state while it settles; false when it has not within
// thirty seconds.
template <typename Condition>
bool eventually(Condition condition) {
  for (int attempt = 0; attempt < 600; ++attempt) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

TEST(RedisConnectTest, PasswordAclUserDatabaseAndUnixSocket) {
  testsupport::TempFolder sockets;
  RedisServer server({"--requirepass", "pw", "--user", "alice", "on", ">secret", "~app:*", "+@all",
                      "--unixsocket", sockets / "redis.sock", "--unixsocketperm", "700"},
                     "pw");
  if (!server.started()) GTEST_SKIP() << "redis-server could not be started";
  const struct {
    std::string user, password;
    unsigned database;
    std::string error;        // empty: the record is stored and read back
    std::string socket = "";  // when set, the host is one that does not resolve
    unsigned port = 0;        // 0: the server's
  } cases[] = {
      {"", "pw", 0, ""},
      {"alice", "secret", 0, ""},
      {"alice", "secret", 5, "", sockets / "redis.sock"},
      {"", "", 0, "SET failed: NOAUTH Authentication required."},
      {"alice", "pw", 0,
       "AUTH failed: WRONGPASS invalid username-password pair or user is disabled."},
      {"", "pw", 99, "SELECT failed: ERR DB index is out of range"},
      {"", "pw", 0, "cannot connect: unix socket path too long", sockets / std::string(120, 's')},
      {"", "pw", 0, "cannot connect: port 70000 out of range", "", 70000},
      {"", "pw", 0, "cannot connect: Connection refused", "", testsupport::freeLoopbackPort()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    RedisOptions options;
    options.port = c.port != 0 ? c.port : server.port();
    if (!c.socket.empty()) options.host = "nowhere.invalid";
    options.unixSocket = c.socket;
    options.user = c.user;
    options.password = c.password;
    options.database = c.database;
    testsupport::TraceCapture trace;
    RedisStorage store(options);
    const std::string value = "from row " + std::to_string(&c - cases);
    EXPECT_EQ(writeRecord(store, "app:k", value), c.error.empty());
    EXPECT_EQ(store.lastError(), c.error);
    if (!c.error.empty()) {
      EXPECT_FALSE(store.startGetAll());  // an outage, not an empty store
      EXPECT_EQ(store.getNumElements(), 0u);
      EXPECT_EQ(store.lastError(),
                c.error.substr(0, 4) == "SET " ? "DBSIZE" + c.error.substr(3) : c.error);
      continue;
    }
    EXPECT_EQ(readRecord(store, "app:k"), value);
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
  RedisStorage store(options);
  options.waitReplicas = 1;
  RedisStorage durable(options);
  ASSERT_TRUE(writeRecord(durable, "k", "confirmed") && writeRecord(store, "before", "x"));
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
  EXPECT_EQ(testsupport::drain(store),
            (testsupport::Records{{"after", "y"}, {"before", "x"}, {"k", "confirmed"}}));
  // Its connection went down with the old master: the operation that finds
  // it closed fails, the next one asks the sentinels.
  EXPECT_FALSE(durable.isInStorage("k"));
  EXPECT_EQ(durable.lastError().rfind("EXISTS failed: ", 0), 0u) << durable.lastError();
  // The new master has no replica left: a write that must reach one fails.
  EXPECT_FALSE(writeRecord(durable, "lonely", "z"));
  EXPECT_EQ(durable.lastError(), "WAIT: 0 of 1 replicas confirmed the write in time");
}

// What the operation gave, as text: the record or "missing", "true" or
// "false", or the count.
std::string perform(char operation, VelLogin::RedisStorage& store) {
  if (operation == 'g') return testsupport::readRecord(store, "k");
  if (operation == 's') return store.setRaw("k", "v", 1, 0) ? "true" : "false";
  return std::to_string(store.getNumElements());
}

std::string scan(const std::string& cursor, const std::string& keys) {
  return "*2\r\n$" + std::to_string(cursor.size()) + "\r\n" + cursor + "\r\n" + keys;
}

// A server that misbehaves: every operation returns within its deadline with
// a false or empty result, the cause in lastError() and a trace line, and
// nothing crashes or allocates what the server merely announces.
TEST(RedisConnectTest, EveryMisbehaviourFailsCleanlyWithinTheDeadline) {
  const std::string answered = "protocol error: SCAN answered ",
                    notString = "a key that is not a string";
  // Operation (get, set, number of elements), the script, what the
  // operation gives, and the cause in lastError().
  const struct {
    char operation;
    std::vector<std::string> replies;
    std::string result, error;
    unsigned dripMs = 0;
  } cases[] = {
      {'g', {"hello\r\n"}, "missing", "protocol error: GET answered an unexpected byte 104"},
      {'g', {"-ERR boom\r\n"}, "missing", "GET failed: ERR boom"},
      {'g', {""}, "missing", "GET failed: connection closed by the server"},
      {'g', {":1\r\n"}, "missing", "protocol error: GET answered neither a record nor nil"},
      {'s', {"+QUEUED\r\n"}, "false", "protocol error: SET answered no OK"},
      {'g', {"$2147483647\r\n"}, "missing",
       "protocol error: GET answered a bulk string of 2147483647 bytes, above 536870912"},
      {'g', {"$100000000\r\n"}, "missing", "timeout: GET not answered in time"},  // never sent
      {'g', {"$5\r\nhello\r\n"}, "missing", "timeout: GET not answered in time", 250},
      {'n', {"*2147483647\r\n"}, "0", answered + "an array of 2147483647 elements, above 10002"},
      {'n', {scan("0", "*10001\r\n")}, "0", answered + "an array of 10001 elements, above 10002"},
      {'n', {scan("5", "*0\r\n")}, "0", answered + "cursor 5 again and again"},
      {'n', {scan("0", "*1\r\n$1\r\nx\r\n")}, "0", answered + "a key outside the prefix"},
      {'n', {scan("0", "*1\r\n:1\r\n")}, "0", answered + notString},
      {'n', {scan("0", "*1\r\n$-1\r\n")}, "0", answered + notString},
      {'n', {scan("0", "*1\r\n*0\r\n")}, "0", answered + notString},
      {'n', {scan("x", "*0\r\n")}, "0", answered + "a cursor that is not a number"},
      {'n', {scan("7", "*2\r\n$3\r\np:a\r\n$3\r\np:b\r\n"), scan("0", "*1\r\n$3\r\np:a\r\n")},
       "2", ""},
      {'n', {scan("7", "*1\r\n$3\r\np:a\r\n"), "-ERR boom\r\n"}, "0", "SCAN failed: ERR boom"},
  };
  const auto deadline = std::chrono::milliseconds(300);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.replies));
    testsupport::ScriptedServer server(c.replies, std::chrono::milliseconds(c.dripMs));
    RedisStorage store("127.0.0.1", server.port(), "p:", static_cast<unsigned>(deadline.count()));
    testsupport::TraceCapture trace;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(perform(c.operation, store), c.result);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, deadline + std::chrono::milliseconds(100));
    EXPECT_EQ(store.lastError(), c.error);
    std::string errors;  // the error lines, each ended by a newline
    for (const std::string& line : trace.messages()) {
      if (line.rfind("[ERROR] ", 0) == 0) errors += line + "\n";
    }
    EXPECT_EQ(errors.find(c.error + "\n") != std::string::npos, !c.error.empty()) << errors;
  }
}

}  // namespace
