#include "firewall/isolation_bpf_object.h"

#include <bpf/libbpf.h>

#include <cstdlib>

namespace qel::firewall {

namespace {

// Names as the object declares them; libbpf names the read-only data map
// after the first eight characters of the object's name.
constexpr const char* kObjectName = "IsolationBpf";
constexpr const char* kMapNames[IsolationBpfObject::kMapCount] = {
    "PolicyPacketExcludeForAppStep0", "PolicyPacketExcludeDestIpStep1", "PolicyPacketExcludeSrcIpStep3",
    "PolicyPacketExcludePortsRangeStep2And4", "RuntimeSockets", "RuntimeListenSocket",
    "RuntimeConnectRequestSocket", "Heap", "TCPConntrack", "Isolatio.rodata"};
constexpr const char* kProgramNames[IsolationBpfObject::kProgramCount] = {"TcIsolateIngress", "TcIsolateEgress"};

}  // namespace

IsolationBpfObject::~IsolationBpfObject() {
  // Frees the skeleton's arrays and itself, and closes the object.
  if (m_skeleton) bpf_object__destroy_skeleton(m_skeleton);
}

oro::result_t IsolationBpfObject::Create(std::vector<char> image, const tracing::Tracer& tracer) {
  m_image = std::move(image);
  // libbpf frees these with free(): they come from calloc.
  m_skeleton = static_cast<bpf_object_skeleton*>(std::calloc(1, sizeof(bpf_object_skeleton)));
  if (!m_skeleton) {
    tracer.Write(tracing::Error, "Cannot allocate bpf_object_skeleton");
    return oro::errNoMemory;
  }
  m_skeleton->sz = sizeof(*m_skeleton);
  m_skeleton->name = kObjectName;
  m_skeleton->data = m_image.data();
  m_skeleton->data_sz = m_image.size();
  m_skeleton->obj = &m_object;

  m_skeleton->map_skel_sz = sizeof(bpf_map_skeleton);
  m_skeleton->maps = static_cast<bpf_map_skeleton*>(std::calloc(kMapCount, sizeof(bpf_map_skeleton)));
  if (!m_skeleton->maps) {
    tracer.Write(tracing::Error, "Cannot allocate bpf_map_skeleton");
    return oro::errNoMemory;
  }
  m_skeleton->map_cnt = kMapCount;
  for (std::size_t i = 0; i < kMapCount; ++i) {
    m_skeleton->maps[i].name = kMapNames[i];
    m_skeleton->maps[i].map = &m_maps[i];
  }
  m_skeleton->maps[kRodata].mmaped = &m_rodata;

  m_skeleton->prog_skel_sz = sizeof(bpf_prog_skeleton);
  m_skeleton->progs = static_cast<bpf_prog_skeleton*>(std::calloc(kProgramCount, sizeof(bpf_prog_skeleton)));
  if (!m_skeleton->progs) {
    tracer.Write(tracing::Error, "Cannot allocate bpf_prog_skeleton");
    return oro::errNoMemory;
  }
  m_skeleton->prog_cnt = kProgramCount;
  for (std::size_t i = 0; i < kProgramCount; ++i) {
    m_skeleton->progs[i].name = kProgramNames[i];
    m_skeleton->progs[i].prog = &m_programs[i];
    m_skeleton->progs[i].link = &m_links[i];
  }
  return oro::errOk;
}

}  // namespace qel::firewall
