// `kelobpf-client watch`: subscribes to event types and prints one line per
// response and per event that passes the filters, then a summary.
//
// Text lines are those of tools/kelo_bpf_client_format.h with the type named
// as the tool names it (tools/kelo_bpf_client_types.h); --json prints one
// object per line instead (tools/kelo_bpf_client_json.h).
#include <android-base/unique_fd.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_client_commands.h"
#include "tools/kelo_bpf_client_format.h"
#include "tools/kelo_bpf_client_json.h"
#include "tools/kelo_bpf_client_lib.h"
#include "tools/kelo_bpf_client_signal.h"
#include "tools/kelo_bpf_client_stop.h"
#include "tools/kelo_bpf_client_types.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {
namespace {

// What arrived, shared between the subscriber's worker (which counts) and the
// main thread (which reads the totals once the worker has ended).
class Tally {
 public:
  explicit Tally(uint64_t limit) : limit(limit) {}

  // Counts one shown event of `type`; false once the limit was reached
  // before it, so that exactly `limit` events are shown.
  bool countEvent(uint32_t type) EXCLUDES(mutex) {
    MutexLock lock(mutex);
    if (limit != 0 && total >= limit) return false;
    ++total;
    ++eventsByType[type];
    return true;
  }
  // Adds what a loss report (50005) tells, whether or not it was shown.
  void countLossReport(const char* record, size_t size) EXCLUDES(mutex) {
    kelo_events_lost_client_event report;
    if (size < sizeof(report)) return;
    memcpy(&report, record, sizeof(report));
    MutexLock lock(mutex);
    lostByType[static_cast<uint32_t>(report.lost_type)] += report.count;
  }
  void countFilteredOut() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    ++filteredOut;
  }
  bool limitReached() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return limit != 0 && total >= limit;
  }
  void countResponse(int type, int result) EXCLUDES(mutex) {
    MutexLock lock(mutex);
    resultByType[type] = result;
  }
  uint64_t events() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return total;
  }
  uint64_t eventsFilteredOut() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return filteredOut;
  }
  std::map<uint32_t, uint64_t> eventsPerType() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return eventsByType;
  }
  // Events the service reported lost, per type that lost them.
  std::map<uint32_t, uint64_t> lostPerType() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return lostByType;
  }
  // The last result answered to the subscription of each type.
  std::map<int, int> results() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return resultByType;
  }

 private:
  const uint64_t limit;
  Mutex mutex;
  uint64_t total GUARDED_BY(mutex) = 0;
  uint64_t filteredOut GUARDED_BY(mutex) = 0;
  std::map<uint32_t, uint64_t> eventsByType GUARDED_BY(mutex);
  std::map<uint32_t, uint64_t> lostByType GUARDED_BY(mutex);
  std::map<int, int> resultByType GUARDED_BY(mutex);
};

// Why the wait ended.
enum class End { LIMIT, DURATION, SIGNAL };

// Sleeps until the worker reports the limit (doneFd), a stop signal arrives
// (signalFd) or the duration is over.
End WaitForEnd(int signalFd, int doneFd, double duration) {
  const auto start = std::chrono::steady_clock::now();
  pollfd fds[] = {{signalFd, POLLIN, 0}, {doneFd, POLLIN, 0}};
  while (true) {
    int timeoutMs = -1;
    if (duration >= 0) {
      const double left = duration - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (left <= 0) return End::DURATION;
      timeoutMs = static_cast<int>(std::ceil(std::min(left, 3600.0) * 1000));
    }
    const int ready = poll(fds, 2, timeoutMs);
    if (ready < 0 && errno != EINTR) {
      std::fprintf(stderr, "kelobpf-client: poll failed: %s\n", strerror(errno));
      return End::SIGNAL;
    }
    if (ready > 0 && (fds[0].revents & POLLIN) != 0) return End::SIGNAL;
    if (ready > 0 && (fds[1].revents & POLLIN) != 0) return End::LIMIT;
  }
}

std::string TypeName(uint32_t type) {
  const char* name = EventTypeName(type);
  return name != nullptr ? name : "unknown";
}

// The text line of a record: the formatter's line, led by the tool's name
// of the type where the formatter names it differently.
std::string TextLine(const char* record, size_t size, const EventFacts& facts) {
  std::string line = FormatClientEvent(record, size);
  if (!facts.typed) return line;
  const char* formatterName = ClientEventTypeName(facts.type);
  const char* toolName = EventTypeName(facts.type);
  if (formatterName != nullptr && toolName != nullptr && line.compare(0, strlen(formatterName), formatterName) == 0 &&
      line.size() > strlen(formatterName) && line[strlen(formatterName)] == ' ') {
    line.replace(0, strlen(formatterName), toolName);
  }
  return line;
}

