#include "firewall/rule_model.h"
#include <algorithm>

namespace qel::firewall {

std::string JoinTokens(const Tokens& tokens) {
  std::string text;
  for (const auto& token : tokens) {
    if (!text.empty()) text += ' ';
    text += token;
  }
  return text;
}

Tokens SplitTokens(std::string_view text) {
  // Sized once: this runs for every rule the compiler and the parser build.
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != ' ' && (i == 0 || text[i - 1] == ' ')) ++count;
  }
  Tokens tokens;
  tokens.reserve(count);
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t start = text.find_first_not_of(' ', pos);
    if (start == std::string_view::npos) break;
    const std::size_t end = std::min(text.find(' ', start), text.size());
    tokens.emplace_back(text.substr(start, end - start));
    pos = end;
  }
  return tokens;
}

std::string RuleText(const Rule& rule) {
  if (rule.isPolicy) return JoinTokens(rule.target);
  std::string text = JoinTokens(rule.match);
  if (!rule.target.empty()) {
    if (!text.empty()) text += ' ';
    text += rule.isGoto ? "-g " : "-j ";
    text += JoinTokens(rule.target);
  }
  if (!rule.tag.empty()) text += " tag " + rule.tag;
  if (!rule.ruleItem.empty()) text += " " + rule.ruleItem;
  if (!rule.ruleName.empty()) text += " name " + rule.ruleName;
  if (!rule.zoneName.empty()) text += " zone " + rule.zoneName;
  return text;
}

namespace {

// " <match> -j <target>": the part of an add or delete line after the chain.
std::string RulePart(const Change& change) {
  std::string part;
  if (!change.match.empty()) part += " " + change.match;
  if (!change.target.empty()) part += (change.isGoto ? " -g " : " -j ") + change.target;
  return part;
}

}  // namespace

std::string ChangeLine(const Change& change) {
  switch (change.kind) {
    case ChangeKind::SetPolicy:
      return "-P " + change.chain + " " + change.target;
    case ChangeKind::AddRule:
      if (change.position == -1) return "-A " + change.chain + RulePart(change);
      return "-I " + change.chain + " " + std::to_string(change.position) + RulePart(change);
    case ChangeKind::CreateChain:
      return ":" + change.chain + " - [0:0]";
    case ChangeKind::DeleteRule:
      return "-D " + change.chain + RulePart(change);
    case ChangeKind::FlushChain:
      return "-F " + change.chain;
    case ChangeKind::DeleteChain:
      return "-X " + change.chain;
  }
  return "";
}

std::string RestoreScript(const std::string& table, const ChangeList& changes) {
  std::string script = "*" + table + "\n";
  for (const auto& change : changes) script += ChangeLine(change) + "\n";
  script += "COMMIT\n";
  return script;
}

}  // namespace qel::firewall
