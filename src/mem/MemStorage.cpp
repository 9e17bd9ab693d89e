#include "LoginStorage/mem/MemStorage.h"

#include "storage/Expiry.h"
#include "trace/Trace.h"

LS_TRACE_REGISTER_TOPICS()

namespace VelLogin {

namespace {

constexpr unsigned kMemMaxRecordLen = 1000000;
constexpr size_t kInitialBuckets = 100;

}  // namespace

// ---- MemStorage::MemRecord -------------------------------------------------

MemStorage::MemRecord::MemRecord() : m_expirationTime(0), m_storable() {}

MemStorage::MemRecord::MemRecord(long lifetime, RefCountPtr<IStorable> obj)
    : m_expirationTime(expiry::expiryFromNow(lifetime)), m_storable(obj) {}

MemStorage::MemRecord::~MemRecord() = default;

bool MemStorage::MemRecord::expired() {
  LS_TRACE_ENTRY("expired");
  return expiry::expiredAt(m_expirationTime, expiry::now());
}

bool MemStorage::MemRecord::expired(long now) {
  LS_TRACE_ENTRY("expired");
  return expiry::expiredAt(m_expirationTime, now);
}

RefCountPtr<IStorable> MemStorage::MemRecord::getStorable() {
  LS_TRACE_ENTRY("getStorable");
  return m_storable;
}

void MemStorage::MemRecord::set(long lifetime, RefCountPtr<IStorable> obj) {
  LS_TRACE_ENTRY("set");
  expiry::renew(m_expirationTime, m_storable, lifetime, obj);
}

// ---- MemStorage ------------------------------------------------------------

MemStorage::MemStorage(long lifetime, unsigned cleanupThreshold)
    : m_records(kInitialBuckets),
      m_lastCleanup(expiry::now()),
      m_lifetime(lifetime),
      m_cleanupThreshold(cleanupThreshold) {}

MemStorage::~MemStorage() { expiry::takeAll(m_records); }

bool MemStorage::getRaw(const std::string& key, char*& data, unsigned& len) const {
  LS_TRACE_ENTRY("getRaw");
  LS_TRACE_STREAM(3, "[MEMSTORAGE] get raw for key '" << key << "'");
  data = nullptr;
  len = 0;
  return false;
}

bool MemStorage::setRaw(const std::string& key, const char*, unsigned, unsigned) {
  LS_TRACE_ENTRY("setRaw");
  LS_TRACE_STREAM(3, "[MEMSTORAGE] set raw for key '" << key << "'");
  return true;
}

bool MemStorage::setExpiration(const std::string&, unsigned) {
  LS_TRACE_ENTRY("setExpiration");
  return true;
}

bool MemStorage::del(const std::string& key) {
  LS_TRACE_ENTRY("del");
  LS_TRACE_STREAM(3, "[MEMSTORAGE] del key '" << key << "'");
  const auto removed = m_records.extract(key);
  return true;
}

bool MemStorage::delAll() {
  LS_TRACE_ENTRY("delAll");
  LS_TRACE_STREAM(3, "[MEMSTORAGE] delAll");
  const auto removed = expiry::takeAll(m_records);  // the table never shrinks
  return true;
}

bool MemStorage::startGetAll() {
  LS_TRACE_ENTRY("startGetAll");
  return false;
}

bool MemStorage::getNextRaw(std::string&, char*&, unsigned&) {
  LS_TRACE_ENTRY("getNextRaw");
  return false;
}

void MemStorage::endGetAll() { LS_TRACE_ENTRY("endGetAll"); }

unsigned MemStorage::getMaxRecordLen() const {
  LS_TRACE_ENTRY("getMaxRecordLen");
  return kMemMaxRecordLen;
}

unsigned MemStorage::getNumElements() const {
  LS_TRACE_ENTRY("getNumElements");
  return static_cast<unsigned>(m_records.size());
}

bool MemStorage::isInStorage(const std::string& key) const {
  LS_TRACE_ENTRY("isInStorage");
  return m_records.find(key) != m_records.end();
}

bool MemStorage::getNextInternal(std::string&, char*&, unsigned&, bool&) {
  LS_TRACE_ENTRY("getNextInternal");
  return false;
}

// Flattened: the record's expiry test and pointer copy are inlined into the
// hit path (their own entry traces included) instead of being called.
__attribute__((flatten)) RefCountPtr<IStorable> MemStorage::get(const std::string& key,
                                                                FactoryFunc) {
  LS_TRACE_ENTRY("get");
  LS_TRACE_STREAM(3, "[MEMSTORAGE] getting key '" << key << "'");
  auto found = m_records.find(key);
  if (found == m_records.end()) {
    ++m_counters.misses;
    return RefCountPtr<IStorable>();
  }
  if (found->second.expired()) {
    // Dropped on the first read that meets it, without waiting for a sweep.
    const auto removed = m_records.extract(found);
    ++m_counters.expiredOnRead;
    return RefCountPtr<IStorable>();
  }
  ++m_counters.hits;
  return found->second.getStorable();
}

bool MemStorage::set(RefCountPtr<IStorable> obj, unsigned) {
  LS_TRACE_ENTRY("set");
  if (!obj) return false;
  LS_TRACE_STREAM(3, "[MEMSTORAGE] adding key '" << obj->getKey() << "'");
  LS_TRACE_MSG(3, "adding to memory storable key=%s", obj->getKey().c_str());
  const std::string key = obj->getKey();
  // Assigning a whole record overwrites the expiry first, then the object.
  m_records[key] = MemRecord(m_lifetime, obj);
  return true;
}

RefCountPtr<IStorable> MemStorage::getNext() {
  LS_TRACE_ENTRY("getNext");
  return RefCountPtr<IStorable>();
}

void MemStorage::setFactoryFunc(FactoryFunc) { LS_TRACE_ENTRY("setFactoryFunc"); }

void MemStorage::cleanup() {
  LS_TRACE_ENTRY("cleanup");
  expiry::sweep(m_records, m_lastCleanup, m_lifetime, m_cleanupThreshold, m_counters,
                [] { LS_TRACE_MSG(3, "Running cleanup..."); });
}

}  // namespace VelLogin
