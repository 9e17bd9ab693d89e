#include "LoginStorage/platform/Durability.h"

#include <atomic>

namespace {

std::atomic<bool> g_durableWrites{false};

}  // namespace

namespace VelLogin {

void setDurableWrites(bool on) { g_durableWrites.store(on, std::memory_order_relaxed); }

bool durableWrites() { return g_durableWrites.load(std::memory_order_relaxed); }

}  // namespace VelLogin
