// cleanup() sweeps and delAll over tables of growing size. Compiled twice,
// like StoreBenchmarks.cpp: "lib:" against the shared library, "notrace:"
// against the copy without tracing. The program sets the clock (SweepClock):
// records are stored at a time far ahead, the stores are built at time 0,
// and each sweep moves the clock just past the spacing of two passes, so
// that every pass runs and walks every record without removing one.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"
#include "LoginStorage/cache/CacheStorage.h"
#include "LoginStorage/mem/MemStorage.h"
#include "SweepClock.h"
#include "Blob.h"

#if defined(LOGINSTORAGE_TRACE_COMPILED_OUT)
#define VARIANT "notrace:"
#else
#define VARIANT "lib:"
#endif

namespace {

using namespace VelLogin;  // VelLoginNoTrace in the copy without tracing

constexpr long kLifetime = 10;
constexpr long kStoredAt = 1000000000;

// The clock of the next pass: past the spacing, long before any expiry.
long nextPassTime() {
  static long now = 0;
  now += kLifetime + 1;
  return now;
}

std::vector<RefCountPtr<IStorable>> makeObjects(size_t n) {
  std::vector<RefCountPtr<IStorable>> objects;
  objects.reserve(n);
  for (const std::string& key : bench::sessionKeys(n)) objects.emplace_back(new Blob(key));
  return objects;
}

// Stores of n records, built once per size: the threshold n - 1 lets a pass
// run, and keeps the cache from sweeping while it is filled.
template <typename Store>
Store& filledStore(size_t n, Store* (*make)(unsigned threshold)) {
  static std::map<size_t, std::unique_ptr<Store>> stores;
  std::unique_ptr<Store>& store = stores[n];
  if (!store) {
    bench::setClock(0);
    store.reset(make(static_cast<unsigned>(n - 1)));
    bench::setClock(kStoredAt);
    for (const auto& obj : makeObjects(n)) store->set(obj, 0);
  }
  return *store;
}

MemStorage* makeMem(unsigned threshold) { return new MemStorage(kLifetime, threshold); }
CacheStorage* makeCache(unsigned threshold) {
  return new CacheStorage(new MemStorage(kLifetime, threshold), kLifetime, threshold);
}

template <typename Store>
void sweep(benchmark::State& state, Store& store) {
  const size_t n = static_cast<size_t>(state.range(0));
  const uint64_t sweepsBefore = store.counters().sweeps;
  for (auto _ : state) {
    bench::setClock(nextPassTime());
    store.cleanup();
  }
  if (store.counters().sweeps - sweepsBefore != uint64_t(state.iterations()) ||
      store.counters().recordsSwept != 0) {
    state.SkipWithError("a pass did not run, or removed records");
  }
  state.counters["records"] = double(n);
}

void memCleanup(benchmark::State& state) {
  sweep(state, filledStore<MemStorage>(static_cast<size_t>(state.range(0)), makeMem));
}

void cacheCleanup(benchmark::State& state) {
  sweep(state, filledStore<CacheStorage>(static_cast<size_t>(state.range(0)), makeCache));
}

// One delAll of n records per iteration, refilled while the clock is stopped.
void memDelAll(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const std::vector<RefCountPtr<IStorable>> objects = makeObjects(n);
  MemStorage store(kLifetime, 0);
  for (auto _ : state) {
    state.PauseTiming();
    for (const auto& obj : objects) store.set(obj, 0);
    state.ResumeTiming();
    store.delAll();
  }
  state.counters["records"] = double(n);
}

#if !defined(LOGINSTORAGE_TRACE_COMPILED_OUT)

// Floors: the same walk and the same clear over a bare map of the same
// records.
struct Record {
  long expiry;
  RefCountPtr<IStorable> object;
};
using Map = std::unordered_map<std::string, Record>;

Map& floorMap(size_t n) {
  static std::map<size_t, Map> maps;
  Map& map = maps[n];
  if (map.empty()) {
    for (const auto& obj : makeObjects(n)) map[obj->getKey()] = Record{kStoredAt + kLifetime, obj};
  }
  return map;
}

void mapSweep(benchmark::State& state) {
  Map& map = floorMap(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    const long now = nextPassTime();
    benchmark::DoNotOptimize(now);
    for (auto it = map.begin(); it != map.end();) {
      if (now > it->second.expiry) {
        it = map.erase(it);
      } else {
        ++it;
      }
    }
  }
  state.counters["records"] = double(state.range(0));
}

void mapClear(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const std::vector<RefCountPtr<IStorable>> objects = makeObjects(n);
  Map map;
  for (auto _ : state) {
    state.PauseTiming();
    for (const auto& obj : objects) map[obj->getKey()] = Record{kStoredAt, obj};
    state.ResumeTiming();
    map.clear();
  }
  state.counters["records"] = double(n);
}

#endif

int64_t delAllIterations(int64_t n) { return n >= 1000000 ? 3 : n >= 100000 ? 10 : 200; }

[[maybe_unused]] const bool registered = [] {
  for (int64_t n : bench::growthSizes()) {
#if !defined(LOGINSTORAGE_TRACE_COMPILED_OUT)
    benchmark::RegisterBenchmark("floor:map_sweep", mapSweep)->Arg(n);
    benchmark::RegisterBenchmark("floor:map_clear", mapClear)->Arg(n)->Iterations(
        delAllIterations(n));
#endif
    benchmark::RegisterBenchmark(VARIANT "mem_cleanup", memCleanup)->Arg(n);
    benchmark::RegisterBenchmark(VARIANT "cache_cleanup", cacheCleanup)->Arg(n);
    benchmark::RegisterBenchmark(VARIANT "mem_delAll", memDelAll)->Arg(n)->Iterations(
        delAllIterations(n));
  }
  return true;
}();

}  // namespace
