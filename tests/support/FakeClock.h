// A clock that tests set. A test program that links the fake-clock library
// replaces the C library's time(), which the shared library reads for every
// expiry, so tests step time instead of sleeping. Until set() is called the
// clock follows real time.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_FAKECLOCK_H
#define LOGINSTORAGE_TESTS_SUPPORT_FAKECLOCK_H

#include <ctime>

namespace testsupport {

class FakeClock {
 public:
  static void set(time_t now);
  static void advance(long seconds);
  // Back to real time.
  static void useRealTime();
  // What time() answers now.
  static time_t now();
};

}  // namespace testsupport

#endif
