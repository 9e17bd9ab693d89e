#include "support/FakeClock.h"

#include <ctime>

namespace {

bool g_fixed = false;
time_t g_now = 0;
unsigned long g_reads = 0;

time_t realTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

}  // namespace

namespace testsupport {

void FakeClock::set(time_t now) {
  g_now = now;
  g_fixed = true;
}

void FakeClock::advance(long seconds) {
  if (!g_fixed) set(realTime());
  g_now += seconds;
}

void FakeClock::useRealTime() { g_fixed = false; }

time_t FakeClock::now() { return g_fixed ? g_now : realTime(); }

unsigned long FakeClock::reads() { return g_reads; }

}  // namespace testsupport

// Takes the place of the C library's time() in this program and in the shared
// libraries it loads.
extern "C" time_t time(time_t* out) noexcept {
  ++g_reads;
  time_t now = testsupport::FakeClock::now();
  if (out != nullptr) *out = now;
  return now;
}
