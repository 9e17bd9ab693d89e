#include "support/TraceCapture.h"

namespace testsupport {

TraceCapture::TraceCapture(int level, bool coverage)
    : m_previousContext(nullptr),
      m_previousHandler(VelLogin::traceHandler(&m_previousContext)),
      m_previousLevel(activate_tellu_debug_output),
      m_previousThreshold(g_MsgTypeMaxThr),
      m_previousCoverage(VelLoginDebug::m_coverage),
      m_previousColour(VelLoginDebug::m_printColor) {
  VelLogin::setTraceHandler(&TraceCapture::collect, this);
  activate_tellu_debug_output = level;
  g_MsgTypeMaxThr = 4;
  VelLoginDebug::m_coverage = coverage;
  VelLoginDebug::m_printColor = false;
}

TraceCapture::~TraceCapture() {
  VelLogin::setTraceHandler(m_previousHandler, m_previousContext);
  activate_tellu_debug_output = m_previousLevel;
  g_MsgTypeMaxThr = m_previousThreshold;
  VelLoginDebug::m_coverage = m_previousCoverage;
  VelLoginDebug::m_printColor = m_previousColour;
}

void TraceCapture::collect(void* context, const char* topic, int severity,
                           const char* line) {
  static_cast<TraceCapture*>(context)->m_lines.push_back({topic, severity, line});
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

}  // namespace testsupport
