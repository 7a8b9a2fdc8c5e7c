#include "firewall/network_isolation_storage.h"

#include <string>
#include <utility>

#include "firewall/network_isolation_descriptors.h"

namespace qel::firewall {
namespace {

using namespace network_isolation_data;
using serialization::DescriptorOf;

constexpr auto kFlags = oro::SerializerFlags::Default;

// A node that holds neither a value nor children: a session's node after the
// session ended, since nodes are emptied rather than removed.
bool IsEmpty(oro::IStorageNode* node) {
  oro::SerValue value;
  std::vector<std::string> children;
  return node->GetValue(value) == oro::errNotFound && ORO_SUCCEEDED(node->GetChildNames(children)) &&
         children.empty();
}

}  // namespace

NetworkIsolationStorage::NetworkIsolationStorage(tracing::Tracer tracer, oro::IStorageNode* root,
                                                 oro::IStorageSerializer2* serializer)
    : m_tracer(std::move(tracer)),
      m_root(oro::RefPtr<oro::IStorageNode>::Share(root)),
      m_serializer(oro::RefPtr<oro::IStorageSerializer2>::Share(serializer)) {}

oro::result_t NetworkIsolationStorage::Save(const void* record, const oro::SerObjDescriptor& type,
                                            oro::IStorageNode* node) {
  oro::result_t r = QEL_CHECKED_CALL(m_tracer, node->Clear(), "Cannot clear storage node");
  if (ORO_FAILED(r)) return r;
  return QEL_CHECKED_CALL(m_tracer, m_serializer->Serialize(record, type, node, kFlags),
                          "Cannot serialize persistent data");
}

oro::result_t NetworkIsolationStorage::SaveManager(const ManagerData& data) {
  if (m_isRecoverMode) return oro::errFalse;
  oro::RefPtr<oro::IStorageNode> node;
  oro::result_t r = QEL_CHECKED_CALL(m_tracer, m_root->GetOrAppendNode(NetIsoNodeName, node.Out()),
                                     std::string("Cannot get node, nodeName=") + NetIsoNodeName);
  if (ORO_FAILED(r)) return r;
  r = Save(&data, DescriptorOf<ManagerData>(), node.Get());
  if (ORO_FAILED(r)) return r;
  return QEL_CHECKED_CALL(m_tracer, node->Flush(), "Cannot save persistent data");
}

oro::result_t NetworkIsolationStorage::SaveSession(std::uint32_t clientId, const NetworkExclusionRules& rules) {
  if (m_isRecoverMode) return oro::errFalse;
  const SessionData data{ClientId2FWTag(clientId), rules};
  oro::RefPtr<oro::IStorageNode> sessions;
  oro::result_t r = QEL_CHECKED_CALL(m_tracer, m_root->GetOrAppendNode(NetIsoSessionsNodeName, sessions.Out()),
                                     std::string("Cannot get node, nodeName=") + NetIsoSessionsNodeName);
  if (ORO_FAILED(r)) return r;
  oro::RefPtr<oro::IStorageNode> node;
  r = QEL_CHECKED_CALL(m_tracer, sessions->GetOrAppendNode(data.firewallTag, node.Out()),
                       "Cannot get node, nodeName=" + data.firewallTag);
  if (ORO_FAILED(r)) return r;
  r = Save(&data, DescriptorOf<SessionData>(), node.Get());
  if (ORO_FAILED(r)) return r;
  return QEL_CHECKED_CALL(m_tracer, sessions->Flush(), "Cannot save session data");
}

oro::result_t NetworkIsolationStorage::ClearSession(std::uint32_t clientId) {
  if (m_isRecoverMode) return oro::errFalse;
  oro::RefPtr<oro::IStorageNode> sessions;
  oro::result_t r = m_root->GetNode(NetIsoSessionsNodeName, sessions.Out());
  if (r == oro::errNotFound) return oro::errFalse;
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "m_root->GetNode(NetIsoSessionsNodeName, sessions.Out())", r,
                          std::string("Cannot get root sessions node, nodeName=") + NetIsoSessionsNodeName);
    return r;
  }
  const std::string tag = ClientId2FWTag(clientId);
  oro::RefPtr<oro::IStorageNode> node;
  r = sessions->GetNode(tag, node.Out());
  if (r == oro::errNotFound) return oro::errFalse;
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "sessions->GetNode(tag, node.Out())", r,
                          "Cannot get session node, nodeName=" + tag);
    return r;
  }
  r = QEL_CHECKED_CALL(m_tracer, node->Clear(), "Cannot clear storage node");
  if (ORO_FAILED(r)) return r;
  return QEL_CHECKED_CALL(m_tracer, sessions->Flush(), "Cannot save session data");
}

