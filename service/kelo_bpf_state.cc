#include "service/kelo_bpf_state.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "helper/kelo_bpf_helper_strings.h"
#include "utils/kelo_bpf_log.h"
#include "utils/kelo_bpf_time.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr mode_t STATE_DIR_MODE = 0775;
// As fopen would create it; the process umask applies.
constexpr mode_t STATE_FILE_MODE = 0666;

// Column names of counters 0..7 in the file's header.
constexpr const char* STATE_EVENT_COLUMNS[STATE_COUNTER_POLL] = {
    "kelo_task_init",  "kmem_rss_info",    "sched_task_create",
    "sched_task_exit", "dmabuf_size_info", "cgroup_attach_cpuset_info",
    "fd_update_info",  "dmabuf_update",
};
constexpr char STATE_HEADER_LEAD[] = "EventCount, ";
constexpr char STATE_HEADER_POLL[] = "PollCount, ";
constexpr char STATE_COLUMN_SEPARATOR[] = ", ";
constexpr char STATE_HEADER_BOUNDS_FORMAT[] = "%" PRId64 ", %" PRId64 " \r\n";
// Total of the event counters, then the nine counters.
constexpr char STATE_ROW_FORMAT[] = "%d, %d, %d, %d, %d, %d, %d, %d, %d, %d, \r\n";

// Counters wrap around instead of overflowing.
int32_t WrapAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// Slot of logical second i; also sound for the negative seconds that a clock
// stepping backwards can produce.
int Slot(int64_t i) {
  const int64_t slot = i % STATE_WINDOW_SECONDS;
  return static_cast<int>(slot < 0 ? slot + STATE_WINDOW_SECONDS : slot);
}

}  // namespace

KeloBpfDataState* KeloBpfDataState::GetInstance() {
  static KeloBpfDataState* instance = new KeloBpfDataState(GetSystemSecondsTime);
  return instance;
}

KeloBpfDataState::KeloBpfDataState(SecondsClock clock) : clock_(clock), lastTime_(static_cast<int64_t>(clock())) {}

void KeloBpfDataState::RecordEvent(int type, int count) {
  if (type < 0 || type > STATE_COUNTER_POLL) return;
  slots_[CurrentSlot()][type].fetch_add(count, std::memory_order_relaxed);
  totals_[type].fetch_add(static_cast<uint64_t>(static_cast<int64_t>(count)), std::memory_order_relaxed);
}

void KeloBpfDataState::RecordEvents(const int32_t (&counts)[STATE_COUNTER_KINDS]) {
  const int slot = CurrentSlot();
  for (int kind = 0; kind < STATE_COUNTER_KINDS; ++kind) {
    if (counts[kind] == 0) continue;
    slots_[slot][kind].fetch_add(counts[kind], std::memory_order_relaxed);
    totals_[kind].fetch_add(static_cast<uint64_t>(static_cast<int64_t>(counts[kind])), std::memory_order_relaxed);
  }
}

uint64_t KeloBpfDataState::Total(int kind) const {
  if (kind < 0 || kind >= STATE_COUNTER_KINDS) return 0;
  return totals_[kind].load(std::memory_order_relaxed);
}

std::string KeloBpfDataState::TotalsLines() const {
  std::string lines = "EventsSinceStart, ";
  for (const char* column : STATE_EVENT_COLUMNS) lines += std::string(column) + STATE_COLUMN_SEPARATOR;
  lines += "polls, \r\nCounted, ";
  for (int kind = 0; kind < STATE_COUNTER_KINDS; ++kind) lines += StringPrintf("%" PRIu64 ", ", Total(kind));
  return lines + "\r\n";
}

int KeloBpfDataState::CurrentSlot() {
  if (static_cast<int64_t>(clock_()) == lastTime_.load(std::memory_order_acquire)) {
    return Slot(curIndex_.load(std::memory_order_acquire));
  }
  MutexLock lock(lock_);
  // Read again under the lock, so that the seconds seen by successive moves
  // of the window never run backwards.
  const uint64_t now = clock_();
  if (static_cast<int64_t>(now) != lastTime_.load(std::memory_order_relaxed)) AdvanceLocked(now);
  return Slot(curIndex_.load(std::memory_order_relaxed));
}

