#include "Output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tool {

namespace {
constexpr size_t kBufferSize = 64 * 1024;
}

Output::~Output() { flush(); }

bool Output::write(const char* data, size_t len) {
  if (!m_error.empty()) return false;
  if (len >= kBufferSize) return flush() && writeOut(data, len);
  m_buffer.append(data, len);
  return m_buffer.size() < kBufferSize || flush();
}

bool Output::flush() {
  if (m_error.empty() && !m_buffer.empty()) writeOut(m_buffer.data(), m_buffer.size());
  m_buffer.clear();
  return m_error.empty();
}

bool Output::writeOut(const char* data, size_t len) {
  while (len > 0) {
    const ssize_t written = ::write(STDOUT_FILENO, data, len);
    if (written < 0) {
      if (errno == EINTR) continue;
      m_error = std::strerror(errno);
      return false;
    }
    data += written;
    len -= static_cast<size_t>(written);
  }
  return true;
}

}  // namespace tool
