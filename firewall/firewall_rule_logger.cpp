#include "firewall/firewall_rule_logger.h"

#include <linux/netfilter/nfnetlink_log.h>
#include <linux/netlink.h>

#include <cstring>
#include <mutex>
#include <span>
#include <string_view>

#include "qel_common/object_impl.h"
#include "qel_common/service_locator.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Warning;

constexpr std::uint8_t kHookLocalIn = 1;   // chain INPUT
constexpr std::uint8_t kHookLocalOut = 3;  // chain OUTPUT

// A rejected packet is news, not an error of the module: whatever the
// kernel or a foreign rule sends to our groups must not flood the error
// trace. Same assertion form as QEL_TRACE_FAILED_CONDITION, one level down.
#define TRACE_REJECTED(condition_text, message) \
  m_tracer.Write(Warning, tracing::FormatFailedCondition(QEL_UNIT, __LINE__, (condition_text), (message)))

// The payload of an attribute as bytes, or empty when the attribute is
// absent. The listener's parser has checked that each attribute lies within
// its message; its declared length is checked again here so that a table
// built by anyone else cannot make us read past it.
std::optional<std::span<const std::uint8_t>> AttributePayload(NflogAttributes attrs, int type) {
  const nlattr* attr = attrs[type];
  if (!attr || attr->nla_len < NLA_HDRLEN) return std::nullopt;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(attr) + NLA_HDRLEN;
  return std::span<const std::uint8_t>(bytes, attr->nla_len - NLA_HDRLEN);
}

// Copies a fixed-size attribute; false when it is absent or of another size
// (the copy, rather than a cast, because the attribute need not be aligned
// for T).
template <class T>
bool GetNflogAttribute(NflogAttributes attrs, int type, T& storage) {
  const auto payload = AttributePayload(attrs, type);
  if (!payload || payload->size() < sizeof(T)) return false;
  std::memcpy(&storage, payload->data(), sizeof(T));
  return true;
}

// The NUL-terminated text of an attribute; false when it is absent or not
// terminated within its payload.
bool GetNflogAttribute(NflogAttributes attrs, int type, std::string_view& text) {
  const auto payload = AttributePayload(attrs, type);
  if (!payload) return false;
  const void* end = std::memchr(payload->data(), '\0', payload->size());
  if (!end) return false;
  text = std::string_view(reinterpret_cast<const char*>(payload->data()),
                          static_cast<const std::uint8_t*>(end) - payload->data());
  return true;
}

bool GetNflogAttribute(NflogAttributes attrs, int type, std::span<const std::uint8_t>& bytes) {
  const auto payload = AttributePayload(attrs, type);
  if (!payload) return false;
  bytes = *payload;
  return true;
}

std::optional<PacketRuleAction> ActionOfPrefix(std::string_view prefix) {
  for (const auto action : {PacketRuleAction::Allow, PacketRuleAction::Block}) {
    if (prefix == settings::EnumToString(action)) return action;
  }
  return std::nullopt;
}

}  // namespace

// The listener's reference to the logger. The listener holds it by
// reference count, so it may outlive the logger; the logger detaches it
// before it goes, waiting for a call in progress.
class FirewallRuleLogger::DataCallback final : public ObjectImpl<DataCallback, INflogDataCallback> {
 public:
  explicit DataCallback(FirewallRuleLogger* logger) : m_logger(logger) {}

  bool OnNflogData(std::uint16_t group, NflogAttributes attributes) noexcept override {
    try {
      std::lock_guard lock(m_mutex);
      return m_logger && m_logger->HandleNflogData(group, attributes);
    } catch (...) {
      return false;  // nothing may reach the listener's thread
    }
  }

  void Detach() {
    std::lock_guard lock(m_mutex);
    m_logger = nullptr;
  }

 private:
  std::mutex m_mutex;  // uncontended but for Detach: one listener thread calls
  FirewallRuleLogger* m_logger;
};

FirewallRuleLogger::FirewallRuleLogger(tracing::Tracer tracer, oro::RefPtr<oro::IEventPublisher> publisher)
    : m_tracer(std::move(tracer)), m_publisher(std::move(publisher)) {}

result_t FirewallRuleLogger::Create(oro::IServiceLocator* locator, oro::RefPtr<INflogListenerFactory> listenerFactory,
                                    std::unique_ptr<FirewallRuleLogger>& out) {
  result_t ignored;
  tracing::Tracer tracer(TryGetInterface<oro::ITracer>(locator, ignored));
  oro::RefPtr<oro::IEventPublisher> publisher;
  result_t r = Locate(locator, tracer, "IEventPublisher", publisher);
  if (ORO_FAILED(r)) return r;
  if (!listenerFactory) {
    QEL_TRACE_FAILED_CONDITION(tracer, "listenerFactory", "NFLOG listener factory is nullptr");
    return oro::errInvalidArgument;
  }
  std::unique_ptr<FirewallRuleLogger> logger(new FirewallRuleLogger(std::move(tracer), std::move(publisher)));
  logger->m_callback = oro::RefPtr<DataCallback>::Adopt(new DataCallback(logger.get()));
  r = QEL_CHECKED_CALL(logger->m_tracer, listenerFactory->Create(logger->m_callback.Get(), logger->m_listener.Out()),
                       "Cannot create NFLOG listener");
  if (ORO_FAILED(r)) return r;
  out = std::move(logger);
  return oro::errOk;
}

