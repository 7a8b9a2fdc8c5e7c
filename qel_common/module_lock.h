// The module lock count: one count per live object or factory of the module.
// The host may unload the module only while it is zero.
#pragma once

#include <cstdint>

namespace qel {

void LockModule() noexcept;
void UnlockModule() noexcept;
std::uint32_t ModuleLockCount() noexcept;

// Holds one module lock for its lifetime; a base of every object.
class ModuleLockHolder {
 public:
  ModuleLockHolder() noexcept { LockModule(); }
  ModuleLockHolder(const ModuleLockHolder&) noexcept { LockModule(); }
  ModuleLockHolder& operator=(const ModuleLockHolder&) noexcept { return *this; }
  ~ModuleLockHolder() { UnlockModule(); }
};

}  // namespace qel
