#include "firewall/network_isolation_ebpf_skeleton.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

#include "firewall/ebpf/qdisc_controller.h"
#include "firewall/ebpf/tc_filter.h"

namespace qel::firewall {

namespace {

std::string Hex(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xf];
  }
  return text;
}

// libbpf returns -errno; the trace carries libbpf's own text for it.
oro::result_t LibbpfFailure(const tracing::Tracer& tracer, const char* call, int error, const std::string& detail) {
  const int err = error < 0 ? -error : error;
  char text[128] = {};
  libbpf_strerror(err, text, sizeof(text));
  tracer.Write(tracing::Error, call, " failed: libbpf.err=", text, ", libbpf.errno=", err,
               detail.empty() ? "" : ", ", detail);
  return oro::ResultFromErrno(err);
}

std::string MapDetail(bpf_map* map, const std::vector<std::uint8_t>& key) {
  return std::string("mapName=") + bpf_map__name(map) + ", key=" + Hex(key);
}

}  // namespace

NetworkIsolationEbpfSkeleton::NetworkIsolationEbpfSkeleton(tracing::Tracer tracer, std::string objectPath,
                                                           oro::RefPtr<IQdiscController> qdiscs)
    : m_tracer(std::move(tracer)), m_objectPath(std::move(objectPath)), m_qdiscs(std::move(qdiscs)) {}

NetworkIsolationEbpfSkeleton::~NetworkIsolationEbpfSkeleton() { UnloadAll(); }

oro::result_t NetworkIsolationEbpfSkeleton::Load() {
  m_tracer.Write(tracing::Detail, "Load() path=", m_objectPath);
  if (m_object) return oro::errOk;
  std::vector<char> image;
  if (const auto result = ReadObjectFile(image); ORO_FAILED(result)) return result;

  auto object = std::make_unique<IsolationBpfObject>();
  if (const auto result = object->Create(std::move(image), m_tracer); ORO_FAILED(result)) return result;
  if (int err = bpf_object__open_skeleton(object->Skeleton(), nullptr); err != 0)
    return LibbpfFailure(m_tracer, "bpf_object__open_skeleton", err, "path=" + m_objectPath);
  if (int err = bpf_object__load_skeleton(object->Skeleton()); err != 0)
    return LibbpfFailure(m_tracer, "bpf_object__load_skeleton", err, "path=" + m_objectPath);
  m_object = std::move(object);
  m_tracer.Write(tracing::Warning, "isolation eBPF object loaded from ", m_objectPath);
  return oro::errOk;
}

void NetworkIsolationEbpfSkeleton::UnloadAll() noexcept {
  if (!m_object && m_blockers.empty()) return;
  m_tracer.Write(tracing::Detail, "UnloadAll()");
  // The filters go before the programs they run, and the hooks with them.
  DetachAll();
  m_object.reset();
}

void NetworkIsolationEbpfSkeleton::DetachAll() noexcept {
  for (auto& [index, blocker] : m_blockers) {
    for (const std::uint32_t attachId : blocker.attachIds) {
      // The hook traces why; an interface that is gone has no filter left
      // to take off, and the rest must still go.
      if (ORO_FAILED(blocker.qdisc->DetachFilter(attachId)))
        m_tracer.Write(tracing::Error, "cannot detach the isolation classifier: ifindex=", index,
                       ", attachId=", attachId);
    }
  }
  // Releasing the hooks lets each qdisc go under its ownership rule.
  m_blockers.clear();
}

oro::result_t NetworkIsolationEbpfSkeleton::AttachBlockerTo(int index) {
  m_tracer.Write(tracing::Detail, "AttachBlockerTo() index=", index);
  if (!m_object) {
    m_tracer.Write(tracing::Error, "isolation eBPF object is not loaded; cannot attach to ifindex=", index);
    return oro::errInvalidState;
  }
  if (m_blockers.count(index) != 0) return oro::errOk;
  Blocker blocker;
  if (const auto result = QdiscOf(index, blocker.qdisc); ORO_FAILED(result)) return result;
  const std::pair<bpf_program*, bpf_tc_attach_point> sides[] = {{IngressClassifier(), BPF_TC_INGRESS},
                                                                {EgressClassifier(), BPF_TC_EGRESS}};
  for (const auto& [program, direction] : sides) {
    std::uint32_t attachId = 0;
    if (const auto result = AttachTrafficControlTo(*blocker.qdisc, program, direction, attachId);
        ORO_FAILED(result)) {
      // Half a blocker isolates one way only: the side attached goes again.
      for (const std::uint32_t attached : blocker.attachIds) blocker.qdisc->DetachFilter(attached);
      return result;
    }
    blocker.attachIds.push_back(attachId);
  }
  m_blockers.emplace(index, std::move(blocker));
  return oro::errOk;
}

