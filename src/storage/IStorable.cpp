#include "LoginStorage/storage/IStorable.h"

namespace VelLogin {

// Out of line so that the interface's virtual table and type information have
// one home in the shared library.
IStorable::~IStorable() = default;

}  // namespace VelLogin
