// Per-second counters of raw events (by type) and of ring-buffer polls over
// the last 30 minutes, written on request as a CSV file, newest second first.
//
// The window is indexed by logical seconds: curIndex is the second being
// filled, firstIndex the oldest one kept (never more than 1799 behind), and
// logical second i lives in slot i mod 1800. Seconds without any call stay at
// zero.
#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <cstdint>

#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// Counter kinds: the raw event types 0..7 of the ring-buffer header, and the
// polls of the producer loops.
enum KeloStateCounter : int {
  STATE_COUNTER_KELO_TASK_INIT = 0,
  STATE_COUNTER_KMEM_RSS_INFO = 1,
  STATE_COUNTER_SCHED_TASK_CREATE = 2,
  STATE_COUNTER_SCHED_TASK_EXIT = 3,
  STATE_COUNTER_DMABUF_SIZE_INFO = 4,
  STATE_COUNTER_CGROUP_ATTACH_CPUSET_INFO = 5,
  STATE_COUNTER_FD_UPDATE_INFO = 6,
  STATE_COUNTER_DMABUF_UPDATE = 7,
  STATE_COUNTER_POLL = 8,
  STATE_COUNTER_KINDS = 9,
};

// Seconds kept in the window.
inline constexpr int STATE_WINDOW_SECONDS = 1800;

class KeloBpfDataState {
 public:
  // Source of the current time in whole seconds.
  using SecondsClock = uint64_t (*)();

  static constexpr char KELOTASK_DUMP_PATH[] = "/data/kelolog/stability/kelobpfframework";
  static constexpr char KELOTASK_DUMP_TEMPLATE[] = "/data/kelolog/stability/kelobpfframework/bpfservice_state.csv";

  // Made on first use on the service clock (GetSystemSecondsTime), never
  // destroyed.
  static KeloBpfDataState* GetInstance();

  // An empty window on the given clock; the service uses GetInstance().
  explicit KeloBpfDataState(SecondsClock clock);
  KeloBpfDataState(const KeloBpfDataState&) = delete;
  KeloBpfDataState& operator=(const KeloBpfDataState&) = delete;

  // Adds count to counter `type` (a KeloStateCounter) of the current second;
  // kinds outside 0..8 are dropped without touching the window.
  void RecordEvent(int type, int count) EXCLUDES(lock_);

  // Rewrites KELOTASK_DUMP_TEMPLATE with the window. Takes the lock only to
  // copy the counters, so it must not run in signal context.
  void DumpState() EXCLUDES(lock_);

 private:
  // A copy of the window, as a dump writes it.
  struct Window {
    int32_t curIndex = 0;
    int32_t firstIndex = 0;
    int32_t slots[STATE_WINDOW_SECONDS][STATE_COUNTER_KINDS] = {};
  };

  // Moves the window on to the clock's current second.
  void AdvanceLocked(uint64_t now) REQUIRES(lock_);

  const SecondsClock clock_;
  // Serialises moving the window on to a new second, and the dump's copy.
  // Counting within the current second takes no lock: the counters are
  // atomics, and a caller whose clock reading equals lastTime_ adds to the
  // slot of curIndex_ directly. The window is moved on by storing curIndex_
  // before lastTime_ (release), so a caller that sees the new second also
  // sees its slot, already cleared.
  Mutex lock_;
  std::atomic<int64_t> lastTime_;
  std::atomic<int32_t> curIndex_{0};
  int32_t firstIndex_ GUARDED_BY(lock_) = 0;
  std::atomic<int32_t> slots_[STATE_WINDOW_SECONDS][STATE_COUNTER_KINDS] = {};
};

// Writes the state file on request of signal 50; the argument is ignored.
// Runs on the thread that the signal wakes, not in the handler itself.
void DumpState(int signal);

}  // namespace Bpf
}  // namespace Kelo
