// Looking at and changing the kernel's packet filter with the real iptables
// tools, for tests that run inside a network namespace of their own (see
// netns.h). Nothing here may run in the machine's own namespace.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "qel_common/secure_spawn.h"

namespace qel::test {


struct ToolRun {
  int exitCode = -1;
  std::string output;
  std::string error;
};

// Throws when the tool cannot be started at all.
inline ToolRun RunTool(std::vector<std::string> argv) {
  tools::SpawnContext context;
  tools::InitSpawnContext(context, std::move(argv));
  context.output.emplace();
  context.errorOutput.emplace();
  if (oro::Failed(tools::SecureSpawn(context)) || !context.exitCode) {
    throw std::runtime_error("cannot run " + tools::SpawnReport(context));
  }
  return {*context.exitCode, *context.output, *context.errorOutput};
}

// Runs a tool that must succeed; throws with its report otherwise.
inline std::string RunToolOk(std::vector<std::string> argv) {
  std::string command;
  for (const auto& arg : argv) command += arg + " ";
  ToolRun run = RunTool(std::move(argv));
  if (run.exitCode != 0) {
    throw std::runtime_error(command + "exited with " + std::to_string(run.exitCode) + ": " + run.error);
  }
  return run.output;
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
      if (line.empty() || line.front() == '#') continue;
      kept += std::regex_replace(line, kCounters, "") + "\n";
    }
  }
  return kept;
}

// `iptables -S` (or the IPv6 tool) of one table or one chain of it.
inline std::string ListRules(const char* tool, const std::string& table, const std::string& chain = "") {
  std::vector<std::string> argv{tool, "-t", table, "-S"};
  if (!chain.empty()) argv.push_back(chain);
  return RunToolOk(std::move(argv));
}

// Both families' filter tables, as the module sees them.
inline std::string ListFilterTables() {
  return "## iptables\n" + ListRules("iptables", "filter") + "## ip6tables\n" + ListRules("ip6tables", "filter");
}

// How many lines of `listing` equal `line`.
inline std::size_t CountLines(const std::string& listing, const std::string& line) {
  std::istringstream lines(listing);
  std::size_t count = 0;
  for (std::string each; std::getline(lines, each);) count += each == line ? 1 : 0;
  return count;
}

}  // namespace qel::test
