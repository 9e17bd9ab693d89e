#include "redis/RedisLink.h"

#include <errno.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <new>

namespace VelLogin {

namespace {

// A buffer kept between replies; a larger one, left by a large record, is
// given back before the next command.
constexpr size_t kKeptBuffer = 64 * 1024;
constexpr size_t kFirstBuffer = 16 * 1024;

std::string describe(int error) { return std::strerror(error); }

}  // namespace

bool RedisLink::await(short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd target{m_fd, events, 0};
    const int ready = ::poll(&target, 1, left > 60000 ? 60000 : static_cast<int>(left));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return true;  // the next call reports the error
  }
}

bool RedisLink::open(const std::string& host, unsigned port, const std::string& unixSocket,
                     Clock::time_point deadline, std::string& error) {
  close();
  if (unixSocket.empty() && (port == 0 || port > 65535)) {
    error = "cannot connect: port " + std::to_string(port) + " out of range";
    return false;
  }
  // hiredis would cut a longer path short and connect to another socket.
  if (unixSocket.size() >= sizeof(sockaddr_un::sun_path)) {
    error = "cannot connect: unix socket path too long";
    return false;
  }
  redisContext* context = unixSocket.empty()
                              ? redisConnectNonBlock(host.c_str(), static_cast<int>(port))
                              : redisConnectUnixNonBlock(unixSocket.c_str());
  if (context == nullptr || context->err != 0) {
    error =
        std::string("cannot connect: ") + (context != nullptr ? context->errstr : "out of memory");
    if (context != nullptr) redisFree(context);
    return false;
  }
  m_context = context;
  m_fd = context->fd;
  if (!await(POLLOUT, deadline)) {
    close();
    error = "timeout: cannot connect";
    return false;
  }
  int failure = 0;
  socklen_t size = sizeof failure;
  if (::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0) failure = errno;
  if (failure != 0) {
    close();
    error = "cannot connect: " + describe(failure);
    return false;
  }
  return true;
}

void RedisLink::close() {
  if (m_context != nullptr) redisFree(m_context);
  m_context = nullptr;
  m_fd = -1;
  m_inSize = 0;
}

bool RedisLink::send(std::string_view command, Clock::time_point deadline, std::string& error) {
  size_t sent = 0;
  while (sent < m_out.size()) {
    // MSG_NOSIGNAL: a server that went away must not kill the process with
    // SIGPIPE.
    const ssize_t written = ::send(m_fd, m_out.data() + sent, m_out.size() - sent, MSG_NOSIGNAL);
    if (written > 0) {
      sent += static_cast<size_t>(written);
    } else if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!await(POLLOUT, deadline)) {
        error = "timeout: " + std::string(command) + " not sent in time";
        return false;
      }
    } else if (written < 0 && errno != EINTR) {
      error = std::string(command) + " failed: " + describe(errno);
      return false;
    }
  }
  if (m_out.capacity() > kKeptBuffer) std::string().swap(m_out);
  return true;
}

bool RedisLink::receive(std::string_view command, Clock::time_point deadline, std::string& error) {
  for (;;) {
    switch (m_reply.parse(m_in.get(), m_inSize)) {
      case RedisReply::Progress::Complete:
        if (m_reply.consumed() != m_inSize) {
          error = "protocol error: " + std::string(command) + " answered more than one reply";
          return false;
        }
        return true;
      case RedisReply::Progress::Invalid:
        error = "protocol error: " + std::string(command) + " answered " + m_reply.problem();
        return false;
      case RedisReply::Progress::Incomplete:
        break;
    }
    if (m_inSize == m_inCapacity) {
      // One byte beyond the limit, so that parse() sees a reply exceed it.
      const size_t most = m_limits.maxBytes + 1;
      size_t capacity = m_inCapacity < kFirstBuffer ? kFirstBuffer : m_inCapacity * 2;
      if (capacity > most) capacity = most;
      std::unique_ptr<char[]> grown(new (std::nothrow) char[capacity]);
      if (!grown) {
        error = std::string(command) + " failed: out of memory for its reply";
        return false;
      }
      if (m_inSize != 0) std::memcpy(grown.get(), m_in.get(), m_inSize);
      m_in = std::move(grown);
      m_inCapacity = capacity;
    }
    const ssize_t got = ::recv(m_fd, m_in.get() + m_inSize, m_inCapacity - m_inSize, 0);
    if (got > 0) {
      m_inSize += static_cast<size_t>(got);
    } else if (got == 0) {
      error = std::string(command) + " failed: connection closed by the server";
      return false;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!await(POLLIN, deadline)) {
        error = "timeout: " + std::string(command) + " not answered in time";
        return false;
      }
    } else if (errno != EINTR) {
      error = std::string(command) + " failed: " + describe(errno);
      return false;
    }
  }
}

const RedisReply* RedisLink::exchange(const std::string_view* args, size_t count,
                                      const RedisReply::Limits& limits, Clock::time_point deadline,
                                      std::string& error) {
  if (!isOpen()) {
    error = std::string(args[0]) + " failed: not connected";
    return nullptr;
  }
  m_out.clear();
  m_out += '*';
  m_out += std::to_string(count);
  m_out += "\r\n";
  for (size_t i = 0; i < count; ++i) {
    m_out += '$';
    m_out += std::to_string(args[i].size());
    m_out += "\r\n";
    m_out.append(args[i].data(), args[i].size());
    m_out += "\r\n";
  }
  if (m_inCapacity > kKeptBuffer) {
    m_in.reset();
    m_inCapacity = 0;
  }
  m_inSize = 0;
  m_limits = limits;
  m_reply.start(limits);
  if (!send(args[0], deadline, error) || !receive(args[0], deadline, error)) {
    close();
    return nullptr;
  }
  return &m_reply;
}

}  // namespace VelLogin