std::vector<int> NetworkIsolationEbpfSkeleton::AttachedInterfaces() const {
  std::vector<int> indexes;
  for (const auto& entry : m_blockers) indexes.push_back(entry.first);
  return indexes;
}

oro::result_t NetworkIsolationEbpfSkeleton::QdiscOf(int index, oro::RefPtr<IQdisc>& qdisc) {
  if (!m_qdiscs) {
    oro::RefPtr<QdiscController> own;
    if (const auto result = CreateInstance(own, m_tracer); ORO_FAILED(result)) return result;
    m_qdiscs = oro::RefPtr<IQdiscController>::Adopt(own.Detach());
  }
  const auto result = m_qdiscs->GetQdisc(index, qdisc.Out());
  if (ORO_FAILED(result)) QEL_TRACE_FAILED_CALL(m_tracer, "GetQdisc(index)", result, "ifindex=" + std::to_string(index));
  return result;
}

oro::result_t NetworkIsolationEbpfSkeleton::AttachTrafficControlTo(IQdisc& qdisc, bpf_program* program,
                                                                   bpf_tc_attach_point direction,
                                                                   std::uint32_t& attachId) {
  m_tracer.Write(tracing::Detail, "AttachTrafficControlTo() ifindex=", qdisc.IfIndex(),
                 ", direction=", TcDirectionName(direction));
  TcProgram classifier;
  if (const auto result = TcProgramOf(m_tracer, program, classifier); ORO_FAILED(result)) return result;
  return qdisc.AttachFilter(classifier, TcFilterPlace{direction, 1, 1}, attachId);
}

oro::result_t NetworkIsolationEbpfSkeleton::ReadObjectFile(std::vector<char>& image) {
  std::ifstream in(m_objectPath, std::ios::binary);
  if (!in) {
    const int err = errno;
    m_tracer.Write(tracing::Error, "cannot open ebpf program ", m_objectPath, ": errno=", err);
    return err ? oro::ResultFromErrno(err) : oro::errNotFound;
  }
  image.assign(std::istreambuf_iterator<char>(in), {});
  if (in.bad()) {
    m_tracer.Write(tracing::Error, "cannot read ebpf program ", m_objectPath);
    return oro::errUnexpected;
  }
  if (image.empty()) {
    m_tracer.Write(tracing::Error, "zero size of ebpf program ", m_objectPath);
    return oro::errInvalidArgument;
  }
  return oro::errOk;
}

oro::result_t NetworkIsolationEbpfSkeleton::AddPolicyExclude(const ebpf::PolicyWrites& policy,
                                                             ebpf::PolicyWrites& rollback) {
  m_tracer.Write(tracing::Detail, "AddPolicyExclude() policy.size()=", policy.size());
  rollback.clear();
  for (const auto& write : policy) {
    const auto result = Execute(write);
    if (ORO_FAILED(result)) {
      QEL_TRACE_FAILED_CALL(m_tracer, "Execute(write)", result, "Failed to add policy element");
      if (ORO_FAILED(RemovePolicyExclude(std::move(rollback))))
        m_tracer.Write(tracing::Error, "Failed to remove new policy elements");
      rollback.clear();
      return result;
    }
    rollback.insert(rollback.begin(), ebpf::Inverse(write));
  }
  return oro::errOk;
}

oro::result_t NetworkIsolationEbpfSkeleton::RemovePolicyExclude(ebpf::PolicyWrites elements) {
  m_tracer.Write(tracing::Detail, "RemovePolicyExclude() elements.size()=", elements.size());
  oro::result_t first = oro::errOk;
  for (const auto& write : elements) {
    const auto result = Execute(write);
    if (ORO_FAILED(result) && ORO_SUCCEEDED(first)) first = result;
  }
  return first;
}

