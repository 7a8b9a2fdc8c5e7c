#include "host/control_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "qel_common/unique_fd.h"

namespace qel::host {
namespace {

namespace fs = std::filesystem;

// A directory of the test's own, 0700, so that the socket may live in it.
class ControlServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::path(::testing::TempDir()) / ("control-" + std::to_string(::getpid()));
    fs::remove_all(m_dir);
    fs::create_directory(m_dir);
    fs::permissions(m_dir, fs::perms::owner_all);
  }
  void TearDown() override { fs::remove_all(m_dir); }

  std::string SocketPath() const { return (m_dir / "control.sock").string(); }

  ControlSocket OpenSocket() {
    auto socket = ControlSocket::Open(SocketPath());
    if (!socket) ADD_FAILURE() << socket.ErrorText();
    return std::move(socket).Value();
  }

  // Answers "echo:" and the line; remembers every line it was given.
  std::unique_ptr<ControlServer> StartServer() {
    return std::make_unique<ControlServer>(OpenSocket(), [this](std::string_view line) {
      std::lock_guard lock(m_mutex);
      m_lines.emplace_back(line);
      return "{\"echo\":\"" + std::string(line.substr(0, 20)) + "\"}";
    });
  }
  std::vector<std::string> Lines() {
    std::lock_guard lock(m_mutex);
    return m_lines;
  }

  fs::path m_dir;
  std::mutex m_mutex;
  std::vector<std::string> m_lines;
};

// A server that fails to answer fails the test rather than hanging it.
tools::UniqueFd Connect(const std::string& path) {
  tools::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval patience{10, 0};
  ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  if (::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fd.Reset();
  return fd;
}

void Send(int fd, const std::string& data) {
  for (std::size_t sent = 0; sent < data.size();) {
    const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
}

// Everything until the server closes the connection, then "[closed]";
// "[timeout]" instead when it keeps it open.
std::string ReadToEnd(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) text.append(buffer, static_cast<std::size_t>(n));
  return text + (n == 0 ? "[closed]" : "[timeout]");
}

std::string ReadLines(int fd, std::size_t count) {
  std::string text;
  char c;
  while (count > 0 && ::recv(fd, &c, 1, 0) == 1) {
    text += c;
    count -= c == '\n';
  }
  return text;
}

TEST_F(ControlServerTest, AnswersEachLineInTurnAndSeveralClientsAtOnce) {
  const auto server = StartServer();
  struct stat st{};
  ASSERT_EQ(::stat(SocketPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);

  const auto first = Connect(SocketPath()), second = Connect(SocketPath());
  ASSERT_TRUE(first && second);
  Send(first.Get(), "one\ntw");
  Send(second.Get(), "three\n");
  EXPECT_EQ(ReadLines(second.Get(), 1), "{\"echo\":\"three\"}\n");
  Send(first.Get(), "o\n");
  EXPECT_EQ(ReadLines(first.Get(), 2), "{\"echo\":\"one\"}\n{\"echo\":\"two\"}\n");
  // A client that says its last line and closes its side still gets the reply.
  Send(second.Get(), "four\n");
  ::shutdown(second.Get(), SHUT_WR);
  EXPECT_EQ(ReadToEnd(second.Get()), "{\"echo\":\"four\"}\n[closed]");
}

TEST_F(ControlServerTest, AnOverlongLineEndsItsConnectionUnansweredAndACutOffLineIsDropped) {
  const auto server = StartServer();
  {
    const auto cutOff = Connect(SocketPath());
    Send(cutOff.Get(), "{\"cmd\":\"sta");
  }
  const auto longLine = Connect(SocketPath());
  Send(longLine.Get(), "short\n" + std::string(ControlServer::kMaxLine + 1, 'x') + "\nafter\n");
  const std::string replies = ReadToEnd(longLine.Get());
  EXPECT_EQ(replies.rfind("{\"echo\":\"short\"}\n{\"ok\":false,\"error\":\"request line longer than 65536 bytes", 0),
            0u)
      << replies.substr(0, 200);
  EXPECT_TRUE(replies.ends_with("bytes; nothing was done and the connection is closed\"}\n[closed]")) << replies;

  // A line of exactly the limit is still a request.
  const auto atLimit = Connect(SocketPath());
  Send(atLimit.Get(), std::string(ControlServer::kMaxLine, 'y') + "\n");
  EXPECT_EQ(ReadLines(atLimit.Get(), 1), "{\"echo\":\"yyyyyyyyyyyyyyyyyyyy\"}\n");
  EXPECT_EQ(Lines().size(), 2u);
}

TEST_F(ControlServerTest, ReplacesASocketLeftBehindButNotALiveOneNorAnotherFile) {
  {
    // A socket bound and never closed by its path, as a killed host leaves it.
    tools::UniqueFd stale(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, SocketPath().c_str());
    ASSERT_EQ(::bind(stale.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  auto live = ControlSocket::Open(SocketPath());
  ASSERT_TRUE(live.Ok()) << live.ErrorText();

  const auto second = ControlSocket::Open(SocketPath());
  ASSERT_FALSE(second.Ok());
  EXPECT_EQ(second.ErrorText(), SocketPath() + ": another host is already listening there");

  { const ControlSocket closing = std::move(live).Value(); }
  EXPECT_FALSE(fs::exists(SocketPath())) << "the socket file stays after the host";

  std::ofstream(SocketPath()) << "not a socket";
  const auto onFile = ControlSocket::Open(SocketPath());
  ASSERT_FALSE(onFile.Ok());
  EXPECT_EQ(onFile.ErrorText(), SocketPath() + " exists and is not a socket; not replacing it");
}

TEST_F(ControlServerTest, MakesAMissingDirectoryPrivateAndRefusesAnOpenOne) {
  const std::string inNew = (m_dir / "new" / "control.sock").string();
  auto made = ControlSocket::Open(inNew);
  ASSERT_TRUE(made.Ok()) << made.ErrorText();
  EXPECT_EQ(fs::status(m_dir / "new").permissions(), fs::perms::owner_all);

  fs::create_directory(m_dir / "open");
  fs::permissions(m_dir / "open", fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
  const auto refused = ControlSocket::Open((m_dir / "open" / "control.sock").string());
  ASSERT_FALSE(refused.Ok());
  EXPECT_NE(refused.ErrorText().find((m_dir / "open").string() + " (mode 0750"), std::string::npos)
      << refused.ErrorText();
}

}  // namespace
}  // namespace qel::host
