#include "redis/RedisStorage.h"

#include <hiredis/hiredis.h>
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "trace/Trace.h"

namespace {

struct ReplyDeleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

// Records are walked in batches of about this many keys per SCAN.
constexpr const char* kScanBatch = "1000";

// hiredis writes with write(): a server that went away would otherwise kill
// the whole process with SIGPIPE. The signal is blocked for the command and
// a SIGPIPE that the command raised is taken off the thread before the old
// mask returns.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&m_pipe);
    sigaddset(&m_pipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &m_pipe, &m_previous);
  }
  ~SigpipeBlock() {
    if (!m_wasPending) {
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, SIGPIPE) == 1) {
        const timespec noWait{0, 0};
        sigtimedwait(&m_pipe, nullptr, &noWait);
      }
    }
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
  }
  SigpipeBlock(const SigpipeBlock&) = delete;
  SigpipeBlock& operator=(const SigpipeBlock&) = delete;

 private:
  sigset_t m_pipe;
  sigset_t m_previous;
  bool m_wasPending;
};

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

namespace VelLogin {

// One hiredis connection, made when first needed and dropped when it breaks,
// so that the next command connects again.
class RedisConnection {
 public:
  RedisConnection(const std::string& host, unsigned port, unsigned timeoutMs)
      : m_host(host), m_port(static_cast<int>(port)), m_context(nullptr) {
    m_timeout.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    m_timeout.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
  }
  ~RedisConnection() { drop(); }
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;

  // Connects unless connected. False with error() set when that fails.
  bool connect() {
    if (m_context != nullptr) return true;
    redisContext* context = redisConnectWithTimeout(m_host.c_str(), m_port, m_timeout);
    if (context == nullptr || context->err != 0) {
      m_error = std::string("cannot connect: ") +
                (context != nullptr ? context->errstr : "out of memory");
      if (context != nullptr) redisFree(context);
      return false;
    }
    if (redisSetTimeout(context, m_timeout) != REDIS_OK) {
      m_error = std::string("cannot set the timeout: ") + context->errstr;
      redisFree(context);
      return false;
    }
    m_context = context;
    return true;
  }

  // Sends one command, its count arguments taken byte for byte (the first
  // is the command's name), and returns the reply. Null, with error() set,
  // when the server cannot be reached, the connection breaks or times out
  // (it is dropped then) or the server answers with an error (the
  // connection stays).
  Reply run(const std::string_view* args, size_t count) {
    if (!connect()) return nullptr;
    // Commands of a few arguments, every read and write among them, are
    // sent without allocating.
    constexpr size_t kInline = 8;
    const char* inlineArgv[kInline];
    size_t inlineLen[kInline];
    std::vector<const char*> heapArgv;
    std::vector<size_t> heapLen;
    const char** argv = inlineArgv;
    size_t* argvLen = inlineLen;
    if (count > kInline) {
      heapArgv.resize(count);
      heapLen.resize(count);
      argv = heapArgv.data();
      argvLen = heapLen.data();
    }
    for (size_t i = 0; i < count; ++i) {
      argv[i] = args[i].data();
      argvLen[i] = args[i].size();
    }
    Reply reply;
    {
      SigpipeBlock noSigpipe;
      reply.reset(static_cast<redisReply*>(
          redisCommandArgv(m_context, static_cast<int>(count), argv, argvLen)));
    }
    if (!reply) {
      m_error = std::string(args[0]) + " failed: " +
                (m_context->errstr[0] != '\0' ? m_context->errstr : "no reply");
      drop();
      return nullptr;
    }
    if (reply->type == REDIS_REPLY_ERROR) {
      m_error = std::string(args[0]) + " failed: " + std::string(reply->str, reply->len);
      return nullptr;
    }
    return reply;
  }

  Reply run(std::initializer_list<std::string_view> args) {
    return run(args.begin(), args.size());
  }
  Reply run(const std::vector<std::string_view>& args) { return run(args.data(), args.size()); }

  const char* error() const { return m_error.c_str(); }
  const std::string& errorText() const { return m_error; }
  bool connected() const { return m_context != nullptr; }

 private:
  void drop() {
    if (m_context != nullptr) redisFree(m_context);
    m_context = nullptr;
  }

  std::string m_host;
  int m_port;
  timeval m_timeout;
  redisContext* m_context;
  std::string m_error;
};

namespace {

bool isInteger(const Reply& reply, long long value) {
  return reply->type == REDIS_REPLY_INTEGER && reply->integer == value;
}

// The keys of a SCAN reply, and its next cursor. False when the reply is not
// shaped like one.
bool readScanReply(const Reply& reply, std::string& cursor, std::vector<std::string>& keys) {
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) return false;
  const redisReply* next = reply->element[0];
  const redisReply* batch = reply->element[1];
  if (next->type != REDIS_REPLY_STRING || batch->type != REDIS_REPLY_ARRAY) return false;
  cursor.assign(next->str, next->len);
  keys.clear();
  for (size_t i = 0; i < batch->elements; ++i) {
    keys.emplace_back(batch->element[i]->str, batch->element[i]->len);
  }
  return true;
}

}  // namespace

