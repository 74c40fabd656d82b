// The event filters of `watch`: --pid, --comm and --min-delta.
//
// - pids: an event passes when its pid field is one of them. Events without
//   a pid (a record too short for its type, an unknown type) never pass.
// - comm glob (fnmatch(3), no flags): an event passes when its process name
//   matches. Events that carry no name (rss, dmabuf_size, threads_changed)
//   are matched with the name the filter last saw for their pid in an
//   earlier event, else with /proc/<pid>/comm read once for that pid; a
//   pid whose name cannot be found does not pass. The names learnt are
//   forgotten when the process's exit passes through the filter.
// - min delta (bytes): applies to RSS events only; other types pass.
//   rss_changed (50004) passes when |rss - rss_old| summed over the four
//   members is at least the minimum. rss (type 1) passes when the new size
//   differs by at least the minimum from the last size of that pid and
//   member that passed (0 before the first), so that small steps add up as
//   they do in the service's own report.
// Every given filter must pass. Not thread-safe: one filter belongs to the
// thread that receives the events.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "tools/kelo_bpf_client_json.h"

namespace Kelo {
namespace Bpf {

struct EventFilterOptions {
  std::vector<int32_t> pids;
  std::string commGlob;   // empty: no name filter
  uint64_t minDelta = 0;  // 0: no delta filter
};

class EventFilter {
 public:
  // procRoot: where /proc/<pid>/comm is read for names not seen in events.
  explicit EventFilter(EventFilterOptions options, std::string procRoot = "/proc");

  // True when any filter is set.
  bool active() const;
  // True when the event described by `facts` passes every filter; updates
  // what the filter remembers (names, last RSS sizes).
  bool passes(const EventFacts& facts);

 private:
  bool passesComm(const EventFacts& facts);
  bool passesMinDelta(const EventFacts& facts);
  void forget(int32_t pid);

  const EventFilterOptions options;
  const std::unordered_set<int32_t> pidSet;
  const std::string procRoot;
  // Names by pid, learnt from events and /proc (empty: not found).
  std::unordered_map<int32_t, std::string> names;
  // Last size that passed, by pid and member (file, anon, swap, shmem).
  std::unordered_map<int32_t, std::array<int64_t, 4>> lastRss;
};

}  // namespace Bpf
}  // namespace Kelo
