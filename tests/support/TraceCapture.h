// Captures the library's trace lines through the public trace handler for the
// lifetime of the object, with the debug settings a test asks for, and puts
// the previous handler and settings back afterwards.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_TRACECAPTURE_H
#define LOGINSTORAGE_TESTS_SUPPORT_TRACECAPTURE_H

#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"

namespace testsupport {

struct TraceLine {
  std::string topic;
  int severity;
  std::string text;
};

class TraceCapture {
 public:
  // level: activate_tellu_debug_output; coverage: VelLoginDebug::m_coverage.
  explicit TraceCapture(int level = 4, bool coverage = false);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  const std::vector<TraceLine>& lines() const { return m_lines; }
  // The text of every captured line, in order.
  std::vector<std::string> texts() const;
  // The texts of lines on topic "STORAGE" only (no method entries).
  std::vector<std::string> messages() const;
  void clear() { m_lines.clear(); }

 private:
  static void collect(void* context, const char* topic, int severity, const char* line);

  std::vector<TraceLine> m_lines;
  void* m_previousContext;
  VelLogin::TraceHandler m_previousHandler;
  int m_previousLevel;
  int m_previousThreshold;
  bool m_previousCoverage;
  bool m_previousColour;
};

}  // namespace testsupport

#endif
