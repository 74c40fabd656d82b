// Stop signals of the client tool's long-running subcommands, taken through a
// signalfd so that the main thread can wait for them beside its other
// descriptors.
#pragma once

#include <android-base/unique_fd.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <initializer_list>

namespace Kelo {
namespace Bpf {

// Blocks SIGINT, SIGTERM and `more` in the calling thread and returns a
// signalfd that reads them (-1 with errno on failure). Call it before any
// thread starts, so that every thread inherits the mask and the signals
// reach only the descriptor.
inline android::base::unique_fd BlockStopSignals(std::initializer_list<int> more = {}) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  for (int signal : more) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return android::base::unique_fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// The number of the next pending signal of `signalFd`, or 0 when none is.
inline int NextSignal(int signalFd) {
  signalfd_siginfo info;
  if (read(signalFd, &info, sizeof(info)) != sizeof(info)) return 0;
  return static_cast<int>(info.ssi_signo);
}

}  // namespace Bpf
}  // namespace Kelo
