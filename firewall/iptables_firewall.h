// The only component that reads or changes the kernel's packet filter for
// the compiled rules: it lists one table of one family with the listing tool
// and applies a change list to it with one restore script, which the restore
// tool installs whole or not at all.
#pragma once

#include <string>
#include <utility>

#include "firewall/firewall_interfaces.h"
#include "firewall/iptables_info_provider.h"
#include "firewall/iptables_output_parser.h"
#include "oro/ref_ptr.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class IptablesFirewall : public ObjectImpl<IptablesFirewall, IFirewallStateQuery, IFirewallStateChange> {
 public:
  // Takes the tool names and options from the IIptablesInfoProvider that
  // `locator` offers; throws oro::GetInterfaceException when there is none.
  explicit IptablesFirewall(oro::IServiceLocator* locator, ToolRunner runTool = tools::SecureSpawn);

  // Replaces `out` with the table's chains and rules; leaves it untouched on
  // failure. A tool that cannot be run, that exits other than with 0 (an
  // unknown table, a missing kernel module), or output that cannot be parsed
  // fail the call.
  oro::result_t GetState(types::IPAddressFamily::Type family, const std::string& table,
                         State& out) const noexcept override;
  // Applies `changes` in their order as one transaction. A script that the
  // restore tool rejects (non-zero exit) fails the call and leaves the table
  // as it was.
  oro::result_t ChangeState(types::IPAddressFamily::Type family, const std::string& table,
                            const ChangeList& changes) noexcept override;

 private:
  oro::result_t DoGetState(types::IPAddressFamily::Type family, const std::string& table, State& out) const;
  oro::result_t DoChangeState(types::IPAddressFamily::Type family, const std::string& table,
                              const ChangeList& changes) const;
  // Runs the tool and checks that it ran and exited with 0; failures are
  // traced with the spawn report, which holds the tool's standard error.
  oro::result_t RunTool(tools::SpawnContext& context) const;
  std::vector<std::string> ListingCommand(types::IPAddressFamily::Type family, const std::string& table) const;
  std::vector<std::string> RestoreCommand(types::IPAddressFamily::Type family) const;


  tracing::Tracer m_tracer;
  oro::RefPtr<IIptablesInfoProvider> m_infoProvider;
  ToolRunner m_runTool;
};

}  // namespace qel::firewall
