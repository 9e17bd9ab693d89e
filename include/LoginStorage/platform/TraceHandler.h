// Where finished trace lines go.
//
// The library hands every line it writes to one process-wide handler. The
// default handler writes the line and "\n" to stderr. Applications route lines
// into their own log by installing a handler; tests capture them the same way.
//
//   void toMyLog(void* log, const char* topic, int severity, const char* line) {
//     static_cast<MyLog*>(log)->write(topic, severity, line);
//   }
//   VelLogin::setTraceHandler(toMyLog, &myLog);
//
// The handler is called on the thread that made the storage call. Calls never
// overlap, whichever threads trace: the handler needs no lock of its own, and
// once setTraceHandler() has returned the old handler is not running and its
// context may be freed. A handler must not call back into the store that is
// tracing; lines that stores write on the handler's thread while it runs are
// dropped, so a handler may keep lines in a store of its own.
#ifndef LOGINSTORAGE_PLATFORM_TRACEHANDLER_H
#define LOGINSTORAGE_PLATFORM_TRACEHANDLER_H

#include <string>
#include <vector>

#include "../storage/Export.h"

namespace VelLogin {

// topic is "STORAGE" for messages and "COVERAGE" for method entries; severity
// is the message's severity index, 0 for method entries; line is the finished
// line without a trailing newline. All three are valid for the call only.
typedef void (*TraceHandler)(void* context, const char* topic, int severity,
                             const char* line);

// Installs handler (called with context) and returns the previous handler.
// A null handler restores the default one, which writes to stderr.
LOGINSTORAGE_EXPORT TraceHandler setTraceHandler(TraceHandler handler,
                                                 void* context);

// The current handler (the default one is a function too), and its context in
// *context unless context is null; so that code that installs a handler for a
// while can put back exactly what it found:
//
//   void* saved;
//   VelLogin::TraceHandler previous = VelLogin::traceHandler(&saved);
//   VelLogin::setTraceHandler(mine, &state);
//   ...
//   VelLogin::setTraceHandler(previous, saved);
LOGINSTORAGE_EXPORT TraceHandler traceHandler(void** context);

// Hands a finished line to the current handler, exactly as the library hands
// its own lines. For companion libraries built on this one (the Redis store)
// so that their lines reach the same handler; the caller has already applied
// the debug settings. Arguments as for TraceHandler.
LOGINSTORAGE_EXPORT void writeTraceLine(const char* topic, int severity,
                                        const char* line);

// The trace topics registered so far, in registration order (a topic that
// several parts of the library register is listed once per registration).
LOGINSTORAGE_EXPORT std::vector<std::string> registeredTraceTopics();

}  // namespace VelLogin

#endif
