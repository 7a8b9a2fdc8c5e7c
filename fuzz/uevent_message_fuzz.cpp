// Arbitrary bytes as a datagram from the kernel's uevent group. The socket
// is open to the multicast group, so anything may arrive: nothing may crash
// or read out of bounds, and what is accepted must be well formed.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "firewall/uevent_message.h"

using qel::firewall::Uevent;
using qel::firewall::UeventMessage;

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view datagram(reinterpret_cast<const char*>(data), size);
  Uevent uevent{"untouched", "/untouched", {}};
  std::string problem;
  const oro::result_t r = UeventMessage::Parse(datagram, uevent, problem);
  if (r != oro::errOk) {
    // Refused or skipped: the event is as it was; a refusal says why.
    Require(uevent.action == "untouched" && uevent.devpath == "/untouched" && uevent.variables.empty());
    Require(r == oro::errFalse ? problem.empty() : (r == oro::errInvalidArgument && !problem.empty()));
    return 0;
  }
  Require(!uevent.action.empty() && uevent.devpath.starts_with('/'));
  Require(uevent.action.find_first_of(std::string_view("@\0", 2)) == std::string::npos);
  std::size_t bytes = uevent.action.size() + 1 + uevent.devpath.size();
  for (const auto& [key, value] : uevent.variables) {
    Require(!key.empty() && key.find('=') == std::string::npos && key.find('\0') == std::string::npos);
    Require(value.find('\0') == std::string::npos);
    bytes += key.size() + 1 + value.size() + 1;
  }
  Require(bytes <= size + 1);  // the last entry may lack its NUL
  return 0;
}
