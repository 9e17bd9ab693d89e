// IStorable: an object that can be kept in an object store. It names its key
// and writes its own byte image; a FactoryFunc rebuilds it from that image.
//
//   class Session : public VelLogin::IStorable {
//    public:
//     std::string getKey() const override { return m_user; }
//     bool serialize(char*& data, unsigned& len) override {
//       m_image = m_user + '\n' + m_token;
//       if (m_image.size() > len) return false;   // does not fit the store
//       data = &m_image[0];
//       len = static_cast<unsigned>(m_image.size());
//       return true;
//     }
//     std::string toString() const override { return "session of " + m_user; }
//    private:
//     std::string m_user, m_token, m_image;     // m_image owns the bytes
//   };
//
//   VelLogin::RefCountPtr<VelLogin::IStorable> sessionFromBytes(
//       const char* data, unsigned len);          // a FactoryFunc
#ifndef LOGINSTORAGE_STORAGE_ISTORABLE_H
#define LOGINSTORAGE_STORAGE_ISTORABLE_H

#include <string>

#include "Export.h"
#include "RefCountPtr.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT IStorable {
 public:
  IStorable() = default;
  IStorable(const IStorable&) = default;
  // Objects carry no identity of their own to assign.
  IStorable& operator=(const IStorable&) { return *this; }

  // The key under which the object is stored.
  virtual std::string getKey() const = 0;

  // Writes the object's byte image. On entry data is null and len holds the
  // largest record the target store accepts. On success sets data to the
  // image and len to its length and returns true; returns false when no image
  // that fits can be made. The image stays owned by the object and must stay
  // valid until the storing call returns; stores copy it and never free it.
  virtual bool serialize(char*& data, unsigned& len) = 0;

  // A readable description of the object, for logs and tools.
  virtual std::string toString() const = 0;

  virtual ~IStorable();
};

// Rebuilds an object from len bytes at data, without taking ownership of
// data. Returns a null pointer when the image cannot be read.
typedef RefCountPtr<IStorable> (*FactoryFunc)(const char* data, unsigned len);

}  // namespace VelLogin

#endif
