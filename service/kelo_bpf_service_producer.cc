// The producer threads "BpfServicePoll" and "BpfServicePGpl": start-up
// sequence up to the pumps.
#include <android-base/properties.h>
#include <bpf/bpf.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>

#include "helper/kelo_bpf_helper_attach.h"
#include "service/kelo_bpf_service.h"
#include "utils/kelo_bpf_log.h"
#include "utils/kelo_bpf_time.h"

namespace Kelo {
namespace Bpf {

cpu_set_t KeloBpfService::ServiceCpuSet() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (unsigned cpu = 0; (SERVICE_CPU_MASK >> cpu) != 0; ++cpu) {
    if ((SERVICE_CPU_MASK >> cpu) & 1u) CPU_SET(cpu, &cpus);
  }
  return cpus;
}

bool KeloBpfService::NameAndBindThread(const char* name) {
  prctl(PR_SET_NAME, name);
  const cpu_set_t cpus = ServiceCpuSet();
  return sched_setaffinity(gettid(), sizeof(cpus), &cpus) == 0;
}

std::thread KeloBpfService::spawnProducer(int (KeloBpfService::*body)(), const char* method) {
  return std::thread([this, body, method] {
    try {
      (this->*body)();
    } catch (const std::exception& e) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][%s] Producer thread ended by error: %s", method, e.what());
    }
  });
}

void KeloBpfService::waitUntilReady() {
  while (android::base::GetProperty(KELO_BPF_READY, KELO_BPF_NOT_READY) == KELO_BPF_NOT_READY) {
    std::this_thread::sleep_for(READY_POLL_INTERVAL);
  }
}

void KeloBpfService::initBaseTimeLogged() {
  try {
    if (!InitBasetime()) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][eventProduceThread] Init base time failed! errMsg: %s",
                strerror(errno));
    }
  } catch (const std::exception& e) {
    // An unreadable boot time leaves the base at 0: clocks then count from
    // boot, and the service goes on.
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][eventProduceThread] Init base time failed! errMsg: %s", e.what());
  }
}

int KeloBpfService::initBpfMap() {
  int fd = bpf_obj_get(pinnedPath(DMABUF_BPF_PROCESS_INODE_MAP_PATH).c_str());
  if (fd < 0) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][InitBpfMap] get processInodeMap failed: %s", strerror(errno));
    errno = 0;
    return -1;
  }
  processInodeMapFd.reset(fd);
  fd = bpf_obj_get(pinnedPath(DMABUF_BPF_PROCESS_MMAP_INFOS_PATH).c_str());
  if (fd < 0) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][InitBpfMap] get processMmapInfos failed: %s", strerror(errno));
    errno = 0;
    return -1;
  }
  processMmapInfosMapFd.reset(fd);
  return 0;
}

void KeloBpfService::startGplProducer() {
  MutexLock slots(mutex);
  // Wait() may have filled the slot already; that thread does the work.
  if (gplProduceThread.joinable()) return;
  try {
    gplProduceThread = spawnProducer(&KeloBpfService::gpleventProduceThread, "gpleventProduceThread");
  } catch (const std::system_error& e) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][eventProduceThread] Start GPL produce thread failed: %s", e.what());
  }
}

int KeloBpfService::eventProduceThread() {
  if (!NameAndBindThread(POLL_THREAD_NAME)) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][eventProduceThread] set thread affinity failed. %s", strerror(errno));
  }
  // Clients may connect and subscribe from here on, before any event flows.
  ipcManager->start();
  waitUntilReady();
  initBaseTimeLogged();
  if (initBpfMap() != 0) KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][eventProduceThread] Init bpf map failed");
  startGplProducer();
  const int attachResult = AttachAllKeloBpfProgram(config.bpfFsDir, PROG_EVENT_MAP);
  if (attachResult != 0) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][eventProduceThread] Attach all kelo bpf error: %d", attachResult);
  }
  eventMonitor();
  return attachResult;
}

int KeloBpfService::gpleventProduceThread() {
  if (!NameAndBindThread(GPL_POLL_THREAD_NAME)) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][gpleventProduceThread] set thread affinity failed. %s",
              strerror(errno));
  }
  // Normally started after the readiness wait; only when Wait() started it
  // early does this wait for the kernel side.
  waitUntilReady();
  const int attachResult = AttachAllKeloBpfProgram(config.bpfFsDir, PROG_GPL_EVENT_MAP);
  if (attachResult != 0) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][gpleventProduceThread] Attach all kelo bpf error: %d", attachResult);
  }
  gpleventMonitor();
  return attachResult;
}

}  // namespace Bpf
}  // namespace Kelo
