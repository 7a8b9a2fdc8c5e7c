#include "host/file_storage.h"

#include <new>

#include "host/file_storage_node.h"

namespace qel::host {

Outcome<oro::RefPtr<FileStorage>> FileStorage::Open(const std::string& directory, std::ostream& report) {
  auto opened = StateDirectory::Open(directory);
  if (!opened) return Outcome<oro::RefPtr<FileStorage>>::Error(opened.ErrorText());
  auto tree = std::make_shared<StorageTree>(std::move(opened).Value(), report);
  return oro::RefPtr<FileStorage>::Adopt(new FileStorage(std::move(tree)));
}

oro::result_t FileStorage::GetRootNode(oro::IStorageNode** out) noexcept {
  if (!out) return oro::errInvalidArgument;
  try {
    *out = new FileStorageNode(m_tree, m_tree->Root());
    return oro::errOk;
  } catch (const std::bad_alloc&) {
    return oro::errNoMemory;
  }
}

}  // namespace qel::host
