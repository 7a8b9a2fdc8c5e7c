// Running test code against the kernel without touching the machine's own
// network: the code runs in a forked child inside a network namespace of its
// own, optionally with the iptables tools switched to one backend.
#pragma once

#include <functional>
#include <string>

#include "qel_common/unique_fd.h"

namespace qel::test {

// The two implementations behind the iptables tool names.
enum class IptablesBackend { Legacy, Nft };

// "legacy" or "nft".
const char* BackendName(IptablesBackend backend);

struct ChildRun {
  // The body returned normally in the child.
  bool completed = false;
  // What the body returned, or why it did not complete.
  std::string output;
};

// Runs `body` in a forked child inside a fresh network namespace; its text
// comes back through a pipe. The child ends with the body, so nothing it
// changes outlives it. Needs root.
ChildRun RunInNetworkNamespace(const std::function<std::string()>& body);

// The same, and in a private mount namespace in which "iptables",
// "ip6tables" and their "-save" and "-restore" names run `backend`, whatever
// the machine's alternatives choose.
ChildRun RunInNetworkNamespace(IptablesBackend backend, const std::function<std::string()>& body);

// A second network namespace joined to the caller's by a veth pair, as two
// hosts on one link: "veth-h" here with 10.77.0.1/24 and fd77::1/64,
// "veth-p" there with 10.77.0.2/24 and fd77::2/64. Build it inside a
// namespace child (see above); it lasts as long as the object, or the child.
class PeerNamespace {
 public:
  static constexpr const char* kHost4 = "10.77.0.1";
  static constexpr const char* kPeer4 = "10.77.0.2";
  static constexpr const char* kHost6 = "fd77::1";
  static constexpr const char* kPeer6 = "fd77::2";

  // A link's two devices and their addresses (IPv4 /24, IPv6 /64), for a
  // namespace other than the usual peer.
  struct Link {
    const char* hostDevice;
    const char* peerDevice;
    const char* host4;
    const char* peer4;
    const char* host6;
    const char* peer6;
  };

  PeerNamespace();
  explicit PeerNamespace(const Link& link);

  // Runs `step` with the calling thread in the peer's namespace and returns
  // what it returns: the sockets it opens and the tools it runs belong to
  // the peer, and stay there once the thread is back.
  template <class Step>
  auto Within(Step&& step) const {
    const Visit visit(*this);
    return step();
  }

 private:
  // Moves the calling thread into the peer's namespace and back.
  class Visit {
   public:
    explicit Visit(const PeerNamespace& peer);
    ~Visit();
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

   private:
    const PeerNamespace& m_peer;
  };

  tools::UniqueFd m_home;
  tools::UniqueFd m_peer;
};

}  // namespace qel::test
