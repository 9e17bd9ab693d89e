// Shared by the reliability suite: how much work a run does, where its random
// numbers come from, self-checking record images and a storable that counts
// its live instances.
#ifndef LOGINSTORAGE_TESTS_RELIABILITY_RELIABILITY_H
#define LOGINSTORAGE_TESTS_RELIABILITY_RELIABILITY_H

#include <cstdint>
#include <random>
#include <string>

#include "LoginStorage/storage/IStorable.h"
#include "LoginStorage/storage/RefCountPtr.h"

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

// The image of generation gen of the record key: a header naming both and
// the length, then filler derived from them; lengths vary from 1 byte to
// about 9 KB so that writes of different sizes replace each other.
std::string image(const std::string& key, uint32_t gen);
// True, with gen set, when content is exactly image(key, gen) for some gen.
bool isImage(const std::string& key, const std::string& content, uint32_t* gen);

// A storable with a key, a payload number and a serial number of its own
// that tells objects apart. Its byte image is "payload:key"; fromBytes()
// rebuilds a new object (a new serial) from it.
// toString() is "key=payload".
class Item : public VelLogin::IStorable {
 public:
  Item(std::string key, uint32_t payload)
      : m_key(std::move(key)), m_payload(payload), m_serial(++made) {
    ++live;
  }
  ~Item() override { --live; }
  std::string getKey() const override { return m_key; }
  // Refuses (false) for payload 0, so that tests can make a write fail.
  bool serialize(char*& data, unsigned& len) override;
  std::string toString() const override { return m_key + "=" + std::to_string(m_payload); }

  uint32_t payload() const { return m_payload; }
  uint64_t serial() const { return m_serial; }

  static VelLogin::RefCountPtr<VelLogin::IStorable> make(const std::string& key, uint32_t payload) {
    return VelLogin::RefCountPtr<VelLogin::IStorable>(new Item(key, payload));
  }
  static VelLogin::RefCountPtr<VelLogin::IStorable> fromBytes(const char* data, unsigned len);
  static const Item* of(const VelLogin::RefCountPtr<VelLogin::IStorable>& ptr) {
    return static_cast<const Item*>(ptr.get());
  }
  // Items alive now, and made so far.
  static inline long live = 0;
  static inline uint64_t made = 0;

 private:
  std::string m_key;
  uint32_t m_payload;
  uint64_t m_serial;
  std::string m_image;  // what serialize() handed out last
};

}  // namespace reliability

#endif
