// The exclusion data of the virtualisation mode: for each kind of host, the
// ports its infrastructure needs open. It ships as a text file beside the
// module so that the ports can change without a new build; its format is
// described in docs/lumra-ports.md.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "firewall/rule_description.h"
#include "oro/result.h"

namespace qel::firewall {

class LumraPortsFile {
 public:
  // Parses the file's text. On failure `error` names the line and what is
  // wrong with it, the result is errInvalidArgument and `out` is untouched.
  static oro::result_t Parse(std::string_view text, LumraPortsFile& out, std::string& error);
  // Reads and parses the file at `path`; an error names the file.
  static oro::result_t Read(const std::string& path, LumraPortsFile& out, std::string& error);

  // The rules of a host type; null when the file does not know the type.
  const RuleDescriptions* RulesFor(const std::string& hostType) const;

 private:
  std::unordered_map<std::string, RuleDescriptions> m_hostTypes;
};

}  // namespace qel::firewall
