#include "utils/kelo_bpf_ipc_epoll_manager.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "utils/kelo_bpf_ipc_socket.h"
#include "utils/kelo_bpf_log.h"

using Kelo::Bpf::LOG_TAG_UTILS;
using Kelo::Bpf::MutexLock;

namespace {

// Results of a read callback that end the handling of its event.
bool EndsEventHandling(int readResult) {
  return readResult == -3 || readResult == -2 || readResult == -1 || readResult == 1;
}

// Results of a write callback meaning that nothing is left to write.
bool WriteFinished(int writeResult) { return writeResult == -1 || writeResult == -3; }

// The processors the calling thread may run on, for the constructors that
// are given none; an empty set (replaced by processor 0) if unreadable.
cpu_set_t CallerAffinity() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) == -1) {
    KELO_LOGE(LOG_TAG_UTILS, "[EpollManager] init cpu affinity failed! so use default affinity. %s", strerror(errno));
    CPU_ZERO(&set);
  }
  return set;
}

}  // namespace

EpollManager::EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* name,
                           cpu_set_t cpuAffinity, int timeout)
    : cpuAffinity(cpuAffinity),
      name(name != nullptr ? name : LOG_TAG_UTILS),
      eventCount(0),
      running(false),
      epollSize(epollSize),
      timeout(timeout),
      initFunc(std::move(initFunc)) {
  if (CPU_COUNT(&this->cpuAffinity) == 0) {
    KELO_LOGE(this->name, "[EpollManager] cpu affinity invalid!");
    CPU_SET(0, &this->cpuAffinity);
  }
  // epoll_create's size is only a hint, but it still refuses one below 1.
  if (this->epollSize > 0) {
    epollFd.reset(epoll_create1(EPOLL_CLOEXEC));
  } else {
    errno = EINVAL;
  }
  if (epollFd.get() == -1) {
    KELO_LOGE(this->name, "[EpollManager] Create epoll failed: %d, message: %s", errno, strerror(errno));
  }
  events.resize(maxEvents > 0 ? maxEvents : 1);
  controlFd.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (controlFd.get() == -1) {
    KELO_LOGE(this->name, "[EpollManager] Allocate control fd failed: %d, message: %s", errno, strerror(errno));
  }
  if (!EpollCtlAdd(epollFd.get(), controlFd.get(), EPOLLIN)) {
    KELO_LOGE(this->name, "[EpollManager] Setup control fd failed: %d, message: %s", errno, strerror(errno));
  }
}

EpollManager::EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* name, int timeout)
    : EpollManager(epollSize, maxEvents, std::move(initFunc), name, CallerAffinity(), timeout) {}

EpollManager::EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, int timeout)
    : EpollManager(epollSize, maxEvents, std::move(initFunc), nullptr, CallerAffinity(), timeout) {}

EpollManager::~EpollManager() {
  stop();
  if (thread.joinable()) thread.join();
  epollFd.reset();
  controlFd.reset();
}

bool EpollManager::addMonitorFd(int fd, EpollCallback callback) {
  uint32_t mask = 0;
  if (callback.readCallback) mask |= EPOLLIN;
  if (callback.closeCallback) mask |= EPOLLHUP | EPOLLRDHUP;
  if (!EpollCtlAdd(epollFd.get(), fd, mask)) {
    KELO_LOGE(name, "[EpollManager] Epoll add monitor fd failed: %d, message: %s", errno, strerror(errno));
    return false;
  }
  callback.events = mask;
  auto shared = std::make_shared<const EpollCallback>(std::move(callback));
  MutexLock lock(mutex);
  callbacks[fd] = Monitored{std::move(shared), mask};
  return true;
}

bool EpollManager::delMonitorFd(int fd) {
  MutexLock lock(mutex);
  if (epoll_ctl(epollFd.get(), EPOLL_CTL_DEL, fd, nullptr) == -1) {
    KELO_LOGE(name, "[EpollManager] Epoll del fd from epoll failed: %d, message: %s", errno, strerror(errno));
    return false;
  }
  callbacks.erase(fd);
  return true;
}

void EpollManager::start() {
  KELO_LOGI(name, "[EpollManager] main thread starting...");
  MutexLock lock(mutex);
  if (thread.joinable()) return;
  running = true;
  thread = std::thread(&EpollManager::mainThread, this);
}

void EpollManager::stop() {
  MutexLock lock(mutex);
  running = false;
  eventfd_write(controlFd.get(), 1);
}

