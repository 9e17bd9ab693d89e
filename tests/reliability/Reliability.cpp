#include "reliability/Reliability.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace reliability {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kBuildScale = 0.1;
#else
constexpr double kBuildScale = 1.0;
#endif

}  // namespace

unsigned scaled(unsigned n) {
  double factor = kBuildScale;
  if (const char* scale = std::getenv("LOGINSTORAGE_RELIABILITY_SCALE")) {
    factor *= std::strtod(scale, nullptr);
  }
  const double result = n * factor;
  return result < 1.0 ? 1u : static_cast<unsigned>(result);
}

uint64_t seed(uint64_t fixed) {
  if (const char* text = std::getenv("LOGINSTORAGE_SEED")) {
    return std::strtoull(text, nullptr, 0);
  }
  return fixed;
}

std::string image(const std::string& key, uint32_t gen) {
  char header[64];
  const unsigned fill = (gen * 2654435761u) % 9000u;
  const int n = std::snprintf(header, sizeof header, "|%u|%u|", gen, fill);
  std::string bytes = key;
  bytes.append(header, static_cast<size_t>(n));
  uint32_t x = gen * 31u + static_cast<uint32_t>(key.size()) + 7u;
  for (unsigned i = 0; i < fill; ++i) {
    x = x * 1103515245u + 12345u;
    bytes.push_back(static_cast<char>(x >> 23));
  }
  return bytes;
}

bool isImage(const std::string& key, const std::string& content, uint32_t* gen) {
  if (content.compare(0, key.size() + 1, key + "|") != 0) return false;
  const unsigned long value = std::strtoul(content.c_str() + key.size() + 1, nullptr, 10);
  if (content != image(key, static_cast<uint32_t>(value))) return false;
  if (gen != nullptr) *gen = static_cast<uint32_t>(value);
  return true;
}

bool Item::serialize(char*& data, unsigned& len) {
  m_image = std::to_string(m_payload) + ":" + m_key;
  if (m_payload == 0 || m_image.size() > len) return false;
  data = &m_image[0];
  len = static_cast<unsigned>(m_image.size());
  return true;
}

VelLogin::RefCountPtr<VelLogin::IStorable> Item::fromBytes(const char* data, unsigned len) {
  const std::string bytes(data, len);
  const size_t colon = bytes.find(':');
  if (colon == std::string::npos || colon == 0) return VelLogin::RefCountPtr<VelLogin::IStorable>();
  return make(bytes.substr(colon + 1), static_cast<uint32_t>(std::stoul(bytes.substr(0, colon))));
}

}  // namespace reliability
