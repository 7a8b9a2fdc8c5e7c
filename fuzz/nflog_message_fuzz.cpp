// Arbitrary bytes as a datagram from the NFLOG socket: through the netlink
// parser and the listener's handling of each message (group, numbering,
// counts) into the firewall task's packet handler. Nothing may crash, read out of bounds or
// miscount, whatever the kernel, or something posing as it, sends.
#include <libmnl/libmnl.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <variant>

#include "firewall/firewall_rule_logger.h"
#include "firewall/nflog_message_handler.h"
#include "qel_common/mnl_parser.h"
#include "qel_common/object_impl.h"

namespace {

using namespace qel::firewall;

// Takes every level, so that the buffer dumps are built too.
class DiscardingTracer final : public qel::ObjectImpl<DiscardingTracer, oro::ITracer> {
 public:
  bool IsEnabled(std::uint32_t) noexcept override { return true; }
  void Trace(std::uint32_t, const char* text) noexcept override { m_sink += std::strlen(text); }

 private:
  std::size_t m_sink = 0;
};

// Publishes nowhere, but reads every property, so that a value built from
// bytes outside the buffer shows.
class DiscardingPublisher final : public qel::ObjectImpl<DiscardingPublisher, oro::IEventPublisher> {
 public:
  oro::result_t PublishEvent(oro::Event&& event) noexcept override {
    for (const auto& [name, value] : event.properties) {
      m_sink += name.size() + (std::holds_alternative<std::string>(value) ? std::get<std::string>(value).size() : 1);
    }
    return oro::errOk;
  }

 private:
  std::size_t m_sink = 0;
};

class Locator final : public qel::ObjectImpl<Locator, oro::IServiceLocator> {
 public:
  Locator(oro::ITracer* tracer, oro::IEventPublisher* publisher) : m_tracer(tracer), m_publisher(publisher) {}
  oro::result_t GetInterface(oro::iid_t iid, void** out) noexcept override {
    oro::IObject* object = iid == oro::ITracer::iid           ? static_cast<oro::IObject*>(m_tracer)
                           : iid == oro::IEventPublisher::iid ? static_cast<oro::IObject*>(m_publisher)
                                                              : nullptr;
    if (!object) return oro::errNoInterface;
    return object->QueryInterface(iid, out);
  }

 private:
  oro::ITracer* m_tracer;
  oro::IEventPublisher* m_publisher;
};

// The logger is driven here by hand, so its own listener never runs.
class IdleListener final : public qel::ObjectImpl<IdleListener, INflogListener> {
 public:
  oro::result_t Start(const NflogGroupList&) noexcept override { return oro::errOk; }
  oro::result_t Stop() noexcept override { return oro::errOk; }
};

class IdleListenerFactory final : public qel::ObjectImpl<IdleListenerFactory, INflogListenerFactory> {
 public:
  oro::result_t Create(INflogDataCallback*, INflogListener** out) noexcept override {
    *out = oro::RefPtr<IdleListener>::Adopt(new IdleListener).Detach();
    return oro::errOk;
  }
};

std::uint64_t g_handled = 0;

// The packet handler under test: the firewall task's rule logger, turning
// each logged packet into a network-activity event.
FirewallRuleLogger& Logger(oro::ITracer* tracer) {
  static std::unique_ptr<FirewallRuleLogger> logger = [tracer] {
    static auto* publisher = new DiscardingPublisher;
    static auto* locator = new Locator(tracer, publisher);
    std::unique_ptr<FirewallRuleLogger> created;
    const auto factory = oro::RefPtr<INflogListenerFactory>::Adopt(new IdleListenerFactory);
    if (ORO_FAILED(FirewallRuleLogger::Create(locator, factory, created))) {
      std::abort();
    }
    return created;
  }();
  return *logger;
}

FirewallRuleLogger* g_logger = nullptr;

bool HandlePacket(std::uint16_t group, NflogAttributes attributes) {
  ++g_handled;
  return g_logger->HandleNflogData(group, attributes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static DiscardingTracer* tracer = new DiscardingTracer;
  static const qel::tracing::Tracer traced(oro::RefPtr<oro::ITracer>::Share(tracer));
  static const NflogGroupList groups{10001, 10002, 10003, 10002};

  g_logger = &Logger(tracer);
  g_handled = 0;
  NflogMessageHandler handler(traced, groups, &HandlePacket);
  const qel::tools::MnlParser parser(
      tracer,
      [&handler](const nlmsghdr* message, qel::tools::MnlParser::AttributeTable attributes) {
        return handler.OnMessage(message, attributes);
      },
      NflogHighestAttribute, nullptr);
  parser.Parse(data, size, 0, 0);
  handler.FlushLossTrace();

  // Every delivery to a listed group is counted once, in its first place.
  const NflogCounts counts = handler.Counts();
  std::uint64_t delivered = 0;
  for (const auto& group : counts.groups) delivered += group.delivered;
  if (counts.groups.size() != groups.size() || counts.groups[3].delivered != 0 || delivered > g_handled) std::abort();
  return 0;
}