bool EpollManager::writeEventNow(int fd) {
  std::shared_ptr<const EpollCallback> callback;
  {
    MutexLock lock(mutex);
    auto it = callbacks.find(fd);
    if (it == callbacks.end()) {
      KELO_LOGE(name, "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
      return false;
    }
    callback = it->second.callback;
  }
  if (!callback || !callback->writeCallback) return false;
  epoll_event event{};
  event.data.fd = fd;
  return callback->writeCallback(event) != -1;
}

bool EpollManager::notifyWriteEventReady(int fd) {
  MutexLock lock(mutex);
  auto it = callbacks.find(fd);
  if (it == callbacks.end()) {
    KELO_LOGE(name, "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
    return false;
  }
  ++it->second.notifies;
  if ((it->second.events & EPOLLOUT) != 0) return true;
  if (!EpollCtlMod(epollFd.get(), fd, it->second.events | EPOLLOUT)) {
    KELO_LOGE(name, "[EpollManager][notifyWriteEventReady] Epoll mod monitor failed, fd: %d, message: %s", fd,
              strerror(errno));
    return false;
  }
  it->second.events |= EPOLLOUT;
  return true;
}

bool EpollManager::markWriteEventFinish(int fd) {
  MutexLock lock(mutex);
  return clearWriteInterest(fd);
}

bool EpollManager::finishWriteUnlessNotified(int fd, uint64_t notifiesBefore) {
  MutexLock lock(mutex);
  auto it = callbacks.find(fd);
  if (it != callbacks.end() && it->second.notifies != notifiesBefore) return true;
  return clearWriteInterest(fd);
}

bool EpollManager::clearWriteInterest(int fd) {
  auto it = callbacks.find(fd);
  if (it == callbacks.end()) {
    KELO_LOGE(name, "[EpollManager][markWriteEventFinish] the socket fd does not exist");
    return false;
  }
  if ((it->second.events & EPOLLOUT) == 0) return true;
  if (!EpollCtlMod(epollFd.get(), fd, it->second.events & ~static_cast<uint32_t>(EPOLLOUT))) {
    KELO_LOGE(name, "[EpollManager][markWriteEventFinish] Epoll mod monitor failed, fd: %d, message: %s", fd,
              strerror(errno));
    return false;
  }
  it->second.events &= ~static_cast<uint32_t>(EPOLLOUT);
  return true;
}

uint64_t EpollManager::notifyCountOf(int fd) {
  MutexLock lock(mutex);
  auto it = callbacks.find(fd);
  return it == callbacks.end() ? 0 : it->second.notifies;
}

std::shared_ptr<const EpollCallback> EpollManager::lookupCallback(int fd) {
  MutexLock lock(mutex);
  Monitored& entry = callbacks[fd];
  if (!entry.callback) entry.callback = std::make_shared<const EpollCallback>();
  return entry.callback;
}

void EpollManager::dispatchEvent(const epoll_event& event) {
  const int fd = event.data.fd;
  const std::shared_ptr<const EpollCallback> callback = lookupCallback(fd);
  if ((event.events & (EPOLLHUP | EPOLLRDHUP)) != 0 && callback->closeCallback) {
    callback->closeCallback(event);
    return;
  }
  if ((event.events & EPOLLIN) != 0 && callback->readCallback) {
    if (EndsEventHandling(callback->readCallback(event))) return;
  }
  if ((event.events & EPOLLOUT) != 0 && callback->writeCallback) {
    const uint64_t notifiesBefore = notifyCountOf(fd);
    if (WriteFinished(callback->writeCallback(event)) && !finishWriteUnlessNotified(fd, notifiesBefore)) {
      KELO_LOGE(name, "[EpollManager][mainThread] mark write event finish failed!");
    }
  }
}

void EpollManager::mainThread() {
  // Writing to a closed peer must fail with EPIPE, not end the process.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  prctl(PR_SET_NAME, name);
  if (sched_setaffinity(gettid(), sizeof(cpuAffinity), &cpuAffinity) == -1) {
    KELO_LOGE(name, "[EpollManager][mainThread] init epoll manager thread affinity failed! %s", strerror(errno));
  }
  // Nothing may escape this thread: a throwing callback is logged and the
  // loop carries on with the next event.
  if (initFunc) {
    int initResult = 0;
    try {
      initResult = initFunc();
    } catch (const std::exception& e) {
      KELO_LOGE(name, "[EpollManager][mainThread] initFunc threw: %s", e.what());
    } catch (...) {
      KELO_LOGE(name, "[EpollManager][mainThread] initFunc threw");
    }
    if (initResult == 0) KELO_LOGE(name, "[EpollManager][mainThread] initFunc failed");
  }
  while (true) {
    {
      MutexLock lock(mutex);
      if (!running) return;
    }
    eventCount = epoll_wait(epollFd.get(), events.data(), static_cast<int>(events.size()), timeout);
    wakeupCount.fetch_add(1, std::memory_order_relaxed);
    for (int i = 0; i < eventCount; ++i) {
      if (events[i].data.fd == controlFd.get()) {
        eventfd_t value;
        eventfd_read(controlFd.get(), &value);
        return;
      }
      try {
        dispatchEvent(events[i]);
      } catch (const std::exception& e) {
        KELO_LOGE(name, "[EpollManager][mainThread] callback of fd %d threw: %s", events[i].data.fd, e.what());
      } catch (...) {
        KELO_LOGE(name, "[EpollManager][mainThread] callback of fd %d threw", events[i].data.fd);
      }
    }
  }
}
