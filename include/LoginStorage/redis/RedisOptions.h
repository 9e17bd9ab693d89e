// RedisOptions: where a RedisStorage finds its server and how it talks to it.
// A plain value; the defaults reach an unauthenticated server on
// 127.0.0.1:6379, database 0, with a one-second deadline per operation.
//
//   VelLogin::RedisOptions options;
//   options.sentinels = {{"10.0.0.5", 26379}, {"10.0.0.6", 26379}, {"10.0.0.7", 26379}};
//   options.masterName = "logins";
//   options.password = "secret";
//   options.prefix = "sessions:";
//   VelLogin::RedisStorage store(options);
#ifndef LOGINSTORAGE_REDIS_REDISOPTIONS_H
#define LOGINSTORAGE_REDIS_REDISOPTIONS_H

#include <string>
#include <vector>

namespace VelLogin {

struct RedisAddress {
  std::string host;
  unsigned port = 6379;
};

struct RedisOptions {
  // The server, unless unixSocket or sentinels name it instead.
  std::string host = "127.0.0.1";
  unsigned port = 6379;
  // Non-empty: the path of the server's unix socket, used instead of
  // host:port.
  std::string unixSocket;

  // Non-empty password: every connection authenticates with AUTH, as the
  // ACL user when user is non-empty, else with the password alone.
  std::string user;
  std::string password;
  // Non-zero: every connection selects this database.
  unsigned database = 0;

  // Non-empty: the server is the master that these sentinels name
  // masterName; it is asked for on connecting and again after a
  // connection failure, a READONLY or a MASTERDOWN reply, so that the
  // store follows a failover. host, port and unixSocket are then unused.
  std::vector<RedisAddress> sentinels;
  std::string masterName;
  // Sentinels that require a password of their own (requirepass in the
  // sentinel's configuration); empty: none.
  std::string sentinelPassword;

  // Keys on the server are prefix + key; see RedisStorage.h.
  std::string prefix;

  // The deadline of one operation, in milliseconds, from its start to its
  // last byte read: connecting (sentinels included), sending and every read
  // of every reply. 0 means 1000.
  unsigned timeoutMs = 1000;
  // The time a walk over the records (an iteration, delAll(),
  // getNumElements()) may spend in SCAN calls in all, in milliseconds;
  // 0 means 60 000.
  unsigned walkTimeoutMs = 60000;

  // Non-zero: a write (setRaw, setExpiration, del, delAll) succeeds only
  // once WAIT confirms that this many replicas hold it, within timeoutMs.
  unsigned waitReplicas = 0;
};

}  // namespace VelLogin

#endif
