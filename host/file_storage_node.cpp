#include "host/file_storage_node.h"

#include <new>

namespace qel::host {
namespace {

// The module must never see an exception; running out of memory is the only
// one the tree lets through.
template <class F>
oro::result_t Guarded(F&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return oro::errNoMemory;
  } catch (...) {
    return oro::errUnexpected;
  }
}

}  // namespace

oro::result_t FileStorageNode::GetNode(const std::string& name, oro::IStorageNode** out) noexcept {
  return Child(name, false, out);
}

oro::result_t FileStorageNode::GetOrAppendNode(const std::string& name, oro::IStorageNode** out) noexcept {
  return Child(name, true, out);
}

oro::result_t FileStorageNode::Child(const std::string& name, bool append, oro::IStorageNode** out) noexcept {
  if (!out) return oro::errInvalidArgument;
  return Guarded([&] {
    StorageTree::Place child;
    const oro::result_t r = m_tree->Child(m_place, name, append, child);
    if (ORO_SUCCEEDED(r)) *out = new FileStorageNode(m_tree, std::move(child));
    return r;
  });
}

oro::result_t FileStorageNode::GetChildNames(std::vector<std::string>& out) noexcept {
  return Guarded([&] { return m_tree->ChildNames(m_place, out); });
}

oro::result_t FileStorageNode::Clear() noexcept {
  return Guarded([&] { return m_tree->Clear(m_place); });
}

oro::result_t FileStorageNode::SetValue(oro::SerValue value) noexcept {
  return Guarded([&] { return m_tree->SetValue(m_place, std::move(value)); });
}

oro::result_t FileStorageNode::GetValue(oro::SerValue& out) noexcept {
  return Guarded([&] { return m_tree->GetValue(m_place, out); });
}

oro::result_t FileStorageNode::Flush() noexcept {
  return Guarded([&] { return m_tree->Flush(m_place); });
}

}  // namespace qel::host
