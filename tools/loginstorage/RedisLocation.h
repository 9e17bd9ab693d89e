// A Redis location as Redis tools write it, turned into RedisOptions:
//
//   redis://[[USER]:PASSWORD@]HOST[:PORT][/DB][?OPTIONS]
//   unix://[[USER]:PASSWORD@]/PATH/TO/SOCKET[?OPTIONS]
//   redis-sentinel://[[USER]:PASSWORD@]HOST[:PORT][,HOST[:PORT]...]/MASTER[/DB][?OPTIONS]
//
// OPTIONS, joined by "&": prefix=KEYPREFIX, db=N, timeout=MILLISECONDS and
// sentinel_password=PASSWORD. Every part is percent-decoded. As with
// redis-cli, userinfo without ":" is the password; "USER:" (an empty
// password) is a user whose password comes from the environment. HOST may
// be an IPv6 address in brackets. Ports default to 6379 (26379 for
// sentinels). With no password in the location, the environment's
// LOGINSTORAGE_REDIS_PASSWORD, else REDISCLI_AUTH, gives it.
#ifndef LOGINSTORAGE_TOOLS_REDISLOCATION_H
#define LOGINSTORAGE_TOOLS_REDISLOCATION_H

#include <string>

#include "LoginStorage/redis/RedisOptions.h"

namespace tool {

class RedisLocation {
 public:
  // True when text begins with one of the schemes above.
  static bool isRedis(const std::string& text);

  // Parses text into options (timeoutMs set to the tool's default unless the
  // location gives one). False with a one-line error for a malformed location.
  bool parse(const std::string& text, std::string& error);

  const VelLogin::RedisOptions& options() const { return m_options; }
  // The location as given, its password masked: fit for messages.
  const std::string& display() const { return m_display; }

 private:
  bool parseAuthority(const std::string& userinfo, std::string& error);
  bool parseQuery(const std::string& query, std::string& error);

  VelLogin::RedisOptions m_options;
  std::string m_display;
};

}  // namespace tool

#endif
