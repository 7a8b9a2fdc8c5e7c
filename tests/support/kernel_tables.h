// Looking at and changing the kernel's packet filter with the real iptables
// tools, for tests that run inside a network namespace of their own (see
// netns.h). Nothing here may run in the machine's own namespace.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "qel_common/secure_spawn.h"

namespace qel::test {

// Runs a tool that must succeed and returns its output; throws with its
// report otherwise.
inline std::string RunToolOk(std::vector<std::string> argv) {
  tools::SpawnContext context;
  tools::InitSpawnContext(context, std::move(argv));
  context.output.emplace();
  context.errorOutput.emplace();
  if (oro::Failed(tools::SecureSpawn(context)) || context.exitCode != 0) {
    throw std::runtime_error(tools::SpawnReport(context));
  }
  return *context.output;
}

// What the save tools print of every table of both families, without what
// differs between two saves of the same rules: the comment lines (dates,
// versions, warnings about the other backend) and the packet and byte
// counters.
inline std::string SaveAllTables() {
  static const std::regex kCounters(R"( ?\[\d+:\d+\])");
  std::string kept;
  for (const char* tool : {"iptables-save", "ip6tables-save"}) {
    std::istringstream lines(RunToolOk({tool}));
    kept += std::string("## ") + tool + "\n";
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line.front() != '#') kept += std::regex_replace(line, kCounters, "") + "\n";
    }
  }
  return kept;
}

// Each table of both families that exists, by "<save tool> <table>", with
// its lines from "*<table>" to "COMMIT" as SaveAllTables keeps them. Reading
// them creates nothing.
inline std::map<std::string, std::string> SavedTables() {
  std::map<std::string, std::string> tables;
  std::istringstream lines(SaveAllTables());
  std::string tool, table;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("## ", 0) == 0) tool = line.substr(3);
    if (line.rfind("*", 0) == 0) table = tool + " " + line.substr(1);
    if (!table.empty()) tables[table] += line + "\n";
    if (line == "COMMIT") table.clear();
  }
  return tables;
}

// A table holds nothing when it has only built-in chains, each accepting,
// and no rules.
inline bool IsEmptyTable(const std::string& saved) {
  std::istringstream lines(saved);
  for (std::string line; std::getline(lines, line);) {
    const bool acceptingChain = line.size() > 1 && line.front() == ':' && line.find(" ACCEPT") != std::string::npos;
    if (!acceptingChain && line.front() != '*' && line != "COMMIT") return false;
  }
  return true;
}

// What became of the tables since `before` (both from SavedTables):
// "as before", or the tables that changed, came or went; tables that came
// into being empty are only named.
inline std::string TablesSince(const std::map<std::string, std::string>& before,
                               const std::map<std::string, std::string>& after) {
  std::string changed, newEmpty;
  for (const auto& [name, saved] : after) {
    const auto earlier = before.find(name);
    if (earlier == before.end() && IsEmptyTable(saved)) {
      newEmpty += " " + name + ",";
    } else if (earlier == before.end() || earlier->second != saved) {
      changed += "changed " + name + ":\n" + saved;
    }
  }
  for (const auto& [name, saved] : before) {
    if (!after.count(name)) changed += "gone " + name + "\n";
  }
  if (!newEmpty.empty()) newEmpty = ", new and empty:" + newEmpty.substr(0, newEmpty.size() - 1);
  return changed.empty() ? "as before" + newEmpty : changed + newEmpty;
}

// Every line of every table of both families that names one of the
// module's chains, as "<save tool> <table> <line>", sorted: where the
// module's rules stand, whichever order the backend lists chains in.
inline std::string ModuleLines() {
  std::vector<std::string> found;
  for (const auto& [table, saved] : SavedTables()) {
    std::istringstream lines(saved);
    for (std::string line; std::getline(lines, line);) {
      if (line.find("vorn_") != std::string::npos) found.push_back(table + " " + line);
    }
  }
  std::sort(found.begin(), found.end());
  std::string text;
  for (const auto& line : found) text += line + "\n";
  return text;
}

// Creates each table of both families, empty, as a host on which other
// programs use them.
inline void CreateAllTables() {
  for (const char* tool : {"iptables", "ip6tables"}) {
    for (const char* table : {"filter", "mangle", "nat"}) {
      RunToolOk({tool, "-t", table, "-N", "test_probe"});
      RunToolOk({tool, "-t", table, "-X", "test_probe"});
    }
  }
}

// The packet count of the first rule of `chain` whose listing holds
// `fragment`; throws when there is none.
inline std::uint64_t PacketsOf(const std::string& tool, const std::string& table, const std::string& chain,
                               const std::string& fragment) {
  static const std::regex kCounter(R"( -c (\d+) \d+)");
  std::istringstream lines(RunToolOk({tool, "-t", table, "-S", chain, "-v"}));
  for (std::string line; std::getline(lines, line);) {
    std::smatch counter;
    if (line.find(fragment) != std::string::npos && std::regex_search(line, counter, kCounter)) {
      return std::stoull(counter[1]);
    }
  }
  throw std::runtime_error("no rule with '" + fragment + "' in " + table + " " + chain);
}

// `iptables -S` of one chain of the IPv4 filter table.
inline std::string ListChain(const std::string& chain) { return RunToolOk({"iptables", "-t", "filter", "-S", chain}); }

// Both families' filter tables, as the module sees them.
inline std::string ListFilterTables() {
  return "## iptables\n" + RunToolOk({"iptables", "-t", "filter", "-S"}) + "## ip6tables\n" +
         RunToolOk({"ip6tables", "-t", "filter", "-S"});
}

// How many lines of `listing` begin with `prefix`.
inline std::size_t CountLines(const std::string& listing, const std::string& prefix) {
  std::istringstream lines(listing);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line);) count += line.rfind(prefix, 0) == 0 ? 1 : 0;
  return count;
}

}  // namespace qel::test
