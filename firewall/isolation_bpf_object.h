// The isolation classifier's object as libbpf holds it, built by hand as a
// skeleton: the object is read from a file at run time, so no generated
// skeleton can be compiled in.
#pragma once

#include <cstddef>
#include <vector>

#include "oro/result.h"
#include "qel_tracing/tracer.h"

struct bpf_object_skeleton;
struct bpf_object;
struct bpf_map;
struct bpf_program;
struct bpf_link;

namespace qel::firewall {

// The opened object with the storage its skeleton points into; destroying it
// closes the object, its maps and programs.
class IsolationBpfObject {
 public:
  // Maps in the order the skeleton declares them.
  enum MapIndex : std::size_t {
    kAppStep0, kDestIpStep1, kSrcIpStep3, kPortsStep2And4, kRuntimeSockets, kRuntimeListenSocket,
    kRuntimeConnectRequestSocket, kHeap, kTcpConntrack, kRodata, kMapCount
  };
  enum ProgramIndex : std::size_t { kTcIsolateIngress, kTcIsolateEgress, kProgramCount };

  IsolationBpfObject() = default;
  IsolationBpfObject(const IsolationBpfObject&) = delete;
  IsolationBpfObject& operator=(const IsolationBpfObject&) = delete;
  ~IsolationBpfObject();

  // Builds the skeleton over `image`, which it keeps; fails only when memory
  // runs out (traced with what could not be allocated).
  oro::result_t Create(std::vector<char> image, const tracing::Tracer& tracer);
  bpf_object_skeleton* Skeleton() const noexcept { return m_skeleton; }
  bpf_map* Map(MapIndex index) const noexcept { return m_maps[index]; }
  bpf_program* Program(ProgramIndex index) const noexcept { return m_programs[index]; }

 private:
  std::vector<char> m_image;
  bpf_object_skeleton* m_skeleton = nullptr;
  bpf_object* m_object = nullptr;
  bpf_map* m_maps[kMapCount] = {};
  void* m_rodata = nullptr;
  bpf_program* m_programs[kProgramCount] = {};
  // Attachments through the skeleton; libbpf destroys them with the skeleton.
  bpf_link* m_links[kProgramCount] = {};
};

}  // namespace qel::firewall
