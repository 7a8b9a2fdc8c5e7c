// The bridge netfilter switches (bridge-nf-call-iptables and
// bridge-nf-call-ip6tables), shared by the clients that need bridged traffic
// to pass the iptables chains. The value in force follows the requests: the
// newest forced one wins, else the newest one. The texts the switches held
// before the first write are saved and written back when the last client
// leaves; with a storage node, they are also kept there while the switches
// are held, so that a run killed before it could write them back hands them
// to the next one. The switch files exist only while the bridge netfilter module is
// loaded, so while it has clients the controller follows kernel uevents and
// writes the value again when that module appears.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "firewall/bridge_interfaces.h"
#include "oro/ref_ptr.h"
#include "oro/storage.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class BridgeController : public ObjectImpl<BridgeController, IBridgeController, IUevents> {
 public:
  // Where the kernel keeps the switches (per network namespace).
  static constexpr const char* kSwitchDirectory = "/proc/sys/net/bridge";
  static constexpr const char* kIptablesSwitch = "bridge-nf-call-iptables";
  static constexpr const char* kIp6tablesSwitch = "bridge-nf-call-ip6tables";

  // `switchDirectory` holds the two switch files; `uevents` tells when the
  // bridge netfilter module is loaded; `savedTexts`, when given, keeps the
  // switches' own texts across a crash.
  BridgeController(oro::RefPtr<oro::ITracer> tracer, std::filesystem::path switchDirectory,
                   oro::RefPtr<IUeventsSubscription> uevents, oro::RefPtr<oro::IStorageNode> savedTexts = {});

  // Clients still registered lose their requests: the switches get their
  // saved texts back and the uevent subscription ends, so no notification
  // reaches the object once it is gone.
  void FinalRelease() noexcept;

  // IBridgeController
  oro::result_t AddBridgeNfCallsClient(std::uint32_t clientId, bool nfCallsValue, bool force) noexcept override;
  oro::result_t DeleteBridgeNfCallsClient(std::uint32_t clientId) noexcept override;
  // IUevents: "add" of "/module/br_netfilter" writes the value in force.
  oro::result_t OnUevent(const Uevent& uevent) noexcept override;

 private:
  struct NfCallsRequest {
    std::uint32_t clientId;
    bool nfCallsValue;
    bool force;
  };

  oro::result_t ApplyNfCalls();
  bool ChooseNfCallsValue() const;
  oro::result_t SetSysctl(const std::filesystem::path& file, bool value, std::string& saved);
  oro::result_t ResetSysctl(const std::filesystem::path& file, const std::string& saved);
  void RestoreSavedNfCalls();
  void AdoptTextsOfKilledRun();
  void KeepSavedTexts();
  void ForgetKeptTexts();
  oro::result_t FollowUevents(bool follow);
  std::string HistoryText() const;

  tracing::Tracer m_tracer;
  const std::filesystem::path m_iptablesSwitch;
  const std::filesystem::path m_ip6tablesSwitch;
  const oro::RefPtr<IUeventsSubscription> m_uevents;
  const oro::RefPtr<oro::IStorageNode> m_keptTexts;  // may be empty

  // Serialises the client calls, so that the uevent subscription follows
  // the requests in the order they came. Taken before m_mutex and never by
  // the uevent path: a client may wait in Unsubscribe for a notification
  // that needs m_mutex, but never with m_mutex held.
  std::mutex m_clientCallsMutex;
  bool m_subscribed = false;  // guarded by m_clientCallsMutex

  // Guards the state below. Invariant, whenever it is free: each client has
  // at most one request, in the order of arrival; a saved text is non-empty
  // only while there are requests, and is what its switch held before the
  // controller first wrote it.
  std::mutex m_mutex;
  std::vector<NfCallsRequest> m_nfCallsHistory;
  std::string m_savedNfCallsIpv4;
  std::string m_savedNfCallsIpv6;
};

}  // namespace qel::firewall
