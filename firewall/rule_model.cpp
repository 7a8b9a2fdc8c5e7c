#include "firewall/rule_model.h"
#include <algorithm>

namespace qel::firewall {

// One allocation holds the count, the reference and the strings.
Tokens::Tokens(std::size_t size)
    : m_items(size == 0 ? nullptr : std::make_shared<std::string[]>(size)), m_size(size) {}

Tokens::Tokens(std::initializer_list<std::string_view> tokens) : Tokens(tokens.size()) {
  std::string* slot = Slots();
  for (const auto token : tokens) (slot++)->assign(token);
}

Tokens::Tokens(const std::vector<std::string>& tokens) : Tokens(tokens.size()) {
  std::copy(tokens.begin(), tokens.end(), Slots());
}

Tokens::Tokens(std::vector<std::string>&& tokens) : Tokens(tokens.size()) {
  std::move(tokens.begin(), tokens.end(), Slots());
}

bool operator==(const Tokens& a, const Tokens& b) noexcept {
  return a.m_items == b.m_items ? a.m_size == b.m_size : std::equal(a.begin(), a.end(), b.begin(), b.end());
}

Tokens Concat(const Tokens& first, const Tokens& second) {
  if (second.empty()) return first;
  if (first.empty()) return second;
  Tokens both(first.size() + second.size());
  std::copy(second.begin(), second.end(), std::copy(first.begin(), first.end(), both.Slots()));
  return both;
}

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
  Tokens tokens(count);
  std::string* slot = tokens.Slots();
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t start = text.find_first_not_of(' ', pos);
    if (start == std::string_view::npos) break;
    const std::size_t end = std::min(text.find(' ', start), text.size());
    (slot++)->assign(text.substr(start, end - start));
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
