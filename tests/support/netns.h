// Running test code against the kernel without touching the machine's own
// network: the code runs in a forked child inside a network namespace of its
// own, optionally with the iptables tools switched to one backend.
#pragma once

#include <functional>
#include <string>

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

}  // namespace qel::test
