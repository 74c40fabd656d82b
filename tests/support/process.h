// Child processes and threads of the test process.
#pragma once

#include <android-base/file.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

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

// True once this process's thread called name sleeps in epoll_wait (its
// kernel wait channel, do_epoll_wait), i.e. has finished what it was doing.
inline bool ThreadIdleInEpoll(const std::string& name) {
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir("/proc/self/task"), closedir);
  while (dirent* entry = readdir(tasks.get())) {
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    std::string comm, wchan;
    if (android::base::ReadFileToString(task + "/comm", &comm) && comm == name + "\n") {
      return android::base::ReadFileToString(task + "/wchan", &wchan) && wchan.find("epoll_wait") != std::string::npos;
    }
  }
  return false;
}

}  // namespace kelo_test
