// RedisScan: the walk with SCAN over the keys under a prefix, the only one
// the Redis library has: the iteration pulls it batch by batch (start(),
// next()), delAll() and getNumElements() run it whole (walk()). It hands out
// each key once however often the server repeats it, takes a cursor that
// comes back again and again for a loop the server is stuck in, and bounds
// the walk by the walk time of the options. Private to the Redis library.
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

  // Starts a new walk; its time starts too (end()).
  void start();

  // Replaces keys with the next batch of keys not handed out before, the
  // prefix taken off (empty once done()). False with the connection's
  // error() set when the server fails, answers something that is not a SCAN
  // reply or the SCAN calls of the walk have taken more than the walk time
  // between them; the walk is over then. Time the caller spends between
  // calls does not count.
  bool next(std::vector<std::string>& keys);

  // Runs a new walk to its end, handing every non-empty batch to
  // visit(keys), which answers false (with the connection's error() set) to
  // break the walk off. True when the walk completed. The commands visit
  // sends should end by end().
  template <class Visit>
  bool walk(Visit&& visit) {
    start();
    std::vector<std::string> keys;
    while (!m_done) {
      if (!next(keys)) return false;
      if (!keys.empty() && !visit(keys)) {
        stop();
        return false;
      }
    }
    return true;
  }

  // When the walk started by start() or walk() has had its walk time, what
  // its caller spent on each batch included.
  RedisConnection::Clock::time_point end() const { return m_end; }

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
  RedisConnection::Clock::duration m_spent{};  // in SCAN calls
  RedisConnection::Clock::time_point m_end{};
  std::unordered_map<std::string, unsigned> m_cursorsSeen;
  std::unordered_set<std::string> m_keysSeen;
};

}  // namespace VelLogin

#endif
