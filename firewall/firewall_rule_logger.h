// The firewall task's packet logger: turns the packets that logging rules
// send to NFLOG groups into network-activity events.
#pragma once

#include <cstdint>
#include <memory>

#include "firewall/network_activity.h"
#include "firewall/rule_logger.h"
#include "oro/event_publisher.h"
#include "oro/ref_ptr.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

using settings::PacketRuleAction;

class FirewallRuleLogger final : public RuleLogger {
 public:
  // A stopped logger whose listener comes from `listenerFactory`; fails with
  // the locator's code when there is no event publisher ("Cannot get
  // IEventPublisher interface") and with the factory's when it cannot make
  // a listener.
  static oro::result_t Create(oro::IServiceLocator* locator, oro::RefPtr<INflogListenerFactory> listenerFactory,
                              std::unique_ptr<FirewallRuleLogger>& out);
  // Stops the listener and waits for a packet being handled: no call from
  // the listener reaches the logger once it is gone.
  ~FirewallRuleLogger() override;
  FirewallRuleLogger(const FirewallRuleLogger&) = delete;
  FirewallRuleLogger& operator=(const FirewallRuleLogger&) = delete;

  oro::result_t Start(const NflogGroupList& groups) override;
  oro::result_t Stop() override;
  NflogCounts GetCounts() const override;

  // One logged packet, on the listener's thread. False when the packet is
  // rejected or its event could not be published.
  bool HandleNflogData(std::uint16_t nflogGroup, NflogAttributes nflogAttrs);

 private:
  class DataCallback;

  FirewallRuleLogger(tracing::Tracer tracer, oro::RefPtr<oro::IEventPublisher> publisher);

  oro::result_t PublishNetworkActivityEvent(PacketRuleAction action, PacketDirection direction,
                                            const ActivityOrFailure& activity, std::uint32_t ruleIndex);

  tracing::Tracer m_tracer;
  oro::RefPtr<oro::IEventPublisher> m_publisher;
  oro::RefPtr<DataCallback> m_callback;
  oro::RefPtr<INflogListener> m_listener;
};

}  // namespace qel::firewall
