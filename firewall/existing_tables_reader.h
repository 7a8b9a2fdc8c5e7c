// Which of the packet filter's tables exist, read from the kernel in a way
// that creates none. Listing a table with the tools is no such way: the
// legacy tools load the table into the network namespace to list it, and
// so did the nf_tables tools of some versions.
#pragma once

#include <string>
#include <vector>

#include "firewall/firewall_settings.h"
#include "oro/result.h"

namespace qel::firewall {

// The kernel interface behind the iptables tools.
enum class ToolBackend { Legacy, NfTables };

class ExistingTablesReader {
 public:
  explicit ExistingTablesReader(ToolBackend backend) noexcept : m_backend(backend) {}

  // Replaces `out` with the names of the tables of `family` that exist in
  // the caller's network namespace for the backend ("filter", "nat", ...).
  // Leaves `out` as it was on failure.
  oro::result_t Read(types::IPAddressFamily::Type family, std::vector<std::string>& out) const;

 private:
  // The legacy tables are listed in /proc/net/ip_tables_names and
  // ip6_tables_names, which exist once the kernel module does.
  static oro::result_t ReadLegacy(types::IPAddressFamily::Type family, std::vector<std::string>& out);
  // The tables the nf_tables tools use are the kernel's nf_tables tables
  // of family "ip" or "ip6" with the same names, dumped over netlink.
  static oro::result_t ReadNfTables(types::IPAddressFamily::Type family, std::vector<std::string>& out);

  ToolBackend m_backend;
};

}  // namespace qel::firewall
