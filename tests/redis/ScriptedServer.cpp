#include "ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace testsupport {

namespace {

// How often the thread looks whether it is to stop.
constexpr int kPollMs = 20;

bool readable(int fd) {
  pollfd target{fd, POLLIN, 0};
  return ::poll(&target, 1, kPollMs) > 0;
}

}  // namespace

ScriptedServer::ScriptedServer(std::vector<std::string> replies, std::chrono::milliseconds drip)
    : m_replies(std::move(replies)), m_drip(drip), m_listener(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), size);
  ::listen(m_listener, 8);
  ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size);
  m_port = ntohs(address.sin_port);
  m_thread = std::thread([this] { serve(); });
}

ScriptedServer::~ScriptedServer() {
  m_stopping = true;
  m_thread.join();
  ::close(m_listener);
}

bool ScriptedServer::answer(int connection, const std::string& bytes) {
  if (m_drip.count() == 0) {
    return ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  for (char byte : bytes) {
    if (m_stopping || ::send(connection, &byte, 1, MSG_NOSIGNAL) != 1) return false;
    // The pace of the drip, not a wait for a result.
    std::this_thread::sleep_for(m_drip);
  }
  return true;
}

void ScriptedServer::serve() {
  size_t next = 0;
  while (!m_stopping) {
    if (!readable(m_listener)) continue;
    const int connection = ::accept(m_listener, nullptr, nullptr);
    if (connection < 0) continue;
    char command[64 * 1024];
    bool open = true;
    while (open && !m_stopping) {
      if (!readable(connection)) continue;
      if (::recv(connection, command, sizeof command, 0) <= 0) break;
      const std::string& reply = m_replies[next < m_replies.size() ? next : m_replies.size() - 1];
      ++next;
      open = !reply.empty() && answer(connection, reply);
    }
    ::close(connection);
  }
}

}  // namespace testsupport
