// Implementation of the object model for the module's classes: reference
// counting, interface query, the module lock and the FinalConstruct /
// FinalRelease hooks.
//
//   class FirewallTask : public qel::ObjectImpl<FirewallTask, ITask,
//                                               IFirewallTaskConstruct, ...>
//
// The first interface is the primary one: it answers IID 0 too.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "oro/object.h"
#include "oro/ref_ptr.h"
#include "qel_common/module_lock.h"

namespace qel {

template <class Derived, class Primary, class... Others>
class ObjectImpl : public Primary, public Others..., private ModuleLockHolder {
 public:
  ObjectImpl(const ObjectImpl&) = delete;
  ObjectImpl& operator=(const ObjectImpl&) = delete;

  std::uint32_t AddRef() noexcept override { return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1; }

  std::uint32_t Release() noexcept override {
    const std::uint32_t left = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
      auto* self = static_cast<Derived*>(this);
      self->FinalRelease();
      delete self;
    }
    return left;
  }

  oro::result_t QueryInterface(oro::iid_t iid, void** out) noexcept override {
    if (!out) return oro::errInvalidArgument;
    *out = nullptr;
    if (iid == oro::iid::IObject || iid == Primary::iid) {
      *out = static_cast<Primary*>(this);
    } else {
      ((iid == Others::iid && !*out ? (void)(*out = static_cast<Others*>(this)) : (void)0), ...);
    }
    if (!*out) return oro::errNoInterface;
    AddRef();
    return oro::errOk;
  }

  // Default hooks; a class hides them with its own.
  oro::result_t FinalConstruct() { return oro::errOk; }
  void FinalRelease() noexcept {}

 protected:
  ObjectImpl() = default;
  virtual ~ObjectImpl() = default;

 private:
  std::atomic<std::uint32_t> m_refCount{1};
};

// Builds a T (constructor arguments forwarded) and runs its FinalConstruct.
// On success `out` holds the creator's reference; on failure the object is
// destroyed without FinalRelease and `out` is left untouched. Exceptions from
// the constructor or FinalConstruct propagate to the interface boundary.
template <class T, class... Args>
oro::result_t CreateInstance(oro::RefPtr<T>& out, Args&&... args) {
  T* object = new T(std::forward<Args>(args)...);
  oro::result_t r;
  try {
    r = object->FinalConstruct();
  } catch (...) {
    delete object;
    throw;
  }
  if (oro::Failed(r)) {
    delete object;
    return r;
  }
  out = oro::RefPtr<T>::Adopt(object);
  return oro::errOk;
}

}  // namespace qel
