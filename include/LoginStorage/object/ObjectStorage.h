// ObjectStorage: keeps objects in any raw store, typically a
// FileSystemStorage, as their byte images.
//
//   VelLogin::ObjectStorage sessions(
//       new VelLogin::FileSystemStorage("/var/lib/app/sessions", 0, false, false, 0),
//       Session::fromBytes);
//   sessions.set(VelLogin::RefCountPtr<VelLogin::IStorable>(new Session("alice")), 0);
//   VelLogin::RefCountPtr<VelLogin::IStorable> alice = sessions.get("alice", nullptr);
//
// set() stores an object's serialize() image under its getKey(); get() and
// getNext() rebuild objects with a factory. The adapter keeps nothing of its
// own: every raw operation, the iteration included, is the wrapped store's,
// and expirations are passed through for the wrapped store to apply.
//
// Owns the wrapped store from construction on and deletes it when destroyed;
// the caller must not delete it. One thread at a time per object.
#ifndef LOGINSTORAGE_OBJECT_OBJECTSTORAGE_H
#define LOGINSTORAGE_OBJECT_OBJECTSTORAGE_H

#include <string>

#include "../storage/AbstractObjectStorage.h"
#include "../storage/AbstractStorage.h"
#include "../storage/Export.h"
#include "../storage/IStorable.h"
#include "../storage/RefCountPtr.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT ObjectStorage : public AbstractObjectStorage {
 public:
  // Takes ownership of storage. factory is the default factory of get() and
  // the factory of getNext(); it may be null and set later.
  ObjectStorage(AbstractStorage* storage, FactoryFunc factory);
  ObjectStorage(const ObjectStorage&) = delete;
  ObjectStorage& operator=(const ObjectStorage&) = delete;

  // Deletes the wrapped store (nothing when it is null).
  ~ObjectStorage() override;

  // The wrapped store's operations, passed through unchanged.
  bool getRaw(const std::string& key, char*& data, unsigned& len) const override;
  bool setRaw(const std::string& key, const char* data, unsigned len, unsigned expiration) override;
  bool setExpiration(const std::string& key, unsigned expiration) override;
  bool del(const std::string& key) override;
  bool delAll() override;
  bool startGetAll() override;
  bool getNextRaw(std::string& key, char*& data, unsigned& len) override;
  void endGetAll() override;
  unsigned getMaxRecordLen() const override;
  unsigned getNumElements() const override;
  bool isInStorage(const std::string& key) const override;
  bool getNextInternal(std::string& key, char*& data, unsigned& len, bool& endReached) override;

  // Rebuilds the object stored under key with factory, or with the default
  // factory when factory is null. Null when there is no factory (the store is
  // then not asked), no record, or the factory rejects the record.
  RefCountPtr<IStorable> get(const std::string& key, FactoryFunc factory) override;

  // Stores obj's image under its key with the given expiration. False for a
  // null obj, when serialize() fails, or when the wrapped store refuses.
  bool set(RefCountPtr<IStorable> obj, unsigned expiration) override;

  // The next object of the wrapped store's iteration that the default factory
  // can rebuild; records longer than getMaxRecordLen() and records the
  // factory rejects are skipped. Null at the end, or when there is no default
  // factory (no record is consumed then).
  RefCountPtr<IStorable> getNext() override;

  void setFactoryFunc(FactoryFunc factory) override;

 private:
  AbstractStorage* m_storage;
  FactoryFunc m_factoryFunc;
};

}  // namespace VelLogin

#endif
