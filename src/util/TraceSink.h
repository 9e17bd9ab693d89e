// Where the method trace composes its lines and hands them on: the buffers
// and the two printf-style entry points the trace macros call. Both libraries
// (the core and the Redis store) compile this same sink; each keeps its own
// buffers and hands finished lines to the one trace handler of the core
// library (VelLogin::writeTraceLine). Private to the libraries.
#ifndef LOGINSTORAGE_UTIL_TRACESINK_H
#define LOGINSTORAGE_UTIL_TRACESINK_H

#include <sstream>

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

// Size of sm_log; a composed message holds at most kTraceLineMax characters.
constexpr unsigned kTraceBufferSize = 5632;
constexpr unsigned kTraceLineMax = kTraceBufferSize - 1;

// Entry lines and stream messages are composed here. Each thread has its own
// log_msg and sm_log, so that lines of two threads never mix.
extern thread_local std::ostringstream log_msg;
// Formatted messages are composed here.
extern thread_local char sm_log[kTraceBufferSize];

#endif
