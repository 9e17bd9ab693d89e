// Floors: the least work each operation of the library must do, measured in
// the same run as the operation, so that every figure can be quoted as a
// ratio. Memory floors use a bare std::unordered_map; folder floors are loops
// of the system calls the operation has to make.
#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"
#include "LoginStorage/storage/IStorable.h"
#include "LoginStorage/storage/RefCountPtr.h"
#include "Blob.h"

namespace {

using VelLogin::IStorable;
using VelLogin::RefCountPtr;

using Map = std::unordered_map<std::string, RefCountPtr<IStorable>>;

struct FloorTable {
  size_t n = 0;
  std::vector<std::string> keys;
  Map map;

  static FloorTable& forSize(size_t n) {
    static std::map<size_t, FloorTable> bySize;
    FloorTable& table = bySize[n];
    if (table.n != n) {
      table.n = n;
      table.keys = bench::sessionKeys(n);
      for (const std::string& key : table.keys) {
        table.map.emplace(key, RefCountPtr<IStorable>(new Blob(key)));
      }
    }
    return table;
  }
};

// A hit: find the key, hand out a copy of the pointer.
void mapGet(benchmark::State& state) {
  FloorTable& table = FloorTable::forSize(static_cast<size_t>(state.range(0)));
  size_t i = 0;
  const uint64_t before = bench::allocationCount();
  for (auto _ : state) {
    auto found = table.map.find(table.keys[i]);
    RefCountPtr<IStorable> obj = found->second;
    benchmark::DoNotOptimize(obj.get());
    if (++i == table.n) i = 0;
  }
  state.counters["allocs"] =
      double(bench::allocationCount() - before) / double(state.iterations());
}

// A replacing write: ask the object for its key, assign the pointer.
void mapSet(benchmark::State& state) {
  const std::vector<std::string> keys = bench::sessionKeys(static_cast<size_t>(state.range(0)));
  std::vector<RefCountPtr<IStorable>> objects;
  for (const std::string& key : keys) objects.emplace_back(new Blob(key));
  Map map;
  for (const auto& obj : objects) map[obj->getKey()] = obj;
  size_t i = 0;
  const uint64_t before = bench::allocationCount();
  for (auto _ : state) {
    const RefCountPtr<IStorable>& obj = objects[i];
    map[obj->getKey()] = obj;
    if (++i == objects.size()) i = 0;
  }
  state.counters["allocs"] =
      double(bench::allocationCount() - before) / double(state.iterations());
}

constexpr size_t kFolderRecords = 256;

struct Folder {
  std::string path = bench::freshFolder();
  std::vector<std::string> paths;
  explicit Folder(size_t size, size_t records = kFolderRecords) {
    const std::string bytes = bench::recordBytes(size, 1);
    for (const std::string& key : bench::fileKeys(records)) {
      bench::writeRecordFile(path, key, bytes);
      paths.push_back(path + key);
    }
  }
};

void fsRead(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  std::vector<char> buffer(static_cast<size_t>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(bench::floorRead(folder.paths[i].c_str(), buffer.data(),
                                              buffer.size()));
    if (++i == folder.paths.size()) i = 0;
  }
}

void fsWriteAtomic(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  const std::string bytes = bench::recordBytes(static_cast<size_t>(state.range(0)), 2);
  size_t i = 0;
  for (auto _ : state) {
    bench::floorAtomicReplace(folder.path, folder.paths[i], bytes.data(), bytes.size());
    if (++i == folder.paths.size()) i = 0;
  }
}

void fsWritePlain(benchmark::State& state) {
  Folder folder(static_cast<size_t>(state.range(0)));
  const std::string bytes = bench::recordBytes(static_cast<size_t>(state.range(0)), 2);
  size_t i = 0;
  for (auto _ : state) {
    bench::floorPlainOverwrite(folder.paths[i].c_str(), bytes.data(), bytes.size());
    if (++i == folder.paths.size()) i = 0;
  }
}

void readFolder(benchmark::State& state, const Folder& folder, size_t size) {
  std::vector<char> buffer(size);
  for (auto _ : state) {
    if (bench::floorReadFolder(folder.path, buffer.data(), buffer.size()) != folder.paths.size()) {
      state.SkipWithError("listing missed records");
    }
  }
  state.counters["records"] = double(folder.paths.size());
}

void fsIterate(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  readFolder(state, Folder(size), size);
}

void fsIterateN(benchmark::State& state) {
  readFolder(state, Folder(1024, static_cast<size_t>(state.range(0))), 1024);
}

void fsRemoveAllN(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const std::string bytes = bench::recordBytes(1024, 3);
  const std::vector<std::string> keys = bench::fileKeys(n);
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = bench::filledFolder(keys, bytes);
    state.ResumeTiming();
    if (bench::floorRemoveAll(path) != n) state.SkipWithError("removal missed records");
  }
  state.counters["records"] = double(n);
}

[[maybe_unused]] const bool registered = [] {
  for (int64_t n : bench::growthSizes()) {
    benchmark::RegisterBenchmark("floor:map_get", mapGet)->Arg(n);
  }
  benchmark::RegisterBenchmark("floor:map_set", mapSet)->Arg(1000);
  for (int64_t size : {100, 1024, 4096}) {
    benchmark::RegisterBenchmark("floor:fs_read", fsRead)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("floor:fs_write_atomic", fsWriteAtomic)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("floor:fs_write_plain", fsWritePlain)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("floor:fs_iterate", fsIterate)->Arg(size)->UseRealTime();
  }
  for (int64_t n : bench::shortMode() ? std::vector<int64_t>{1000}
                                      : std::vector<int64_t>{1000, 10000}) {
    benchmark::RegisterBenchmark("floor:fs_iterate_n", fsIterateN)->Arg(n)->UseRealTime();
    benchmark::RegisterBenchmark("floor:fs_remove_all_n", fsRemoveAllN)
        ->Arg(n)
        ->UseRealTime()
        ->Iterations(n >= 10000 ? 2 : 10);
  }
  return true;
}();

}  // namespace
