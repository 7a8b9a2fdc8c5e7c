#include "firewall/iptables_output_parser.h"

#include <algorithm>
#include <array>
#include <new>
#include <string>

#include "firewall/chain_index.h"

#include "firewall/chain_layout.h"

namespace qel::firewall {
namespace {

constexpr std::string_view kLineWhitespace = " \t\n\r\f\v";
constexpr std::size_t kKindLength = 3;
constexpr std::string_view kPolicyKind = "-P ";
constexpr std::string_view kNewChainKind = "-N ";
constexpr std::string_view kAppendKind = "-A ";
constexpr std::string_view kJumpWord = "-j ";
constexpr std::string_view kGotoWord = "-g ";

// Some versions of the listing print the conntrack direction glued to the
// next option ("--ctdir REPLY-m comment"); "REPLY-" followed by one of these
// letters is split again.
constexpr std::string_view kGluedReply = "REPLY-";
constexpr std::string_view kGluedOptionLetters = "mj";

// Log readers filter on this exact prefix.
constexpr std::string_view kParseLineSignature =
    "result_t {anonymous}::ParseLine(oro::ITracer*, const string_view&, qel::firewall::State&)";

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kLineWhitespace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kLineWhitespace) - first + 1);
}

// Cuts the first line off `text`; what follows the last "\n" is a line too.
std::string_view TakeLine(std::string_view& text) {
  const std::size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return line;
}

oro::result_t Malformed(oro::ITracer* tracer, std::string_view line) {
  if (tracer && tracer->IsEnabled(oro::trace_level::Error)) {
    std::string text(kParseLineSignature);
    text.append(": Malformed ").append(line);
    tracer->Trace(oro::trace_level::Error, text.c_str());
  }
  return oro::errUnexpected;
}

// "-P INPUT ACCEPT" and "-A INPUT -j ACCEPT" name their chain between the
// kind and the next blank.
struct ChainLine {
  std::string_view chain;
  std::string_view rest;  // after the blank that ends the chain name
};

bool SplitChainLine(std::string_view line, ChainLine& out) {
  const std::size_t blank = line.find(' ', kKindLength);
  if (blank == std::string_view::npos) return false;
  out = {line.substr(kKindLength, blank - kKindLength), line.substr(blank + 1)};
  return true;
}

std::string SeparateGluedReply(std::string_view match) {
  std::string repaired;
  repaired.reserve(match.size() + 2);
  std::size_t copied = 0;
  for (std::size_t at = match.find(kGluedReply); at != std::string_view::npos;
       at = match.find(kGluedReply, at + kGluedReply.size())) {
    const std::size_t dash = at + kGluedReply.size() - 1;
    if (dash + 1 < match.size() && kGluedOptionLetters.find(match[dash + 1]) != std::string_view::npos) {
      repaired.append(match.substr(copied, dash - copied)).push_back(' ');
      copied = dash;
    }
  }
  repaired.append(match.substr(copied));
  return repaired;
}

// The blank before the jump word needs no removal of its own: tokenising
// drops it.
Tokens MatchTokens(std::string_view match) {
  if (match.find(kGluedReply) == std::string_view::npos) return SplitTokens(match);
  return SplitTokens(SeparateGluedReply(match));
}

// Whether `text` is `tokens` joined with single blanks.
bool Spells(const Tokens& tokens, std::string_view text) {
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    if (i > 0 && !text.starts_with(' ')) return false;
    if (i > 0) text.remove_prefix(1);
    if (!text.starts_with(tokens[i])) return false;
    text.remove_prefix(tokens[i].size());
  }
  return text.empty() && !tokens.empty();
}

// `options` is everything after the chain name: the match, then "-j " or
// "-g " and the target. A "-j " anywhere wins over an earlier "-g ".
// Neighbouring rules mostly jump to the same target, which they then share:
// `lastTarget` is the one before.
Rule MakeRule(std::string_view options, Tokens& lastTarget) {
  Rule rule;
  std::size_t jump = options.find(kJumpWord);
  if (jump == std::string_view::npos) {
    jump = options.find(kGotoWord);
    rule.isGoto = jump != std::string_view::npos;
  }
  rule.match = MatchTokens(options.substr(0, jump));
  if (jump == std::string_view::npos) return rule;
  const std::string_view target = options.substr(jump + kJumpWord.size());
  if (!Spells(lastTarget, target)) lastTarget = SplitTokens(target);
  rule.target = lastTarget;
  return rule;
}

