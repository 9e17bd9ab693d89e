// The utility operations behind the method trace: the sink that takes finished
// lines, the formatter, the label demangler, topic registration and the shared
// buffers in which lines are composed. Private to the library.
#ifndef LOGINSTORAGE_PLATFORM_TRACESINK_H
#define LOGINSTORAGE_PLATFORM_TRACESINK_H

#include <cstdarg>
#include <sstream>
#include <vector>

// Formats its arguments like printf and hands the result to the current trace
// handler (VelLogin::setTraceHandler). The third argument is unused (always 0).
// Handler calls never overlap; a line written on a thread that is inside the
// handler already is dropped.
void tderrorFunc(const char* topic, int severity, int zero, const char* format,
                 ...) __attribute__((format(printf, 4, 5)));

// Formats like printf into a buffer of the calling thread's own; the text
// stays valid until the thread's next call. Never returns null.
const char* tellu_printf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

// Formats like vprintf into out, growing it to the text's length (always
// NUL-terminated; an encoding error gives ""). out keeps its capacity between
// calls, so steady tracing does not allocate.
void formatInto(std::vector<char>& out, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));

// Size of sm_log; a composed message holds at most kTraceLineMax characters.
constexpr unsigned kTraceBufferSize = 5632;
constexpr unsigned kTraceLineMax = kTraceBufferSize - 1;

// Entry lines and stream messages are composed here. Each thread has its own
// log_msg and sm_log, so that lines of two threads never mix.
extern thread_local std::ostringstream log_msg;
// Formatted messages are composed here.
extern thread_local char sm_log[kTraceBufferSize];

class Demangler {
 public:
  // Buffer size that demangle() writes into.
  static constexpr unsigned kLabelSize = 100;

  // Writes "<Class>::<method>" into buffer (kLabelSize characters, always
  // NUL-terminated within them), the class taken from a type-information name
  // with a leading "VelLogin::" dropped. Returns buffer.
  static const char* demangle(const char* typeName, const char* methodName,
                              char* buffer);
};

// Constructing one registers topicName with the trace system.
class DebugTopics {
 public:
  explicit DebugTopics(const char* topicName);
};

#endif