FirewallRuleLogger::~FirewallRuleLogger() {
  if (m_listener) QEL_CHECKED_CALL(m_tracer, m_listener->Stop(), "Cannot stop NFLOG listener");
  m_listener.Reset();
  if (m_callback) m_callback->Detach();
}

result_t FirewallRuleLogger::Start(const NflogGroupList& groups) {
  if (m_tracer.Enabled(Detail)) {
    std::string list;
    for (const std::uint16_t group : groups) list += (list.empty() ? "" : ",") + std::to_string(group);
    m_tracer.Write(Detail, "Start", "() ", "logGroups=", list);
  }
  return QEL_CHECKED_CALL(m_tracer, m_listener->Start(groups), "Cannot start NFLOG listener");
}

result_t FirewallRuleLogger::Stop() {
  m_tracer.Write(Detail, "Stop", "() ");
  return QEL_CHECKED_CALL(m_tracer, m_listener->Stop(), "Cannot stop NFLOG listener");
}

NflogCounts FirewallRuleLogger::GetCounts() const {
  NflogCounts counts;
  const auto counters = oro::QueryInterface<INflogCounters>(m_listener.Get());
  if (!counters || ORO_FAILED(counters->GetNflogCounts(counts))) return {};
  return counts;
}

bool FirewallRuleLogger::HandleNflogData(std::uint16_t nflogGroup, NflogAttributes nflogAttrs) {
  m_tracer.Write(Detail, "HandleNflogData", "() ", "nflogGroup=", nflogGroup);
  if (nflogGroup < MinNflogGroup) {
    TRACE_REJECTED("nflogGroup >= MinNflogGroup", "Unexpected nflog group " + std::to_string(nflogGroup));
    return false;
  }
  nfulnl_msg_packet_hdr packetHdrStorage{};
  if (!GetNflogAttribute(nflogAttrs, NFULA_PACKET_HDR, packetHdrStorage)) {
    TRACE_REJECTED("GetNflogAttribute(nflogAttrs, NFULA_PACKET_HDR, packetHdrStorage)",
                   "No NFULA_PACKET_HDR attribute found");
    return false;
  }
  std::string_view prefix;
  if (!GetNflogAttribute(nflogAttrs, NFULA_PREFIX, prefix)) {
    TRACE_REJECTED("GetNflogAttribute(nflogAttrs, NFULA_PREFIX, prefix)", "No NFULA_PREFIX attribute found");
    return false;
  }
  std::span<const std::uint8_t> payload;
  if (!GetNflogAttribute(nflogAttrs, NFULA_PAYLOAD, payload)) {
    TRACE_REJECTED("GetNflogAttribute(nflogAttrs, NFULA_PAYLOAD, payload)", "No NFULA_PAYLOAD attribute found");
    return false;
  }
  m_tracer.Write(Detail, "NFLOG:", " group ", nflogGroup, " hook ", static_cast<unsigned>(packetHdrStorage.hook),
                 " prefix ", prefix, " payload_len ", payload.size());

  PacketDirection direction;
  if (packetHdrStorage.hook == kHookLocalIn) {
    direction = PacketDirection::Incoming;
  } else if (packetHdrStorage.hook == kHookLocalOut) {
    direction = PacketDirection::Outgoing;
  } else {
    TRACE_REJECTED("false", "Messages is from neither INPUT nor OUTPUT chain");
    return false;
  }
  const auto action = ActionOfPrefix(prefix);
  if (!action) {
    m_tracer.Write(Warning, "Urecognized message prefix: ", prefix);
    return false;
  }
  const auto activity = ParseNetworkActivity(payload, direction);
  const result_t r = PublishNetworkActivityEvent(*action, direction, activity, nflogGroup - MinNflogGroup);
  if (ORO_FAILED(r)) {
    m_tracer.Write(Warning, tracing::FormatFailedCall(QEL_UNIT, __LINE__, "PublishNetworkActivityEvent(...)", r,
                                                      "Cannot publish network activity event"));
    return false;
  }
  return true;
}

// A packet whose addresses cannot be read is published all the same, with
// ipVersion 0 and no address or port fields: that a rule blocked or let
// through something is worth knowing even when the logged bytes are odd.
result_t FirewallRuleLogger::PublishNetworkActivityEvent(PacketRuleAction action, PacketDirection direction,
                                                         const ActivityOrFailure& activity, std::uint32_t ruleIndex) {
  oro::Event event;
  event.kind = action == PacketRuleAction::Allow ? "NetworkActivityAllowed" : "NetworkActivityBlocked";
  event.Add("direction", std::string(DirectionName(direction)));
  if (const auto* failure = std::get_if<ActivityParseFailure>(&activity)) {
    m_tracer.Write(Warning, "Logged packet without addresses: ", failure->reason);
    event.Add("ipVersion", std::int64_t{0});
    event.Add("payloadLength", static_cast<std::int64_t>(failure->payloadLength));
  } else {
    const auto& known = std::get<NetworkActivity>(activity);
    event.Add("ipVersion", std::int64_t{known.ipVersion});
    event.Add("protocol", std::int64_t{known.protocol});
    event.Add("localAddress", known.localAddress);
    if (known.localPort) event.Add("localPort", std::int64_t{*known.localPort});
    event.Add("remoteAddress", known.remoteAddress);
    if (known.remotePort) event.Add("remotePort", std::int64_t{*known.remotePort});
    event.Add("payloadLength", static_cast<std::int64_t>(known.payloadLength));
  }
  event.Add("ruleIndex", std::int64_t{ruleIndex});
  return m_publisher->PublishEvent(std::move(event));
}

}  // namespace qel::firewall
