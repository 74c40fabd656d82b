#include "tools/kelo_bpf_daemon_stop.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "service/kelo_bpf_service.h"
#include "tools/kelo_bpf_daemon_log.h"

namespace Kelo {
namespace Bpf {
namespace {

// How often the producers are signalled while the daemon waits for them: a
// signal that lands just before a producer enters its poll is lost, so one
// is not enough.
constexpr std::chrono::milliseconds WAKE_INTERVAL{20};
constexpr char TASK_DIR[] = "/proc/self/task";

void IgnoreWake(int) {}

bool IsProducerName(const std::string& name) {
  return name == KeloBpfService::POLL_THREAD_NAME || name == KeloBpfService::GPL_POLL_THREAD_NAME;
}

}  // namespace

bool InstallWakeHandler() {
  struct sigaction action = {};
  action.sa_handler = IgnoreWake;
  action.sa_flags = 0;
  sigemptyset(&action.sa_mask);
  return sigaction(WAKE_SIGNAL, &action, nullptr) == 0;
}

int WakeProducers() {
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir(TASK_DIR), closedir);
  if (!tasks) return 0;
  int woken = 0;
  while (dirent* entry = readdir(tasks.get())) {
    const char* tid = entry->d_name;
    if (tid[0] < '0' || tid[0] > '9') continue;
    std::string name;
    if (!android::base::ReadFileToString(std::string(TASK_DIR) + "/" + tid + "/comm", &name)) continue;
    if (!IsProducerName(android::base::Trim(name))) continue;
    if (syscall(SYS_tgkill, getpid(), atoi(tid), WAKE_SIGNAL) == 0) ++woken;
  }
  return woken;
}

bool StopServiceAndJoin(std::chrono::milliseconds grace) {
  KeloBpfService* service = KeloBpfService::FindInstance();
  if (service == nullptr) return true;
  service->stop();

  // Wait() blocks until both producers have ended, so it runs on a thread of
  // its own while this one keeps waking them. The flag is shared: the thread
  // may outlive this function when the grace runs out.
  auto joined = std::make_shared<std::atomic<bool>>(false);
  try {
    std::thread([service, joined] {
      try {
        service->Wait();
      } catch (const std::exception& e) {
        KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Waiting for the producers failed: %s", e.what());
        return;
      }
      joined->store(true);
    }).detach();
  } catch (const std::exception& e) {
    KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Cannot start the joining thread: %s", e.what());
    return false;
  }

  const auto deadline = std::chrono::steady_clock::now() + grace;
  while (!joined->load()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    WakeProducers();
    std::this_thread::sleep_for(WAKE_INTERVAL);
  }
  return true;
}

}  // namespace Bpf
}  // namespace Kelo
