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
  void entry() { LS_TRACE_ENTRY("entry"); }
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
  std::vector<std::string> texts() const { return m_trace.texts(); }

  testsupport::TraceCapture m_trace{4};
  VelLogin::Probe m_probe;
};

// Plain layouts are those every store's suite checks; here only what they
// cannot set: colours, shrunk settings, gates and labels.
TEST_F(TraceMacroTest, ColouredLayoutsPlaceTheResetDifferently) {
  activate_tellu_debug_output = 7;
  VelLoginDebug::m_coverage = true;
  VelLoginDebug::m_printColor = true;
  VelLoginDebug::m_topicsColors["COVERAGE"] = "<cov>";
  VelLoginDebug::m_topicsColors["STORAGE"] = "<sto>";
  const std::string trace = VelLoginDebug::m_svrColors[6];
  const std::string info = VelLoginDebug::m_svrColors[3];
  m_probe.message(3, "text");
  m_probe.stream("k", 1);
  EXPECT_EQ(texts(),
            (std::vector<std::string>{
                trace + "[TRACE] \033[0m<cov>Probe::message\033[0m: begin",
                info + "[INFO]\033[0m <sto>Probe::message\033[0m: text",
                trace + "[TRACE] \033[0m<cov>Probe::stream\033[0m: begin",
                info + "[INFO] \033[0m<sto>Probe::stream\033[0m: [PROBE] key 'k' n=1 ok=true",
            }));
}

// A severity beyond the colour table, a topic without a colour and a nulled
// severity name give no escape and no name, and no crash.
TEST_F(TraceMacroTest, ShrunkOrNulledSettingsDoNotCrash) {
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
  EXPECT_EQ(texts(), (std::vector<std::string>{
                         "[INFO]\033[0m Probe::message\033[0m: x",
                         "[INFO] \033[0mProbe::stream\033[0m: [PROBE] key 'k' n=2 ok=true",
                         "[]\033[0m Probe::message\033[0m: x",
                     }));
}

// A line of severity N is written from level N + 1 on, composed or streamed.
TEST_F(TraceMacroTest, MessageOfSeverityNNeedsALevelAboveN) {
  for (int level = 0; level <= 4; ++level) {
    m_trace.clear();
    activate_tellu_debug_output = level;
    m_probe.message(1, "a");
    m_probe.message(2, "b");
    m_probe.message(3, "c");
    m_probe.stream("k", 1);
    EXPECT_EQ(m_trace.lines().size(), static_cast<size_t>(level > 1 ? level - 1 : 0) + (level > 3))
        << level;
  }
}

TEST_F(TraceMacroTest, EntryLineGates) {
  VelLoginDebug::m_coverage = true;
  activate_tellu_debug_output = 6;
  m_probe.entry();
  EXPECT_TRUE(m_trace.lines().empty());
  activate_tellu_debug_output = 7;
  g_MsgTypeMaxThr = 3;
  m_probe.entry();
  EXPECT_TRUE(m_trace.lines().empty());
  g_MsgTypeMaxThr = 4;
  m_probe.entry();
  EXPECT_EQ(texts(), (std::vector<std::string>{"[TRACE] Probe::entry: begin"}));
  VelLoginDebug::m_coverage = false;
  m_probe.entry();
  EXPECT_EQ(m_trace.lines().size(), 1u);
}

TEST_F(TraceMacroTest, LongMessageIsCutToTheBufferSize) {
  const std::string longText(10000, 'x');
  m_probe.message(3, longText.c_str());
  ASSERT_EQ(m_trace.lines().size(), 1u);
  const std::string prefix = "[INFO] Probe::message: ";
  EXPECT_EQ(texts()[0].size(), 5631u);
  EXPECT_EQ(texts()[0], prefix + longText.substr(0, 5631 - prefix.size()));
}

// The label of an inherited method is the class of its first caller, for the
// whole process; a constructor's is its own class.
TEST_F(TraceMacroTest, LabelsNameTheFirstCallersClassOrTheConstructors) {
  VelLoginDebug::m_coverage = true;
  activate_tellu_debug_output = 7;
  VelLogin::SecondProbe second;
  VelLogin::FirstProbe first;
  second.inherited();
  first.inherited();
  VelLogin::ConstructedProbe constructed;
  EXPECT_EQ(texts(),
            (std::vector<std::string>{"[TRACE] SecondProbe::inherited: begin",
                                      "[TRACE] SecondProbe::inherited: begin",
                                      "[TRACE] ConstructedProbe::ConstructedProbe: begin"}));
}

}  // namespace
