#include "qel_common/ip_address.h"

#include <arpa/inet.h>

#include <algorithm>

namespace qel::tools {
namespace {

constexpr char kEmptyAddress[] = "empty address string";
constexpr char kInvalidFormat[] = "Invalid format of ip address";
constexpr char kInvalidMask[] = "invalid mask in network address";
constexpr char kPortNotEmpty[] = "port is not empty";
constexpr char kInvalidRange[] = "invalid range address string";
constexpr char kDifferentVersions[] = "different versions of ip addresses";
constexpr char kRangeNotAscending[] = "The last address in the range is not greater than the first one";

bool ParseAs(int af, const std::string& text, IpAddress& out) {
  IpAddress parsed;
  parsed.version = af == AF_INET ? IpVersion::V4 : IpVersion::V6;
  if (inet_pton(af, text.c_str(), parsed.bytes.data()) != 1) return false;
  out = parsed;
  return true;
}

bool IsDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "[v6]" or "[v6]:port"; a port part is refused by name so that an endpoint
// pasted into an address field gets a telling message.
IpAddress ParseBracketed(std::string_view text) {
  const std::size_t close = text.find(']');
  if (close == std::string_view::npos) throw AddressParseError(kInvalidFormat);
  const std::string_view rest = text.substr(close + 1);
  if (rest.size() > 1 && rest.front() == ':') throw AddressParseError(kPortNotEmpty);
  IpAddress address;
  if (!rest.empty() || !ParseAs(AF_INET6, std::string(text.substr(1, close - 1)), address)) {
    throw AddressParseError(kInvalidFormat);
  }
  return address;
}

// "a.b.c.d:port": the only IPv4 text with a colon.
bool IsIpv4WithPort(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon + 1 == text.size()) return false;
  if (text.find(':', colon + 1) != std::string_view::npos) return false;
  IpAddress ignored;
  return ParseAs(AF_INET, std::string(text.substr(0, colon)), ignored);
}

unsigned ParsePrefixLength(std::string_view text, unsigned fullLength) {
  // Three digits cover 128 and keep the conversion from overflowing.
  if (!IsDigits(text) || text.size() > 3) throw AddressParseError(kInvalidMask);
  const unsigned length = static_cast<unsigned>(std::stoul(std::string(text)));
  if (length > fullLength) throw AddressParseError(kInvalidMask);
  return length;
}

}  // namespace

IpAddress MaskHostBits(IpAddress address, unsigned prefixLength) noexcept {
  for (std::size_t i = 0; i < address.Size(); ++i) {
    const unsigned bitsBefore = static_cast<unsigned>(i * 8);
    if (prefixLength >= bitsBefore + 8) continue;
    const unsigned keep = prefixLength > bitsBefore ? prefixLength - bitsBefore : 0;
    address.bytes[i] &= static_cast<std::uint8_t>(0xff00u >> keep);
  }
  return address;
}

// IPv4 by hand: the C library formats it through printf, and the compiler
// writes one address for every rule of every compilation.
std::string IpAddress::ToString() const {
  if (version == IpVersion::V4) {
    std::string text;
    text.reserve(15);
    for (std::size_t i = 0; i < 4; ++i) {
      if (i) text += '.';
      text += std::to_string(bytes[i]);
    }
    return text;
  }
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(AF_INET6, bytes.data(), text, sizeof text);
  return text;
}

std::string IpNetwork::ToString() const { return address.ToString() + "/" + std::to_string(prefixLength); }

std::string IpRange::ToString() const { return first.ToString() + "-" + last.ToString(); }

IpAddress ParseIpAddress(std::string_view text) {
  if (text.empty()) throw AddressParseError(kEmptyAddress);
  if (text.front() == '[') return ParseBracketed(text);
  IpAddress address;
  const std::string copy(text);
  if (ParseAs(AF_INET, copy, address) || ParseAs(AF_INET6, copy, address)) return address;
  if (IsIpv4WithPort(text)) throw AddressParseError(kPortNotEmpty);
  throw AddressParseError(kInvalidFormat);
}

IpNetwork ParseIpNetwork(std::string_view text) {
  if (text.empty()) throw AddressParseError(kEmptyAddress);
  const std::size_t slash = text.find('/');
  IpNetwork network;
  network.address = ParseIpAddress(text.substr(0, slash));
  network.prefixLength = network.address.FullPrefixLength();
  if (slash != std::string_view::npos) {
    network.prefixLength = ParsePrefixLength(text.substr(slash + 1), network.prefixLength);
  }
  network.address = MaskHostBits(network.address, network.prefixLength);
  return network;
}

IpRange ParseIpRange(std::string_view text) {
  if (text.empty()) throw AddressParseError(kEmptyAddress);
  const std::size_t dash = text.find('-');
  if (dash == std::string_view::npos || dash == 0 || dash + 1 == text.size() ||
      text.find('-', dash + 1) != std::string_view::npos) {
    throw AddressParseError(kInvalidRange);
  }
  const IpRange range{ParseIpAddress(text.substr(0, dash)), ParseIpAddress(text.substr(dash + 1))};
  if (range.first.version != range.last.version) throw AddressParseError(kDifferentVersions);
  if (range.last <= range.first) throw AddressParseError(kRangeNotAscending);
  return range;
}

AddressElement ParseAddressElement(std::string_view text) {
  if (text.find('-') != std::string_view::npos) return ParseIpRange(text);
  return ParseIpNetwork(text);
}

IpVersion VersionOf(const AddressElement& element) noexcept {
  if (const auto* network = std::get_if<IpNetwork>(&element)) return network->address.version;
  return std::get<IpRange>(element).first.version;
}

}  // namespace qel::tools
