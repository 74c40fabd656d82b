#include "service/kelo_bpf_event_loss.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "helper/kelo_bpf_helper_strings.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr uint32_t SECOND_LEVEL_HEADER_SIZE = sizeof(KeloIpcSecondLevelPackageHeader);
constexpr uint32_t EVENT_PACKAGE_TYPE = 3;

// Column names of the kernel loss lines, by event type.
constexpr const char* LOST_TYPE_COLUMNS[KELO_RB_LOST_ENTRIES] = {
    "kelo_task_init",  "kmem_rss_info",    "sched_task_create",
    "sched_task_exit", "dmabuf_size_info", "cgroup_attach_cpuset_info",
    "fd_update_info",  "dmabuf_update",
};
constexpr const char* RING_NAMES[LOSS_RING_COUNT] = {KELO_BPF_DEFINESET, KELO_BPF_GPL_DEFINESET};

}  // namespace

int DerivedEventTypes(int rawType, int (*derived)[2]) {
  switch (rawType) {
    case KELO_EVENT_RSS_STAT:
      (*derived)[0] = KELO_CLIENT_EVENT_RSS_CHANGE;
      return 1;
    case KELO_EVENT_TASK_CREATE:
      (*derived)[0] = KELO_CLIENT_EVENT_PROCESS_CREATE;
      (*derived)[1] = KELO_CLIENT_EVENT_THREAD_COUNT;
      return 2;
    case KELO_EVENT_TASK_EXIT:
      (*derived)[0] = KELO_CLIENT_EVENT_PROCESS_EXIT;
      (*derived)[1] = KELO_CLIENT_EVENT_THREAD_COUNT;
      return 2;
    default:
      return 0;
  }
}

void LossLedger::Span::Add(const Span& other) {
  if (other.count == 0) return;
  firstTs = count == 0 ? other.firstTs : std::min(firstTs, other.firstTs);
  lastTs = count == 0 ? other.lastTs : std::max(lastTs, other.lastTs);
  count += other.count;
}

void LossLedger::AddPendingLocked(int fd, const Key& key, const Span& span) {
  connections[fd].pending[key].span.Add(span);
}

void LossLedger::QueueTrimmed(int fd, const std::deque<KeloIpcPackage>& removed, uint64_t nowNs) {
  // Spans by type, gathered before the lock is taken.
  std::map<int32_t, Span> lost;
  std::vector<kelo_events_lost_client_event> untold;
  uint64_t trimmed = 0;
  for (const KeloIpcPackage& package : removed) {
    KeloIpcSecondLevelPackageHeader header{};
    int32_t type = 0;
    if (package.data.size() >= sizeof(header)) memcpy(&header, package.data.data(), sizeof(header));
    // Responses carry no event; they are only counted.
    if (header.type != EVENT_PACKAGE_TYPE || package.data.size() < SECOND_LEVEL_HEADER_SIZE + sizeof(type)) {
      ++trimmed;
      continue;
    }
    const char* record = package.data.data() + SECOND_LEVEL_HEADER_SIZE;
    const size_t recordSize = package.data.size() - SECOND_LEVEL_HEADER_SIZE;
    memcpy(&type, record, sizeof(type));
    if (type == KELO_CLIENT_EVENT_EVENTS_LOST && recordSize >= sizeof(kelo_events_lost_client_event)) {
      untold.emplace_back();
      memcpy(&untold.back(), record, sizeof(kelo_events_lost_client_event));
      continue;
    }
    ++trimmed;
    uint64_t ts = nowNs;
    kelo_event_header raw;
    if (type >= 0 && type <= KELO_EVENT_TYPE_MAX && recordSize >= sizeof(raw)) {
      memcpy(&raw, record, sizeof(raw));
      ts = raw.ts;
    }
    lost[type].Add(Span{1, ts, ts});
  }

  MutexLock guard(lock);
  Connection& connection = connections[fd];
  connection.trimmed += trimmed;
  for (const auto& [type, span] : lost) AddPendingLocked(fd, Key(type, KELO_LOSS_SITE_QUEUE), span);
  for (const kelo_events_lost_client_event& report : untold) {
    // Copied out of the packed record, never referenced.
    const Key key(int32_t{report.lost_type}, uint32_t{report.site});
    AddPendingLocked(fd, key, Span{report.count, report.first_ts, report.last_ts});
    if (reportsQueued != 0) --reportsQueued;
  }
}

