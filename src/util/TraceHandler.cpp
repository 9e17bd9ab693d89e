// The one trace handler of the process: every library's trace sink hands its
// finished lines here.
#include <cstdio>
#include <mutex>

#include "LoginStorage/platform/TraceHandler.h"
#include "util/DebugTopics.h"

namespace {

void writeToStderr(void*, const char*, int, const char* line) {
  std::fprintf(stderr, "%s\n", line);
}

// Held while the handler runs and while it is replaced: handlers need no lock
// of their own, and once setTraceHandler() has returned no thread is still in
// the old handler (whose context the caller may then free).
std::mutex g_handlerLock;
VelLogin::TraceHandler g_handler = writeToStderr;
void* g_handlerContext = nullptr;

// Set while this thread runs the handler. Lines that a handler causes (it
// keeps lines in a store that traces) are dropped: they would recurse.
thread_local bool t_inHandler = false;

class HandlerCall {
 public:
  HandlerCall() : m_hold(g_handlerLock) { t_inHandler = true; }
  ~HandlerCall() { t_inHandler = false; }
  HandlerCall(const HandlerCall&) = delete;
  HandlerCall& operator=(const HandlerCall&) = delete;

 private:
  std::lock_guard<std::mutex> m_hold;
};

// Locks the handler for a change unless this thread is the one running it
// (and holds the lock already).
std::unique_lock<std::mutex> lockForChange() {
  return t_inHandler ? std::unique_lock<std::mutex>()
                     : std::unique_lock<std::mutex>(g_handlerLock);
}

}  // namespace

namespace VelLogin {

TraceHandler setTraceHandler(TraceHandler handler, void* context) {
  std::unique_lock<std::mutex> hold = lockForChange();
  TraceHandler previous = g_handler;
  g_handler = handler != nullptr ? handler : writeToStderr;
  g_handlerContext = handler != nullptr ? context : nullptr;
  return previous;
}

TraceHandler traceHandler(void** context) {
  std::unique_lock<std::mutex> hold = lockForChange();
  if (context != nullptr) *context = g_handlerContext;
  return g_handler;
}

void writeTraceLine(const char* topic, int severity, const char* line) {
  if (t_inHandler) return;
  HandlerCall call;
  g_handler(g_handlerContext, topic, severity, line);
}

std::vector<std::string> registeredTraceTopics() { return DebugTopics::names(); }

}  // namespace VelLogin
