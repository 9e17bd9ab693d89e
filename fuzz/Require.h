// The check the harnesses share: a broken promise aborts, which libFuzzer
// reports with the input that caused it.
#ifndef LOGINSTORAGE_FUZZ_REQUIRE_H
#define LOGINSTORAGE_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

namespace fuzzsupport {

inline void require(bool promise, const char* what) {
  if (!promise) {
    std::fprintf(stderr, "broken promise: %s\n", what);
    std::abort();
  }
}

}  // namespace fuzzsupport

#endif
