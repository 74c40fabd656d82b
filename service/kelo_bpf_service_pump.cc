// The ring-buffer pumps, per-record dispatch, the overflow watchdog and the
// enable switches of the kernel side.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_event_pacing.h"
#include "service/kelo_bpf_event_ring.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

// The event tally of the pump running on this thread. Records dispatched on
// any other thread (a direct call of the ring-buffer callback) are counted
// one by one.
thread_local EventTally* pumpTally = nullptr;

// Makes a tally this thread's pump tally for the scope's lifetime.
class PumpTallyScope {
 public:
  explicit PumpTallyScope(EventTally* tally) { pumpTally = tally; }
  ~PumpTallyScope() { pumpTally = nullptr; }
  PumpTallyScope(const PumpTallyScope&) = delete;
  PumpTallyScope& operator=(const PumpTallyScope&) = delete;
};

}  // namespace

const KeloBpfService::PumpTraits KeloBpfService::NORMAL_PUMP = {
    NORMAL_RINGBUF_INDEX,    "eventMonitor",        "Stop Event Produce Thread...", RINGBUF_MAP_PATH,
    RINGBUF_STATUS_MAP_PATH, RINGBUF_LOST_MAP_PATH, &KeloBpfService::initTaskInfo};
const KeloBpfService::PumpTraits KeloBpfService::GPL_PUMP = {
    GPL_RINGBUF_INDEX,           "gpleventMonitor",         "Stop GPL Event Produce Thread...", GPL_RINGBUF_MAP_PATH,
    GPL_RINGBUF_STATUS_MAP_PATH, GPL_RINGBUF_LOST_MAP_PATH, &KeloBpfService::initDmabufBpfProg};

int KeloBpfService::eventMonitor() { return runPump(NORMAL_PUMP); }

int KeloBpfService::gpleventMonitor() { return runPump(GPL_PUMP); }

int KeloBpfService::runPump(const PumpTraits& pump) {
  InstallDumpSignalHandlers();

  EventRing::Failure failure = EventRing::Failure::NONE;
  std::unique_ptr<EventRing> made = EventRing::Create(pinnedPath(pump.ringbufPath), pinnedPath(pump.statusPath),
                                                      handleBpfRingBuffEvent, this, &failure);
  if (!made) {
    const char* text = failure == EventRing::Failure::OPEN_RING     ? "get ringbuf failed: %s, map fd: %d"
                       : failure == EventRing::Failure::OPEN_STATUS ? "get ringbuf status map failed: %s, map fd: %d"
                                                                    : "Set up ringbuf failed: %s, ringbufMap fd: %d";
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][%s] KELOBPF: %s", pump.method,
              StringPrintf(text, strerror(errno), -1).c_str());
    errno = 0;
    return -1;
  }
  // The ring lives as long as the service: the status operations of other
  // threads reach it through `rings`.
  EventRing* const ring = made.get();
  {
    MutexLock lock(servicelock);
    rings[pump.index] = std::move(made);
  }

  // Losses from here on are the service's to count and tell: the kernel's
  // counts are taken as they stand before any event is enabled.
  kernelLostCounters.Open(pump.index, pinnedPath(pump.lostPath));
  const RingFillGauge::Scope gaugeScope(&ring->gauge());

  // Core events (task creation and exit) flow before the seeding starts, so
  // that a change made while it runs is not missed; the other events only
  // after it, so that they meet seeded state.
  updateStatusFlag(pump.index, KELO_RB_FLAG_CORE, true);
  if (config.beforeSeed) config.beforeSeed(pump.index);
  (this->*pump.seed)();
  updateStatusFlag(pump.index, KELO_RB_FLAG_NORMAL, true);

  // Declared after the tally, so the scope ends before the tally's last flush.
  EventTally tally(KeloBpfDataState::GetInstance());
  PumpTallyScope tallyScope(&tally);
  EventStaging staging;
  PollTimer timer(budget);
  int failures = 0;
  while (true) {
    if (!running) {
      KELO_LOGW(LOG_TAG_SERVICE, "[KeloBpfService][%s] %s", pump.method, pump.stopText);
      return 0;
    }
    const int waited = ring->Wait(timer.TimeoutMs(PollTimer::Clock::now(), ring->Unconsumed() != 0));
    const PollTimer::Clock::time_point woke = PollTimer::Clock::now();
    const int result = waited < 0 ? waited : ring->Consume();
    if (result >= 0) {
      // A timed poll that found nothing is no poll of the kernel's making.
      if (waited > 0 || result > 0) tally.Add(KELO_EVENT_POLL_COUNT);
      if (timer.Drained(result, woke) && !ring->SetWakeMode(timer.Mode())) {
        KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][%s] KELOBPF: set wake mode failed: %s", pump.method,
                  strerror(errno));
        errno = 0;
      }
    }
    // The records of this poll are counted, and their subscribers' senders
    // woken, before the pump waits again.
    tally.Flush();
    staging.Flush();
    ReportRefusedDumps();
    if (result >= 0) {
      if (!checkBpfRingBuffStatus(pump.index, false)) lossReporter->NoteRingFull();
      failures = 0;
      continue;
    }
    const int pollErrno = errno;
    if (!checkBpfRingBuffStatus(pump.index, true)) lossReporter->NoteRingFull();
    // A signal (a dump request among them) interrupted the wait.
    if (pollErrno == EINTR) continue;
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][%s] KELOBPF: ret %d .Error ring buf poll. %s", pump.method, result,
              strerror(pollErrno));
    errno = 0;
    std::this_thread::sleep_for(POLL_FAILURE_PAUSE);
    if (failures++ >= MAX_POLL_FAILURES) return -1;
  }
}

