// The framework's persistent storage: a tree of named nodes, each holding at
// most one value, made durable by flushing, and the serialiser that turns
// records into node values through their type descriptors.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "oro/object.h"

namespace oro {

// A stored value: self-describing and keyed. A record becomes `Fields`, its
// fields under their names in the order of its descriptor; an absent
// optional field is null.
struct SerValue {
  using Null = std::monostate;
  using List = std::vector<SerValue>;
  using Fields = std::vector<std::pair<std::string, SerValue>>;

  std::variant<Null, bool, std::int64_t, std::uint64_t, std::string, List, Fields> value;

  bool operator==(const SerValue&) const = default;
};

struct IStorageNode : IObject {
  static constexpr iid_t iid = iid::IStorageNode;
  // The child called `name`; errNotFound (0x8000004c), `out` untouched, when
  // there is none.
  virtual result_t GetNode(const std::string& name, IStorageNode** out) noexcept = 0;
  // The child called `name`, made empty when there was none.
  virtual result_t GetOrAppendNode(const std::string& name, IStorageNode** out) noexcept = 0;
  // The names of the children, in the order they were appended.
  virtual result_t GetChildNames(std::vector<std::string>& out) noexcept = 0;
  // Drops the node's value and its children.
  virtual result_t Clear() noexcept = 0;
  virtual result_t SetValue(SerValue value) noexcept = 0;
  // errNotFound, `out` untouched, when the node holds no value.
  virtual result_t GetValue(SerValue& out) noexcept = 0;
  // Makes the node and everything below it durable as they are now, all or
  // nothing: after a crash at any moment, a later read finds either what
  // the previous flush left or what this one wrote.
  virtual result_t Flush() noexcept = 0;
};

struct IStorage : IObject {
  static constexpr iid_t iid = iid::IStorage;
  virtual result_t GetRootNode(IStorageNode** out) noexcept = 0;
};

// Describes one record type to the serialiser: its name, its fields in
// order, and the conversion of a record to and from its stored value.
class SerObjDescriptor {
 public:
  virtual ~SerObjDescriptor() = default;
  virtual const char* TypeName() const noexcept = 0;
  virtual std::vector<std::string> FieldNames() const = 0;
  // `record` points to an object of the described type.
  virtual SerValue ToValue(const void* record) const = 0;
  // Fills `record` from `value`; a value of another shape is refused with
  // errInvalidArgument and `record` is left as it was. `problem`, when given,
  // names what is wrong ("clients[2]: not a number").
  virtual result_t FromValue(const SerValue& value, void* record, std::string* problem) const = 0;
};

// The module's record types, by type name.
struct ITypeDescriptorRegistry : IObject {
  static constexpr iid_t iid = iid::ITypeDescriptorRegistry;
  // Null when the registry does not know the type.
  virtual const SerObjDescriptor* FindDescriptor(const std::string& typeName) const noexcept = 0;
};

enum class SerializerFlags : std::uint32_t { Default = 0 };

// Provided by the host: writes records into storage nodes and reads them
// back, tagged with their type so that a node read as another type is
// refused.
struct IStorageSerializer2 : IObject {
  static constexpr iid_t iid = iid::IStorageSerializer2;
  virtual result_t Serialize(const void* record, const SerObjDescriptor& type, IStorageNode* node,
                             SerializerFlags flags) noexcept = 0;
  virtual result_t Deserialize(IStorageNode* node, const SerObjDescriptor& type, void* record,
                               SerializerFlags flags) noexcept = 0;
};

}  // namespace oro
