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
    std::string key;
  };

  std::deque<Answer> script;
  std::vector<unsigned> capacitiesSeen;

  bool getRaw(const std::string&, char*&, unsigned&) const override { return false; }
  bool setRaw(const std::string&, const char*, unsigned, unsigned) override { return false; }
  bool del(const std::string&) override { return false; }
  bool delAll() override { return false; }
  bool startGetAll() override { return true; }
  void endGetAll() override {}
  unsigned getNumElements() const override { return 0; }
  bool isInStorage(const std::string&) const override { return false; }

  bool getNextInternal(std::string& key, char*& data, unsigned& len, bool& endReached) override {
    capacitiesSeen.push_back(len);
    endReached = script.empty();  // once the script is played
    const Answer answer = endReached ? Answer{true, 0, ""} : script.front();
    if (!endReached) script.pop_front();
    len = answer.len;
    if (answer.result && answer.len != 0) {
      key = answer.key;
      data = new char[answer.len]();
    }
    return answer.result;
  }
};

namespace {

// One getNextRaw call with capacity 10 on a store playing the script: what it
// answered, the capacities getNextInternal was offered, and every trace line
// as "topic severity text".
TEST(GetNextRawTest, SkipsFailedRecordsAndHandsBackTooLongOnes) {
  EXPECT_EQ(ScriptedStore().getMaxRecordLen(), 4294967295u);  // no limit by default
  const std::string label = "ScriptedStore::getNextRaw: ";
  const std::string skip = "STORAGE 1 [ERROR] " + label + "try #:";
  const std::string skipped = " - SKIPPING A RECORD - previous call returned success=0, len=0";
  const std::string tooSmall =
      "STORAGE 2 [WARNING] " + label + "given len is too small for record - should NOT happen";
  const std::string end = "STORAGE 3 [INFO] " + label + "end of storage was reached";
  struct Case {
    std::deque<ScriptedStore::Answer> script;
    std::string answer;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {{{false, 0, ""}, {false, 0, ""}, {true, 3, "k3"}},
       "true k3 3 data, offered 10 10 10",
       {skip + "1" + skipped, skip + "2" + skipped, tooSmall}},
      {{{false, 500, "big"}}, "true  500 null, offered 10", {tooSmall}},
      {{{false, 1, "b"}}, "true  1 null, offered 10", {tooSmall}},
      {{}, "false  0 null, offered 10", {end}},
      {{{false, 0, ""}}, "false  0 null, offered 10 10", {skip + "1" + skipped, end}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer);
    ScriptedStore store;
    store.script = c.script;
    TraceCapture trace(4);
    std::string key;
    char* data = nullptr;
    unsigned len = 10;
    std::string answer = store.getNextRaw(key, data, len) ? "true " : "false ";
    answer +=
        key + " " + std::to_string(len) + (data != nullptr ? " data, offered" : " null, offered");
    delete[] data;
    for (unsigned capacity : store.capacitiesSeen) answer += " " + std::to_string(capacity);
    std::vector<std::string> lines;
    for (const auto& line : trace.lines()) {
      lines.push_back(line.topic + " " + std::to_string(line.severity) + " " + line.text);
    }
    EXPECT_EQ(lines, c.lines);
    EXPECT_EQ(answer, c.answer);
  }
}

}  // namespace
