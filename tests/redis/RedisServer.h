// A real redis-server for one test: started on a free loopback port with its
// own temporary folder and no persistence, stopped (or restarted, empty) by
// the test. Extra arguments configure it ("--requirepass", "pw"); with
// "--sentinel" among them it is a sentinel. command() talks to it over a
// connection of its own, so that tests see the server's state without going
// through the store under test.
//
// A scripted server is a hostile stand-in instead: a child process that
// answers each command it receives (one read of the socket) with the next
// reply of the script, the last one again once the script is through,
// whatever the command. An empty reply closes the connection. With a drip
// interval it sends each reply a byte at a time.
#ifndef LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H
#define LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H

#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/TempFolder.h"

namespace testsupport {

class RedisServer {
 public:
  // Waits until the server answers PING, command() authenticating with
  // password; started() is false when that failed (no redis-server).
  explicit RedisServer(std::vector<std::string> arguments = {}, std::string password = "");
  struct Script {
    std::vector<std::string> replies;
    std::chrono::milliseconds drip{0};
  };
  // Listens at once: started() is true.
  explicit RedisServer(const Script& script);
  ~RedisServer() { stop(); }

  bool started() const { return m_pid > 0; }
  unsigned port() const { return m_port; }
  // With SIGKILL the server ends at once, as in a crash.
  void stop(int signal = SIGTERM);
  // A real server only: it comes back empty.
  bool restart();
  // A string reply as its bytes, a status as "+TEXT", an error as "-TEXT",
  // an integer as ":N".
  std::string command(const std::vector<std::string>& args) const;

 private:
  TempFolder m_folder;
  unsigned m_port;
  std::vector<std::string> m_arguments;
  std::string m_password;
  pid_t m_pid = 0;
};

// A loopback port on which nothing listens at the moment.
unsigned freeLoopbackPort();

}  // namespace testsupport

#endif
