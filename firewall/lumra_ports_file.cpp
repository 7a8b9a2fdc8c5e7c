#include "firewall/lumra_ports_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "qel_common/unique_fd.h"

namespace qel::firewall {
namespace {

using oro::result_t;

// Far above any sensible file; keeps a wrong path (a device, a log) from
// being read whole.
constexpr std::size_t kMaxFileSize = 1 << 20;

std::string_view Trim(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
}

// "[host-type NAME]" gives NAME; nullopt for any other text in brackets.
std::optional<std::string> SectionName(std::string_view line) {
  constexpr std::string_view kOpen = "[host-type ";
  if (!line.starts_with(kOpen) || !line.ends_with(']')) return std::nullopt;
  const std::string_view name = Trim(line.substr(kOpen.size(), line.size() - kOpen.size() - 1));
  if (name.empty() || !std::all_of(name.begin(), name.end(), IsNameChar)) return std::nullopt;
  return std::string(name);
}

std::optional<std::uint16_t> ParsePort(std::string_view text, std::string& error) {
  unsigned value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value == 0 || value > 65535) {
    error = "port '" + std::string(text) + "' is not a number from 1 to 65535";
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(value);
}

std::optional<std::uint8_t> ParseProtocol(std::string_view text, std::string& error) {
  if (text == "tcp") return 6;
  if (text == "udp") return 17;
  error = "protocol '" + std::string(text) + "' is neither tcp nor udp";
  return std::nullopt;
}

// A bypass lets a packet skip the module, one direction at a time, so a
// connection needs one rule on the side it opens from and one for its way
// back. The way back is limited to established connections so that it opens
// nothing by itself.
RuleDescriptions BothWays(std::uint16_t port, std::uint8_t protocol, Side opening,
                          std::optional<tools::PortRange> RuleDescription::*ports) {
  RuleDescription open;
  open.side = opening;
  open.protocol = protocol;
  open.*ports = tools::PortRange{port, port};
  open.action = BypassAction{};
  RuleDescription back = open;
  back.side = opening == Side::Incoming ? Side::Outgoing : Side::Incoming;
  back.ctstate = ConnState::Established;
  return {open, back};
}

// The rules of an entry "PORT/PROTO/DIRECTION": "in" is a service of this
// host (the port is local, connections come in), "out" one elsewhere (the
// port is remote, connections go out). Nullopt with `error` saying why not.
std::optional<RuleDescriptions> EntryRules(std::string_view entry, std::string& error) {
  const std::size_t first = entry.find('/');
  const std::size_t second = first == std::string_view::npos ? first : entry.find('/', first + 1);
  if (second == std::string_view::npos || entry.find('/', second + 1) != std::string_view::npos) {
    error = "'" + std::string(entry) + "' is not PORT/PROTO/DIRECTION";
    return std::nullopt;
  }
  const auto port = ParsePort(entry.substr(0, first), error);
  if (!port) return std::nullopt;
  const auto protocol = ParseProtocol(entry.substr(first + 1, second - first - 1), error);
  if (!protocol) return std::nullopt;
  const std::string_view direction = entry.substr(second + 1);
  if (direction == "in") return BothWays(*port, *protocol, Side::Incoming, &RuleDescription::localPorts);
  if (direction == "out") return BothWays(*port, *protocol, Side::Outgoing, &RuleDescription::remotePorts);
  error = "direction '" + std::string(direction) + "' is neither in nor out";
  return std::nullopt;
}

}  // namespace

result_t LumraPortsFile::Parse(std::string_view text, LumraPortsFile& out, std::string& error) {
  LumraPortsFile parsed;
  RuleDescriptions* section = nullptr;
  std::size_t number = 0;
  const auto fail = [&](const std::string& what) {
    error = "line " + std::to_string(number) + ": " + what;
    return oro::errInvalidArgument;
  };
  while (!text.empty()) {
    ++number;
    const std::size_t end = text.find('\n');
    const std::string_view line = Trim(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.starts_with('#')) continue;
    if (line.starts_with('[')) {
      const auto name = SectionName(line);
      if (!name) return fail("'" + std::string(line) + "' is not a [host-type NAME] section");
      const auto [it, inserted] = parsed.m_hostTypes.try_emplace(*name);
      if (!inserted) return fail("host type '" + *name + "' appears twice");
      section = &it->second;
      continue;
    }
    if (!section) return fail("'" + std::string(line) + "' stands before any [host-type NAME] section");
    std::string what;
    const auto rules = EntryRules(line, what);
    if (!rules) return fail(what);
    for (const auto& rule : *rules) {
      if (std::find(section->begin(), section->end(), rule) == section->end()) section->push_back(rule);
    }
  }
  out = std::move(parsed);
  return oro::errOk;
}

result_t LumraPortsFile::Read(const std::string& path, LumraPortsFile& out, std::string& error) {
  const tools::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    const int err = errno;
    error = "cannot open '" + path + "': " + std::strerror(err);
    return oro::ResultFromErrno(err);
  }
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd.Get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int err = errno;
      error = "cannot read '" + path + "': " + std::strerror(err);
      return oro::ResultFromErrno(err);
    }
    if (n == 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
    if (text.size() > kMaxFileSize) {
      error = "'" + path + "' is larger than " + std::to_string(kMaxFileSize) + " bytes";
      return oro::errInvalidArgument;
    }
  }
  const result_t r = Parse(text, out, error);
  if (ORO_FAILED(r)) error = path + ": " + error;
  return r;
}

const RuleDescriptions* LumraPortsFile::RulesFor(const std::string& hostType) const {
  const auto it = m_hostTypes.find(hostType);
  return it == m_hostTypes.end() ? nullptr : &it->second;
}

}  // namespace qel::firewall