namespace {

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
      m_location(options.host + ":" + std::to_string(options.port) + "/" + options.prefix),
      m_connection(new RedisConnection(options.host, options.port,
                                       options.timeoutMs != 0 ? options.timeoutMs : 1000)),
      m_iterating(false),
      m_walkDone(false),
      m_cursor("0"),
      m_nextPending(0) {
  LS_TRACE_ENTRY_AS(typeid(RedisStorage), "RedisStorage");
  if (!m_connection->connect()) {
    LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
  }
}

RedisStorage::~RedisStorage() {
  LS_TRACE_ENTRY_AS(typeid(RedisStorage), "RedisStorage");
  RedisStorage::endGetAll();
  delete m_connection;
}

bool RedisStorage::getRaw(const std::string& key, char*& data, unsigned& len) const {
  LS_TRACE_ENTRY("getRaw");
  const unsigned capacity = len;
  len = 0;
  if (capacity == 0) {
    LS_TRACE_MSG(1, "ERROR: wrong usage! len==0");
    return false;
  }
  Reply reply = m_connection->run({"GET", m_prefix + key});
  if (!reply) {
    LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
    return false;
  }
  if (reply->type != REDIS_REPLY_STRING) return false;  // no such record
  if (reply->len > capacity) {
    const unsigned long long needed = reply->len;
    len = needed > kNoRecordLimit ? kNoRecordLimit : static_cast<unsigned>(needed);
    LS_TRACE_MSG(2, "WARNING: data was not written, because len <%d> is less then needed <%d>",
                 capacity, len);
    return false;
  }
  const unsigned size = static_cast<unsigned>(reply->len);
  if (data == nullptr) {
    data = new (std::nothrow) char[size != 0 ? size : 1];
    if (data == nullptr) {
      LS_TRACE_MSG(1, "new has failed to allocate %d chars", size);
      return false;
    }
  }
  std::memcpy(data, reply->str, size);
  len = size;
  return true;
}

bool RedisStorage::setRaw(const std::string& key, const char* data, unsigned len,
                          unsigned expiration) {
  LS_TRACE_ENTRY("setRaw");
  if (len == 0 || data == nullptr || len > kMaxRedisRecordLen) return false;
  const std::string fullKey = m_prefix + key;
  const std::string_view value(data, len);
  Reply reply;
  if (expiration > 0) {
    reply = m_connection->run({"SET", fullKey, value, "EX", std::to_string(expiration)});
  } else {
    reply = m_connection->run({"SET", fullKey, value});
  }
  if (!reply) {
    LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
    return false;
  }
  return reply->type == REDIS_REPLY_STATUS;
}

bool RedisStorage::setExpiration(const std::string& key, unsigned expiration) {
  LS_TRACE_ENTRY("setExpiration");
  // PERSIST answers 0 for a record that exists without a lifetime, so the
  // script tells an existing record from a missing one in the same step.
  static const char kPersistExisting[] =
      "if redis.call('EXISTS', KEYS[1]) == 1 then redis.call('PERSIST', KEYS[1]) return 1 end "
      "return 0";
  const std::string fullKey = m_prefix + key;
  Reply reply = expiration > 0
                    ? m_connection->run({"EXPIRE", fullKey, std::to_string(expiration)})
                    : m_connection->run({"EVAL", kPersistExisting, "1", fullKey});
  if (!reply) {
    LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
    return false;
  }
  return isInteger(reply, 1);
}

bool RedisStorage::del(const std::string& key) {
  LS_TRACE_ENTRY("del");
  Reply reply = m_connection->run({"DEL", m_prefix + key});
  const bool ok = reply && isInteger(reply, 1);
  if (!reply) LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
  LS_TRACE_MSG(1, "<%s>: %s in deleting record with key <%s>", m_location.c_str(),
               ok ? "SUCCESS" : "FAILURE", key.c_str());
  return ok;
}

bool RedisStorage::delAll() {
  LS_TRACE_ENTRY("delAll");
  const std::string pattern = prefixPattern(m_prefix);
  std::string cursor = "0";
  std::vector<std::string> keys;
  bool ok = true;
  do {
    Reply reply = m_connection->run({"SCAN", cursor, "MATCH", pattern, "COUNT", kScanBatch});
    if (!reply || !readScanReply(reply, cursor, keys)) {
      if (!reply) LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
      ok = false;
      break;
    }
    if (keys.empty()) continue;
    std::vector<std::string_view> command{"DEL"};
    command.insert(command.end(), keys.begin(), keys.end());
    // Records that another client removed meanwhile count as removed.
    if (!m_connection->run(command)) {
      LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
      ok = false;
    }
  } while (cursor != "0");
  LS_TRACE_MSG(1, "<%s>: %s in deleting all content", m_location.c_str(),
               ok ? "SUCCESS" : "FAILURE");
  return ok;
}

bool RedisStorage::startGetAll() {
  LS_TRACE_ENTRY("startGetAll");
  LS_TRACE_MSG(3, "<%s>: starting GetAll session", m_location.c_str());
  if (m_iterating) {
    LS_TRACE_MSG(1, "ERROR: previous GetAll session was not ended with endGetAll()");
    return false;
  }
  if (!m_connection->connect()) {
    LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
    return false;
  }
  m_iterating = true;
  m_walkDone = false;
  m_cursor = "0";
  m_pending.clear();
  m_nextPending = 0;
  m_delivered.clear();
  return true;
}

bool RedisStorage::scanNextBatch() {
  LS_TRACE_ENTRY("scanNextBatch");
  m_pending.clear();
  m_nextPending = 0;
  Reply reply = m_connection->run(
      {"SCAN", m_cursor, "MATCH", prefixPattern(m_prefix), "COUNT", kScanBatch});
  if (!reply || !readScanReply(reply, m_cursor, m_pending)) {
    LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(),
                 reply ? "SCAN failed: unexpected reply" : m_connection->error());
    return false;
  }
  m_walkDone = m_cursor == "0";
  return true;
}

