#include "module/module_firewall_task.h"

#include <algorithm>
#include <memory>

#include "firewall/firewall_rule_logger.h"
#include "module/class_table.h"
#include "oro/exception.h"

namespace qel::module {
namespace {

// The listener factory is one of the module's own classes: made here rather
// than asked of the host, so the task always logs through this module's
// listener.
oro::result_t CreateListenerFactory(oro::IServiceLocator* locator,
                                    oro::RefPtr<firewall::INflogListenerFactory>& out) {
  const auto classes = DirectClasses();
  const auto entry = std::find_if(classes.begin(), classes.end(), [](const ClassEntry& e) {
    return e.clsid == oro::clsid::NflogListenerFactory;
  });
  if (entry == classes.end() || !entry->create) return oro::errClassNotFound;
  oro::RefPtr<oro::IObject> object;
  const oro::result_t r = entry->create(locator, object.Out());
  if (ORO_FAILED(r)) return r;
  oro::result_t query;
  out = oro::QueryInterface<firewall::INflogListenerFactory>(object.Get(), &query);
  return query;
}

// The task cannot run without its logger; the failure leaves the
// constructor as an exception, which the creating export traces and turns
// into the code.
std::unique_ptr<firewall::RuleLogger> MakeRuleLogger(oro::IServiceLocator* locator) {
  oro::RefPtr<firewall::INflogListenerFactory> factory;
  oro::result_t r = CreateListenerFactory(locator, factory);
  if (ORO_FAILED(r)) throw oro::Exception(r, "Cannot create NFLOG listener factory");
  std::unique_ptr<firewall::FirewallRuleLogger> logger;
  r = firewall::FirewallRuleLogger::Create(locator, std::move(factory), logger);
  if (ORO_FAILED(r)) throw oro::Exception(r, "Cannot create firewall rules logger");
  return logger;
}

}  // namespace

ModuleFirewallTask::ModuleFirewallTask(oro::IServiceLocator* locator)
    : FirewallTask(locator, MakeRuleLogger(locator)) {}

}  // namespace qel::module
