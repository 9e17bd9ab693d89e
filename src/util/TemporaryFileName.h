// The names of writeFile()'s temporary files, ".lstmp-<pid>-<n>" (1 to 10
// digits each): the one place that makes and reads them. Inline, so that the
// loginstorage tool, the fuzzers and the tests sort folder entries by the
// very rule the folder store uses. Private: not installed.
#ifndef LOGINSTORAGE_UTIL_TEMPORARYFILENAME_H
#define LOGINSTORAGE_UTIL_TEMPORARYFILENAME_H

#include <errno.h>
#include <signal.h>
#include <sys/types.h>

#include <cstring>
#include <string>

namespace VelLogin {
namespace temporary_file_name {

constexpr char kPrefix[] = ".lstmp-";

// The temporary name of writer pid's counter-th file.
inline std::string make(unsigned long long pid, unsigned long long counter) {
  return kPrefix + std::to_string(pid) + "-" + std::to_string(counter);
}

// Reads the decimal number at text (1 to 10 digits, so 64 bits hold it on
// every platform) into value; the first character after it, or null when
// there is no such number.
inline const char* digits(const char* text, unsigned long long* value) {
  const char* p = text;
  *value = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (p - text == 10) return nullptr;
    *value = *value * 10 + static_cast<unsigned long long>(*p - '0');
  }
  return p == text ? nullptr : p;
}

// True when name is exactly a temporary name; pid is then its writer's.
inline bool parse(const char* name, unsigned long long* pid) {
  if (std::strncmp(name, kPrefix, sizeof kPrefix - 1) != 0) return false;
  unsigned long long counter = 0;
  const char* p = digits(name + sizeof kPrefix - 1, pid);
  if (p == nullptr || *p != '-') return false;
  p = digits(p + 1, &counter);
  return p != nullptr && *p == '\0';
}

// True when name is exactly a temporary name: never a record.
inline bool matches(const char* name) {
  unsigned long long pid = 0;
  return parse(name, &pid);
}

// True when name is a temporary name whose writer no longer exists, so that
// nothing will ever rename the file.
inline bool isAbandoned(const char* name) {
  unsigned long long pid = 0;
  if (!parse(name, &pid)) return false;
  // No process has id 0 or one beyond pid_t: no writer will come back.
  if (pid == 0 || pid > 0x7FFFFFFFull) return true;
  return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

}  // namespace temporary_file_name
}  // namespace VelLogin

#endif
