// Owning pointer to a reference-counted framework object.
#pragma once

#include <utility>

#include "oro/object.h"

namespace oro {

template <class T>
class RefPtr {
 public:
  RefPtr() noexcept = default;
  RefPtr(std::nullptr_t) noexcept {}
  // Takes over a reference the caller already owns.
  static RefPtr Adopt(T* p) noexcept {
    RefPtr r;
    r.m_p = p;
    return r;
  }
  // Adds a reference of its own.
  static RefPtr Share(T* p) noexcept {
    if (p) p->AddRef();
    return Adopt(p);
  }
  RefPtr(const RefPtr& o) noexcept : m_p(o.m_p) {
    if (m_p) m_p->AddRef();
  }
  RefPtr(RefPtr&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
  RefPtr& operator=(RefPtr o) noexcept {
    std::swap(m_p, o.m_p);
    return *this;
  }
  ~RefPtr() { Reset(); }

  void Reset() noexcept {
    if (T* p = std::exchange(m_p, nullptr)) p->Release();
  }
  // Gives up ownership without releasing.
  T* Detach() noexcept { return std::exchange(m_p, nullptr); }
  // Out-parameter slot for calls that return a new reference.
  void** OutVoid() noexcept {
    Reset();
    return reinterpret_cast<void**>(&m_p);
  }
  T** Out() noexcept {
    Reset();
    return &m_p;
  }

  T* Get() const noexcept { return m_p; }
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  explicit operator bool() const noexcept { return m_p != nullptr; }

 private:
  T* m_p = nullptr;
};

// Asks `object` for interface I; empty on failure.
template <class I>
RefPtr<I> QueryInterface(IObject* object, result_t* result = nullptr) noexcept {
  RefPtr<I> p;
  const result_t r = object ? object->QueryInterface(I::iid, p.OutVoid()) : errNoInterface;
  if (result) *result = r;
  if (Failed(r)) p.Reset();
  return p;
}

}  // namespace oro
