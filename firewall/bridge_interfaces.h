// Interfaces of bridge filtering: the controller of the bridge netfilter
// switches, and the kernel uevents it follows to learn when the bridge
// netfilter module (and with it the switches) appears.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "oro/object.h"

namespace qel::firewall {

// One kernel uevent: "add" of "/module/br_netfilter", "remove" of
// "/devices/virtual/net/veth0", ... with its KEY=VALUE variables in the
// order the kernel sent them (ACTION, DEVPATH, SUBSYSTEM, SEQNUM, ...).
struct Uevent {
  std::string action;
  std::string devpath;
  std::vector<std::pair<std::string, std::string>> variables;
};

// A receiver of kernel uevents. Called on the source's thread, one event at
// a time; the result is only traced.
struct IUevents : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IUevents;
  virtual oro::result_t OnUevent(const Uevent& uevent) noexcept = 0;
};

// A source of kernel uevents. It keeps no reference to its sinks (a sink
// usually owns its source): a sink unsubscribes before it goes.
struct IUeventsSubscription : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IUeventsSubscription;
  // errAlreadyExists when `sink` is subscribed already; errInvalidArgument
  // for null.
  virtual oro::result_t Subscribe(IUevents* sink) noexcept = 0;
  // Returns once no notification to `sink` runs, so that the sink may go
  // (from within a notification on the source's own thread it cannot wait
  // for itself and returns at once). errNotFound when `sink` was not
  // subscribed.
  virtual oro::result_t Unsubscribe(IUevents* sink) noexcept = 0;
};

// The bridge netfilter switches (whether bridged traffic passes the
// iptables and ip6tables chains), shared by clients that each ask for a
// value. The newest forced request wins, else the newest request; the
// switches get their earlier texts back when the last client leaves.
struct IBridgeController : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IBridgeController;
  // Records the request of `clientId` and applies the value in force.
  // errAlreadyExists, with nothing changed, when the client has a request.
  // A failed write is reported, but the request stays recorded: it is
  // applied when the switches appear.
  virtual oro::result_t AddBridgeNfCallsClient(std::uint32_t clientId, bool nfCallsValue, bool force) noexcept = 0;
  // Removes the client's request and applies what is left; errNotFound for
  // a client without a request.
  virtual oro::result_t DeleteBridgeNfCallsClient(std::uint32_t clientId) noexcept = 0;
};

}  // namespace qel::firewall
