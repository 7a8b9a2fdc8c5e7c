// The virtualisation mode's port exclusions. A desktop of a virtualisation
// pool (its master image, a clone, the pool's broker) is useless once its
// display protocol or its broker cannot get through, so those ports skip the
// module's filtering and isolation. Which ports a kind of host needs is data
// shipped beside the module (lumra_ports.conf); which kind of host this is
// the host says (ILumraHostType). The work runs on a thread of its own, so
// Apply never waits for the firewall.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "firewall/firewall_interfaces.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class LumraModePortsExclude : public ObjectImpl<LumraModePortsExclude, ILumraModePortsExclude> {
 public:
  explicit LumraModePortsExclude(oro::IServiceLocator* locator);
  // Waits for an apply still under way: it uses the object.
  ~LumraModePortsExclude() override;

  oro::result_t FinalConstruct();
  void FinalRelease() noexcept;

  // ILumraModePortsExclude. Refused with errInvalidState while an earlier
  // apply still runs; once applied, a later apply reports errAlreadyExists
  // on its thread and adds nothing.
  oro::result_t Apply() noexcept override;

 private:
  void ApplyRulesThread(oro::RefPtr<ILumraHostType> hostType, oro::RefPtr<ILumraPortsFile> portsFile) noexcept;
  oro::result_t ApplyRules(ILumraHostType* hostTypeService, ILumraPortsFile* portsFileService);
  // The host type; errFalse when the host is in no virtualisation mode.
  oro::result_t HostType(ILumraHostType* service, std::string& hostType);
  oro::result_t PortsFilePath(ILumraPortsFile* service, std::string& path);
  oro::result_t AddRules(const RuleDescriptions& rules);
  void TraceResult(oro::result_t result);

  oro::IServiceLocator* m_locator;
  tracing::Tracer m_tracer;
  oro::RefPtr<IDynamicRules> m_dynamicRules;

  std::mutex m_threadMutex;             // serialises Apply
  std::atomic<bool> m_running = false;  // an apply thread has work left
  std::atomic<bool> m_applied = false;  // the rules stand in the firewall
  // Declared last: the members above outlive the thread.
  std::jthread m_applyRulesThread;
};

}  // namespace qel::firewall
