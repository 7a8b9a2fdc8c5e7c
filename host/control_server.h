// Serves the control socket on a thread of its own: one request line in, one
// reply line out, for a few clients at once. Only root's connections are
// served; a line longer than the limit ends its connection, and a client
// that goes away halfway through a line leaves nothing behind.
#pragma once

#include <cstddef>
#include <functional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/control_socket.h"
#include "qel_common/unique_fd.h"

namespace qel::host {

class ControlServer {
 public:
  // A request line without its newline in, the reply line without its
  // newline out.
  using Handler = std::function<std::string(std::string_view line)>;

  static constexpr std::size_t kMaxLine = 64 * 1024;
  static constexpr std::size_t kMaxClients = 8;

  // Starts serving at once; throws std::system_error when the thread or its
  // wake-up descriptor cannot be made.
  ControlServer(ControlSocket socket, Handler handler);
  // Stops the thread and waits for it: no request is being answered once
  // this returns.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  struct Client {
    tools::UniqueFd fd;
    std::string in;
    std::string out;
    bool closing = false;  // close once `out` is written; read no more
  };

  void Serve(std::stop_token stop);
  void AcceptClients();
  // False when the client is done with.
  bool ServeClient(Client& client, short events);
  bool ReadFrom(Client& client);
  void AnswerLines(Client& client);
  bool WriteTo(Client& client);
  std::string Answer(std::string_view line);

  ControlSocket m_socket;
  Handler m_handler;
  tools::UniqueFd m_wake;  // an eventfd written when the thread is to stop
  std::vector<Client> m_clients;
  std::jthread m_thread;  // last: it stops and is joined before the rest goes
};

}  // namespace qel::host
