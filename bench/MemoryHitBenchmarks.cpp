// Memory hits paired against the bare map. Blocks of 1,000 get() hits on the
// same keys, in the same order, rotate between the floor (a bare
// std::unordered_map find plus a copy of the pointer), MemStorage::get and a
// fresh CacheStorage::get hit over a MemStorage, so that all meet the same
// state of a shared machine and their ratios hold to a few percent.
//
// The argument is the table size: 1,000, 100,000 or 1,000,000 records, each
// contender with a table (and objects) of its own. The keys come from a fixed
// sequence: on 1,000 records every key once per block, in table order; on a
// larger table the first min(records, 100,000) entries of a permutation of
// its keys drawn with a fixed seed, spread over the whole table. Iteration i
// hits entries [1,000 i, 1,000 (i + 1)) of the sequence (wrapping) in every
// contender, so that on a large table all pay the same cache misses.
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
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"
#include "Blob.h"
#include "LoginStorage/storage/RefCountPtr.h"

namespace VelLogin {
namespace benchhooks {
void memGetHitsOn(size_t records, const std::string* probes, size_t count);
void cacheGetHitsOn(size_t records, const std::string* probes, size_t count);
}  // namespace benchhooks
}  // namespace VelLogin

namespace VelLoginNoTrace {
namespace benchhooks {
void memGetHitsOn(size_t records, const std::string* probes, size_t count);
void cacheGetHitsOn(size_t records, const std::string* probes, size_t count);
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

constexpr size_t kBlock = 1000;
constexpr size_t kMaxProbes = 100000;  // a multiple of kBlock
constexpr uint64_t kSeed = 0x5eed0f4b17e5ULL;

// splitmix64: a fixed sequence on every platform and standard library.
uint64_t nextRandom(uint64_t& state) {
  uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

// The keys the blocks hit, in order: the first min(records, kMaxProbes),
// rounded down to whole blocks, of a seeded permutation of
// bench::sessionKeys(records), the keys of the store tables too. Copied in
// that order, so that reading them is sequential and the misses are the
// tables' own. A table of one block stays in cache whatever the order: its
// keys are hit in table order, as they always were, so that its figures
// compare with earlier runs (a shuffled order made the floor some 10 %
// slower and the stores' ratios up to 0.08 lower).
std::vector<std::string> probeSequence(const std::vector<std::string>& keys) {
  const size_t n = keys.size();
  if (n <= kBlock) {
    std::vector<std::string> probes;
    for (size_t i = 0; i < kBlock; ++i) probes.push_back(keys[i % n]);
    return probes;
  }
  // Whole blocks only, so that an iteration never reads past the end.
  const size_t length = std::min(n, kMaxProbes) / kBlock * kBlock;
  std::vector<uint32_t> order(n);
  for (size_t i = 0; i < n; ++i) order[i] = static_cast<uint32_t>(i);
  uint64_t state = kSeed;
  std::vector<std::string> probes;
  probes.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    std::swap(order[i], order[i + nextRandom(state) % (n - i)]);
    probes.push_back(keys[order[i]]);
  }
  return probes;
}

// The floor and the rungs for one table size, built on first use and kept
// for the whole run: with repetitions interleaved with other benchmarks,
// a million-record table is filled once, not once per repetition. The
// stores' tables are those of the lib:/notrace: get-hit benchmarks.
struct HitTables {
  size_t records;
  std::vector<std::string> probes;
  std::unordered_map<std::string, RefCountPtr<IStorable>> floor;
  std::unique_ptr<Lookup> virtualRung, clock1Rung, clock2Rung;
  size_t next = 0;  // the sequence's first key for the next iteration

  explicit HitTables(size_t n) : records(n) {
    const std::vector<std::string> keys = bench::sessionKeys(n);
    probes = probeSequence(keys);
    for (const std::string& key : keys) floor.emplace(key, RefCountPtr<IStorable>(new Blob(key)));
    virtualRung.reset(new hitrungs::MapLookup<0>(keys));
    clock1Rung.reset(new hitrungs::MapLookup<1>(keys));
    clock2Rung.reset(new hitrungs::MapLookup<2>(keys));
  }

