// Arbitrary bytes as a datagram from the NFLOG socket: through the netlink
// parser and the listener's handling of each message (group, numbering,
// counts) into the packet handler. Nothing may crash, read out of bounds or
// miscount, whatever the kernel, or something posing as it, sends.
#include <libmnl/libmnl.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

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

std::uint64_t g_handled = 0;

// The packet handler under test: what the listener's client does with each
// logged packet. Reads every attribute the parser handed over, so that a
// pointer outside the buffer shows.
bool HandlePacket(std::uint16_t group, NflogAttributes attributes) {
  ++g_handled;
  unsigned sum = group;
  for (std::size_t type = 0; type <= NflogHighestAttribute; ++type) {
    const nlattr* attribute = attributes[type];
    if (!attribute) continue;
    const auto* bytes = static_cast<const std::uint8_t*>(mnl_attr_get_payload(attribute));
    for (std::uint16_t i = 0; i < mnl_attr_get_payload_len(attribute); ++i) sum += bytes[i];
  }
  return sum != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static DiscardingTracer* tracer = new DiscardingTracer;
  static const qel::tracing::Tracer traced(oro::RefPtr<oro::ITracer>::Share(tracer));
  static const NflogGroupList groups{10001, 10002, 10003, 10002};

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
