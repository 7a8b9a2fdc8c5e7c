#include "firewall/uevent_message.h"

#include <algorithm>
#include <utility>

namespace qel::firewall {
namespace {

constexpr std::string_view kUdevPrefix("libudev\0", 8);

// The text of an entry for a message: printable and short, whatever it holds.
std::string Quoted(std::string_view text) {
  constexpr std::size_t kShown = 64;
  std::string quoted = "'";
  for (const char c : text.substr(0, kShown)) quoted += (c >= 0x20 && c < 0x7f) ? c : '?';
  return quoted + (text.size() > kShown ? "...'" : "'");
}

}  // namespace

oro::result_t UeventMessage::Parse(std::string_view datagram, Uevent& out, std::string& problem) {
  if (datagram.starts_with(kUdevPrefix)) return oro::errFalse;
  // Entries end with NUL; the last one may lack it.
  const std::size_t headerEnd = datagram.find('\0');
  Uevent event;
  if (!ParseHeader(datagram.substr(0, headerEnd), event, problem)) return oro::errInvalidArgument;
  std::size_t start = headerEnd == std::string_view::npos ? datagram.size() : headerEnd + 1;
  while (start < datagram.size()) {
    const std::size_t end = std::min(datagram.find('\0', start), datagram.size());
    const std::string_view entry = datagram.substr(start, end - start);
    if (!entry.empty() && !ParseVariable(entry, event, problem)) return oro::errInvalidArgument;
    start = end + 1;
  }
  out = std::move(event);
  return oro::errOk;
}

bool UeventMessage::ParseHeader(std::string_view header, Uevent& event, std::string& problem) {
  const std::size_t at = header.find('@');
  if (at == std::string_view::npos) {
    problem = "uevent header without '@' between action and path: " + Quoted(header);
    return false;
  }
  if (at == 0) {
    problem = "uevent header without an action: " + Quoted(header);
    return false;
  }
  const std::string_view devpath = header.substr(at + 1);
  if (!devpath.starts_with('/')) {
    problem = "uevent path does not begin with '/': " + Quoted(header);
    return false;
  }
  event.action = header.substr(0, at);
  event.devpath = devpath;
  return true;
}

bool UeventMessage::ParseVariable(std::string_view entry, Uevent& event, std::string& problem) {
  const std::size_t equals = entry.find('=');
  if (equals == std::string_view::npos || equals == 0) {
    problem = "uevent variable is not KEY=VALUE: " + Quoted(entry);
    return false;
  }
  event.variables.emplace_back(entry.substr(0, equals), entry.substr(equals + 1));
  return true;
}

}  // namespace qel::firewall
