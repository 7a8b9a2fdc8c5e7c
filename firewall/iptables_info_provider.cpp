#include "firewall/iptables_info_provider.h"

#include <boost/format.hpp>
#include <charconv>
#include <memory>
#include <regex>
#include <tuple>

#include "oro/exception.h"
#include "qel_common/feature_techs_aggregator.h"
#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {

using oro::result_t;
using tracing::Detail;
using tracing::Skipped;
using tracing::Warning;

namespace {

constexpr const char* kIptables = "iptables";
constexpr const char* kIp6tables = "ip6tables";
constexpr const char* kIptablesRestore = "iptables-restore";
constexpr const char* kIp6tablesRestore = "ip6tables-restore";

constexpr IptablesVersion kVersion_1_4_8{1, 4, 8};
// The first version that knows "-w", waiting for the xtables lock instead of
// failing while another program changes the tables.
constexpr IptablesVersion kFirstWithWaitOption{1, 4, 20};

// Where the product's feature registry records what the host's iptables can
// do.
constexpr std::uint32_t kIptablesFeatureGroup = 2;
constexpr std::uint32_t kIpv6Feature = 3;
constexpr std::uint32_t kWaitOptionFeature = 6;
constexpr std::uint32_t kVersion_1_4_8Feature = 7;

using TextMatch = std::match_results<std::string_view::const_iterator>;

// Fails for a number too large for 64 bits.
bool ParseDecimal(const TextMatch::value_type& digits, std::uint64_t& out) {
  const char* const begin = std::to_address(digits.first);
  const char* const end = std::to_address(digits.second);
  const auto [stop, error] = std::from_chars(begin, end, out);
  return error == std::errc() && stop == end;
}

// The registry's records are part of what the product reports about the
// host; a provider that could not file them must not come into being.
[[noreturn]] void ThrowExpressionFailed(const char* unit, int line, const char* expression, result_t result) {
  throw oro::Exception(result, (boost::format("%1%(%2%): Expression failed: %3%, result = %4%") % unit % line %
                                expression % tracing::FormatResult(result))
                                   .str());
}

}  // namespace

