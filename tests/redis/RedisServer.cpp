#include "RedisServer.h"

#include <arpa/inet.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <thread>

namespace testsupport {

namespace {

// A socket listening on a free loopback port, and that port.
int loopbackListener(unsigned* port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::listen(fd, 8);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  *port = ntohs(address.sin_port);
  return fd;
}

}  // namespace

unsigned freeLoopbackPort() {
  unsigned port = 0;
  ::close(loopbackListener(&port));
  return port;
}

RedisServer::RedisServer(std::vector<std::string> arguments, std::string password)
    : m_port(freeLoopbackPort()), m_password(std::move(password)) {
  // A sentinel insists on a configuration file it may rewrite.
  writeFileBytes(m_folder / "redis.conf", "");
  m_arguments = {"redis-server", m_folder / "redis.conf", "--port", std::to_string(m_port),
                 "--bind", "127.0.0.1", "--save", "", "--appendonly", "no",
                 "--dir", m_folder.path(), "--logfile", m_folder / "server.log"};
  m_arguments.insert(m_arguments.end(), arguments.begin(), arguments.end());
  restart();
}

RedisServer::RedisServer(const Script& script) : m_port(0) {
  const int listener = loopbackListener(&m_port);
  m_pid = ::fork();
  if (m_pid != 0) {
    ::close(listener);
    return;
  }
  // The child serves one connection after the other until it is killed, at
  // the latest with the test program, even one that crashed.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  size_t next = 0;
  char command[64 * 1024];
  for (;;) {
    const int connection = ::accept(listener, nullptr, nullptr);
    for (bool open = true; open && ::recv(connection, command, sizeof command, 0) > 0;) {
      const std::string& reply = script.replies[std::min(next++, script.replies.size() - 1)];
      open = !reply.empty();
      // A drip sends a byte per interval: the pace of a slow server.
      const size_t step = script.drip.count() == 0 ? reply.size() : 1;
      for (size_t sent = 0; open && sent < reply.size(); sent += step) {
        open = ::send(connection, reply.data() + sent, step, MSG_NOSIGNAL) ==
               static_cast<ssize_t>(step);
        std::this_thread::sleep_for(script.drip);
      }
    }
    ::close(connection);
  }
}

void RedisServer::stop(int signal) {
  if (m_pid <= 0) return;
  ::kill(m_pid, signal);
  ::waitpid(m_pid, nullptr, 0);
  m_pid = 0;
}

bool RedisServer::restart() {
  stop();
  std::vector<char*> argv;
  for (std::string& argument : m_arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  if (::posix_spawnp(&m_pid, "redis-server", nullptr, nullptr, argv.data(), environ) != 0)
    m_pid = 0;
  // Up to ten seconds for the server to answer; it usually takes a few ms.
  for (int attempt = 0; m_pid > 0 && attempt < 1000; ++attempt) {
    if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = 0;
    if (m_pid > 0 && command({"PING"}) == "+PONG") return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stop();
  return false;
}

std::string RedisServer::command(const std::vector<std::string>& args) const {
  const timeval timeout{5, 0};
  const std::unique_ptr<redisContext, void (*)(redisContext*)> context(
      redisConnectWithTimeout("127.0.0.1", static_cast<int>(m_port), timeout), redisFree);
  if (context == nullptr || context->err != 0 ||
      redisSetTimeout(context.get(), timeout) != REDIS_OK)
    return "(no connection)";
  const auto run = [&context](const std::vector<std::string>& sent) -> std::string {
    std::vector<const char*> argv;
    std::vector<size_t> lengths;
    for (const std::string& arg : sent) {
      argv.push_back(arg.data());
      lengths.push_back(arg.size());
    }
    const std::unique_ptr<redisReply, void (*)(void*)> reply(
        static_cast<redisReply*>(redisCommandArgv(context.get(), static_cast<int>(argv.size()),
                                                  argv.data(), lengths.data())),
        freeReplyObject);
    if (reply == nullptr) return "(no reply)";
    const std::string body = reply->str != nullptr ? std::string(reply->str, reply->len) : "";
    return reply->type == REDIS_REPLY_INTEGER  ? ":" + std::to_string(reply->integer)
           : reply->type == REDIS_REPLY_STATUS ? "+" + body
           : reply->type == REDIS_REPLY_ERROR  ? "-" + body
                                               : body;
  };
  const std::string auth = m_password.empty() ? "+OK" : run({"AUTH", m_password});
  return auth == "+OK" ? run(args) : auth;
}

}  // namespace testsupport
