// AbstractStorage: the root of every store, a key/value store of raw byte
// records under std::string keys. Keys are compared as whole strings; records
// are byte strings of known length (they may hold NUL bytes), never text.
//
// The record buffer convention, which every raw read follows:
// - len in: the largest record the caller accepts (pass getMaxRecordLen()).
//   A capacity of 0 is a usage error and is refused.
// - data in: null, or the caller's buffer of at least len bytes.
// - On success: the record is in data and its length in len. If data was
//   null, the store allocated exactly len bytes with new[] and the caller
//   owns them: release with delete[].
// - On failure with len > capacity: the record exists but did not fit; len
//   holds the length needed and data is untouched.
// - On failure with len == 0: nothing was delivered (missing, expired,
//   unreadable).
// setRaw copies from data and never takes ownership.
//
// Iteration: startGetAll(), then getNextRaw() until it returns false, then
// endGetAll(). One iteration at a time per store object.
//
// No operation throws an exception of the library's own. One thread at a time
// per object.
#ifndef LOGINSTORAGE_STORAGE_ABSTRACTSTORAGE_H
#define LOGINSTORAGE_STORAGE_ABSTRACTSTORAGE_H

#include <string>

#include "Export.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT AbstractStorage {
 public:
  // getMaxRecordLen() of a store that has no limit.
  static constexpr unsigned kNoRecordLimit = 0xFFFFFFFFu;

  AbstractStorage() = default;
  AbstractStorage(const AbstractStorage&) = default;
  AbstractStorage& operator=(const AbstractStorage&) = default;

  // The order of these virtual operations is part of the binary interface:
  // derived interfaces append after getNextInternal. Do not reorder.

  // Reads the record under key, following the record buffer convention.
  virtual bool getRaw(const std::string& key, char*& data, unsigned& len) const = 0;

  // Stores len bytes from data under key. expiration is the record's lifetime
  // in seconds; what a store makes of it is the store's own.
  virtual bool setRaw(const std::string& key, const char* data, unsigned len,
                      unsigned expiration) = 0;

  // Changes a record's lifetime. The default keeps no expiry: returns false.
  virtual bool setExpiration(const std::string& key, unsigned expiration);

  virtual bool del(const std::string& key) = 0;
  virtual bool delAll() = 0;

  // Opens an iteration over all records.
  virtual bool startGetAll() = 0;

  // Delivers the next record of the iteration under the record buffer
  // convention, with its key. Returns false at the end. The default calls
  // getNextInternal and skips records it fails to deliver (false with len 0);
  // a record longer than the capacity ends the call with true and len set to
  // the length needed, so the caller can skip it.
  virtual bool getNextRaw(std::string& key, char*& data, unsigned& len);

  virtual void endGetAll() = 0;

  // The largest record the store keeps; the default, kNoRecordLimit, means no
  // limit.
  virtual unsigned getMaxRecordLen() const;

  virtual ~AbstractStorage();

  virtual unsigned getNumElements() const = 0;
  virtual bool isInStorage(const std::string& key) const = 0;

  // One step of the default getNextRaw: delivers the next record under the
  // record buffer convention, or, when no record is left, returns true with
  // endReached set and len 0. A store reports the end that way only: false
  // with len 0 means "skip this record, try the next one".
  virtual bool getNextInternal(std::string& key, char*& data, unsigned& len,
                               bool& endReached) = 0;
};

}  // namespace VelLogin

#endif
