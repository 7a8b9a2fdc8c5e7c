// Object creation behind the exports: the exception boundary and the
// per-class factory.
#pragma once

#include <exception>
#include <string>

#include "module/class_table.h"
#include "oro/tracer.h"
#include "qel_common/exception_result.h"
#include "qel_common/object_impl.h"
#include "qel_common/service_locator.h"

namespace qel::module {

// Writes the exception in flight to the host's tracer, when it has one, and
// turns it into a result code. An exception escaping from here terminates
// the process, as the noexcept demands.
inline oro::result_t ConstructionFailure(oro::IServiceLocator* locator) noexcept {
  const auto e = std::current_exception();
  oro::result_t lookup;
  if (auto tracer = TryGetInterface<oro::ITracer>(locator, lookup)) {
    tracer->Trace(oro::trace_level::Error, ("Exception during object construction: " + ExceptionText(e)).c_str());
  }
  return ResultFromException(e);
}

// Creator of class T, whose constructor takes the locator. The object comes
// out through its primary interface.
template <class T, class Primary>
oro::result_t Create(oro::IServiceLocator* locator, oro::IObject** out) noexcept {
  try {
    oro::RefPtr<T> object;
    const oro::result_t r = CreateInstance(object, locator);
    if (ORO_SUCCEEDED(r)) *out = static_cast<Primary*>(object.Detach());
    return r;
  } catch (...) {
    return ConstructionFailure(locator);
  }
}

// The factory of one class: an interface pointer and a reference count,
// nothing more. It holds a module lock while it lives.
template <Creator create>
class ClassFactory final : public ObjectImpl<ClassFactory<create>, oro::IObjectFactory> {
 public:
  oro::result_t CreateInstance(oro::IServiceLocator* locator, oro::IObject** out) noexcept override {
    if (!out) return oro::errInvalidArgument;
    return create(locator, out);
  }

  static oro::IObjectFactory* Make() { return new ClassFactory; }
};

}  // namespace qel::module
