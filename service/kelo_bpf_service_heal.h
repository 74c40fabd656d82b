// Mending the task table after the kernel lost task records.
//
// A process-creation record that the kernel could not write leaves a live
// process out of the table; a lost exit record leaves a dead pid in it for
// good; a lost RSS record leaves a process's figures stale. When the lost
// counts of these types grow, the table is reconciled with /proc
// (KeloBpfService::healTaskTable): records of pids that are gone are dropped
// and told as exited (50002), and live processes missing from the table are
// read and fed through the dispatcher as the start-up scan feeds them.
//
// Schedule: a heal runs SETTLE after the first loss it is to mend, so that
// one heal covers a whole burst and the records queued in the ring when it
// began are handled by then; and never sooner than REPEAT after the previous
// heal, so that while losses go on it runs once a minute and no more.
#pragma once

#include <android-base/thread_annotations.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// What one heal changed.
struct TaskHealResult {
  uint64_t dropped = 0;  // records of pids gone from /proc, each told as 50002
  uint64_t added = 0;    // live processes fed in as task-initialisation records
};

class TaskHealer {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds SETTLE{5};
  static constexpr std::chrono::seconds REPEAT{60};

  // heal: one reconciliation, run on the thread that calls RunIfDue.
  explicit TaskHealer(std::function<TaskHealResult()> heal, Clock::duration settle = SETTLE,
                      Clock::duration repeat = REPEAT)
      : heal(std::move(heal)), settle(settle), repeat(repeat) {}
  TaskHealer(const TaskHealer&) = delete;
  TaskHealer& operator=(const TaskHealer&) = delete;

  // True for the raw types whose loss leaves the table wrong: process and
  // thread creation and exit, RSS changes.
  static bool Mends(int type);
  // The kernel's lost count of `type` grew; other types than those Mends
  // names are ignored. Any thread.
  void NoteKernelLoss(int type, Clock::time_point now) EXCLUDES(lock);
  // Runs the heal when one is due at `now` (on the calling thread, without
  // the lock); the time the next one falls due, max() when none is pending.
  // An exception of the heal is logged and counts as a run. One thread at a
  // time (the loss reporter's).
  Clock::time_point RunIfDue(Clock::time_point now) EXCLUDES(lock);
  // The state file's line: "TaskHeal, <runs>, <dropped>, <added>, \r\n".
  std::string StateLines() EXCLUDES(lock);

  struct Totals {
    uint64_t runs = 0;
    uint64_t dropped = 0;
    uint64_t added = 0;
  };
  Totals totals() EXCLUDES(lock);

 private:
  Clock::time_point dueLocked() const REQUIRES(lock);

  const std::function<TaskHealResult()> heal;
  const Clock::duration settle;
  const Clock::duration repeat;

  Mutex lock;
  // A loss is waiting for a heal since pendingSince.
  bool pending GUARDED_BY(lock) = false;
  Clock::time_point pendingSince GUARDED_BY(lock);
  Clock::time_point lastRun GUARDED_BY(lock) = Clock::time_point::min();
  Totals counts GUARDED_BY(lock);
};

}  // namespace Bpf
}  // namespace Kelo
