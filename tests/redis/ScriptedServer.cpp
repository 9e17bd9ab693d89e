#include "ScriptedServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "RedisServer.h"

namespace testsupport {

namespace {

// Waits a little for input, so that the thread sees in time that it is to stop.
bool readable(int fd) {
  pollfd target{fd, POLLIN, 0};
  return ::poll(&target, 1, 20) > 0;
}

}  // namespace

ScriptedServer::ScriptedServer(std::vector<std::string> replies, std::chrono::milliseconds drip)
    : m_replies(std::move(replies)), m_drip(drip), m_listener(loopbackListener(&m_port)) {
  m_thread = std::thread([this] { serve(); });
}

ScriptedServer::~ScriptedServer() {
  m_stopping = true;
  m_thread.join();
  ::close(m_listener);
}

void ScriptedServer::serve() {
  size_t next = 0;
  while (!m_stopping) {
    const int connection = readable(m_listener) ? ::accept(m_listener, nullptr, nullptr) : -1;
    char command[64 * 1024];
    bool open = connection >= 0;
    while (open && !m_stopping) {
      if (!readable(connection)) continue;
      if (::recv(connection, command, sizeof command, 0) <= 0) break;
      const std::string& reply = m_replies[std::min(next++, m_replies.size() - 1)];
      open = !reply.empty();
      // A drip sends a byte per interval: the pace of a slow server.
      const size_t step = m_drip.count() == 0 ? reply.size() : 1;
      for (size_t sent = 0; open && sent < reply.size() && !m_stopping; sent += step) {
        open = ::send(connection, reply.data() + sent, step, MSG_NOSIGNAL) ==
               static_cast<ssize_t>(step);
        std::this_thread::sleep_for(m_drip);
      }
    }
    if (connection >= 0) ::close(connection);
  }
}

}  // namespace testsupport
