#include "ScriptedServer.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "RedisServer.h"

namespace testsupport {

namespace {

// Serves one connection after the other until the process is killed, at
// the latest with the test program, even one that crashed.
[[noreturn]] void serve(int listener, const std::vector<std::string>& replies,
                        std::chrono::milliseconds drip) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  size_t next = 0;
  char command[64 * 1024];
  for (;;) {
    const int connection = ::accept(listener, nullptr, nullptr);
    for (bool open = true; open && ::recv(connection, command, sizeof command, 0) > 0;) {
      const std::string& reply = replies[std::min(next++, replies.size() - 1)];
      open = !reply.empty();
      // A drip sends a byte per interval: the pace of a slow server.
      const size_t step = drip.count() == 0 ? reply.size() : 1;
      for (size_t sent = 0; open && sent < reply.size(); sent += step) {
        open = ::send(connection, reply.data() + sent, step, MSG_NOSIGNAL) ==
               static_cast<ssize_t>(step);
        std::this_thread::sleep_for(drip);
      }
    }
    ::close(connection);
  }
}

}  // namespace

ScriptedServer::ScriptedServer(const std::vector<std::string>& replies,
                               std::chrono::milliseconds drip) {
  const int listener = loopbackListener(&m_port);
  m_pid = ::fork();
  if (m_pid == 0) serve(listener, replies, drip);
  ::close(listener);
}

ScriptedServer::~ScriptedServer() {
  ::kill(m_pid, SIGKILL);
  ::waitpid(m_pid, nullptr, 0);
}

}  // namespace testsupport
