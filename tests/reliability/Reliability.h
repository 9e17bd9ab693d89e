// Shared by the reliability suite: how much work a run does, where its random
// numbers come from and self-checking record images.
#ifndef LOGINSTORAGE_TESTS_RELIABILITY_RELIABILITY_H
#define LOGINSTORAGE_TESTS_RELIABILITY_RELIABILITY_H

#include <cstdint>
#include <random>
#include <string>

namespace reliability {

// n scaled for this build: a tenth under the sanitizers, times
// $LOGINSTORAGE_RELIABILITY_SCALE when set (valgrind runs use 0.01); never 0.
unsigned scaled(unsigned n);

// The seed of a test: $LOGINSTORAGE_SEED when set, else fixed. Never the
// clock, so that every failure can be replayed.
uint64_t seed(uint64_t fixed);

// A generator whose sequence depends on the seed only, on every platform.
struct Random : std::mt19937_64 {
  using std::mt19937_64::mt19937_64;
  // Uniform enough in [0, n).
  unsigned below(unsigned n) { return static_cast<unsigned>((*this)() % n); }
  bool chance(unsigned percent) { return below(100) < percent; }
};

// The image of generation gen of the record key: a header naming both, then
// filler whose length (0 to about 9 KB) and bytes depend on both, so that
// writes of different sizes replace each other and no mix of two images is
// an image.
std::string image(const std::string& key, uint32_t gen);
// True, with gen set, when content is exactly image(key, gen) for some gen.
bool isImage(const std::string& key, const std::string& content, uint32_t* gen);

}  // namespace reliability

#endif
