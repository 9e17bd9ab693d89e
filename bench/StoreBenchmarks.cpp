// The library's operations, measured through its public interface. This file
// is compiled twice: against the shared library ("lib:" benchmarks) and
// against a copy of the stores with every trace macro expanded to nothing
// ("notrace:", namespace VelLoginNoTrace), so that the two can be set side by
// side in one run. Floors are in FloorBenchmarks.cpp.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "LoginStorage/cache/CacheStorage.h"
#include "LoginStorage/fs/FileSystemStorage.h"
#include "LoginStorage/mem/MemStorage.h"
#include "LoginStorage/object/ObjectStorage.h"
#include "Blob.h"

#if defined(LOGINSTORAGE_TRACE_COMPILED_OUT)
#define VARIANT "notrace:"
#else
#define VARIANT "lib:"
#endif

namespace {

using namespace VelLogin;  // VelLoginNoTrace in the copy without tracing

constexpr long kLifetime = 3600;
constexpr size_t kFolderRecords = 256;

// ---- memory stores ---------------------------------------------------------

// One table of n objects per kind and size, kept for the whole run: filling a
// million records takes longer than measuring them.
struct MemTables {
  size_t n = 0;
  std::vector<std::string> keys;
  std::unique_ptr<MemStorage> mem;
  std::unique_ptr<CacheStorage> cache;  // over a MemStorage of its own

  static MemTables& forSize(size_t n) {
    static std::map<size_t, MemTables> bySize;
    MemTables& tables = bySize[n];
    if (tables.n != n) {
      tables.n = n;
      tables.keys = bench::sessionKeys(n);
      const unsigned threshold = static_cast<unsigned>(n);
      // Each table filled in a pass of its own, with objects of its own, as
      // the floors of the paired benchmark (MemoryHitBenchmarks.cpp) are: on
      // a large table every hit is a cache miss, so a table spread among
      // another's records, or sharing counters with another store's hits,
      // would pay more, or less, than the floor. The cache's records are
      // added by reads through it, sharing the objects of its backing store,
      // which its hits never reach.
      tables.mem.reset(new MemStorage(kLifetime, threshold));
      for (const std::string& key : tables.keys) {
        tables.mem->set(RefCountPtr<IStorable>(new Blob(key, "v")), 0);
      }
      MemStorage* backing = new MemStorage(kLifetime, threshold);
      for (const std::string& key : tables.keys) {
        backing->set(RefCountPtr<IStorable>(new Blob(key, "v")), 0);
      }
      tables.cache.reset(new CacheStorage(backing, kLifetime, threshold));
      for (const std::string& key : tables.keys) tables.cache->get(key, nullptr);
    }
    return tables;
  }
};

template <typename Store>
void getHits(benchmark::State& state, Store& store, const std::vector<std::string>& keys) {
  const size_t n = keys.size();
  size_t i = 0;
  const uint64_t before = bench::allocationCount();
  for (auto _ : state) {
    RefCountPtr<IStorable> obj = store.get(keys[i], nullptr);
    benchmark::DoNotOptimize(obj.get());
    if (++i == n) i = 0;
  }
  state.counters["allocs"] =
      double(bench::allocationCount() - before) / double(state.iterations());
}

void memGetHit(benchmark::State& state) {
  MemTables& tables = MemTables::forSize(static_cast<size_t>(state.range(0)));
  getHits(state, *tables.mem, tables.keys);
}

void cacheGetHit(benchmark::State& state) {
  MemTables& tables = MemTables::forSize(static_cast<size_t>(state.range(0)));
  getHits(state, *tables.cache, tables.keys);
}

// Replacing the objects of 1000 keys over and over: the steady state of a
// session table.
template <typename Store>
void replaceObjects(benchmark::State& state, Store& store) {
  const std::vector<std::string> keys = bench::sessionKeys(static_cast<size_t>(state.range(0)));
  std::vector<RefCountPtr<IStorable>> objects;
  for (const std::string& key : keys) objects.emplace_back(new Blob(key, "v"));
  for (const auto& obj : objects) store.set(obj, 0);
  size_t i = 0;
  const uint64_t before = bench::allocationCount();
  for (auto _ : state) {
    benchmark::DoNotOptimize(store.set(objects[i], 0));
    if (++i == objects.size()) i = 0;
  }
  state.counters["allocs"] =
      double(bench::allocationCount() - before) / double(state.iterations());
}

void memSet(benchmark::State& state) {
  MemStorage store(kLifetime, 1000000);
  replaceObjects(state, store);
}

void cacheSet(benchmark::State& state) {
  CacheStorage store(new MemStorage(kLifetime, 1000000), kLifetime, 1000000);
  replaceObjects(state, store);
}


}  // namespace

