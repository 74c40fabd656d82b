// Child processes and threads of the test process.
#pragma once

#include <android-base/file.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace kelo_test {

// Forks a child that runs body and exits; its pid, once it has been reaped.
inline pid_t RunChild(const std::function<void()>& body = {}) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (body) body();
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return pid;
}

// A child that runs body, given a descriptor that reaches its end when the
// object goes, and then waits for that end; reaped when the object goes.
// Children forked later inherit the other end until they exec or exit, so
// several of them are destroyed in the reverse order of their making.
class Sleeper {
 public:
  explicit Sleeper(const std::function<void(int release)>& body = {}) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe2: " << strerror(errno);
      return;
    }
    pid = fork();
    if (pid == 0) {
      close(ends[1]);
      if (body) body(ends[0]);
      WaitForRelease(ends[0]);
      _exit(0);
    }
    close(ends[0]);
    release_ = ends[1];
  }
  ~Sleeper() {
    close(release_);
    if (pid > 0) waitpid(pid, nullptr, 0);
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  // In the child: returns once the object in the parent is gone.
  static void WaitForRelease(int release) {
    char c;
    while (read(release, &c, 1) > 0) {
    }
  }

  pid_t pid = -1;

 private:
  int release_ = -1;
};

// This process's name as /proc/self/comm gives it.
inline std::string OwnComm() {
  std::string comm;
  android::base::ReadFileToString("/proc/self/comm", &comm);
  return android::base::Trim(comm);
}

// /proc status text of this process's thread called name; "" when none is.
inline std::string ThreadStatus(const std::string& name) {
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir("/proc/self/task"), closedir);
  while (dirent* entry = readdir(tasks.get())) {
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    std::string comm, status;
    if (android::base::ReadFileToString(task + "/comm", &comm) && comm == name + "\n" &&
        android::base::ReadFileToString(task + "/status", &status)) {
      return status;
    }
  }
  return "";
}

inline bool HasThread(const std::string& name) { return !ThreadStatus(name).empty(); }

// True while this process's thread called name sleeps in the kernel at a
// wait channel whose name contains `channel`.
inline bool ThreadSleepsIn(const std::string& name, const std::string& channel) {
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir("/proc/self/task"), closedir);
  while (dirent* entry = readdir(tasks.get())) {
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    std::string comm, wchan;
    if (android::base::ReadFileToString(task + "/comm", &comm) && comm == name + "\n") {
      return android::base::ReadFileToString(task + "/wchan", &wchan) && wchan.find(channel) != std::string::npos;
    }
  }
  return false;
}

// True once this process's thread called name sleeps in epoll_wait (its
// kernel wait channel, do_epoll_wait), i.e. has finished what it was doing.
inline bool ThreadIdleInEpoll(const std::string& name) { return ThreadSleepsIn(name, "epoll_wait"); }

}  // namespace kelo_test
