#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

namespace qel::host {

inline constexpr const char* kDefaultStateDir = "/var/lib/firewall-host";

struct RunOptions {
  std::string settingsPath;
  std::string modulePath;                 // libfirewall.so
  std::uint32_t traceLevel = 700;         // messages up to this level are written
  std::optional<std::string> traceFile;   // standard error when absent
  double timerSpeedup = 1.0;              // divides the module's timer periods
  std::string controlPath;                // the control socket
  std::string stateDir = kDefaultStateDir;  // the module's persistent storage
};

// firewall-host run SETTINGS.ini
//
// Loads the module through its exports, gives it the framework services,
// starts the firewall task with the settings and runs until SIGINT or
// SIGTERM; then stops the task and releases every object, which removes the
// module's rules. SIGHUP re-reads the settings file (a bad file is reported
// and the rules in force stay); SIGUSR1 runs the due poll at once. Requests
// on the control socket are answered while the task runs. The module's
// persistent storage is kept under the state directory; a file there that
// cannot be read is reported and moved aside, and the firewall still
// starts. Events go to `events` as one JSON object per line. Returns the
// exit code.
int RunFirewall(const RunOptions& options, std::ostream& events, std::ostream& err);

}  // namespace qel::host
