// A hostile stand-in for a Redis server: a thread listening on a free
// loopback port that answers each command it receives (one read of the
// socket) with the next reply of a script, the last one again once the
// script is through, whatever the command. An empty reply closes the
// connection. With a drip interval it sends each reply a byte at a time.
#ifndef LOGINSTORAGE_TESTS_REDIS_SCRIPTEDSERVER_H
#define LOGINSTORAGE_TESTS_REDIS_SCRIPTEDSERVER_H

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

class ScriptedServer {
 public:
  explicit ScriptedServer(std::vector<std::string> replies,
                          std::chrono::milliseconds drip = std::chrono::milliseconds(0));
  ~ScriptedServer();
  unsigned port() const { return m_port; }

 private:
  void serve();

  std::vector<std::string> m_replies;
  std::chrono::milliseconds m_drip;
  unsigned m_port = 0;
  int m_listener;
  std::atomic<bool> m_stopping{false};
  std::thread m_thread;
};

}  // namespace testsupport

#endif
