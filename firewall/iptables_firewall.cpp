#include "firewall/iptables_firewall.h"

#include "firewall/diagnostic_dump.h"
#include "firewall/iptables_output_parser.h"
#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {

using oro::result_t;
using tracing::Detail;
using types::IPAddressFamily;

namespace {

// Log readers search for these exact function names.
constexpr const char* kGetStateName =
    "virtual result_t qel::firewall::IptablesFirewall::GetState(qel::types::IPAddressFamily::Type, const "
    "string8_t&, qel::firewall::State&) const";
constexpr const char* kChangeStateName =
    "virtual result_t qel::firewall::IptablesFirewall::ChangeState(qel::types::IPAddressFamily::Type, const "
    "string8_t&, const ChangeList&)";

bool IsIpv4(IPAddressFamily::Type family) { return family == IPAddressFamily::IPv4; }

// Any value other than IPv4 selects IPv6; the trace still shows what came in.
std::string FamilyText(IPAddressFamily::Type family) {
  if (family == IPAddressFamily::IPv4 || family == IPAddressFamily::IPv6) return settings::EnumToString(family);
  return std::to_string(family);
}

bool ExitedWithZero(const tools::SpawnContext& context) { return context.exitCode == 0; }

void CaptureOutputs(tools::SpawnContext& context) {
  context.output.emplace();
  context.errorOutput.emplace();
}

}  // namespace

IptablesFirewall::IptablesFirewall(oro::IServiceLocator* locator, ToolRunner runTool)
    : m_infoProvider(GetInterface<IIptablesInfoProvider>(locator)), m_runTool(std::move(runTool)) {
  result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
}

result_t IptablesFirewall::GetState(IPAddressFamily::Type family, const std::string& table, State& out) const noexcept {
  return tracing::Guarded(m_tracer, "GetState", [&] { return DoGetState(family, table, out); });
}

result_t IptablesFirewall::ChangeState(IPAddressFamily::Type family, const std::string& table,
                                       const ChangeList& changes) noexcept {
  return tracing::Guarded(m_tracer, "ChangeState", [&] { return DoChangeState(family, table, changes); });
}

result_t IptablesFirewall::DoGetState(IPAddressFamily::Type family, const std::string& table, State& out) const {
  m_tracer.Write(Detail, kGetStateName, " family: ", FamilyText(family), " table: ", table);
  tools::SpawnContext context;
  tools::InitSpawnContext(context, ListingCommand(family, table));
  CaptureOutputs(context);
  // Listings run to tens of thousands of rules on every poll: they are
  // parsed while the tool is still printing them.
  State parsed;
  IptablesOutputParser parser(m_tracer.Get(), parsed);
  context.outputObserver = [&parser](const std::string& output) { parser.ParseCompleteLines(output); };
  result_t result = RunTool(context);
  if (ORO_FAILED(result)) return result;
  // Build the listing's text only for a reader.
  if (m_tracer.Enabled(Detail)) m_tracer.Write(Detail, kGetStateName, " ", tools::SpawnReport(context));

  const std::string& output = *context.output;
  result = parser.Finish(output);
  if (ORO_FAILED(result)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "ParseIptablesOutput(GetTracer(), Convert(output), out)", result,
                          "Cannot parse output '" + output + "'");
    return result;
  }
  if (m_tracer.Enabled(Detail)) m_tracer.Write(Detail, kGetStateName, " parsed:\n", DumpState(parsed));
  out = std::move(parsed);
  return oro::errOk;
}

result_t IptablesFirewall::DoChangeState(IPAddressFamily::Type family, const std::string& table,
                                         const ChangeList& changes) const {
  m_tracer.Write(Detail, kChangeStateName, " family: ", FamilyText(family), " table: ", table);
  tools::SpawnContext context;
  tools::InitSpawnContext(context, RestoreCommand(family));
  context.input = RestoreScript(table, changes);
  // The displayed command always reads "-n -w", whether or not "-w" is
  // passed; readers of the trace know it in this form.
  m_tracer.Write(Detail, "Command:\n", context.program, " -n -w << EOF\n", *context.input, "EOF");
  CaptureOutputs(context);
  return RunTool(context);
}

result_t IptablesFirewall::RunTool(tools::SpawnContext& context) const {
  const result_t result = m_runTool(context);
  if (ORO_FAILED(result)) {
    QEL_TRACE_FAILED_CALL(m_tracer, "SecureSpawn(context)", result, tools::SpawnReport(context));
    return result;
  }
  // A tool that ran but refused its work (a rejected script, an unknown
  // table) says so only through its exit code.
  if (!ExitedWithZero(context)) {
    QEL_TRACE_FAILED_CONDITION(m_tracer, "ExitedWithZero(context)", tools::SpawnReport(context));
    return oro::errUnexpected;
  }
  return oro::errOk;
}

// iptables -t <table> -S [-w]
std::vector<std::string> IptablesFirewall::ListingCommand(IPAddressFamily::Type family,
                                                          const std::string& table) const {
  const char* tool = IsIpv4(family) ? m_infoProvider->GetIptables() : m_infoProvider->GetIp6tables();
  std::vector<std::string> command{tool, "-t", table, "-S"};
  if (m_infoProvider->SupportsWaitOption()) command.emplace_back("-w");
  return command;
}

// iptables-restore -n [-w]; "-n" leaves alone every chain the script does not
// name.
std::vector<std::string> IptablesFirewall::RestoreCommand(IPAddressFamily::Type family) const {
  const char* tool = IsIpv4(family) ? m_infoProvider->GetIptablesRestore() : m_infoProvider->GetIp6tablesRestore();
  std::vector<std::string> command{tool, "-n"};
  if (m_infoProvider->SupportsWaitOption()) command.emplace_back("-w");
  return command;
}

}  // namespace qel::firewall
