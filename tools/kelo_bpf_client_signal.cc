#include "tools/kelo_bpf_client_signal.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <thread>

#include "helper/kelo_bpf_helper_strings.h"

namespace Kelo {
namespace Bpf {
namespace {

using Clock = std::chrono::steady_clock;

bool Fail(ClientError* error, int status, std::string message) {
  error->exitStatus = status;
  error->message = std::move(message);
  return false;
}

std::string UserName(uid_t uid) {
  passwd entry;
  passwd* found = nullptr;
  char buffer[1024];
  if (getpwuid_r(uid, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr) return found->pw_name;
  return std::to_string(uid);
}

// Owner of /proc/<pid>, for the permission message.
std::string ProcessOwner(pid_t pid, const std::string& procRoot) {
  struct stat st;
  if (stat((procRoot + "/" + std::to_string(pid)).c_str(), &st) != 0) return "unknown";
  return UserName(st.st_uid);
}

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Waits for an IN_CLOSE_WRITE or IN_MOVED_TO of `name` on the watched
// directory; false when `timeoutSeconds` passed first.
bool WaitForInotify(int inotifyFd, const std::string& name, double timeoutSeconds) {
  const auto start = Clock::now();
  alignas(inotify_event) char buffer[4096];
  while (true) {
    const double left = timeoutSeconds - SecondsSince(start);
    if (left <= 0) return false;
    pollfd fd{inotifyFd, POLLIN, 0};
    const int ready = poll(&fd, 1, static_cast<int>(left * 1000) + 1);
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    const ssize_t got = read(inotifyFd, buffer, sizeof(buffer));
    if (got <= 0) continue;
    for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(inotify_event)) <= got;) {
      inotify_event event;
      memcpy(&event, buffer + offset, sizeof(event));
      const char* eventName = buffer + offset + sizeof(inotify_event);
      if (event.len > 0 && name == std::string(eventName, strnlen(eventName, event.len))) return true;
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
    }
  }
}

struct FileStamp {
  bool exists = false;
  ino_t inode = 0;
  timespec ctime{};
  off_t size = 0;
  bool operator==(const FileStamp& o) const {
    return exists == o.exists && inode == o.inode && ctime.tv_sec == o.ctime.tv_sec &&
           ctime.tv_nsec == o.ctime.tv_nsec && size == o.size;
  }
};

FileStamp Stamp(const std::string& path) {
  FileStamp stamp;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    stamp.exists = true;
    stamp.inode = st.st_ino;
    stamp.ctime = st.st_ctim;
    stamp.size = st.st_size;
  }
  return stamp;
}

// Without a watch: the file has changed from `before` and kept the same
// status for one more poll, i.e. its writer is done.
bool WaitForChange(const std::string& path, const FileStamp& before, double timeoutSeconds) {
  const auto start = Clock::now();
  FileStamp last;
  bool changed = false;
  while (SecondsSince(start) < timeoutSeconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const FileStamp now = Stamp(path);
    if (changed && now == last && now.exists && now.size > 0) return true;
    changed = changed || !(now == before);
    last = now;
  }
  return false;
}

}  // namespace

int ConnectToService(const std::string& name) {
  for (bool abstract : {false, true}) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t offset = abstract ? 1 : 0;
    if (name.size() + offset >= sizeof(address.sun_path)) {
      errno = ENAMETOOLONG;
      return -1;
    }
    memcpy(address.sun_path + offset, name.data(), name.size());
    const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + name.size());
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return -1;
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0) return fd.release();
  }
  return -1;
}

