#include "redis/RedisConnection.h"

#include <string>

namespace VelLogin {

namespace {

// Replies of the handshake and of the sentinels: short strings, few elements.
constexpr RedisReply::Limits kSmallReply{4096, 64, 64 * 1024};
// ROLE lists a master's replicas.
constexpr RedisReply::Limits kRoleReply{4096, 4 * 1024, 1024 * 1024};
// Replies to writes and lookups: a status or an integer.
constexpr RedisReply::Limits kStatusReply{0, 0, 64 * 1024};

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

std::string where(const RedisOptions& options) {
  if (!options.sentinels.empty()) return "sentinel:" + options.masterName + "/" + options.prefix;
  if (!options.unixSocket.empty()) return "unix:" + options.unixSocket + "/" + options.prefix;
  return options.host + ":" + std::to_string(options.port) + "/" + options.prefix;
}

}  // namespace

RedisConnection::RedisConnection(const RedisOptions& options)
    : m_options(options), m_location(where(options)) {
  if (m_options.timeoutMs == 0) m_options.timeoutMs = 1000;
  if (m_options.walkTimeoutMs == 0) m_options.walkTimeoutMs = 60000;
  startOperation();
}

void RedisConnection::startOperation() {
  m_error.clear();
  m_deadline = Clock::now() + std::chrono::milliseconds(m_options.timeoutMs);
}

void RedisConnection::startStep(Clock::time_point end) {
  m_deadline = Clock::now() + std::chrono::milliseconds(m_options.timeoutMs);
  if (end < m_deadline) m_deadline = end;
}

bool RedisConnection::fail(std::string cause) {
  m_error = std::move(cause);
  return false;
}

bool RedisConnection::protocolError(std::string_view command, const std::string& what) {
  m_link.close();
  return fail("protocol error: " + std::string(command) + " answered " + what);
}

bool RedisConnection::resolveMaster(std::string& host, unsigned& port) {
  const size_t count = m_options.sentinels.size();
  std::string cause;
  for (size_t tried = 0; tried < count; ++tried) {
    const size_t index = (m_sentinel + tried) % count;
    const RedisAddress& sentinel = m_options.sentinels[index];
    const std::string name = sentinel.host + ":" + std::to_string(sentinel.port);
    // A sentinel that hangs may take its share of the time, not all of it.
    const Clock::time_point deadline =
        Clock::now() + (m_deadline - Clock::now()) / static_cast<long>(count - tried);
    RedisLink link;
    if (!link.open(sentinel.host, sentinel.port, "", deadline, cause)) {
      cause = "sentinel " + name + ": " + cause;
      continue;
    }
    if (!m_options.sentinelPassword.empty()) {
      const std::string_view auth[] = {"AUTH", m_options.sentinelPassword};
      const RedisReply* reply = link.exchange(auth, 2, kSmallReply, deadline, cause);
      if (reply == nullptr || reply->root().type() != RedisReply::Type::Status) {
        if (reply != nullptr) cause = "AUTH failed: " + std::string(reply->root().text());
        cause = "sentinel " + name + ": " + cause;
        continue;
      }
    }
    const std::string_view ask[] = {"SENTINEL", "get-master-addr-by-name", m_options.masterName};
    const RedisReply* reply = link.exchange(ask, 3, kSmallReply, deadline, cause);
    if (reply == nullptr) {
      cause = "sentinel " + name + ": " + cause;
      continue;
    }
    const RedisReply::Node root = reply->root();
    if (root.type() == RedisReply::Type::Error) {
      cause = "sentinel " + name + ": SENTINEL failed: " + std::string(root.text());
      continue;
    }
    if (root.type() == RedisReply::Type::Nil) {
      cause = "sentinel " + name + " knows no master " + m_options.masterName;
      continue;
    }
    unsigned long number = 0;
    bool shaped = root.type() == RedisReply::Type::Array && root.size() == 2 &&
                  root.first().type() == RedisReply::Type::String &&
                  root.first().next().type() == RedisReply::Type::String;
    if (shaped) {
      const std::string_view digits = root.first().next().text();
      shaped = !digits.empty() && digits.size() <= 5;
      for (char c : digits) {
        shaped = shaped && c >= '0' && c <= '9';
        if (shaped) number = number * 10 + static_cast<unsigned>(c - '0');
      }
      shaped = shaped && number > 0 && number <= 65535;
    }
    if (!shaped) {
      cause = "sentinel " + name + ": protocol error: SENTINEL answered no address";
      continue;
    }
    host = std::string(root.first().text());
    port = static_cast<unsigned>(number);
    m_sentinel = index;
    return true;
  }
  return fail(cause);
}

bool RedisConnection::handshake(bool mustBeMaster) {
  if (!m_options.password.empty()) {
    const RedisReply* reply = m_options.user.empty()
                                  ? run({"AUTH", m_options.password}, kSmallReply)
                                  : run({"AUTH", m_options.user, m_options.password}, kSmallReply);
    if (reply == nullptr) return false;
  }
  if (m_options.database != 0) {
    if (run({"SELECT", std::to_string(m_options.database)}, kSmallReply) == nullptr) return false;
  }
  if (mustBeMaster) {
    // Just after a failover a sentinel may still name the old master; it
    // would take writes that the new one never sees.
    const RedisReply* reply = run({"ROLE"}, kRoleReply);
    if (reply == nullptr) return false;
    const RedisReply::Node root = reply->root();
    if (root.type() != RedisReply::Type::Array || root.size() == 0 ||
        root.first().type() != RedisReply::Type::String) {
      return protocolError("ROLE", "no role");
    }
    if (root.first().text() != "master") {
      m_link.close();
      return fail("the server the sentinels name is a " + std::string(root.first().text()) +
                  ", not a master");
    }
  }
  return true;
}

bool RedisConnection::connect() {
  if (m_link.isOpen()) return true;
  std::string host = m_options.host;
  unsigned port = m_options.port;
  const bool viaSentinels = !m_options.sentinels.empty();
  if (viaSentinels && !resolveMaster(host, port)) return false;
  const std::string& socket = viaSentinels ? std::string() : m_options.unixSocket;
  std::string cause;
  if (!m_link.open(host, port, socket, m_deadline, cause)) return fail(cause);
  if (!handshake(viaSentinels)) {
    m_link.close();
    return false;
  }
  return true;
}

const RedisReply* RedisConnection::run(const std::string_view* args, size_t count,
                                       const RedisReply::Limits& limits) {
  if (!connect()) return nullptr;
  const RedisReply* reply = m_link.exchange(args, count, limits, m_deadline, m_error);
  if (reply == nullptr) return nullptr;
  if (reply->root().type() != RedisReply::Type::Error) return reply;
  const std::string_view text = reply->root().text();
  m_error = std::string(args[0]) + " failed: " + std::string(text);
  // The server is no master any more, or cut off from it: the next
  // operation asks the sentinels again.
  if (startsWith(text, "READONLY") || startsWith(text, "MASTERDOWN")) m_link.close();
  return nullptr;
}

bool RedisConnection::confirmWrite() {
  if (m_options.waitReplicas == 0) return true;
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Clock::now());
  // The server answers WAIT when its time is up; some of the deadline stays
  // for that answer to arrive. WAIT 0 would wait for ever.
  const long long margin = left.count() / 4 < 100 ? left.count() / 4 : 100;
  const long long waitMs = left.count() - margin > 1 ? left.count() - margin : 1;
  const RedisReply* reply =
      run({"WAIT", std::to_string(m_options.waitReplicas), std::to_string(waitMs)}, kStatusReply);
  if (reply == nullptr) return false;
  const RedisReply::Node root = reply->root();
  if (root.type() != RedisReply::Type::Integer) return protocolError("WAIT", "no integer");
  if (root.integer() < static_cast<long long>(m_options.waitReplicas)) {
    return fail("WAIT: " + std::to_string(root.integer()) + " of " +
                std::to_string(m_options.waitReplicas) + " replicas confirmed the write in time");
  }
  return true;
}

}  // namespace VelLogin
