#include "util/TraceSink.h"

#include <cstdarg>
#include <vector>

#include "LoginStorage/platform/TraceHandler.h"
#include "util/Formatting.h"

thread_local std::ostringstream log_msg;
thread_local char sm_log[kTraceBufferSize];

namespace {

// Set while this thread hands a line of this library's on. A line the
// handler itself causes here is dropped before it is formatted, so that the
// buffer the handler is reading stays as it is.
thread_local bool t_handingOn = false;

class HandingOn {
 public:
  HandingOn() { t_handingOn = true; }
  ~HandingOn() { t_handingOn = false; }
  HandingOn(const HandingOn&) = delete;
  HandingOn& operator=(const HandingOn&) = delete;
};

}  // namespace

void tderrorFunc(const char* topic, int severity, int, const char* format, ...) {
  if (t_handingOn) return;
  thread_local std::vector<char> line;
  va_list args;
  va_start(args, format);
  formatInto(line, format, args);
  va_end(args);
  HandingOn handingOn;
  VelLogin::writeTraceLine(topic, severity, line.data());
}

const char* tellu_printf(const char* format, ...) {
  thread_local std::vector<char> text;
  va_list args;
  va_start(args, format);
  formatInto(text, format, args);
  va_end(args);
  return text.data();
}
