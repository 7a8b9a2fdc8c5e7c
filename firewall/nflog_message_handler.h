// What the NFLOG listener does with each message it parsed: find the group,
// count the message and the packets its group's numbering says were lost
// before it, and hand the packet to the client.
//
// Counting losses: the kernel numbers each group's messages (NFULA_SEQ, when
// the group is configured with NFULNL_CFG_F_SEQ) before it tries to queue
// them, so a message it drops because the socket is full leaves a gap. A
// gap is seen only when the group's next message arrives: packets lost at
// the very end of a burst show up in the counts once that group logs again.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "firewall/nflog_loss_trace.h"
#include "firewall/packet_log_interfaces.h"
#include "qel_common/mnl_parser.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NflogMessageHandler {
 public:
  // Where a logged packet leaves the listener: the client's callback.
  using DataCallback = std::function<bool(std::uint16_t group, NflogAttributes attributes)>;

  NflogMessageHandler(const tracing::Tracer& tracer, const NflogGroupList& groups, DataCallback callback);

  // The parser's message callback (its table must reach NflogHighestAttribute).
  // Messages other than logged packets are passed over. Always goes on.
  int OnMessage(const nlmsghdr* message, tools::MnlParser::AttributeTable attributes);
  // A receive failed because the socket's buffer had overflowed.
  void OnOverrun();
  // Traces losses held back by the once-a-second limit.
  void FlushLossTrace() { m_lossTrace.Flush(); }

  // Safe from any thread while another one handles messages: the group
  // table is fixed at construction and only its numbers change, each an
  // atomic written by the handling thread alone.
  NflogCounts Counts() const;

 private:
  struct GroupSlot {
    std::uint16_t group = 0;
    std::atomic<std::uint64_t> delivered = 0;
    std::atomic<std::uint64_t> lost = 0;
    // The handling thread's own: the number the group's next message
    // should carry, once one has been seen.
    bool numbered = false;
    std::uint32_t expected = 0;
  };

  GroupSlot* Slot(std::uint16_t group);
  // How many messages the numbering skipped before `sequence`.
  static std::uint64_t Gap(GroupSlot& slot, std::uint32_t sequence);
  void CountLoss(std::uint64_t lost, std::uint64_t overruns);

  DataCallback m_callback;
  std::unique_ptr<GroupSlot[]> m_slots;  // in group-list order
  std::size_t m_slotCount;
  std::vector<std::pair<std::uint16_t, GroupSlot*>> m_byGroup;  // sorted, for the look-up
  std::atomic<std::uint64_t> m_overruns = 0;
  NflogLossTrace m_lossTrace;
};

}  // namespace qel::firewall
