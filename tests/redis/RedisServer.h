// A real redis-server for one test: started on a free loopback port with its
// own temporary folder, no persistence, and stopped (or restarted) by the
// test. command() talks to it over a connection of its own, so that tests
// check the server's state without going through the store under test.
#ifndef LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H
#define LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "LoginStorage/storage/AbstractStorage.h"
#include "support/TempFolder.h"

namespace testsupport {

class RedisServer {
 public:
  // Starts the server and waits until it answers PING; started() is false
  // when that failed (redis-server not installed).
  RedisServer();
  ~RedisServer() { stop(); }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  bool started() const { return m_pid > 0; }
  unsigned port() const { return m_port; }
  void stop();
  // Starts it again on the same port, empty (nothing is saved).
  bool restart();

  // Runs a command; renders a string reply as its bytes, an integer as ":N",
  // nil as "(nil)", a status as "+TEXT" and an error as "-TEXT".
  std::string command(const std::vector<std::string>& args) const;

 private:
  TempFolder m_folder;
  unsigned m_port;
  pid_t m_pid = 0;
};

// A loopback port on which nothing listens at the moment.
unsigned freeLoopbackPort();

// The record under key read with a null buffer: its bytes, or "missing", or
// "too long: N".
std::string readRecord(const VelLogin::AbstractStorage& store, const std::string& key,
                       unsigned capacity = 1u << 20);

// What one full iteration delivers, key to bytes; a key delivered twice
// fails the test.
std::map<std::string, std::string> iterate(VelLogin::AbstractStorage& store);

}  // namespace testsupport

#endif
