// What the host's iptables tools can do, found out once when the object is
// built: the tools' version (which decides whether "-w" may be passed), the
// kernel interface behind them, and whether the IPv6 tool is usable. It also
// tells which tables exist for those tools, without creating any.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/existing_tables_reader.h"
#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"
#include "qel_common/secure_spawn.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

// Runs one external tool to its end and fills the context's results, as
// tools::SecureSpawn does. The iptables components take one so that their
// command lines and scripts can be checked against canned tool runs.
using ToolRunner = std::function<oro::result_t(tools::SpawnContext& context)>;

struct IptablesVersion {
  std::uint64_t major = 0;
  std::uint64_t minor = 0;
  std::uint64_t patch = 0;
};

// The first "<major>.<minor>.<patch>" anywhere in `text`, as "iptables -V"
// prints it ("iptables v1.8.9 (nf_tables)"); none when there is no such
// triple or a number does not fit.
std::optional<IptablesVersion> FindIptablesVersion(std::string_view text);

// The backend that "iptables -V" names after the version: "(nf_tables)" or
// "(legacy)"; versions before both existed name none and are legacy.
ToolBackend FindToolBackend(std::string_view versionText);

class IptablesInfoProvider : public ObjectImpl<IptablesInfoProvider, IIptablesInfoProvider> {
 public:
  // Probes the tools through `runTool` and reports the capabilities to the
  // feature registry found through `locator`. Throws when the registry is
  // missing or refuses a call; a failing probe only narrows the answers.
  explicit IptablesInfoProvider(oro::IServiceLocator* locator, ToolRunner runTool = tools::SecureSpawn);
  ~IptablesInfoProvider() override;

  bool IsVersionKnown() const noexcept override;
  const char* GetIptables() const noexcept override;
  const char* GetIp6tables() const noexcept override;
  const char* GetIptablesRestore() const noexcept override;
  const char* GetIp6tablesRestore() const noexcept override;
  bool IsVersionAtLeast_1_4_8() const noexcept override;
  bool SupportsWaitOption() const noexcept override;
  bool IsIpv6Supported() const noexcept override;

  // The IPv6 tool is taken to use the IPv4 tool's backend. Fails when the
  // tools' version, and so their backend, is not known.
  oro::result_t GetExistingTables(types::IPAddressFamily::Type family,
                                  std::vector<std::string>& out) const noexcept override;

 private:
  void FetchVersion(const ToolRunner& runTool);
  void FetchIpv6Support(const ToolRunner& runTool);
  void ReportFeatures(oro::IServiceLocator* locator) const;
  bool IsVersionAtLeast(const IptablesVersion& least) const noexcept;

  tracing::Tracer m_tracer;
  std::optional<IptablesVersion> m_version;
  std::optional<ToolBackend> m_backend;
  bool m_ipv6Supported = false;
};

}  // namespace qel::firewall
