#include "tools/kelo_bpf_client_types.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "bpf/kelo_bpf_events.h"

namespace Kelo {
namespace Bpf {

const std::vector<ClientEventTypeInfo>& ClientEventTypes() {
  static const std::vector<ClientEventTypeInfo> TYPES = {
      {KELO_EVENT_TASK_INIT, "task_init", {"kelo_task_init"}, "snapshot of a process (start-up scan)"},
      {KELO_EVENT_RSS_STAT, "rss", {"rss_stat", "kmem_rss_info"}, "one RSS counter of a process changed"},
      {KELO_EVENT_TASK_CREATE, "fork", {"sched_task_create"}, "a process or thread was created"},
      {KELO_EVENT_TASK_EXIT, "exit", {"sched_task_exit"}, "a process or thread exited"},
      {KELO_EVENT_DMABUF_SIZE, "dmabuf_size", {"dmabuf_size_info"}, "dma-buf totals of a process"},
      {KELO_EVENT_CGROUP_ATTACH, "cgroup_attach", {"cgroup_attach_cpuset_info"}, "a task moved into a cgroup"},
      {KELO_EVENT_FD_UPDATE, "fd_update", {"fd_update_info"}, "descriptor count of a process grew"},
      {KELO_EVENT_DMABUF_UPDATE, "dmabuf_update", {}, "one operation on a dma-buf"},
      {KELO_CLIENT_EVENT_PROCESS_CREATE, "process_created", {"process_create"}, "derived: new process"},
      {KELO_CLIENT_EVENT_PROCESS_EXIT, "process_exited", {"process_exit"}, "derived: process ended"},
      {KELO_CLIENT_EVENT_THREAD_COUNT, "threads_changed", {"thread_count"}, "derived: thread count moved by 11+"},
      {KELO_CLIENT_EVENT_RSS_CHANGE, "rss_changed", {"rss_change"}, "derived: RSS moved by 16 KiB+"},
      {CLIENT_EVENT_LOST, "lost", {"events_lost"}, "derived: events the service lost"},
  };
  return TYPES;
}

const char* EventTypeName(uint32_t type) {
  for (const ClientEventTypeInfo& info : ClientEventTypes()) {
    if (info.type == type) return info.name;
  }
  return nullptr;
}

std::optional<int> ParseEventType(const std::string& text) {
  if (text.empty()) return std::nullopt;
  for (const ClientEventTypeInfo& info : ClientEventTypes()) {
    if (text == info.name) return static_cast<int>(info.type);
    for (const char* const* alias = info.aliases; *alias != nullptr; ++alias) {
      if (text == *alias) return static_cast<int>(info.type);
    }
  }
  if (text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long long value = strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value > INT_MAX) return std::nullopt;
  return static_cast<int>(value);
}

std::vector<int> DefaultWatchTypes() {
  std::vector<int> types;
  for (const ClientEventTypeInfo& info : ClientEventTypes()) types.push_back(static_cast<int>(info.type));
  return types;
}

}  // namespace Bpf
}  // namespace Kelo
