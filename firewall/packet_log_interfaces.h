// Interfaces of packet logging (the NFLOG listener and its client) and of
// the reservation of free NFQUEUE numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "oro/object.h"

struct nlattr;

namespace qel::firewall {

// NFLOG groups to listen on, in the order they are bound.
using NflogGroupList = std::vector<std::uint16_t>;

// The attributes of one logged packet, indexed by their NFLOG attribute type
// (NFULA_PACKET_HDR, NFULA_PAYLOAD, ...), null where absent. They point into
// the listener's receive buffer and are valid only during the call.
using NflogAttributes = const nlattr* const*;
// Highest NFLOG attribute type the listener collects; the table has one
// entry more.
inline constexpr std::size_t NflogHighestAttribute = 19;

// The listener's client. Called on the listener's thread, one packet at a
// time; the result is only traced.
struct INflogDataCallback : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INflogDataCallback;
  virtual bool OnNflogData(std::uint16_t group, NflogAttributes attributes) noexcept = 0;
};

struct INflogListener : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INflogListener;
  // Binds the groups and starts the listening thread; errInvalidState when
  // started already (the running listener is left alone).
  virtual oro::result_t Start(const NflogGroupList& groups) noexcept = 0;
  // Stops the thread and closes the socket; succeeds when stopped already.
  virtual oro::result_t Stop() noexcept = 0;
};

struct INflogListenerFactory : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INflogListenerFactory;
  // A new, stopped listener bound to `callback`, which it keeps a reference to.
  virtual oro::result_t Create(INflogDataCallback* callback, INflogListener** out) noexcept = 0;
};

// What became of the packets logged to one group since the listener started.
struct NflogGroupCounts {
  std::uint16_t group = 0;
  std::uint64_t delivered = 0;  // handed to the client
  std::uint64_t lost = 0;       // dropped by the kernel, seen as gaps in its numbering
};

struct NflogCounts {
  std::vector<NflogGroupCounts> groups;  // in the order of the group list
  // Receives that failed because the socket's buffer had overflowed: each
  // one means at least one packet, of some group, was lost.
  std::uint64_t overruns = 0;
};

// The counts of a listener, and of the firewall task through its logger.
// Empty while stopped.
struct INflogCounters : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INflogCounters;
  virtual oro::result_t GetNflogCounts(NflogCounts& out) noexcept = 0;
};

// Free NFQUEUE numbers for components that divert traffic to user space.
struct INfqueueQuery : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::INfqueueQuery;
  // Reserves `count` consecutive numbers that no program is bound to and no
  // earlier call handed out, and writes the first to `first`; errNotFound
  // (0x8000004c) when no such run fits below 65536. `first` is untouched on
  // failure.
  virtual oro::result_t GetAvailableQueue(std::uint16_t count, std::uint16_t& first) noexcept = 0;
};

}  // namespace qel::firewall