void LossLedger::KernelLost(int ring, int type, const Span& span, const std::vector<int>& fds) {
  if (ring < 0 || ring >= LOSS_RING_COUNT || type < 0 || type >= KELO_RB_LOST_ENTRIES) return;
  MutexLock guard(lock);
  kernelLost[ring][type] += span.count;
  for (int fd : fds) AddPendingLocked(fd, Key(type, KELO_LOSS_SITE_KERNEL), span);
}

void LossLedger::ConnectionClosed(int fd) {
  MutexLock guard(lock);
  auto entry = connections.find(fd);
  if (entry == connections.end()) return;
  trimmedClosed += entry->second.trimmed;
  connections.erase(entry);
}

std::vector<LossLedger::Report> LossLedger::TakeDue(Clock::time_point now, const std::vector<int>& subscribers,
                                                    Clock::time_point* next) {
  std::vector<Report> due;
  *next = Clock::time_point::max();
  MutexLock guard(lock);
  for (auto& [fd, connection] : connections) {
    const bool subscribed = std::binary_search(subscribers.begin(), subscribers.end(), fd);
    for (auto entry = connection.pending.begin(); entry != connection.pending.end();) {
      Pending& pending = entry->second;
      const bool quiet = pending.lastReport == Clock::time_point::min() || now - pending.lastReport >= REPORT_INTERVAL;
      if (pending.span.count == 0 || !subscribed) {
        // Nothing to tell, or nobody to tell it: the entry is kept only
        // while it still holds back the next report.
        if (quiet) {
          entry = connection.pending.erase(entry);
        } else {
          pending.span = Span();
          ++entry;
        }
        continue;
      }
      if (!quiet) {
        *next = std::min(*next, pending.lastReport + REPORT_INTERVAL);
        ++entry;
        continue;
      }
      kelo_events_lost_client_event record = {};
      record.type = KELO_CLIENT_EVENT_EVENTS_LOST;
      record.lost_type = entry->first.first;
      record.site = entry->first.second;
      record.count = pending.span.count;
      record.first_ts = pending.span.firstTs;
      record.last_ts = pending.span.lastTs;
      due.push_back(Report{fd, record});
      pending.span = Span();
      pending.lastReport = now;
      *next = std::min(*next, now + REPORT_INTERVAL);
      ++entry;
    }
  }
  reportsQueued += due.size();
  return due;
}

std::string LossLedger::StateLines() {
  MutexLock guard(lock);
  std::string text = "KernelLost, ";
  for (const char* column : LOST_TYPE_COLUMNS) text += std::string(column) + ", ";
  text += "\r\n";
  for (int ring = 0; ring < LOSS_RING_COUNT; ++ring) {
    text += std::string(RING_NAMES[ring]) + ", ";
    for (uint64_t count : kernelLost[ring]) text += StringPrintf("%" PRIu64 ", ", count);
    text += "\r\n";
  }
  uint64_t trimmed = trimmedClosed;
  std::string perConnection;
  for (const auto& [fd, connection] : connections) {
    trimmed += connection.trimmed;
    if (connection.trimmed != 0)
      perConnection += StringPrintf("QueueTrimmedConnection, %d, %" PRIu64 ", \r\n", fd, connection.trimmed);
  }
  text += StringPrintf("QueueTrimmed, %" PRIu64 ", \r\n", trimmed);
  text += perConnection;
  text += StringPrintf("LossReports, %" PRIu64 ", \r\n", reportsQueued);
  return text;
}

uint64_t LossLedger::KernelLostTotal(int ring, int type) {
  if (ring < 0 || ring >= LOSS_RING_COUNT || type < 0 || type >= KELO_RB_LOST_ENTRIES) return 0;
  MutexLock guard(lock);
  return kernelLost[ring][type];
}

uint64_t LossLedger::TrimmedTotal() {
  MutexLock guard(lock);
  uint64_t trimmed = trimmedClosed;
  for (const auto& [fd, connection] : connections) trimmed += connection.trimmed;
  return trimmed;
}

}  // namespace Bpf
}  // namespace Kelo