// Blocks of operations for PairedBenchmarks.cpp, which runs the traced and
// the compiled-out variant in alternation. The namespace follows the variant.
namespace VelLogin {
namespace benchhooks {

namespace {
MemStorage* g_setStore = nullptr;
CacheStorage* g_cacheSetStore = nullptr;
std::vector<RefCountPtr<IStorable>>* g_setObjects = nullptr;

void prepareSets() {
  if (g_setObjects != nullptr) return;
  g_setObjects = new std::vector<RefCountPtr<IStorable>>();
  for (const std::string& key : bench::sessionKeys(1000)) g_setObjects->emplace_back(new Blob(key, "v"));
  g_setStore = new MemStorage(kLifetime, 1000000);
  g_cacheSetStore = new CacheStorage(new MemStorage(kLifetime, 1000000), kLifetime, 1000000);
}
}  // namespace

// get() hits over a table of 1,000 records, count of them.
void memGetHits(size_t count) {
  MemTables& tables = MemTables::forSize(1000);
  for (size_t i = 0; i < count; ++i) {
    RefCountPtr<IStorable> obj = tables.mem->get(tables.keys[i % 1000], nullptr);
    benchmark::DoNotOptimize(obj.get());
  }
}

void cacheGetHits(size_t count) {
  MemTables& tables = MemTables::forSize(1000);
  for (size_t i = 0; i < count; ++i) {
    RefCountPtr<IStorable> obj = tables.cache->get(tables.keys[i % 1000], nullptr);
    benchmark::DoNotOptimize(obj.get());
  }
}

// get() hits over a table of records records, one per key of
// probes[0, count). Used by MemoryHitBenchmarks.cpp.
void memGetHitsOn(size_t records, const std::string* probes, size_t count) {
  MemStorage& store = *MemTables::forSize(records).mem;
  for (size_t i = 0; i < count; ++i) {
    RefCountPtr<IStorable> obj = store.get(probes[i], nullptr);
    benchmark::DoNotOptimize(obj.get());
  }
}

void cacheGetHitsOn(size_t records, const std::string* probes, size_t count) {
  CacheStorage& store = *MemTables::forSize(records).cache;
  for (size_t i = 0; i < count; ++i) {
    RefCountPtr<IStorable> obj = store.get(probes[i], nullptr);
    benchmark::DoNotOptimize(obj.get());
  }
}

void memSets(size_t count) {
  prepareSets();
  for (size_t i = 0; i < count; ++i) g_setStore->set((*g_setObjects)[i % 1000], 0);
}

void cacheSets(size_t count) {
  prepareSets();
  for (size_t i = 0; i < count; ++i) g_cacheSetStore->set((*g_setObjects)[i % 1000], 0);
}

}  // namespace benchhooks
}  // namespace VelLogin

namespace {

#if !defined(LOGINSTORAGE_TRACE_COMPILED_OUT)

// ---- folder store ----------------------------------------------------------

RefCountPtr<IStorable> blobFromBytes(const char* data, unsigned len) {
  return RefCountPtr<IStorable>(new Blob(std::string(), std::string(data, len)));
}

// A fresh folder holding kFolderRecords records of size bytes.
struct Folder {
  std::string path = bench::freshFolder();
  std::vector<std::string> keys;
  explicit Folder(size_t size, size_t records = kFolderRecords)
      : keys(bench::fileKeys(records)) {
    const std::string bytes = bench::recordBytes(size, 1);
    for (const std::string& key : keys) bench::writeRecordFile(path, key, bytes);
  }
};

FileSystemStorage* folderStore(const std::string& path) {
  return new FileSystemStorage(path, 0, false, false, 0);
}

void fsGetRaw(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  const unsigned maxLen = store->getMaxRecordLen();
  size_t i = 0;
  for (auto _ : state) {
    char* data = nullptr;
    unsigned len = maxLen;
    if (!store->getRaw(folder.keys[i], data, len)) state.SkipWithError("getRaw failed");
    benchmark::DoNotOptimize(data);
    delete[] data;
    if (++i == folder.keys.size()) i = 0;
  }
}

void fsSetRaw(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  const std::string bytes = bench::recordBytes(static_cast<size_t>(state.range(0)), 2);
  size_t i = 0;
  for (auto _ : state) {
    if (!store->setRaw(folder.keys[i], bytes.data(), static_cast<unsigned>(bytes.size()), 0)) {
      state.SkipWithError("setRaw failed");
    }
    if (++i == folder.keys.size()) i = 0;
  }
}

// One pass over every record per iteration; the report divides by records.
template <typename Store>
void readAllRaw(benchmark::State& state, Store& store, size_t records) {
  const unsigned maxLen = store.getMaxRecordLen();
  std::string key;
  for (auto _ : state) {
    size_t seen = 0;
    store.startGetAll();
    for (;;) {
      char* data = nullptr;
      unsigned len = maxLen;
      if (!store.getNextRaw(key, data, len)) break;
      delete[] data;
      ++seen;
    }
    store.endGetAll();
    if (seen != records) state.SkipWithError("iteration missed records");
  }
  state.counters["records"] = double(records);
}

void fsIterate(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  readAllRaw(state, *store, folder.keys.size());
}

// Growth: 1 KiB records, state.range(0) of them.
void fsIterateN(benchmark::State& state) {
  Folder folder(1024, static_cast<size_t>(state.range(0)));
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  readAllRaw(state, *store, folder.keys.size());
}

// One delAll of state.range(0) records per iteration, each into a fresh
// folder filled while the clock is stopped.
void fsDelAllN(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const std::string bytes = bench::recordBytes(1024, 3);
  const std::vector<std::string> keys = bench::fileKeys(n);
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = bench::filledFolder(keys, bytes);
    std::unique_ptr<FileSystemStorage> store(folderStore(path));
    state.ResumeTiming();
    if (!store->delAll()) state.SkipWithError("delAll failed");
  }
  state.counters["records"] = double(n);
}

