#include "firewall/ebpf/tc_filter_dump.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "support/netlink_messages.h"

namespace qel::test {
namespace {

using firewall::tc_filter_dump::BuildRequest;
using firewall::tc_filter_dump::ParseReply;

constexpr std::uint32_t kSequence = 9;
constexpr std::uint32_t kPortId = 4321;

tcmsg FilterHeader() {
  tcmsg header{};
  header.tcm_ifindex = 3;
  header.tcm_parent = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS);
  return header;
}

// The message the kernel sends for a protocol/priority pair: kind, no
// options.
void AddChainHead(NetlinkMessages& messages, std::uint16_t flags = NLM_F_MULTI) {
  const tcmsg header = FilterHeader();
  messages.MessageWithHeader(RTM_NEWTFILTER, flags, &header, sizeof header, kSequence, kPortId)
      .Attribute(TCA_KIND, std::string("bpf"));
}

void AddFilter(NetlinkMessages& messages, std::uint16_t flags = NLM_F_MULTI) {
  const tcmsg header = FilterHeader();
  const std::uint32_t programId = 17;
  messages.MessageWithHeader(RTM_NEWTFILTER, flags, &header, sizeof header, kSequence, kPortId)
      .Attribute(TCA_KIND, std::string("bpf"))
      .Attribute(TCA_OPTIONS, &programId, sizeof programId);
}

void AddDone(NetlinkMessages& messages, std::uint16_t flags = NLM_F_MULTI) {
  const std::int32_t status = 0;
  messages.MessageWithHeader(NLMSG_DONE, flags, &status, sizeof status, kSequence, kPortId);
}

TEST(TcFilterDumpRequest, AsksForADumpOfOneParentOfOneInterface) {
  const std::vector<std::uint8_t> expected = {
      0x24, 0x00, 0x00, 0x00,  // length: 16 + 20
      0x2e, 0x00,              // RTM_GETTFILTER
      0x01, 0x03,              // NLM_F_REQUEST | NLM_F_DUMP
      0x05, 0x00, 0x00, 0x00,  // sequence
      0x00, 0x00, 0x00, 0x00,  // port id: the kernel's
      0x00, 0x00, 0x00, 0x00,  // family AF_UNSPEC and padding
      0x07, 0x00, 0x00, 0x00,  // ifindex
      0x00, 0x00, 0x00, 0x00,  // handle: any
      0xf3, 0xff, 0xff, 0xff,  // parent: clsact egress
      0x00, 0x00, 0x00, 0x00,  // protocol and priority: any
  };
  EXPECT_EQ(BuildRequest(7, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_EGRESS), 5), expected);
}

TEST(TcFilterDumpReply, CountsOnlyMessagesThatCarryOptions) {
  NetlinkMessages part;
  AddChainHead(part);
  AddFilter(part);
  AddFilter(part);
  const auto read = ParseReply(part.Data(), part.Size(), kSequence, kPortId);
  EXPECT_EQ(read.filters, 2u);
  EXPECT_FALSE(read.finished);
  EXPECT_EQ(read.error, 0);
}

TEST(TcFilterDumpReply, EndsAtDoneWithTheFiltersBeforeIt) {
  NetlinkMessages part;
  AddFilter(part);
  AddDone(part);
  const auto read = ParseReply(part.Data(), part.Size(), kSequence, kPortId);
  EXPECT_EQ(read.filters, 1u);
  EXPECT_TRUE(read.finished);
  EXPECT_EQ(read.error, 0);
}

TEST(TcFilterDumpReply, AnInterruptedDumpEndsWithEintr) {
  NetlinkMessages onFilter;
  AddFilter(onFilter, NLM_F_MULTI | NLM_F_DUMP_INTR);
  const auto read = ParseReply(onFilter.Data(), onFilter.Size(), kSequence, kPortId);
  EXPECT_TRUE(read.finished);
  EXPECT_EQ(read.error, EINTR);

  NetlinkMessages onDone;
  AddDone(onDone, NLM_F_MULTI | NLM_F_DUMP_INTR);
  const auto readDone = ParseReply(onDone.Data(), onDone.Size(), kSequence, kPortId);
  EXPECT_TRUE(readDone.finished);
  EXPECT_EQ(readDone.error, EINTR);
}

TEST(TcFilterDumpReply, AKernelErrorEndsWithItsErrno) {
  nlmsgerr error{};
  error.error = -ENODEV;
  NetlinkMessages part;
  part.MessageWithHeader(NLMSG_ERROR, 0, &error, sizeof error, kSequence, kPortId);
  const auto read = ParseReply(part.Data(), part.Size(), kSequence, kPortId);
  EXPECT_TRUE(read.finished);
  EXPECT_EQ(read.error, ENODEV);
}

TEST(TcFilterDumpReply, RefusesAnswersToAnotherRequest) {
  NetlinkMessages part;
  AddFilter(part);
  const auto read = ParseReply(part.Data(), part.Size(), kSequence + 1, kPortId);
  EXPECT_TRUE(read.finished);
  EXPECT_NE(read.error, 0);
  EXPECT_EQ(read.filters, 0u);
}

TEST(TcFilterDumpReply, RefusesAFilterMessageTooShortForItsHeader) {
  const std::uint8_t halfHeader[8] = {};
  NetlinkMessages part;
  part.MessageWithHeader(RTM_NEWTFILTER, NLM_F_MULTI, halfHeader, sizeof halfHeader, kSequence, kPortId);
  const auto read = ParseReply(part.Data(), part.Size(), kSequence, kPortId);
  EXPECT_TRUE(read.finished);
  EXPECT_EQ(read.error, EBADMSG);
}

}  // namespace
}  // namespace qel::test
