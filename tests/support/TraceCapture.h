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
  // Trades the settings held here with the library's.
  void swapSettings();

  std::vector<TraceLine> m_lines;
  void* m_previousContext = nullptr;
  VelLogin::TraceHandler m_previousHandler;
  int m_level;
  int m_threshold = 4;
  bool m_coverage;
  bool m_colour = false;
};

// Expected trace lines at the fullest debug level, written short: a bare
// operation name stands for the entry line "[TRACE] <label>::<name>: begin",
// any other line (it starts with '[') is taken as it is.
std::vector<std::string> withEntries(const std::string& label, std::vector<std::string> lines);

}  // namespace testsupport

#endif
