// One node of the host's storage as the module sees it. Nodes are handles:
// two handles on one node see the same value and children.
#pragma once

#include <memory>

#include "host/storage_tree.h"
#include "oro/storage.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class FileStorageNode final : public ObjectImpl<FileStorageNode, oro::IStorageNode> {
 public:
  FileStorageNode(std::shared_ptr<StorageTree> tree, StorageTree::Place place)
      : m_tree(std::move(tree)), m_place(std::move(place)) {}

  oro::result_t GetNode(const std::string& name, oro::IStorageNode** out) noexcept override;
  oro::result_t GetOrAppendNode(const std::string& name, oro::IStorageNode** out) noexcept override;
  oro::result_t GetChildNames(std::vector<std::string>& out) noexcept override;
  oro::result_t Clear() noexcept override;
  oro::result_t SetValue(oro::SerValue value) noexcept override;
  oro::result_t GetValue(oro::SerValue& out) noexcept override;
  oro::result_t Flush() noexcept override;

 private:
  oro::result_t Child(const std::string& name, bool append, oro::IStorageNode** out) noexcept;

  std::shared_ptr<StorageTree> m_tree;
  StorageTree::Place m_place;
};

}  // namespace qel::host
