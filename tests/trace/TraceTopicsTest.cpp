#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"

namespace {

// Every source file of the library that traces registers its two topics when
// the library is loaded.
constexpr size_t kTracingSourceFiles = 5;

TEST(TraceTopicsTest, EachTracingSourceFileRegistersItsTopicsAtLoadTime) {
  const std::vector<std::string> topics = VelLogin::registeredTraceTopics();
  ASSERT_EQ(topics.size(), 2 * kTracingSourceFiles);
  for (size_t i = 0; i < topics.size(); i += 2) {
    EXPECT_EQ(topics[i], "COVERAGE");
    EXPECT_EQ(topics[i + 1], "EXTRA_COVERAGE");
  }
}

TEST(TraceTopicsTest, DefaultSettingsWriteNothingUntilTheLevelIsRaised) {
  EXPECT_EQ(activate_tellu_debug_output, 0);
  EXPECT_GE(g_MsgTypeMaxThr, 4);
  EXPECT_FALSE(VelLoginDebug::m_coverage);
  EXPECT_FALSE(VelLoginDebug::m_printColor);
  for (const char* name : VelLoginDebug::sev2StrArr) EXPECT_NE(name, nullptr);
  EXPECT_EQ(VelLoginDebug::m_svrColors.size(), 7u);
}

}  // namespace
