#include "storage/AbstractObjectStorage.h"

namespace VelLogin {

AbstractObjectStorage::~AbstractObjectStorage() = default;

}  // namespace VelLogin
