// Reading one datagram of the kernel's uevent group.
#include "firewall/uevent_message.h"

#include <gtest/gtest.h>

#include <string>

namespace qel::test {
namespace {

using namespace firewall;
using namespace std::string_literals;

using Variables = std::vector<std::pair<std::string, std::string>>;

TEST(UeventMessageTest, KernelDatagramGivesActionPathAndVariablesInOrder) {
  const std::string module = "add@/module/br_netfilter\0ACTION=add\0DEVPATH=/module/br_netfilter\0"
                             "SUBSYSTEM=module\0SEQNUM=4711\0"s;
  Uevent uevent;
  std::string problem;
  ASSERT_EQ(UeventMessage::Parse(module, uevent, problem), oro::errOk) << problem;
  EXPECT_EQ(uevent.action, "add");
  EXPECT_EQ(uevent.devpath, "/module/br_netfilter");
  EXPECT_EQ(uevent.variables, (Variables{{"ACTION", "add"},
                                         {"DEVPATH", "/module/br_netfilter"},
                                         {"SUBSYSTEM", "module"},
                                         {"SEQNUM", "4711"}}));

  // The last entry may lack its NUL; empty entries are no variables; a value
  // may hold '=' and be empty.
  const std::string device = "remove@/devices/virtual/net/veth0\0\0OPTS=a=b\0EMPTY=\0INTERFACE=veth0"s;
  ASSERT_EQ(UeventMessage::Parse(device, uevent, problem), oro::errOk) << problem;
  EXPECT_EQ(uevent.action, "remove");
  EXPECT_EQ(uevent.variables, (Variables{{"OPTS", "a=b"}, {"EMPTY", ""}, {"INTERFACE", "veth0"}}));

  ASSERT_EQ(UeventMessage::Parse("change@/devices/x", uevent, problem), oro::errOk) << problem;
  EXPECT_EQ(uevent.devpath, "/devices/x");
  EXPECT_TRUE(uevent.variables.empty());
}

TEST(UeventMessageTest, UdevDatagramIsSkippedAndLeavesTheEventAlone) {
  Uevent uevent{"kept", "/kept", {}};
  std::string problem;
  const std::string udev = "libudev\0\xfe\xed\xca\xfe\x28\0\0\0ACTION=add\0"s;
  EXPECT_EQ(UeventMessage::Parse(udev, uevent, problem), oro::errFalse);
  EXPECT_EQ(uevent.action, "kept");
  EXPECT_TRUE(problem.empty());
}

TEST(UeventMessageTest, MalformedDatagramIsRefusedNamingTheFault) {
  const struct {
    std::string datagram;
    std::string named;
  } cases[] = {
      {"add/module/x\0A=b\0"s, "without '@'"},
      {""s, "without '@'"},
      {"@/module/x\0"s, "without an action"},
      {"add@module/x\0"s, "does not begin with '/'"},
      {"add@\0"s, "does not begin with '/'"},
      {"add@/module/x\0ACTION=add\0garbage\x01\0"s, "not KEY=VALUE: 'garbage?'"},
      {"add@/module/x\0=value\0"s, "not KEY=VALUE"},
  };
  for (const auto& c : cases) {
    Uevent uevent{"kept", "/kept", {}};
    std::string problem;
    EXPECT_EQ(UeventMessage::Parse(c.datagram, uevent, problem), oro::errInvalidArgument) << c.named;
    EXPECT_NE(problem.find(c.named), std::string::npos) << problem;
    EXPECT_EQ(uevent.action, "kept") << "nothing of a refused datagram is kept";
  }
}

}  // namespace
}  // namespace qel::test