bool FindServicePid(const std::string& pidFile, const std::string& socketName, pid_t* pid, ClientError* error) {
  if (!pidFile.empty()) {
    std::string text;
    if (!android::base::ReadFileToString(pidFile, &text)) {
      const int status = errno == EACCES ? CLIENT_EXIT_PERMISSION : CLIENT_EXIT_NO_SERVICE;
      return Fail(error, status,
                  "cannot read the pid file " + pidFile + ": " + strerror(errno) + " (is the service running?)");
    }
    text = android::base::Trim(text);
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || value <= 0 || value > INT32_MAX) {
      return Fail(error, CLIENT_EXIT_NO_SERVICE, "the pid file " + pidFile + " holds no pid");
    }
    if (kill(static_cast<pid_t>(value), 0) != 0 && errno == ESRCH) {
      return Fail(error, CLIENT_EXIT_NO_SERVICE,
                  StringPrintf("no process %ld is running (stale pid file %s)", value, pidFile.c_str()));
    }
    *pid = static_cast<pid_t>(value);
    return true;
  }
  android::base::unique_fd fd(ConnectToService(socketName));
  if (fd.get() < 0) {
    return Fail(error, CLIENT_EXIT_NO_SERVICE,
                "no service is listening on " + socketName + ": " + strerror(errno) + " (is kelobpfd running?)");
  }
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || credentials.pid <= 0) {
    return Fail(error, CLIENT_EXIT_NO_SERVICE,
                "cannot tell which process serves " + socketName + ": " + strerror(errno) + " (try --pidfile)");
  }
  *pid = credentials.pid;
  return true;
}

bool SignalCaught(const std::string& statusText, int signal) {
  if (signal < 1 || signal > 64) return false;
  for (const std::string& line : android::base::Split(statusText, "\n")) {
    if (!android::base::StartsWith(line, "SigCgt:")) continue;
    const std::string hex = android::base::Trim(line.substr(strlen("SigCgt:")));
    if (hex.empty() || hex.size() > 16 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      return false;
    }
    const uint64_t mask = strtoull(hex.c_str(), nullptr, 16);
    return (mask >> (signal - 1)) & 1;
  }
  return false;
}

bool RequestServiceFile(pid_t pid, int signal, const std::string& path, double timeoutSeconds, std::string* text,
                        ClientError* error, const std::string& procRoot) {
  const std::string statusPath = procRoot + "/" + std::to_string(pid) + "/status";
  std::string status;
  if (!android::base::ReadFileToString(statusPath, &status)) {
    if (errno == ENOENT) return Fail(error, CLIENT_EXIT_NO_SERVICE, StringPrintf("no process %d is running", pid));
    return Fail(error, CLIENT_EXIT_PERMISSION, "cannot read " + statusPath + ": " + strerror(errno));
  }
  if (!SignalCaught(status, signal)) {
    return Fail(error, CLIENT_EXIT_FAILED,
                StringPrintf("process %d does not handle signal %d yet: the service installs its handlers once it "
                             "is ready and polls; not sending a signal that would end it",
                             pid, signal));
  }

  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  android::base::unique_fd inotifyFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  const bool watching =
      inotifyFd.get() >= 0 && inotify_add_watch(inotifyFd.get(), dir.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) >= 0;
  const FileStamp before = Stamp(path);

  if (kill(pid, signal) != 0) {
    if (errno == EPERM) {
      return Fail(error, CLIENT_EXIT_PERMISSION,
                  StringPrintf("not permitted to send signal %d to the service (pid %d, user %s): run as root or as "
                               "that user",
                               signal, pid, ProcessOwner(pid, procRoot).c_str()));
    }
    return Fail(error, CLIENT_EXIT_NO_SERVICE, StringPrintf("cannot signal process %d: %s", pid, strerror(errno)));
  }
  const bool written =
      watching ? WaitForInotify(inotifyFd.get(), name, timeoutSeconds) : WaitForChange(path, before, timeoutSeconds);
  if (!written) {
    return Fail(error, CLIENT_EXIT_FAILED,
                StringPrintf("the service (pid %d) did not write %s within %.1f s", pid, path.c_str(), timeoutSeconds));
  }
  if (!android::base::ReadFileToString(path, text)) {
    const int exitStatus = errno == EACCES || errno == EPERM ? CLIENT_EXIT_PERMISSION : CLIENT_EXIT_FAILED;
    return Fail(error, exitStatus, "cannot read " + path + ": " + strerror(errno));
  }
  return true;
}

}  // namespace Bpf
}  // namespace Kelo
