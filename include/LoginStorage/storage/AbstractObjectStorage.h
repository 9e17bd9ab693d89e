// AbstractObjectStorage: a store of whole objects (IStorable) shared through
// RefCountPtr. Stored objects are shared, not copied: each get() hands out a
// further reference to the same object.
//
// It extends the raw interface with four object operations, appended after
// the raw ones in this fixed order.
#ifndef LOGINSTORAGE_STORAGE_ABSTRACTOBJECTSTORAGE_H
#define LOGINSTORAGE_STORAGE_ABSTRACTOBJECTSTORAGE_H

#include <string>

#include "AbstractStorage.h"
#include "Export.h"
#include "IStorable.h"
#include "RefCountPtr.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT AbstractObjectStorage : public AbstractStorage {
 public:
  // The object stored under key, or a null pointer when there is none, it has
  // expired, or it cannot be rebuilt. A store of byte images rebuilds it with
  // factory, or, when factory is null, with the one set by setFactoryFunc.
  virtual RefCountPtr<IStorable> get(const std::string& key, FactoryFunc factory) = 0;

  // Stores obj under obj->getKey() with a lifetime of expiration seconds (as
  // the store applies lifetimes). A null obj is refused with false.
  virtual bool set(RefCountPtr<IStorable> obj, unsigned expiration) = 0;

  // The next object of the iteration opened by startGetAll(), or a null
  // pointer when the iteration has ended.
  virtual RefCountPtr<IStorable> getNext() = 0;

  // The factory used by get() when given none, and by getNext().
  virtual void setFactoryFunc(FactoryFunc factory) = 0;

  ~AbstractObjectStorage() override;
};

}  // namespace VelLogin

#endif
