// The packet logger of the module's firewall task while packet logging is
// not wired in yet: it accepts its groups and logs nothing.
#pragma once

#include "firewall/rule_logger.h"

namespace qel::module {

class NoPacketLogger final : public firewall::RuleLogger {
 public:
  oro::result_t Start(const firewall::NflogGroupList&) override { return oro::errOk; }
  oro::result_t Stop() override { return oro::errOk; }
  firewall::NflogCounts GetCounts() const override { return {}; }
};

}  // namespace qel::module