bool RedisStorage::getNextInternal(std::string& key, char*& data, unsigned& len,
                                   bool& endReached) {
  LS_TRACE_ENTRY("getNextInternal");
  endReached = false;
  if (!m_iterating) {
    LS_TRACE_MSG(1, "ERROR: no GetAll session was started with startGetAll()");
    m_walkDone = true;
  }
  for (;;) {
    while (m_nextPending == m_pending.size()) {
      // A walk the server broke off ends here: reporting a skipped record
      // instead would make the caller's loop ask again and again.
      if (m_walkDone || !scanNextBatch()) {
        m_walkDone = true;
        endReached = true;
        len = 0;
        return true;
      }
    }
    std::string& fullKey = m_pending[m_nextPending++];
    if (!m_delivered.insert(fullKey).second) continue;
    key = fullKey.substr(m_prefix.size());
    const bool delivered = getRaw(key, data, len);
    // Without a connection every further record would fail the same way:
    // the walk ends instead of skipping them one by one.
    if (!delivered && len == 0 && !m_connection->connected()) {
      m_walkDone = true;
      endReached = true;
      return true;
    }
    return delivered;
  }
}

void RedisStorage::endGetAll() {
  LS_TRACE_ENTRY("endGetAll");
  LS_TRACE_MSG(3, "<%s>: ending GetAll session", m_location.c_str());
  m_iterating = false;
  m_pending.clear();
  m_nextPending = 0;
  m_delivered.clear();
}

const std::string& RedisStorage::lastError() const { return m_connection->errorText(); }

unsigned RedisStorage::getMaxRecordLen() const { return kMaxRedisRecordLen; }

unsigned RedisStorage::getNumElements() const {
  LS_TRACE_ENTRY("getNumElements");
  if (m_prefix.empty()) {
    Reply reply = m_connection->run({"DBSIZE"});
    if (!reply) LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
    return reply && reply->type == REDIS_REPLY_INTEGER ? static_cast<unsigned>(reply->integer) : 0;
  }
  const std::string pattern = prefixPattern(m_prefix);
  std::string cursor = "0";
  std::vector<std::string> keys;
  unsigned count = 0;
  do {
    Reply reply = m_connection->run({"SCAN", cursor, "MATCH", pattern, "COUNT", kScanBatch});
    if (!reply || !readScanReply(reply, cursor, keys)) {
      if (!reply) LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
      return 0;
    }
    count += static_cast<unsigned>(keys.size());
  } while (cursor != "0");
  return count;
}

bool RedisStorage::isInStorage(const std::string& key) const {
  LS_TRACE_ENTRY("isInStorage");
  Reply reply = m_connection->run({"EXISTS", m_prefix + key});
  if (!reply) {
    LS_TRACE_MSG(1, "<%s>: %s", m_location.c_str(), m_connection->error());
    return false;
  }
  return isInteger(reply, 1);
}

}  // namespace VelLogin
