// Separate stores on separate threads: each worker thread owns a MemStorage,
// a CacheStorage over a MemStorage, a cache that sweeps on every call, and a
// cached folder stack, and runs the same sequence of operations on them, with
// tracing off and then with every line on. Under ThreadSanitizer (the tsan
// preset) a race anywhere in the stores or the trace fails the run.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "reliability/Reliability.h"
#include "support/TempFolder.h"
#include "support/TestItem.h"

using testsupport::makeItem;
using VelLogin::AbstractObjectStorage;
using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::IStorable;
using VelLogin::MemStorage;
using VelLogin::ObjectStorage;
using Ptr = VelLogin::RefCountPtr<IStorable>;

namespace {

constexpr int kWorkers = 4;
constexpr unsigned kKeys = 16;
// Every key and folder of worker n contains "worker<n>-".
const char kWorkerTag[] = "worker";

thread_local int t_worker = -1;

Ptr itemFromBytes(const char* data, unsigned len) { return makeItem(std::string(data, len)); }

// One worker's run; returns what went wrong, empty when nothing did. The
// folder is walked only on request: the order of a listing, and so the trace
// of a walk, differs from folder to folder.
std::vector<std::string> work(int worker, const std::string& folder, unsigned rounds, bool walk) {
  t_worker = worker;
  std::vector<std::string> faults;
  const std::string tag = kWorkerTag + std::to_string(worker) + "-";
  MemStorage mem(3600, kKeys / 2);
  CacheStorage memCache(new MemStorage(3600, kKeys / 2), 3600, kKeys / 2);
  // Every record is stale at once: each call sweeps, each get misses.
  CacheStorage sweeping(new MemStorage(-1, 0), -1, 0);
  CacheStorage folderCache(
      new ObjectStorage(new FileSystemStorage(folder + "/" + tag, 0, false, false, 0),
                        &itemFromBytes),
      3600, kKeys / 2);
  AbstractObjectStorage* const keeping[] = {&mem, &memCache, &folderCache};

  for (unsigned round = 0; round < rounds; ++round) {
    const std::string key = tag + "k" + std::to_string(round % kKeys);
    const Ptr item = makeItem(key);
    for (AbstractObjectStorage* store : keeping) {
      Ptr got;
      if (!store->set(item, 0) || !(got = store->get(key, nullptr)) || got->getKey() != key) {
        faults.push_back("set and get of " + key);
      }
    }
    if (!sweeping.set(item, 0) || sweeping.get(key, nullptr)) faults.push_back("sweep " + key);
    if (round % 7 == 0) {
      const std::string other = tag + "k" + std::to_string((round + 3) % kKeys);
      for (AbstractObjectStorage* store : keeping) store->del(other);
      mem.cleanup();
    }
    if (walk && round % 50 == 0) {
      unsigned records = 0;
      folderCache.startGetAll();
      while (Ptr next = folderCache.getNext()) {
        ++records;
        if (next->getKey().compare(0, tag.size(), tag) != 0) faults.push_back(next->getKey());
      }
      folderCache.endGetAll();
      if (records == 0 || records > kKeys) faults.push_back("folder count");
    }
  }
  return faults;
}

// Runs the workers at once, each on a folder of its own under root; returns
// their faults.
std::vector<std::string> runWorkers(const std::string& root, bool walk) {
  const unsigned rounds = reliability::scaled(600);
  std::vector<std::vector<std::string>> faults(kWorkers);
  std::vector<std::thread> threads;
  for (int w = 0; w < kWorkers; ++w) {
    threads.emplace_back(
        [&faults, w, &root, rounds, walk] { faults[w] = work(w, root, rounds, walk); });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> all;
  for (const auto& some : faults) all.insert(all.end(), some.begin(), some.end());
  return all;
}

// Why line is not one whole line of the calling worker's stores ("" if it
// is): "[SEVERITY] Class::method: text" with its topic's severity, no line
// break, no second prefix, no other worker's names; an entry line says
// "begin".
std::string lineProblem(const char* topic, int severity, const std::string& line) {
  const bool entry = std::strcmp(topic, "COVERAGE") == 0;
  if (!entry && (std::strcmp(topic, "STORAGE") != 0 || severity < 1 || severity > 3)) {
    return "topic or severity";
  }
  static const std::regex kShape(R"(\[([A-Z]+)\] [A-Za-z:]+: ([^\n]+))");
  std::smatch parts;
  if (!std::regex_match(line, parts, kShape)) return "shape";
  if (parts[1] != VelLoginDebug::sev2StrArr[entry ? 6 : severity]) return "severity";
  if (entry && parts[2] != "begin") return "text";
  static const std::regex kPrefix(R"(\[(FATAL|ERROR|WARNING|INFO|DEBUG|DETAIL|TRACE)\])");
  if (std::regex_search(line.begin() + 1, line.end(), kPrefix)) return "two prefixes";
  const std::string own = kWorkerTag + std::to_string(t_worker) + "-";
  for (size_t tag = line.find(kWorkerTag); tag != std::string::npos;
       tag = line.find(kWorkerTag, tag + 1)) {
    if (line.compare(tag, own.size(), own) != 0) return "another worker's name";
  }
  return "";
}

// Counts the lines of each worker and keeps the first few bad ones. The
// library never calls the handler twice at once, so no lock here.
struct LineCheck {
  unsigned long lines[kWorkers] = {};
  std::vector<std::string> bad;

  static void handle(void* context, const char* topic, int severity, const char* line) {
    auto* check = static_cast<LineCheck*>(context);
    const std::string problem = t_worker < 0 ? "not a worker" : lineProblem(topic, severity, line);
    if (t_worker >= 0) ++check->lines[t_worker];
    if (!problem.empty() && check->bad.size() < 10) check->bad.push_back(problem + ": " + line);
  }
};

class ThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_previousHandler = VelLogin::traceHandler(&m_previousContext);
    VelLogin::setTraceHandler(&LineCheck::handle, &m_check);
  }
  void TearDown() override {
    VelLogin::setTraceHandler(m_previousHandler, m_previousContext);
    activate_tellu_debug_output = 0;
    VelLoginDebug::m_coverage = false;
  }

  testsupport::TempFolder m_folder;
  LineCheck m_check;
  VelLogin::TraceHandler m_previousHandler = nullptr;
  void* m_previousContext = nullptr;
};

TEST_F(ThreadTest, SeparateStoresOnSeparateThreadsWithTracingOff) {
  EXPECT_EQ(runWorkers(m_folder.path(), true), std::vector<std::string>());
  for (unsigned long lines : m_check.lines) EXPECT_EQ(lines, 0u);
}

TEST_F(ThreadTest, EveryTraceLineIsOneWholeLineOfTheCallingThreadsStores) {
  activate_tellu_debug_output = 7;
  VelLoginDebug::m_coverage = true;
  g_MsgTypeMaxThr = 4;
  VelLoginDebug::m_printColor = false;
  EXPECT_EQ(runWorkers(m_folder.path(), false), std::vector<std::string>());
  activate_tellu_debug_output = 0;
  EXPECT_EQ(m_check.bad, std::vector<std::string>());
  // The workers ran the same operations: none lost or gained a line, and
  // every round traced.
  EXPECT_GE(m_check.lines[0], reliability::scaled(600));
  for (unsigned long lines : m_check.lines) EXPECT_EQ(lines, m_check.lines[0]);
}

}  // namespace