  static HitTables& forSize(size_t n) {
    static std::map<size_t, std::unique_ptr<HitTables>> bySize;
    std::unique_ptr<HitTables>& tables = bySize[n];
    if (!tables) tables.reset(new HitTables(n));
    return *tables;
  }
};

void mapHits(HitTables& tables, const std::string* probes, size_t count) {
  auto& map = tables.floor;
  for (size_t i = 0; i < count; ++i) {
    auto found = map.find(probes[i]);
    RefCountPtr<IStorable> obj = found->second;
    benchmark::DoNotOptimize(obj.get());
  }
}

template <std::unique_ptr<Lookup> HitTables::*rung>
void lookupHits(HitTables& tables, const std::string* probes, size_t count) {
  Lookup* through = (tables.*rung).get();
  benchmark::DoNotOptimize(through);  // the compiler no longer knows its class
  for (size_t i = 0; i < count; ++i) {
    RefCountPtr<IStorable> obj = through->get(probes[i], nullptr);
    benchmark::DoNotOptimize(obj.get());
  }
}

template <void (*hook)(size_t, const std::string*, size_t)>
void storeHits(HitTables& tables, const std::string* probes, size_t count) {
  hook(tables.records, probes, count);
}

struct Contender {
  const char* name;
  void (*run)(HitTables&, const std::string*, size_t);
};

const Contender kContenders[] = {
    {"map", mapHits},
    {"virtual", lookupHits<&HitTables::virtualRung>},
    {"clock1", lookupHits<&HitTables::clock1Rung>},
    {"clock2", lookupHits<&HitTables::clock2Rung>},
    {"mem_notrace", storeHits<VelLoginNoTrace::benchhooks::memGetHitsOn>},
    {"mem", storeHits<VelLogin::benchhooks::memGetHitsOn>},
    {"cache_notrace", storeHits<VelLoginNoTrace::benchhooks::cacheGetHitsOn>},
    {"cache", storeHits<VelLogin::benchhooks::cacheGetHitsOn>},
};
constexpr size_t kContenderCount = sizeof kContenders / sizeof kContenders[0];

double median(std::vector<double>& values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// One block of every contender per iteration, on the same keys, starting at
// a different contender each time so that no contender always follows the
// same neighbour. Each contender's cost is the median of its blocks, so that
// a block cut by the scheduler does not count. Counters: <name>_ns per call
// and <name>_ratio to the map.
void memoryHits(benchmark::State& state) {
  HitTables& tables = HitTables::forSize(static_cast<size_t>(state.range(0)));
  const std::vector<std::string>& probes = tables.probes;
  // Fills the store tables on first use; warms code and, on a small table,
  // the data.
  for (const Contender& contender : kContenders) contender.run(tables, probes.data(), kBlock);
  std::vector<double> blocks[kContenderCount];
  size_t first = 0;
  for (auto _ : state) {
    const std::string* keys = probes.data() + tables.next;
    for (size_t k = 0; k < kContenderCount; ++k) {
      const size_t c = (first + k) % kContenderCount;
      const auto start = std::chrono::steady_clock::now();
      kContenders[c].run(tables, keys, kBlock);
      blocks[c].push_back(
          std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
              .count());
    }
    first = (first + 1) % kContenderCount;
    tables.next += kBlock;
    if (tables.next == probes.size()) tables.next = 0;
  }
  double ns[kContenderCount];
  for (size_t c = 0; c < kContenderCount; ++c) ns[c] = median(blocks[c]) / double(kBlock);
  for (size_t c = 0; c < kContenderCount; ++c) {
    state.counters[std::string(kContenders[c].name) + "_ns"] = ns[c];
    state.counters[std::string(kContenders[c].name) + "_ratio"] = ns[c] / ns[0];
  }
}

[[maybe_unused]] const bool registered = [] {
  for (int64_t n : bench::growthSizes()) {
    benchmark::RegisterBenchmark("paired:memory_hits", memoryHits)->Arg(n)->UseRealTime();
  }
  return true;
}();

}  // namespace
