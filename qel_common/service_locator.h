// Looking up collaborators through the host's service locator.
#pragma once

#include "oro/exception.h"
#include "oro/object.h"
#include "oro/ref_ptr.h"

namespace qel {

// The object implementing I, or empty with the locator's code in `result`.
template <class I>
oro::RefPtr<I> TryGetInterface(oro::IServiceLocator* locator, oro::result_t& result) noexcept {
  oro::RefPtr<I> p;
  result = locator ? locator->GetInterface(I::iid, p.OutVoid()) : oro::errNoInterface;
  if (oro::Succeeded(result) && !p) result = oro::errNoInterface;
  if (oro::Failed(result)) p.Reset();
  return p;
}

// The object implementing I; throws GetInterfaceException ("Can't get
// interface") with the locator's code when there is none.
template <class I>
oro::RefPtr<I> GetInterface(oro::IServiceLocator* locator) {
  oro::result_t r;
  auto p = TryGetInterface<I>(locator, r);
  if (!p) throw oro::GetInterfaceException(r);
  return p;
}

}  // namespace qel
