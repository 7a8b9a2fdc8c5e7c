#include "qel_common/ip_address.h"

#include <gtest/gtest.h>

#include <variant>

namespace qel::tools {
namespace {

std::string ElementText(const char* text) {
  return std::visit([](const auto& element) { return element.ToString(); }, ParseAddressElement(text));
}

// The message a parser throws its own error with, or "parsed".
template <class Error, class Result>
std::string ErrorOf(Result (*parse)(std::string_view), const char* input) {
  try {
    parse(input);
  } catch (const Error& e) {
    return e.what();
  }
  return "parsed";
}

// Written back the way the tools print it: host bits of a network cleared,
// IPv6 compressed and in lower case, a bare address with its full prefix.
TEST(IpAddressTest, ElementsAreWrittenInCanonicalForm) {
  const std::pair<const char*, const char*> cases[] = {
      {"10.0.0.0/8", "10.0.0.0/8"},           {"10.1.2.3/8", "10.0.0.0/8"},
      {"192.168.1.5", "192.168.1.5/32"},      {"10.1.2.255/31", "10.1.2.254/31"},
      {"10.1.2.3/0", "0.0.0.0/0"},            {"fe80::1/10", "fe80::/10"},
      {"FE80:0:0::1", "fe80::1/128"},         {"2001:db8::ff/121", "2001:db8::80/121"},
      {"[::1]", "::1/128"},                   {"::ffff:1.2.3.4", "::ffff:1.2.3.4/128"},
      {"10.0.0.255-10.0.1.0", "10.0.0.255-10.0.1.0"},
      {"2001:DB8::1-2001:db8:0:0::ff", "2001:db8::1-2001:db8::ff"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(ElementText(input), expected) << input;
  EXPECT_EQ(VersionOf(ParseAddressElement("fe80::1-fe80::2")), IpVersion::V6);
  EXPECT_EQ(VersionOf(ParseAddressElement("10.0.0.1")), IpVersion::V4);
}

TEST(IpAddressTest, MalformedElementsAreRejectedWithTheirReason) {
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"empty address string", {""}},
      {"Invalid format of ip address", {"10.0.0.300", "host.example", "fe80::1%eth0", "[::1", "10.0.0.1-10.0.0.x"}},
      {"invalid mask in network address", {"10.0.0.1/33", "fe80::/129", "10.0.0.0/", "10.0.0.0/255.0.0.0"}},
      {"port is not empty", {"1.2.3.4:80", "[::1]:80"}},
      {"invalid range address string", {"10.0.0.1-", "-10.0.0.1", "10.0.0.1-10.0.0.2-10.0.0.3"}},
      {"different versions of ip addresses", {"10.0.0.1-fe80::1"}},
      {"The last address in the range is not greater than the first one", {"10.0.0.9-10.0.0.1", "10.0.0.1-10.0.0.1"}},
  };
  for (const auto& [message, inputs] : cases) {
    for (const char* input : inputs) {
      EXPECT_EQ(ErrorOf<AddressParseError>(&ParseAddressElement, input), message) << input;
    }
  }
}

}  // namespace
}  // namespace qel::tools