void KeloBpfDataState::AdvanceLocked(uint64_t now) {
  const int32_t curIndex = curIndex_.load(std::memory_order_relaxed);
  const int32_t delta = static_cast<int32_t>(now - static_cast<uint64_t>(lastTime_.load(std::memory_order_relaxed)));
  const int32_t newCur = WrapAdd(curIndex, delta);
  if (static_cast<int64_t>(newCur) - firstIndex_ >= STATE_WINDOW_SECONDS) {
    firstIndex_ = newCur - (STATE_WINDOW_SECONDS - 1);
  }
  // The seconds skipped since the last call had no events. A gap longer than
  // the window clears every slot once; going round again would change nothing
  // (and a first reading after the time base is set jumps by decades).
  const int32_t skipped = std::min(delta, static_cast<int32_t>(STATE_WINDOW_SECONDS));
  for (int32_t k = 1; k <= skipped; ++k) {
    for (std::atomic<int32_t>& counter : slots_[Slot(static_cast<int64_t>(curIndex) + k)]) {
      counter.store(0, std::memory_order_relaxed);
    }
  }
  curIndex_.store(newCur, std::memory_order_release);
  lastTime_.store(static_cast<int64_t>(clock_()), std::memory_order_release);
}

void EventTally::Flush() {
  if (pending_ == 0) return;
  state_->RecordEvents(counts_);
  for (int32_t& count : counts_) count = 0;
  pending_ = 0;
}

void KeloBpfDataState::DumpState() {
  // 64 KiB: too much for the stack of a small thread.
  auto window = std::make_unique<Window>();
  std::function<std::string()> supplement;
  {
    MutexLock lock(lock_);
    supplement = supplement_;
    window->curIndex = curIndex_.load(std::memory_order_relaxed);
    window->firstIndex = firstIndex_;
    for (int slot = 0; slot < STATE_WINDOW_SECONDS; ++slot) {
      for (int kind = 0; kind < STATE_COUNTER_KINDS; ++kind) {
        window->slots[slot][kind] = slots_[slot][kind].load(std::memory_order_relaxed);
      }
    }
  }

  mkdir(KELOTASK_DUMP_PATH, STATE_DIR_MODE);
  remove(KELOTASK_DUMP_TEMPLATE);
  android::base::unique_fd file(
      TEMP_FAILURE_RETRY(open(KELOTASK_DUMP_TEMPLATE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, STATE_FILE_MODE)));
  if (file == -1) {
    KELO_LOGE(LOG_TAG_UTILS, "[KeloBpfDataState][DumpState] open file failed!");
    return;
  }

  std::string text = STATE_HEADER_LEAD;
  for (const char* column : STATE_EVENT_COLUMNS) {
    text += column;
    text += STATE_COLUMN_SEPARATOR;
  }
  text += STATE_HEADER_POLL;
  text += StringPrintf(STATE_HEADER_BOUNDS_FORMAT, static_cast<int64_t>(window->curIndex),
                       static_cast<int64_t>(window->firstIndex));
  for (int64_t i = window->curIndex; i >= window->firstIndex; --i) {
    const int32_t* c = window->slots[Slot(i)];
    int32_t events = 0;
    for (int kind = 0; kind < STATE_COUNTER_POLL; ++kind) events = WrapAdd(events, c[kind]);
    text += StringPrintf(STATE_ROW_FORMAT, events, c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7], c[8]);
  }
  if (supplement) text += supplement();
  android::base::WriteStringToFd(text, file);
}

void KeloBpfDataState::SetSupplement(std::function<std::string()> supplement) {
  MutexLock lock(lock_);
  supplement_ = std::move(supplement);
}

void DumpState(int) { KeloBpfDataState::GetInstance()->DumpState(); }

}  // namespace Bpf
}  // namespace Kelo
