#include <cstdio>

#include "util/Formatting.h"

void formatInto(std::vector<char>& out, const char* format, va_list args) {
  if (out.size() < 256) out.resize(256);
  va_list retry;
  va_copy(retry, args);
  int needed = std::vsnprintf(out.data(), out.size(), format, args);
  if (needed < 0) {
    out[0] = '\0';
  } else if (static_cast<size_t>(needed) >= out.size()) {
    out.resize(static_cast<size_t>(needed) + 1);
    std::vsnprintf(out.data(), out.size(), format, retry);
  }
  va_end(retry);
}
