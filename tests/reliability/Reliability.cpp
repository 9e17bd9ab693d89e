#include "reliability/Reliability.h"

#include <cstdlib>

namespace reliability {

unsigned scaled(unsigned n) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  double factor = 0.1;
#else
  double factor = 1.0;
#endif
  if (const char* scale = std::getenv("LOGINSTORAGE_RELIABILITY_SCALE")) {
    factor *= std::strtod(scale, nullptr);
  }
  const double result = n * factor;
  return result < 1.0 ? 1u : static_cast<unsigned>(result);
}

uint64_t seed(uint64_t fixed) {
  const char* text = std::getenv("LOGINSTORAGE_SEED");
  return text != nullptr ? std::strtoull(text, nullptr, 0) : fixed;
}

std::string image(const std::string& key, uint32_t gen) {
  std::string bytes = key + "|" + std::to_string(gen) + "|";
  uint32_t x = gen * 31u + static_cast<uint32_t>(key.size()) + 7u;
  for (unsigned fill = (gen * 2654435761u) % 9000u; fill > 0; --fill) {
    x = x * 1103515245u + 12345u;
    bytes.push_back(static_cast<char>(x >> 23));
  }
  return bytes;
}

bool isImage(const std::string& key, const std::string& content, uint32_t* gen) {
  if (content.compare(0, key.size() + 1, key + "|") != 0) return false;
  const auto value =
      static_cast<uint32_t>(std::strtoul(content.c_str() + key.size() + 1, nullptr, 10));
  if (content != image(key, value)) return false;
  if (gen != nullptr) *gen = value;
  return true;
}

}  // namespace reliability
