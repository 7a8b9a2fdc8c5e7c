// The host's storage tree and serialiser, in memory. The tree keeps what was
// flushed apart from what was only set, so that Restart() shows what a
// restarted host would read; any step can be told to fail.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "oro/storage.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeStorage {
 public:
  enum class Step { GetNode, GetOrAppendNode, GetChildNames, Clear, SetValue, GetValue, Flush };

  struct Tree {
    std::optional<oro::SerValue> value;
    std::vector<std::pair<std::string, Tree>> children;

    Tree* Child(const std::string& name) {
      for (auto& [childName, child] : children) {
        if (childName == name) return &child;
      }
      return nullptr;
    }
    Tree& Append(const std::string& name) { return children.emplace_back(name, Tree{}).second; }
  };

  // `step` fails with `code` on the node called `nodeName` (for GetNode and
  // GetOrAppendNode: when asked for the child called so).
  void Fail(Step step, const std::string& nodeName, oro::result_t code) { m_failures[{step, nodeName}] = code; }
  oro::result_t FailureOf(Step step, const std::string& nodeName) const {
    const auto it = m_failures.find({step, nodeName});
    return it == m_failures.end() ? oro::errOk : it->second;
  }

  // What a restarted host finds: the flushed state; unflushed changes are lost.
  void Restart() { live = durable; }

  // Makes the subtree at `path` durable as it is now.
  void Flush(const std::vector<std::string>& path) {
    Tree* from = &live;
    Tree* to = &durable;
    for (const auto& name : path) {
      from = from->Child(name);
      to = to->Child(name) ? to->Child(name) : &to->Append(name);
    }
    *to = *from;
  }

  Tree live;
  Tree durable;
  int flushes = 0;

 private:
  std::map<std::pair<Step, std::string>, oro::result_t> m_failures;
};

// A node of a FakeStorage: its path from the root.
class FakeStorageNode final : public ObjectImpl<FakeStorageNode, oro::IStorageNode> {
 public:
  using Step = FakeStorage::Step;

  FakeStorageNode(std::shared_ptr<FakeStorage> storage, std::vector<std::string> path = {})
      : m_storage(std::move(storage)), m_path(std::move(path)) {}

  oro::result_t GetNode(const std::string& name, oro::IStorageNode** out) noexcept override {
    if (auto r = m_storage->FailureOf(Step::GetNode, name)) return r;
    if (!Here().Child(name)) return oro::errNotFound;
    *out = ChildNode(name);
    return oro::errOk;
  }
  oro::result_t GetOrAppendNode(const std::string& name, oro::IStorageNode** out) noexcept override {
    if (auto r = m_storage->FailureOf(Step::GetOrAppendNode, name)) return r;
    if (!Here().Child(name)) Here().Append(name);
    *out = ChildNode(name);
    return oro::errOk;
  }
  oro::result_t GetChildNames(std::vector<std::string>& out) noexcept override {
    if (auto r = Failure(Step::GetChildNames)) return r;
    out.clear();
    for (const auto& child : Here().children) out.push_back(child.first);
    return oro::errOk;
  }
  oro::result_t Clear() noexcept override {
    if (auto r = Failure(Step::Clear)) return r;
    Here() = {};
    return oro::errOk;
  }
  oro::result_t SetValue(oro::SerValue value) noexcept override {
    if (auto r = Failure(Step::SetValue)) return r;
    Here().value = std::move(value);
    return oro::errOk;
  }
  oro::result_t GetValue(oro::SerValue& out) noexcept override {
    if (auto r = Failure(Step::GetValue)) return r;
    if (!Here().value) return oro::errNotFound;
    out = *Here().value;
    return oro::errOk;
  }
  oro::result_t Flush() noexcept override {
    if (auto r = Failure(Step::Flush)) return r;
    m_storage->Flush(m_path);
    ++m_storage->flushes;
    return oro::errOk;
  }

 private:
  oro::result_t Failure(Step step) const { return m_storage->FailureOf(step, m_path.empty() ? "" : m_path.back()); }

  // Found again on every call, as a node stays valid while the tree changes.
  FakeStorage::Tree& Here() {
    FakeStorage::Tree* tree = &m_storage->live;
    for (const auto& name : m_path) {
      FakeStorage::Tree* child = tree->Child(name);
      // A node whose parent was cleared under it comes back empty.
      tree = child ? child : &tree->Append(name);
    }
    return *tree;
  }
  oro::IStorageNode* ChildNode(const std::string& name) {
    auto path = m_path;
    path.push_back(name);
    return new FakeStorageNode(m_storage, std::move(path));
  }

  std::shared_ptr<FakeStorage> m_storage;
  std::vector<std::string> m_path;
};

// The host's storage service, handing out the root of a FakeStorage.
class FakeStorageService final : public ObjectImpl<FakeStorageService, oro::IStorage> {
 public:
  explicit FakeStorageService(std::shared_ptr<FakeStorage> storage) : m_storage(std::move(storage)) {}
  oro::result_t GetRootNode(oro::IStorageNode** out) noexcept override {
    *out = new FakeStorageNode(m_storage);
    return oro::errOk;
  }

 private:
  std::shared_ptr<FakeStorage> m_storage;
};

// Stores a record as {"type": type name, "value": the descriptor's value} and
// refuses a node that holds another type's record, as the host's serialiser
// does; it knows records only through the descriptor it is handed.
class FakeSerializer final : public ObjectImpl<FakeSerializer, oro::IStorageSerializer2> {
 public:
  oro::result_t Serialize(const void* record, const oro::SerObjDescriptor& type, oro::IStorageNode* node,
                          oro::SerializerFlags) noexcept override {
    return node->SetValue(Tagged(type.TypeName(), type.ToValue(record)));
  }
  oro::result_t Deserialize(oro::IStorageNode* node, const oro::SerObjDescriptor& type, void* record,
                            oro::SerializerFlags) noexcept override {
    oro::SerValue stored;
    if (auto r = node->GetValue(stored)) return r;
    const auto* fields = std::get_if<oro::SerValue::Fields>(&stored.value);
    const std::pair<std::string, oro::SerValue> tag{"type", {std::string(type.TypeName())}};
    if (!fields || fields->size() != 2 || (*fields)[0] != tag) {
      problem = "not a record of type " + std::string(type.TypeName());
      return oro::errInvalidArgument;
    }
    return type.FromValue((*fields)[1].second, record, &problem);
  }

  static oro::SerValue Tagged(const std::string& typeName, oro::SerValue value) {
    return {oro::SerValue::Fields{{"type", {typeName}}, {"value", std::move(value)}}};
  }

  // What the last refused Deserialize found wrong.
  std::string problem;
};

}  // namespace qel::test
