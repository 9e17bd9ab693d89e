// The default getNextRaw loop, driven by a store whose getNextInternal plays a
// script of answers.
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "support/TraceCapture.h"

using testsupport::TraceCapture;

// In the global namespace so that trace labels read "ScriptedStore::...".
class ScriptedStore : public VelLogin::AbstractStorage {
 public:
  struct Answer {
    bool result;
    unsigned len;  // the length left in len
    bool endReached;
    std::string key;
  };

  std::deque<Answer> script;
  std::vector<unsigned> capacitiesSeen;

  bool getRaw(const std::string&, char*&, unsigned& len) const override {
    len = 0;
    return false;
  }
  bool setRaw(const std::string&, const char*, unsigned, unsigned) override { return false; }
  bool del(const std::string&) override { return false; }
  bool delAll() override { return false; }
  bool startGetAll() override { return true; }
  void endGetAll() override {}
  unsigned getNumElements() const override { return 0; }
  bool isInStorage(const std::string&) const override { return false; }

  bool getNextInternal(std::string& key, char*& data, unsigned& len,
                       bool& endReached) override {
    capacitiesSeen.push_back(len);
    Answer answer = script.empty() ? Answer{true, 0, true, ""} : script.front();
    if (!script.empty()) script.pop_front();
    endReached = answer.endReached;
    len = answer.len;
    if (answer.result && answer.len != 0) {
      key = answer.key;
      data = new char[answer.len]();
    }
    return answer.result;
  }
};

namespace {

const char kTry1[] =
    "[ERROR] ScriptedStore::getNextRaw: try #:1 - SKIPPING A RECORD - previous call "
    "returned success=0, len=0";
const char kTry2[] =
    "[ERROR] ScriptedStore::getNextRaw: try #:2 - SKIPPING A RECORD - previous call "
    "returned success=0, len=0";
const char kTooSmall[] =
    "[WARNING] ScriptedStore::getNextRaw: given len is too small for record - should NOT "
    "happen";
const char kEnd[] = "[INFO] ScriptedStore::getNextRaw: end of storage was reached";

struct Call {
  bool result;
  std::string key;
  char* data = nullptr;
  unsigned len;
  ~Call() { delete[] data; }
};

TEST(GetNextRawTest, SkipsRecordsThatFailWithNoLengthAndDeliversTheNext) {
  ScriptedStore store;
  store.script = {{false, 0, false, ""}, {false, 0, false, ""}, {true, 3, false, "third"}};
  TraceCapture trace(4);
  Call call{false, "", nullptr, 100};
  call.result = store.getNextRaw(call.key, call.data, call.len);

  EXPECT_TRUE(call.result);
  EXPECT_EQ(call.key, "third");
  EXPECT_EQ(call.len, 3u);
  EXPECT_NE(call.data, nullptr);
  EXPECT_EQ(store.capacitiesSeen, (std::vector<unsigned>{100, 100, 100}));
  // A record that was read has a length, so the "too small" line follows it.
  EXPECT_EQ(trace.messages(), (std::vector<std::string>{kTry1, kTry2, kTooSmall}));
  EXPECT_EQ(trace.lines()[0].severity, 1);
  EXPECT_EQ(trace.lines()[2].severity, 2);
}

TEST(GetNextRawTest, RecordTooLongForTheCapacityIsHandedBackWithItsLength) {
  ScriptedStore store;
  store.script = {{false, 500, false, "big"}};
  TraceCapture trace(4);
  Call call{false, "", nullptr, 100};
  call.result = store.getNextRaw(call.key, call.data, call.len);

  EXPECT_TRUE(call.result);
  EXPECT_EQ(call.len, 500u);
  EXPECT_EQ(call.data, nullptr);
  EXPECT_EQ(store.capacitiesSeen.size(), 1u);
  EXPECT_EQ(trace.messages(), (std::vector<std::string>{kTooSmall}));
}

TEST(GetNextRawTest, EndOfIterationReturnsFalseAndIsTracedAtLevelFour) {
  ScriptedStore store;
  {
    TraceCapture trace(4);
    Call call{false, "", nullptr, 100};
    call.result = store.getNextRaw(call.key, call.data, call.len);
    EXPECT_FALSE(call.result);
    EXPECT_EQ(call.len, 0u);
    EXPECT_EQ(trace.messages(), (std::vector<std::string>{kEnd}));
    EXPECT_EQ(trace.lines()[0].topic, "STORAGE");
    EXPECT_EQ(trace.lines()[0].severity, 3);
  }
  {
    TraceCapture trace(3);
    Call call{false, "", nullptr, 100};
    EXPECT_FALSE(store.getNextRaw(call.key, call.data, call.len));
    EXPECT_TRUE(trace.lines().empty());
  }
}

TEST(GetNextRawTest, SeverityGatesFollowTheDebugLevel) {
  ScriptedStore store;
  {
    TraceCapture trace(1);  // severity 1 needs level 2
    store.script = {{false, 0, false, ""}, {true, 0, true, ""}};
    Call call{false, "", nullptr, 10};
    EXPECT_FALSE(store.getNextRaw(call.key, call.data, call.len));
    EXPECT_TRUE(trace.lines().empty());
  }
  {
    TraceCapture trace(2);
    store.script = {{false, 0, false, ""}, {true, 0, true, ""}};
    Call call{false, "", nullptr, 10};
    EXPECT_FALSE(store.getNextRaw(call.key, call.data, call.len));
    EXPECT_EQ(trace.messages(), (std::vector<std::string>{kTry1}));
  }
}

TEST(GetNextRawTest, EntryLineNeedsCoverageLevelSevenAndTheSinkThreshold) {
  ScriptedStore store;
  const std::string entry = "[TRACE] ScriptedStore::getNextRaw: begin";
  {
    TraceCapture trace(6, true);
    Call call{false, "", nullptr, 10};
    store.getNextRaw(call.key, call.data, call.len);
    for (const auto& line : trace.lines()) EXPECT_NE(line.topic, "COVERAGE");
  }
  {
    TraceCapture trace(7, true);
    Call call{false, "", nullptr, 10};
    store.getNextRaw(call.key, call.data, call.len);
    ASSERT_FALSE(trace.lines().empty());
    EXPECT_EQ(trace.lines()[0].text, entry);
    EXPECT_EQ(trace.lines()[0].topic, "COVERAGE");
    EXPECT_EQ(trace.lines()[0].severity, 0);
  }
  {
    TraceCapture trace(7, false);
    Call call{false, "", nullptr, 10};
    store.getNextRaw(call.key, call.data, call.len);
    EXPECT_EQ(trace.texts(), (std::vector<std::string>{kEnd}));
  }
  {
    TraceCapture trace(7, true);
    g_MsgTypeMaxThr = 3;
    Call call{false, "", nullptr, 10};
    store.getNextRaw(call.key, call.data, call.len);
    EXPECT_TRUE(trace.lines().empty());
  }
}

TEST(GetNextRawTest, DefaultBodiesOfTheRawInterface) {
  ScriptedStore store;
  EXPECT_EQ(store.getMaxRecordLen(), 4294967295u);
  EXPECT_FALSE(store.setExpiration("any", 10));
  EXPECT_FALSE(store.setExpiration("", 0));
}

}  // namespace
