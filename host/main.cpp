// firewall-host: the reference host of the firewall module.
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "host/compile_command.h"

namespace {

constexpr const char* kUsage =
    "usage:\n"
    "  firewall-host compile SETTINGS.ini [--family ipv4|ipv6]\n"
    "      print the rules the module would install, without touching the kernel\n";

int UsageError(const std::string& message) {
  std::cerr << "firewall-host: " << message << "\n" << kUsage;
  return 64;
}

int Compile(const std::vector<std::string>& args) {
  std::optional<std::string> path;
  std::optional<qel::types::IPAddressFamily::Type> family;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--family") {
      if (i + 1 >= args.size()) return UsageError("--family needs ipv4 or ipv6");
      const std::string& value = args[++i];
      if (value == "ipv4") {
        family = qel::types::IPAddressFamily::IPv4;
      } else if (value == "ipv6") {
        family = qel::types::IPAddressFamily::IPv6;
      } else {
        return UsageError("--family needs ipv4 or ipv6, not '" + value + "'");
      }
    } else if (!path && args[i].rfind("--", 0) != 0) {
      path = args[i];
    } else {
      return UsageError("unexpected argument '" + args[i] + "'");
    }
  }
  if (!path) return UsageError("compile needs a settings file");
  return qel::host::RunCompileCommand(*path, family, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return UsageError("no command given");
  const std::string command = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "compile") return Compile(args);
  if (command == "--help" || command == "-h" || command == "help") {
    std::cout << kUsage;
    return 0;
  }
  return UsageError("unknown command '" + command + "'");
}
