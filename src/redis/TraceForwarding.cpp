// The trace sink of the Redis library. The trace macros compose lines in this
// library's own buffers; finished lines go to the core library's handler
// through VelLogin::writeTraceLine, so that an application sees the Redis
// store's lines beside every other store's, under the same debug settings.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/TraceHandler.h"
#include "platform/TraceSink.h"

thread_local std::ostringstream log_msg;
thread_local char sm_log[kTraceBufferSize];

void tderrorFunc(const char* topic, int severity, int, const char* format, ...) {
  std::vector<char> line;  // per call: a line held by a running handler stays put
  va_list args;
  va_start(args, format);
  formatInto(line, format, args);
  va_end(args);
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
