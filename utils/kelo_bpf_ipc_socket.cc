#include "utils/kelo_bpf_ipc_socket.h"

#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "utils/kelo_bpf_log.h"

using Kelo::Bpf::LOG_TAG_UTILS;

namespace {

// Backlog of a listening socket handed over by the init system.
constexpr int CONTROL_SOCKET_BACKLOG = 4;

bool EpollCtl(int epfd, int op, int fd, uint32_t events) {
  epoll_event ev{};
  ev.events = events;
  ev.data.fd = fd;
  return epoll_ctl(epfd, op, fd, &ev) != -1;
}

bool SetCloseOnExec(int fd) { return fcntl(fd, F_SETFD, FD_CLOEXEC) != -1; }

// The socket init handed over under `name`, or -1: the descriptor named by
// ANDROID_SOCKET_<name> (every character other than a letter or digit
// written as '_'), if it is open and bound to /dev/socket/<name>. These are
// the rules of the platform's android_get_control_socket, which is used on a
// device; the libcutils of a development host (Debian's) has that function
// only as a stub that always answers -1.
int GetControlSocket(const std::string& name) {
#if defined(__ANDROID__)
  return android_get_control_socket(name.c_str());
#else
  std::string variable = ANDROID_SOCKET_ENV_PREFIX + name;
  for (char& c : variable) {
    if (!isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  const char* value = getenv(variable.c_str());
  if (value == nullptr) return -1;
  errno = 0;
  char* end = nullptr;
  const long fd = strtol(value, &end, 10);
  if (errno != 0 || end == value || fd < 0 || fd > INT_MAX || fcntl(static_cast<int>(fd), F_GETFD) == -1) return -1;
  sockaddr_un address{};
  socklen_t length = sizeof(address);
  if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
  const std::string path(address.sun_path, strnlen(address.sun_path, sizeof(address.sun_path)));
  return path == ANDROID_SOCKET_DIR "/" + name ? static_cast<int>(fd) : -1;
#endif
}

}  // namespace

bool EpollCtlAdd(int epfd, int fd, uint32_t events) { return EpollCtl(epfd, EPOLL_CTL_ADD, fd, events); }

bool EpollCtlMod(int epfd, int fd, uint32_t events) { return EpollCtl(epfd, EPOLL_CTL_MOD, fd, events); }

bool Setnonblocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1) return false;
  return fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

std::string ControlSocketName(const char* name) {
  const char* slash = strrchr(name, '/');
  return slash != nullptr ? slash + 1 : name;
}

int CreateNonblockingServerSocket(const char* name) {
  // Only -1 means that init handed nothing over under this name.
  int controlSocket = GetControlSocket(ControlSocketName(name));
  const bool handedOver = controlSocket != -1;
  if (!handedOver) {
    controlSocket = socket_local_server(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    if (controlSocket == -1) {
      KELO_LOGE(LOG_TAG_UTILS, "Create socket: %s failed: %d, message: %s", name, errno, strerror(errno));
      return -1;
    }
  }
  android::base::unique_fd fd(controlSocket);
  if (!SetCloseOnExec(fd.get()) || !Setnonblocking(fd.get())) {
    const int error = errno;
    fd.reset();
    KELO_LOGE(LOG_TAG_UTILS, "Setnonblocking (%s) failed: %d, message: %s", name, error, strerror(error));
    return -1;
  }
  // A socket of our own is already listening; one from init is not yet.
  if (handedOver && listen(fd.get(), CONTROL_SOCKET_BACKLOG) == -1) {
    const int error = errno;
    fd.reset();
    KELO_LOGE(LOG_TAG_UTILS, "Listen (%s) failed: %s", name, strerror(error));
    return -1;
  }
  return fd.release();
}

int ConnectToServer(const char* name) {
  int connected = socket_local_client(name, ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
  if (connected == -1) connected = socket_local_client(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
  if (connected == -1) {
    KELO_LOGE(LOG_TAG_UTILS, "Failed to create socket: %d, message: %s", errno, strerror(errno));
    return -1;
  }
  android::base::unique_fd fd(connected);
  if (!SetCloseOnExec(fd.get()) || !Setnonblocking(fd.get())) {
    const int error = errno;
    fd.reset();
    KELO_LOGE(LOG_TAG_UTILS, "Setnonblocking %s path failed: %d, message: %s", name, error, strerror(error));
    errno = error;
    return -1;
  }
  return fd.release();
}
