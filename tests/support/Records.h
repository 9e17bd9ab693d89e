// Reading and iterating records the way a caller does, with one set of
// answers for every suite: a record's bytes, "missing" (false, len 0) or
// "too long: N" (false, len N). Out-parameters are checked on the way: a
// failed read must leave no buffer behind.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_RECORDS_H
#define LOGINSTORAGE_TESTS_SUPPORT_RECORDS_H

#include <map>
#include <string>

#include "LoginStorage/storage/AbstractStorage.h"

namespace testsupport {

using Records = std::map<std::string, std::string>;

// Capacity that means "the store's getMaxRecordLen()".
constexpr unsigned kStoreMaximum = ~0u;

// getRaw(key) with a null buffer of the given capacity.
std::string readRecord(const VelLogin::AbstractStorage& store, const std::string& key,
                       unsigned capacity = kStoreMaximum);

// setRaw(key, bytes, expiration) as a caller with a string would.
bool writeRecord(VelLogin::AbstractStorage& store, const std::string& key, const std::string& bytes,
                 unsigned expiration = 0);

// Every record one iteration delivers, key to bytes, the iteration started
// (when start) and ended here. A key delivered twice, or a refused start,
// fails the test.
Records drain(VelLogin::AbstractStorage& store, bool start = true);

}  // namespace testsupport

#endif
