#include "firewall/bridge_controller.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "qel_common/unique_fd.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Warning;

constexpr const char* kModuleAction = "add";
constexpr const char* kModuleDevpath = "/module/br_netfilter";

result_t ReadText(const std::filesystem::path& file, std::string& text) {
  const tools::UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return oro::ResultFromErrno(errno);
  std::string read;
  char chunk[256];
  for (;;) {
    const ssize_t got = ::read(fd.Get(), chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return oro::ResultFromErrno(errno);
    if (got == 0) break;
    read.append(chunk, static_cast<std::size_t>(got));
  }
  text = std::move(read);
  return oro::errOk;
}

// One write: a switch file takes its value from a single write call.
result_t WriteText(const std::filesystem::path& file, const std::string& text) {
  const tools::UniqueFd fd(::open(file.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!fd) return oro::ResultFromErrno(errno);
  ssize_t written;
  do {
    written = ::write(fd.Get(), text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  if (written < 0) return oro::ResultFromErrno(errno);
  return static_cast<std::size_t>(written) == text.size() ? oro::errOk : oro::ResultFromErrno(EIO);
}

// Client ids are class ids, known in hexadecimal.
std::string Hex(std::uint32_t value) {
  std::ostringstream text;
  text << "0x" << std::hex << value;
  return text.str();
}

// The text with its line ends visible: "1\n" is traced as "1\\n".
std::string Shown(const std::string& text) {
  std::string shown = "\"";
  for (const char c : text) shown += c == '\n' ? std::string("\\n") : std::string(1, c);
  return shown + "\"";
}

}  // namespace

BridgeController::BridgeController(oro::RefPtr<oro::ITracer> tracer, std::filesystem::path switchDirectory,
                                   oro::RefPtr<IUeventsSubscription> uevents,
                                   oro::RefPtr<oro::IStorageNode> savedTexts)
    : m_tracer(std::move(tracer)),
      m_iptablesSwitch(switchDirectory / kIptablesSwitch),
      m_ip6tablesSwitch(switchDirectory / kIp6tablesSwitch),
      m_uevents(std::move(uevents)),
      m_keptTexts(std::move(savedTexts)) {}

void BridgeController::FinalRelease() noexcept {
  tracing::Guarded(m_tracer, "FinalRelease", [&] {
    std::lock_guard calls(m_clientCallsMutex);
    {
      std::lock_guard lock(m_mutex);
      if (!m_nfCallsHistory.empty()) {
        m_tracer.Write(Warning, "Bridge nf calls clients left without deleting their requests: ", HistoryText());
        m_nfCallsHistory.clear();
        RestoreSavedNfCalls();
      }
    }
    FollowUevents(false);
    return oro::errOk;
  });
}

result_t BridgeController::AddBridgeNfCallsClient(std::uint32_t clientId, bool nfCallsValue, bool force) noexcept {
  return tracing::Guarded(m_tracer, "AddBridgeNfCallsClient", [&] {
    m_tracer.Write(Detail, "AddBridgeNfCallsClient", "() ", "clientId=", Hex(clientId), ", nfCallsValue=", nfCallsValue,
                   ", force=", force);
    std::lock_guard calls(m_clientCallsMutex);
    result_t applied;
    {
      std::lock_guard lock(m_mutex);
      const auto it = std::find_if(m_nfCallsHistory.begin(), m_nfCallsHistory.end(),
                                   [&](const NfCallsRequest& request) { return request.clientId == clientId; });
      if (it != m_nfCallsHistory.end()) {
        QEL_TRACE_FAILED_CONDITION(m_tracer, "it == m_nfCallsHistory.end()",
                                   "Bridge nf calls client " + Hex(clientId) + " already has a request");
        return oro::errAlreadyExists;
      }
      m_nfCallsHistory.push_back({clientId, nfCallsValue, force});
      applied = ApplyNfCalls();
    }
    const result_t followed = FollowUevents(true);
    return ORO_FAILED(applied) ? applied : followed;
  });
}

result_t BridgeController::DeleteBridgeNfCallsClient(std::uint32_t clientId) noexcept {
  return tracing::Guarded(m_tracer, "DeleteBridgeNfCallsClient", [&] {
    m_tracer.Write(Detail, "DeleteBridgeNfCallsClient", "() ", "clientId=", Hex(clientId));
    std::lock_guard calls(m_clientCallsMutex);
    result_t applied;
    bool clientsLeft;
    {
      std::lock_guard lock(m_mutex);
      const auto it = std::find_if(m_nfCallsHistory.begin(), m_nfCallsHistory.end(),
                                   [&](const NfCallsRequest& request) { return request.clientId == clientId; });
      if (it == m_nfCallsHistory.end()) {
        QEL_TRACE_FAILED_CONDITION(m_tracer, "it != m_nfCallsHistory.end()",
                                   "Bridge nf calls client " + Hex(clientId) + " has no request");
        return oro::errNotFound;
      }
      m_nfCallsHistory.erase(it);
      applied = ApplyNfCalls();
      clientsLeft = !m_nfCallsHistory.empty();
    }
    FollowUevents(clientsLeft);
    return applied;
  });
}

result_t BridgeController::OnUevent(const Uevent& uevent) noexcept {
  return tracing::Guarded(m_tracer, "OnUevent", [&] {
    if (uevent.action != kModuleAction || uevent.devpath != kModuleDevpath) return oro::errOk;
    m_tracer.Write(Warning, "Bridge netfilter module loaded: applying the bridge nf calls requests");
    std::lock_guard lock(m_mutex);
    // A notification may still arrive after the last client left.
    return m_nfCallsHistory.empty() ? oro::errOk : ApplyNfCalls();
  });
}

// Called with m_mutex held.
result_t BridgeController::ApplyNfCalls() {
  m_tracer.Write(Detail, "m_nfCallsHistory=", HistoryText());
  if (m_nfCallsHistory.empty()) {
    RestoreSavedNfCalls();
    return oro::errOk;
  }
  const bool value = ChooseNfCallsValue();
  const bool firstWrite = m_savedNfCallsIpv4.empty() && m_savedNfCallsIpv6.empty();
  if (firstWrite) AdoptTextsOfKilledRun();
  result_t r = QEL_CHECKED_CALL(m_tracer, SetSysctl(m_iptablesSwitch, value, m_savedNfCallsIpv4),
                                "Cannot set bridge-nf-call-iptables");
  if (ORO_SUCCEEDED(r)) {
    r = QEL_CHECKED_CALL(m_tracer, SetSysctl(m_ip6tablesSwitch, value, m_savedNfCallsIpv6),
                         "Cannot set bridge-nf-call-ip6tables");
  }
  if (firstWrite) KeepSavedTexts();
  return r;
}

// The newest forced request, else the newest one. Called with m_mutex held
// and at least one request.
bool BridgeController::ChooseNfCallsValue() const {
  const auto forced = std::find_if(m_nfCallsHistory.rbegin(), m_nfCallsHistory.rend(),
                                   [](const NfCallsRequest& request) { return request.force; });
  return forced != m_nfCallsHistory.rend() ? forced->nfCallsValue : m_nfCallsHistory.back().nfCallsValue;
}

// Keeps the switch's text before the first write, then writes the value.
result_t BridgeController::SetSysctl(const std::filesystem::path& file, bool value, std::string& saved) {
  if (saved.empty()) {
    std::string current;
    if (const result_t r = ReadText(file, current); ORO_FAILED(r)) {
      m_tracer.Write(tracing::Error, "Cannot read ", file.string(), ": ", tracing::FormatResult(r));
      return r;
    }
    saved = std::move(current);
  }
  const result_t r = WriteText(file, value ? "1\n" : "0\n");
  if (ORO_FAILED(r)) m_tracer.Write(tracing::Error, "Cannot write ", file.string(), ": ", tracing::FormatResult(r));
  return r;
}

result_t BridgeController::ResetSysctl(const std::filesystem::path& file, const std::string& saved) {
  const result_t r = WriteText(file, saved);
  if (ORO_FAILED(r)) {
    m_tracer.Write(tracing::Error, "Cannot write back ", file.string(), ": ", tracing::FormatResult(r));
  }
  return r;
}

// Called with m_mutex held. A switch never written has nothing saved and
// is left alone.
void BridgeController::RestoreSavedNfCalls() {
  m_tracer.Write(Detail, "m_savedNfCallsIpv4=", Shown(m_savedNfCallsIpv4), ", m_savedNfCallsIpv6=",
                 Shown(m_savedNfCallsIpv6));
  if (!m_savedNfCallsIpv4.empty()) {
    QEL_CHECKED_CALL(m_tracer, ResetSysctl(m_iptablesSwitch, m_savedNfCallsIpv4),
                     "Cannot restore bridge-nf-call-iptables");
  }
  if (!m_savedNfCallsIpv6.empty()) {
    QEL_CHECKED_CALL(m_tracer, ResetSysctl(m_ip6tablesSwitch, m_savedNfCallsIpv6),
                     "Cannot restore bridge-nf-call-ip6tables");
  }
  m_savedNfCallsIpv4.clear();
  m_savedNfCallsIpv6.clear();
  ForgetKeptTexts();
}

// A run killed while it held the switches left them with its own value and
// its saved texts in storage: those, not what the switches hold now, are
// what the last client's leaving must bring back. Called with m_mutex held.
void BridgeController::AdoptTextsOfKilledRun() {
  if (!m_keptTexts) return;
  oro::SerValue kept;
  if (ORO_FAILED(m_keptTexts->GetValue(kept))) return;
  const auto* fields = std::get_if<oro::SerValue::Fields>(&kept.value);
  if (!fields) return;
  for (const auto& [name, value] : *fields) {
    const auto* text = std::get_if<std::string>(&value.value);
    if (!text || text->empty()) continue;
    if (name == kIptablesSwitch) m_savedNfCallsIpv4 = *text;
    if (name == kIp6tablesSwitch) m_savedNfCallsIpv6 = *text;
  }
  m_tracer.Write(Warning, "Bridge switches were left set by an earlier run: restoring later to m_savedNfCallsIpv4=",
                 Shown(m_savedNfCallsIpv4), ", m_savedNfCallsIpv6=", Shown(m_savedNfCallsIpv6));
}

// Called with m_mutex held. A failure costs only the crash case: traced.
void BridgeController::KeepSavedTexts() {
  if (!m_keptTexts) return;
  oro::SerValue::Fields fields{{kIptablesSwitch, oro::SerValue{m_savedNfCallsIpv4}},
                               {kIp6tablesSwitch, oro::SerValue{m_savedNfCallsIpv6}}};
  result_t r = m_keptTexts->SetValue(oro::SerValue{std::move(fields)});
  if (ORO_SUCCEEDED(r)) r = m_keptTexts->Flush();
  if (ORO_FAILED(r)) m_tracer.Write(tracing::Error, "Cannot keep the bridge switches' texts: ", tracing::FormatResult(r));
}

void BridgeController::ForgetKeptTexts() {
  if (!m_keptTexts) return;
  result_t r = m_keptTexts->Clear();
  if (ORO_SUCCEEDED(r)) r = m_keptTexts->Flush();
  if (ORO_FAILED(r)) {
    m_tracer.Write(tracing::Error, "Cannot forget the bridge switches' kept texts: ", tracing::FormatResult(r));
  }
}

// Called with m_clientCallsMutex held and m_mutex free: Unsubscribe waits
// for a notification in progress, which takes m_mutex.
result_t BridgeController::FollowUevents(bool follow) {
  if (!m_uevents || follow == m_subscribed) return oro::errOk;
  IUevents* const sink = this;
  if (follow) {
    // Still there when an earlier unsubscribe failed: as good as subscribed.
    const result_t subscribed = m_uevents->Subscribe(sink);
    const result_t r = subscribed == oro::errAlreadyExists ? oro::errOk : subscribed;
    if (ORO_FAILED(r)) {
      QEL_TRACE_FAILED_CALL(m_tracer, "m_uevents->Subscribe(this)", r,
                            "Cannot subscribe to uevents: a later loading of br_netfilter goes unnoticed");
    }
    m_subscribed = ORO_SUCCEEDED(r);
    return r;
  }
  if (const result_t r = m_uevents->Unsubscribe(sink); ORO_FAILED(r)) {
    m_tracer.Write(tracing::Error, "potentially services leak will be, cannot unsubscribe: ", tracing::FormatResult(r));
  }
  m_subscribed = false;
  return oro::errOk;
}

std::string BridgeController::HistoryText() const {
  std::ostringstream text;
  text << '[';
  for (std::size_t i = 0; i < m_nfCallsHistory.size(); ++i) {
    const NfCallsRequest& request = m_nfCallsHistory[i];
    text << (i ? ", " : "") << "{clientId=" << Hex(request.clientId) << ", nfCallsValue=" << request.nfCallsValue
         << ", force=" << request.force << '}';
  }
  text << ']';
  return text.str();
}

}  // namespace qel::firewall
