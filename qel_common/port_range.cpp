#include "qel_common/port_range.h"

#include <algorithm>
#include <boost/lexical_cast.hpp>

namespace qel::tools {
namespace {

constexpr char kPortRangeDescending[] = "The last port in the range is less than the first one";

bool IsDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string_view TrimBlanks(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

std::uint16_t ParsePort(std::string_view text) {
  const std::string_view number = TrimBlanks(text);
  try {
    // The conversion alone would take "-1" for 65535 and accept "+80".
    if (!IsDigits(number)) throw boost::bad_lexical_cast();
    return boost::lexical_cast<std::uint16_t>(number.data(), number.size());
  } catch (const boost::bad_lexical_cast& e) {
    throw PortParseError(e.what());
  }
}

}  // namespace

std::string PortRange::ToString() const {
  if (first == last) return std::to_string(first);
  return std::to_string(first) + ":" + std::to_string(last);
}

PortRange ParsePortRange(std::string_view text) {
  const std::size_t dash = text.find('-');
  if (dash == std::string_view::npos) {
    const std::uint16_t port = ParsePort(text);
    return {port, port};
  }
  const PortRange range{ParsePort(text.substr(0, dash)), ParsePort(text.substr(dash + 1))};
  if (range.last < range.first) throw PortParseError(kPortRangeDescending);
  return range;
}

}  // namespace qel::tools
