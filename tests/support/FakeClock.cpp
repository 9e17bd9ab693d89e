#include "support/FakeClock.h"

namespace {

bool g_fixed = false;
time_t g_now = 0;

}  // namespace

namespace testsupport {

void FakeClock::set(time_t now) {
  g_now = now;
  g_fixed = true;
}

void FakeClock::advance(long seconds) { set(now() + seconds); }

void FakeClock::useRealTime() { g_fixed = false; }

time_t FakeClock::now() {
  if (g_fixed) return g_now;
  timespec real{};  // not time(): this program replaces it
  clock_gettime(CLOCK_REALTIME, &real);
  return real.tv_sec;
}

}  // namespace testsupport

// Takes the place of the C library's time() in this program and in the shared
// libraries it loads.
extern "C" time_t time(time_t* out) noexcept {
  const time_t now = testsupport::FakeClock::now();
  if (out != nullptr) *out = now;
  return now;
}
