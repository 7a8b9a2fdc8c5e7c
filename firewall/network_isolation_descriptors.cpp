#include "firewall/network_isolation_descriptors.h"

#include <array>

namespace qel::firewall::serialization {

namespace nim = system_interceptors::network_isolation_manager;
namespace ci = system_interceptors::connection_interceptor;
namespace nid = network_isolation_data;

// Each descriptor is built on first use, so that a record nested in another
// finds its own whatever the order of static initialisation.

template <>
const RecordDescriptor<nim::PortRange>& DescriptorOf() {
  static const SerObjDescriptorImpl descriptor{"system_interceptors::network_isolation_manager::PortRange",
                                               Field{"start", &nim::PortRange::first},
                                               Field{"end", &nim::PortRange::last}};
  return descriptor;
}

template <>
const RecordDescriptor<nim::NetworkExclusionRule3>& DescriptorOf() {
  using Rule = nim::NetworkExclusionRule3;
  static const SerObjDescriptorImpl descriptor{
      "system_interceptors::network_isolation_manager::NetworkExclusionRule3",
      Field{"remoteAddress", &Rule::remoteAddress},
      Field{"protocol", &Rule::protocol},
      Field{"localPortRange", &Rule::localPortRange},
      Field{"remotePortRange", &Rule::remotePortRange},
      Field{"dataSource", &Rule::dataSource},
      Field{"applicationPath", &Rule::applicationPath}};
  return descriptor;
}

template <>
const RecordDescriptor<ci::IpEndpoint>& DescriptorOf() {
  static const SerObjDescriptorImpl descriptor{"system_interceptors::connection_interceptor::IpEndpoint",
                                               Field{"address", &ci::IpEndpoint::address},
                                               Field{"port", &ci::IpEndpoint::port}};
  return descriptor;
}

template <>
const RecordDescriptor<ci::IpEndpointPair>& DescriptorOf() {
  static const SerObjDescriptorImpl descriptor{"system_interceptors::connection_interceptor::IpEndpointPair",
                                               Field{"remoteEndpoint", &ci::IpEndpointPair::remoteEndpoint},
                                               Field{"localEndpoint", &ci::IpEndpointPair::localEndpoint}};
  return descriptor;
}

template <>
const RecordDescriptor<nid::EndpointPort>& DescriptorOf() {
  static const SerObjDescriptorImpl descriptor{"qel::firewall::network_isolation_data::EndpointPort",
                                               Field{"localPort", &nid::EndpointPort::localPort},
                                               Field{"remotePort", &nid::EndpointPort::remotePort},
                                               Field{"protocol", &nid::EndpointPort::protocol},
                                               Field{"direction", &nid::EndpointPort::direction}};
  return descriptor;
}

template <>
const RecordDescriptor<nid::Endpoint>& DescriptorOf() {
  static const SerObjDescriptorImpl descriptor{"qel::firewall::network_isolation_data::Endpoint",
                                               Field{"domain", &nid::Endpoint::domain},
                                               Field{"addresses", &nid::Endpoint::addresses},
                                               Field{"ports", &nid::Endpoint::ports}};
  return descriptor;
}

template <>
const RecordDescriptor<nid::BuiltinRules>& DescriptorOf() {
  using Rules = nid::BuiltinRules;
  static const SerObjDescriptorImpl descriptor{"qel::firewall::network_isolation_data::BuiltinRules",
                                               Field{"tamberServers", &Rules::tamberServers},
                                               Field{"pelmServer", &Rules::pelmServer},
                                               Field{"lumraVIISServer", &Rules::lumraVIISServer},
                                               Field{"lumraSVMServers", &Rules::lumraSVMServers},
                                               Field{"vyxProxies", &Rules::vyxProxies},
                                               Field{"vyxServers", &Rules::vyxServers},
                                               Field{"ruskServers", &Rules::ruskServers}};
  return descriptor;
}

template <>
const RecordDescriptor<nid::SessionData>& DescriptorOf() {
  static const SerObjDescriptorImpl descriptor{"qel::firewall::network_isolation_data::SessionData",
                                               Field{"firewallTag", &nid::SessionData::firewallTag},
                                               Field{"endpointExclusions3", &nid::SessionData::endpointExclusions3}};
  return descriptor;
}

template <>
const RecordDescriptor<nid::ManagerData>& DescriptorOf() {
  static const SerObjDescriptorImpl descriptor{"qel::firewall::network_isolation_data::ManagerData",
                                               Field{"clients", &nid::ManagerData::clients},
                                               Field{"builtIn", &nid::ManagerData::builtIn}};
  return descriptor;
}

std::span<const oro::SerObjDescriptor* const> IsolationDescriptors() {
  static const std::array<const oro::SerObjDescriptor*, 9> descriptors{
      &DescriptorOf<nim::PortRange>(),        &DescriptorOf<nim::NetworkExclusionRule3>(),
      &DescriptorOf<ci::IpEndpoint>(),        &DescriptorOf<ci::IpEndpointPair>(),
      &DescriptorOf<nid::EndpointPort>(),     &DescriptorOf<nid::Endpoint>(),
      &DescriptorOf<nid::BuiltinRules>(),     &DescriptorOf<nid::SessionData>(),
      &DescriptorOf<nid::ManagerData>()};
  return descriptors;
}

}  // namespace qel::firewall::serialization
