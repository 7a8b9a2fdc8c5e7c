// Makes NFLOG listeners for the module's packet loggers; created by class id
// through the module's exports.
#pragma once

#include "firewall/packet_log_interfaces.h"
#include "oro/object.h"
#include "qel_common/object_impl.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

class NflogListenerFactory final : public ObjectImpl<NflogListenerFactory, INflogListenerFactory> {
 public:
  explicit NflogListenerFactory(oro::IServiceLocator* locator);

  // INflogListenerFactory: errInvalidArgument for a null callback or out
  // pointer.
  oro::result_t Create(INflogDataCallback* callback, INflogListener** out) noexcept override;

 private:
  tracing::Tracer m_tracer;
};

}  // namespace qel::firewall
