// The server's listening socket on a device and on a development host: the
// one init hands over for the daemon's `socket` line (tools/kelobpfd.rc)
// when there is one, a socket of its own in the abstract namespace
// otherwise; and the init fragment names the socket the service asks for.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "service/kelo_bpf_service.h"
#include "tests/support/init_socket.h"
#include "tests/support/sandbox.h"
#include "utils/kelo_bpf_ipc_socket.h"

namespace {

using android::base::unique_fd;
using Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME;

const std::string INIT_NAME = ControlSocketName(KELO_BPF_CLIENT_SOCKET_NAME);

bool Listening(int fd) {
  int accepting = 0;
  socklen_t length = sizeof(accepting);
  return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length) == 0 && accepting == 1;
}

bool NonblockingAndCloseOnExec(int fd) {
  return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

// The socket's address: a path, or "@" and the name for the abstract namespace.
std::string BoundName(int fd) {
  sockaddr_un address{};
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
  const size_t pathLength = length - offsetof(sockaddr_un, sun_path);
  if (pathLength > 0 && address.sun_path[0] == '\0') return "@" + std::string(address.sun_path + 1, pathLength - 1);
  return address.sun_path;
}

bool AbstractNameBound(const std::string& name) {
  std::string table;
  return android::base::ReadFileToString("/proc/net/unix", &table) &&
         table.find(" @" + name + "\n") != std::string::npos;
}

// A connection from a client at `path` reaches server: accepted within 5 s.
bool Accepts(int server, const char* path) {
  unique_fd client(ConnectToServer(path));
  if (client.get() < 0) return false;
  pollfd ready = {server, POLLIN, 0};
  if (poll(&ready, 1, 5000) != 1) return false;
  unique_fd accepted(accept4(server, nullptr, nullptr, SOCK_CLOEXEC));
  return accepted.get() >= 0;
}

TEST(ControlSocketTest, InitFragmentGivesTheDaemonTheSocketTheServiceAsksForAndLinksItsPath) {
  EXPECT_EQ(INIT_NAME, "kelobpfdispatcher");
  const std::string source = __FILE__;
  std::string rc;
  ASSERT_TRUE(android::base::ReadFileToString(source.substr(0, source.rfind("/tests/")) + "/tools/kelobpfd.rc", &rc));
  std::vector<std::string> sockets, links;
  bool inDaemon = false;
  for (const std::string& raw : android::base::Split(rc, "\n")) {
    const std::string line = android::base::Trim(raw);
    if (line.empty() || line[0] == '#') continue;
    const std::vector<std::string> words = android::base::Split(line, " ");
    // Sections start unindented; options are indented below them.
    if (raw[0] != ' ') inDaemon = words[0] == "service" && words.size() > 1 && words[1] == "kelobpfd";
    if (inDaemon && words[0] == "socket") sockets.push_back(line);
    if (words[0] == "symlink" && words.size() == 3) links.push_back(words[1] + " -> " + words[2]);
  }
  ASSERT_EQ(sockets.size(), 1u) << rc;
  EXPECT_TRUE(android::base::StartsWith(sockets[0], "socket " + INIT_NAME + " stream ")) << sockets[0];
  // Clients connect to the service's path, which leads to init's socket.
  EXPECT_EQ(links, std::vector<std::string>{"/dev/socket/" + INIT_NAME + " -> " + KELO_BPF_CLIENT_SOCKET_NAME});
}

TEST(ControlSocketTest, SocketHandedOverByInitIsPutIntoListeningAndNoOtherIsBound) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  std::unique_ptr<kelo_test::InitSocket> init = kelo_test::InitSocket::Create(INIT_NAME);
  ASSERT_TRUE(init);
  init->Publish();
  ASSERT_FALSE(Listening(init->fd()));

  // Owned by `init`: the server returns the very descriptor.
  const int server = CreateNonblockingServerSocket(KELO_BPF_CLIENT_SOCKET_NAME);
  ASSERT_EQ(server, init->fd());
  EXPECT_TRUE(Listening(server));
  EXPECT_TRUE(NonblockingAndCloseOnExec(server));
  EXPECT_EQ(BoundName(server), "/dev/socket/" + INIT_NAME);
  EXPECT_FALSE(AbstractNameBound(KELO_BPF_CLIENT_SOCKET_NAME));
  EXPECT_TRUE(Accepts(server, init->reachablePath().c_str()));
}

TEST(ControlSocketTest, WithoutAHandedOverSocketTheServerBindsItsAbstractName) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  unsetenv(("ANDROID_SOCKET_" + INIT_NAME).c_str());
  {
    unique_fd server(CreateNonblockingServerSocket(KELO_BPF_CLIENT_SOCKET_NAME));
    ASSERT_GE(server.get(), 0);
    EXPECT_TRUE(Listening(server.get()));
    EXPECT_TRUE(NonblockingAndCloseOnExec(server.get()));
    EXPECT_EQ(BoundName(server.get()), std::string("@") + KELO_BPF_CLIENT_SOCKET_NAME);
    EXPECT_TRUE(Accepts(server.get(), KELO_BPF_CLIENT_SOCKET_NAME));
  }

  // A variable that names a socket init did not make (bound elsewhere) is
  // not taken either.
  unique_fd stray(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/data/stray");
  ASSERT_EQ(bind(stray.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  setenv(("ANDROID_SOCKET_" + INIT_NAME).c_str(), std::to_string(stray.get()).c_str(), 1);
  unique_fd server(CreateNonblockingServerSocket(KELO_BPF_CLIENT_SOCKET_NAME));
  unsetenv(("ANDROID_SOCKET_" + INIT_NAME).c_str());
  ASSERT_GE(server.get(), 0);
  EXPECT_NE(server.get(), stray.get());
  EXPECT_EQ(BoundName(server.get()), std::string("@") + KELO_BPF_CLIENT_SOCKET_NAME);
  EXPECT_FALSE(Listening(stray.get()));
}

}  // namespace
