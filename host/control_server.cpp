#include "host/control_server.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <system_error>

#include "host/control_handler.h"

namespace qel::host {
namespace {

constexpr std::size_t kReadChunk = 16 * 1024;

tools::UniqueFd MakeEventFd() {
  tools::UniqueFd fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!fd) throw std::system_error(errno, std::generic_category(), "eventfd");
  return fd;
}

void Signal(int eventFd) {
  const std::uint64_t one = 1;
  // Only fails when the counter is full, and then the thread is woken anyway.
  [[maybe_unused]] const auto written = ::write(eventFd, &one, sizeof one);
}

// The user id of the process that connected, or -1 when it cannot be told.
long PeerUid(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return -1;
  return static_cast<long>(credentials.uid);
}

// For clients turned away at once: the reply is short and the socket's
// buffer empty, so one try writes it or the client is gone anyway.
void SendRefusal(int fd, const std::string& text) {
  const std::string line = ErrorReply(text) + "\n";
  [[maybe_unused]] const auto sent = ::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

ControlServer::ControlServer(ControlSocket socket, Handler handler)
    : m_socket(std::move(socket)),
      m_handler(std::move(handler)),
      m_wake(MakeEventFd()),
      m_thread([this](std::stop_token stop) { Serve(stop); }) {}

ControlServer::~ControlServer() {
  m_thread.request_stop();
  if (m_thread.joinable()) m_thread.join();
}

void ControlServer::Serve(std::stop_token stop) {
  const std::stop_callback wakeOnStop(stop, [this] { Signal(m_wake.Get()); });
  std::vector<pollfd> fds;
  while (!stop.stop_requested()) {
    fds.clear();
    fds.push_back({m_wake.Get(), POLLIN, 0});
    fds.push_back({m_socket.Fd(), POLLIN, 0});
    for (const Client& client : m_clients) {
      fds.push_back({client.fd.Get(), static_cast<short>(client.out.empty() ? POLLIN : POLLOUT), 0});
    }
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      // Only a signal or a passing shortage of memory stops a poll on a few
      // valid descriptors; try again rather than leave the host deaf.
      if (errno != EINTR) ::usleep(100 * 1000);
      continue;
    }
    if (fds[0].revents != 0) continue;  // the loop's condition decides
    // Clients first: accepting may add to the list the descriptors stand for.
    std::vector<Client> kept;
    for (std::size_t i = 0; i < m_clients.size(); ++i) {
      const short events = fds[i + 2].revents;
      if (events == 0 || ServeClient(m_clients[i], events)) kept.push_back(std::move(m_clients[i]));
    }
    m_clients = std::move(kept);
    if (fds[1].revents != 0) AcceptClients();
  }
}

void ControlServer::AcceptClients() {
  for (;;) {
    tools::UniqueFd fd(::accept4(m_socket.Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd) return;  // none waiting (EAGAIN), or one that left before we took it
    const long uid = PeerUid(fd.Get());
    if (uid != 0) {
      SendRefusal(fd.Get(), "only root may use the control socket (this connection's user id is " +
                                std::to_string(uid) + ")");
    } else if (m_clients.size() >= kMaxClients) {
      SendRefusal(fd.Get(), "too many clients at once (" + std::to_string(kMaxClients) + "); try again");
    } else {
      m_clients.push_back(Client{std::move(fd), {}, {}, false});
    }
  }
}

bool ControlServer::ServeClient(Client& client, short events) {
  if (!client.out.empty()) return WriteTo(client);
  if ((events & (POLLIN | POLLHUP | POLLERR)) == 0) return true;
  const bool open = ReadFrom(client);
  AnswerLines(client);
  if (!open) {
    // A line cut off by the client's leaving is dropped unanswered.
    client.closing = true;
  }
  return client.out.empty() ? !client.closing : WriteTo(client);
}

// False once the client has closed its side or the connection broke.
bool ControlServer::ReadFrom(Client& client) {
  char buffer[kReadChunk];
  const ssize_t n = ::recv(client.fd.Get(), buffer, sizeof buffer, 0);
  if (n > 0) {
    client.in.append(buffer, static_cast<std::size_t>(n));
    return true;
  }
  return n < 0 && (errno == EAGAIN || errno == EINTR);
}

void ControlServer::AnswerLines(Client& client) {
  std::size_t start = 0;
  for (std::size_t end; !client.closing && (end = client.in.find('\n', start)) != std::string::npos; start = end + 1) {
    if (end - start > kMaxLine) break;
    client.out += Answer(std::string_view(client.in).substr(start, end - start)) + "\n";
  }
  client.in.erase(0, start);
  const auto newline = client.in.find('\n');
  if (!client.closing && (newline == std::string::npos ? client.in.size() : newline) > kMaxLine) {
    // Nothing of it is read: the rest of the line would only follow.
    client.out += ErrorReply("request line longer than " + std::to_string(kMaxLine) +
                             " bytes; nothing was done and the connection is closed") + "\n";
    client.in.clear();
    client.closing = true;
  }
}

// False when the client is done with: its reply written and it closing, or
// the connection broken.
bool ControlServer::WriteTo(Client& client) {
  const ssize_t n = ::send(client.fd.Get(), client.out.data(), client.out.size(), MSG_NOSIGNAL);
  if (n < 0) return errno == EAGAIN || errno == EINTR;
  client.out.erase(0, static_cast<std::size_t>(n));
  if (!client.out.empty()) return true;
  if (client.closing) return false;
  // Lines that came in while the reply was being written.
  AnswerLines(client);
  return client.out.empty() || WriteTo(client);
}

std::string ControlServer::Answer(std::string_view line) {
  try {
    return m_handler(line);
  } catch (const std::exception& e) {
    return ErrorReply(std::string("the host failed to answer: ") + e.what());
  }
}

}  // namespace qel::host
