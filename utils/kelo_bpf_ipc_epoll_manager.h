// A single-threaded epoll event loop: one worker thread, one epoll instance, a
// table of per-descriptor callbacks and an eventfd through which other threads
// stop the loop. It knows nothing of packages.
//
// Write interest (EPOLLOUT) is never permanent: a producer that has queued
// data asks for it with notifyWriteEventReady, and the loop drops it again as
// soon as a write callback reports that nothing is left (-1 or -3), so an idle
// connection never wakes the worker.
//
// Callback results: a read callback returning -3, -2, -1 or 1 ends the
// handling of its event; any other value lets the write callback of the same
// event run. A write callback returning -1 or -3 drops write interest. Close
// callback results are ignored. A hang-up with a close callback is handed to
// it alone.
//
// Every log line uses the manager's name as its tag.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "utils/kelo_bpf_mutex.h"

// The callbacks of one monitored descriptor; any of them may be empty.
struct EpollCallback {
  std::function<int(epoll_event)> readCallback;
  std::function<int(epoll_event)> writeCallback;
  std::function<int(epoll_event)> closeCallback;
  // Event mask currently registered for the descriptor.
  uint32_t events = 0;
};

class EpollManager {
 public:
  // `name` (borrowed, must outlive the manager) names the worker thread and
  // tags the log; null means "BpfUtils". The worker is bound to
  // `cpuAffinity` (processor 0 if the set is empty). `timeout` is the
  // epoll_wait time-out in milliseconds, -1 for none. `initFunc` runs once on
  // the worker before the loop; a result of 0 is logged as a failure. Failures
  // here are logged and leave a degraded manager; nothing throws.
  EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* name, cpu_set_t cpuAffinity,
               int timeout);
  // As above, bound to the processors the calling thread may run on.
  EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* name, int timeout);
  EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, int timeout);
  // Stops and joins the worker, then closes the epoll instance and eventfd.
  // Monitored descriptors are not closed.
  ~EpollManager();

  EpollManager(const EpollManager&) = delete;
  EpollManager& operator=(const EpollManager&) = delete;

  // Registers fd with a mask derived from the callbacks present (read and/or
  // close interest; never write interest) and stores the callbacks,
  // replacing any earlier entry for fd. Meant for the worker thread (its
  // init function and callbacks).
  bool addMonitorFd(int fd, EpollCallback callback);
  // Unregisters fd and forgets its callbacks; the descriptor is not closed.
  bool delMonitorFd(int fd);

  // Starts the worker thread. Throws std::system_error if the thread cannot
  // be created. A manager is started at most once.
  void start();
  // Asks the worker to return; does not wait for it.
  void stop();

  // Runs fd's write callback now on the calling thread; false for an unknown
  // fd, a missing write callback or a result of -1. Write interest is left
  // as it is.
  bool writeEventNow(int fd);
  // Adds / removes write interest for fd; false for an unknown fd or a failed
  // epoll_ctl. Asking twice costs one epoll_ctl.
  bool notifyWriteEventReady(int fd);
  bool markWriteEventFinish(int fd);

  // Number of times epoll_wait has returned on the worker, for observing
  // that an idle loop stays asleep.
  uint64_t getWakeupCount() const { return wakeupCount.load(std::memory_order_relaxed); }

 private:
  // The callbacks of fd, creating an empty entry for a descriptor that has
  // none (the entry then stays in the table).
  std::shared_ptr<const EpollCallback> lookupCallback(int fd) EXCLUDES(mutex);
  // Number of notifyWriteEventReady calls for fd so far.
  uint64_t notifyCountOf(int fd) EXCLUDES(mutex);
  // Drops write interest after a write callback found nothing left, unless a
  // producer asked for it again since `notifiesBefore` was read: its data may
  // have been queued after the callback looked, and dropping interest then
  // would strand it until the next notification.
  bool finishWriteUnlessNotified(int fd, uint64_t notifiesBefore) EXCLUDES(mutex);
  bool clearWriteInterest(int fd) REQUIRES(mutex);
  void dispatchEvent(const epoll_event& event);
  void mainThread();

  cpu_set_t cpuAffinity;
  const char* name;
  // Result of the last epoll_wait; worker only.
  int eventCount;
  android::base::unique_fd controlFd;
  // Guards `running`, the control write, the write-interest changes and the
  // callback table.
  Kelo::Bpf::Mutex mutex;
  bool running GUARDED_BY(mutex);
  std::thread thread;
  android::base::unique_fd epollFd;
  int epollSize;
  int timeout;
  // Receive array of epoll_wait; worker only.
  std::vector<epoll_event> events;
  // One monitored descriptor. The callbacks are shared and never modified in
  // place, so a copy taken under the lock stays valid while it runs without
  // it; `events` is the registered mask; `notifies` counts write requests.
  struct Monitored {
    std::shared_ptr<const EpollCallback> callback;
    uint32_t events = 0;
    uint64_t notifies = 0;
  };
  std::map<int, Monitored> callbacks GUARDED_BY(mutex);
  std::function<int()> initFunc;
  std::atomic<uint64_t> wakeupCount{0};
};
