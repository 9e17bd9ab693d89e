// A fresh cache hit and a MemStorage hit allocate nothing. This program
// replaces the global operator new and delete to count allocations, so it
// runs on its own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "LoginStorage/cache/CacheStorage.h"
#include "LoginStorage/mem/MemStorage.h"
#include "support/TestItem.h"
#include "support/FakeClock.h"

namespace {
bool g_counting = false;
unsigned long g_allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  if (g_counting) ++g_allocations;
  if (void* memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using VelLogin::AbstractObjectStorage;

// Allocations made by 100 gets of key after a first, warming one (which
// computes the trace labels once per process).
unsigned long allocationsOfGets(AbstractObjectStorage& store, const char* key) {
  const std::string name = key;
  store.get(name, nullptr);
  g_allocations = 0;
  g_counting = true;
  for (int i = 0; i < 100; ++i) store.get(name, nullptr);
  g_counting = false;
  return g_allocations;
}

TEST(HotPathAllocationTest, HitsAllocateNothingWhileMissesDo) {
  testsupport::FakeClock::set(1700000000);
  auto* mem = new VelLogin::MemStorage(60, 10);
  VelLogin::CacheStorage cache(mem, 60, 10);
  // Longer than any small-string buffer: a copy of the key would allocate.
  const char* key = "session/alice@example.org/browser-7";
  ASSERT_TRUE(cache.set(testsupport::makeItem(key), 0));
  EXPECT_EQ(allocationsOfGets(cache, key), 0u);
  EXPECT_EQ(allocationsOfGets(*mem, key), 0u);
  // The count works: a miss hands out a new null pointer, with its counter.
  EXPECT_GE(allocationsOfGets(*mem, "absent"), 100u);
  EXPECT_EQ(cache.counters().hits, 101u);
  EXPECT_EQ(mem->counters().hits, 101u);
}

}  // namespace
