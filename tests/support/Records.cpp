#include "support/Records.h"

#include <gtest/gtest.h>

namespace testsupport {

std::string readRecord(const VelLogin::AbstractStorage& store, const std::string& key,
                       unsigned capacity) {
  char* data = nullptr;
  unsigned len = capacity == kStoreMaximum ? store.getMaxRecordLen() : capacity;
  if (!store.getRaw(key, data, len)) {
    EXPECT_EQ(data, nullptr) << "a failed read of " << key << " left a buffer";
    return len == 0 ? "missing" : "too long: " + std::to_string(len);
  }
  std::string bytes(data, len);
  delete[] data;
  return bytes;
}

bool writeRecord(VelLogin::AbstractStorage& store, const std::string& key, const std::string& bytes,
                 unsigned expiration) {
  return store.setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), expiration);
}

Records drain(VelLogin::AbstractStorage& store, bool start) {
  Records records;
  EXPECT_TRUE(!start || store.startGetAll());
  std::string key;
  char* data = nullptr;
  for (unsigned len = store.getMaxRecordLen(); store.getNextRaw(key, data, len);
       len = store.getMaxRecordLen(), data = nullptr) {
    EXPECT_TRUE(records.emplace(key, std::string(data, len)).second) << key << " delivered twice";
    delete[] data;
  }
  if (start) store.endGetAll();
  return records;
}

}  // namespace testsupport
