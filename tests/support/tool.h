// A daemon or client binary of this build, run as a child process with its
// standard output and error in files under /data (the sandbox's tmpfs).
#pragma once

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/emulation.h"
#include "tests/support/wait.h"

extern char** environ;

namespace kelo_test {

// A daemon or client binary of this build, run with its output in files.
class Tool {
 public:
  Tool(const std::string& path, std::vector<std::string> args, const std::string& name)
      : outPath("/data/" + name + ".out"), errPath("/data/" + name + ".err") {
    args.insert(args.begin(), path);
    args = EmulatedCommand(std::move(args));
    // A ThreadSanitizer build of a tool must not report the service's client
    // endpoint thread, which nothing joins by design (the service has no
    // orderly shutdown and the daemon ends with _exit).
    const char* tsanOptions = getenv("TSAN_OPTIONS");
    std::vector<std::string> env{"TSAN_OPTIONS=" + (tsanOptions ? std::string(tsanOptions) + ":" : "") +
                                 "report_thread_leaks=0"};
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (!android::base::StartsWith(*entry, "TSAN_OPTIONS=")) env.emplace_back(*entry);
    }
    const auto pointers = [](std::vector<std::string>& strings) {
      std::vector<char*> out;
      for (std::string& s : strings) out.push_back(s.data());
      out.push_back(nullptr);
      return out;
    };
    std::vector<char*> argv = pointers(args), envp = pointers(env);
    android::base::unique_fd out(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    android::base::unique_fd err(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    pid = fork();
    if (pid == 0) {
      // Ends with the test, also when the test process dies without running
      // its destructors (a sanitizer's report).
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(out.get(), STDOUT_FILENO);
      dup2(err.get(), STDERR_FILENO);
      // The test runner may block signals the tools rely on.
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
  }
  ~Tool() {
    if (pid > 0 && !exited) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }

  pid_t Pid() const { return pid; }
  void Signal(int signal) const { kill(pid, signal); }
  // The exit status once the tool has ended (signal deaths count as 128 +
  // signal), or nothing after `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    int status = 0;
    if (!WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) return std::nullopt;
    exited = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  std::string Out() const { return Read(outPath); }
  std::string Err() const { return Read(errPath); }
  bool Printed(const std::string& text) const { return Out().find(text) != std::string::npos; }
  bool Logged(const std::string& text) const { return Err().find(text) != std::string::npos; }

 private:
  static std::string Read(const std::string& path) {
    std::string text;
    android::base::ReadFileToString(path, &text);
    return text;
  }

  const std::string outPath;
  const std::string errPath;
  pid_t pid = -1;
  bool exited = false;
};

}  // namespace kelo_test
