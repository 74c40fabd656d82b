// kelobpf-client: subscribes to the service's event feed and prints what
// arrives, one line per response and per event.
//
//   kelobpf-client [--type N]... [--count N] [--duration SECONDS] [--socket NAME]
//
// --type      event type to subscribe to, repeatable (default: the raw types
//             0 to 7 and the derived task events 50001 to 50004)
// --count     stop after N events
// --duration  stop after SECONDS (fractions allowed)
// --socket    the service's socket (default /mnt/bpfframework/kelobpfdispatcher;
//             tried as a file-system path first, then as an abstract name)
// Without --count and --duration it runs until SIGINT or SIGTERM. It waits for
// the service as long as it takes, and subscribes again after a lost
// connection. At the end it prints "summary ..." lines: events per type.
//
// Exit status: 0 when every subscription was confirmed (result 0) and the
// run ended as asked (count reached, duration over, or a stop signal);
// 1 when a subscription was refused or never answered, or the duration ran
// out before --count events arrived; 2 for bad usage.
#include <android-base/unique_fd.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_protocol.h"
#include "tools/kelo_bpf_client_format.h"
#include "tools/kelo_bpf_client_lib.h"
#include "tools/kelo_bpf_tool_args.h"
#include "utils/kelo_bpf_mutex.h"

namespace {

using Kelo::Bpf::Mutex;
using Kelo::Bpf::MutexLock;
using Kelo::Bpf::ParseSeconds;

constexpr char USAGE[] = "usage: kelobpf-client [--type N]... [--count N] [--duration SECONDS] [--socket NAME]\n";
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

struct Options {
  std::vector<int> types;
  uint64_t count = 0;      // 0: no limit
  double duration = -1.0;  // < 0: no limit
  std::string socketName = Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME;
};

std::vector<int> AllEventTypes() {
  std::vector<int> types;
  for (int type = KELO_EVENT_TASK_INIT; type <= KELO_EVENT_TYPE_MAX; ++type) types.push_back(type);
  for (int type = KELO_CLIENT_EVENT_PROCESS_CREATE; type <= KELO_CLIENT_EVENT_RSS_CHANGE; ++type) {
    types.push_back(type);
  }
  return types;
}

bool ParseLong(const char* text, long long min, long long max, long long* value) {
  errno = 0;
  char* end = nullptr;
  const long long parsed = strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || parsed < min || parsed > max) return false;
  *value = parsed;
  return true;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  static const option LONG_OPTIONS[] = {
      {"type", required_argument, nullptr, 't'},     {"count", required_argument, nullptr, 'c'},
      {"duration", required_argument, nullptr, 'd'}, {"socket", required_argument, nullptr, 's'},
      {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0},
  };
  int opt;
  long long value = 0;
  while ((opt = getopt_long(argc, argv, "t:c:d:s:h", LONG_OPTIONS, nullptr)) != -1) {
    switch (opt) {
      case 't':
        if (!ParseLong(optarg, INT32_MIN, INT32_MAX, &value)) return false;
        options->types.push_back(static_cast<int>(value));
        break;
      case 'c':
        if (!ParseLong(optarg, 1, INT64_MAX, &value)) return false;
        options->count = static_cast<uint64_t>(value);
        break;
      case 'd':
        if (!ParseSeconds(optarg, &options->duration)) return false;
        break;
      case 's':
        options->socketName = optarg;
        break;
      case 'h':
        std::fputs(USAGE, stdout);
        exit(EXIT_OK);
      default:
        return false;
    }
  }
  if (optind != argc) return false;
  if (options->types.empty()) options->types = AllEventTypes();
  return true;
}

// What arrived, shared between the endpoint's worker (which counts) and the
// main thread (which reads the totals once the worker has ended).
class Tally {
 public:
  explicit Tally(uint64_t limit) : limit(limit) {}

