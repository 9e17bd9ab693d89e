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

// Formats into out, growing it to the text's length; out keeps its capacity
// between calls so steady tracing does not allocate.
__attribute__((format(printf, 2, 0))) void formatInto(std::vector<char>& out,
                                                   const char* format,
                                                   va_list args) {
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
