#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/TraceHandler.h"
#include "platform/TraceSink.h"

std::ostringstream log_msg;
char sm_log[kTraceBufferSize];

namespace {

void writeToStderr(void*, const char*, int, const char* line) {
  std::fprintf(stderr, "%s\n", line);
}

VelLogin::TraceHandler g_handler = writeToStderr;
void* g_handlerContext = nullptr;

}  // namespace

void tderrorFunc(const char* topic, int severity, int, const char* format, ...) {
  static std::vector<char> line;
  va_list args;
  va_start(args, format);
  formatInto(line, format, args);
  va_end(args);
  g_handler(g_handlerContext, topic, severity, line.data());
}

const char* tellu_printf(const char* format, ...) {
  static std::vector<char> text;
  va_list args;
  va_start(args, format);
  formatInto(text, format, args);
  va_end(args);
  return text.data();
}

namespace VelLogin {

TraceHandler setTraceHandler(TraceHandler handler, void* context) {
  TraceHandler previous = g_handler;
  g_handler = handler != nullptr ? handler : writeToStderr;
  g_handlerContext = handler != nullptr ? context : nullptr;
  return previous;
}

void writeTraceLine(const char* topic, int severity, const char* line) {
  g_handler(g_handlerContext, topic, severity, line);
}

}  // namespace VelLogin
