#include "firewall/ebpf/isolation_policy_book.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace qel::firewall::ebpf {

namespace {

template <class T>
std::vector<std::uint8_t> Bytes(const T& value) {
  std::vector<std::uint8_t> bytes(sizeof(T));
  std::memcpy(bytes.data(), &value, sizeof(T));
  return bytes;
}

// One port range with what it contributes over it.
struct PortSpan {
  std::uint32_t first;
  std::uint32_t last;
  std::uint8_t passPorts;
  std::uint8_t chainPorts;
  std::tuple<std::uint16_t, std::uint16_t, std::uint8_t> local;
};

// The spans' ranges cut where any of them starts or ends, so that every
// piece is covered by the same spans throughout; calls `piece(first, last,
// covering)` for each covered piece in ascending order.
template <class Piece>
void ForEachPiece(const std::vector<PortSpan>& spans, Piece piece) {
  std::vector<std::uint32_t> cuts;
  for (const auto& span : spans) {
    cuts.push_back(span.first);
    cuts.push_back(span.last + 1);
  }
  std::sort(cuts.begin(), cuts.end());
  cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
  for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
    const std::uint32_t first = cuts[i];
    const std::uint32_t last = cuts[i + 1] - 1;
    std::vector<const PortSpan*> covering;
    for (const auto& span : spans)
      if (span.first <= first && last <= span.last) covering.push_back(&span);
    if (!covering.empty()) piece(first, last, covering);
  }
}

bool SameValue(const IsolationPortsValue& a, const IsolationPortsValue& b) {
  return a.localChainId == b.localChainId && a.refCount == b.refCount && a.passPorts == b.passPorts &&
         a.chainPorts == b.chainPorts;
}

// Neighbouring pieces with one value become one range before it is split
// into blocks, so that a range never costs more entries than it needs.
struct PortRun {
  std::uint32_t first;
  std::uint32_t last;
  IsolationPortsValue value;
};

void AppendRun(std::vector<PortRun>& runs, std::uint32_t first, std::uint32_t last, const IsolationPortsValue& value) {
  if (!runs.empty() && runs.back().last + 1 == first && SameValue(runs.back().value, value))
    runs.back().last = last;
  else
    runs.push_back({first, last, value});
}

void EmitRuns(std::uint32_t id, const std::vector<PortRun>& runs,
              std::map<std::pair<PolicyMap, std::vector<std::uint8_t>>, std::vector<std::uint8_t>>& image) {
  for (const auto& run : runs) {
    const tools::PortRange range{static_cast<std::uint16_t>(run.first), static_cast<std::uint16_t>(run.last)};
    for (const auto& block : PortBlocks(range))
      image[{PolicyMap::PortsStep2And4, Bytes(PortsKey(id, block))}] = Bytes(run.value);
  }
}

std::uint16_t RefCount16(std::size_t count) {
  return static_cast<std::uint16_t>(std::min<std::size_t>(count, std::numeric_limits<std::uint16_t>::max()));
}

// Entries something points to go in first and come out last: ports, then
// applications, then addresses; removals the other way round.
int WriteRank(const PolicyWrite& write) {
  const int inward = write.map == PolicyMap::PortsStep2And4 ? 0 : write.map == PolicyMap::AppStep0 ? 1 : 2;
  return write.kind == PolicyWrite::Kind::Remove ? 5 - inward : inward;
}

}  // namespace

IsolationPolicyBook::Change IsolationPolicyBook::Add(const PolicyExclusions& policy) {
  Change change;
  change.handle = m_nextHandle++;

  std::map<AddressId, Image> before;
  for (const auto& exclusion : policy.addresses) {
    const AddressId address{exclusion.map, Bytes(exclusion.address)};
    auto [it, isNew] = m_addresses.try_emplace(address);
    if (isNew) it->second.id = m_nextId++;
    before.try_emplace(address, it->second.image);
    it->second.exclusions.emplace(change.handle, exclusion);
    m_handleAddresses[change.handle].insert(address);
  }
  for (const auto& [address, old] : before) Diff(old, Render(address, m_addresses.at(address)), change.writes);

  Image appsBefore, appsAfter;
  for (const auto& application : policy.applications) {
    const ApplicationId id{application.identity.inode, application.identity.device};
    auto [it, isNew] = m_applications.try_emplace(id);
    if (isNew)
      it->second.id = m_nextId++;
    else
      appsBefore.try_emplace({PolicyMap::AppStep0, AppKeyBytes(id)}, AppValueBytes(it->second));
    it->second.handles.insert(change.handle);
    appsAfter[{PolicyMap::AppStep0, AppKeyBytes(id)}] = AppValueBytes(it->second);
    m_handleApplications[change.handle].insert(id);
  }
  Diff(appsBefore, appsAfter, change.writes);

  change.writes = Ordered(std::move(change.writes));
  return change;
}

