// Memory hits paired against the bare map. Blocks of 1,000 get() hits on the
// same 1,000 keys, in the same order, rotate between the floor (a bare
// std::unordered_map find plus a copy of the pointer), MemStorage::get and a
// fresh CacheStorage::get hit over a MemStorage, so that all meet the same
// state of a shared machine and their ratios hold to a few percent.
//
// Between floor and stores stand rungs that add one cost of the interface
// at a time, so that a store's ratio splits into what the interface imposes
// and what is left:
//   virtual     the same map behind a virtual get() returning the pointer by
//               value, as AbstractObjectStorage::get does
//   clock1/2    that, plus one or two time() reads and expiry comparisons
//               (a MemStorage hit reads the clock once, a cache hit twice:
//               cleanup's gate and the record's expiry)
//   *_notrace   the store from the copy with the trace macros compiled out
//   mem, cache  the shared library, tracing off (label and level checks)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <ctime>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"
#include "Blob.h"
#include "LoginStorage/storage/RefCountPtr.h"

namespace VelLogin {
namespace benchhooks {
void memGetHits(size_t count);
void cacheGetHits(size_t count);
}  // namespace benchhooks
}  // namespace VelLogin

namespace VelLoginNoTrace {
namespace benchhooks {
void memGetHits(size_t count);
void cacheGetHits(size_t count);
}  // namespace benchhooks
}  // namespace VelLoginNoTrace

// Outside the unnamed namespace and never final, so that the compiler cannot
// turn the rungs' virtual calls into direct ones.
namespace hitrungs {

using VelLogin::IStorable;
using VelLogin::RefCountPtr;
using Factory = RefCountPtr<IStorable> (*)(const char*, unsigned);

class Lookup {
 public:
  virtual ~Lookup() = default;
  virtual RefCountPtr<IStorable> get(const std::string& key, Factory factory) = 0;
};

struct Record {
  long expiry;
  RefCountPtr<IStorable> object;
};

// clockReads time() reads, each compared with the record's expiry.
template <int clockReads>
class MapLookup : public Lookup {
 public:
  explicit MapLookup(const std::vector<std::string>& keys) {
    for (const std::string& key : keys) {
      m_records.emplace(key, Record{LONG_MAX, RefCountPtr<IStorable>(new Blob(key))});
    }
  }
  RefCountPtr<IStorable> get(const std::string& key, Factory) override {
    auto found = m_records.find(key);
    if (found == m_records.end()) return RefCountPtr<IStorable>();
    for (int i = 0; i < clockReads; ++i) {
      if (static_cast<long>(::time(nullptr)) > found->second.expiry) return RefCountPtr<IStorable>();
    }
    return found->second.object;
  }

 private:
  std::unordered_map<std::string, Record> m_records;
};

}  // namespace hitrungs

namespace {

using hitrungs::Lookup;
using VelLogin::IStorable;
using VelLogin::RefCountPtr;

constexpr size_t kRecords = 1000;
constexpr size_t kBlock = 1000;

// The keys of bench::sessionKeys(1000), which the store hooks use too.
const std::vector<std::string>& keys() {
  static const std::vector<std::string> all = bench::sessionKeys(kRecords);
  return all;
}

std::unordered_map<std::string, RefCountPtr<IStorable>>& floorMap() {
  static std::unordered_map<std::string, RefCountPtr<IStorable>> map = [] {
    std::unordered_map<std::string, RefCountPtr<IStorable>> filled;
    for (const std::string& key : keys()) filled.emplace(key, RefCountPtr<IStorable>(new Blob(key)));
    return filled;
  }();
  return map;
}

void mapHits(size_t count) {
  auto& map = floorMap();
  const std::vector<std::string>& all = keys();
  for (size_t i = 0; i < count; ++i) {
    auto found = map.find(all[i % kRecords]);
    RefCountPtr<IStorable> obj = found->second;
    benchmark::DoNotOptimize(obj.get());
  }
}

template <int clockReads>
void lookupHits(size_t count) {
  static Lookup* lookup = new hitrungs::MapLookup<clockReads>(keys());
  Lookup* through = lookup;
  benchmark::DoNotOptimize(through);  // the compiler no longer knows its class
  const std::vector<std::string>& all = keys();
  for (size_t i = 0; i < count; ++i) {
    RefCountPtr<IStorable> obj = through->get(all[i % kRecords], nullptr);
    benchmark::DoNotOptimize(obj.get());
  }
}

struct Contender {
  const char* name;
  void (*run)(size_t);
};

const Contender kContenders[] = {
    {"map", mapHits},
    {"virtual", lookupHits<0>},
    {"clock1", lookupHits<1>},
    {"clock2", lookupHits<2>},
    {"mem_notrace", VelLoginNoTrace::benchhooks::memGetHits},
    {"mem", VelLogin::benchhooks::memGetHits},
    {"cache_notrace", VelLoginNoTrace::benchhooks::cacheGetHits},
    {"cache", VelLogin::benchhooks::cacheGetHits},
};
constexpr size_t kContenderCount = sizeof kContenders / sizeof kContenders[0];

double median(std::vector<double>& values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// One block of every contender per iteration, starting at a different one
// each time so that no contender always follows the same neighbour. Each
// contender's cost is the median of its blocks, so that a block cut by the
// scheduler does not count. Counters: <name>_ns per call and <name>_ratio to
// the map.
void memoryHits(benchmark::State& state) {
  for (const Contender& contender : kContenders) contender.run(kBlock);  // fill, warm
  std::vector<double> blocks[kContenderCount];
  size_t first = 0;
  for (auto _ : state) {
    for (size_t k = 0; k < kContenderCount; ++k) {
      const size_t c = (first + k) % kContenderCount;
      const auto start = std::chrono::steady_clock::now();
      kContenders[c].run(kBlock);
      blocks[c].push_back(
          std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
              .count());
    }
    first = (first + 1) % kContenderCount;
  }
  double ns[kContenderCount];
  for (size_t c = 0; c < kContenderCount; ++c) ns[c] = median(blocks[c]) / double(kBlock);
  for (size_t c = 0; c < kContenderCount; ++c) {
    state.counters[std::string(kContenders[c].name) + "_ns"] = ns[c];
    state.counters[std::string(kContenders[c].name) + "_ratio"] = ns[c] / ns[0];
  }
}

[[maybe_unused]] const bool registered = [] {
  benchmark::RegisterBenchmark("paired:memory_hits", memoryHits)->UseRealTime();
  return true;
}();

}  // namespace
