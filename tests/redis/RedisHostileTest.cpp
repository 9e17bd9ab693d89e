// RedisStorage against a server that misbehaves: every operation returns
// within its deadline with a false or empty result, the cause in
// lastError() and a trace line, and nothing crashes or allocates what the
// server merely announces.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "LoginStorage/redis/RedisStorage.h"
#include "ScriptedServer.h"
#include "support/Records.h"
#include "support/TraceCapture.h"

namespace {

// What the operation gave, as text: the record or "missing", "true" or
// "false", the count, or "refused" or the records a walk delivered.
std::string perform(char operation, VelLogin::RedisStorage& store) {
  if (operation == 'g') return testsupport::readRecord(store, "k");
  if (operation == 's') return store.setRaw("k", "v", 1, 0) ? "true" : "false";
  if (operation == 'n') return std::to_string(store.getNumElements());
  if (!store.startGetAll()) return "refused";
  std::string records;
  for (const auto& [key, bytes] : testsupport::drain(store, false)) records += key + "=" + bytes;
  return records;
}

std::string scan(const std::string& cursor, const std::string& keys) {
  return "*2\r\n$" + std::to_string(cursor.size()) + "\r\n" + cursor + "\r\n" + keys;
}

TEST(RedisHostileTest, EveryMisbehaviourFailsCleanlyWithinTheDeadline) {
  const std::string answered = "protocol error: SCAN answered ";
  const struct {
    const char* name;
    char operation;  // get, set, number of elements, walk
    std::vector<std::string> replies;
    std::string result, error;
    unsigned dripMs;
  } cases[] = {
      {"garbage", 'g', {"hello\r\n"}, "missing",
       "protocol error: GET answered an unexpected byte 104", 0},
      {"error reply", 'g', {"-ERR boom\r\n"}, "missing", "GET failed: ERR boom", 0},
      {"closed", 'g', {""}, "missing", "GET failed: connection closed by the server", 0},
      {"wrong type", 'g', {":1\r\n"}, "missing",
       "protocol error: GET answered neither a record nor nil", 0},
      {"no OK", 's', {"+QUEUED\r\n"}, "false", "protocol error: SET answered no OK", 0},
      {"huge bulk", 'g', {"$2147483647\r\n"}, "missing",
       "protocol error: GET answered a bulk string of 2147483647 bytes, above 536870912", 0},
      {"announced, never sent", 'g', {"$100000000\r\n"}, "missing",
       "timeout: GET not answered in time", 0},
      {"slow drip", 'g', {"$5\r\nhello\r\n"}, "missing", "timeout: GET not answered in time", 250},
      {"huge array", 'n', {"*2147483647\r\n"}, "0",
       answered + "an array of 2147483647 elements, above 10002", 0},
      {"batch too long", 'n', {scan("0", "*10001\r\n")}, "0",
       answered + "an array of 10001 elements, above 10002", 0},
      {"cursor loop", 'n', {scan("5", "*0\r\n")}, "0", answered + "cursor 5 again and again", 0},
      {"short key", 'n', {scan("0", "*1\r\n$1\r\nx\r\n")}, "0",
       answered + "a key outside the prefix", 0},
      {"integer key", 'n', {scan("0", "*1\r\n:1\r\n")}, "0", answered + "a key that is not a string", 0},
      {"nil key", 'n', {scan("0", "*1\r\n$-1\r\n")}, "0", answered + "a key that is not a string", 0},
      {"nested key", 'n', {scan("0", "*1\r\n*0\r\n")}, "0", answered + "a key that is not a string", 0},
      {"cursor not a number", 'n', {scan("x", "*0\r\n")}, "0",
       answered + "a cursor that is not a number", 0},
      {"repeated keys", 'n',
       {scan("7", "*2\r\n$3\r\np:a\r\n$3\r\np:b\r\n"), scan("0", "*1\r\n$3\r\np:a\r\n")}, "2", "", 0},
      {"walk broken off", 'w', {scan("7", "*1\r\n$3\r\np:a\r\n"), "$1\r\nv\r\n", "-ERR boom\r\n"},
       "a=v", "SCAN failed: ERR boom", 0},
  };
  const auto deadline = std::chrono::milliseconds(300);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testsupport::ScriptedServer server(c.replies, std::chrono::milliseconds(c.dripMs));
    VelLogin::RedisOptions options;
    options.port = server.port();
    options.prefix = "p:";
    options.timeoutMs = static_cast<unsigned>(deadline.count());
    VelLogin::RedisStorage store(options);
    testsupport::TraceCapture trace;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(perform(c.operation, store), c.result);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, deadline + std::chrono::milliseconds(100));
    EXPECT_EQ(store.lastError(), c.error);
    const std::vector<std::string> lines = trace.messages();
    EXPECT_TRUE(c.error.empty() || std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
                  return line.rfind("[ERROR] ", 0) == 0 && line.size() > c.error.size() &&
                         line.compare(line.size() - c.error.size(), c.error.size(), c.error) == 0;
                })) << "no trace line ends with the cause";
  }
}

}  // namespace
