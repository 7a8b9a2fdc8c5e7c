#include "support/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <vector>

#include "support/kernel_tables.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kAlternatives = "/etc/alternatives";
constexpr const char* kToolDirectory = "/usr/sbin";
constexpr const char* kIptablesToolNames[] = {"iptables",  "iptables-save",  "iptables-restore",
                                              "ip6tables", "ip6tables-save", "ip6tables-restore"};

[[noreturn]] void ThrowSystemError(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

fs::path MultiCallBinary(IptablesBackend backend) {
  return fs::path(kToolDirectory) / (std::string("xtables-") + BackendName(backend) + "-multi");
}

// The tool names reach their backend through links in the alternatives
// directory (/usr/sbin/iptables -> /etc/alternatives/iptables -> ...). A bind
// mount over a name would follow those links down to the multi-call binary
// that both names share, so the directory of links is replaced instead.
void CheckToolsResolveThroughAlternatives(const fs::path& binary) {
  if (!fs::exists(binary)) throw std::runtime_error(binary.string() + " is not installed");
  for (const char* name : kIptablesToolNames) {
    const fs::path tool = fs::path(kToolDirectory) / name;
    if (!fs::is_symlink(tool) || fs::read_symlink(tool) != fs::path(kAlternatives) / name) {
      throw std::runtime_error(tool.string() + " does not resolve through " + kAlternatives);
    }
  }
}

std::map<std::string, fs::path> ReadAlternatives() {
  std::map<std::string, fs::path> links;
  for (const auto& entry : fs::directory_iterator(kAlternatives)) {
    if (entry.is_symlink()) links[entry.path().filename()] = fs::read_symlink(entry.path());
  }
  return links;
}

// Runs in the child, after it has its own mount namespace: every other
// alternative keeps its choice.
void ChooseBackend(IptablesBackend backend) {
  const fs::path binary = MultiCallBinary(backend);
  CheckToolsResolveThroughAlternatives(binary);
  auto links = ReadAlternatives();
  for (const char* name : kIptablesToolNames) links[name] = binary;
  // Without this the tmpfs below would propagate to the machine's mounts.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) ThrowSystemError("making / private");
  if (mount("tmpfs", kAlternatives, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
    ThrowSystemError(std::string("mounting a tmpfs over ") + kAlternatives);
  }
  for (const auto& [name, target] : links) fs::create_symlink(target, fs::path(kAlternatives) / name);
}

void WriteAll(int fd, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    written += static_cast<std::size_t>(n);
  }
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(n));
  }
}

struct Isolation {
  int namespaces;
  std::function<void()> prepare;
};

// Never returns: the child must not run the test framework's exit handlers.
[[noreturn]] void RunChild(int reportFd, const Isolation& isolation, const std::function<std::string()>& body) {
  std::string text;
  int status = 0;
  try {
    if (unshare(isolation.namespaces) != 0) ThrowSystemError("unshare");
    isolation.prepare();
  } catch (const std::exception& e) {
    WriteAll(reportFd, std::string("namespace set-up failed: ") + e.what());
    _exit(1);
  }
  try {
    text = body();
  } catch (const std::exception& e) {
    text = std::string("exception: ") + e.what();
    status = 1;
  } catch (...) {
    text = "unknown exception";
    status = 1;
  }
  WriteAll(reportFd, text);
  _exit(status);
}

ChildRun WaitForChild(pid_t child, std::string text) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return {false, "waitpid failed: " + std::string(std::strerror(errno))};
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {true, std::move(text)};
  if (WIFSIGNALED(status)) return {false, "child killed by signal " + std::to_string(WTERMSIG(status)) + ": " + text};
  return {false, std::move(text)};
}

ChildRun RunIsolated(const Isolation& isolation, const std::function<std::string()>& body) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return {false, "pipe2 failed: " + std::string(std::strerror(errno))};
  // Output buffered now would otherwise be written twice.
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(report[0]);
    RunChild(report[1], isolation, body);
  }
  close(report[1]);
  if (child < 0) {
    close(report[0]);
    return {false, "fork failed: " + std::string(std::strerror(errno))};
  }
  // Read to the end before reaping, so a child with much to say never blocks.
  std::string text = ReadAll(report[0]);
  close(report[0]);
  return WaitForChild(child, std::move(text));
}

}  // namespace

const char* BackendName(IptablesBackend backend) { return backend == IptablesBackend::Legacy ? "legacy" : "nft"; }

ChildRun RunInNetworkNamespace(const std::function<std::string()>& body) {
  return RunIsolated({CLONE_NEWNET, [] {}}, body);
}

ChildRun RunInNetworkNamespace(IptablesBackend backend, const std::function<std::string()>& body) {
  return RunIsolated({CLONE_NEWNET | CLONE_NEWNS, [backend] { ChooseBackend(backend); }}, body);
}

namespace {

tools::UniqueFd OpenThreadNamespace() {
  tools::UniqueFd fd(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!fd) ThrowSystemError("opening the thread's network namespace");
  return fd;
}

void Enter(const tools::UniqueFd& ns) {
  if (setns(ns.Get(), CLONE_NEWNET) != 0) ThrowSystemError("setns");
}

void RunIp(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "ip");
  RunToolOk(std::move(arguments));
}

// Both ends of the link with their addresses, up; duplicate address
// detection would keep the IPv6 addresses unusable for a while.
void ConfigureEnd(const char* device, const char* ipv4, const char* ipv6) {
  RunIp({"link", "set", "lo", "up"});
  RunIp({"addr", "add", std::string(ipv4) + "/24", "dev", device});
  RunIp({"-6", "addr", "add", std::string(ipv6) + "/64", "dev", device, "nodad"});
  RunIp({"link", "set", device, "up"});
}

}  // namespace

PeerNamespace::PeerNamespace() : PeerNamespace(Link{"veth-h", "veth-p", kHost4, kPeer4, kHost6, kPeer6}) {}

PeerNamespace::PeerNamespace(const Link& link) : m_home(OpenThreadNamespace()) {
  if (unshare(CLONE_NEWNET) != 0) ThrowSystemError("unshare");
  m_peer = OpenThreadNamespace();
  Enter(m_home);
  // The tool opens the peer's namespace through this process's descriptor.
  RunIp({"link", "add", link.hostDevice, "type", "veth", "peer", "name", link.peerDevice, "netns",
         "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_peer.Get())});
  ConfigureEnd(link.hostDevice, link.host4, link.host6);
  Within([&] { ConfigureEnd(link.peerDevice, link.peer4, link.peer6); });
}

PeerNamespace::Visit::Visit(const PeerNamespace& peer) : m_peer(peer) { Enter(peer.m_peer); }

// Staying in the peer's namespace would make every later step run there,
// unnoticed: better to end the child.
PeerNamespace::Visit::~Visit() {
  if (setns(m_peer.m_home.Get(), CLONE_NEWNET) != 0) {
    std::perror("cannot return from the peer's network namespace");
    std::abort();
  }
}

}  // namespace qel::test
