#include "RedisLocation.h"

#include <cstdlib>
#include <vector>

#include "KeyText.h"

namespace tool {

namespace {

constexpr unsigned kDefaultTimeoutMs = 2000;
constexpr unsigned kRedisPort = 6379;
constexpr unsigned kSentinelPort = 26379;

const char* const kSchemes[] = {"redis://", "unix://", "redis-sentinel://"};

bool startsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decodes text; a bad escape's message quotes text unless it is secret, then
// it names secretPart instead.
bool percentDecode(const std::string& text, std::string& out, std::string& error,
                   const char* secretPart = nullptr) {
  out.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
    const int low = high >= 0 ? hexValue(text[i + 2]) : -1;
    if (low < 0) {
      error = secretPart != nullptr ? std::string("bad percent escape in ") + secretPart
                                    : "bad percent escape in '" + escapeKey(text) + "'";
      return false;
    }
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

// A decimal number of 1 to 9 digits within [minimum, maximum].
bool parseNumber(const std::string& text, unsigned long minimum, unsigned long maximum,
                 unsigned& value) {
  if (text.empty() || text.size() > 9 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
  if (number < minimum || number > maximum) return false;
  value = static_cast<unsigned>(number);
  return true;
}

// HOST[:PORT], HOST possibly "[IPv6]".
bool parseAddress(const std::string& text, unsigned defaultPort, VelLogin::RedisAddress& address,
                  std::string& error) {
  std::string host = text, port;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':')) {
      host.clear();
    } else {
      host = text.substr(1, close - 1);
      if (close + 1 < text.size()) port = text.substr(close + 2);
    }
  } else if (text.find(':') != std::string::npos) {
    host = text.substr(0, text.find(':'));
    port = text.substr(text.find(':') + 1);
  }
  address.port = defaultPort;
  std::string decoded;
  if (host.empty() || !percentDecode(host, decoded, error) ||
      (text.find(':') != std::string::npos && text.back() != ']' &&
       !parseNumber(port, 1, 65535, address.port))) {
    if (error.empty()) error = "bad server address '" + escapeKey(text) + "' (HOST[:PORT])";
    return false;
  }
  address.host = decoded;
  return true;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

bool parseDatabase(const std::string& text, unsigned& database, std::string& error) {
  if (parseNumber(text, 0, 999999999, database)) return true;
  error = "'" + escapeKey(text) + "' is not a database number";
  return false;
}

}  // namespace

bool RedisLocation::isRedis(const std::string& text) {
  for (const char* scheme : kSchemes) {
    if (startsWith(text, scheme)) return true;
  }
  return false;
}

bool RedisLocation::parseAuthority(const std::string& userinfo, std::string& error) {
  const size_t colon = userinfo.find(':');
  if (colon != std::string::npos &&
      !percentDecode(userinfo.substr(0, colon), m_options.user, error, "the user name")) {
    return false;
  }
  return percentDecode(colon == std::string::npos ? userinfo : userinfo.substr(colon + 1),
                       m_options.password, error, "the password");
}

bool RedisLocation::parseQuery(const std::string& query, std::string& error) {
  for (const std::string& pair : split(query, '&')) {
    const size_t equals = pair.find('=');
    const std::string name = pair.substr(0, equals);
    std::string value;
    const bool secret = name == "sentinel_password";
    if (equals == std::string::npos || !percentDecode(pair.substr(equals + 1), value, error,
                                                      secret ? "the sentinel password" : nullptr)) {
      if (error.empty()) error = "option '" + escapeKey(pair) + "' needs a value (NAME=VALUE)";
      return false;
    }
    if (name == "prefix") {
      m_options.prefix = value;
    } else if (name == "db") {
      if (!parseDatabase(value, m_options.database, error)) return false;
    } else if (name == "timeout") {
      if (!parseNumber(value, 1, 3600000, m_options.timeoutMs)) {
        error = "timeout must be 1 to 3600000 milliseconds";
        return false;
      }
    } else if (secret) {
      m_options.sentinelPassword = value;
    } else {
      error = "unknown option '" + escapeKey(name) +
              "' (prefix, db, timeout and sentinel_password are known)";
      return false;
    }
  }
  return true;
}

bool RedisLocation::parse(const std::string& text, std::string& error) {
  m_options = VelLogin::RedisOptions();
  m_options.timeoutMs = kDefaultTimeoutMs;
  error.clear();
  const size_t schemeEnd = text.find("://") + 3;
  const std::string scheme = text.substr(0, schemeEnd);
  std::string rest = text.substr(schemeEnd);

  const size_t question = rest.find('?');
  const std::string query = question == std::string::npos ? "" : rest.substr(question + 1);
  rest = rest.substr(0, question);

  // The password never reaches a message: the display masks it.
  m_display = text;
  const size_t at = rest.rfind('@', rest.find('/'));
  if (at != std::string::npos) {
    const std::string userinfo = rest.substr(0, at);
    const size_t colon = userinfo.find(':');
    m_display = scheme + (colon == std::string::npos ? "" : userinfo.substr(0, colon) + ":") +
                "***" + text.substr(schemeEnd + at);
    if (!parseAuthority(userinfo, error)) return false;
    rest = rest.substr(at + 1);
  }
  if (!query.empty()) {
    std::string masked;
    for (const std::string& pair : split(query, '&')) {
      masked += masked.empty() ? "?" : "&";
      masked += pair.compare(0, 18, "sentinel_password=") == 0 ? "sentinel_password=***" : pair;
    }
    m_display = m_display.substr(0, m_display.find('?')) + masked;
  }
  if (!query.empty() && !parseQuery(query, error)) return false;

  if (scheme == "unix://") {
    if (rest.empty() || rest[0] != '/') {
      error = "unix:// needs an absolute socket path (unix:///run/redis/redis.sock)";
      return false;
    }
    if (!percentDecode(rest, m_options.unixSocket, error)) return false;
  } else {
    const size_t slash = rest.find('/');
    const std::string hosts = rest.substr(0, slash);
    std::vector<std::string> path;
    if (slash != std::string::npos) path = split(rest.substr(slash + 1), '/');
    if (scheme == "redis://") {
      VelLogin::RedisAddress address;
      if (!parseAddress(hosts, kRedisPort, address, error)) return false;
      m_options.host = address.host;
      m_options.port = address.port;
      if (path.size() > 1 || (path.size() == 1 && !path[0].empty() &&
                              !parseDatabase(path[0], m_options.database, error))) {
        if (error.empty()) error = "too many path parts in '" + escapeKey(m_display) + "'";
        error += "; the key prefix is given as ?prefix=";
        return false;
      }
    } else {
      for (const std::string& one : split(hosts, ',')) {
        VelLogin::RedisAddress address;
        if (!parseAddress(one, kSentinelPort, address, error)) return false;
        m_options.sentinels.push_back(address);
      }
      if (path.empty() || path.size() > 2 || !percentDecode(path[0], m_options.masterName, error) ||
          m_options.masterName.empty() ||
          (path.size() == 2 && !parseDatabase(path[1], m_options.database, error))) {
        if (error.empty()) error = "redis-sentinel:// needs /MASTERNAME[/DB] after the sentinels";
        return false;
      }
    }
  }

  if (m_options.password.empty()) {
    for (const char* variable : {"LOGINSTORAGE_REDIS_PASSWORD", "REDISCLI_AUTH"}) {
      const char* value = std::getenv(variable);
      if (value != nullptr && *value != '\0') {
        m_options.password = value;
        break;
      }
    }
  }
  return true;
}

}  // namespace tool
