// Finding the service and asking it for a file, against real processes: a
// child that listens on a socket and answers a signal by writing a file the
// way the service does (remove, create, write, close).
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "tests/support/emulation.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"
#include "tools/kelo_bpf_client_signal.h"

namespace {

using namespace Kelo::Bpf;
using namespace std::chrono_literals;

constexpr char SOCKET_NAME[] = "/kelo/signal-test";
constexpr int SIGNAL = 51;
const std::string DIR = "/data/kelo-signal-test";
const std::string FILE_PATH = DIR + "/answer";

volatile sig_atomic_t requests = 0;

// A stand-in for the service: listens on SOCKET_NAME (abstract), writes
// FILE_PATH on each SIGNAL, and lives until killed.
class FakeService {
 public:
  FakeService() {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    pid = fork();
    if (pid == 0) {
      close(ready[0]);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      memcpy(address.sun_path + 1, SOCKET_NAME, strlen(SOCKET_NAME));
      const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(SOCKET_NAME));
      if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 4) != 0) _exit(1);
      signal(SIGNAL, [](int) { requests = requests + 1; });
      if (write(ready[1], "x", 1) != 1) _exit(1);
      int written = 0;
      while (true) {
        if (requests > written) {
          ++written;
          std::remove(FILE_PATH.c_str());
          android::base::WriteStringToFile("answer " + std::to_string(written) + "\n", FILE_PATH);
        }
        usleep(1000);
      }
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
  }
  ~FakeService() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  pid_t pid = -1;
};

TEST(ClientSignal, FindsTheServiceByItsSocketOrPidFileAndSaysWhenItIsNotThere) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  pid_t pid = 0;
  ClientError error;
  EXPECT_FALSE(FindServicePid("", SOCKET_NAME, &pid, &error));
  EXPECT_EQ(error.exitStatus, CLIENT_EXIT_NO_SERVICE);
  EXPECT_NE(error.message.find("no service is listening on /kelo/signal-test"), std::string::npos) << error.message;

  FakeService service;
  ASSERT_TRUE(FindServicePid("", SOCKET_NAME, &pid, &error)) << error.message;
  EXPECT_EQ(pid, service.pid);

  const std::string pidFile = "/data/kelo-signal-test.pid";
  EXPECT_FALSE(FindServicePid(pidFile, SOCKET_NAME, &pid, &error));
  EXPECT_EQ(error.exitStatus, CLIENT_EXIT_NO_SERVICE);
  ASSERT_TRUE(android::base::WriteStringToFile(std::to_string(service.pid) + "\n", pidFile));
  pid = 0;
  ASSERT_TRUE(FindServicePid(pidFile, "/nothing/listens/here", &pid, &error)) << error.message;
  EXPECT_EQ(pid, service.pid);
  for (const char* bad : {"", "abc", "0", "-5", "12x"}) {
    ASSERT_TRUE(android::base::WriteStringToFile(bad, pidFile));
    EXPECT_FALSE(FindServicePid(pidFile, SOCKET_NAME, &pid, &error)) << bad;
    EXPECT_EQ(error.exitStatus, CLIENT_EXIT_NO_SERVICE);
  }
  // A pid that has gone.
  const pid_t gone = kelo_test::RunChild();
  ASSERT_TRUE(android::base::WriteStringToFile(std::to_string(gone), pidFile));
  EXPECT_FALSE(FindServicePid(pidFile, SOCKET_NAME, &pid, &error));
  EXPECT_NE(error.message.find("stale pid file"), std::string::npos) << error.message;
}

TEST(ClientSignal, SignalCaughtReadsTheMaskOfProcStatus) {
  EXPECT_TRUE(SignalCaught("Name:\tx\nSigCgt:\t0000000000000001\n", 1));
  EXPECT_TRUE(SignalCaught("SigCgt:\t0004000000000000\n", 51));
  EXPECT_FALSE(SignalCaught("SigCgt:\t0004000000000000\n", 50));
  EXPECT_FALSE(SignalCaught("SigCgt:\tzz\n", 1));
  EXPECT_FALSE(SignalCaught("SigIgn:\tffffffffffffffff\n", 1));
  EXPECT_FALSE(SignalCaught("SigCgt:\tffffffffffffffff\n", 65));
  KELO_SKIP_IF_SIGNAL_MASKS_EMULATED();
  std::string status;
  ASSERT_TRUE(android::base::ReadFileToString("/proc/self/status", &status));
  EXPECT_FALSE(SignalCaught(status, 52));
  const auto previous = signal(52, [](int) {});
  ASSERT_TRUE(android::base::ReadFileToString("/proc/self/status", &status));
  EXPECT_TRUE(SignalCaught(status, 52));
  signal(52, previous);
}

TEST(ClientSignal, SendsTheSignalWaitsForTheNewFileAndReadsIt) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  ASSERT_EQ(mkdir(DIR.c_str(), 0755), 0);
  FakeService service;
  std::string text;
  ClientError error;
  ASSERT_TRUE(RequestServiceFile(service.pid, SIGNAL, FILE_PATH, 10, &text, &error)) << error.message;
  EXPECT_EQ(text, "answer 1\n");
  // The old file is there: only the new one counts.
  ASSERT_TRUE(RequestServiceFile(service.pid, SIGNAL, FILE_PATH, 10, &text, &error)) << error.message;
  EXPECT_EQ(text, "answer 2\n");
  // Without a watchable directory the file's status is polled.
  const std::string other = "/data/kelo-signal-test-missing-dir/answer";
  EXPECT_FALSE(RequestServiceFile(service.pid, SIGNAL, other, 0.3, &text, &error));
  EXPECT_EQ(error.exitStatus, CLIENT_EXIT_FAILED);
  EXPECT_NE(error.message.find("did not write"), std::string::npos) << error.message;
}

// The refusal of a signal the process does not handle yet is checked with
// the real daemon by the end-to-end tests.
TEST(ClientSignal, ReportsMissingRightsAndAProcessThatHasGone) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  KELO_SKIP_IF_SIGNAL_MASKS_EMULATED();
  mkdir(DIR.c_str(), 0755);
  std::string text;
  ClientError error;
  FakeService service;
  // An unprivileged caller may not signal a root process.
  int status = -1;
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
    std::string childText;
    ClientError childError;
    const bool ok = RequestServiceFile(service.pid, SIGNAL, FILE_PATH, 1, &childText, &childError);
    _exit(ok ? 11 : childError.exitStatus);
  }
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), CLIENT_EXIT_PERMISSION);

  const pid_t gone = kelo_test::RunChild();
  EXPECT_FALSE(RequestServiceFile(gone, SIGNAL, FILE_PATH, 1, &text, &error));
  EXPECT_EQ(error.exitStatus, CLIENT_EXIT_NO_SERVICE);
}

}  // namespace