int KeloBpfService::handleBpfRingBuffEvent(void* ctx, void* data, size_t size) {
  KeloBpfService* service = ctx != nullptr ? static_cast<KeloBpfService*>(ctx) : GetInstance();
  // Called from inside libbpf's C code: nothing may be thrown through it.
  try {
    return service->dispatchRecord(static_cast<char*>(data), size);
  } catch (const std::exception& e) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] handleEvent failed: %s", e.what());
    return -1;
  }
}

int KeloBpfService::dispatchRecord(char* data, size_t size) {
  static EventManager* const registry = EventManager::GetInstance();
  uint32_t type = 0;
  if (size < sizeof(type)) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] handleEvent ERROR!!! Record size: %zu", size);
    return -1;
  }
  memcpy(&type, data, sizeof(type));
  // Records come, so the ring may be overflowing: the kernel's lost counts
  // are read within a second. Told per record, since one poll lasts as long
  // as records keep coming.
  lossReporter->NoteRecords();
  if (pumpTally != nullptr) {
    pumpTally->Add(static_cast<int>(type));
  } else {
    KeloBpfDataState::GetInstance()->RecordEvent(static_cast<int>(type), 1);
  }
  if (type > KELO_EVENT_TYPE_MAX) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] handleEvent ERROR!!! Type: %u", type);
    return -1;
  }
  // Subscribers get every valid record, before and regardless of its handler.
  registry->AppendEvent(data, static_cast<unsigned int>(size));
  auto handler = eventHandlers.find(static_cast<int>(type));
  if (handler == eventHandlers.end()) return 0;
  return handler->second(data, static_cast<long long>(size));
}

int KeloBpfService::handleBpfPassthrough(char* data, long long size) {
  EventManager::GetInstance()->AppendEvent(data, static_cast<unsigned int>(size));
  return 0;
}

bool KeloBpfService::checkBpfRingBuffStatus(int index, bool force) {
  if (index < 0 || index >= RINGBUF_COUNT) return false;
  const int64_t now = static_cast<int64_t>(time(nullptr));
  if (!force && now - lastStatusCheckTime[index] < STATUS_CHECK_INTERVAL_SECONDS) return true;
  lastStatusCheckTime[index] = now;

  // The kernel sets the full flag at any time; the lock keeps this clearing
  // from undoing a concurrent enable switch.
  MutexLock lock(servicelock);
  const EventRing* ring = rings[index].get();
  if (ring == nullptr) return true;
  const uint64_t availData = ring->Status(KELO_RB_STATUS_AVAIL_DATA);
  const uint64_t flags = ring->Status(KELO_RB_STATUS_FLAGS);
  if ((flags & KELO_RB_FLAG_FULL) == 0) return true;

  KELO_LOGW(LOG_TAG_SERVICE, "[KeloBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
  KELO_LOGW(LOG_TAG_SERVICE,
            "[KeloBpfService][checkBpfRingBuffStatus] avail data: %" PRIu64 ", ringbuf size: %" PRIu64
            ", cons pos: %" PRIu64 ", prod pos: %" PRIu64,
            availData, ring->Status(KELO_RB_STATUS_RING_SIZE), ring->Status(KELO_RB_STATUS_CONS_POS),
            ring->Status(KELO_RB_STATUS_PROD_POS));
  rings[index]->SetStatus(KELO_RB_STATUS_FLAGS, flags & ~static_cast<uint64_t>(KELO_RB_FLAG_FULL));
  return false;
}

bool KeloBpfService::updateStatusFlag(int index, uint64_t flag, bool enable) {
  if (index < 0 || index >= RINGBUF_COUNT) return false;
  MutexLock lock(servicelock);
  EventRing* ring = rings[index].get();
  if (ring == nullptr) return false;
  const uint64_t flags = ring->Status(KELO_RB_STATUS_FLAGS);
  return ring->SetStatus(KELO_RB_STATUS_FLAGS, enable ? flags | flag : flags & ~flag);
}

bool KeloBpfService::enableCoreBpf(int index, bool enable) {
  return updateStatusFlag(index, KELO_RB_FLAG_CORE, enable);
}

bool KeloBpfService::enableNormalBpf(int index, bool enable) {
  return updateStatusFlag(index, KELO_RB_FLAG_NORMAL, enable);
}

}  // namespace Bpf
}  // namespace Kelo
