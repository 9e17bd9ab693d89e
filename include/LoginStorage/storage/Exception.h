// The library's exception type.
//
// No storage operation throws it: stores report failures by result. The
// library's whole-file read and write helpers throw it, and the folder store
// turns it into a false result at that one place.
#ifndef LOGINSTORAGE_STORAGE_EXCEPTION_H
#define LOGINSTORAGE_STORAGE_EXCEPTION_H

#include <string>

#include "Export.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT Exception {
 public:
  // message says what went wrong, location where (a path, an operation).
  Exception(const std::string& message, const std::string& location);
  virtual ~Exception();

  const std::string& getMessage() const { return m_message; }
  const std::string& getLocation() const { return m_location; }

 private:
  std::string m_message;
  std::string m_location;
};

}  // namespace VelLogin

#endif
