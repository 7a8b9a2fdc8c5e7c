// Keeps the isolation manager's record and its clients' sessions in the
// host's storage, so that isolation survives a restart of the service.
//
//   root
//   +- qel.firewall.NetworkIsolationManager            ManagerData
//   +- qel.firewall.NetworkIsolationManager.Sessions
//      +- ni_0x1f                                       SessionData of client 31
//      +- ...
#pragma once

#include <cstdint>
#include <vector>

#include "firewall/network_isolation_data.h"
#include "oro/ref_ptr.h"
#include "oro/storage.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

// One client's session as read back from storage.
struct SavedSession {
  std::uint32_t clientId = 0;
  network_isolation_data::NetworkExclusionRules rules;

  bool operator==(const SavedSession&) const = default;
};

// Not synchronised: the manager calls it with its own mutex held.
class NetworkIsolationStorage {
 public:
  // Keeps a reference to the storage root and the serialiser.
  NetworkIsolationStorage(tracing::Tracer tracer, oro::IStorageNode* root, oro::IStorageSerializer2* serializer);

  // While sessions are replayed from storage, saving them again would only
  // write back what was just read, and clearing one would lose it should the
  // replay be cut short: every save and clear then writes nothing and
  // answers errFalse.
  void SetRecoverMode(bool recovering) noexcept { m_isRecoverMode = recovering; }
  bool IsRecoverMode() const noexcept { return m_isRecoverMode; }

  // Replaces the manager record and flushes it.
  oro::result_t SaveManager(const network_isolation_data::ManagerData& data);
  // Replaces the session of `clientId` (the node named by its tag) and
  // flushes the sessions node.
  oro::result_t SaveSession(std::uint32_t clientId, const network_isolation_data::NetworkExclusionRules& rules);
  // Empties the session node of a client whose session ended; errFalse when
  // there was none.
  oro::result_t ClearSession(std::uint32_t clientId);

  // errFalse, `data` untouched, when nothing was saved.
  oro::result_t LoadManager(network_isolation_data::ManagerData& data);
  // Every saved session, in the order they were first saved. A session that
  // cannot be read is traced and skipped: the others still load. errFalse
  // when no session was ever saved.
  oro::result_t LoadSessions(std::vector<SavedSession>& sessions);

 private:
  oro::result_t Save(const void* record, const oro::SerObjDescriptor& type, oro::IStorageNode* node);
  bool LoadSession(oro::IStorageNode* sessions, const std::string& name, std::vector<SavedSession>& loaded);

  tracing::Tracer m_tracer;
  oro::RefPtr<oro::IStorageNode> m_root;
  oro::RefPtr<oro::IStorageSerializer2> m_serializer;
  bool m_isRecoverMode = false;
};

}  // namespace qel::firewall
