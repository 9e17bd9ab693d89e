// The name a folder write gives its temporary file, built from the library's
// own rule, for tests that plant such files.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_TEMPORARYNAME_H
#define LOGINSTORAGE_TESTS_SUPPORT_TEMPORARYNAME_H

#include <string>

#include "platform/TemporaryFileName.h"

namespace testsupport {

// The temporary name of writer pid's number-th write.
inline std::string temporaryName(long pid, unsigned number) {
  return VelLogin::temporary_file_name::kPrefix + std::to_string(pid) + "-" +
         std::to_string(number);
}

}  // namespace testsupport

#endif
