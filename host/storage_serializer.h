// Writes the module's records into storage nodes and reads them back. A node
// holds {"type": TYPE NAME, "value": RECORD}, so a node written for one type
// is never read as another.
#pragma once

#include <mutex>
#include <ostream>
#include <string>

#include "oro/storage.h"
#include "qel_common/object_impl.h"

namespace qel::host {

class StorageSerializer final : public ObjectImpl<StorageSerializer, oro::IStorageSerializer2> {
 public:
  // Refusals are reported on `report` (which must outlive the serialiser):
  // the module only learns the result code.
  explicit StorageSerializer(std::ostream& report) : m_report(report) {}

  oro::result_t Serialize(const void* record, const oro::SerObjDescriptor& type, oro::IStorageNode* node,
                          oro::SerializerFlags flags) noexcept override;
  // errNotFound when the node holds nothing; errInvalidArgument, `record`
  // untouched, when it holds another type or a value the type refuses.
  oro::result_t Deserialize(oro::IStorageNode* node, const oro::SerObjDescriptor& type, void* record,
                            oro::SerializerFlags flags) noexcept override;

 private:
  oro::result_t Refuse(const oro::SerObjDescriptor& type, const std::string& problem) noexcept;

  std::mutex m_reportMutex;
  std::ostream& m_report;
};

}  // namespace qel::host
