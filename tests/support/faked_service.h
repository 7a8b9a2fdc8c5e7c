// The firewall service wired as the module wires it, with the framework's
// services and the kernel faked.
#pragma once

#include <stdexcept>

#include "firewall/firewall_service.h"
#include "support/fake_firewall.h"
#include "support/fake_framework.h"
#include "support/fake_kernel.h"

namespace qel::test {

struct FakedService {
  FakedService() {
    locator->Register(tracer);
    locator->Register(timer);
    locator->Register(publisher);
    locator->Register(tools);
    locator->Register(static_cast<firewall::IFirewallStateQuery*>(kernel.Get()));
    if (oro::Failed(CreateInstance(service, locator.Get(), true))) throw std::runtime_error("no service");
  }

  oro::RefPtr<FakeTracer> tracer = Make<FakeTracer>();
  oro::RefPtr<FakeTimer> timer = Make<FakeTimer>();
  oro::RefPtr<FakePublisher> publisher = Make<FakePublisher>();
  oro::RefPtr<FakeKernel> kernel = Make<FakeKernel>();
  oro::RefPtr<FakeInfoProvider> tools = Make<FakeInfoProvider>();
  oro::RefPtr<FakeLocator> locator = Make<FakeLocator>();
  oro::RefPtr<firewall::FirewallService> service;
};

}  // namespace qel::test
