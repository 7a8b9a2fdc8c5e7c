#include "qel_common/module_lock.h"

#include <atomic>

namespace qel {
namespace {
std::atomic<std::uint32_t> g_moduleLockCount{0};
}

void LockModule() noexcept { g_moduleLockCount.fetch_add(1, std::memory_order_seq_cst); }
void UnlockModule() noexcept { g_moduleLockCount.fetch_sub(1, std::memory_order_seq_cst); }
std::uint32_t ModuleLockCount() noexcept { return g_moduleLockCount.load(std::memory_order_seq_cst); }

}  // namespace qel
