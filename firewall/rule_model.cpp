#include "firewall/rule_model.h"

namespace qel::firewall {

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
void AppendRulePart(std::string& line, const Change& change) {
  if (!change.match.empty()) line.append(" ").append(change.match);
  if (!change.target.empty()) line.append(change.isGoto ? " -g " : " -j ").append(change.target);
}

// Appends rather than returns: a first install writes tens of thousands of
// lines into one script.
void AppendChangeLine(std::string& line, const Change& change) {
  switch (change.kind) {
    case ChangeKind::SetPolicy:
      line.append("-P ").append(change.chain).append(" ").append(change.target);
      return;
    case ChangeKind::AddRule:
      if (change.position == -1) {
        line.append("-A ").append(change.chain);
      } else {
        line.append("-I ").append(change.chain).append(" ").append(std::to_string(change.position));
      }
      AppendRulePart(line, change);
      return;
    case ChangeKind::CreateChain:
      line.append(":").append(change.chain).append(" - [0:0]");
      return;
    case ChangeKind::DeleteRule:
      line.append("-D ").append(change.chain);
      AppendRulePart(line, change);
      return;
    case ChangeKind::FlushChain:
      line.append("-F ").append(change.chain);
      return;
    case ChangeKind::DeleteChain:
      line.append("-X ").append(change.chain);
      return;
  }
}

}  // namespace

std::string ChangeLine(const Change& change) {
  std::string line;
  AppendChangeLine(line, change);
  return line;
}

std::string RestoreScript(const std::string& table, const ChangeList& changes) {
  std::string script = "*" + table + "\n";
  for (const auto& change : changes) {
    AppendChangeLine(script, change);
    script += '\n';
  }
  script += "COMMIT\n";
  return script;
}

}  // namespace qel::firewall
