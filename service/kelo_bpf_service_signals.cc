// Dump requests by signal. Signal 50 asks for the state file, 51 to 54 for
// the task dumps. A dump allocates, locks and writes files, none of which is
// allowed in signal context, so the installed handler only writes the signal
// number into a pipe; the thread "BpfServiceDump" sleeps in a blocking read
// on the other end (no wake-ups while idle) and runs the dump.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>

#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"
#include "service/kelo_bpf_task_manager.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr int SIGNAL_DUMP_STATE = 50;
constexpr int SIGNAL_DUMP_TASKS = 51;
constexpr int SIGNAL_DUMP_USER_TASKS = 52;
constexpr int SIGNAL_DUMP_TASKS_SHORT = 53;
constexpr int SIGNAL_DUMP_USER_TASKS_SHORT = 54;
constexpr int DUMP_SIGNALS[] = {SIGNAL_DUMP_STATE, SIGNAL_DUMP_TASKS, SIGNAL_DUMP_USER_TASKS, SIGNAL_DUMP_TASKS_SHORT,
                                SIGNAL_DUMP_USER_TASKS_SHORT};

// Write end of the request pipe, as the handler sees it; -1 until set up,
// and for good when the pipe or the dump thread could not be made.
// Lock-free, so reading it is async-signal-safe.
std::atomic<int> dumpRequestFd{-1};
static_assert(std::atomic<int>::is_always_lock_free, "read in signal context");

// Requests the handler could not pass on, by signal (index signal - 50),
// until ReportRefusedDumps logs them; the handler may not log itself.
std::atomic<uint32_t> refusedDumps[std::size(DUMP_SIGNALS)];
std::atomic<bool> anyRefusedDump{false};
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "written in signal context");

void RequestDump(int signal) {
  const int savedErrno = errno;
  const unsigned char request = static_cast<unsigned char>(signal);
  const int fd = dumpRequestFd.load(std::memory_order_acquire);
  // Non-blocking: with the pipe full, the request is refused rather than the
  // interrupted thread stalled.
  const bool passedOn = fd >= 0 && write(fd, &request, sizeof(request)) == static_cast<ssize_t>(sizeof(request));
  const size_t index = static_cast<size_t>(signal - SIGNAL_DUMP_STATE);
  if (!passedOn && index < std::size(refusedDumps)) {
    refusedDumps[index].fetch_add(1, std::memory_order_relaxed);
    anyRefusedDump.store(true, std::memory_order_release);
  }
  // The interrupted thread may be about to read errno (a pump tests it for
  // EINTR).
  errno = savedErrno;
}

void RunDump(int signal) {
  switch (signal) {
    case SIGNAL_DUMP_STATE:
      KeloBpfDataState::GetInstance()->DumpState();
      break;
    case SIGNAL_DUMP_TASKS:
      HandleDumpSignal(signal);
      break;
    case SIGNAL_DUMP_USER_TASKS:
      HandleNonKernelDumpSignal(signal);
      break;
    case SIGNAL_DUMP_TASKS_SHORT:
      HandleDumpSignalNormal(signal);
      break;
    case SIGNAL_DUMP_USER_TASKS_SHORT:
      HandleNonKernelDumpSignalNormal(signal);
      break;
    default:
      break;
  }
}

// Both ends of the request pipe; made once and kept for the life of the
// process, like the signal dispositions that point at it.
struct DumpRequestPipe {
  android::base::unique_fd readEnd;
  android::base::unique_fd writeEnd;
};

}  // namespace

void HandleDumpSignal(int) { KeloTaskManager::GetInstance()->DumpKeloTaskInfo(); }

void HandleNonKernelDumpSignal(int) { KeloTaskManager::GetInstance()->DumpKeloTaskIgnoreKernelTaskInfo(); }

void HandleDumpSignalNormal(int) { KeloTaskManager::GetInstance()->DumpKeloTaskInfoNormal(); }

void HandleNonKernelDumpSignalNormal(int) { KeloTaskManager::GetInstance()->DumpKeloTaskIgnoreKernelTaskInfoNormal(); }

void KeloBpfService::DumpThread(int requestFd) {
  if (!NameAndBindThread(DUMP_THREAD_NAME)) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][dumpThread] set thread affinity failed. %s", strerror(errno));
  }
  unsigned char request = 0;
  while (true) {
    const ssize_t n = read(requestFd, &request, sizeof(request));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    try {
      RunDump(request);
    } catch (const std::exception& e) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][dumpThread] Dump for signal %d failed: %s", request, e.what());
    }
  }
  KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][dumpThread] Read dump request failed: %s", strerror(errno));
}

void KeloBpfService::ReportRefusedDumps() {
  if (!anyRefusedDump.load(std::memory_order_relaxed) || !anyRefusedDump.exchange(false)) return;
  for (size_t index = 0; index < std::size(refusedDumps); ++index) {
    const uint32_t refused = refusedDumps[index].exchange(0);
    if (refused == 0) continue;
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] Dump for signal %d refused %u time(s): no dump thread to run it",
              DUMP_SIGNALS[index], refused);
  }
}

void KeloBpfService::InstallDumpSignalHandlers() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    // Without a pipe or a thread the requests are refused; the handlers are
    // installed all the same, since these signals would otherwise end the
    // host process.
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] Create dump request pipe failed: %s", strerror(errno));
    } else {
      static DumpRequestPipe* const requests = new DumpRequestPipe();
      requests->readEnd.reset(ends[0]);
      requests->writeEnd.reset(ends[1]);
      fcntl(requests->writeEnd.get(), F_SETFL, O_NONBLOCK);
      try {
        std::thread(DumpThread, requests->readEnd.get()).detach();
        dumpRequestFd.store(requests->writeEnd.get(), std::memory_order_release);
      } catch (const std::system_error& e) {
        KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] Start dump thread failed: %s", e.what());
      }
    }

    struct sigaction action = {};
    action.sa_handler = RequestDump;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int signal : DUMP_SIGNALS) sigaction(signal, &action, nullptr);
  });
}

}  // namespace Bpf
}  // namespace Kelo
