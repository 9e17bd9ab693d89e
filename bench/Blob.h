// The stored object of the benchmarks: a key and an opaque byte image.
//
// Included by benchmark files compiled against the shared library and by
// those compiled against the trace-free copy (where VelLogin is renamed), so
// it lives in an unnamed namespace: each file gets the class for its own
// library.
#ifndef LOGINSTORAGE_BENCH_BLOB_H
#define LOGINSTORAGE_BENCH_BLOB_H

#include <string>
#include <utility>

#include "LoginStorage/storage/IStorable.h"

namespace {

class Blob : public VelLogin::IStorable {
 public:
  explicit Blob(std::string key, std::string bytes = std::string())
      : m_key(std::move(key)), m_bytes(std::move(bytes)) {}
  std::string getKey() const override { return m_key; }
  bool serialize(char*& data, unsigned& len) override {
    if (m_bytes.empty() || m_bytes.size() > len) return false;
    data = &m_bytes[0];
    len = static_cast<unsigned>(m_bytes.size());
    return true;
  }
  std::string toString() const override { return m_key; }

 private:
  std::string m_key;
  std::string m_bytes;
};

}  // namespace

#endif
