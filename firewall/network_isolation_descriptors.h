// The descriptors of the isolation records: the names and order of their
// stored fields, and the type names under which the registry finds them.
#pragma once

#include <span>

#include "firewall/network_isolation_data.h"
#include "firewall/ser_obj_descriptor_impl.h"

namespace qel::firewall::serialization {

template <>
const RecordDescriptor<system_interceptors::network_isolation_manager::PortRange>& DescriptorOf();
template <>
const RecordDescriptor<system_interceptors::network_isolation_manager::NetworkExclusionRule3>& DescriptorOf();
template <>
const RecordDescriptor<system_interceptors::connection_interceptor::IpEndpoint>& DescriptorOf();
template <>
const RecordDescriptor<system_interceptors::connection_interceptor::IpEndpointPair>& DescriptorOf();
template <>
const RecordDescriptor<network_isolation_data::EndpointPort>& DescriptorOf();
template <>
const RecordDescriptor<network_isolation_data::Endpoint>& DescriptorOf();
template <>
const RecordDescriptor<network_isolation_data::BuiltinRules>& DescriptorOf();
template <>
const RecordDescriptor<network_isolation_data::SessionData>& DescriptorOf();
template <>
const RecordDescriptor<network_isolation_data::ManagerData>& DescriptorOf();

// Every isolation record's descriptor, each once.
std::span<const oro::SerObjDescriptor* const> IsolationDescriptors();

}  // namespace qel::firewall::serialization
