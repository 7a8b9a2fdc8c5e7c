// Where the module's rules stand in the kernel: which chains of which table
// hold them, and how the built-in chains reach those chains. See
// docs/chain-layout.md for the reasons.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/firewall_settings.h"
#include "firewall/iptables_rule_compiler.h"
#include "firewall/rule_description.h"
#include "firewall/rule_model.h"

namespace qel::firewall {

// Shared chains are the kernel's built-in chains: only the module's own
// jumps in them are managed. Owned chains belong wholly to the module, so
// any other rule found in them is foreign and removed.
enum class ChainKind { Shared = 0, Owned = 1 };

// The kernel's own chains, from which the module's chains are reached.
inline constexpr std::string_view kPreroutingChain = "PREROUTING";
inline constexpr std::string_view kInputChain = "INPUT";
inline constexpr std::string_view kForwardChain = "FORWARD";
inline constexpr std::string_view kOutputChain = "OUTPUT";
inline constexpr std::string_view kPostroutingChain = "POSTROUTING";

inline constexpr std::string_view kFilterTable = "filter";
inline constexpr std::string_view kMangleTable = "mangle";
inline constexpr std::string_view kNatTable = "nat";

class ChainLayout {
 public:
  // The tables the module may hold rules in, in the order they are synced.
  static const std::vector<std::string>& Tables();

  static ChainKind KindOf(std::string_view chain);
  static bool IsModuleChain(std::string_view chain);

  // Whether `chain` is one of the kernel's own chains, whose policy applies
  // after all of its rules. Inline, so that reading a listing needs nothing
  // else of the layout.
  static constexpr bool IsBuiltinChain(std::string_view chain) {
    for (const auto builtin : kBuiltinChains) {
      if (chain == builtin) return true;
    }
    return false;
  }

  // The rules the module wants in `table` of `family`: the compiled packet
  // rules (none while not enforcing), and the dynamic rules by kind and side,
  // each distinct rule once, with the reply companions of the kinds that
  // need them. `suitableConntrack` as for CompileRules: without it the
  // companions' direction word is swapped. Chains come in layout order; a
  // chain without rules is left out, and so is the jump to it.
  static State WantedState(types::IPAddressFamily::Type family, std::string_view table,
                           const CompiledRules* compiled, const std::vector<TaggedRule>& dynamic,
                           bool suitableConntrack);

 private:
  static constexpr std::array<std::string_view, 5> kBuiltinChains = {kPreroutingChain, kInputChain, kForwardChain,
                                                                     kOutputChain, kPostroutingChain};
};

}  // namespace qel::firewall
