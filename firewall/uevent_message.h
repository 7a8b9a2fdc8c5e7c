// One datagram of the kernel's uevent multicast group, read into a Uevent.
// The kernel sends "ACTION@DEVPATH\0KEY=VALUE\0KEY=VALUE\0..."; udev's
// re-broadcasts begin with "libudev\0" and a binary header instead, and are
// not the kernel's word: they are told apart and skipped.
#pragma once

#include <string>
#include <string_view>

#include "firewall/bridge_interfaces.h"
#include "oro/result.h"

namespace qel::firewall {

class UeventMessage {
 public:
  // errOk with `out` filled; errFalse for a udev datagram (out untouched);
  // errInvalidArgument for anything else, with `problem` saying what is
  // wrong and `out` untouched.
  static oro::result_t Parse(std::string_view datagram, Uevent& out, std::string& problem);

 private:
  static bool ParseHeader(std::string_view header, Uevent& event, std::string& problem);
  static bool ParseVariable(std::string_view entry, Uevent& event, std::string& problem);
};

}  // namespace qel::firewall
