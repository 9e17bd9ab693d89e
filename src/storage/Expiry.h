// Expiry arithmetic and the expiring record shared by the stores that keep
// lifetimes. Times are whole seconds in a signed long; a record's expiry is
// the time it was stored plus its lifetime, and it is expired only once the
// clock is strictly past that, so it is still valid during the very second
// of its expiry.
//
// The sums saturate instead of overflowing: a lifetime so large that the sum
// would pass the largest long means "never expires" (and "never due" for a
// cleanup pass), not a wrapped, long-past time. A sum below the smallest long
// stays at the smallest long, i.e. long expired.
//
// The memory store and the cache keep their records in exported nested
// classes whose layout is fixed; the rules live here as functions over those
// records' two fields, and the classes only forward to them.
//
// Private to the library: no installed header includes it.
#ifndef LOGINSTORAGE_STORAGE_EXPIRY_H
#define LOGINSTORAGE_STORAGE_EXPIRY_H

#include <climits>
#include <ctime>
#include <vector>

#include "LoginStorage/storage/IStorable.h"
#include "LoginStorage/storage/RefCountPtr.h"

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

// Whether a record expiring at expiryTime is expired at time `at`.
inline bool expiredAt(long expiryTime, long at) { return at > expiryTime; }

// Restarts a record's lifetime from now and gives it obj. The expiry is
// written before the old object is released, so that whatever its
// destruction does meets a record that is already renewed.
inline void renew(long& expiryTime, RefCountPtr<IStorable>& storable, long lifetime,
                  const RefCountPtr<IStorable>& obj) {
  expiryTime = expiryFromNow(lifetime);
  storable = obj;
}

// The cleanup pass of a table of expiring records (MemRecord, CacheRecord):
// it runs only when more than `spacing` seconds have passed since lastPass
// (the last pass that ran, or construction) and the table holds more than
// `threshold` records. Both tests are cheap, so callers may call it as often
// as they like. A table too small to sweep leaves lastPass alone, so that the
// first call that finds it large enough runs at once.
//
// A pass judges every record against one reading of the clock, calls
// announce() once before it removes anything, and counts itself and its
// removals in counters.sweeps and counters.recordsSwept. The removed records'
// objects are released once the pass is over (see takeAll).
template <class Table, class Counters, class Announce>
void sweep(Table& records, long& lastPass, long spacing, unsigned threshold, Counters& counters,
           Announce announce) {
  const long at = now();
  if (at <= saturatingAdd(lastPass, spacing)) return;
  if (records.size() <= threshold) return;
  announce();
  std::vector<typename Table::node_type> removed;
  for (auto it = records.begin(); it != records.end();) {
    if (it->second.expired(at)) {
      removed.push_back(records.extract(it++));
      ++counters.recordsSwept;
    } else {
      ++it;
    }
  }
  ++counters.sweeps;
  lastPass = at;
}

// Releasing a record may destroy its object, and the object's destructor may
// call back into the store (to drop or store a related record). So records
// leave the table before their objects are released: callers take them out
// (extract() for one, takeAll() for all) and let go once the table is whole.
// takeAll() leaves the table empty with as many buckets as it had.
template <class Table>
Table takeAll(Table& records) {
  Table taken(records.bucket_count());
  taken.swap(records);
  return taken;
}

}  // namespace expiry
}  // namespace VelLogin

#endif
