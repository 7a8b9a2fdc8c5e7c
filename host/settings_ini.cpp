#include "host/settings_ini.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <algorithm>
#include <cctype>
#include <fstream>
#include <set>
#include <sstream>

#include "host/ostra_port_text.h"
#include "host/server_address_text.h"
#include "qel_common/string_conv.h"

namespace qel::host {
namespace {

namespace pt = boost::property_tree;
using settings::PacketRuleAction;
using settings::PacketRuleDirection;
using settings::PacketRuleProtocol;

constexpr const char* kRulePrefix = "rule ";

[[noreturn]] void Fail(const std::string& section, const std::string& key, const std::string& reason) {
  throw SettingsError((section.empty() ? "" : "[" + section + "] ") + (key.empty() ? "" : key + ": ") + reason);
}

// Drops "; comment" and "# comment" tails: a comment marker counts only
// after a blank, so "10.0.0.0/8;fd00::/8" stays one list.
std::string StripInlineComments(const std::string& text) {
  std::istringstream in(text);
  std::string out;
  for (std::string line; std::getline(in, line);) {
    for (std::size_t i = 1; i < line.size(); ++i) {
      if ((line[i] == ';' || line[i] == '#') && (line[i - 1] == ' ' || line[i - 1] == '\t')) {
        line.erase(i);
        break;
      }
    }
    out += line + '\n';
  }
  return out;
}

template <class E>
E ParseEnum(const std::string& section, const std::string& key, const std::string& value,
            std::initializer_list<const char*> names) {
  E result{};
  if (!settings::EnumFromString(value, result)) {
    Fail(section, key, "'" + value + "' is not one of " + boost::algorithm::join(std::vector<std::string>(names.begin(), names.end()), ", "));
  }
  return result;
}

PacketRuleAction ParseAction(const std::string& section, const std::string& key, const std::string& value) {
  return ParseEnum<PacketRuleAction>(section, key, value, {"Allow", "Block"});
}

bool ParseBool(const std::string& section, const std::string& key, const std::string& value) {
  if (value == "true") return true;
  if (value == "false") return false;
  Fail(section, key, "'" + value + "' is not one of true, false");
}

// "a; b;;c" -> {a, b, c}
std::vector<oro::string16_t> ParseList(const std::string& value) {
  std::vector<oro::string16_t> items;
  std::istringstream in(value);
  for (std::string item; std::getline(in, item, ';');) {
    boost::algorithm::trim(item);
    if (!item.empty()) items.push_back(tools::ToUtf16(item));
  }
  return items;
}

// The module splits address lists at ";" only and reads a blank as part of
// the address; an INI writer puts blanks after separators as in the zone
// lists, so they are dropped here. Empty items stay: the module gives them
// their meaning.
std::string JoinTrimmedAddressList(const std::string& value) {
  std::vector<std::string> items;
  boost::algorithm::split(items, value, [](char c) { return c == ';'; });
  for (auto& item : items) boost::algorithm::trim(item);
  return boost::algorithm::join(items, ";");
}

void RejectUnknownKeys(const std::string& section, const pt::ptree& keys, const std::set<std::string>& known) {
  for (const auto& [key, value] : keys) {
    if (!value.empty()) Fail(section, key, "unexpected subsection");
    if (!known.count(key)) {
      Fail(section, key, "unknown key (expected one of " + boost::algorithm::join(known, ", ") + ")");
    }
  }
}

void ReadGlobalSettings(const pt::ptree& keys, settings::FirewallSettings& out) {
  const std::string section = "settings";
  RejectUnknownKeys(section, keys,
                    {"defaultIncomingAction", "defaultIncomingPacketAction", "openOstraPorts", "networkZonesTrusted",
                     "networkZonesLocal", "networkZonesPublic"});
  for (const auto& [key, node] : keys) {
    const std::string value = boost::algorithm::trim_copy(node.data());
    if (key == "defaultIncomingAction") out.defaultIncomingAction = ParseAction(section, key, value);
    if (key == "defaultIncomingPacketAction") out.defaultIncomingPacketAction = ParseAction(section, key, value);
    if (key == "openOstraPorts") out.openOstraPorts = ParseBool(section, key, value);
    if (key == "networkZonesTrusted") out.networkZonesTrusted = ParseList(value);
    if (key == "networkZonesLocal") out.networkZonesLocal = ParseList(value);
    if (key == "networkZonesPublic") out.networkZonesPublic = ParseList(value);
  }
}

// "15000/tcp/in; 13000/tcp/inout": list elements as in the zone lists.
firewall::OstraPortList ReadAgentSection(const pt::ptree& keys) {
  const std::string section = "agent";
  RejectUnknownKeys(section, keys, {"ports"});
  firewall::OstraPortList ports;
  const std::string value = keys.get<std::string>("ports", "");
  std::vector<std::string> items;
  boost::algorithm::split(items, value, [](char c) { return c == ';'; });
  for (auto& item : items) {
    boost::algorithm::trim(item);
    if (item.empty()) continue;
    const auto port = ParseOstraPort(item);
    if (!port) Fail(section, "ports", port.ErrorText());
    ports.push_back(port.Value());
  }
  return ports;
}

// Names as the module's exclusion data writes them.
std::string ReadLumraSection(const pt::ptree& keys) {
  const std::string section = "lumra";
  RejectUnknownKeys(section, keys, {"hostType"});
  const auto hostType = keys.get_optional<std::string>("hostType");
  if (!hostType) Fail(section, "hostType", "missing (it is required)");
  const std::string name = boost::algorithm::trim_copy(*hostType);
  const bool wellFormed = !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '_' || c == '.';
  });
  if (!wellFormed) Fail(section, "hostType", "'" + name + "' is not a name of letters, digits, '-', '_' and '.'");
  return name;
}

