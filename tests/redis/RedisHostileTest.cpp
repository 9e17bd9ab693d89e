// RedisStorage against a server that misbehaves: every operation returns
// within its deadline with a false or empty result, the cause in
// lastError() and a trace line, and nothing crashes or allocates what the
// server merely announces.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "LoginStorage/redis/RedisStorage.h"
#include "RedisServer.h"
#include "ScriptedServer.h"
#include "support/TraceCapture.h"

using testsupport::ScriptedServer;
using testsupport::TraceCapture;

namespace {

enum class Operation { Get, Set, Count, Walk };

// What the operation gave, as text: the record or "missing", "true" or
// "false", the count, or "refused" or the records a walk delivered.
std::string perform(Operation operation, VelLogin::RedisStorage& store) {
  switch (operation) {
    case Operation::Get:
      return testsupport::readRecord(store, "k");
    case Operation::Set:
      return store.setRaw("k", "v", 1, 0) ? "true" : "false";
    case Operation::Count:
      return std::to_string(store.getNumElements());
    case Operation::Walk: {
      if (!store.startGetAll()) return "refused";
      std::string records;
      for (const auto& [key, bytes] : testsupport::drain(store, false)) {
        records += key + "=" + bytes + ";";
      }
      store.endGetAll();
      return records;
    }
  }
  return "";
}

std::string scan(const std::string& cursor, const std::string& keys) {
  return "*2\r\n$" + std::to_string(cursor.size()) + "\r\n" + cursor + "\r\n" + keys;
}

struct Case {
  const char* name;
  Operation operation;
  std::vector<std::string> replies;
  std::string result;
  std::string error;
  unsigned dripMs = 0;
};

TEST(RedisHostileTest, EveryMisbehaviourFailsCleanlyWithinTheDeadline) {
  const std::string answered = "protocol error: SCAN answered ";
  const std::vector<Case> cases = {
      {"garbage", Operation::Get, {"hello\r\n"}, "missing",
       "protocol error: GET answered an unexpected byte 104"},
      {"error reply", Operation::Get, {"-ERR boom\r\n"}, "missing", "GET failed: ERR boom"},
      {"closed", Operation::Get, {""}, "missing", "GET failed: connection closed by the server"},
      {"wrong type", Operation::Get, {":1\r\n"}, "missing",
       "protocol error: GET answered neither a record nor nil"},
      {"no OK", Operation::Set, {"+QUEUED\r\n"}, "false", "protocol error: SET answered no OK"},
      {"huge bulk", Operation::Get, {"$2147483647\r\n"}, "missing",
       "protocol error: GET answered a bulk string of 2147483647 bytes, above 536870912"},
      {"announced, never sent", Operation::Get, {"$100000000\r\n"}, "missing",
       "timeout: GET not answered in time"},
      {"slow drip", Operation::Get, {"$5\r\nhello\r\n"}, "missing",
       "timeout: GET not answered in time", 250},
      {"not authenticated", Operation::Walk, {"-NOAUTH Authentication required.\r\n"}, "refused",
       "SCAN failed: NOAUTH Authentication required."},
      {"huge array", Operation::Count, {"*2147483647\r\n"}, "0",
       answered + "an array of 2147483647 elements, above 10002"},
      {"batch too long", Operation::Count, {scan("0", "*10001\r\n")}, "0",
       answered + "an array of 10001 elements, above 10002"},
      {"cursor loop", Operation::Count, {scan("5", "*0\r\n")}, "0",
       answered + "cursor 5 again and again"},
      {"short key", Operation::Count, {scan("0", "*1\r\n$1\r\nx\r\n")}, "0",
       answered + "a key outside the prefix"},
      {"integer key", Operation::Count, {scan("0", "*1\r\n:1\r\n")}, "0",
       answered + "a key that is not a string"},
      {"nil key", Operation::Count, {scan("0", "*1\r\n$-1\r\n")}, "0",
       answered + "a key that is not a string"},
      {"nested key", Operation::Count, {scan("0", "*1\r\n*0\r\n")}, "0",
       answered + "a key that is not a string"},
      {"cursor not a number", Operation::Count, {scan("x", "*0\r\n")}, "0",
       answered + "a cursor that is not a number"},
      {"repeated keys", Operation::Count,
       {scan("7", "*2\r\n$3\r\np:a\r\n$3\r\np:b\r\n"), scan("0", "*1\r\n$3\r\np:a\r\n")}, "2", ""},
      {"walk broken off", Operation::Walk,
       {scan("7", "*1\r\n$3\r\np:a\r\n"), "$1\r\nv\r\n", "-ERR boom\r\n"}, "a=v;",
       "SCAN failed: ERR boom"},
  };
  const auto deadline = std::chrono::milliseconds(300);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedServer server(c.replies, std::chrono::milliseconds(c.dripMs));
    VelLogin::RedisOptions options;
    options.port = server.port();
    options.prefix = "p:";
    options.timeoutMs = static_cast<unsigned>(deadline.count());
    VelLogin::RedisStorage store(options);
    TraceCapture trace;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(perform(c.operation, store), c.result);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, deadline + std::chrono::milliseconds(100));
    EXPECT_EQ(store.lastError(), c.error);
    if (c.error.empty()) continue;
    bool traced = false;
    for (const std::string& line : trace.messages()) {
      traced = traced || (line.rfind("[ERROR] ", 0) == 0 && line.size() >= c.error.size() &&
                          line.compare(line.size() - c.error.size(), c.error.size(), c.error) == 0);
    }
    EXPECT_TRUE(traced) << "no trace line ends with the cause";
  }
}

}  // namespace
