#include "LoginStorage/storage/AbstractObjectStorage.h"

namespace VelLogin {

AbstractObjectStorage::~AbstractObjectStorage() = default;

}  // namespace VelLogin