  // Counts one event of `type`; false once the limit was reached before it,
  // so that exactly `limit` events are shown.
  bool countEvent(uint32_t type) EXCLUDES(mutex) {
    MutexLock lock(mutex);
    if (limit != 0 && total >= limit) return false;
    ++total;
    ++eventsByType[type];
    return true;
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
  std::map<uint32_t, uint64_t> eventsPerType() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return eventsByType;
  }
  // The last result answered to the subscription of each type.
  std::map<int, int> results() EXCLUDES(mutex) {
    MutexLock lock(mutex);
    return resultByType;
  }

 private:
  const uint64_t limit;
  // Guards the counters below.
  Mutex mutex;
  uint64_t total GUARDED_BY(mutex) = 0;
  std::map<uint32_t, uint64_t> eventsByType GUARDED_BY(mutex);
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

void PrintSummary(Tally* tally, const std::vector<int>& types) {
  std::map<uint32_t, uint64_t> perType = tally->eventsPerType();
  // Every subscribed type is listed, with 0 when nothing of it arrived.
  for (int type : types) perType.emplace(static_cast<uint32_t>(type), 0);
  std::printf("summary events=%" PRIu64 "\n", tally->events());
  for (const auto& [type, events] : perType) {
    const char* name = Kelo::Bpf::ClientEventTypeName(type);
    std::printf("summary type=%u name=%s events=%" PRIu64 "\n", type, name != nullptr ? name : "unknown", events);
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

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fputs(USAGE, stderr);
    return EXIT_USAGE;
  }
  // Lines reach a pipe or file as they are printed.
  setvbuf(stdout, nullptr, _IOLBF, 0);

  // Blocked before any thread exists, so that the stop signals reach only
  // the signalfd.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  android::base::unique_fd signalFd(signalfd(-1, &stopSignals, SFD_CLOEXEC));
  android::base::unique_fd doneFd(eventfd(0, EFD_CLOEXEC));
  if (signalFd.get() < 0 || doneFd.get() < 0) {
    std::fprintf(stderr, "kelobpf-client: cannot set up: %s\n", strerror(errno));
    return EXIT_FAILED;
  }

  Tally tally(options.count);
  Kelo::Bpf::KeloBpfClientCallbacks callbacks;
  callbacks.onResponse = [&tally](uint32_t reqId, int type, int result) {
    std::printf("response reqId=%u type=%d result=%d\n", reqId, type, result);
    tally.countResponse(type, result);
  };
  callbacks.onEvent = [&tally, &doneFd](const char* record, uint32_t size) {
    uint32_t type = 0;
    Kelo::Bpf::ClientEventType(record, size, &type);
    if (!tally.countEvent(type)) return;
    std::printf("%s\n", Kelo::Bpf::FormatClientEvent(record, size).c_str());
    if (tally.limitReached()) {
      const uint64_t one = 1;
      if (write(doneFd.get(), &one, sizeof(one)) != sizeof(one)) {
        std::fprintf(stderr, "kelobpf-client: cannot signal the end: %s\n", strerror(errno));
      }
    }
  };

  End end;
  {
    Kelo::Bpf::KeloBpfClient client(options.socketName, options.types, callbacks);
    if (!client.start()) {
      std::fprintf(stderr, "kelobpf-client: cannot start the connection to %s\n", options.socketName.c_str());
      return EXIT_FAILED;
    }
    end = WaitForEnd(signalFd.get(), doneFd.get(), options.duration);
    // Leaving the scope joins the worker: nothing is printed after this.
  }

  PrintSummary(&tally, options.types);
  bool ok = AllSubscribed(&tally, options.types);
  if (options.count != 0 && end == End::DURATION) {
    std::fprintf(stderr, "kelobpf-client: %" PRIu64 " of %" PRIu64 " events arrived before the duration ended\n",
                 tally.events(), options.count);
    ok = false;
  }
  return ok ? EXIT_OK : EXIT_FAILED;
}
