// Looking at and changing the kernel's packet filter with the real iptables
// tools, for tests that run inside a network namespace of their own (see
// netns.h). Nothing here may run in the machine's own namespace.
#pragma once

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
