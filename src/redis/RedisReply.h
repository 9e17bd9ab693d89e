// RedisReply: one reply of a Redis server, parsed from the bytes as they
// arrive, within limits that the command sets. Nothing is allocated in
// advance from a length the server announces: a reply claiming 2^31 elements
// or a bulk above the limit is rejected on its header, and the parsed tree
// grows only with bytes actually received. Strings are views into the
// caller's buffer, valid while it is. Private to the Redis library.
#ifndef LOGINSTORAGE_REDIS_REDISREPLY_H
#define LOGINSTORAGE_REDIS_REDISREPLY_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace VelLogin {

class RedisReply {
 public:
  // What a command's reply may hold: the longest bulk string, the elements
  // of all its arrays together, and its size in bytes.
  struct Limits {
    size_t maxBulk;
    size_t maxElements;
    size_t maxBytes;
  };

  enum class Type { String, Status, Error, Integer, Array, Nil };
  enum class Progress { Complete, Incomplete, Invalid };

  // A node of the parsed reply; the root is node 0 and an array's elements
  // follow it in order.
  class Node {
   public:
    Type type() const;
    // The bytes of a string, status or error.
    std::string_view text() const;
    long long integer() const;
    // The number of elements of an array.
    size_t size() const;
    // Its first element; REQUIRES: size() > 0.
    Node first() const { return Node(m_reply, m_index + 1); }
    // The element after this one in its array.
    Node next() const;

   private:
    friend class RedisReply;
    Node(const RedisReply* reply, size_t index) : m_reply(reply), m_index(index) {}
    const RedisReply* m_reply;
    size_t m_index;
  };

  // Starts a new reply under limits.
  void start(const Limits& limits);

  // Parses on over data[0, size), the buffer holding the reply from its
  // first byte (it may move between calls as it grows). Invalid with
  // problem() set when the bytes are not a reply within the limits.
  Progress parse(const char* data, size_t size);

  // After Complete: the reply, and the number of bytes it took.
  Node root() const { return Node(this, 0); }
  size_t consumed() const { return m_pos; }
  const std::string& problem() const { return m_problem; }

 private:
  struct Entry {
    Type type;
    size_t offset;  // of a string's bytes in the buffer
    size_t length;  // of a string; elements of an array
    long long integer;
    size_t end;  // the index after this node's subtree
  };
  struct Open {
    size_t index;
    size_t remaining;
  };

  Progress invalid(std::string problem);
  void close(size_t index);

  Limits m_limits{0, 0, 0};
  const char* m_data = nullptr;
  std::vector<Entry> m_entries;
  std::vector<Open> m_open;
  size_t m_pos = 0;
  size_t m_elements = 0;
  std::string m_problem;
};

}  // namespace VelLogin

#endif
