// A real redis-server for one test: started on a free loopback port with its
// own temporary folder and no persistence, stopped (or restarted, empty) by
// the test. Extra arguments configure it ("--requirepass", "pw"); with
// "--sentinel" among them it is a sentinel. command() talks to it over a
// connection of its own, so that tests see the server's state without going
// through the store under test.
#ifndef LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H
#define LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "support/TempFolder.h"

namespace testsupport {

class RedisServer {
 public:
  // Waits until the server answers PING, command() authenticating with
  // password; started() is false when that failed (no redis-server).
  explicit RedisServer(std::vector<std::string> arguments = {}, std::string password = "");
  ~RedisServer() { stop(); }

  bool started() const { return m_pid > 0; }
  unsigned port() const { return m_port; }
  // With SIGKILL the server ends at once, as in a crash.
  void stop(int signal = SIGTERM);
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

// A socket listening on a free loopback port, and that port.
int loopbackListener(unsigned* port);
// A loopback port on which nothing listens at the moment.
unsigned freeLoopbackPort();

}  // namespace testsupport

#endif
