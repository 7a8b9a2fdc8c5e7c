// Interfaces of the traffic-control hooks that the eBPF isolation attaches
// its classifiers to: one interface's clsact qdisc with the filters
// attached to it, and the controller that hands out one such hook per
// interface.
#pragma once

#include <bpf/libbpf.h>

#include <cstdint>
#include <string>

#include "oro/object.h"

namespace qel::firewall {

// A loaded classifier program. Its owner keeps `fd` open while the program
// is attached; `name` is for traces.
struct TcProgram {
  int fd = -1;
  std::string name;
};

// Where a filter sits on a hook: its side (BPF_TC_INGRESS or BPF_TC_EGRESS)
// and its slot.
struct TcFilterPlace {
  bpf_tc_attach_point direction = BPF_TC_INGRESS;
  std::uint32_t handle = 1;
  std::uint32_t priority = 1;
};

// The clsact qdisc of one interface. The qdisc is created when there is
// none; it is deleted when the last reference goes only if it was created
// here and nobody (this object included) has filters on it any more.
// Filters still attached when the last reference goes are detached first.
struct IQdisc : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IQdisc;

  virtual int IfIndex() const noexcept = 0;
  // Attaches `program` at `place` and names the filter in `attachId`. The
  // same program attached on that side already is not attached again: its
  // filter's id comes back. errInvalidArgument for a closed program or a
  // side other than ingress or egress; the kernel's errno as a result code
  // otherwise (another filter in the slot: EEXIST).
  virtual oro::result_t AttachFilter(const TcProgram& program, const TcFilterPlace& place,
                                     std::uint32_t& attachId) noexcept = 0;
  // Detaches the filter `attachId`; errNotFound for an id that names none.
  virtual oro::result_t DetachFilter(std::uint32_t attachId) noexcept = 0;
};

// Hands out the hook of an interface: the same object while some user holds
// it, so that two users of one interface share its filters and its qdisc.
struct IQdiscController : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IQdiscController;

  // errInvalidArgument for an index below 1 or a null `out`; the kernel's
  // errno as a result code when the qdisc can be neither found nor created
  // (no such interface: ENODEV).
  virtual oro::result_t GetQdisc(int ifindex, IQdisc** out) noexcept = 0;
};

}  // namespace qel::firewall
