#include "LoginStorage/redis/RedisStorage.h"

#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "redis/RedisConnection.h"
#include "redis/RedisScan.h"
#include "trace/Trace.h"

// The failure of the operation in progress, as its trace message.
#define LS_REDIS_TRACE_FAILURE() \
  LS_TRACE_MSG(1, "<%s>: %s", m_connection->location().c_str(), m_connection->error().c_str())

namespace VelLogin {

namespace {

// GET answers a record or nil.
constexpr RedisReply::Limits kRecordReply{RedisStorage::kMaxRedisRecordLen, 0,
                                          RedisStorage::kMaxRedisRecordLen + 64};
// Everything else the store sends answers a status or an integer.
constexpr RedisReply::Limits kScalarReply{0, 0, 64 * 1024};

// The integer a command answers; false, with the connection dropped, when
// the reply is something else.
bool readInteger(RedisConnection& connection, const RedisReply* reply, std::string_view command,
                 long long& value) {
  if (reply == nullptr) return false;
  const RedisReply::Node root = reply->root();
  if (root.type() != RedisReply::Type::Integer) {
    return connection.protocolError(command, "no integer");
  }
  value = root.integer();
  return true;
}

RedisOptions hostOptions(const std::string& host, unsigned port, const std::string& prefix,
                         unsigned timeoutMs) {
  RedisOptions options;
  options.host = host;
  options.port = port;
  options.prefix = prefix;
  options.timeoutMs = timeoutMs;
  return options;
}

}  // namespace

RedisStorage::RedisStorage(const std::string& host, unsigned port, const std::string& prefix,
                           unsigned timeoutMs)
    : RedisStorage(hostOptions(host, port, prefix, timeoutMs)) {}

RedisStorage::RedisStorage(const RedisOptions& options)
    : m_prefix(options.prefix),
      m_connection(new RedisConnection(options)),
      m_scan(new RedisScan(*m_connection, options.prefix)),
      m_iterating(false),
      m_nextPending(0) {
  LS_TRACE_ENTRY_AS(typeid(RedisStorage), "RedisStorage");
  if (!m_connection->connect()) LS_REDIS_TRACE_FAILURE();
}

RedisStorage::~RedisStorage() {
  LS_TRACE_ENTRY_AS(typeid(RedisStorage), "RedisStorage");
  RedisStorage::endGetAll();
  delete m_scan;
  delete m_connection;
}

bool RedisStorage::getRaw(const std::string& key, char*& data, unsigned& len) const {
  LS_TRACE_ENTRY("getRaw");
  m_connection->startOperation();
  const unsigned capacity = len;
  len = 0;
  if (capacity == 0) {
    LS_TRACE_MSG(1, "ERROR: wrong usage! len==0");
    return m_connection->fail("wrong usage: len is 0");
  }
  const RedisReply* reply = m_connection->run({"GET", m_prefix + key}, kRecordReply);
  if (reply == nullptr) {
    LS_REDIS_TRACE_FAILURE();
    return false;
  }
  const RedisReply::Node root = reply->root();
  if (root.type() == RedisReply::Type::Nil) return false;  // no such record
  if (root.type() != RedisReply::Type::String) {
    m_connection->protocolError("GET", "neither a record nor nil");
    LS_REDIS_TRACE_FAILURE();
    return false;
  }
  const std::string_view record = root.text();
  const unsigned size = static_cast<unsigned>(record.size());
  if (size > capacity) {
    len = size;
    LS_TRACE_MSG(2, "WARNING: data was not written, because len <%d> is less then needed <%d>",
                 capacity, len);
    return false;
  }
  if (data == nullptr) {
    data = new (std::nothrow) char[size != 0 ? size : 1];
    if (data == nullptr) {
      LS_TRACE_MSG(1, "new has failed to allocate %d chars", size);
      return m_connection->fail("out of memory for a record of " + std::to_string(size) + " bytes");
    }
  }
  std::memcpy(data, record.data(), size);
  len = size;
  return true;
}

bool RedisStorage::setRaw(const std::string& key, const char* data, unsigned len,
                          unsigned expiration) {
  LS_TRACE_ENTRY("setRaw");
  m_connection->startOperation();
  if (len == 0 || data == nullptr || len > kMaxRedisRecordLen) {
    return m_connection->fail(len == 0 ? "no record: len is 0"
                              : data == nullptr ? "no record: data is null"
                                                : "record above the store's limit");
  }
  const std::string fullKey = m_prefix + key;
  const std::string_view value(data, len);
  const RedisReply* reply =
      expiration > 0
          ? m_connection->run({"SET", fullKey, value, "EX", std::to_string(expiration)},
                              kScalarReply)
          : m_connection->run({"SET", fullKey, value}, kScalarReply);
  bool ok = reply != nullptr;
  if (ok && (reply->root().type() != RedisReply::Type::Status || reply->root().text() != "OK")) {
    ok = m_connection->protocolError("SET", "no OK");
  }
  if (ok) ok = m_connection->confirmWrite();
  if (!ok) LS_REDIS_TRACE_FAILURE();
  return ok;
}

bool RedisStorage::setExpiration(const std::string& key, unsigned expiration) {
  LS_TRACE_ENTRY("setExpiration");
  m_connection->startOperation();
  // PERSIST answers 0 for a record that exists without a lifetime, so the
  // script tells an existing record from a missing one in the same step.
  static const char kPersistExisting[] =
      "if redis.call('EXISTS', KEYS[1]) == 1 then redis.call('PERSIST', KEYS[1]) return 1 end "
      "return 0";
  const std::string fullKey = m_prefix + key;
  const RedisReply* reply =
      expiration > 0
          ? m_connection->run({"EXPIRE", fullKey, std::to_string(expiration)}, kScalarReply)
          : m_connection->run({"EVAL", kPersistExisting, "1", fullKey}, kScalarReply);
  long long existed = 0;
  bool ok = readInteger(*m_connection, reply, expiration > 0 ? "EXPIRE" : "EVAL", existed);
  if (ok && existed == 1) ok = m_connection->confirmWrite();
  if (!ok) LS_REDIS_TRACE_FAILURE();
  return ok && existed == 1;
}

bool RedisStorage::del(const std::string& key) {
  LS_TRACE_ENTRY("del");
  m_connection->startOperation();
  const RedisReply* reply = m_connection->run({"DEL", m_prefix + key}, kScalarReply);
  long long removed = 0;
  bool ok = readInteger(*m_connection, reply, "DEL", removed) && removed == 1 &&
            m_connection->confirmWrite();
  if (!m_connection->error().empty()) LS_REDIS_TRACE_FAILURE();
  LS_TRACE_MSG(1, "<%s>: %s in deleting record with key <%s>", m_connection->location().c_str(),
               ok ? "SUCCESS" : "FAILURE", key.c_str());
  return ok;
}

bool RedisStorage::delAll() {
  LS_TRACE_ENTRY("delAll");
  m_connection->startOperation();
  // A walk of its own: an open iteration goes on undisturbed. Its removals
  // count against the walk's time as well as its SCANs, so that a server
  // that answers DEL slowly cannot stretch the whole to a timeout per batch.
  RedisScan scan(*m_connection, m_prefix);
  std::vector<std::string> fullKeys;
  std::vector<std::string_view> command;
  const bool ok = scan.walk([&](const std::vector<std::string>& keys) {
    if (RedisConnection::Clock::now() >= scan.end()) {
      return m_connection->fail("timeout: removing the records took more than " +
                                std::to_string(m_connection->walkTimeoutMs()) + " ms");
    }
    fullKeys.clear();
    for (const std::string& key : keys) fullKeys.push_back(m_prefix + key);
    command.assign(1, "DEL");
    command.insert(command.end(), fullKeys.begin(), fullKeys.end());
    m_connection->startStep(scan.end());
    // Records that another client removed meanwhile count as removed.
    long long removed = 0;
    return readInteger(*m_connection,
                       m_connection->run(command.data(), command.size(), kScalarReply), "DEL",
                       removed) &&
           m_connection->confirmWrite();
  });
  if (!ok) LS_REDIS_TRACE_FAILURE();
  LS_TRACE_MSG(1, "<%s>: %s in deleting all content", m_connection->location().c_str(),
               ok ? "SUCCESS" : "FAILURE");
  return ok;
}

bool RedisStorage::startGetAll() {
  LS_TRACE_ENTRY("startGetAll");
  m_connection->startOperation();
  LS_TRACE_MSG(3, "<%s>: starting GetAll session", m_connection->location().c_str());
  if (m_iterating) {
    LS_TRACE_MSG(1, "ERROR: previous GetAll session was not ended with endGetAll()");
    return m_connection->fail("an iteration is already open");
  }
  m_scan->start();
  m_nextPending = 0;
  if (!m_scan->next(m_pending)) {
    LS_REDIS_TRACE_FAILURE();
    return false;
  }
  m_iterating = true;
  return true;
}

bool RedisStorage::getNextInternal(std::string& key, char*& data, unsigned& len,
                                   bool& endReached) {
  LS_TRACE_ENTRY("getNextInternal");
  m_connection->startOperation();
  endReached = false;
  if (!m_iterating) {
    LS_TRACE_MSG(1, "ERROR: no GetAll session was started with startGetAll()");
    m_connection->fail("no iteration is open");
    endReached = true;
    len = 0;
    return true;
  }
  for (;;) {
    while (m_nextPending == m_pending.size()) {
      m_nextPending = 0;
      // A walk the server broke off ends here: reporting a skipped record
      // instead would make the caller's loop ask again and again.
      if (m_scan->done() || !m_scan->next(m_pending)) {
        m_pending.clear();
        if (!m_connection->error().empty()) {
          LS_TRACE_MSG(1, "<%s>: the walk over the records broke off: %s",
                       m_connection->location().c_str(), m_connection->error().c_str());
        }
        endReached = true;
        len = 0;
        return true;
      }
    }
    key = std::move(m_pending[m_nextPending++]);
    const bool delivered = getRaw(key, data, len);
    // Without a connection every further record would fail the same way:
    // the walk ends instead of skipping them one by one.
    if (!delivered && len == 0 && !m_connection->connected()) {
      LS_TRACE_MSG(1, "<%s>: the walk over the records broke off: %s",
                   m_connection->location().c_str(), m_connection->error().c_str());
      m_pending.clear();
      m_nextPending = 0;
      m_scan->stop();
      endReached = true;
      return true;
    }
    return delivered;
  }
}

void RedisStorage::endGetAll() {
  LS_TRACE_ENTRY("endGetAll");
  LS_TRACE_MSG(3, "<%s>: ending GetAll session", m_connection->location().c_str());
  m_iterating = false;
  m_pending.clear();
  m_nextPending = 0;
}

const std::string& RedisStorage::lastError() const { return m_connection->error(); }

unsigned RedisStorage::getMaxRecordLen() const { return kMaxRedisRecordLen; }

unsigned RedisStorage::getNumElements() const {
  LS_TRACE_ENTRY("getNumElements");
  m_connection->startOperation();
  if (m_prefix.empty()) {
    long long count = 0;
    if (!readInteger(*m_connection, m_connection->run({"DBSIZE"}, kScalarReply), "DBSIZE",
                     count)) {
      LS_REDIS_TRACE_FAILURE();
      return 0;
    }
    return count < 0 ? 0 : count > 0xFFFFFFFFll ? 0xFFFFFFFFu : static_cast<unsigned>(count);
  }
  // A walk of its own: an open iteration goes on undisturbed.
  RedisScan scan(*m_connection, m_prefix);
  unsigned count = 0;
  if (!scan.walk([&count](const std::vector<std::string>& keys) {
        count += static_cast<unsigned>(keys.size());
        return true;
      })) {
    LS_REDIS_TRACE_FAILURE();
    return 0;
  }
  return count;
}

bool RedisStorage::isInStorage(const std::string& key) const {
  LS_TRACE_ENTRY("isInStorage");
  m_connection->startOperation();
  long long exists = 0;
  if (!readInteger(*m_connection, m_connection->run({"EXISTS", m_prefix + key}, kScalarReply),
                   "EXISTS", exists)) {
    LS_REDIS_TRACE_FAILURE();
    return false;
  }
  return exists == 1;
}

}  // namespace VelLogin
