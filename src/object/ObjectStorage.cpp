#include "LoginStorage/object/ObjectStorage.h"

#include "trace/Trace.h"

LS_TRACE_REGISTER_TOPICS()

namespace VelLogin {

ObjectStorage::ObjectStorage(AbstractStorage* storage, FactoryFunc factory)
    : m_storage(storage), m_factoryFunc(factory) {}

ObjectStorage::~ObjectStorage() { delete m_storage; }

bool ObjectStorage::getRaw(const std::string& key, char*& data, unsigned& len) const {
  return m_storage->getRaw(key, data, len);
}

bool ObjectStorage::setRaw(const std::string& key, const char* data, unsigned len,
                           unsigned expiration) {
  return m_storage->setRaw(key, data, len, expiration);
}

bool ObjectStorage::setExpiration(const std::string& key, unsigned expiration) {
  return m_storage->setExpiration(key, expiration);
}

bool ObjectStorage::del(const std::string& key) { return m_storage->del(key); }

bool ObjectStorage::delAll() { return m_storage->delAll(); }

bool ObjectStorage::startGetAll() { return m_storage->startGetAll(); }

bool ObjectStorage::getNextRaw(std::string& key, char*& data, unsigned& len) {
  return m_storage->getNextRaw(key, data, len);
}

void ObjectStorage::endGetAll() { m_storage->endGetAll(); }

unsigned ObjectStorage::getMaxRecordLen() const { return m_storage->getMaxRecordLen(); }

unsigned ObjectStorage::getNumElements() const { return m_storage->getNumElements(); }

bool ObjectStorage::isInStorage(const std::string& key) const {
  return m_storage->isInStorage(key);
}

bool ObjectStorage::getNextInternal(std::string& key, char*& data, unsigned& len,
                                    bool& endReached) {
  return m_storage->getNextInternal(key, data, len, endReached);
}

void ObjectStorage::setFactoryFunc(FactoryFunc factory) { m_factoryFunc = factory; }

bool ObjectStorage::set(RefCountPtr<IStorable> obj, unsigned expiration) {
  LS_TRACE_ENTRY("set");
  const unsigned maxLen = getMaxRecordLen();
  if (obj.isNull()) {
    LS_TRACE_MSG(1, "set to a null storable");
    return false;
  }
  const std::string key = obj->getKey();
  char* data = nullptr;
  unsigned len = maxLen;
  if (!obj->serialize(data, len)) return false;
  // The image stays the object's: it is copied, not freed, here.
  return setRaw(key, data, len, expiration);
}

RefCountPtr<IStorable> ObjectStorage::get(const std::string& key, FactoryFunc factory) {
  LS_TRACE_ENTRY("get");
  if (factory == nullptr) factory = m_factoryFunc;
  if (factory == nullptr) {
    LS_TRACE_MSG(1, "method was called when no factoty set");
    return RefCountPtr<IStorable>();
  }
  char* data = nullptr;
  unsigned len = getMaxRecordLen();
  const bool found = getRaw(key, data, len);
  LS_TRACE_MSG(3, "'getRaw' completed (success=%d): key '%s' len=%d", found ? 1 : 0, key.c_str(),
               len);
  if (!found) {
    LS_TRACE_MSG(2, "failed to get entity by key '%s'", key.c_str());
    return RefCountPtr<IStorable>();
  }
  RefCountPtr<IStorable> result = factory(data, len);
  delete[] data;
  return result;
}

RefCountPtr<IStorable> ObjectStorage::getNext() {
  LS_TRACE_ENTRY("getNext");
  RefCountPtr<IStorable> result;
  const unsigned maxLen = getMaxRecordLen();
  std::string key;
  char* data = nullptr;
  for (;;) {
    delete[] data;
    data = nullptr;
    unsigned len = maxLen;
    if (m_factoryFunc == nullptr) {
      LS_TRACE_MSG(1, "method was called while m_factoryFunc is null");
      break;
    }
    if (!getNextRaw(key, data, len)) break;
    if (len > maxLen) {
      LS_TRACE_MSG(1, "SKIPPING RECORD because needed len=%d > maxLen=%d", len, maxLen);
      continue;
    }
    result = m_factoryFunc(data, len);
    if (!result.isNull()) break;
    LS_TRACE_MSG(1, "SKIPPING RECORD because factory function failed");
  }
  delete[] data;
  return result;
}

}  // namespace VelLogin
