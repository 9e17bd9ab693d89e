// RedisScan: one walk with SCAN over the keys under a prefix, as the
// iteration, delAll() and getNumElements() need it. It hands out each key
// once however often the server repeats it, takes a cursor that comes back
// again and again for a loop the server is stuck in, and gives the walk as a
// whole the walk time of the options. Private to the Redis library.
#ifndef LOGINSTORAGE_REDIS_REDISSCAN_H
#define LOGINSTORAGE_REDIS_REDISSCAN_H

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "redis/RedisConnection.h"

namespace VelLogin {

class RedisScan {
 public:
  RedisScan(RedisConnection& connection, const std::string& prefix);

  // Starts a new walk.
  void start();

  // Replaces keys with the next batch of keys not handed out before, the
  // prefix taken off. False with the connection's error() set when the
  // server fails, answers something that is not a SCAN reply or the walk
  // runs out of time; the walk is over then.
  bool next(std::vector<std::string>& keys);

  // Gives the walk up.
  void stop() { m_done = true; }

  // True once the server said the walk is complete, or it failed.
  bool done() const { return m_done; }

 private:
  bool failed();

  RedisConnection& m_connection;
  std::string m_prefix;
  std::string m_pattern;
  std::string m_cursor;
  bool m_done = true;
  RedisConnection::Clock::duration m_spent{};
  std::unordered_map<std::string, unsigned> m_cursorsSeen;
  std::unordered_set<std::string> m_keysSeen;
};

}  // namespace VelLogin

#endif
