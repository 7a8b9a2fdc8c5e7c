// A bridge controller that records the requests it holds, and can refuse.
#pragma once

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <vector>

#include "firewall/bridge_interfaces.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeBridgeController final : public ObjectImpl<FakeBridgeController, firewall::IBridgeController> {
 public:
  struct Request {
    std::uint32_t clientId;
    bool nfCallsValue;
    bool force;
    bool operator==(const Request&) const = default;
  };

  oro::result_t AddBridgeNfCallsClient(std::uint32_t clientId, bool nfCallsValue, bool force) noexcept override {
    std::lock_guard lock(m_mutex);
    if (Find(clientId) != m_requests.end()) return oro::errAlreadyExists;
    m_requests.push_back({clientId, nfCallsValue, force});
    return addResult;
  }
  oro::result_t DeleteBridgeNfCallsClient(std::uint32_t clientId) noexcept override {
    std::lock_guard lock(m_mutex);
    const auto it = Find(clientId);
    if (it == m_requests.end()) return oro::errNotFound;
    m_requests.erase(it);
    return oro::errOk;
  }

  std::vector<Request> Requests() {
    std::lock_guard lock(m_mutex);
    return m_requests;
  }

  // What an addition answers once recorded (a switch that cannot be
  // written reports so and keeps the request).
  oro::result_t addResult = oro::errOk;

 private:
  std::vector<Request>::iterator Find(std::uint32_t clientId) {
    return std::find_if(m_requests.begin(), m_requests.end(),
                        [&](const Request& request) { return request.clientId == clientId; });
  }

  std::mutex m_mutex;
  std::vector<Request> m_requests;
};

}  // namespace qel::test
