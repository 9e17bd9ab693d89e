// The cost of tracing when it is off: blocks of the same operation run in
// alternation against the shared library and against the copy with the
// trace macros compiled out, so that both meet the same state of a shared
// machine. Reports both costs per operation and their difference.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>

namespace VelLogin {
namespace benchhooks {
void memGetHits(size_t count);
void cacheGetHits(size_t count);
void memSets(size_t count);
void cacheSets(size_t count);
}  // namespace benchhooks
}  // namespace VelLogin

namespace VelLoginNoTrace {
namespace benchhooks {
void memGetHits(size_t count);
void cacheGetHits(size_t count);
void memSets(size_t count);
void cacheSets(size_t count);
}  // namespace benchhooks
}  // namespace VelLoginNoTrace

namespace {

constexpr size_t kBlock = 1000;

double timed(void (*run)(size_t)) {
  const auto start = std::chrono::steady_clock::now();
  run(kBlock);
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
      .count();
}

void pairedTrace(benchmark::State& state, void (*traced)(size_t), void (*untraced)(size_t)) {
  traced(kBlock);  // fills the tables and computes the trace labels
  untraced(kBlock);
  double tracedNs = 0;
  double untracedNs = 0;
  bool tracedFirst = true;
  for (auto _ : state) {
    if (tracedFirst) {
      tracedNs += timed(traced);
      untracedNs += timed(untraced);
    } else {
      untracedNs += timed(untraced);
      tracedNs += timed(traced);
    }
    tracedFirst = !tracedFirst;
  }
  const double calls = double(state.iterations()) * double(kBlock);
  state.counters["op_ns"] = tracedNs / calls;
  state.counters["floor_ns"] = untracedNs / calls;
  state.counters["ratio"] = tracedNs / untracedNs;
}

void memGetHit(benchmark::State& state) {
  pairedTrace(state, VelLogin::benchhooks::memGetHits, VelLoginNoTrace::benchhooks::memGetHits);
}
void cacheGetHit(benchmark::State& state) {
  pairedTrace(state, VelLogin::benchhooks::cacheGetHits,
              VelLoginNoTrace::benchhooks::cacheGetHits);
}
void memSet(benchmark::State& state) {
  pairedTrace(state, VelLogin::benchhooks::memSets, VelLoginNoTrace::benchhooks::memSets);
}
void cacheSet(benchmark::State& state) {
  pairedTrace(state, VelLogin::benchhooks::cacheSets, VelLoginNoTrace::benchhooks::cacheSets);
}

[[maybe_unused]] const bool registered = [] {
  benchmark::RegisterBenchmark("paired:trace_mem_get_hit", memGetHit)->UseRealTime();
  benchmark::RegisterBenchmark("paired:trace_cache_get_hit", cacheGetHit)->UseRealTime();
  benchmark::RegisterBenchmark("paired:trace_mem_set", memSet)->UseRealTime();
  benchmark::RegisterBenchmark("paired:trace_cache_set", cacheSet)->UseRealTime();
  return true;
}();

}  // namespace
