// The NFLOG listener's client for tests: writes down each logged packet in
// a line of text, and can be told to hold the listener's thread, as a slow
// client would.
#pragma once

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "firewall/packet_log_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeNflogCallback final : public ObjectImpl<FakeNflogCallback, firewall::INflogDataCallback> {
 public:
  bool OnNflogData(std::uint16_t group, firewall::NflogAttributes attributes) noexcept override {
    std::unique_lock lock(m_mutex);
    m_released.wait(lock, [&] { return !m_holding; });
    m_packets.push_back(Describe(group, attributes));
    m_changed.notify_all();
    return true;
  }

  // "10001 hook 1 Block v4 proto 17 payload 60 numbered": the group, the
  // netfilter hook, the prefix, the IP version and protocol of the payload,
  // its length, and whether the kernel numbered the message.
  static std::string Describe(std::uint16_t group, firewall::NflogAttributes attributes) {
    std::string text = std::to_string(group);
    if (const nlattr* header = attributes[NFULA_PACKET_HDR]) {
      nfulnl_msg_packet_hdr packet;
      std::memcpy(&packet, mnl_attr_get_payload(header), sizeof packet);
      text += " hook " + std::to_string(packet.hook);
    }
    if (const nlattr* prefix = attributes[NFULA_PREFIX]) text += std::string(" ") + mnl_attr_get_str(prefix);
    if (const nlattr* payload = attributes[NFULA_PAYLOAD]) {
      const auto* bytes = static_cast<const std::uint8_t*>(mnl_attr_get_payload(payload));
      const unsigned version = bytes[0] >> 4;
      text += " v" + std::to_string(version) + " proto " + std::to_string(version == 6 ? bytes[6] : bytes[9]);
      text += " payload " + std::to_string(mnl_attr_get_payload_len(payload));
    }
    if (attributes[NFULA_SEQ]) text += " numbered";
    return text;
  }

  // Until Let, the listener's thread waits in its next call.
  void Hold() {
    std::lock_guard lock(m_mutex);
    m_holding = true;
  }
  void Let() {
    std::lock_guard lock(m_mutex);
    m_holding = false;
    m_released.notify_all();
  }

  // Whether `count` packets came within `limit`.
  bool WaitFor(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(3)) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] { return m_packets.size() >= count; });
  }

  std::vector<std::string> Packets() {
    std::lock_guard lock(m_mutex);
    return m_packets;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed, m_released;
  bool m_holding = false;
  std::vector<std::string> m_packets;
};

}  // namespace qel::test
