#include "SweepClock.h"

#include <ctime>

namespace {
long g_now = 0;
}

namespace bench {

void setClock(long now) { g_now = now; }
long clock() { return g_now; }

}  // namespace bench

extern "C" time_t time(time_t* out) noexcept {
  if (out != nullptr) *out = g_now;
  return g_now;
}
