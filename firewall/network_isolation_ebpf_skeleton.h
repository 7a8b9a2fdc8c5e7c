// The isolation classifier's object in the kernel: read from the file the
// product installs, opened and loaded through a skeleton built here (the
// object is not compiled into the module, so no generated skeleton exists),
// and its policy maps written entry by entry.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "firewall/ebpf/policy_write.h"
#include "firewall/ebpf/qdisc_interfaces.h"
#include "firewall/isolation_bpf_object.h"
#include "oro/result.h"
#include "qel_tracing/tracer.h"

namespace qel::firewall {

inline constexpr const char* kIsolationBpfObjectPath =
    "/var/opt/quorix/vorn/private/ebpf/network_isolation/network_isolation.o";

class NetworkIsolationEbpfSkeleton {
 public:
  // `qdiscs` hands out the interfaces' tc hooks; without one the skeleton
  // makes its own at the first attach. Sharing the host's controller lets
  // other users of an interface's hook share its qdisc with us.
  explicit NetworkIsolationEbpfSkeleton(tracing::Tracer tracer, std::string objectPath = kIsolationBpfObjectPath,
                                        oro::RefPtr<IQdiscController> qdiscs = {});
  ~NetworkIsolationEbpfSkeleton();

  // Reads the object file, opens and loads it. Loading what is loaded
  // already does nothing.
  oro::result_t Load();
  // Undoes Load and every attach: the classifiers are detached, the hooks
  // released (a qdisc goes only if it was created for us and nobody else has
  // filters on it), then programs, maps and object are released. An
  // interface that went away meanwhile does not stop the rest.
  void UnloadAll() noexcept;
  bool IsLoaded() const noexcept { return m_object != nullptr; }

  // Puts the blocking classifiers on both sides of the interface `index`.
  // Attaching to an interface that has them already changes nothing. When
  // one side fails, the other is taken off again.
  oro::result_t AttachBlockerTo(int index);
  // The interfaces the classifiers are attached to, in index order.
  std::vector<int> AttachedInterfaces() const;

  // Carries out `policy` in order. `rollback` receives the writes that undo
  // what was done; on the first failure they are carried out at once, so the
  // maps are left as they were, and the failure is returned.
  oro::result_t AddPolicyExclude(const ebpf::PolicyWrites& policy, ebpf::PolicyWrites& rollback);
  // Carries out every write (also after a failure, so that as much as
  // possible goes); returns the first failure.
  oro::result_t RemovePolicyExclude(ebpf::PolicyWrites elements);

  // The map helpers. An existing key is an error for insert unless
  // `allowExist`; a missing key is an error for remove if `mustExist`.
  oro::result_t Insert(bpf_map* map, const std::vector<std::uint8_t>& key, const std::vector<std::uint8_t>& value,
                       bool allowExist);
  oro::result_t Remove(bpf_map* map, const std::vector<std::uint8_t>& key, bool mustExist);
  oro::result_t Lookup(bpf_map* map, const std::vector<std::uint8_t>& key, std::vector<std::uint8_t>& value);

  // Null while not loaded.
  bpf_map* PolicyMap(ebpf::PolicyMap map) const noexcept;
  bpf_program* IngressClassifier() const noexcept;
  bpf_program* EgressClassifier() const noexcept;

 private:
  oro::result_t ReadObjectFile(std::vector<char>& image);
  oro::result_t Execute(const ebpf::PolicyWrite& write);
  oro::result_t AttachTrafficControlTo(IQdisc& qdisc, bpf_program* program, bpf_tc_attach_point direction,
                                       std::uint32_t& attachId);
  oro::result_t QdiscOf(int index, oro::RefPtr<IQdisc>& qdisc);
  void DetachAll() noexcept;

  // One interface's hook, held while our classifiers are on it, and the
  // ids of those filters there.
  struct Blocker {
    oro::RefPtr<IQdisc> qdisc;
    std::vector<std::uint32_t> attachIds;
  };

  tracing::Tracer m_tracer;
  std::string m_objectPath;
  oro::RefPtr<IQdiscController> m_qdiscs;
  std::map<int, Blocker> m_blockers;  // by interface index
  std::unique_ptr<IsolationBpfObject> m_object;
};

}  // namespace qel::firewall