Rule MakePolicyRule(std::string_view policy) {
  Rule rule;
  rule.target = Tokens{policy};
  rule.isPolicy = true;
  return rule;
}

// The policy rule of a built-in chain must stay last, as the kernel applies
// it after every rule.
void AddRule(Chain& chain, Rule rule) {
  auto& rules = chain.ruleList;
  if (ChainLayout::IsBuiltinChain(chain.name) && !rules.empty()) {
    rules.insert(rules.end() - 1, std::move(rule));
  } else {
    rules.push_back(std::move(rule));
  }
}

}  // namespace

class IptablesOutputParser::Impl {
 public:
  Impl(oro::ITracer* tracer, State& out) : m_tracer(tracer), m_state(out), m_chains(out) {}

  // Parses the lines of output[m_parsed, end); `end` is the end of a line.
  void ParseUpTo(std::string_view output, std::size_t end) noexcept {
    if (ORO_FAILED(m_result) || end <= m_parsed) return;
    std::string_view lines = output.substr(m_parsed, end - m_parsed);
    m_parsed = end;
    try {
      while (!lines.empty()) {
        const std::string_view line = Trim(TakeLine(lines));
        if (line.empty()) continue;
        m_result = ParseLine(line);
        if (ORO_FAILED(m_result)) return;
      }
    } catch (const std::bad_alloc&) {
      m_result = oro::errNoMemory;
    }
  }

  oro::result_t Result() const noexcept { return m_result; }
  std::size_t Parsed() const noexcept { return m_parsed; }

 private:
  oro::result_t ParseLine(std::string_view line) {
    const std::string_view kind = line.substr(0, kKindLength);
    if (kind == kPolicyKind) return ParsePolicyLine(line);
    if (kind == kAppendKind) return ParseAppendLine(line);
    if (kind == kNewChainKind) AppendChain(line.substr(kKindLength), {});
    return oro::errOk;
  }

  oro::result_t ParsePolicyLine(std::string_view line) {
    ChainLine parts;
    if (!SplitChainLine(line, parts)) return Malformed(m_tracer, line);
    AppendChain(parts.chain, {MakePolicyRule(parts.rest)});
    return oro::errOk;
  }

  oro::result_t ParseAppendLine(std::string_view line) {
    ChainLine parts;
    if (!SplitChainLine(line, parts)) return Malformed(m_tracer, line);
    // The listing declares every chain before its rules; a rule of an
    // unknown chain cannot be placed and is dropped.
    if (Chain* chain = m_chains.Find(m_state, parts.chain)) AddRule(*chain, MakeRule(parts.rest, m_lastTarget));
    return oro::errOk;
  }

  // Every chain is added here, so that `m_chains` keeps indexing the state.
  void AppendChain(std::string_view name, std::vector<Rule> rules) {
    m_chains.Add(name, m_state.chainList.size());
    m_state.chainList.push_back(Chain{std::string(name), std::move(rules)});
  }

  oro::ITracer* m_tracer;
  State& m_state;
  ChainIndex m_chains;
  Tokens m_lastTarget;
  std::size_t m_parsed = 0;
  oro::result_t m_result = oro::errOk;
};

IptablesOutputParser::IptablesOutputParser(oro::ITracer* tracer, State& out)
    : m_impl(std::make_unique<Impl>(tracer, out)) {}

IptablesOutputParser::~IptablesOutputParser() = default;

void IptablesOutputParser::ParseCompleteLines(std::string_view output) noexcept {
  const std::size_t lastNewline = output.rfind('\n');
  if (lastNewline == std::string_view::npos || lastNewline < m_impl->Parsed()) return;
  m_impl->ParseUpTo(output, lastNewline + 1);
}

oro::result_t IptablesOutputParser::Finish(std::string_view output) noexcept {
  m_impl->ParseUpTo(output, output.size());
  return m_impl->Result();
}

oro::result_t ParseIptablesOutput(oro::ITracer* tracer, std::string_view output, State& out) {
  try {
    IptablesOutputParser parser(tracer, out);
    return parser.Finish(output);
  } catch (const std::bad_alloc&) {
    return oro::errNoMemory;
  }
}

}  // namespace qel::firewall
