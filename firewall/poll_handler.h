// The firewall service's job on the framework's timer.
#pragma once

#include <mutex>

#include "oro/timer.h"
#include "qel_common/object_impl.h"

namespace qel::firewall {

class FirewallService;

// The timer may keep the handler after the service is gone (when
// cancelling failed), so the service detaches it on release: detaching
// waits for a poll in progress, and a later run finds no service and does
// nothing.
class PollHandler final : public ObjectImpl<PollHandler, oro::IRunnable> {
 public:
  explicit PollHandler(FirewallService* service) : m_service(service) {}

  oro::result_t Run() noexcept override;
  void Detach() noexcept;

 private:
  std::mutex m_mutex;
  FirewallService* m_service;  // guarded by m_mutex
};

}  // namespace qel::firewall
