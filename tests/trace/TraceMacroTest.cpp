// Line layouts and gates of the trace macros, compiled against the utility
// layer alone.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TraceCapture.h"
#include "trace/Trace.h"

namespace VelLogin {

// Probes in the library's namespace, so labels show the namespace dropped.
class Probe {
 public:
  virtual ~Probe() = default;
  void message(int severity, const char* text) {
    LS_TRACE_ENTRY("message");
    LS_TRACE_MSG(severity, "%s", text);
  }
  void stream(const std::string& key, unsigned number) {
    LS_TRACE_ENTRY("stream");
    LS_TRACE_STREAM(3, "[PROBE] key '" << key << "' n=" << number << " ok=" << true);
  }
  // Inherited by both subclasses below.
  void inherited() { LS_TRACE_ENTRY("inherited"); }
};

class FirstProbe : public Probe {};
class SecondProbe : public Probe {};

class ConstructedProbe {
 public:
  ConstructedProbe() { LS_TRACE_ENTRY_AS(typeid(ConstructedProbe), "ConstructedProbe"); }
};

}  // namespace VelLogin

namespace {

class TraceMacroTest : public ::testing::Test {
 protected:
  void TearDown() override { VelLoginDebug::m_topicsColors.clear(); }

  testsupport::TraceCapture m_trace{7, true};
  VelLogin::Probe m_probe;
};

// Plain layouts are those every store's suite checks; here only what they
// cannot set: colours, shrunk settings, gates and labels.
TEST_F(TraceMacroTest, ColouredLayoutsPlaceTheResetDifferently) {
  VelLoginDebug::m_printColor = true;
  VelLoginDebug::m_topicsColors["COVERAGE"] = "<cov>";
  VelLoginDebug::m_topicsColors["STORAGE"] = "<sto>";
  const std::string trace = VelLoginDebug::m_svrColors[6];
  const std::string info = VelLoginDebug::m_svrColors[3];
  m_probe.message(3, "text");
  m_probe.stream("k", 1);
  EXPECT_EQ(m_trace.texts(),
            (std::vector<std::string>{
                trace + "[TRACE] \033[0m<cov>Probe::message\033[0m: begin",
                info + "[INFO]\033[0m <sto>Probe::message\033[0m: text",
                trace + "[TRACE] \033[0m<cov>Probe::stream\033[0m: begin",
                info + "[INFO] \033[0m<sto>Probe::stream\033[0m: [PROBE] key 'k' n=1 ok=true",
            }));
}

// A severity beyond the colour table, a topic without a colour and a nulled
// severity name give no escape and no name, and no crash; a long message is
// cut to the line buffer.
TEST_F(TraceMacroTest, ShrunkOrNulledSettingsAndLongTextsDoNotCrash) {
  const std::string longText(10000, 'x'), prefix = "[INFO] Probe::message: ";
  VelLoginDebug::m_coverage = false;
  m_probe.message(3, longText.c_str());
  VelLoginDebug::m_printColor = true;
  const std::vector<std::string> saved = VelLoginDebug::m_svrColors;
  const char* savedName = VelLoginDebug::sev2StrArr[3];
  VelLoginDebug::m_svrColors.resize(3);
  m_probe.message(3, "x");
  m_probe.stream("k", 2);
  VelLoginDebug::sev2StrArr[3] = nullptr;
  m_probe.message(3, "x");
  VelLoginDebug::m_svrColors = saved;
  VelLoginDebug::sev2StrArr[3] = savedName;
  EXPECT_EQ(m_trace.texts(), (std::vector<std::string>{
                                 prefix + longText.substr(0, 5631 - prefix.size()),
                                 "[INFO]\033[0m Probe::message\033[0m: x",
                                 "[INFO] \033[0mProbe::stream\033[0m: [PROBE] key 'k' n=2 ok=true",
                                 "[]\033[0m Probe::message\033[0m: x",
                             }));
}

// A message of severity N is written from level N + 1 on, composed or
// streamed; an entry line from level 7 with coverage on; a threshold below 4
// closes the sink to all of them.
TEST_F(TraceMacroTest, GatesOpenByLevelCoverageAndThreshold) {
  // level, coverage, threshold: lines written
  const int cases[][4] = {{0, 1, 4, 0}, {1, 0, 4, 0}, {2, 0, 4, 1}, {3, 0, 4, 2}, {4, 0, 4, 4},
                          {6, 1, 4, 4}, {7, 0, 4, 4}, {7, 1, 3, 0}, {7, 1, 4, 8}};
  for (const auto& c : cases) {
    m_trace.clear();
    activate_tellu_debug_output = c[0];
    VelLoginDebug::m_coverage = c[1] != 0;
    g_MsgTypeMaxThr = c[2];
    for (int severity = 1; severity <= 3; ++severity) m_probe.message(severity, "m");
    m_probe.stream("k", 1);
    EXPECT_EQ(m_trace.lines().size(), static_cast<size_t>(c[3])) << c[0] << c[1] << c[2];
  }
}

// The label of an inherited method is the class of its first caller, for the
// whole process; a constructor's is its own class.
TEST_F(TraceMacroTest, LabelsNameTheFirstCallersClassOrTheConstructors) {
  VelLogin::SecondProbe second;
  VelLogin::FirstProbe first;
  second.inherited();
  first.inherited();
  VelLogin::ConstructedProbe constructed;
  EXPECT_EQ(m_trace.texts(),
            (std::vector<std::string>{"[TRACE] SecondProbe::inherited: begin",
                                      "[TRACE] SecondProbe::inherited: begin",
                                      "[TRACE] ConstructedProbe::ConstructedProbe: begin"}));
}

}  // namespace