// "a, b; c" -> {a, b, c}: either separator, blanks around items dropped.
std::vector<std::string> SplitServerList(const std::string& value) {
  std::vector<std::string> items;
  boost::algorithm::split(items, value, [](char c) { return c == ',' || c == ';'; });
  for (auto& item : items) boost::algorithm::trim(item);
  std::erase_if(items, [](const std::string& item) { return item.empty(); });
  return items;
}

std::string ReadServer(const std::string& section, const std::string& key, const std::string& value) {
  if (value.empty()) return value;
  if (auto problem = ServerAddressProblem(value)) Fail(section, key, *problem);
  return value;
}

std::vector<std::string> ReadServerList(const std::string& section, const std::string& key, const std::string& value) {
  std::vector<std::string> servers = SplitServerList(value);
  for (const auto& server : servers) ReadServer(section, key, server);
  return servers;
}

std::vector<std::string> ReadBackends(const std::string& section, const std::string& key, const std::string& value) {
  const std::vector<std::string> known = IsolationSettings{}.backends;
  std::vector<std::string> backends = SplitServerList(value);
  if (backends.empty()) Fail(section, key, "empty (name at least one of " + boost::algorithm::join(known, ", ") + ")");
  for (auto it = backends.begin(); it != backends.end(); ++it) {
    if (std::find(known.begin(), known.end(), *it) == known.end()) {
      Fail(section, key, "'" + *it + "' is not one of " + boost::algorithm::join(known, ", "));
    }
    if (std::find(backends.begin(), it, *it) != it) Fail(section, key, "'" + *it + "' is named twice");
  }
  return backends;
}

IsolationSettings ReadIsolationSection(const pt::ptree& keys) {
  const std::string section = "isolation";
  RejectUnknownKeys(section, keys,
                    {"managementServer", "tamberServers", "lumraIntegrationServer", "lumraSecurityMachines",
                     "cloudProxyTcp", "cloudProxyHttps", "cloudDiscoveryUrl", "cloudRoutes", "industrialServers",
                     "backends"});
  IsolationSettings out;
  for (const auto& [key, node] : keys) {
    const std::string value = boost::algorithm::trim_copy(node.data());
    if (key == "managementServer") out.managementServer = ReadServer(section, key, value);
    if (key == "tamberServers") out.tamberServers = ReadServerList(section, key, value);
    if (key == "lumraIntegrationServer") out.lumraIntegrationServer = ReadServer(section, key, value);
    if (key == "lumraSecurityMachines") out.lumraSecurityMachines = ReadServerList(section, key, value);
    if (key == "cloudProxyTcp") out.cloudProxyTcp = ReadServer(section, key, value);
    if (key == "cloudProxyHttps") out.cloudProxyHttps = ReadServer(section, key, value);
    if (key == "cloudRoutes") out.cloudRoutes = ReadServerList(section, key, value);
    if (key == "industrialServers") out.industrialServers = ReadServerList(section, key, value);
    if (key == "backends") out.backends = ReadBackends(section, key, value);
    if (key == "cloudDiscoveryUrl" && !value.empty()) {
      if (auto problem = DiscoveryUrlProblem(value)) Fail(section, key, *problem);
      out.cloudDiscoveryUrl = value;
    }
  }
  return out;
}

