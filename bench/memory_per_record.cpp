// Heap bytes that MemStorage and CacheStorage hold per record, beyond the
// stored object and its key. Prints one line per store and table size:
//
//   memory <arch> <store> <records> <requested bytes/record> <heap bytes/record>
//
// "requested" sums the sizes asked of operator new; "heap" adds what the
// allocator really takes for each block (its usable size and its header).
// Keys are 8 characters, so that a key is kept inside the record's string
// and allocates nothing of its own; a key longer than the string's inline
// buffer (15 bytes with libstdc++) adds one block of its length + 1.
//
// Plain C++ without Google Benchmark, so that it builds for i386 as well.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "LoginStorage/cache/CacheStorage.h"
#include "LoginStorage/mem/MemStorage.h"

namespace {

long long g_requested = 0;
long long g_heap = 0;
bool g_counting = false;

long long heapBytes(void* block) {
  return static_cast<long long>(malloc_usable_size(block) + sizeof(size_t));
}

}  // namespace

void* operator new(std::size_t size) {
  void* memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  if (g_counting) {
    g_requested += static_cast<long long>(size);
    g_heap += heapBytes(memory);
  }
  return memory;
}
void* operator new[](std::size_t size) { return operator new(size); }
namespace {

void releaseBlock(void* memory, std::size_t size) {
  // Blocks freed while counting were counted when made (the records'
  // placeholders, the bucket arrays a rehash replaces).
  if (g_counting && memory != nullptr) {
    g_requested -= static_cast<long long>(size);
    g_heap -= heapBytes(memory);
  }
  std::free(memory);
}

}  // namespace

// Unsized deletes do not know the requested size; libstdc++ frees its nodes
// and buckets with sized ones.
void operator delete(void* memory) noexcept { releaseBlock(memory, 0); }
void operator delete[](void* memory) noexcept { releaseBlock(memory, 0); }
void operator delete(void* memory, std::size_t size) noexcept { releaseBlock(memory, size); }
void operator delete[](void* memory, std::size_t size) noexcept { releaseBlock(memory, size); }

namespace {

using VelLogin::AbstractObjectStorage;
using VelLogin::CacheStorage;
using VelLogin::IStorable;
using VelLogin::MemStorage;
using VelLogin::RefCountPtr;

class Item : public IStorable {
 public:
  explicit Item(std::string key) : m_key(std::move(key)) {}
  std::string getKey() const override { return m_key; }
  bool serialize(char*&, unsigned&) override { return false; }
  std::string toString() const override { return m_key; }

 private:
  std::string m_key;
};

struct Cost {
  double requested;
  double heap;
};

// Heap held by a store built by make() after n set() calls, per record. The
// objects and their pointers exist before counting starts.
template <typename Make>
Cost costPerRecord(size_t n, Make make) {
  std::vector<RefCountPtr<IStorable>> objects;
  objects.reserve(n);
  char key[16];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(key, sizeof key, "k%07zu", i);
    objects.emplace_back(new Item(key));
  }
  g_requested = g_heap = 0;
  g_counting = true;
  AbstractObjectStorage* store = make();
  for (const auto& obj : objects) store->set(obj, 0);
  g_counting = false;
  Cost cost{double(g_requested) / double(n), double(g_heap) / double(n)};
  delete store;
  return cost;
}

}  // namespace

int main() {
  const char* arch = sizeof(void*) == 8 ? "x86-64" : "i386";
  for (size_t n : {1000u, 100000u, 1000000u}) {
    const Cost mem = costPerRecord(n, [] { return new MemStorage(3600, 0); });
    const Cost both = costPerRecord(
        n, [] { return new CacheStorage(new MemStorage(3600, 0), 3600, 0xFFFFFFFFu); });
    std::printf("memory %s MemStorage %zu %.1f %.1f\n", arch, n, mem.requested, mem.heap);
    // The cache's own table: a cache over a MemStorage, less the MemStorage.
    std::printf("memory %s CacheStorage %zu %.1f %.1f\n", arch, n, both.requested - mem.requested,
                both.heap - mem.heap);
  }
  return 0;
}