void objGet(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  ObjectStorage store(folderStore(folder.path), &blobFromBytes);
  size_t i = 0;
  for (auto _ : state) {
    RefCountPtr<IStorable> obj = store.get(folder.keys[i], nullptr);
    if (!obj) state.SkipWithError("get failed");
    if (++i == folder.keys.size()) i = 0;
  }
}

void objGetNext(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  ObjectStorage store(folderStore(folder.path), &blobFromBytes);
  for (auto _ : state) {
    size_t seen = 0;
    store.startGetAll();
    while (RefCountPtr<IStorable> obj = store.getNext()) ++seen;
    store.endGetAll();
    if (seen != folder.keys.size()) state.SkipWithError("iteration missed records");
  }
  state.counters["records"] = double(folder.keys.size());
}

// The whole cached stack. Hot: every key read once before, so each get is a
// fresh hit. Cold: a lifetime of -1 makes every cached record stale, so each
// get goes down to the folder and refreshes the record.
void stackGet(benchmark::State& state, long lifetime) {
  Folder folder(static_cast<size_t>(state.range(0)));
  CacheStorage store(new ObjectStorage(folderStore(folder.path), &blobFromBytes), lifetime,
                     0xFFFFFFFFu);
  for (const std::string& key : folder.keys) store.get(key, nullptr);
  size_t i = 0;
  const uint64_t before = bench::allocationCount();
  for (auto _ : state) {
    RefCountPtr<IStorable> obj = store.get(folder.keys[i], nullptr);
    if (!obj) state.SkipWithError("get failed");
    if (++i == folder.keys.size()) i = 0;
  }
  state.counters["allocs"] =
      double(bench::allocationCount() - before) / double(state.iterations());
}

void stackGetHot(benchmark::State& state) { stackGet(state, kLifetime); }
void stackGetCold(benchmark::State& state) { stackGet(state, -1); }


// Paired: blocks of the operation and of its floor alternate on the same
// records, so that both meet the same state of a shared machine; the ratio
// is taken within each repetition.
template <typename Op, typename Floor>
void paired(benchmark::State& state, size_t block, size_t recordsPerCall, Op op, Floor floor) {
  double opNs = 0;
  double floorNs = 0;
  bool opFirst = true;
  auto timed = [block](auto& fn) {
    const auto start = std::chrono::steady_clock::now();
    for (size_t k = 0; k < block; ++k) fn();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
        .count();
  };
  for (auto _ : state) {
    if (opFirst) {
      opNs += timed(op);
      floorNs += timed(floor);
    } else {
      floorNs += timed(floor);
      opNs += timed(op);
    }
    opFirst = !opFirst;
  }
  const double records = double(state.iterations()) * double(block) * double(recordsPerCall);
  state.counters["op_ns"] = opNs / records;
  state.counters["floor_ns"] = floorNs / records;
  state.counters["ratio"] = opNs / floorNs;
}

void pairedRead(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Folder folder(size);
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  std::vector<std::string> paths;
  for (const std::string& key : folder.keys) paths.push_back(folder.path + key);
  std::vector<char> buffer(size);
  size_t i = 0;
  size_t j = 0;
  paired(state, 32, 1,
         [&] {
           char* data = nullptr;
           unsigned len = 0xFFFFFFFFu;
           store->getRaw(folder.keys[i], data, len);
           delete[] data;
           if (++i == folder.keys.size()) i = 0;
         },
         [&] {
           bench::floorRead(paths[j].c_str(), buffer.data(), buffer.size());
           if (++j == paths.size()) j = 0;
         });
}

