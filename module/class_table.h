// The classes the module hands out, by class id: those with a factory and
// those created directly.
#pragma once

#include <span>

#include "oro/object.h"
#include "oro/ref_ptr.h"

namespace qel::module {

// Builds one object for `locator` and stores it in *out with the creator's
// reference; *out is left untouched on failure. Exceptions are caught,
// traced and turned into result codes.
using Creator = oro::result_t (*)(oro::IServiceLocator* locator, oro::IObject** out) noexcept;

// A new factory for one class, holding the caller's reference.
using FactoryMaker = oro::IObjectFactory* (*)();

struct FactoryEntry {
  oro::clsid_t clsid;
  FactoryMaker makeFactory;
};

struct ClassEntry {
  oro::clsid_t clsid;
  Creator create;
};

std::span<const FactoryEntry> FactoryClasses();
std::span<const ClassEntry> DirectClasses();

}  // namespace qel::module
