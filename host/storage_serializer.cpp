#include "host/storage_serializer.h"

#include <new>

namespace qel::host {
namespace {

constexpr const char* kTypeKey = "type";
constexpr const char* kValueKey = "value";

// The type name and value of a tagged node value; null pointers when it is
// not one.
std::pair<const std::string*, const oro::SerValue*> Tagged(const oro::SerValue& stored) {
  const auto* fields = std::get_if<oro::SerValue::Fields>(&stored.value);
  if (!fields || fields->size() != 2 || (*fields)[0].first != kTypeKey || (*fields)[1].first != kValueKey) {
    return {nullptr, nullptr};
  }
  return {std::get_if<std::string>(&(*fields)[0].second.value), &(*fields)[1].second};
}

}  // namespace

oro::result_t StorageSerializer::Serialize(const void* record, const oro::SerObjDescriptor& type,
                                           oro::IStorageNode* node, oro::SerializerFlags) noexcept {
  if (!record || !node) return oro::errInvalidArgument;
  try {
    oro::SerValue tagged{oro::SerValue::Fields{{kTypeKey, oro::SerValue{std::string(type.TypeName())}},
                                               {kValueKey, type.ToValue(record)}}};
    return node->SetValue(std::move(tagged));
  } catch (const std::bad_alloc&) {
    return oro::errNoMemory;
  } catch (const std::exception& e) {
    return Refuse(type, std::string("cannot be written: ") + e.what());
  }
}

oro::result_t StorageSerializer::Deserialize(oro::IStorageNode* node, const oro::SerObjDescriptor& type, void* record,
                                             oro::SerializerFlags) noexcept {
  if (!record || !node) return oro::errInvalidArgument;
  try {
    oro::SerValue stored;
    if (const oro::result_t r = node->GetValue(stored); ORO_FAILED(r)) return r;
    const auto [typeName, value] = Tagged(stored);
    if (!typeName) return Refuse(type, "the node holds no typed record");
    if (*typeName != type.TypeName()) return Refuse(type, "the node holds a " + *typeName);
    std::string problem;
    const oro::result_t r = type.FromValue(*value, record, &problem);
    if (ORO_FAILED(r)) {
      Refuse(type, problem.empty() ? "its value is refused" : problem);
      return r;
    }
    return r;
  } catch (const std::bad_alloc&) {
    return oro::errNoMemory;
  } catch (const std::exception& e) {
    return Refuse(type, std::string("cannot be read: ") + e.what());
  }
}

oro::result_t StorageSerializer::Refuse(const oro::SerObjDescriptor& type, const std::string& problem) noexcept {
  try {
    std::lock_guard lock(m_reportMutex);
    m_report << "firewall-host: storage: " << type.TypeName() << ": " << problem << std::endl;
  } catch (...) {
    // Reporting is best effort; the result code still tells.
  }
  return oro::errInvalidArgument;
}

}  // namespace qel::host
