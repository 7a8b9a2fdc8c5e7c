// Classifiers and tc hooks for kernel tests, made with libbpf alone so that
// a test needs no eBPF object file: a program that lets every packet
// through, loaded from two raw instructions, and "foreign" filters attached
// as another program on the machine would attach them.
#pragma once

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <linux/pkt_cls.h>

#include <cerrno>
#include <cstdint>
#include <sstream>
#include <string>

#include "firewall/ebpf/bpf_tc_has_filters.h"
#include "qel_common/unique_fd.h"

namespace qel::test {

// A BPF_PROG_TYPE_SCHED_CLS program returning TC_ACT_OK; invalid when the
// kernel refuses it. The descriptor is close-on-exec, as every bpf one.
inline tools::UniqueFd LoadAcceptingClassifier() {
  const bpf_insn instructions[] = {
      {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, TC_ACT_OK},
      {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
  };
  return tools::UniqueFd(bpf_prog_load(BPF_PROG_TYPE_SCHED_CLS, "accept_all", "GPL", instructions, 2, nullptr));
}

inline bpf_tc_hook TestHook(int ifindex, int attachPoint) {
  bpf_tc_hook hook{};
  hook.sz = sizeof hook;
  hook.ifindex = ifindex;
  hook.attach_point = static_cast<bpf_tc_attach_point>(attachPoint);
  return hook;
}

// Whether the interface has a clsact qdisc. Asking creates one when there
// is none, which is deleted again at once.
inline bool HasClsact(int ifindex) {
  bpf_tc_hook hook = TestHook(ifindex, BPF_TC_INGRESS | BPF_TC_EGRESS);
  const int created = bpf_tc_hook_create(&hook);
  if (created == 0) bpf_tc_hook_destroy(&hook);
  return created == -EEXIST;
}

// Creates the clsact qdisc; 0 or libbpf's negative errno.
inline int CreateClsact(int ifindex) {
  bpf_tc_hook hook = TestHook(ifindex, BPF_TC_INGRESS | BPF_TC_EGRESS);
  return bpf_tc_hook_create(&hook);
}

// Attaches `programFd` at `direction` in the slot (handle, priority).
inline int AttachForeignFilter(int ifindex, int direction, int programFd, std::uint32_t handle,
                               std::uint32_t priority) {
  const bpf_tc_hook hook = TestHook(ifindex, direction);
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.prog_fd = programFd;
  options.handle = handle;
  options.priority = priority;
  return bpf_tc_attach(&hook, &options);
}

inline int DetachForeignFilter(int ifindex, int direction, std::uint32_t handle, std::uint32_t priority) {
  const bpf_tc_hook hook = TestHook(ifindex, direction);
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.handle = handle;
  options.priority = priority;
  return bpf_tc_detach(&hook, &options);
}

// Filters on one side of the interface's clsact, as the module counts them.
inline int Filters(int ifindex, int side) {
  const bpf_tc_hook hook = TestHook(ifindex, side);
  return firewall::bpf_tc_has_filters(&hook);
}

// "clsact=1 ingress=2 egress=0"
inline std::string HookState(int ifindex) {
  std::ostringstream text;
  text << "clsact=" << HasClsact(ifindex) << " ingress=" << Filters(ifindex, BPF_TC_INGRESS)
       << " egress=" << Filters(ifindex, BPF_TC_EGRESS);
  return text.str();
}

}  // namespace qel::test
