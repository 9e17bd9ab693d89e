// CacheStorage: a read-through, write-through cache of objects in front of
// another object store (the backing store: an ObjectStorage, a MemStorage, or
// any AbstractObjectStorage).
//
// get() answers from memory while the cached record is fresh, that is for
// `lifetime` seconds after it was cached or refreshed (the record is still
// fresh during the very second of its expiry). A miss, or a stale record, is
// read from the backing store and the result cached; a miss is never cached.
// set() writes through first and caches the object only when the backing
// store accepted it. Both start with cleanup(), the rate-limited sweep.
//
// Cache keys: set() caches under the object's own key (getKey()); get()
// caches under the key the caller asked for.
//
// del(), delAll() and isInStorage() consult or trim the cache; every other
// operation (raw access, iteration, getNumElements()) goes to the backing
// store unchanged and neither fills nor refreshes the cache.
//
//   CacheStorage sessions(new MemStorage(3600, 1000), 60, 1000);
//   sessions.set(RefCountPtr<IStorable>(new Session("alice", "t0k3n")), 0);
//   RefCountPtr<IStorable> a = sessions.get("alice", nullptr);  // from memory
//
// Ownership: the cache owns the backing store from construction on and
// deletes it in its destructor, before it releases the cached objects. Cached
// objects are shared with callers, not copied.
//
// No lock: every call, get() included, changes the cache; one thread at a
// time per object.
#ifndef LOGINSTORAGE_CACHE_CACHESTORAGE_H
#define LOGINSTORAGE_CACHE_CACHESTORAGE_H

#include <cstdint>
#include <string>
#include <unordered_map>

#include "../storage/AbstractObjectStorage.h"
#include "../storage/Export.h"
#include "../storage/IStorable.h"
#include "../storage/RefCountPtr.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT CacheStorage : public AbstractObjectStorage {
 public:
  // One cached object and the time it expires, in seconds since the epoch.
  // Copies share the object.
  class LOGINSTORAGE_EXPORT CacheRecord {
   public:
    // A placeholder (expiry 0, no object) until a record is assigned over it.
    CacheRecord();
    // Expires at time() + lifetime, saturating; shares obj.
    CacheRecord(long lifetime, RefCountPtr<IStorable> obj);
    CacheRecord(const CacheRecord&) = default;
    CacheRecord& operator=(const CacheRecord&) = default;
    virtual ~CacheRecord();

    // Whether the record is expired now, or at a time the caller read once.
    bool expired();
    bool expired(long now);
    // A further reference to the object (null for a placeholder).
    RefCountPtr<IStorable> getStorable();
    // Restarts the lifetime from time() and replaces the object.
    void set(long lifetime, RefCountPtr<IStorable> obj);

   private:
    long m_expirationTime;
    RefCountPtr<IStorable> m_storable;
  };

  // What happened to this cache since construction or resetCounters(), one
  // count per event. Every get() counts exactly one of hits, misses and
  // staleHits; each miss and stale hit is one backing read.
  struct Counters {
    uint64_t hits = 0;                  // get() answered from a fresh record
    uint64_t misses = 0;                // get() found no record
    uint64_t staleHits = 0;             // get() found a stale record
    uint64_t backingReads = 0;          // get() calls passed to the backing store
    uint64_t backingReadFailures = 0;   // ...of which returned no object
    uint64_t writeThroughsRefused = 0;  // set() calls the backing store refused
    uint64_t sweeps = 0;                // cleanup() passes that ran
    uint64_t recordsSwept = 0;          // records those passes removed
  };

  // Takes ownership of storage, which must not be null while any operation
  // but the destructor is called. A record is fresh for `lifetime` seconds,
  // which is also the least spacing of two cleanup passes; a pass does work
  // only above `cleanupThreshold` cached records.
  CacheStorage(AbstractObjectStorage* storage, long lifetime, unsigned cleanupThreshold);
  // Deletes the backing store, then releases the cached objects.
  ~CacheStorage() override;

  // The cache owns its backing store: it is not copied.
  CacheStorage(const CacheStorage&) = delete;
  CacheStorage& operator=(const CacheStorage&) = delete;

  // Passed to the backing store; raw access bypasses the cache both ways.
  bool getRaw(const std::string& key, char*& data, unsigned& len) const override;
  bool setRaw(const std::string& key, const char* data, unsigned len,
              unsigned expiration) override;
  // Passed to the backing store; a cached record keeps its own expiry.
  bool setExpiration(const std::string& key, unsigned expiration) override;
  // Drops the cached record for key (if any), then returns the backing
  // store's del(key).
  bool del(const std::string& key) override;
  // Drops every cached record, then returns the backing store's delAll().
  bool delAll() override;
  // Iteration runs on the backing store; what it returns is not cached.
  bool startGetAll() override;
  bool getNextRaw(std::string& key, char*& data, unsigned& len) override;
  void endGetAll() override;
  unsigned getMaxRecordLen() const override;
  // The backing store's count, never the cache's.
  unsigned getNumElements() const override;
  // True for any key with a cached record, fresh or stale, without asking the
  // backing store; otherwise the backing store's answer.
  bool isInStorage(const std::string& key) const override;
  bool getNextInternal(std::string& key, char*& data, unsigned& len,
                       bool& endReached) override;

  // A fresh cached object for key, or else the backing store's get(key,
  // factory), cached under key when it is not null. A stale record stays when
  // the backing store has nothing. factory is passed through, never called
  // by the cache; it (and the backing store, in set() too) may call back into
  // this cache, e.g. to load or store a related object.
  RefCountPtr<IStorable> get(const std::string& key, FactoryFunc factory) override;
  // Writes obj through to the backing store; only if that succeeds, caches it
  // under obj->getKey() for the cache's lifetime (expiration is the backing
  // store's business) and returns true. A null obj or a refused write returns
  // false and leaves the cache as it was.
  bool set(RefCountPtr<IStorable> obj, unsigned expiration) override;
  // The backing store's next object; not cached.
  RefCountPtr<IStorable> getNext() override;
  void setFactoryFunc(FactoryFunc factory) override;

  // Removes stale records when a pass is due: more than `lifetime` seconds
  // after the last pass (or construction) and more than `cleanupThreshold`
  // cached records, as MemStorage::cleanup(). get() and set() call it first.
  virtual void cleanup();

  // Not virtual: the virtual table of the store is fixed.
  const Counters& counters() const { return m_counters; }
  void resetCounters() { m_counters = Counters(); }

 private:
  AbstractObjectStorage* m_storage;
  std::unordered_map<std::string, CacheRecord> m_records;
  long m_lastCleanup;
  long m_lifetime;
  unsigned m_cleanupThreshold;
  Counters m_counters;
};

}  // namespace VelLogin

#endif