oro::result_t NetworkIsolationEbpfSkeleton::Execute(const ebpf::PolicyWrite& write) {
  bpf_map* map = PolicyMap(write.map);
  if (!map) {
    m_tracer.Write(tracing::Error, "isolation eBPF object is not loaded, map=", ebpf::PolicyMapName(write.map));
    return oro::errInvalidState;
  }
  switch (write.kind) {
    case ebpf::PolicyWrite::Kind::Insert: return Insert(map, write.key, write.value, false);
    case ebpf::PolicyWrite::Kind::Update: return Insert(map, write.key, write.value, true);
    case ebpf::PolicyWrite::Kind::Remove: return Remove(map, write.key, true);
  }
  return oro::errUnexpected;
}

oro::result_t NetworkIsolationEbpfSkeleton::Insert(bpf_map* map, const std::vector<std::uint8_t>& key,
                                                   const std::vector<std::uint8_t>& value, bool allowExist) {
  m_tracer.Write(tracing::Detail, "Insert() ", MapDetail(map, key), ", value=", Hex(value));
  const int err = bpf_map__update_elem(map, key.data(), key.size(), value.data(), value.size(),
                                       allowExist ? BPF_ANY : BPF_NOEXIST);
  if (err != 0) return LibbpfFailure(m_tracer, "bpf_map__update_elem", err, MapDetail(map, key) + ", value=" + Hex(value));
  return oro::errOk;
}

oro::result_t NetworkIsolationEbpfSkeleton::Remove(bpf_map* map, const std::vector<std::uint8_t>& key,
                                                   bool mustExist) {
  m_tracer.Write(tracing::Detail, "Remove() ", MapDetail(map, key));
  const int err = bpf_map__delete_elem(map, key.data(), key.size(), 0);
  if (err == -ENOENT && !mustExist) return oro::errOk;
  if (err != 0) return LibbpfFailure(m_tracer, "bpf_map__delete_elem", err, MapDetail(map, key));
  return oro::errOk;
}

oro::result_t NetworkIsolationEbpfSkeleton::Lookup(bpf_map* map, const std::vector<std::uint8_t>& key,
                                                   std::vector<std::uint8_t>& value) {
  // Per-CPU maps hand back one value per possible CPU.
  const bool perCpu = bpf_map__type(map) == BPF_MAP_TYPE_PERCPU_ARRAY || bpf_map__type(map) == BPF_MAP_TYPE_PERCPU_HASH ||
                      bpf_map__type(map) == BPF_MAP_TYPE_LRU_PERCPU_HASH;
  const int cpus = perCpu ? libbpf_num_possible_cpus() : 1;
  if (cpus < 0) return LibbpfFailure(m_tracer, "libbpf_num_possible_cpus", cpus, MapDetail(map, key));
  value.assign(bpf_map__value_size(map) * static_cast<std::size_t>(cpus), 0);
  const int err = bpf_map__lookup_elem(map, key.data(), key.size(), value.data(), value.size(), 0);
  if (err != 0) {
    value.clear();
    if (err == -ENOENT) return oro::errNotFound;
    return LibbpfFailure(m_tracer, "bpf_map__lookup_elem", err, MapDetail(map, key));
  }
  return oro::errOk;
}

bpf_map* NetworkIsolationEbpfSkeleton::PolicyMap(ebpf::PolicyMap map) const noexcept {
  if (!m_object) return nullptr;
  switch (map) {
    case ebpf::PolicyMap::AppStep0: return m_object->Map(IsolationBpfObject::kAppStep0);
    case ebpf::PolicyMap::RemoteStep1: return m_object->Map(IsolationBpfObject::kDestIpStep1);
    case ebpf::PolicyMap::LocalStep3: return m_object->Map(IsolationBpfObject::kSrcIpStep3);
    case ebpf::PolicyMap::PortsStep2And4: return m_object->Map(IsolationBpfObject::kPortsStep2And4);
  }
  return nullptr;
}

bpf_program* NetworkIsolationEbpfSkeleton::IngressClassifier() const noexcept {
  return m_object ? m_object->Program(IsolationBpfObject::kTcIsolateIngress) : nullptr;
}

bpf_program* NetworkIsolationEbpfSkeleton::EgressClassifier() const noexcept {
  return m_object ? m_object->Program(IsolationBpfObject::kTcIsolateEgress) : nullptr;
}

}  // namespace qel::firewall