void pairedWrite(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Folder folder(size);
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  const std::string bytes = bench::recordBytes(size, 2);
  size_t i = 0;
  size_t j = 0;
  paired(state, 4, 1,
         [&] {
           store->setRaw(folder.keys[i], bytes.data(), static_cast<unsigned>(size), 0);
           if (++i == folder.keys.size()) i = 0;
         },
         [&] {
           bench::floorAtomicReplace(folder.path, folder.path + folder.keys[j], bytes.data(),
                                     size);
           if (++j == folder.keys.size()) j = 0;
         });
}

// A key with no record: getRaw against an open() that fails.
void pairedGetMissing(benchmark::State& state) {
  Folder folder(100);
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  std::vector<std::string> missing = bench::fileKeys(2 * kFolderRecords);
  missing.erase(missing.begin(), missing.begin() + kFolderRecords);
  std::vector<std::string> paths;
  for (const std::string& key : missing) paths.push_back(folder.path + key);
  size_t i = 0;
  size_t j = 0;
  paired(state, 32, 1,
         [&] {
           char* data = nullptr;
           unsigned len = 0xFFFFFFFFu;
           if (store->getRaw(missing[i], data, len)) state.SkipWithError("found");
           if (++i == paths.size()) i = 0;
         },
         [&] {
           if (!bench::floorOpenFails(paths[j].c_str())) state.SkipWithError("opened");
           if (++j == paths.size()) j = 0;
         });
}

// isInStorage of records that exist, against their stat().
void pairedIsInStorage(benchmark::State& state) {
  Folder folder(100);
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  std::vector<std::string> paths;
  for (const std::string& key : folder.keys) paths.push_back(folder.path + key);
  size_t i = 0;
  size_t j = 0;
  paired(state, 32, 1,
         [&] {
           if (!store->isInStorage(folder.keys[i])) state.SkipWithError("not found");
           if (++i == folder.keys.size()) i = 0;
         },
         [&] {
           if (!bench::floorStatFile(paths[j].c_str())) state.SkipWithError("no file");
           if (++j == paths.size()) j = 0;
         });
}

void pairedIterate(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Folder folder(size);
  std::unique_ptr<FileSystemStorage> store(folderStore(folder.path));
  std::vector<char> buffer(size);
  std::string key;
  paired(state, 1, folder.keys.size(),
         [&] {
           store->startGetAll();
           for (;;) {
             char* data = nullptr;
             unsigned len = 0xFFFFFFFFu;
             if (!store->getNextRaw(key, data, len)) break;
             delete[] data;
           }
           store->endGetAll();
         },
         [&] { bench::floorReadFolder(folder.path, buffer.data(), buffer.size()); });
}

#endif  // !LOGINSTORAGE_TRACE_COMPILED_OUT

[[maybe_unused]] const bool registered = [] {
  for (int64_t n : bench::growthSizes()) {
    benchmark::RegisterBenchmark(VARIANT "mem_get_hit", memGetHit)->Arg(n);
    benchmark::RegisterBenchmark(VARIANT "cache_get_hit", cacheGetHit)->Arg(n);
  }
  benchmark::RegisterBenchmark(VARIANT "mem_set", memSet)->Arg(1000);
  benchmark::RegisterBenchmark(VARIANT "cache_set", cacheSet)->Arg(1000);
#if !defined(LOGINSTORAGE_TRACE_COMPILED_OUT)
  for (int64_t size : {100, 1024, 4096}) {
    benchmark::RegisterBenchmark(VARIANT "fs_getRaw", fsGetRaw)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark(VARIANT "fs_setRaw", fsSetRaw)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark(VARIANT "fs_iterate", fsIterate)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark(VARIANT "obj_get", objGet)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark(VARIANT "obj_getNext", objGetNext)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark(VARIANT "stack_get_cold", stackGetCold)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("paired:fs_read", pairedRead)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("paired:fs_write", pairedWrite)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("paired:fs_iterate", pairedIterate)->Arg(size)->UseRealTime();
  }
  benchmark::RegisterBenchmark("paired:fs_get_missing", pairedGetMissing)->UseRealTime();
  benchmark::RegisterBenchmark("paired:fs_isInStorage", pairedIsInStorage)->UseRealTime();
  benchmark::RegisterBenchmark(VARIANT "stack_get_hot", stackGetHot)->Arg(1024);
  for (int64_t n : bench::shortMode() ? std::vector<int64_t>{1000}
                                      : std::vector<int64_t>{1000, 10000}) {
    benchmark::RegisterBenchmark(VARIANT "fs_iterate_n", fsIterateN)->Arg(n)->UseRealTime();
    benchmark::RegisterBenchmark(VARIANT "fs_delAll_n", fsDelAllN)
        ->Arg(n)
        ->UseRealTime()
        ->Iterations(n >= 10000 ? 2 : 10);
  }
#endif
  return true;
}();

}  // namespace
