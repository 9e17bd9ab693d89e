// Expiry arithmetic shared by the stores that keep lifetimes. Times are whole
// seconds in a signed long; a record's expiry is the time it was stored plus
// its lifetime, and it is expired only once the clock is strictly past that.
//
// The sums saturate instead of overflowing: a lifetime so large that the sum
// would pass the largest long means "never expires" (and "never due" for a
// cleanup pass), not a wrapped, long-past time. A sum below the smallest long
// stays at the smallest long, i.e. long expired.
//
// Private to the library: no installed header includes it.
#ifndef LOGINSTORAGE_STORAGE_EXPIRY_H
#define LOGINSTORAGE_STORAGE_EXPIRY_H

#include <climits>
#include <ctime>

namespace VelLogin {
namespace expiry {

// base + seconds, clamped to [LONG_MIN, LONG_MAX].
inline long saturatingAdd(long base, long seconds) {
  long sum;
  if (__builtin_add_overflow(base, seconds, &sum)) {
    return seconds > 0 ? LONG_MAX : LONG_MIN;
  }
  return sum;
}

// The clock every expiry reads: the C library's time(), as a long.
inline long now() { return static_cast<long>(::time(nullptr)); }

// The expiry time of a record stored now with the given lifetime.
inline long expiryFromNow(long lifetime) { return saturatingAdd(now(), lifetime); }

}  // namespace expiry
}  // namespace VelLogin

#endif
