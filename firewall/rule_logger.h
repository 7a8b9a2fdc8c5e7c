// The packet logger that the firewall task runs on the NFLOG groups of its
// logging rules. The task owns one; tests hand in their own.
#pragma once

#include <memory>

#include "firewall/firewall_settings.h"
#include "firewall/packet_log_interfaces.h"
#include "oro/object.h"

namespace qel::firewall {

using settings::MinNflogGroup;

class RuleLogger {
 public:
  virtual ~RuleLogger() = default;
  virtual oro::result_t Start(const NflogGroupList& groups) = 0;
  virtual oro::result_t Stop() = 0;
  // What became of the logged packets since the last Start; empty while
  // stopped.
  virtual NflogCounts GetCounts() const = 0;
};

// Creates the logger a firewall task owns, given the task's locator.
using RuleLoggerFactory = std::unique_ptr<RuleLogger> (*)(oro::IServiceLocator* locator);

}  // namespace qel::firewall
