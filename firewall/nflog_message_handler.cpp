#include "firewall/nflog_message_handler.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <algorithm>
#include <cstring>

namespace qel::firewall {
namespace {

constexpr std::uint16_t kPacketMessage = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET;
// Numbers further back than this are a restarted numbering, not a gap.
constexpr std::uint32_t kLargestGap = 0x7fffffff;

bool IsLoggedPacket(const nlmsghdr* message, tools::MnlParser::AttributeTable attributes) {
  return message->nlmsg_type == kPacketMessage && mnl_nlmsg_get_payload_len(message) >= sizeof(nfgenmsg) &&
         attributes.size() > NflogHighestAttribute;
}

std::uint16_t GroupOf(const nlmsghdr* message) {
  nfgenmsg header;
  std::memcpy(&header, mnl_nlmsg_get_payload(message), sizeof header);
  return ntohs(header.res_id);
}

}  // namespace

NflogMessageHandler::NflogMessageHandler(const tracing::Tracer& tracer, const NflogGroupList& groups,
                                         DataCallback callback)
    : m_callback(std::move(callback)),
      m_slots(new GroupSlot[groups.size()]),
      m_slotCount(groups.size()),
      m_lossTrace(tracer) {
  for (std::size_t i = 0; i < groups.size(); ++i) {
    m_slots[i].group = groups[i];
    m_byGroup.emplace_back(groups[i], &m_slots[i]);
  }
  // A group listed twice counts in its first place.
  std::stable_sort(m_byGroup.begin(), m_byGroup.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
}

int NflogMessageHandler::OnMessage(const nlmsghdr* message, tools::MnlParser::AttributeTable attributes) {
  if (!IsLoggedPacket(message, attributes)) return MNL_CB_OK;
  const std::uint16_t group = GroupOf(message);
  GroupSlot* slot = Slot(group);
  const nlattr* sequence = attributes[NFULA_SEQ];
  if (slot && sequence && mnl_attr_get_payload_len(sequence) >= sizeof(std::uint32_t)) {
    std::uint32_t number;
    std::memcpy(&number, mnl_attr_get_payload(sequence), sizeof number);
    if (const std::uint64_t lost = Gap(*slot, ntohl(number)); lost != 0) CountLoss(lost, 0);
  }
  m_callback(group, attributes.data());
  if (slot) slot->delivered.fetch_add(1, std::memory_order_relaxed);
  m_lossTrace.Tick(NflogLossTrace::Clock::now());
  return MNL_CB_OK;
}

void NflogMessageHandler::OnOverrun() {
  m_overruns.fetch_add(1, std::memory_order_relaxed);
  CountLoss(0, 1);
}

NflogCounts NflogMessageHandler::Counts() const {
  NflogCounts counts;
  counts.groups.reserve(m_slotCount);
  for (std::size_t i = 0; i < m_slotCount; ++i) {
    const GroupSlot& slot = m_slots[i];
    counts.groups.push_back(
        {slot.group, slot.delivered.load(std::memory_order_relaxed), slot.lost.load(std::memory_order_relaxed)});
  }
  counts.overruns = m_overruns.load(std::memory_order_relaxed);
  return counts;
}

NflogMessageHandler::GroupSlot* NflogMessageHandler::Slot(std::uint16_t group) {
  const auto it = std::lower_bound(m_byGroup.begin(), m_byGroup.end(), group,
                                   [](const auto& entry, std::uint16_t value) { return entry.first < value; });
  return it != m_byGroup.end() && it->first == group ? it->second : nullptr;
}

std::uint64_t NflogMessageHandler::Gap(GroupSlot& slot, std::uint32_t sequence) {
  const std::uint32_t skipped = sequence - slot.expected;  // modulo 2^32: the numbering wraps
  const bool counted = slot.numbered && skipped <= kLargestGap;
  slot.numbered = true;
  slot.expected = sequence + 1;
  if (counted && skipped != 0) {
    slot.lost.fetch_add(skipped, std::memory_order_relaxed);
    return skipped;
  }
  return 0;
}

void NflogMessageHandler::CountLoss(std::uint64_t lost, std::uint64_t overruns) {
  m_lossTrace.Add(lost, overruns, NflogLossTrace::Clock::now());
}

}  // namespace qel::firewall
