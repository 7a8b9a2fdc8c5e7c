// Looking up collaborators through the host's service locator.
#pragma once

#include "oro/exception.h"
#include "oro/object.h"
#include "oro/ref_ptr.h"
#include "qel_tracing/tracer.h"

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

// The host's tracer; a component without one traces nothing.
inline oro::RefPtr<oro::ITracer> LocatedTracer(oro::IServiceLocator* locator) noexcept {
  oro::result_t ignored;
  return TryGetInterface<oro::ITracer>(locator, ignored);
}

// Looks up I into `out`; when the locator has none, traces "Cannot get "
// `name` " interface" at error level and returns the locator's code.
template <class I>
oro::result_t Locate(oro::IServiceLocator* locator, const tracing::Tracer& tracer, const char* name,
                     oro::RefPtr<I>& out) {
  oro::result_t result;
  out = TryGetInterface<I>(locator, result);
  if (!out) tracer.Write(tracing::Error, "Cannot get ", name, " interface");
  return result;
}

}  // namespace qel