PolicyWrites IsolationPolicyBook::Remove(PolicyHandle handle) {
  PolicyWrites writes;
  if (auto node = m_handleAddresses.extract(handle)) {
    for (const auto& address : node.mapped()) {
      auto it = m_addresses.find(address);
      AddressEntry& entry = it->second;
      const Image before = entry.image;
      entry.exclusions.erase(handle);
      if (entry.exclusions.empty()) {
        Diff(before, {}, writes);
        m_addresses.erase(it);
      } else {
        Diff(before, Render(address, entry), writes);
      }
    }
  }
  if (auto node = m_handleApplications.extract(handle)) {
    Image appsBefore, appsAfter;
    for (const auto& id : node.mapped()) {
      auto it = m_applications.find(id);
      const auto key = AppKeyBytes(id);
      appsBefore[{PolicyMap::AppStep0, key}] = AppValueBytes(it->second);
      it->second.handles.erase(handle);
      if (it->second.handles.empty())
        m_applications.erase(it);
      else
        appsAfter[{PolicyMap::AppStep0, key}] = AppValueBytes(it->second);
    }
    Diff(appsBefore, appsAfter, writes);
  }
  return Ordered(std::move(writes));
}

const IsolationPolicyBook::Image& IsolationPolicyBook::Render(const AddressId& address, AddressEntry& entry) {
  Image image;
  IsolationAddressValue value{};
  value.ipId = entry.id;
  value.refCount = static_cast<std::uint32_t>(entry.exclusions.size());
  std::bitset<256> protocols;
  for (const auto& [handle, exclusion] : entry.exclusions) protocols |= exclusion.protocols;
  for (unsigned p = 0; p < 256; ++p)
    if (protocols.test(p)) value.protocols[p / 64] |= 1ULL << (p % 64);
  image[address] = Bytes(value);
  RenderPorts(entry, image);
  entry.image = std::move(image);
  return entry.image;
}

void IsolationPolicyBook::RenderPorts(AddressEntry& entry, Image& image) {
  std::vector<PortSpan> remote;
  for (const auto& [handle, exclusion] : entry.exclusions) {
    if (!exclusion.portProtocols) continue;
    PortSpan span{exclusion.remotePorts.first, exclusion.remotePorts.last, 0, 0, {}};
    if (exclusion.localPorts) {
      span.chainPorts = exclusion.portProtocols;
      span.local = {exclusion.localPorts->first, exclusion.localPorts->last, exclusion.portProtocols};
    } else {
      span.passPorts = exclusion.portProtocols;
    }
    remote.push_back(span);
  }

  // The chains in use now; entry.chains keeps ids of sets no longer in use
  // too, so that a set that comes back (a change undone) gets its old id and
  // the maps return to exactly what they were.
  decltype(entry.chains) chains;
  std::vector<PortRun> runs;
  ForEachPiece(remote, [&](std::uint32_t first, std::uint32_t last, const std::vector<const PortSpan*>& covering) {
    IsolationPortsValue value{};
    std::set<LocalPorts> localSet;
    for (const PortSpan* span : covering) {
      value.passPorts |= span->passPorts;
      value.chainPorts |= span->chainPorts;
      if (span->chainPorts) localSet.insert(span->local);
    }
    // A protocol passed by the remote port alone needs no local port.
    value.chainPorts &= static_cast<std::uint8_t>(~value.passPorts);
    value.refCount = RefCount16(covering.size());
    if (value.chainPorts) {
      const LocalSet key(localSet.begin(), localSet.end());
      auto known = entry.chains.try_emplace(key, 0).first;
      if (!known->second) known->second = m_nextId++;
      value.localChainId = known->second;
      chains.emplace(key, known->second);
    }
    AppendRun(runs, first, last, value);
  });
  EmitRuns(entry.id, runs, image);

  for (const auto& [localSet, chainId] : chains) {
    std::vector<PortSpan> local;
    for (const auto& [first, last, bits] : localSet) local.push_back({first, last, bits, 0, {}});
    std::vector<PortRun> localRuns;
    ForEachPiece(local, [&](std::uint32_t first, std::uint32_t last, const std::vector<const PortSpan*>& covering) {
      IsolationPortsValue value{};
      for (const PortSpan* span : covering) value.passPorts |= span->passPorts;
      value.refCount = RefCount16(covering.size());
      AppendRun(localRuns, first, last, value);
    });
    EmitRuns(chainId, localRuns, image);
  }
}

void IsolationPolicyBook::Diff(const Image& before, const Image& after, PolicyWrites& writes) {
  for (const auto& [where, value] : after) {
    auto old = before.find(where);
    if (old == before.end())
      writes.push_back({PolicyWrite::Kind::Insert, where.first, where.second, value, {}});
    else if (old->second != value)
      writes.push_back({PolicyWrite::Kind::Update, where.first, where.second, value, old->second});
  }
  for (const auto& [where, value] : before)
    if (!after.count(where)) writes.push_back({PolicyWrite::Kind::Remove, where.first, where.second, {}, value});
}

PolicyWrites IsolationPolicyBook::Ordered(PolicyWrites writes) {
  std::stable_sort(writes.begin(), writes.end(),
                   [](const PolicyWrite& a, const PolicyWrite& b) { return WriteRank(a) < WriteRank(b); });
  return writes;
}

std::vector<std::uint8_t> IsolationPolicyBook::AppKeyBytes(const ApplicationId& id) {
  IsolationAppKey key{};
  key.inode = id.first;
  key.device = id.second;
  return Bytes(key);
}

std::vector<std::uint8_t> IsolationPolicyBook::AppValueBytes(const ApplicationEntry& entry) {
  IsolationAppValue value{};
  value.exeId = entry.id;
  value.refCount = static_cast<std::uint32_t>(entry.handles.size());
  return Bytes(value);
}

}  // namespace qel::firewall::ebpf
