#include "service/kelo_bpf_service_loss.h"

#include <algorithm>
#include <exception>
#include <vector>

#include "service/kelo_bpf_event_manager.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {

void LossReporter::NoteRecords() {
  if (readWanted.load(std::memory_order_relaxed)) return;
  MutexLock guard(mutex);
  if (readWanted.exchange(true)) return;
  wake.notify_one();
}

void LossReporter::NoteRingFull() {
  MutexLock guard(mutex);
  readForced = true;
  wake.notify_one();
}

void LossReporter::NoteQueueLoss() {
  MutexLock guard(mutex);
  nextDue = Clock::time_point::min();
  wake.notify_one();
}

void LossReporter::Stop() {
  MutexLock guard(mutex);
  stopping = true;
  wake.notify_one();
}

void LossReporter::Run() {
  MutexLock guard(mutex);
  while (!stopping) {
    const Clock::time_point now = Clock::now();
    const bool readDue =
        readForced ||
        (readWanted.load() && (lastRead == Clock::time_point::min() || now - lastRead >= KERNEL_READ_INTERVAL));
    if (!readDue && now < nextDue) {
      Clock::time_point deadline = nextDue;
      if (readWanted.load() && lastRead + KERNEL_READ_INTERVAL < deadline) deadline = lastRead + KERNEL_READ_INTERVAL;
      if (deadline == Clock::time_point::max()) {
        wake.wait(mutex);
      } else {
        wake.wait_until(mutex, deadline);
      }
      continue;
    }
    if (readDue) {
      readForced = false;
      readWanted.store(false);
      lastRead = now;
    }
    nextDue = Clock::time_point::max();
    Clock::time_point next = Clock::time_point::max();
    mutex.unlock();
    try {
      next = work(readDue);
    } catch (const std::exception& e) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][lossReporter] Loss report round failed: %s", e.what());
    }
    mutex.lock();
    if (next < nextDue) nextDue = next;
  }
}

LossReporter::Clock::time_point LossReporter::work(bool readKernel) {
  if (readKernel) {
    const Clock::time_point now = Clock::now();
    for (const KernelLostCounters::Growth& growth : counters->Read()) {
      const LossLedger::Span span{growth.records, growth.sinceNs, growth.untilNs};
      ledger->KernelLost(growth.ring, growth.type, span, registry->LossReportSubscribers(growth.type));
      if (healer != nullptr) healer->NoteKernelLoss(growth.type, now);
    }
  }
  Clock::time_point next;
  const std::vector<LossLedger::Report> due =
      ledger->TakeDue(Clock::now(), registry->SubscribersOf(KELO_CLIENT_EVENT_EVENTS_LOST), &next);
  for (const LossLedger::Report& report : due) {
    // A connection that closed meanwhile has nobody left to tell.
    registry->SendTo(report.fd, reinterpret_cast<const char*>(&report.record), sizeof(report.record),
                     report.record.site == KELO_LOSS_SITE_QUEUE);
  }
  if (healer != nullptr) next = std::min(next, healer->RunIfDue(Clock::now()));
  return next;
}

}  // namespace Bpf
}  // namespace Kelo