settings::PacketRule ReadRule(const std::string& section, const pt::ptree& keys) {
  RejectUnknownKeys(section, keys,
                    {"name", "action", "direction", "protocol", "remotePorts", "localPorts", "icmpType", "icmpCode",
                     "remoteAddress", "localAddress", "doLogAttempts"});
  for (const char* required : {"action", "direction"}) {
    if (keys.find(required) == keys.not_found()) Fail(section, required, "missing (it is required)");
  }
  settings::PacketRule rule;
  rule.name = tools::ToUtf16(section.substr(std::string(kRulePrefix).size()));
  for (const auto& [key, node] : keys) {
    const std::string value = boost::algorithm::trim_copy(node.data());
    const auto text = [&] { return tools::ToUtf16(value); };
    if (key == "name") rule.name = text();
    if (key == "action") rule.action = ParseAction(section, key, value);
    if (key == "direction") {
      rule.direction = ParseEnum<PacketRuleDirection>(
          section, key, value,
          {"IncomingOutgoing", "Incoming", "Outgoing", "IncomingOutgoingPacket", "IncomingPacket", "OutgoingPacket"});
    }
    if (key == "protocol") {
      rule.protocol =
          ParseEnum<PacketRuleProtocol>(section, key, value, {"Any", "ICMP", "IGMP", "TCP", "UDP", "GRE", "ICMPv6"});
    }
    if (key == "remotePorts") rule.remotePorts = text();
    if (key == "localPorts") rule.localPorts = text();
    if (key == "icmpType") rule.icmpType = text();
    if (key == "icmpCode") rule.icmpCode = text();
    if (key == "remoteAddress") rule.remoteAddress = tools::ToUtf16(JoinTrimmedAddressList(value));
    if (key == "localAddress") rule.localAddress = tools::ToUtf16(JoinTrimmedAddressList(value));
    if (key == "doLogAttempts") rule.doLogAttempts = ParseBool(section, key, value);
  }
  return rule;
}

// The section and key that hold a field named by the rule compiler.
std::string SectionOfCompileError(const firewall::RuleCompileError& e, const LoadedSettings& loaded) {
  if (e.RuleIndex() < loaded.ruleSections.size()) return loaded.ruleSections[e.RuleIndex()];
  return "settings";
}

}  // namespace

LoadedSettings ParseSettingsIni(std::istream& in) {
  std::stringstream cleaned(StripInlineComments(std::string(std::istreambuf_iterator<char>(in), {})));
  pt::ptree tree;
  try {
    pt::ini_parser::read_ini(cleaned, tree);
  } catch (const pt::ini_parser_error& e) {
    throw SettingsError("line " + std::to_string(e.line()) + ": " + e.message());
  }
  LoadedSettings loaded;
  for (const auto& [section, keys] : tree) {
    if (section == "settings") {
      ReadGlobalSettings(keys, loaded.settings);
    } else if (section == "agent") {
      loaded.agentPorts = ReadAgentSection(keys);
    } else if (section == "lumra") {
      loaded.lumraHostType = ReadLumraSection(keys);
    } else if (section == "isolation") {
      loaded.isolation = ReadIsolationSection(keys);
    } else if (boost::algorithm::starts_with(section, kRulePrefix) && section.size() > std::string(kRulePrefix).size()) {
      loaded.settings.packetRules.push_back(ReadRule(section, keys));
      loaded.ruleSections.push_back(section);
    } else if (keys.empty() && !keys.data().empty()) {
      Fail("", section, "key outside of any section");
    } else {
      Fail(section, "", "unknown section (expected [settings], [agent], [lumra], [isolation] or [rule NAME])");
    }
  }
  return loaded;
}

LoadedSettings LoadSettingsFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw SettingsError(path + ": cannot be read");
  try {
    return ParseSettingsIni(in);
  } catch (const SettingsError& e) {
    throw SettingsError(path + ": " + e.what());
  }
}

firewall::CompiledRules CompileFamily(const LoadedSettings& loaded, types::IPAddressFamily::Type family,
                                      bool suitableConntrack) {
  try {
    return firewall::CompileRules(loaded.settings, family, suitableConntrack);
  } catch (const firewall::RuleCompileError& e) {
    Fail(SectionOfCompileError(e, loaded), e.Field(), "'" + e.Value() + "': " + e.Reason());
  }
}

void ValidateRuleFields(const LoadedSettings& loaded) {
  for (auto family : {types::IPAddressFamily::IPv4, types::IPAddressFamily::IPv6}) CompileFamily(loaded, family, true);
}

}  // namespace qel::host
