#include "firewall/nflog_listener_factory.h"

#include "firewall/nflog_listener.h"
#include "qel_common/service_locator.h"
#include "qel_tracing/guard.h"

namespace qel::firewall {

NflogListenerFactory::NflogListenerFactory(oro::IServiceLocator* locator) {
  oro::result_t ignored;
  m_tracer = tracing::Tracer(TryGetInterface<oro::ITracer>(locator, ignored));
}

oro::result_t NflogListenerFactory::Create(INflogDataCallback* callback, INflogListener** out) noexcept {
  return tracing::Guarded(m_tracer, "Create", [&] {
    if (!callback) {
      QEL_TRACE_FAILED_CONDITION(m_tracer, "callback", "nflog callback is nullptr");
      return oro::errInvalidArgument;
    }
    if (!out) {
      QEL_TRACE_FAILED_CONDITION(m_tracer, "out", "out pointer of nflog listener is nullptr");
      return oro::errInvalidArgument;
    }
    oro::RefPtr<NflogListener> listener;
    const oro::result_t r = CreateInstance(listener, oro::RefPtr<oro::ITracer>::Share(m_tracer.Get()),
                                           oro::RefPtr<INflogDataCallback>::Share(callback));
    if (ORO_SUCCEEDED(r)) *out = static_cast<INflogListener*>(listener.Detach());
    return r;
  });
}

}  // namespace qel::firewall
