#include "LoginStorage/storage/AbstractStorage.h"

#include "trace/Trace.h"

LS_TRACE_REGISTER_TOPICS()

namespace VelLogin {

bool AbstractStorage::setExpiration(const std::string&, unsigned) { return false; }

unsigned AbstractStorage::getMaxRecordLen() const { return kNoRecordLimit; }

AbstractStorage::~AbstractStorage() = default;

bool AbstractStorage::getNextRaw(std::string& key, char*& data, unsigned& len) {
  LS_TRACE_ENTRY("getNextRaw");
  const unsigned capacity = len;
  unsigned tries = 0;
  bool succeeded = false;
  bool endReached = false;
  for (;;) {
    if (tries != 0) {
      LS_TRACE_MSG(1, "try #:%d - SKIPPING A RECORD - previous call returned success=%d, len=%d",
                   tries, succeeded ? 1 : 0, len);
    }
    len = capacity;
    ++tries;
    succeeded = getNextInternal(key, data, len, endReached);
    // A failure with len 0 is a record the store could not deliver: skip it.
    // A failure with a length is a record too long for the capacity: hand it
    // back so that the caller learns the length and skips it itself.
    if (succeeded || len != 0) break;
  }
  if (endReached) {
    LS_TRACE_MSG(3, "end of storage was reached");
  }
  // Written after any non-empty record, including one read successfully:
  // existing log readers count on the line.
  if (len != 0) {
    LS_TRACE_MSG(2, "given len is too small for record - should NOT happen");
  }
  return !endReached;
}

}  // namespace VelLogin
