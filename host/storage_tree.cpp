#include "host/storage_tree.h"

#include <algorithm>

#include "host/ser_value_json.h"

namespace qel::host {
namespace {

constexpr int kFormat = 1;
constexpr const char* kFormatKey = "format";
constexpr const char* kRankKey = "rank";
constexpr const char* kValueKey = "value";
constexpr const char* kChildrenKey = "children";

using Node = StorageTree::Node;

Json NodeToJson(const Node& node, Json json = Json::object()) {
  if (node.value) json[kValueKey] = SerValueToJson(*node.value);
  if (!node.children.empty()) {
    Json& children = json[kChildrenKey] = Json::object();
    for (const auto& [name, child] : node.children) children[name] = NodeToJson(*child);
  }
  return json;
}

// Fills `node` from `json`, which may carry `extraKeys` besides the node's
// own; else what is wrong and where.
std::string NodeFromJson(const Json& json, const std::string& path, Node& node,
                         std::initializer_list<const char*> extraKeys = {}) {
  if (!json.is_object()) return path + ": not an object";
  for (const auto& [key, inner] : json.items()) {
    if (key == kValueKey) {
      auto value = SerValueFromJson(inner);
      if (!value) return path + "." + value.ErrorText();
      node.value = std::move(value).Value();
    } else if (key == kChildrenKey) {
      if (!inner.is_object()) return path + ".children: not an object";
      for (const auto& [name, child] : inner.items()) {
        const std::string childPath = path + ".children." + name;
        if (auto problem = StateDirectory::NameProblem(name); !problem.empty()) return childPath + ": " + problem;
        auto& slot = node.children.emplace_back(name, std::make_shared<Node>());
        if (auto problem = NodeFromJson(child, childPath, *slot.second); !problem.empty()) return problem;
      }
    } else if (std::find_if(extraKeys.begin(), extraKeys.end(), [&](const char* k) { return key == k; }) ==
               extraKeys.end()) {
      return path + ": unknown key '" + key + "'";
    }
  }
  return "";
}

std::shared_ptr<Node> FindChild(const Node& parent, const std::string& name) {
  for (const auto& [childName, child] : parent.children) {
    if (childName == name) return child;
  }
  return nullptr;
}

}  // namespace

StorageTree::StorageTree(StateDirectory directory, std::ostream& report)
    : m_directory(std::move(directory)), m_report(report) {
  Load();
}

StorageTree::Place StorageTree::Root() const { return Place{m_root, ""}; }

oro::result_t StorageTree::Child(const Place& parent, const std::string& name, bool append, Place& out) {
  const std::string problem = StateDirectory::NameProblem(name);
  std::lock_guard lock(m_mutex);
  if (!problem.empty()) {
    m_report << "firewall-host: storage: " << problem << "; refused" << std::endl;
    return oro::errInvalidArgument;
  }
  auto child = FindChild(*parent.node, name);
  if (!child) {
    if (!append) return oro::errNotFound;
    child = parent.node->children.emplace_back(name, std::make_shared<Node>()).second;
    if (parent.IsRoot() && !m_rank.contains(name)) m_rank[name] = ++m_lastRank;
  }
  out = Place{std::move(child), parent.IsRoot() ? name : parent.record};
  return oro::errOk;
}

oro::result_t StorageTree::ChildNames(const Place& place, std::vector<std::string>& out) {
  std::lock_guard lock(m_mutex);
  out.clear();
  for (const auto& [name, child] : place.node->children) out.push_back(name);
  return oro::errOk;
}

oro::result_t StorageTree::Clear(const Place& place) {
  std::lock_guard lock(m_mutex);
  place.node->value.reset();
  place.node->children.clear();
  return oro::errOk;
}

oro::result_t StorageTree::SetValue(const Place& place, oro::SerValue value) {
  if (place.IsRoot()) return oro::errNotImplemented;
  if (auto problem = UnstorablePart(value); !problem.empty()) {
    std::lock_guard lock(m_mutex);
    m_report << "firewall-host: storage: a value for " << place.record << " refused: " << problem << std::endl;
    return oro::errInvalidArgument;
  }
  std::lock_guard lock(m_mutex);
  place.node->value = std::move(value);
  return oro::errOk;
}

oro::result_t StorageTree::GetValue(const Place& place, oro::SerValue& out) {
  std::lock_guard lock(m_mutex);
  if (!place.node->value) return oro::errNotFound;
  out = *place.node->value;
  return oro::errOk;
}

oro::result_t StorageTree::Flush(const Place& place) {
  std::lock_guard lock(m_mutex);
  if (!place.IsRoot()) return FlushRecord(place.record);
  oro::result_t result = oro::errOk;
  std::vector<std::string> records;
  for (const auto& [name, rank] : m_rank) records.push_back(name);
  for (const auto& name : records) {
    if (const oro::result_t r = FlushRecord(name); ORO_FAILED(r)) result = r;
  }
  return result;
}

oro::result_t StorageTree::FlushRecord(const std::string& name) {
  const auto node = FindChild(*m_root, name);
  const IoResult written =
      node ? m_directory.WriteRecord(name, RecordText(name, *node)) : m_directory.RemoveRecord(name);
  if (!written) {
    m_report << "firewall-host: storage: cannot save " << written.text << std::endl;
    return oro::ResultFromErrno(written.error);
  }
  if (!node) m_rank.erase(name);
  return oro::errOk;
}

std::string StorageTree::RecordText(const std::string& name, const Node& node) const {
  Json json = Json::object();
  json[kFormatKey] = kFormat;
  json[kRankKey] = m_rank.at(name);
  // Indented: the files are for people to read too.
  return NodeToJson(node, std::move(json)).dump(1) + "\n";
}

void StorageTree::Load() {
  std::vector<std::string> removed;
  auto names = m_directory.ListRecords(removed);
  for (const auto& file : removed) m_report << "firewall-host: storage: removed the leftover " << file << std::endl;
  if (!names) {
    m_report << "firewall-host: storage: " << names.ErrorText() << "; starting with nothing stored" << std::endl;
    return;
  }
  for (const auto& name : names.Value()) LoadRecord(name);
  std::stable_sort(m_root->children.begin(), m_root->children.end(),
                   [&](const auto& a, const auto& b) { return m_rank[a.first] < m_rank[b.first]; });
}

void StorageTree::LoadRecord(const std::string& name) {
  std::string text;
  std::string problem = m_directory.ReadRecord(name, text);
  Node node;
  std::uint64_t rank = 0;
  if (problem.empty()) {
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded()) {
      problem = "not JSON";
    } else if (!json.is_object() || json.value(kFormatKey, Json()) != kFormat) {
      problem = "not a storage file of format 1";
    } else if (!json.contains(kRankKey) || !json[kRankKey].is_number_unsigned()) {
      problem = "no rank";
    } else {
      rank = json[kRankKey].get<std::uint64_t>();
      problem = NodeFromJson(json, name, node, {kFormatKey, kRankKey});
    }
  }
  if (!problem.empty()) {
    std::string movedTo;
    const std::string notMoved = m_directory.MoveAside(name, movedTo);
    m_report << "firewall-host: storage: " << m_directory.FileOf(name) << " cannot be read (" << problem << "); "
             << (notMoved.empty() ? "moved aside to " + movedTo : notMoved + ", left where it is")
             << "; the firewall starts without it" << std::endl;
    return;
  }
  m_root->children.emplace_back(name, std::make_shared<Node>(std::move(node)));
  m_rank[name] = rank;
  m_lastRank = std::max(m_lastRank, rank);
}

}  // namespace qel::host
