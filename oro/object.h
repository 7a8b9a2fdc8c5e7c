// The framework's object model: reference-counted objects that hand out
// interfaces by 32-bit id, factories, and the service locator.
#pragma once

#include <cstdint>
#include <string>

#include "oro/iids.h"
#include "oro/result.h"

namespace oro {

using string8_t = std::string;
using string16_t = std::u16string;

struct IObject {
  static constexpr iid_t iid = iid::IObject;
  virtual std::uint32_t AddRef() noexcept = 0;
  virtual std::uint32_t Release() noexcept = 0;
  // Unknown iid: *out = nullptr and errNoInterface. A found interface comes
  // back with one reference added.
  virtual result_t QueryInterface(iid_t iid, void** out) noexcept = 0;

 protected:
  ~IObject() = default;
};

struct IServiceLocator : IObject {
  static constexpr iid_t iid = iid::IServiceLocator;
  // The object implementing `iid`, with one reference added.
  virtual result_t GetInterface(iid_t iid, void** out) noexcept = 0;
};

struct IObjectFactory : IObject {
  static constexpr iid_t iid = iid::IObjectFactory;
  // Builds one instance of the factory's class for `locator`; *out holds the
  // caller's reference.
  virtual result_t CreateInstance(IServiceLocator* locator, IObject** out) noexcept = 0;
};

}  // namespace oro
