// The method trace: every public method of a store writes an entry line when
// it begins and trace messages at chosen points, each as a macro expanded in
// place so that a method with tracing off pays only a one-time label
// computation and two or three integer tests.
//
//   bool FileSystemStorage::del(const std::string& key) {
//     LS_TRACE_ENTRY("del");
//     ...
//     LS_TRACE_MSG(1, "folder <%s>: %s in deleting record with key <%s>", ...);
//     LS_TRACE_STREAM(3, "[MEMSTORAGE] del key '" << key << "'");
//   }
//
// Line layouts (S = severity name, L = "<Class>::<method>" label):
//   entry:   "[S] L: begin"            topic "COVERAGE", sink severity 0
//   message: "[S] L: <text>"           topic "STORAGE", sink severity N
// With VelLoginDebug::m_printColor the severity colour stands before "[" and
// the topic colour before the label, each closed by "\033[0m".
//
// Stores on different threads may trace at once: labels are computed once
// under a guard, lines are composed in per-thread buffers, and the sink
// serialises the handler calls.
//
// Private to the library: no installed header includes it.
#ifndef LOGINSTORAGE_TRACE_TRACE_H
#define LOGINSTORAGE_TRACE_TRACE_H

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <typeinfo>

#include "LoginStorage/platform/DebugSettings.h"
#include "util/DebugTopics.h"
#include "util/Demangler.h"
#include "util/TraceSink.h"

namespace VelLogin {
namespace trace {

constexpr int kEntrySeverityName = 6;
constexpr const char* kColourReset = "\033[0m";

// Lookups that tolerate settings an application has shrunk or nulled.
inline const char* severityName(int severity) {
  const char* name = VelLoginDebug::sev2StrArr[severity];
  return name != nullptr ? name : "";
}

inline const char* severityColour(int severity) {
  const auto& colours = VelLoginDebug::m_svrColors;
  return static_cast<size_t>(severity) < colours.size() ? colours[severity].c_str() : "";
}

inline const char* topicColour(const char* topic) {
  auto found = VelLoginDebug::m_topicsColors.find(topic);
  return found != VelLoginDebug::m_topicsColors.end() ? found->second.c_str() : "";
}

// The line-composing helpers run only when a line is written: kept out of
// line and marked cold, so that a traced method's hot path stays as small as
// an untraced one's. They compose in the calling thread's own buffers.
#define LS_TRACE_COLD __attribute__((cold, noinline))

// Resets log_msg and writes the prefix shared by entry lines and stream
// messages: "[S] L: ", coloured when asked. Returns log_msg.
LS_TRACE_COLD inline std::ostringstream& startStreamLine(int severity, const char* topic,
                                                        const char* label) {
  std::ostringstream& line = log_msg;
  line.str(std::string());
  if (!VelLoginDebug::m_printColor) {
    line << "[" << severityName(severity) << "] " << label << ": ";
  } else {
    line << severityColour(severity) << "[" << severityName(severity) << "] " << kColourReset
         << topicColour(topic) << label << kColourReset << ": ";
  }
  line << std::boolalpha;
  return line;
}

// Hands the line composed in log_msg to the sink, if the sink is open.
LS_TRACE_COLD inline void finishStreamLine(const char* topic, int severity) {
  if (g_MsgTypeMaxThr >= 4) tderrorFunc(topic, severity, 0, "%s", log_msg.str().c_str());
}

// The entry line "[S] L: begin" on topic "COVERAGE".
LS_TRACE_COLD inline void writeEntryLine(const char* label) {
  startStreamLine(kEntrySeverityName, "COVERAGE", label) << "begin";
  finishStreamLine("COVERAGE", 0);
}

// Writes the prefix "[S] L: " of a formatted message into sm_log and returns
// its length. The reset escape stands before the blank here, unlike in
// stream lines; readers of existing logs depend on both layouts.
LS_TRACE_COLD inline size_t startFormattedLine(int severity, const char* label) {
  char* line = sm_log;
  if (!VelLoginDebug::m_printColor) {
    std::snprintf(line, kTraceBufferSize, "[%s] %s: ", severityName(severity), label);
  } else {
    std::snprintf(line, kTraceBufferSize, "%s[%s]%s %s%s%s: ", severityColour(severity),
                  severityName(severity), kColourReset, topicColour("STORAGE"), label,
                  kColourReset);
  }
  return std::strlen(line);
}

// Appends text to sm_log, cut so that the line never exceeds kTraceLineMax,
// and hands the line to the sink, if the sink is open.
LS_TRACE_COLD inline void finishFormattedLine(int severity, size_t used, const char* text) {
  char* line = sm_log;
  size_t room = kTraceLineMax - used;
  size_t length = std::strlen(text);
  if (length > room) length = room;
  std::memcpy(line + used, text, length);
  line[used + length] = '\0';
  if (g_MsgTypeMaxThr >= 4) tderrorFunc("STORAGE", severity, 0, "%s", line);
}

}  // namespace trace
}  // namespace VelLogin

