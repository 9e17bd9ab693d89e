// Expected trace lines at the fullest debug level, written short: a bare
// operation name stands for the entry line "[TRACE] <label>::<name>: begin",
// any other line (it starts with '[') is taken as it is.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_ENTRYLINES_H
#define LOGINSTORAGE_TESTS_SUPPORT_ENTRYLINES_H

#include <string>
#include <vector>

namespace testsupport {

inline std::vector<std::string> withEntries(const std::string& label,
                                            std::vector<std::string> lines) {
  for (std::string& line : lines) {
    if (line.empty() || line[0] != '[') line = "[TRACE] " + label + "::" + line + ": begin";
  }
  return lines;
}

}  // namespace testsupport

#endif
