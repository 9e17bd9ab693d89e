// RedisConnection: the store's way to its server, as RedisOptions name it:
// connected when first needed (through the sentinels when there are some,
// then AUTH and SELECT) and dropped when it breaks, times out, sees a reply
// that breaks the protocol or hears READONLY or MASTERDOWN, so that the next
// operation connects again and asks the sentinels anew. Every operation has
// one deadline that covers connecting and every command it sends. Private to
// the Redis library.
#ifndef LOGINSTORAGE_REDIS_REDISCONNECTION_H
#define LOGINSTORAGE_REDIS_REDISCONNECTION_H

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "redis/RedisLink.h"
#include "LoginStorage/redis/RedisOptions.h"
#include "redis/RedisReply.h"

namespace VelLogin {

class RedisConnection {
 public:
  using Clock = RedisLink::Clock;

  explicit RedisConnection(const RedisOptions& options);

  // Begins an operation: empties error() and sets the deadline to the
  // timeout from now.
  void startOperation();
  // Begins one step of a longer walk: the timeout from now, but not past
  // end; error() stays.
  void startStep(Clock::time_point end);

  // Connects unless connected; false with error() set.
  bool connect();

  // Sends one command and reads its reply within the limits. Null with
  // error() set when the server cannot be reached, the connection fails or
  // the server answers with an error. The reply lives until the next
  // command.
  const RedisReply* run(const std::string_view* args, size_t count,
                        const RedisReply::Limits& limits);
  const RedisReply* run(std::initializer_list<std::string_view> args,
                        const RedisReply::Limits& limits) {
    return run(args.begin(), args.size(), limits);
  }

  // Fails the operation because the reply to command is not what it
  // answers: error() says so and the connection is dropped, since what
  // follows on it cannot be trusted. Always false.
  bool protocolError(std::string_view command, const std::string& what);
  // Fails the operation with this cause. Always false.
  bool fail(std::string cause);

  // After a write: true at once unless replicas are to confirm it, else
  // once WAIT says enough of them did before the deadline.
  bool confirmWrite();

  bool connected() const { return m_link.isOpen(); }
  const std::string& error() const { return m_error; }
  // The server as trace messages name it.
  const std::string& location() const { return m_location; }
  unsigned timeoutMs() const { return m_options.timeoutMs; }
  unsigned walkTimeoutMs() const { return m_options.walkTimeoutMs; }

 private:
  // Asks the sentinels, the last one that answered first, for the master's
  // address.
  bool resolveMaster(std::string& host, unsigned& port);
  bool handshake(bool mustBeMaster);

  RedisOptions m_options;
  std::string m_location;
  RedisLink m_link;
  Clock::time_point m_deadline;
  size_t m_sentinel = 0;
  std::string m_error;
};

}  // namespace VelLogin

#endif
