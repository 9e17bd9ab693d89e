#include "LoginStorage/storage/Exception.h"

namespace VelLogin {

Exception::Exception(const std::string& message, const std::string& location)
    : m_message(message), m_location(location) {}

// Out of line so that the class's virtual table and type information have one
// home in the shared library.
Exception::~Exception() = default;

}  // namespace VelLogin
