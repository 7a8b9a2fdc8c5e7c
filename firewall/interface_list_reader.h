// Reads the host's network interfaces: index, whether up, name.
#pragma once

#include "firewall/interface_snapshot.h"
#include "oro/result.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

// getifaddrs lists every interface, up or down, with or without addresses:
// besides one entry per address, glibc gives each link an AF_PACKET entry
// from its RTM_GETLINK dump. That entry carries the index, so a netlink
// dump of our own would add nothing; the entries are merged by name.
class InterfaceListReader {
 public:
  explicit InterfaceListReader(tracing::Tracer tracer) : m_tracer(std::move(tracer)) {}

  // Replaces `out` with the interfaces in the order the kernel lists them;
  // untouched on failure.
  oro::result_t Read(InterfaceSnapshots& out) const;

 private:
  tracing::Tracer m_tracer;
};

}  // namespace qel::firewall
