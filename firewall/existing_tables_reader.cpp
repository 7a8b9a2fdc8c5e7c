#include "firewall/existing_tables_reader.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "firewall/netlink_socket.h"
#include "qel_common/unique_fd.h"

namespace qel::firewall {
namespace {

using types::IPAddressFamily;

bool IsIpv4(IPAddressFamily::Type family) { return family == IPAddressFamily::IPv4; }

// The name attribute of one table message; empty when it has none.
std::string TableName(const nlmsghdr& message) {
  std::string name;
  mnl_attr_parse(
      &message, sizeof(nfgenmsg),
      [](const nlattr* attribute, void* data) {
        if (mnl_attr_get_type(attribute) == NFTA_TABLE_NAME && mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0) {
          *static_cast<std::string*>(data) = mnl_attr_get_str(attribute);
        }
        return MNL_CB_OK;
      },
      &name);
  return name;
}

std::vector<std::string> OneNamePerLine(const std::string& text) {
  std::vector<std::string> names;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) names.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

}  // namespace

oro::result_t ExistingTablesReader::Read(IPAddressFamily::Type family, std::vector<std::string>& out) const {
  return m_backend == ToolBackend::Legacy ? ReadLegacy(family, out) : ReadNfTables(family, out);
}

oro::result_t ExistingTablesReader::ReadLegacy(IPAddressFamily::Type family, std::vector<std::string>& out) {
  const char* path = IsIpv4(family) ? "/proc/net/ip_tables_names" : "/proc/net/ip6_tables_names";
  const tools::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file) {
    // Without the kernel module there is no such file, and no table.
    if (errno != ENOENT) return oro::ResultFromErrno(errno);
    out.clear();
    return oro::errOk;
  }
  std::string text;
  char chunk[512];
  for (;;) {
    const ssize_t n = read(file.Get(), chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return oro::ResultFromErrno(errno);
    if (n == 0) break;
    text.append(chunk, static_cast<std::size_t>(n));
  }
  out = OneNamePerLine(text);
  return oro::errOk;
}

oro::result_t ExistingTablesReader::ReadNfTables(IPAddressFamily::Type family, std::vector<std::string>& out) {
  NetlinkSocket socket;
  oro::result_t result = NetlinkSocket::Open(NETLINK_NETFILTER, socket);
  if (ORO_FAILED(result)) return result;
  alignas(nlmsghdr) std::array<char, 128> buffer{};
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETTABLE;
  auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
  header->nfgen_family = IsIpv4(family) ? NFPROTO_IPV4 : NFPROTO_IPV6;
  header->version = NFNETLINK_V0;
  std::vector<std::string> tables;
  result = socket.Dump(*request, [&tables](const nlmsghdr& message) {
    if (auto name = TableName(message); !name.empty()) tables.push_back(std::move(name));
  });
  if (ORO_FAILED(result)) return result;
  out = std::move(tables);
  return oro::errOk;
}

}  // namespace qel::firewall
