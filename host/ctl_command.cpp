#include "host/ctl_command.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>

#include "host/json.h"
#include "qel_common/unique_fd.h"

namespace qel::host {
namespace {

constexpr int kUnreachable = 2;
// Adding rules runs the kernel's tools; a minute is far more than they take.
constexpr int kReplyTimeoutMs = 60 * 1000;

std::string ErrnoText() { return std::strerror(errno); }

// A request spread over several lines would be several requests: JSON reads
// a line break between tokens as a blank, so it becomes one.
std::string OneLine(std::string request) {
  std::replace_if(request.begin(), request.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return request + "\n";
}

// Writes what it can: a host that refuses a long line closes the
// connection before reading all of it, and its reply is still to be read.
void SendAll(int fd, const std::string& data) {
  for (std::size_t sent = 0; sent < data.size();) {
    const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
  ::shutdown(fd, SHUT_WR);
}

// The first line the host sends, without its newline; empty when none came.
std::string ReceiveLine(int fd) {
  std::string received;
  char buffer[16 * 1024];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, kReplyTimeoutMs) <= 0) return "";
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return "";
    received.append(buffer, static_cast<std::size_t>(n));
    if (const auto newline = received.find('\n'); newline != std::string::npos) return received.substr(0, newline);
  }
}

}  // namespace

int RunCtlCommand(const std::string& socketPath, const std::string& request, std::ostream& out, std::ostream& err) {
  const auto unreachable = [&](const std::string& why) {
    err << "firewall-host: cannot reach the host at " << socketPath << ": " << why << "\n";
    return kUnreachable;
  };
  sockaddr_un address{};
  if (socketPath.empty() || socketPath.size() >= sizeof address.sun_path) return unreachable("path too long");
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  tools::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return unreachable(ErrnoText());
  if (::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return unreachable(ErrnoText());
  }
  SendAll(fd.Get(), OneLine(request));
  const std::string reply = ReceiveLine(fd.Get());
  if (reply.empty()) return unreachable("no reply");
  out << reply << "\n";
  const Json parsed = Json::parse(reply, nullptr, false);
  if (!parsed.is_object() || !parsed.contains("ok") || !parsed["ok"].is_boolean()) {
    err << "firewall-host: the reply is not one of the host's\n";
    return kUnreachable;
  }
  return parsed["ok"].get<bool>() ? 0 : 1;
}

}  // namespace qel::host
