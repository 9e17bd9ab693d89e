// Separate stores on separate threads: each worker thread owns a MemStorage,
// a CacheStorage over a MemStorage, a cache that sweeps on every call, and a
// cached folder stack, and runs the same sequence of operations on them with
// every trace line on. Under ThreadSanitizer (the tsan preset) a race
// anywhere in the stores or the trace fails the run.
#include <gtest/gtest.h>

#include <numeric>
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
using VelLogin::MemStorage;
using VelLogin::ObjectStorage;
using Ptr = VelLogin::RefCountPtr<VelLogin::IStorable>;

namespace {

constexpr int kWorkers = 4;
constexpr unsigned kKeys = 16;
// Every key and folder of worker n contains "worker<n>-".
const char kWorkerTag[] = "worker";

thread_local int t_worker = -1;

Ptr itemFromBytes(const char* data, unsigned len) { return makeItem(std::string(data, len)); }

// One worker's run; returns how many results were wrong. It never walks its
// folder: the order of a listing, and so the trace of a walk, differs from
// folder to folder.
unsigned work(int worker, const std::string& folder, unsigned rounds) {
  t_worker = worker;
  unsigned faults = 0;
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
      const Ptr got = store->set(item, 0) ? store->get(key, nullptr) : Ptr();
      faults += !got || got->getKey() != key;
    }
    faults += !sweeping.set(item, 0) || sweeping.get(key, nullptr);
    if (round % 7 == 0) {
      for (AbstractObjectStorage* store : keeping)
        store->del(tag + "k" + std::to_string((round + 3) % kKeys));
      mem.cleanup();
    }
  }
  return faults;
}

// Runs the workers at once, each on a folder of its own under root; returns
// their faults.
unsigned runWorkers(const std::string& root) {
  unsigned faults[kWorkers] = {};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWorkers; ++w) {
    threads.emplace_back([&, w] { faults[w] = work(w, root, reliability::scaled(600)); });
  }
  for (std::thread& thread : threads) thread.join();
  return std::accumulate(faults, faults + kWorkers, 0u);
}

// Counts the lines of each worker and keeps the first few that are not one
// whole line of the calling worker's stores: a line that two threads wrote
// into would hold a line break, a second severity prefix or another worker's
// names. The library never calls the handler twice at once, so no lock here.
struct LineCheck {
  unsigned long lines[kWorkers] = {};
  std::vector<std::string> bad;

  static void handle(void* context, const char*, int, const char* text) {
    auto* check = static_cast<LineCheck*>(context);
    static const std::regex kPrefix(R"(\[(FATAL|ERROR|WARNING|INFO|DEBUG|DETAIL|TRACE)\])");
    const std::string line = text;
    const std::string own = kWorkerTag + std::to_string(t_worker) + "-";
    bool mixed = t_worker < 0 || line.find('\n') != std::string::npos ||
                 std::regex_search(line.begin() + 1, line.end(), kPrefix);
    for (size_t tag = line.find(kWorkerTag); tag != std::string::npos;
         tag = line.find(kWorkerTag, tag + 1)) {
      mixed = mixed || line.compare(tag, own.size(), own) != 0;
    }
    if (t_worker >= 0) ++check->lines[t_worker];
    if (mixed && check->bad.size() < 10) check->bad.push_back(line);
  }
};

TEST(ThreadTest, SeparateStoresOnSeparateThreadsKeepTheirRecordsAndTraceLines) {
  testsupport::TempFolder folder;
  LineCheck check;
  void* previousContext = nullptr;
  const VelLogin::TraceHandler previous = VelLogin::traceHandler(&previousContext);
  VelLogin::setTraceHandler(&LineCheck::handle, &check);
  activate_tellu_debug_output = 7;
  VelLoginDebug::m_coverage = true;
  g_MsgTypeMaxThr = 4;
  VelLoginDebug::m_printColor = false;
  EXPECT_EQ(runWorkers(folder.path()), 0u);
  activate_tellu_debug_output = 0;
  VelLoginDebug::m_coverage = false;
  VelLogin::setTraceHandler(previous, previousContext);
  EXPECT_EQ(check.bad, std::vector<std::string>());
  // The workers ran the same operations: none lost or gained a line.
  EXPECT_GE(check.lines[0], reliability::scaled(600));
  for (unsigned long lines : check.lines) EXPECT_EQ(lines, check.lines[0]);
}

}  // namespace
