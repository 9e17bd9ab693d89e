#include "redis/RedisScan.h"

#include <chrono>

namespace VelLogin {

namespace {

// Records are walked in batches of about this many keys per SCAN.
constexpr const char* kScanCount = "1000";
// The server returns about COUNT keys per call and a little more when a
// bucket holds several; ten times as many is no SCAN reply.
constexpr size_t kMaxBatch = 10000;
constexpr RedisReply::Limits kScanReply{1024 * 1024, 2 + kMaxBatch, 64 * 1024 * 1024};
// A cursor may come back once when the server's table shrinks during the
// walk; one that keeps coming back is a loop.
constexpr unsigned kMaxCursorVisits = 3;

// A SCAN pattern that matches exactly the keys beginning with prefix.
std::string prefixPattern(const std::string& prefix) {
  std::string pattern;
  for (char c : prefix) {
    if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') pattern += '\\';
    pattern += c;
  }
  return pattern + "*";
}

}  // namespace

RedisScan::RedisScan(RedisConnection& connection, const std::string& prefix)
    : m_connection(connection), m_prefix(prefix), m_pattern(prefixPattern(prefix)) {}

void RedisScan::start() {
  m_cursor = "0";
  m_done = false;
  m_spent = {};
  m_end = RedisConnection::Clock::now() + std::chrono::milliseconds(m_connection.walkTimeoutMs());
  m_cursorsSeen.clear();
  m_keysSeen.clear();
}

bool RedisScan::failed() {
  m_done = true;
  return false;
}

bool RedisScan::next(std::vector<std::string>& keys) {
  keys.clear();
  if (m_done) return true;
  const auto budget = std::chrono::milliseconds(m_connection.walkTimeoutMs());
  if (m_spent >= budget) {
    m_connection.fail("timeout: the walk over the records took more than " +
                      std::to_string(m_connection.walkTimeoutMs()) + " ms");
    return failed();
  }
  const auto begin = RedisConnection::Clock::now();
  m_connection.startStep(begin + (budget - m_spent));
  const RedisReply* reply =
      m_connection.run({"SCAN", m_cursor, "MATCH", m_pattern, "COUNT", kScanCount}, kScanReply);
  m_spent += RedisConnection::Clock::now() - begin;
  if (reply == nullptr) return failed();
  const RedisReply::Node root = reply->root();
  if (root.type() != RedisReply::Type::Array || root.size() != 2 ||
      root.first().type() != RedisReply::Type::String ||
      root.first().next().type() != RedisReply::Type::Array) {
    m_connection.protocolError("SCAN", "no cursor and batch");
    return failed();
  }
  const RedisReply::Node batch = root.first().next();
  RedisReply::Node element = batch.first();
  for (size_t i = 0; i < batch.size(); ++i, element = element.next()) {
    if (element.type() != RedisReply::Type::String) {
      m_connection.protocolError("SCAN", "a key that is not a string");
      return failed();
    }
    const std::string_view key = element.text();
    if (key.substr(0, m_prefix.size()) != m_prefix) {
      m_connection.protocolError("SCAN", "a key outside the prefix");
      return failed();
    }
    if (m_keysSeen.emplace(key).second) keys.emplace_back(key.substr(m_prefix.size()));
  }
  const std::string_view cursor = root.first().text();
  if (cursor.empty() || cursor.size() > 20 ||
      cursor.find_first_not_of("0123456789") != std::string_view::npos) {
    m_connection.protocolError("SCAN", "a cursor that is not a number");
    return failed();
  }
  m_cursor.assign(cursor);
  if (m_cursor == "0") {
    m_done = true;
  } else if (++m_cursorsSeen[m_cursor] == kMaxCursorVisits) {
    m_connection.protocolError("SCAN", "cursor " + m_cursor + " again and again");
    return failed();
  }
  return true;
}

}  // namespace VelLogin
