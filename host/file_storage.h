// The host's persistent storage, offered to the module: a tree of named
// nodes kept under a state directory, one file per child of the root.
#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "host/outcome.h"
#include "host/storage_tree.h"
#include "oro/ref_ptr.h"
#include "oro/storage.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class FileStorage final : public ObjectImpl<FileStorage, oro::IStorage> {
 public:
  // Opens (or creates) the state directory and reads what it holds. A
  // directory that cannot be used is the error; a file that cannot be read
  // is only reported on `report`, moved aside and left out. `report` must
  // outlive the storage.
  static Outcome<oro::RefPtr<FileStorage>> Open(const std::string& directory, std::ostream& report);

  oro::result_t GetRootNode(oro::IStorageNode** out) noexcept override;

 private:
  explicit FileStorage(std::shared_ptr<StorageTree> tree) : m_tree(std::move(tree)) {}

  std::shared_ptr<StorageTree> m_tree;
};

}  // namespace qel::host
