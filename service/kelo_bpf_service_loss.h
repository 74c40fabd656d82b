// The thread that tells clients about lost events ("BpfServiceLoss").
//
// It reads the kernel's lost counts when a pump asks for it: within a second
// of a record, at most once a second while records flow, and at once when a pump's watchdog found a ring
// buffer's full flag. Growth of a count is added to the ledger for every
// connection that is to hear of it. Then it queues the 50005 records that
// the ledger says are due: a report of queue losses ahead of everything
// queued for its connection (right where the lost packages were), one of
// kernel losses behind it. It sleeps while nothing is asked of it and no
// report is pending, so an idle service costs no wake-ups. Heals of the task
// table after lost task records run here too, when due.
#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <chrono>
#include <condition_variable>

#include "service/kelo_bpf_event_loss.h"
#include "service/kelo_bpf_service_heal.h"
#include "service/kelo_bpf_service_lost_counters.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

class EventManager;

class LossReporter {
 public:
  using Clock = std::chrono::steady_clock;
  // Longest time between kernel counter readings while records flow.
  static constexpr std::chrono::seconds KERNEL_READ_INTERVAL{1};

  // healer, when given, hears of every growth of a kernel count and runs
  // its heals on this thread.
  LossReporter(LossLedger* ledger, KernelLostCounters* counters, EventManager* registry, TaskHealer* healer = nullptr)
      : ledger(ledger), counters(counters), registry(registry), healer(healer) {}
  LossReporter(const LossReporter&) = delete;
  LossReporter& operator=(const LossReporter&) = delete;

  // The thread's body; returns only when Stop was called. Exceptions of a
  // round are logged and the next round runs.
  void Run() EXCLUDES(mutex);
  // Ends Run after its current round.
  void Stop() EXCLUDES(mutex);

  // A pump took a record: read the kernel counts within
  // KERNEL_READ_INTERVAL. Costs one atomic load while a reading is already
  // due. Any thread.
  void NoteRecords() EXCLUDES(mutex);
  // A pump found a ring buffer's full flag: read the kernel counts now.
  void NoteRingFull() EXCLUDES(mutex);
  // A queue was trimmed: look for due reports now. Any thread.
  void NoteQueueLoss() EXCLUDES(mutex);

 private:
  // One round: reads the kernel counts if asked to, then queues due reports;
  // the time the next report falls due.
  Clock::time_point work(bool readKernel);

  LossLedger* const ledger;
  KernelLostCounters* const counters;
  EventManager* const registry;
  TaskHealer* const healer;

  Mutex mutex;
  std::condition_variable_any wake;
  // A reading of the kernel counts was asked for (read without the lock
  // first, so that every poll costs one load).
  std::atomic<bool> readWanted{false};
  bool readForced GUARDED_BY(mutex) = false;
  Clock::time_point lastRead GUARDED_BY(mutex) = Clock::time_point::min();
  // When the ledger next has a report due; max() when none is pending.
  Clock::time_point nextDue GUARDED_BY(mutex) = Clock::time_point::max();
  bool stopping GUARDED_BY(mutex) = false;
};

}  // namespace Bpf
}  // namespace Kelo
