#include "qel_common/port_range.h"

#include <gtest/gtest.h>

namespace qel::tools {
namespace {

// The message the parser throws its error with, or "parsed".
std::string ErrorOf(const char* input) {
  try {
    ParsePortRange(input);
  } catch (const PortParseError& e) {
    return e.what();
  }
  return "parsed";
}

TEST(PortRangeTest, PortsAreWrittenAsTheToolsPrintThemOrRejected) {
  const std::pair<const char*, const char*> cases[] = {
      {"80", "80"},       {" 1000 -\t2000 ", "1000:2000"}, {"1000-2000", "1000:2000"}, {"443-443", "443"}, {"0-0", "0"},
      {"65535", "65535"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(ParsePortRange(input).ToString(), expected) << input;
  EXPECT_TRUE(ParsePortRange("0-65535").CoversAllPorts());
  EXPECT_FALSE(ParsePortRange("1-65535").CoversAllPorts());

  for (const char* input : {"", "http", "65536", "-1", "+80", "80-", "1-2-3", "8 0"}) {
    EXPECT_EQ(ErrorOf(input), "bad lexical cast: source type value could not be interpreted as target") << input;
  }
  EXPECT_EQ(ErrorOf("2000-1000"), "The last port in the range is less than the first one");
}

}  // namespace
}  // namespace qel::tools
