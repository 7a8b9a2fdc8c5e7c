// A fake NFLOG listener and its factory, and logged packets built as the
// kernel lays them out, for testing the listener's client.
#pragma once

#include <arpa/inet.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <linux/netlink.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "firewall/packet_log_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

// The attributes of one logged packet in one buffer, each attribute padded
// as in a netlink message, and their table as the listener hands it over.
class NflogPacket {
 public:
  // Hook 1 is INPUT, 3 OUTPUT; the prefix goes out with its terminating NUL.
  NflogPacket(std::uint8_t hook, const std::string& prefix, const std::vector<std::uint8_t>& payload) {
    nfulnl_msg_packet_hdr header{htons(0x0800), hook, 0};
    Set(NFULA_PACKET_HDR, &header, sizeof header);
    Set(NFULA_PREFIX, prefix.c_str(), prefix.size() + 1);
    Set(NFULA_PAYLOAD, payload.data(), payload.size());
  }

  // Replaces (or adds) an attribute with these bytes.
  NflogPacket& Set(int type, const void* data, std::size_t size) {
    Attribute& a = m_attributes[static_cast<std::size_t>(type)];
    a.assign(NLA_ALIGN(NLA_HDRLEN + size), 0);
    const nlattr header{static_cast<std::uint16_t>(NLA_HDRLEN + size), static_cast<std::uint16_t>(type)};
    std::memcpy(a.data(), &header, sizeof header);
    if (size) std::memcpy(a.data() + NLA_HDRLEN, data, size);
    return *this;
  }
  NflogPacket& Remove(int type) {
    m_attributes[static_cast<std::size_t>(type)].clear();
    return *this;
  }

  // Valid until the packet changes or goes.
  firewall::NflogAttributes Table() {
    m_table.fill(nullptr);
    for (std::size_t type = 0; type < m_attributes.size(); ++type) {
      if (!m_attributes[type].empty()) m_table[type] = reinterpret_cast<const nlattr*>(m_attributes[type].data());
    }
    return m_table.data();
  }

 private:
  // 4-byte aligned, as attributes are in a receive buffer.
  using Attribute = std::vector<std::uint8_t>;
  std::array<Attribute, firewall::NflogHighestAttribute + 1> m_attributes;
  std::array<const nlattr*, firewall::NflogHighestAttribute + 1> m_table{};
};

class FakeNflogListener final
    : public ObjectImpl<FakeNflogListener, firewall::INflogListener, firewall::INflogCounters> {
 public:
  explicit FakeNflogListener(firewall::INflogDataCallback* callback)
      : m_callback(oro::RefPtr<firewall::INflogDataCallback>::Share(callback)) {}

  oro::result_t Start(const firewall::NflogGroupList& groups) noexcept override {
    calls.push_back("Start(" + std::to_string(groups.size()) + ")");
    if (started) return oro::errInvalidState;
    started = true;
    this->groups = groups;
    return oro::errOk;
  }
  oro::result_t Stop() noexcept override {
    calls.push_back("Stop");
    started = false;
    return oro::errOk;
  }
  oro::result_t GetNflogCounts(firewall::NflogCounts& out) noexcept override {
    out = counts;
    return oro::errOk;
  }

  // Hands a packet to the client, as the listener's thread does.
  bool Deliver(std::uint16_t group, NflogPacket& packet) { return m_callback->OnNflogData(group, packet.Table()); }

  std::vector<std::string> calls;
  firewall::NflogGroupList groups;
  firewall::NflogCounts counts;
  bool started = false;

 private:
  oro::RefPtr<firewall::INflogDataCallback> m_callback;
};

// Keeps the listeners it makes so the test can drive them.
class FakeNflogListenerFactory final : public ObjectImpl<FakeNflogListenerFactory, firewall::INflogListenerFactory> {
 public:
  oro::result_t Create(firewall::INflogDataCallback* callback, firewall::INflogListener** out) noexcept override {
    if (failCreate) return failCreate;
    auto listener = oro::RefPtr<FakeNflogListener>::Adopt(new FakeNflogListener(callback));
    listeners.push_back(listener);
    *out = oro::RefPtr<FakeNflogListener>(listener).Detach();
    return oro::errOk;
  }

  std::vector<oro::RefPtr<FakeNflogListener>> listeners;
  oro::result_t failCreate = oro::errOk;
};

}  // namespace qel::test
