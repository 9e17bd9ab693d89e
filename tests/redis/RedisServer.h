// A real redis-server for one test: started on a free loopback port with its
// own temporary folder, no persistence, and stopped (or restarted) by the
// test. command() talks to it over a connection of its own, so that tests
// check the server's state without going through the store under test.
// Extra arguments configure it (a password, an ACL user, a unix socket, a
// master to replicate); a sentinel is the same binary with --sentinel and a
// configuration file that monitors one master.
#ifndef LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H
#define LOGINSTORAGE_TESTS_REDIS_REDISSERVER_H

#include <signal.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "LoginStorage/storage/AbstractStorage.h"
#include "support/Records.h"
#include "support/TempFolder.h"

namespace testsupport {

class RedisServer {
 public:
  // Starts the server with these extra arguments ("--name", "value"...) and
  // waits until it answers PING, command() authenticating with password;
  // started() is false when that failed (redis-server not installed).
  explicit RedisServer(std::vector<std::string> arguments = {}, std::string password = "");
  struct Sentinel {
    unsigned masterPort;
    std::string masterName;
  };
  // A sentinel monitoring the master on masterPort under masterName, with a
  // quorum of 2 and short down-after and failover times.
  explicit RedisServer(const Sentinel& sentinel);
  ~RedisServer() { stop(); }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  bool started() const { return m_pid > 0; }
  unsigned port() const { return m_port; }
  // The folder's path + "/" + name.
  std::string path(const std::string& name) const { return m_folder / name; }
  // With SIGKILL the server ends at once, as in a crash.
  void stop(int signal = SIGTERM);
  // Starts it again on the same port, empty (nothing is saved).
  bool restart();

  // Runs a command; renders a string reply as its bytes, an integer as ":N",
  // nil as "(nil)", a status as "+TEXT", an error as "-TEXT" and an array
  // as "[a, b]".
  std::string command(const std::vector<std::string>& args) const;

 private:
  TempFolder m_folder;
  unsigned m_port;
  std::vector<std::string> m_arguments;
  std::string m_password;
  bool m_sentinel = false;
  pid_t m_pid = 0;
};

// A loopback port on which nothing listens at the moment.
unsigned freeLoopbackPort();

}  // namespace testsupport

#endif
