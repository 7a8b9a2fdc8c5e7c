// firewall-host: the reference host of the firewall module.
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "host/compile_command.h"
#include "host/control_socket.h"
#include "host/ctl_command.h"
#include "host/loaded_module.h"
#include "host/run_command.h"

namespace {

constexpr const char* kUsage =
    "usage:\n"
    "  firewall-host compile SETTINGS.ini [--family ipv4|ipv6]\n"
    "      print the rules the module would install, without touching the kernel\n"
    "  firewall-host run SETTINGS.ini [--trace-level N] [--trace-file FILE]\n"
    "                    [--timer-speedup X] [--module PATH] [--control PATH]\n"
    "                    [--state-dir DIR]\n"
    "      load the module and enforce the settings until SIGINT or SIGTERM;\n"
    "      SIGHUP re-reads the settings, SIGUSR1 runs the integrity poll now;\n"
    "      events are printed as JSON lines; requests are answered on the\n"
    "      control socket (default /run/firewall-host/control.sock); the module's\n"
    "      state is kept under DIR (default /var/lib/firewall-host)\n"
    "  firewall-host ctl [--control PATH] 'JSON'\n"
    "      send one request to a running host and print its reply; exits 0\n"
    "      when it was done, 1 when refused, 2 when the host cannot be reached\n"
    "      e.g. firewall-host ctl '{\"cmd\":\"status\"}' (see docs/host.md)\n";

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

bool ParseNumber(const std::string& text, double& out) {
  try {
    std::size_t used = 0;
    out = std::stod(text, &used);
    return used == text.size() && out > 0;
  } catch (const std::exception&) {
    return false;
  }
}

int Run(const std::vector<std::string>& args) {
  qel::host::RunOptions options;
  options.modulePath = qel::host::DefaultModulePath();
  options.controlPath = qel::host::kDefaultControlPath;
  std::optional<std::string> path;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const bool hasValue = i + 1 < args.size();
    double number = 0;
    if (arg == "--trace-level" && hasValue && ParseNumber(args[i + 1], number)) {
      options.traceLevel = static_cast<std::uint32_t>(number);
      ++i;
    } else if (arg == "--trace-file" && hasValue) {
      options.traceFile = args[++i];
    } else if (arg == "--timer-speedup" && hasValue && ParseNumber(args[i + 1], number)) {
      options.timerSpeedup = number;
      ++i;
    } else if (arg == "--module" && hasValue) {
      options.modulePath = args[++i];
    } else if (arg == "--control" && hasValue) {
      options.controlPath = args[++i];
    } else if (arg == "--state-dir" && hasValue) {
      options.stateDir = args[++i];
    } else if (!path && arg.rfind("--", 0) != 0) {
      path = arg;
    } else {
      return UsageError("bad argument '" + arg + "'");
    }
  }
  if (!path) return UsageError("run needs a settings file");
  options.settingsPath = *path;
  return qel::host::RunFirewall(options, std::cout, std::cerr);
}

int Ctl(const std::vector<std::string>& args) {
  std::string controlPath = qel::host::kDefaultControlPath;
  std::optional<std::string> request;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--control") {
      if (i + 1 >= args.size()) return UsageError("--control needs the socket's path");
      controlPath = args[++i];
    } else if (!request) {
      request = args[i];
    } else {
      return UsageError("unexpected argument '" + args[i] + "'");
    }
  }
  if (!request) return UsageError("ctl needs a request, e.g. '{\"cmd\":\"status\"}'");
  return qel::host::RunCtlCommand(controlPath, *request, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return UsageError("no command given");
  const std::string command = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "compile") return Compile(args);
  if (command == "run") return Run(args);
  if (command == "ctl") return Ctl(args);
  if (command == "--help" || command == "-h" || command == "help") {
    std::cout << kUsage;
    return 0;
  }
  return UsageError("unknown command '" + command + "'");
}