void PrintSummary(Tally* tally, const std::vector<int>& types, bool json, bool filtered) {
  std::map<uint32_t, uint64_t> perType = tally->eventsPerType();
  // Every subscribed type is listed, with 0 when nothing of it arrived.
  for (int type : types) perType.emplace(static_cast<uint32_t>(type), 0);
  if (json) {
    Json total = {{"record", "summary"}, {"events", tally->events()}};
    if (filtered) total["filtered_out"] = tally->eventsFilteredOut();
    std::printf("%s\n", JsonLine(total).c_str());
    for (const auto& [type, events] : perType) {
      Json line = {{"record", "summary"}, {"type", type}, {"name", TypeName(type)}, {"events", events}};
      std::printf("%s\n", JsonLine(line).c_str());
    }
    for (const auto& [type, lost] : tally->lostPerType()) {
      Json line = {{"record", "summary"}, {"lost_type", type}, {"name", TypeName(type)}, {"lost", lost}};
      std::printf("%s\n", JsonLine(line).c_str());
    }
    return;
  }
  std::printf("summary events=%" PRIu64 "\n", tally->events());
  if (filtered) std::printf("summary filtered_out=%" PRIu64 "\n", tally->eventsFilteredOut());
  for (const auto& [type, events] : perType) {
    std::printf("summary type=%u name=%s events=%" PRIu64 "\n", type, TypeName(type).c_str(), events);
  }
  for (const auto& [type, lost] : tally->lostPerType()) {
    std::printf("summary lost_type=%u name=%s lost=%" PRIu64 "\n", type, TypeName(type).c_str(), lost);
  }
}

// True when every subscribed type was confirmed; reports the others.
bool AllSubscribed(Tally* tally, const std::vector<int>& types) {
  const std::map<int, int> results = tally->results();
  bool all = true;
  for (int type : types) {
    const auto found = results.find(type);
    if (found == results.end()) {
      std::fprintf(stderr, "kelobpf-client: subscription of type %d was not answered\n", type);
      all = false;
    } else if (found->second != 0) {
      std::fprintf(stderr, "kelobpf-client: subscription of type %d refused: result %d\n", type, found->second);
      all = false;
    }
  }
  return all;
}

}  // namespace

int RunWatch(const WatchOptions& options) {
  // Lines reach a pipe or file as they are printed.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  android::base::unique_fd signalFd = BlockStopSignals();
  android::base::unique_fd doneFd(eventfd(0, EFD_CLOEXEC));
  if (signalFd.get() < 0 || doneFd.get() < 0) {
    std::fprintf(stderr, "kelobpf-client: cannot set up: %s\n", strerror(errno));
    return CLIENT_EXIT_FAILED;
  }

  Tally tally(options.count);
  // Used only on the subscriber's worker thread.
  EventFilter filter(options.filter);
  const bool filtered = filter.active();
  const bool json = options.json;
  KeloBpfClientCallbacks callbacks;
  callbacks.onResponse = [&tally, json](uint32_t reqId, int type, int result) {
    tally.countResponse(type, result);
    if (!json) {
      std::printf("response reqId=%u type=%d result=%d\n", reqId, type, result);
      return;
    }
    // Nothing may leave the worker's callback by an exception.
    try {
      const Json line = {{"record", "response"},
                         {"req_id", reqId},
                         {"type", type},
                         {"name", TypeName(static_cast<uint32_t>(type))},
                         {"result", result}};
      std::printf("%s\n", JsonLine(line).c_str());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "kelobpf-client: cannot show a response: %s\n", e.what());
    }
  };
  callbacks.onEvent = [&tally, &doneFd, &filter, filtered, json](const char* record, uint32_t size) {
    // Nothing may leave the worker's callback by an exception.
    try {
      Json object;
      const EventFacts facts = DescribeEvent(record, size, json ? &object : nullptr);
      if (facts.type == KELO_CLIENT_EVENT_EVENTS_LOST) tally.countLossReport(record, size);
      if (filtered && !filter.passes(facts)) {
        tally.countFilteredOut();
        return;
      }
      if (!tally.countEvent(facts.type)) return;
      const std::string line = json ? JsonLine(object) : TextLine(record, size, facts);
      std::printf("%s\n", line.c_str());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "kelobpf-client: cannot show an event: %s\n", e.what());
      return;
    }
    if (tally.limitReached()) {
      const uint64_t one = 1;
      if (write(doneFd.get(), &one, sizeof(one)) != sizeof(one)) {
        std::fprintf(stderr, "kelobpf-client: cannot signal the end: %s\n", strerror(errno));
      }
    }
  };

  End end;
  {
    KeloBpfClient client(options.socketName, options.types, callbacks);
    if (!client.start()) {
      std::fprintf(stderr, "kelobpf-client: cannot start the connection to %s\n", options.socketName.c_str());
      return CLIENT_EXIT_FAILED;
    }
    end = WaitForEnd(signalFd.get(), doneFd.get(), options.duration);
    // Leaving the scope joins the worker: nothing is printed after this.
  }

  PrintSummary(&tally, options.types, json, filtered);
  bool ok = AllSubscribed(&tally, options.types);
  if (options.count != 0 && end == End::DURATION) {
    std::fprintf(stderr, "kelobpf-client: %" PRIu64 " of %" PRIu64 " events arrived before the duration ended\n",
                 tally.events(), options.count);
    ok = false;
  }
  return ok ? CLIENT_EXIT_OK : CLIENT_EXIT_FAILED;
}

}  // namespace Bpf
}  // namespace Kelo
