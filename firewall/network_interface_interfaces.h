// Interfaces of the network-interface provider: the interfaces it hands out,
// the list, and the notifications of interfaces that appear, go away or
// change.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "oro/object.h"
#include "oro/ref_ptr.h"

namespace qel::firewall {

// One network interface as it was when the object was made; only the sysfs
// questions are answered from the system at the time they are asked.
struct INetworkInterface : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkInterface;
  virtual std::uint32_t GetIndex() const noexcept = 0;
  // Valid while the object lives.
  virtual const char* GetName() const noexcept = 0;
  virtual bool IsEnabled() const noexcept = 0;
  // errOk when the interface is backed by a device (a network card), errFalse
  // when it is virtual (loopback, veth, bridge, vlan...).
  virtual oro::result_t IsPhysical() const noexcept = 0;
  // The names of the interfaces stacked directly below (a vlan's parent, a
  // bond's members) or above (a vlan on it, its bridge), sorted. `names` is
  // replaced on success and untouched on failure.
  virtual oro::result_t GetLowerInterfaces(std::vector<std::string>& names) const noexcept = 0;
  virtual oro::result_t GetUpperInterfaces(std::vector<std::string>& names) const noexcept = 0;
};
using NetworkInterfaces = std::vector<oro::RefPtr<INetworkInterface>>;

struct INetworkInterfaceProvider : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkInterfaceProvider;
  // Replaces `interfaces` with a fresh object for each current interface;
  // untouched on failure.
  virtual oro::result_t GetInterfaces(NetworkInterfaces& interfaces) noexcept = 0;
};

// A subscriber's sink. Called on the provider's monitoring thread, one call
// per difference, never two at once; the sink takes its own locks.
struct INetworkInterfaceProviderEvents : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkInterfaceProviderEvents;
  virtual void OnInterfaceAdded(INetworkInterface* addedInterface) noexcept = 0;
  virtual void OnInterfaceDeleted(INetworkInterface* deletedInterface) noexcept = 0;
  // Same index, some other property differs (a rename, up or down).
  virtual void OnInterfaceChanged(INetworkInterface* oldInterface, INetworkInterface* newInterface) noexcept = 0;
};

struct INetworkInterfaceProviderEventsSubscription : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INetworkInterfaceProviderEventsSubscription;
  // The provider keeps a reference to the sink while it is subscribed.
  // errInvalidArgument for null, errAlreadyExists when subscribed already.
  virtual oro::result_t Subscribe(INetworkInterfaceProviderEvents* sink) noexcept = 0;
  // No notification to `sink` starts once this returns; one that is running
  // may still be. errNotFound when it was not subscribed.
  virtual oro::result_t Unsubscribe(INetworkInterfaceProviderEvents* sink) noexcept = 0;
  // As Unsubscribe, and returns only when no notification to `sink` is
  // running, so the sink's owner may tear it down. Called from within a
  // notification it cannot wait for that notification and does not.
  virtual oro::result_t UnsubscribeAndWait(INetworkInterfaceProviderEvents* sink) noexcept = 0;
};

}  // namespace qel::firewall
