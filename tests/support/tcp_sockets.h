// TCP traffic for tests between network namespaces (see PeerNamespace in
// netns.h): a listener, a connection attempt that gives up after a while,
// and the addresses a connection was made between. A socket belongs to the
// namespace of the thread that opened it.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

#include "qel_common/unique_fd.h"

namespace qel::test {

using namespace std::chrono_literals;

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  // "10.77.0.1" or "fd77::1" with a port.
  static SocketAddress Of(const std::string& address, std::uint16_t port) {
    SocketAddress result;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&result.storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&result.storage);
    if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
      v4->sin_family = AF_INET;
      v4->sin_port = htons(port);
      result.length = sizeof(sockaddr_in);
    } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
      v6->sin6_family = AF_INET6;
      v6->sin6_port = htons(port);
      result.length = sizeof(sockaddr_in6);
    } else {
      throw std::invalid_argument("not an address: " + address);
    }
    return result;
  }

  int Family() const { return storage.ss_family; }
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }

  // "10.77.0.1:8080", "[fd77::1]:8080".
  std::string Text() const {
    char text[INET6_ADDRSTRLEN] = "";
    if (Family() == AF_INET) {
      const auto* v4 = reinterpret_cast<const sockaddr_in*>(&storage);
      inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
      return std::string(text) + ":" + std::to_string(ntohs(v4->sin_port));
    }
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&storage);
    inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6->sin6_port));
  }
};

[[noreturn]] inline void ThrowSocketError(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

inline tools::UniqueFd OpenTcpSocket(int family) {
  tools::UniqueFd fd(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd) ThrowSocketError("socket");
  return fd;
}

inline bool WaitFor(int fd, short events, std::chrono::milliseconds wait) {
  pollfd entry{fd, events, 0};
  int ready;
  do {
    ready = poll(&entry, 1, static_cast<int>(wait.count()));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

class TcpListener {
 public:
  struct Accepted {
    std::string local;   // where the connection was made to
    std::string remote;  // where it came from
  };

  // `transparent` lets it take connections made to other addresses and
  // ports, as a divert hands them over.
  TcpListener(const std::string& address, std::uint16_t port, bool transparent = false) {
    const SocketAddress bound = SocketAddress::Of(address, port);
    m_fd = OpenTcpSocket(bound.Family());
    const int on = 1;
    setsockopt(m_fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (transparent) {
      const bool v4 = bound.Family() == AF_INET;
      if (setsockopt(m_fd.Get(), v4 ? SOL_IP : SOL_IPV6, v4 ? IP_TRANSPARENT : IPV6_TRANSPARENT, &on, sizeof on) != 0) {
        ThrowSocketError("IP_TRANSPARENT");
      }
    }
    if (bind(m_fd.Get(), bound.Get(), bound.length) != 0) ThrowSocketError("bind " + bound.Text());
    if (listen(m_fd.Get(), 16) != 0) ThrowSocketError("listen");
  }

  // The next connection, if one comes within `wait`.
  std::optional<Accepted> Accept(std::chrono::milliseconds wait = 2000ms) {
    if (!WaitFor(m_fd.Get(), POLLIN, wait)) return std::nullopt;
    SocketAddress remote;
    remote.length = sizeof remote.storage;
    const tools::UniqueFd connection(
        accept4(m_fd.Get(), reinterpret_cast<sockaddr*>(&remote.storage), &remote.length, SOCK_CLOEXEC));
    if (!connection) return std::nullopt;
    SocketAddress local;
    local.length = sizeof local.storage;
    getsockname(connection.Get(), reinterpret_cast<sockaddr*>(&local.storage), &local.length);
    return Accepted{local.Text(), remote.Text()};
  }

 private:
  tools::UniqueFd m_fd;
};

// Whether a connection to `address`:`port` is set up within `wait`, made
// from `source` when one is given. A dropped packet shows as no answer
// within `wait`.
inline bool TcpConnects(const std::string& address, std::uint16_t port, const std::string& source = "",
                        std::chrono::milliseconds wait = 700ms) {
  const SocketAddress to = SocketAddress::Of(address, port);
  const tools::UniqueFd fd = OpenTcpSocket(to.Family());
  if (!source.empty()) {
    const SocketAddress from = SocketAddress::Of(source, 0);
    if (bind(fd.Get(), from.Get(), from.length) != 0) ThrowSocketError("bind " + from.Text());
  }
  if (connect(fd.Get(), to.Get(), to.length) == 0) return true;
  if (errno != EINPROGRESS || !WaitFor(fd.Get(), POLLOUT, wait)) return false;
  int error = 0;
  socklen_t length = sizeof error;
  getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
  return error == 0;
}

// "connected" or "blocked", for the texts the tests compare.
inline std::string Reach(const std::string& address, std::uint16_t port, const std::string& source = "") {
  return TcpConnects(address, port, source) ? "connected" : "blocked";
}

}  // namespace qel::test
