// The isolation classifier's policy maps in memory: applies policy writes as
// strictly as the kernel would (no insert over an entry, no update or remove
// of a missing one, and the value replaced must be the one the write expects)
// and looks packets up the way the classifier does.
#pragma once

#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "firewall/ebpf/isolation_policy_book.h"

namespace qel::test {

class FakePolicyMaps {
 public:
  using Bytes = std::vector<std::uint8_t>;
  using PolicyMap = firewall::ebpf::PolicyMap;
  using PolicyWrite = firewall::ebpf::PolicyWrite;

  // Applies the writes in order; stops at the first that the kernel would
  // refuse and returns its index, or none when all applied.
  std::optional<std::size_t> Apply(const firewall::ebpf::PolicyWrites& writes) {
    for (std::size_t i = 0; i < writes.size(); ++i)
      if (!Apply(writes[i])) return i;
    return std::nullopt;
  }

  bool Apply(const PolicyWrite& write) {
    auto& map = m_maps[write.map];
    auto it = map.find(write.key);
    switch (write.kind) {
      case PolicyWrite::Kind::Insert:
        if (it != map.end()) return false;
        map.emplace(write.key, write.value);
        return true;
      case PolicyWrite::Kind::Update:
        if (it == map.end() || it->second != write.previous) return false;
        it->second = write.value;
        return true;
      case PolicyWrite::Kind::Remove:
        if (it == map.end() || it->second != write.previous) return false;
        map.erase(it);
        return true;
    }
    return false;
  }

  const std::map<Bytes, Bytes>& Map(PolicyMap map) { return m_maps[map]; }
  bool Empty() const {
    for (const auto& [map, entries] : m_maps)
      if (!entries.empty()) return false;
    return true;
  }
  bool operator==(const FakePolicyMaps& other) const { return Content() == other.Content(); }

  template <class Value, class Key>
  std::optional<Value> Lookup(PolicyMap map, const Key& key) {
    auto& entries = m_maps[map];
    auto it = entries.find(Raw(key));
    if (it == entries.end()) return std::nullopt;
    Value value{};
    std::memcpy(&value, it->second.data(), sizeof(Value));
    return value;
  }

  // The ports entry the classifier's longest-prefix look-up finds.
  std::optional<firewall::ebpf::IsolationPortsValue> FindPort(std::uint32_t id, std::uint16_t port) {
    for (unsigned hostBits = 0; hostBits <= 16; ++hostBits) {
      const std::uint16_t first = static_cast<std::uint16_t>(port & ~((1u << hostBits) - 1));
      const firewall::ebpf::IsolationPortsKey key{64 - hostBits, id, htonl(first)};
      if (auto value = Lookup<firewall::ebpf::IsolationPortsValue>(PolicyMap::PortsStep2And4, key)) return value;
    }
    return std::nullopt;
  }

  // Whether steps 1 to 4 pass a TCP (bit kIsolationPortTcp) or UDP packet
  // with these ends; the remote address given as its trie key.
  bool PortsPass(const firewall::ebpf::IsolationAddressKey& remote, std::uint8_t bit, std::uint16_t remotePort,
                 std::uint16_t localPort) {
    for (auto [map, key] : {std::pair{PolicyMap::RemoteStep1, remote},
                            std::pair{PolicyMap::LocalStep3, firewall::ebpf::IsolationAddressKey{}}}) {
      auto address = Lookup<firewall::ebpf::IsolationAddressValue>(map, key);
      if (!address) continue;
      auto entry = FindPort(address->ipId, remotePort);
      if (!entry) continue;
      if (entry->passPorts & bit) return true;
      if (!(entry->chainPorts & bit)) continue;
      auto local = FindPort(entry->localChainId, localPort);
      if (local && (local->passPorts & bit)) return true;
    }
    return false;
  }

 private:
  template <class T>
  static Bytes Raw(const T& value) {
    Bytes bytes(sizeof(T));
    std::memcpy(bytes.data(), &value, sizeof(T));
    return bytes;
  }
  std::map<PolicyMap, std::map<Bytes, Bytes>> Content() const {
    std::map<PolicyMap, std::map<Bytes, Bytes>> content;
    for (const auto& [map, entries] : m_maps)
      if (!entries.empty()) content[map] = entries;
    return content;
  }

  std::map<PolicyMap, std::map<Bytes, Bytes>> m_maps;
};

}  // namespace qel::test
