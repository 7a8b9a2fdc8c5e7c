// Whether one side of an interface's clsact qdisc holds filters, asked over
// rtnetlink: libbpf can create and delete the qdisc and attach to it, but
// cannot tell whether someone else still has filters on it, which decides
// whether the qdisc may go.
#pragma once

#include <bpf/libbpf.h>

namespace qel::firewall {

// The number of filters on the side of `hook` (BPF_TC_INGRESS, BPF_TC_EGRESS,
// or BPF_TC_CUSTOM with its parent) of the interface `hook->ifindex`, or a
// negative errno, as libbpf's own tc calls answer. An interface without a
// clsact qdisc, or one that does not exist, has no filters: the kernel
// answers both with an empty dump, and either way nothing is attached there.
// A dump that the kernel marks as interrupted (the filters changed while it
// ran) is asked again a few times before it fails with -EINTR.
int bpf_tc_has_filters(const bpf_tc_hook* hook);

}  // namespace qel::firewall