oro::result_t NetworkIsolationStorage::LoadManager(ManagerData& data) {
  oro::RefPtr<oro::IStorageNode> node;
  const oro::result_t r = m_root->GetNode(NetIsoNodeName, node.Out());
  if (r == oro::errNotFound || (ORO_SUCCEEDED(r) && IsEmpty(node.Get()))) {
    m_tracer.Write(tracing::Warning, "There's no saved network isolation data");
    return oro::errFalse;
  }
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "m_root->GetNode(NetIsoNodeName, node.Out())", r,
                          std::string("Cannot get node, nodeName=") + NetIsoNodeName);
    return r;
  }
  return QEL_CHECKED_CALL(m_tracer, m_serializer->Deserialize(node.Get(), DescriptorOf<ManagerData>(), &data, kFlags),
                          "Cannot deserialize persistent data");
}

oro::result_t NetworkIsolationStorage::LoadSessions(std::vector<SavedSession>& sessions) {
  oro::RefPtr<oro::IStorageNode> root;
  oro::result_t r = m_root->GetNode(NetIsoSessionsNodeName, root.Out());
  if (r == oro::errNotFound) return oro::errFalse;
  if (ORO_FAILED(r)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "m_root->GetNode(NetIsoSessionsNodeName, root.Out())", r,
                          std::string("Cannot get root sessions node, nodeName=") + NetIsoSessionsNodeName);
    return r;
  }
  std::vector<std::string> names;
  r = QEL_CHECKED_CALL(m_tracer, root->GetChildNames(names),
                       std::string("Cannot get root sessions node, nodeName=") + NetIsoSessionsNodeName);
  if (ORO_FAILED(r)) return r;
  std::vector<SavedSession> loaded;
  for (const auto& name : names) {
    if (!LoadSession(root.Get(), name, loaded)) {
      m_tracer.Write(tracing::Error, "Saved network isolation session skipped, nodeName=", name);
    }
  }
  sessions = std::move(loaded);
  return oro::errOk;
}

// False when the node was there but could not be read; an emptied node is
// an ended session and loads nothing.
bool NetworkIsolationStorage::LoadSession(oro::IStorageNode* sessions, const std::string& name,
                                          std::vector<SavedSession>& loaded) {
  oro::RefPtr<oro::IStorageNode> node;
  oro::result_t r =
      QEL_CHECKED_CALL(m_tracer, sessions->GetNode(name, node.Out()), "Cannot get session node, nodeName=" + name);
  if (ORO_FAILED(r)) return false;
  if (IsEmpty(node.Get())) return true;
  SessionData data;
  r = QEL_CHECKED_CALL(m_tracer, m_serializer->Deserialize(node.Get(), DescriptorOf<SessionData>(), &data, kFlags),
                       "Cannot deserialize persistent data, nodeName=" + name);
  if (ORO_FAILED(r)) return false;
  // The client id lives in the tag only; a record under another client's
  // name would replay the wrong session.
  const auto clientId = FWTag2ClientId(data.firewallTag);
  if (!clientId || data.firewallTag != name) {
    m_tracer.Write(tracing::Error, "Session record does not match its node, nodeName=", name,
                   ", firewallTag=", data.firewallTag);
    return false;
  }
  loaded.push_back({*clientId, std::move(data.endpointExclusions3)});
  return true;
}

}  // namespace qel::firewall
