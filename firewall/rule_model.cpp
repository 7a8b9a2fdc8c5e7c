#include "firewall/rule_model.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace qel::firewall {

// Fills a block word by word, in order.
class Tokens::Writer {
 public:
  explicit Writer(Tokens& tokens)
      : m_ends(const_cast<std::uint32_t*>(tokens.m_block.get())),
        m_letters(const_cast<char*>(tokens.Letters())) {}
  void Add(std::string_view word) noexcept {
    std::copy(word.begin(), word.end(), m_letters + m_at);
    m_at += static_cast<std::uint32_t>(word.size());
    *m_ends++ = m_at;
  }

 private:
  std::uint32_t* m_ends;
  char* m_letters;
  std::uint32_t m_at = 0;
};

namespace {

std::uint32_t Count(std::size_t n) {
  if (n > UINT32_MAX) throw std::length_error("too many words in a rule");
  return static_cast<std::uint32_t>(n);
}

template <class Words>
std::size_t LettersOf(const Words& words) {
  std::size_t letters = 0;
  for (const auto& word : words) letters += std::string_view(word).size();
  return letters;
}

}  // namespace

// One allocation holds the reference count, where each word ends and the
// letters, which follow as whole 32-bit units.
Tokens::Tokens(std::size_t size, std::size_t letters)
    : m_block(size == 0 ? nullptr : std::make_shared<std::uint32_t[]>(size + (letters + 3) / 4)),
      m_size(Count(size)),
      m_letters(Count(letters)) {}

Tokens::Tokens(std::initializer_list<std::string_view> tokens) : Tokens(tokens.size(), LettersOf(tokens)) {
  Writer writer(*this);
  for (const auto token : tokens) writer.Add(token);
}

Tokens::Tokens(const std::vector<std::string>& tokens) : Tokens(tokens.size(), LettersOf(tokens)) {
  Writer writer(*this);
  for (const auto& token : tokens) writer.Add(token);
}

bool operator==(const Tokens& a, const Tokens& b) noexcept {
  if (a.m_size != b.m_size || a.m_letters != b.m_letters) return false;
  if (a.m_block == b.m_block) return true;
  return std::memcmp(a.m_block.get(), b.m_block.get(), a.m_size * sizeof(std::uint32_t) + a.m_letters) == 0;
}

Tokens Concat(const Tokens& first, const Tokens& second) {
  if (second.empty()) return first;
  if (first.empty()) return second;
  Tokens both(first.size() + second.size(), std::size_t{first.m_letters} + second.m_letters);
  Tokens::Writer writer(both);
  for (const auto token : first) writer.Add(token);
  for (const auto token : second) writer.Add(token);
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
  const std::size_t letters = text.size() - static_cast<std::size_t>(std::count(text.begin(), text.end(), ' '));
  Tokens tokens(count, letters);
  Tokens::Writer writer(tokens);
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t start = text.find_first_not_of(' ', pos);
    if (start == std::string_view::npos) break;
    const std::size_t end = std::min(text.find(' ', start), text.size());
    writer.Add(text.substr(start, end - start));
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
