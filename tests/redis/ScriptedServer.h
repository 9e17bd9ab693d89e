// A hostile stand-in for a Redis server: a child process listening on a free
// loopback port that answers each command it receives (one read of the
// socket) with the next reply of a script, the last one again once the
// script is through, whatever the command. An empty reply closes the
// connection. With a drip interval it sends each reply a byte at a time.
#ifndef LOGINSTORAGE_TESTS_REDIS_SCRIPTEDSERVER_H
#define LOGINSTORAGE_TESTS_REDIS_SCRIPTEDSERVER_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace testsupport {

class ScriptedServer {
 public:
  explicit ScriptedServer(const std::vector<std::string>& replies,
                          std::chrono::milliseconds drip = std::chrono::milliseconds(0));
  ~ScriptedServer();
  unsigned port() const { return m_port; }

 private:
  unsigned m_port = 0;
  pid_t m_pid;
};

}  // namespace testsupport

#endif
