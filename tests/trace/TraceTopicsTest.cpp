#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "support/TestItem.h"

namespace {

// Each of the library's five tracing source files registers its two topics
// when the library is loaded; nothing is written until the level is raised.
TEST(TraceTopicsTest, TopicsAreRegisteredAtLoadTimeAndDefaultsWriteNothing) {
  std::vector<std::string> topics;
  for (size_t i = 0; i < 5; ++i) topics.insert(topics.end(), {"COVERAGE", "EXTRA_COVERAGE"});
  EXPECT_EQ(VelLogin::registeredTraceTopics(), topics);
  EXPECT_EQ(activate_tellu_debug_output, 0);
  EXPECT_GE(g_MsgTypeMaxThr, 4);
  EXPECT_FALSE(VelLoginDebug::m_coverage);
  EXPECT_FALSE(VelLoginDebug::m_printColor);
  for (const char* name : VelLoginDebug::sev2StrArr) EXPECT_NE(name, nullptr);
  EXPECT_EQ(VelLoginDebug::m_svrColors.size(), 7u);
}

// A handler that keeps every line in a MemStorage of its own: the lines that
// store writes while the handler runs, and one it writes itself, are dropped,
// not handed back to it; asking for the handler from inside does not block.
struct KeepingHandler {
  VelLogin::MemStorage kept{3600, 100};
  std::vector<std::string> lines;
  static void handle(void* context, const char* topic, int, const char* line) {
    auto* self = static_cast<KeepingHandler*>(context);
    self->kept.set(testsupport::makeItem(line), 0);
    self->lines.push_back(std::string(topic) + " " + line);  // unchanged by the store's lines
    VelLogin::writeTraceLine("NESTED", 1, "dropped");
    EXPECT_EQ(VelLogin::traceHandler(nullptr), &handle);
  }
};

TEST(TraceHandlerTest, HandlerAndContextAreRestoredExactlyAndNestedLinesDropped) {
  void* context = &context;
  const VelLogin::TraceHandler original = VelLogin::traceHandler(&context);
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(context, nullptr);  // the default handler writes to stderr

  KeepingHandler keeping;
  VelLogin::setTraceHandler(&KeepingHandler::handle, &keeping);
  void* current = nullptr;
  EXPECT_EQ(VelLogin::traceHandler(&current), &KeepingHandler::handle);
  EXPECT_EQ(current, &keeping);
  EXPECT_EQ(VelLogin::traceHandler(nullptr), &KeepingHandler::handle);

  activate_tellu_debug_output = 7;
  VelLoginDebug::m_coverage = true;
  VelLogin::MemStorage store(3600, 100);
  store.del("k");
  activate_tellu_debug_output = 0;
  VelLoginDebug::m_coverage = false;
  EXPECT_EQ(keeping.lines,
            (std::vector<std::string>{"COVERAGE [TRACE] MemStorage::del: begin",
                                      "STORAGE [INFO] MemStorage::del: [MEMSTORAGE] del key 'k'"}));
  EXPECT_EQ(keeping.kept.getNumElements(), 2u);

  EXPECT_EQ(VelLogin::setTraceHandler(original, context), &KeepingHandler::handle);
  EXPECT_EQ(VelLogin::traceHandler(&current), original);
  EXPECT_EQ(current, nullptr);
}

}  // namespace
