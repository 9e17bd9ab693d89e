#include "support/TraceCapture.h"

#include <utility>

namespace testsupport {

TraceCapture::TraceCapture(int level, bool coverage)
    : m_previousHandler(VelLogin::traceHandler(&m_previousContext)),
      m_level(level),
      m_coverage(coverage) {
  VelLogin::setTraceHandler(
      [](void* context, const char* topic, int severity, const char* line) {
        static_cast<TraceCapture*>(context)->m_lines.push_back({topic, severity, line});
      },
      this);
  swapSettings();
}

TraceCapture::~TraceCapture() {
  VelLogin::setTraceHandler(m_previousHandler, m_previousContext);
  swapSettings();
}

void TraceCapture::swapSettings() {
  std::swap(activate_tellu_debug_output, m_level);
  std::swap(g_MsgTypeMaxThr, m_threshold);
  std::swap(VelLoginDebug::m_coverage, m_coverage);
  std::swap(VelLoginDebug::m_printColor, m_colour);
}

std::vector<std::string> TraceCapture::texts() const {
  std::vector<std::string> result;
  for (const TraceLine& line : m_lines) result.push_back(line.text);
  return result;
}

std::vector<std::string> TraceCapture::messages() const {
  std::vector<std::string> result;
  for (const TraceLine& line : m_lines) {
    if (line.topic == "STORAGE") result.push_back(line.text);
  }
  return result;
}

std::vector<std::string> withEntries(const std::string& label, std::vector<std::string> lines) {
  for (std::string& line : lines) {
    if (line.empty() || line[0] != '[') line = "[TRACE] " + label + "::" + line + ": begin";
  }
  return lines;
}

}  // namespace testsupport
