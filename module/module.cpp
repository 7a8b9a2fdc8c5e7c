// The module's three exported entry points.
#include <exception>

#include "module/class_factory.h"
#include "module/class_table.h"
#include "oro/module_exports.h"
#include "qel_common/module_lock.h"

#define QEL_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using namespace qel::module;

template <class Entry>
const Entry* Find(std::span<const Entry> table, oro::clsid_t clsid) {
  for (const auto& entry : table) {
    if (entry.clsid == clsid) return &entry;
  }
  return nullptr;
}

// Asking for this class id crashes the process on purpose, so that the
// host's crash reporting can be tried out.
void CrashIfAsked(oro::clsid_t clsid) {
  if (clsid == oro::clsid::CrashHook) std::terminate();
}

}  // namespace

// 0: the host may unload the module now; 1: objects are still alive.
QEL_EXPORT oro::result_t oroCanUnloadModule() { return qel::ModuleLockCount() == 0 ? oro::errOk : oro::errFalse; }

QEL_EXPORT oro::result_t oroGetObjectFactory(oro::IServiceLocator* locator, oro::clsid_t clsid,
                                             oro::IObjectFactory** out) {
  const FactoryEntry* entry = Find(FactoryClasses(), clsid);
  if (!entry || !entry->makeFactory) {
    CrashIfAsked(clsid);
    if (out) *out = nullptr;
    return oro::errNotImplemented;
  }
  if (!out) return oro::errInvalidArgument;
  try {
    *out = entry->makeFactory();
    return oro::errOk;
  } catch (...) {
    return ConstructionFailure(locator);
  }
}

QEL_EXPORT oro::result_t oroCreateObject(oro::clsid_t clsid, oro::IServiceLocator* locator, oro::IObject** out) {
  const ClassEntry* entry = Find(DirectClasses(), clsid);
  if (!entry || !entry->create) {
    CrashIfAsked(clsid);
    return oro::errClassNotFound;
  }
  if (!out) return oro::errInvalidArgument;
  return entry->create(locator, out);
}
