#include "firewall/ebpf/tc_filter_dump.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "qel_common/mnl_parser.h"

namespace qel::firewall {
namespace tc_filter_dump {
namespace {

// What the walk over one datagram has seen so far.
struct Tally {
  std::size_t filters = 0;
  int error = 0;
};

bool HasOptions(const nlmsghdr* message) {
  bool found = false;
  mnl_attr_parse(
      message, sizeof(tcmsg),
      [](const nlattr* attribute, void* data) {
        if (mnl_attr_get_type(attribute) == TCA_OPTIONS) *static_cast<bool*>(data) = true;
        return MNL_CB_OK;
      },
      &found);
  return found;
}

int CountFilter(const nlmsghdr* message, Tally& tally) {
  // libmnl ends the walk on an interrupted dump too; checked here as well
  // so that the answer does not hang on the library's version.
  if (message->nlmsg_flags & NLM_F_DUMP_INTR) {
    tally.error = EINTR;
    return MNL_CB_ERROR;
  }
  if (message->nlmsg_type != RTM_NEWTFILTER) return MNL_CB_OK;
  if (message->nlmsg_len < mnl_nlmsg_size(sizeof(tcmsg))) {
    tally.error = EBADMSG;
    return MNL_CB_ERROR;
  }
  if (HasOptions(message)) ++tally.filters;
  return MNL_CB_OK;
}

}  // namespace

std::vector<std::uint8_t> BuildRequest(int ifindex, std::uint32_t parent, std::uint32_t sequence) {
  std::vector<std::uint8_t> bytes(mnl_nlmsg_size(sizeof(tcmsg)));
  nlmsghdr* request = mnl_nlmsg_put_header(bytes.data());
  request->nlmsg_type = RTM_GETTFILTER;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = sequence;
  auto* header = static_cast<tcmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(tcmsg)));
  header->tcm_family = AF_UNSPEC;
  header->tcm_ifindex = ifindex;
  header->tcm_parent = parent;
  return bytes;
}

Part ParseReply(const void* buffer, std::size_t size, std::uint32_t sequence, std::uint32_t portId) {
  Tally tally;
  const tools::MnlParser parser(
      nullptr, [&tally](const nlmsghdr* message, tools::MnlParser::AttributeTable) { return CountFilter(message, tally); },
      std::nullopt, nullptr);
  errno = 0;
  const int outcome = parser.Parse(buffer, size, sequence, portId);
  // libmnl reports the kernel's error, a foreign message and an interrupted
  // dump through errno; taken before anything else can change it.
  const int libraryError = errno;
  Part part;
  part.filters = tally.filters;
  if (outcome == MNL_CB_ERROR) {
    part.finished = true;
    part.error = tally.error != 0 ? tally.error : (libraryError != 0 ? libraryError : EBADMSG);
  } else if (outcome == MNL_CB_STOP) {
    part.finished = true;
  }
  return part;
}

}  // namespace tc_filter_dump

}  // namespace qel::firewall
