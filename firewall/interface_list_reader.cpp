#include "firewall/interface_list_reader.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "qel_common/unique_fd.h"

namespace qel::firewall {
namespace {

using oro::result_t;

struct FreeIfaddrs {
  void operator()(ifaddrs* list) const noexcept { freeifaddrs(list); }
};
using IfaddrsList = std::unique_ptr<ifaddrs, FreeIfaddrs>;

// The index of the link entry, 0 where there is none: a link without a
// hardware address (a wireguard or tun device) has an AF_PACKET entry with
// no address in it.
std::uint32_t LinkIndex(const ifaddrs& entry) {
  if (!entry.ifa_addr || entry.ifa_addr->sa_family != AF_PACKET) return 0;
  return static_cast<std::uint32_t>(reinterpret_cast<const sockaddr_ll*>(entry.ifa_addr)->sll_ifindex);
}

InterfaceSnapshot* FindByName(InterfaceSnapshots& snapshots, const char* name) {
  for (auto& snapshot : snapshots) {
    if (snapshot.name == name) return &snapshot;
  }
  return nullptr;
}

}  // namespace

result_t InterfaceListReader::Read(InterfaceSnapshots& out) const {
  ifaddrs* raw = nullptr;
  if (getifaddrs(&raw) != 0) {
    const int error = errno;
    QEL_TRACE_FAILED_CONDITION(m_tracer, "getifaddrs(&raw) == 0",
                               std::string("Fail to getifaddrs: ") + std::strerror(error));
    return oro::ResultFromErrno(error);
  }
  const IfaddrsList list(raw);
  InterfaceSnapshots snapshots;
  for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
    if (!entry->ifa_name) continue;
    InterfaceSnapshot* snapshot = FindByName(snapshots, entry->ifa_name);
    if (!snapshot) snapshot = &snapshots.emplace_back(InterfaceSnapshot{0, false, entry->ifa_name});
    snapshot->enabled = snapshot->enabled || (entry->ifa_flags & IFF_UP) != 0;
    if (const std::uint32_t index = LinkIndex(*entry)) snapshot->index = index;
  }
  // Rare: only links without a hardware address come here.
  tools::UniqueFd socket;
  for (auto it = snapshots.begin(); it != snapshots.end();) {
    if (it->index != 0) {
      ++it;
      continue;
    }
    if (!socket) {
      socket = tools::UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      if (!socket) {
        const int error = errno;
        QEL_TRACE_FAILED_CONDITION(m_tracer, "socket(AF_INET, SOCK_DGRAM, 0) >= 0",
                                   std::string("Fail to open socket: ") + std::strerror(error));
        return oro::ResultFromErrno(error);
      }
    }
    ifreq request{};
    std::strncpy(request.ifr_name, it->name.c_str(), IFNAMSIZ - 1);
    if (ioctl(socket.Get(), SIOCGIFINDEX, &request) == 0) {
      it->index = static_cast<std::uint32_t>(request.ifr_ifindex);
      ++it;
    } else {
      // Gone since the listing: the next reading will not have it either.
      it = snapshots.erase(it);
    }
  }
  out = std::move(snapshots);
  return oro::errOk;
}

}  // namespace qel::firewall
