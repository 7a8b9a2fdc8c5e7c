// Feeds arbitrary bytes to the listing parser and checks what the firewall
// service relies on in its result, whatever the kernel's tools printed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "firewall/iptables_output_parser.h"
#include "firewall/rule_model.h"
#include "tests/support/iptables_listing.h"

namespace {

using qel::firewall::Chain;
using qel::firewall::Rule;
using qel::firewall::State;
using qel::firewall::Tokens;

constexpr std::string_view kMalformedPrefix =
    "result_t {anonymous}::ParseLine(oro::ITracer*, const string_view&, qel::firewall::State&): Malformed ";

// Lives on the stack for one input, so reference counting has nothing to do.
class RecordingTracer final : public oro::ITracer {
 public:
  std::uint32_t AddRef() noexcept override { return 1; }
  std::uint32_t Release() noexcept override { return 1; }
  oro::result_t QueryInterface(oro::iid_t, void** out) noexcept override {
    *out = nullptr;
    return oro::errNoInterface;
  }
  bool IsEnabled(std::uint32_t) noexcept override { return true; }
  void Trace(std::uint32_t level, const char* text) noexcept override {
    ++traces;
    malformedErrors += level == oro::trace_level::Error && std::string_view(text).starts_with(kMalformedPrefix);
  }

  int traces = 0;
  int malformedErrors = 0;
};

void Require(bool holds, const char* invariant) {
  if (holds) return;
  std::fprintf(stderr, "invariant broken: %s\n", invariant);
  std::abort();
}

bool IsBuiltInChain(std::string_view name) {
  return name == "PREROUTING" || name == "INPUT" || name == "FORWARD" || name == "OUTPUT" || name == "POSTROUTING";
}

bool AreCleanTokens(const Tokens& tokens) {
  return std::none_of(tokens.begin(), tokens.end(), [](std::string_view token) {
    return token.empty() || token.find(' ') != std::string_view::npos;
  });
}

void CheckChain(const Chain& chain) {
  const auto policies =
      std::count_if(chain.ruleList.begin(), chain.ruleList.end(), [](const Rule& rule) { return rule.isPolicy; });
  Require(policies <= 1, "a chain has at most one policy rule");
  for (const Rule& rule : chain.ruleList) {
    Require(rule.tag.empty() && rule.ruleName.empty() && rule.ruleItem.empty() && rule.zoneName.empty(),
            "parsed rules carry no bookkeeping");
    if (rule.isPolicy) {
      Require(rule.match.empty() && rule.target.size() == 1 && !rule.target[0].empty() && !rule.isGoto,
              "a policy rule holds one non-empty policy word and nothing else");
      Require(!IsBuiltInChain(chain.name) || &rule == &chain.ruleList.back(),
              "a built-in chain's policy rule is its last rule");
    } else {
      Require(AreCleanTokens(rule.match) && AreCleanTokens(rule.target), "rule tokens are non-empty and blank-free");
      Require(!rule.match.empty() || !rule.target.empty(), "a rule has a match or a target");
      Require(!rule.isGoto || !rule.target.empty(), "a goto rule has a target");
    }
  }
}

// Printing joins a rule's last match token to the jump word with a blank, so
// a token ending in "-j" or "-g" turns into a jump of its own when read back.
// A built-in chain without a policy (declared by "-N") takes each rule before
// the previous one, so its order is not kept either. The listing tool never
// prints either.
bool PrintsLosslessly(const State& state) {
  for (const auto& chain : state.chainList) {
    if (IsBuiltInChain(chain.name) && !chain.ruleList.empty() && !chain.ruleList.back().isPolicy) return false;
    for (const auto& rule : chain.ruleList) {
      if (!rule.target.empty() && !rule.match.empty() &&
          (rule.match.back().ends_with("-j") || rule.match.back().ends_with("-g"))) {
        return false;
      }
    }
  }
  return true;
}

void CheckRoundTrip(const State& state) {
  if (!PrintsLosslessly(state)) return;
  const std::string listing = qel::test::PrintListing(state);
  State reparsed;
  Require(qel::firewall::ParseIptablesOutput(nullptr, listing, reparsed) == oro::errOk, "a printed state parses");
  Require(reparsed == state, "a printed state parses back to itself");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view output(reinterpret_cast<const char*>(data), size);
  RecordingTracer tracer;
  State state;
  const oro::result_t result = qel::firewall::ParseIptablesOutput(&tracer, output, state);

  Require(result == oro::errOk || result == oro::errUnexpected, "only malformed lines fail");
  Require(tracer.traces == (result == oro::errOk ? 0 : 1) && tracer.malformedErrors == tracer.traces,
          "a failure traces its malformed line once, a success traces nothing");
  for (const auto& chain : state.chainList) CheckChain(chain);
  if (result == oro::errOk) CheckRoundTrip(state);
  return 0;
}
