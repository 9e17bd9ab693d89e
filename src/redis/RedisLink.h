// RedisLink: one socket to a Redis server or sentinel, on which commands go
// out and replies come in before a deadline. hiredis makes the connection;
// the link sends and reads on its socket itself, without blocking, so that a
// server dripping bytes cannot stretch an operation past its deadline and a
// reply is bounded before anything is allocated for it (RedisReply.h).
// Private to the Redis library.
#ifndef LOGINSTORAGE_REDIS_REDISLINK_H
#define LOGINSTORAGE_REDIS_REDISLINK_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "redis/RedisReply.h"

struct redisContext;

namespace VelLogin {

class RedisLink {
 public:
  using Clock = std::chrono::steady_clock;

  RedisLink() = default;
  ~RedisLink() { close(); }
  RedisLink(const RedisLink&) = delete;
  RedisLink& operator=(const RedisLink&) = delete;

  // Connects to the unix socket when unixSocket is non-empty, else to
  // host:port. False with error set when that fails or is not done by the
  // deadline.
  bool open(const std::string& host, unsigned port, const std::string& unixSocket,
            Clock::time_point deadline, std::string& error);
  bool isOpen() const { return m_context != nullptr; }
  void close();

  // Sends the command (its arguments byte for byte, the first its name) and
  // reads its reply, error replies included. Null with error set, and the
  // link closed, when the link breaks, the deadline passes or the reply
  // breaks the protocol or the limits. The reply lives until the next call.
  const RedisReply* exchange(const std::string_view* args, size_t count,
                             const RedisReply::Limits& limits, Clock::time_point deadline,
                             std::string& error);

 private:
  bool send(std::string_view command, Clock::time_point deadline, std::string& error);
  bool receive(std::string_view command, Clock::time_point deadline, std::string& error);
  // Waits until the socket is ready for events; false when the deadline
  // passes first.
  bool await(short events, Clock::time_point deadline);

  redisContext* m_context = nullptr;
  int m_fd = -1;
  std::string m_out;
  std::unique_ptr<char[]> m_in;
  size_t m_inSize = 0;
  size_t m_inCapacity = 0;
  RedisReply::Limits m_limits{0, 0, 0};
  RedisReply m_reply;
};

}  // namespace VelLogin

#endif
