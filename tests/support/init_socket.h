// A socket handed over the way Android's init hands one to a service for a
// `socket <name> stream ...` line: a stream socket bound to
// /dev/socket/<name> (not yet listening) whose descriptor the service finds
// in the environment variable ANDROID_SOCKET_<name>.
//
// A development host has no /dev/socket and the test must not make one, so a
// helper child binds the socket inside a mount namespace of its own with a
// tmpfs over /dev, and passes the descriptor back. The socket keeps the name
// /dev/socket/<name> (which is what android_get_control_socket checks), and
// this process reaches its path through the helper's root,
// /proc/<helper>/root/dev/socket/<name>, for as long as the object lives.
#pragma once

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace kelo_test {

class InitSocket {
 public:
  // The socket for `name`, or null after reporting the failure.
  static std::unique_ptr<InitSocket> Create(const std::string& name) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
      ADD_FAILURE() << "socketpair: " << strerror(errno);
      return nullptr;
    }
    android::base::unique_fd parentEnd(pair[0]), childEnd(pair[1]);
    const pid_t helper = fork();
    if (helper < 0) {
      ADD_FAILURE() << "fork: " << strerror(errno);
      return nullptr;
    }
    if (helper == 0) {
      parentEnd.reset();
      _exit(HelperMain(name, childEnd.get()));
    }
    childEnd.reset();
    std::unique_ptr<InitSocket> socket(new InitSocket(name, helper, std::move(parentEnd)));
    if (!socket->ReceiveSocket()) return nullptr;
    return socket;
  }

  InitSocket(const InitSocket&) = delete;
  InitSocket& operator=(const InitSocket&) = delete;

  ~InitSocket() {
    unsetenv(variable().c_str());
    link_.reset();  // the helper waits for this end to close
    if (helper_ > 0) waitpid(helper_, nullptr, 0);
  }

  int fd() const { return socket_.get(); }
  // "/dev/socket/<name>", the name the socket is bound to.
  std::string boundPath() const { return "/dev/socket/" + name_; }
  // The same socket file as this process reaches it.
  std::string reachablePath() const { return "/proc/" + std::to_string(helper_) + "/root" + boundPath(); }
  std::string variable() const { return "ANDROID_SOCKET_" + name_; }

  // What init does before it executes the service: the descriptor stays open
  // across exec and the variable names it.
  void Publish() const {
    fcntl(fd(), F_SETFD, 0);
    setenv(variable().c_str(), std::to_string(fd()).c_str(), 1);
  }

 private:
  // One byte of data with room for one descriptor, for sendmsg or recvmsg.
  struct FdMessage {
    FdMessage() {
      message.msg_iov = &data;
      message.msg_iovlen = 1;
      message.msg_control = control;
      message.msg_controllen = sizeof(control);
    }
    FdMessage(const FdMessage&) = delete;
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
  };

  InitSocket(std::string name, pid_t helper, android::base::unique_fd link)
      : name_(std::move(name)), helper_(helper), link_(std::move(link)) {}

  // In the helper: binds the socket in a private /dev, sends its descriptor
  // over link and keeps the namespace until the parent closes its end.
  static int HelperMain(const std::string& name, int link) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("kelo-dev", "/dev", "tmpfs", 0, "mode=0755") != 0 || mkdir("/dev/socket", 0755) != 0) {
      return 10;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "/dev/socket/%s", name.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(address.sun_path, 0666) != 0) {
      return 11;
    }
    FdMessage out;
    cmsghdr* header = CMSG_FIRSTHDR(&out.message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof(fd));
    if (sendmsg(link, &out.message, 0) != 1) return 12;
    while (read(link, &out.byte, 1) > 0) {
    }
    return 0;
  }

  bool ReceiveSocket() {
    FdMessage in;
    if (recvmsg(link_.get(), &in.message, MSG_CMSG_CLOEXEC) != 1) {
      int status = 0;
      waitpid(helper_, &status, 0);
      helper_ = -1;
      ADD_FAILURE() << "the helper bound no socket (exit status " << WEXITSTATUS(status) << ")";
      return false;
    }
    const cmsghdr* header = CMSG_FIRSTHDR(&in.message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS) {
      ADD_FAILURE() << "no descriptor from the helper";
      return false;
    }
    int fd = -1;
    memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    socket_.reset(fd);
    return true;
  }

  const std::string name_;
  pid_t helper_;
  android::base::unique_fd link_;
  android::base::unique_fd socket_;
};

}  // namespace kelo_test