#if defined(LOGINSTORAGE_TRACE_COMPILED_OUT)

// Tracing compiled out, for the benchmark's reference copy of the stores only
// (never the shipped library): every macro compiles to no code. The arguments
// stay in unevaluated operands so that variables used only for tracing still
// count as used.
#define LS_TRACE_REGISTER_TOPICS()
#define LS_TRACE_ENTRY_AS(typeInfo, methodName) static_assert(true, "")
#define LS_TRACE_ENTRY(methodName) static_assert(true, "")
#define LS_TRACE_MSG(severity, ...) \
  do {                              \
    (void)sizeof(severity);         \
    (void)sizeof(tellu_printf(__VA_ARGS__)); \
  } while (0)
#define LS_TRACE_STREAM(severity, pieces) \
  do {                                    \
    (void)sizeof(severity);               \
    (void)sizeof(log_msg << pieces);      \
  } while (0)

#else

// Registers the two coverage topics of a source file at load time. Use once,
// at namespace scope, in each source file that traces.
#define LS_TRACE_REGISTER_TOPICS()                                       \
  namespace {                                                            \
  const char* const ls_coverageTopicName = "COVERAGE";                   \
  const char* const ls_extraCoverageTopicName = "EXTRA_COVERAGE";        \
  DebugTopics ls_coverageTopic(ls_coverageTopicName);                    \
  DebugTopics ls_extraCoverageTopic(ls_extraCoverageTopicName);          \
  }

// The method's label, computed once per process from the first object that
// calls it, so an inherited method keeps its first caller's class name. A
// function-local static: threads that meet it first wait for one another,
// later calls test the static's guard as they would test a flag.
#define LS_TRACE_LABEL(typeInfo, methodName)                                     \
  static char ls_traceLabel[Demangler::kLabelSize];                              \
  static const char* const ls_traceDemangled =                                   \
      Demangler::demangle((typeInfo).name(), methodName, ls_traceLabel);         \
  (void)ls_traceDemangled

// Entry line for a method of the class that typeInfo names. Constructors use
// it with their own class, since the dynamic type is not final yet.
#define LS_TRACE_ENTRY_AS(typeInfo, methodName)                                  \
  LS_TRACE_LABEL(typeInfo, methodName);                                          \
  if (__builtin_expect(VelLoginDebug::m_coverage && activate_tellu_debug_output >= 7, 0)) { \
    ::VelLogin::trace::writeEntryLine(ls_traceLabel);                            \
  }                                                                              \
  static_assert(true, "")

// Entry line of a method, labelled with the dynamic class of *this.
#define LS_TRACE_ENTRY(methodName) LS_TRACE_ENTRY_AS(typeid(*this), methodName)

// Formatted message at severity 1, 2 or 3 on topic "STORAGE".
#define LS_TRACE_MSG(severity, ...)                                              \
  do {                                                                           \
    if (__builtin_expect(activate_tellu_debug_output > (severity), 0)) {         \
      size_t ls_used = ::VelLogin::trace::startFormattedLine(severity, ls_traceLabel); \
      ::VelLogin::trace::finishFormattedLine(severity, ls_used, tellu_printf(__VA_ARGS__)); \
    }                                                                            \
  } while (0)

// Message at severity 1, 2 or 3 on topic "STORAGE", composed from stream
// pieces: LS_TRACE_STREAM(3, "[MEMSTORAGE] del key '" << key << "'").
#define LS_TRACE_STREAM(severity, pieces)                                        \
  do {                                                                           \
    if (__builtin_expect(activate_tellu_debug_output > (severity), 0)) {         \
      ::VelLogin::trace::startStreamLine(severity, "STORAGE", ls_traceLabel) << pieces; \
      ::VelLogin::trace::finishStreamLine("STORAGE", severity);                  \
    }                                                                            \
  } while (0)

#endif  // LOGINSTORAGE_TRACE_COMPILED_OUT

#endif
