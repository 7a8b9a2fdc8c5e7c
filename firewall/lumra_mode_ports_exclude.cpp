#include "firewall/lumra_mode_ports_exclude.h"

#include <dlfcn.h>

#include <sstream>
#include <system_error>

#include "firewall/lumra_ports_file.h"
#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {
namespace {

using oro::result_t;
using tracing::Detail;
using tracing::Error;
using tracing::Warning;

constexpr char kShippedFileName[] = "lumra_ports.conf";

// The data ships beside the module; the module finds itself through the
// loader, as the host may have loaded it from anywhere.
result_t ShippedPortsFile(std::string& path) {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<const void*>(&ShippedPortsFile), &info) == 0 || !info.dli_fname) {
    return oro::errNotFound;
  }
  const std::string module = info.dli_fname;
  const std::size_t slash = module.rfind('/');
  path = (slash == std::string::npos ? std::string() : module.substr(0, slash + 1)) + kShippedFileName;
  return oro::errOk;
}

std::string RulesText(const RuleDescriptions& rules) {
  std::ostringstream text;
  for (const auto& rule : rules) text << "\n  " << rule;
  return text.str();
}

}  // namespace

LumraModePortsExclude::LumraModePortsExclude(oro::IServiceLocator* locator) : m_locator(locator) {
  result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
}

LumraModePortsExclude::~LumraModePortsExclude() {
  if (m_applyRulesThread.joinable()) m_applyRulesThread.join();
}

result_t LumraModePortsExclude::FinalConstruct() {
  return Locate(m_locator, m_tracer, "IDynamicRules", m_dynamicRules);
}

void LumraModePortsExclude::FinalRelease() noexcept {
  try {
    m_tracer.Write(Detail, "FinalRelease", "() ");
  } catch (...) {
  }
}

result_t LumraModePortsExclude::Apply() noexcept {
  return tracing::Guarded(m_tracer, "Apply", [&] {
    m_tracer.Write(Detail, "Apply", "() ");
    std::lock_guard lock(m_threadMutex);
    if (m_running) {
      m_tracer.Write(Warning, "Apply", ": the lumra exclude rules are still being applied");
      return oro::errInvalidState;
    }
    if (m_applyRulesThread.joinable()) m_applyRulesThread.join();  // done, only not joined yet
    // The host's services are looked up here, on the host's thread; both
    // are optional.
    result_t ignored;
    auto hostType = TryGetInterface<ILumraHostType>(m_locator, ignored);
    auto portsFile = TryGetInterface<ILumraPortsFile>(m_locator, ignored);
    m_running = true;
    try {
      m_applyRulesThread = std::jthread([this, hostType = std::move(hostType), portsFile = std::move(portsFile)] {
        ApplyRulesThread(hostType, portsFile);
      });
    } catch (const std::system_error& e) {
      m_running = false;
      m_tracer.Write(Error, "Cannot create task for apply lumra exclude rules", ": ", e.what());
      return oro::ResultFromErrno(e.code().value());
    }
    return oro::errOk;
  });
}

void LumraModePortsExclude::ApplyRulesThread(oro::RefPtr<ILumraHostType> hostType,
                                             oro::RefPtr<ILumraPortsFile> portsFile) noexcept {
  const result_t r =
      tracing::Guarded(m_tracer, "ApplyRulesThread", [&] { return ApplyRules(hostType.Get(), portsFile.Get()); });
  // Cleared before the last trace: whoever saw it may apply again at once.
  m_running = false;
  try {
    TraceResult(r);
  } catch (...) {
  }
}

result_t LumraModePortsExclude::ApplyRules(ILumraHostType* hostTypeService, ILumraPortsFile* portsFileService) {
  std::string hostType;
  result_t r = HostType(hostTypeService, hostType);
  if (r != oro::errOk) return ORO_FAILED(r) ? r : oro::errOk;

  std::string path;
  if (ORO_FAILED(r = PortsFilePath(portsFileService, path))) return r;
  LumraPortsFile file;
  std::string error;
  if (ORO_FAILED(r = LumraPortsFile::Read(path, file, error))) {
    m_tracer.Write(Error, "Cannot read lumra ports: ", error);
    return r;
  }
  const RuleDescriptions* rules = file.RulesFor(hostType);
  if (!rules) {
    m_tracer.Write(Warning, "lumra ports: host type '", hostType, "' is not in ", path, ", nothing to apply");
    return oro::errOk;
  }
  m_tracer.Write(Warning, "lumra ports for host type:", " ", hostType, " will be applied:", RulesText(*rules));
  return AddRules(*rules);
}

result_t LumraModePortsExclude::HostType(ILumraHostType* service, std::string& hostType) {
  if (!service) {
    m_tracer.Write(Warning, "lumra ports: the host names no host type, nothing to apply");
    return oro::errFalse;
  }
  const result_t r = QEL_CHECKED_CALL(m_tracer, service->GetHostType(hostType), "Cannot get the lumra host type");
  if (r == oro::errFalse) {
    m_tracer.Write(Warning, "lumra ports: the host is in no virtualisation mode, nothing to apply");
  }
  return r;
}

result_t LumraModePortsExclude::PortsFilePath(ILumraPortsFile* service, std::string& path) {
  if (service) {
    const result_t r = QEL_CHECKED_CALL(m_tracer, service->GetPortsFile(path), "Cannot get the lumra ports file");
    if (r != oro::errFalse) return r;
  }
  const result_t r = ShippedPortsFile(path);
  if (ORO_FAILED(r)) {
    m_tracer.Write(Error, "Cannot find the module's own path to read ", kShippedFileName, " beside it");
  }
  return r;
}

// The firewall keeps every rule it is given, equal ones too, so the rules
// go in once per object.
result_t LumraModePortsExclude::AddRules(const RuleDescriptions& rules) {
  if (m_applied) return oro::errAlreadyExists;
  result_t r = oro::errOk;
  if (!rules.empty()) {
    r = QEL_CHECKED_CALL(m_tracer, m_dynamicRules->AddRules(rules, "lumra"), "Cannot add lumra exclude rules");
  }
  if (ORO_SUCCEEDED(r)) m_applied = true;
  return r;
}

// The result line comes last: it tells whoever waits that the apply is over.
void LumraModePortsExclude::TraceResult(result_t result) {
  if (result == oro::errAlreadyExists) m_tracer.Write(Warning, "Rules have been already applied");
  m_tracer.Write(ORO_FAILED(result) && result != oro::errAlreadyExists ? Error : Warning,
                 "Apply lumra exclusion rules result:", " ", tracing::FormatResult(result));
}

}  // namespace qel::firewall
