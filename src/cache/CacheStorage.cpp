#include "LoginStorage/cache/CacheStorage.h"

#include "storage/Expiry.h"
#include "trace/Trace.h"

LS_TRACE_REGISTER_TOPICS()

namespace VelLogin {

// ---- CacheStorage::CacheRecord ---------------------------------------------

CacheStorage::CacheRecord::CacheRecord() : m_expirationTime(0), m_storable() {}

CacheStorage::CacheRecord::CacheRecord(long lifetime, RefCountPtr<IStorable> obj)
    : m_expirationTime(expiry::expiryFromNow(lifetime)), m_storable(obj) {}

CacheStorage::CacheRecord::~CacheRecord() = default;

bool CacheStorage::CacheRecord::expired() {
  LS_TRACE_ENTRY("expired");
  return expiry::expiredAt(m_expirationTime, expiry::now());
}

bool CacheStorage::CacheRecord::expired(long now) {
  LS_TRACE_ENTRY("expired");
  return expiry::expiredAt(m_expirationTime, now);
}

RefCountPtr<IStorable> CacheStorage::CacheRecord::getStorable() {
  LS_TRACE_ENTRY("getStorable");
  return m_storable;
}

void CacheStorage::CacheRecord::set(long lifetime, RefCountPtr<IStorable> obj) {
  LS_TRACE_ENTRY("set");
  expiry::renew(m_expirationTime, m_storable, lifetime, obj);
}

// ---- CacheStorage ----------------------------------------------------------

CacheStorage::CacheStorage(AbstractObjectStorage* storage, long lifetime,
                           unsigned cleanupThreshold)
    : m_storage(storage),
      m_records(),
      m_lastCleanup(expiry::now()),
      m_lifetime(lifetime),
      m_cleanupThreshold(cleanupThreshold) {}

CacheStorage::~CacheStorage() {
  // The backing store goes first; an object only the cache still holds is
  // destroyed after it, when the records are released.
  if (m_storage != nullptr) delete m_storage;
  m_storage = nullptr;
  expiry::takeAll(m_records);
}

bool CacheStorage::getRaw(const std::string& key, char*& data, unsigned& len) const {
  LS_TRACE_ENTRY("getRaw");
  return m_storage->getRaw(key, data, len);
}

bool CacheStorage::setRaw(const std::string& key, const char* data, unsigned len,
                          unsigned expiration) {
  LS_TRACE_ENTRY("setRaw");
  return m_storage->setRaw(key, data, len, expiration);
}

bool CacheStorage::setExpiration(const std::string& key, unsigned expiration) {
  LS_TRACE_ENTRY("setExpiration");
  return m_storage->setExpiration(key, expiration);
}

bool CacheStorage::del(const std::string& key) {
  LS_TRACE_ENTRY("del");
  m_records.extract(key);  // the cached object is released before the backing store's del
  return m_storage->del(key);
}

bool CacheStorage::delAll() {
  LS_TRACE_ENTRY("delAll");
  expiry::takeAll(m_records);  // the cached objects are released before the backing delAll
  return m_storage->delAll();
}

bool CacheStorage::startGetAll() {
  LS_TRACE_ENTRY("startGetAll");
  return m_storage->startGetAll();
}

bool CacheStorage::getNextRaw(std::string& key, char*& data, unsigned& len) {
  LS_TRACE_ENTRY("getNextRaw");
  return m_storage->getNextRaw(key, data, len);
}

void CacheStorage::endGetAll() {
  LS_TRACE_ENTRY("endGetAll");
  m_storage->endGetAll();
}

unsigned CacheStorage::getMaxRecordLen() const {
  LS_TRACE_ENTRY("getMaxRecordLen");
  return m_storage->getMaxRecordLen();
}

unsigned CacheStorage::getNumElements() const {
  LS_TRACE_ENTRY("getNumElements");
  return m_storage->getNumElements();
}

bool CacheStorage::isInStorage(const std::string& key) const {
  LS_TRACE_ENTRY("isInStorage");
  if (m_records.find(key) != m_records.end()) return true;
  return m_storage->isInStorage(key);
}

bool CacheStorage::getNextInternal(std::string& key, char*& data, unsigned& len,
                                   bool& endReached) {
  LS_TRACE_ENTRY("getNextInternal");
  return m_storage->getNextInternal(key, data, len, endReached);
}

// Flattened, like MemStorage::get: the record's tests are inlined into the
// hit path.
__attribute__((flatten)) RefCountPtr<IStorable> CacheStorage::get(const std::string& key,
                                                                  FactoryFunc factory) {
  LS_TRACE_ENTRY("get");
  cleanup();
  // Looked up once: the result also decides between adding and updating.
  auto found = m_records.find(key);
  CacheRecord* record = found != m_records.end() ? &found->second : nullptr;
  if (record != nullptr) {
    LS_TRACE_MSG(3, "getting from cache key=%s", key.c_str());
    if (!record->expired()) {
      ++m_counters.hits;
      return record->getStorable();
    }
    LS_TRACE_MSG(2, "cache expired!!!");
    ++m_counters.staleHits;
  } else {
    ++m_counters.misses;
  }

  ++m_counters.backingReads;
  RefCountPtr<IStorable> res = m_storage->get(key, factory);
  if (!res) {
    // A miss is never cached; a stale record stays for a later read or sweep.
    ++m_counters.backingReadFailures;
    return res;
  }
  // The backing read may have called back into this cache (a factory that
  // loads or stores a related object) and so run a sweep: the record found
  // above may be gone. It still decides the message; the table is looked up
  // again.
  if (record == nullptr) {
    LS_TRACE_MSG(3, "adding new cache record key=%s", key.c_str());
    m_records[key] = CacheRecord(m_lifetime, res);
  } else {
    LS_TRACE_MSG(3, "update cache record key=%s", key.c_str());
    m_records[key].set(m_lifetime, res);
  }
  return res;
}

bool CacheStorage::set(RefCountPtr<IStorable> obj, unsigned expiration) {
  LS_TRACE_ENTRY("set");
  cleanup();
  if (!obj) return false;
  if (!m_storage->set(obj, expiration)) {
    // A refused write leaves whatever the cache held for the key.
    ++m_counters.writeThroughsRefused;
    return false;
  }
  const std::string key = obj->getKey();
  LS_TRACE_MSG(3, "adding to cache storable key=%s", key.c_str());
  // The cache lifetime is the cache's own, whatever expiration the backing
  // store was given.
  m_records[key] = CacheRecord(m_lifetime, obj);
  return true;
}

RefCountPtr<IStorable> CacheStorage::getNext() {
  LS_TRACE_ENTRY("getNext");
  return m_storage->getNext();
}

void CacheStorage::setFactoryFunc(FactoryFunc factory) {
  LS_TRACE_ENTRY("setFactoryFunc");
  m_storage->setFactoryFunc(factory);
}

void CacheStorage::cleanup() {
  LS_TRACE_ENTRY("cleanup");
  expiry::sweep(m_records, m_lastCleanup, m_lifetime, m_cleanupThreshold, m_counters,
                [] { LS_TRACE_MSG(3, "Running cleanup..."); });
}

}  // namespace VelLogin
