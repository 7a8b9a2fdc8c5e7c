#include "firewall/poll_handler.h"

#include "firewall/firewall_service.h"

namespace qel::firewall {

oro::result_t PollHandler::Run() noexcept {
  std::lock_guard lock(m_mutex);
  return m_service ? m_service->RunPoll() : oro::errOk;
}

void PollHandler::Detach() noexcept {
  std::lock_guard lock(m_mutex);
  m_service = nullptr;
}

}  // namespace qel::firewall
