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
#include "support/RawStoreContract.h"
#include "support/TraceCapture.h"

using namespace testsupport;
using namespace VelLogin;
using Lines = std::vector<std::string>;

// Outside the anonymous namespace: its name becomes part of each contract
// test's name, which then holds no space.
struct RedisEnvironment {
  static constexpr const char* kClass = "RedisStorage";
  static constexpr bool kCounts = true;
  bool ready() const { return server.started(); }
  AbstractStorage& store() { return redis; }
  std::string where() const { return "<127.0.0.1:" + std::to_string(server.port()) + "/app:>: "; }

  RedisServer server;
  RedisStorage redis{"127.0.0.1", server.port(), "app:", 1000};
};

INSTANTIATE_TYPED_TEST_SUITE_P(Redis, RawStoreContract, RedisEnvironment);

namespace {

class RedisStorageTest : public ::testing::Test, protected RedisEnvironment {
 protected:
  void SetUp() override {
    if (!ready()) GTEST_SKIP() << "redis-server could not be started";
  }
};

// Keys are bytes under the prefix, whatever pattern characters it holds; a
// key that is a value of another kind is missing, with the server's cause.
// Lifetimes are the server's: a write with one sets it, a write without one
// clears it, and setExpiration() finds only records that exist.
TEST_F(RedisStorageTest, KeysLifetimesWalksAndRecoveryFromAnOutage) {
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

  // Written with a lifetime (or given one by setExpiration), the seconds,
  // then TTL (-1: none, -2: no record, the key is then one never written).
  const std::tuple<bool, unsigned, std::string> lifetimes[] = {
      {true, 100, ":100"}, {true, 0, ":-1"},   {false, 3600, ":3600"}, {false, 0, ":-1"},
      {false, 0, ":-1"},   {false, 10, ":-2"}, {false, 0, ":-2"},
  };
  for (const auto& [write, seconds, ttl] : lifetimes) {
    const std::string k = ttl == ":-2" ? "nobody" : "k";
    EXPECT_EQ(write ? writeRecord(redis, k, "v", seconds) : redis.setExpiration(k, seconds),
              ttl != ":-2");
    EXPECT_EQ(server.command({"TTL", "app:" + k}), ttl) << k << seconds;
  }
  EXPECT_EQ(server.command({"HSET", "app:hash", "f", "v"}), ":1");
  EXPECT_EQ(readRecord(redis, "hash"), "missing");
  EXPECT_EQ(redis.lastError(),
            "GET failed: WRONGTYPE Operation against a key holding the wrong kind of value");

  // Thousands of records take many SCAN batches (never KEYS). A stopped
  // server ends a walk at once, fails every operation cleanly with a line
  // naming it, and serves the same store again once it is back.
  ASSERT_EQ(server.command({"FLUSHALL"}), "+OK");
  Records records;
  for (unsigned i = 0; i < 1500; ++i) records["k" + std::to_string(i)] = std::to_string(i);
  for (const auto& [name, bytes] : records) ASSERT_TRUE(writeRecord(redis, name, bytes));
  EXPECT_EQ(drain(redis), records);
  EXPECT_EQ(redis.getNumElements(), 1500u);
  EXPECT_EQ(server.command({"INFO", "commandstats"}).find("cmdstat_keys:"), std::string::npos);
  EXPECT_TRUE(redis.delAll());
  EXPECT_EQ(server.command({"DBSIZE"}), ":0");

  ASSERT_TRUE(writeRecord(redis, "a", "1") && writeRecord(redis, "b", "2"));
  ASSERT_TRUE(redis.startGetAll());
  server.stop();
  TraceCapture trace;
  EXPECT_EQ(drain(redis, false), Records{});  // the walk ends, not a skip per record
  const std::string closed = "GET failed: connection closed by the server";
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
  TempFolder sockets;
  RedisServer server({"--requirepass", "pw", "--user", "alice", "on", ">secret", "~app:*", "+@all",
                      "--unixsocket", sockets / "redis.sock", "--unixsocketperm", "700"},
                     "pw");
  if (!server.started()) GTEST_SKIP() << "redis-server could not be started";
  // User, password, database, unix socket (the host then one that does not
  // resolve), port, and the cause of the failure (empty: the record is stored
  // and read back).
  using Row = std::tuple<std::string, std::string, unsigned, std::string, unsigned, std::string>;
  const std::vector<Row> rows = {
      {"", "pw", 0, "", server.port(), ""},
      {"alice", "secret", 5, sockets / "redis.sock", server.port(), ""},
      {"", "", 0, "", server.port(), "SET failed: NOAUTH Authentication required."},
      {"alice", "pw", 0, "", server.port(),
       "AUTH failed: WRONGPASS invalid username-password pair or user is disabled."},
      {"", "pw", 99, "", server.port(), "SELECT failed: ERR DB index is out of range"},
      {"", "pw", 0, sockets / std::string(120, 's'), server.port(),
       "cannot connect: unix socket path too long"},
      {"", "pw", 0, "", 70000, "cannot connect: port 70000 out of range"},
      {"", "pw", 0, "", freeLoopbackPort(), "cannot connect: Connection refused"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row));
    RedisOptions options;
    std::string error;
    std::tie(options.user, options.password, options.database, options.unixSocket, options.port,
             error) = row;
    if (!options.unixSocket.empty()) options.host = "nowhere.invalid";
    TraceCapture trace;
    RedisStorage store(options);
    const std::string value = "as " + options.user + std::to_string(options.database);
    EXPECT_EQ(writeRecord(store, "app:k", value), error.empty());
    EXPECT_EQ(store.lastError(), error);
    EXPECT_EQ(store.startGetAll(), error.empty());  // an outage, not an empty store
    store.endGetAll();
    if (!error.empty()) continue;
    EXPECT_EQ(readRecord(store, "app:k"), value);
    EXPECT_EQ(store.getNumElements(), 1u);
    const std::string keyspace = "db" + std::to_string(options.database) + ":keys=1,";
    EXPECT_NE(server.command({"INFO", "keyspace"}).find(keyspace), std::string::npos);
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
  options.sentinels = {{"127.0.0.1", freeLoopbackPort()}, {"127.0.0.1", sentinel.port()}};
  options.masterName = "logins";
  RedisStorage store(options);
  options.waitReplicas = 1;
  RedisStorage durable(options);
  // A loaded machine may keep the replica's confirmation past one write's deadline.
  ASSERT_TRUE(eventually([&] { return writeRecord(durable, "k", "confirmed"); }));
  ASSERT_TRUE(writeRecord(store, "before", "x"));
  // A sentinel that names a replica is not believed.
  const std::string port = std::to_string(replica.port());
  RedisServer liar(RedisServer::Script{
      {"*2\r\n$9\r\n127.0.0.1\r\n$" + std::to_string(port.size()) + "\r\n" + port + "\r\n"}});
  options.sentinels = {{"127.0.0.1", liar.port()}};
  RedisStorage misled(options);
  EXPECT_FALSE(misled.isInStorage("before"));
  EXPECT_EQ(misled.lastError(), "the server the sentinels name is a slave, not a master");

  master.stop(SIGKILL);
  TraceCapture quiet;
  ASSERT_TRUE(eventually([&] {
    return writeRecord(store, "after", "y") && readRecord(store, "after") == "y";
  })) << store.lastError();
  EXPECT_NE(replica.command({"INFO", "replication"}).find("role:master"), std::string::npos);
  EXPECT_EQ(drain(store), (Records{{"after", "y"}, {"before", "x"}, {"k", "confirmed"}}));
  // Its connection went down with the old master: the operation that finds
  // it closed fails, the next one asks the sentinels.
  EXPECT_FALSE(durable.isInStorage("k"));
  EXPECT_EQ(durable.lastError().rfind("EXISTS failed: ", 0), 0u) << durable.lastError();
  // The new master has no replica left: a write that must reach one fails.
  EXPECT_FALSE(writeRecord(durable, "lonely", "z"));
  EXPECT_EQ(durable.lastError(), "WAIT: 0 of 1 replicas confirmed the write in time");
}

std::string scan(const std::string& cursor, const std::string& keys) {
  return "*2\r\n$" + std::to_string(cursor.size()) + "\r\n" + cursor + "\r\n" + keys;
}

// A server that misbehaves: every operation returns within its deadline with
// a false or empty result, the cause in lastError() and a trace line, and
// nothing crashes or allocates what the server merely announces.
TEST(RedisConnectTest, EveryMisbehaviourFailsCleanlyWithinTheDeadline) {
  const std::string answered = "protocol error: SCAN answered ";
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
      {'g',
       {"$2147483647\r\n"},
       "missing",
       "protocol error: GET answered a bulk string of 2147483647 bytes, above 536870912"},
      {'g', {"$100000000\r\n"}, "missing", "timeout: GET not answered in time"},  // never sent
      {'g', {"$5\r\nhello\r\n"}, "missing", "timeout: GET not answered in time", 250},
      {'n', {scan("0", "*10001\r\n")}, "0", answered + "an array of 10001 elements, above 10002"},
      {'n', {scan("5", "*0\r\n")}, "0", answered + "cursor 5 again and again"},
      {'n', {scan("0", "*1\r\n$1\r\nx\r\n")}, "0", answered + "a key outside the prefix"},
      {'n', {scan("0", "*1\r\n:1\r\n")}, "0", answered + "a key that is not a string"},
      {'n', {scan("0", "*1\r\n$-1\r\n")}, "0", answered + "a key that is not a string"},
      {'n', {scan("x", "*0\r\n")}, "0", answered + "a cursor that is not a number"},
      {'n',
       {scan("7", "*2\r\n$3\r\np:a\r\n$3\r\np:b\r\n"), scan("0", "*1\r\n$3\r\np:a\r\n")},
       "2",
       ""},
      {'n', {scan("7", "*1\r\n$3\r\np:a\r\n"), "-ERR boom\r\n"}, "0", "SCAN failed: ERR boom"},
  };
  const auto deadline = std::chrono::milliseconds(300);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.replies));
    RedisServer server(RedisServer::Script{c.replies, std::chrono::milliseconds(c.dripMs)});
    RedisStorage store("127.0.0.1", server.port(), "p:", static_cast<unsigned>(deadline.count()));
    TraceCapture trace;
    const auto begin = std::chrono::steady_clock::now();
    // What the operation gave, as text: the record or "missing", "true" or
    // "false", or the count.
    const std::string result = c.operation == 'g' ? readRecord(store, "k")
                               : c.operation == 's'
                                   ? (store.setRaw("k", "v", 1, 0) ? "true" : "false")
                                   : std::to_string(store.getNumElements());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, deadline + std::chrono::milliseconds(100));
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(store.lastError(), c.error);
    std::string errors;  // the error lines, each ended by a newline
    for (const std::string& line : trace.messages())
      if (line.rfind("[ERROR] ", 0) == 0) errors += line + "\n";
    EXPECT_EQ(errors.find(c.error + "\n") != std::string::npos, !c.error.empty()) << errors;
  }
}

}  // namespace