#define QEL_REQUIRE_SUCCEEDED(expression)                                                    \
  do {                                                                                       \
    const result_t _result = (expression);                                                   \
    if (ORO_FAILED(_result)) ThrowExpressionFailed(QEL_UNIT, __LINE__, #expression, _result); \
  } while (false)

std::optional<IptablesVersion> FindIptablesVersion(std::string_view text) {
  static const std::regex kVersionPattern(R"((\d+)\.(\d+)\.(\d+))");
  TextMatch found;
  if (!std::regex_search(text.begin(), text.end(), found, kVersionPattern)) return std::nullopt;
  IptablesVersion version;
  if (!ParseDecimal(found[1], version.major) || !ParseDecimal(found[2], version.minor) ||
      !ParseDecimal(found[3], version.patch)) {
    return std::nullopt;
  }
  return version;
}

ToolBackend FindToolBackend(std::string_view versionText) {
  return versionText.find("(nf_tables)") != std::string_view::npos ? ToolBackend::NfTables : ToolBackend::Legacy;
}

IptablesInfoProvider::IptablesInfoProvider(oro::IServiceLocator* locator, ToolRunner runTool) {
  result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
  m_tracer.Write(Detail, "IptablesInfoProvider", "() ");
  FetchVersion(runTool);
  FetchIpv6Support(runTool);
  ReportFeatures(locator);
}

IptablesInfoProvider::~IptablesInfoProvider() {
  try {
    m_tracer.Write(Detail, "~IptablesInfoProvider", "() ");
  } catch (...) {
  }
}

void IptablesInfoProvider::FetchVersion(const ToolRunner& runTool) {
  m_tracer.Write(Detail, "FetchVersion");
  // iptables -V
  tools::SpawnContext context;
  tools::InitSpawnContext(context, {kIptables, "-V"});
  context.output.emplace();
  if (ORO_FAILED(runTool(context))) {
    m_tracer.Write(Skipped, "FetchVersion", ": ", tools::SpawnReport(context));
    return;
  }
  m_version = FindIptablesVersion(*context.output);
  if (!m_version) {
    m_tracer.Write(Skipped, boost::format("Can not determine version of %1% tool") % kIptables);
    return;
  }
  m_tracer.Write(Detail, boost::format("Version of %1% tool: %2%.%3%.%4%") % kIptables % m_version->major %
                             m_version->minor % m_version->patch);
  m_backend = FindToolBackend(*context.output);
  m_tracer.Write(Detail, boost::format("Backend of %1% tool: %2%") % kIptables %
                             (*m_backend == ToolBackend::NfTables ? "nf_tables" : "legacy"));
}

void IptablesInfoProvider::FetchIpv6Support(const ToolRunner& runTool) {
  // ip6tables -m addrtype --help
  tools::SpawnContext context;
  tools::InitSpawnContext(context, {kIp6tables, "-m", "addrtype", "--help"});
  context.output.emplace();
  context.errorOutput.emplace();
  const result_t result = runTool(context);
  // A tool that starts but cannot load the address-type match (or the IPv6
  // support behind it) says so only through its exit code.
  m_ipv6Supported = ORO_SUCCEEDED(result) && context.exitCode == 0;
  m_tracer.Write(Warning, "FetchIpv6Support", ": ", tools::SpawnReport(context));
}

void IptablesInfoProvider::ReportFeatures(oro::IServiceLocator* locator) const {
  const auto registry = GetInterface<tools::IFeatureTechsAggregator>(locator);
  QEL_REQUIRE_SUCCEEDED(registry->OpenGroup(kIptablesFeatureGroup));
  if (IsIpv6Supported()) QEL_REQUIRE_SUCCEEDED(registry->SetFeature(kIptablesFeatureGroup, kIpv6Feature));
  if (SupportsWaitOption()) QEL_REQUIRE_SUCCEEDED(registry->SetFeature(kIptablesFeatureGroup, kWaitOptionFeature));
  if (IsVersionAtLeast_1_4_8()) {
    QEL_REQUIRE_SUCCEEDED(registry->SetFeature(kIptablesFeatureGroup, kVersion_1_4_8Feature));
  }
  QEL_REQUIRE_SUCCEEDED(registry->CloseGroup(kIptablesFeatureGroup));
}

bool IptablesInfoProvider::IsVersionAtLeast(const IptablesVersion& least) const noexcept {
  if (!m_version) return false;
  return std::tie(m_version->major, m_version->minor, m_version->patch) >=
         std::tie(least.major, least.minor, least.patch);
}

bool IptablesInfoProvider::IsVersionKnown() const noexcept { return m_version.has_value(); }
const char* IptablesInfoProvider::GetIptables() const noexcept { return kIptables; }
const char* IptablesInfoProvider::GetIp6tables() const noexcept { return kIp6tables; }
const char* IptablesInfoProvider::GetIptablesRestore() const noexcept { return kIptablesRestore; }
const char* IptablesInfoProvider::GetIp6tablesRestore() const noexcept { return kIp6tablesRestore; }
bool IptablesInfoProvider::IsVersionAtLeast_1_4_8() const noexcept { return IsVersionAtLeast(kVersion_1_4_8); }
bool IptablesInfoProvider::SupportsWaitOption() const noexcept { return IsVersionAtLeast(kFirstWithWaitOption); }
bool IptablesInfoProvider::IsIpv6Supported() const noexcept { return m_ipv6Supported; }

oro::result_t IptablesInfoProvider::GetExistingTables(types::IPAddressFamily::Type family,
                                                      std::vector<std::string>& out) const noexcept {
  return tracing::Guarded(m_tracer, "GetExistingTables", [&] {
    if (!m_backend) {
      m_tracer.Write(Skipped, "GetExistingTables", ": ", "the backend of the tools is not known");
      return oro::errInvalidState;
    }
    const result_t result = ExistingTablesReader(*m_backend).Read(family, out);
    if (ORO_FAILED(result)) {
      QEL_TRACE_FAILED_CALL(m_tracer, "ExistingTablesReader(*m_backend).Read(family, out)", result,
                            "Cannot read which tables exist");
    }
    return result;
  });
}

}  // namespace qel::firewall
