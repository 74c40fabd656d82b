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
#include <functional>
#include <string>

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
  // Adds counts[k] to counter k of the current second for every kind k, with
  // one reading of the clock: what nine RecordEvent calls in the same second
  // would do.
  void RecordEvents(const int32_t (&counts)[STATE_COUNTER_KINDS]) EXCLUDES(lock_);

  // Rewrites KELOTASK_DUMP_TEMPLATE with the window. Takes the lock only to
  // copy the counters, so it must not run in signal context. The
  // supplement's lines, if one is set, follow the window's rows.
  void DumpState() EXCLUDES(lock_);

  // Lines (each ending in "\r\n") written after the rows of every dump,
  // asked for on the dumping thread; the service sets them once. A window
  // without a supplement writes its rows and nothing else.
  void SetSupplement(std::function<std::string()> supplement) EXCLUDES(lock_);

  // Everything counted of kind `kind` since this window was made, whatever
  // has left the window since; 0 for kinds outside 0..8.
  uint64_t Total(int kind) const;
  // The totals as two lines of the state file's supplement, each ending in
  // "\r\n": "EventsSinceStart" with the header's column names and "polls",
  // then "Counted" with the nine totals.
  std::string TotalsLines() const;

 private:
  // A copy of the window, as a dump writes it.
  struct Window {
    int32_t curIndex = 0;
    int32_t firstIndex = 0;
    int32_t slots[STATE_WINDOW_SECONDS][STATE_COUNTER_KINDS] = {};
  };

  // Index of the current second's slot, after moving the window on to the
  // clock's current second when it has changed.
  int CurrentSlot() EXCLUDES(lock_);
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
  std::function<std::string()> supplement_ GUARDED_BY(lock_);
  std::atomic<uint64_t> totals_[STATE_COUNTER_KINDS] = {};
};

// Counts of one thread's run of events, handed to the window in one go. A
// ring-buffer pump counts each record here and calls Flush after every poll,
// so the clock is read and the shared counters are touched once per batch of
// records instead of once per record; a long batch is handed over every
// FLUSH_EVENTS events, so no count waits for more than a few microseconds.
// Not shared between threads.
class EventTally {
 public:
  static constexpr int FLUSH_EVENTS = 256;

  explicit EventTally(KeloBpfDataState* state) : state_(state) {}
  EventTally(const EventTally&) = delete;
  EventTally& operator=(const EventTally&) = delete;
  // Whatever is still pending goes to the window.
  ~EventTally() { Flush(); }

  // Counts one event of counter `type`; kinds outside 0..8 are dropped.
  void Add(int type) {
    if (type < 0 || type >= STATE_COUNTER_KINDS) return;
    ++counts_[type];
    if (++pending_ >= FLUSH_EVENTS) Flush();
  }
  // Adds the pending counts to the window's current second.
  void Flush();

 private:
  KeloBpfDataState* const state_;
  int32_t counts_[STATE_COUNTER_KINDS] = {};
  int pending_ = 0;
};

// Writes the state file on request of signal 50; the argument is ignored.
// Runs on the thread that the signal wakes, not in the handler itself.
void DumpState(int signal);

}  // namespace Bpf
}  // namespace Kelo
