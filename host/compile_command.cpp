#include "host/compile_command.h"

#include <sstream>
#include <vector>

#include "host/settings_ini.h"

namespace qel::host {
namespace {

void PrintRules(std::ostream& out, const std::string& heading, const std::vector<firewall::Rule>& rules) {
  out << "# " << heading << '\n';
  for (const auto& rule : rules) out << firewall::RuleText(rule) << '\n';
}

}  // namespace

int RunCompileCommand(const std::string& settingsPath, std::optional<types::IPAddressFamily::Type> family,
                      std::ostream& out, std::ostream& err) {
  std::vector<types::IPAddressFamily::Type> families{types::IPAddressFamily::IPv4, types::IPAddressFamily::IPv6};
  if (family) families = {*family};
  std::ostringstream text;
  try {
    const LoadedSettings loaded = LoadSettingsFile(settingsPath);
    for (auto f : families) {
      // The compile command does not probe the kernel: it shows the rules
      // of a kernel whose conntrack match tells connection directions apart.
      const auto rules = CompileFamily(loaded, f, true);
      const std::string name = settings::EnumToString(f);
      PrintRules(text, name + " incoming", rules.incoming);
      PrintRules(text, name + " outgoing", rules.outgoing);
    }
  } catch (const SettingsError& e) {
    err << "firewall-host: " << settingsPath << ": " << e.what() << '\n';
    return 2;
  }
  out << text.str();
  return 0;
}

}  // namespace qel::host
