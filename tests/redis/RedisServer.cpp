#include "RedisServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace testsupport {

unsigned freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

RedisServer::RedisServer(std::vector<std::string> arguments, std::string password)
    : m_port(freeLoopbackPort()),
      m_arguments(std::move(arguments)),
      m_password(std::move(password)) {
  restart();
}

RedisServer::RedisServer(const Sentinel& sentinel) : m_port(freeLoopbackPort()), m_sentinel(true) {
  const std::string master = sentinel.masterName;
  writeFileBytes(m_folder / "sentinel.conf",
                 "port " + std::to_string(m_port) + "\nbind 127.0.0.1\ndir " + m_folder.path() +
                     "\nsentinel monitor " + master + " 127.0.0.1 " +
                     std::to_string(sentinel.masterPort) + " 2\nsentinel down-after-milliseconds " +
                     master + " 1000\nsentinel failover-timeout " + master + " 3000\n");
  restart();
}

void RedisServer::stop(int signal) {
  if (m_pid <= 0) return;
  ::kill(m_pid, signal);
  ::waitpid(m_pid, nullptr, 0);
  m_pid = 0;
}

bool RedisServer::restart() {
  stop();
  const std::string port = std::to_string(m_port), log = m_folder / "server.log";
  // Everything the child needs is made before fork().
  std::vector<std::string> arguments{"redis-server"};
  if (m_sentinel) {
    arguments.insert(arguments.end(), {m_folder / "sentinel.conf", "--sentinel"});
  } else {
    arguments.insert(arguments.end(), {"--port", port, "--bind", "127.0.0.1", "--save", "",
                                       "--appendonly", "no", "--dir", m_folder.path()});
    arguments.insert(arguments.end(), m_arguments.begin(), m_arguments.end());
  }
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  m_pid = ::fork();
  if (m_pid == 0) {
    std::freopen(log.c_str(), "ab", stdout);
    std::freopen(log.c_str(), "ab", stderr);
    ::execvp("redis-server", argv.data());
    ::_exit(127);
  }
  // Up to ten seconds for the server to answer; it usually takes a few ms.
  for (int attempt = 0; m_pid > 0 && attempt < 1000; ++attempt) {
    if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = 0;
    if (m_pid > 0 && command({"PING"}) == "+PONG") return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stop();
  return false;
}

namespace {

std::string render(const redisReply* reply) {
  const std::string body = reply->str != nullptr ? std::string(reply->str, reply->len) : "";
  if (reply->type == REDIS_REPLY_ARRAY) {
    std::string items;
    for (size_t i = 0; i < reply->elements; ++i) {
      items += (i == 0 ? "" : ", ") + render(reply->element[i]);
    }
    return "[" + items + "]";
  }
  return reply->type == REDIS_REPLY_INTEGER  ? ":" + std::to_string(reply->integer)
         : reply->type == REDIS_REPLY_NIL    ? "(nil)"
         : reply->type == REDIS_REPLY_STATUS ? "+" + body
         : reply->type == REDIS_REPLY_ERROR  ? "-" + body
                                             : body;
}

std::string run(redisContext* context, const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  for (const std::string& arg : args) {
    argv.push_back(arg.data());
    lengths.push_back(arg.size());
  }
  auto* reply = static_cast<redisReply*>(
      redisCommandArgv(context, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  if (reply == nullptr) return "(no reply)";
  std::string text = render(reply);
  freeReplyObject(reply);
  return text;
}

}  // namespace

std::string RedisServer::command(const std::vector<std::string>& args) const {
  const timeval timeout{5, 0};
  redisContext* context = redisConnectWithTimeout("127.0.0.1", static_cast<int>(m_port), timeout);
  if (context == nullptr || context->err != 0) {
    redisFree(context);
    return "(no connection)";
  }
  redisSetTimeout(context, timeout);
  std::string text;
  if (!m_password.empty()) text = run(context, {"AUTH", m_password});
  if (m_password.empty() || text == "+OK") text = run(context, args);
  redisFree(context);
  return text;
}

}  // namespace testsupport
