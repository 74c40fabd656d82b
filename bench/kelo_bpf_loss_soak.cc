// The loss soak: clients of a running service (kelobpfd --load) that read
// fast, slowly, not at all or in short sessions, while records are emitted
// into the service's normal ring at a fixed rate beside the live kernel's
// own, for a given time. It then checks the accounts: every client received
// or was told it lost every record emitted while it was subscribed, exactly;
// the service's memory did not grow and its descriptors came back to where
// they were. Run through scripts/run_soak.sh, which starts the daemon in a
// sandbox; see there for the options.
//
// Exit status 0 when every check held, 1 when one failed, 2 for bad usage.
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/kelo_bench_client.h"
#include "bench/kelo_soak_client.h"
#include "bench/kelo_soak_emitter.h"
#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"

namespace kelo_bench {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The emitted records' type: no kernel program of this machine produces it
// (its programs are kprobes) and the service has no handler for it.
constexpr uint32_t SOAK_TYPE = KELO_EVENT_DMABUF_UPDATE;
constexpr auto DRAIN_LIMIT = 120s;
constexpr auto EMIT_TICK = 1ms;
constexpr double RSS_GROWTH_LIMIT = 0.05;

struct Options {
  std::string socketName = Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME;
  std::string bpfDir = KELO_BPF_FS_DIR;
  pid_t daemon = 0;
  int seconds = 600;
  uint64_t rate = 100000;
  int counts[4] = {16, 16, 16, 16};  // fast, slow, stalled, reconnecting
  double slowRatio = 10;
  int warmup = -1;
  bool fastLossless = false;
};

void Usage() {
  fprintf(
      stderr,
      "usage: kelo_bpf_loss_soak --daemon-pid PID [--seconds N] [--rate R] [--mix FAST,SLOW,STALLED,RECONNECTING]\n"
      "                          [--slow-ratio K] [--warmup S] [--fast-lossless] [--socket NAME] [--bpf-dir DIR]\n");
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    const auto take = [&]() -> const char* {
      ++i;
      return value;
    };
    if (arg == "--fast-lossless") {
      options->fastLossless = true;
    } else if (value == nullptr) {
      return false;
    } else if (arg == "--daemon-pid") {
      options->daemon = atoi(take());
    } else if (arg == "--seconds") {
      options->seconds = atoi(take());
    } else if (arg == "--rate") {
      options->rate = strtoull(take(), nullptr, 10);
    } else if (arg == "--slow-ratio") {
      options->slowRatio = atof(take());
    } else if (arg == "--warmup") {
      options->warmup = atoi(take());
    } else if (arg == "--socket") {
      options->socketName = take();
    } else if (arg == "--bpf-dir") {
      options->bpfDir = take();
    } else if (arg == "--mix") {
      if (sscanf(take(), "%d,%d,%d,%d", &options->counts[0], &options->counts[1], &options->counts[2],
                 &options->counts[3]) != 4) {
        return false;
      }
    } else {
      return false;
    }
  }
  // The queues of slow and stalled clients, and the allocator with them,
  // take a while to fill on a loaded machine: a quarter of the run.
  if (options->warmup < 0) options->warmup = options->seconds / 4;
  return options->daemon > 0 && options->seconds > 0 && options->rate > 0 && options->slowRatio >= 1;
}

// Resident set of a process in KiB; 0 when unreadable.
uint64_t RssKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return strtoull(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

int OpenDescriptors(pid_t pid) {
  DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (dir == nullptr) return -1;
  int count = 0;
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

// The lines after the rows of a state file the daemon writes on signal 50.
std::string StateLossLines(pid_t daemon) {
  const char* path = Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_TEMPLATE;
  unlink(path);
  kill(daemon, 50);
  std::string text;
  for (int i = 0; i < 100 && (text.empty() || text.back() != '\n'); ++i) {
    std::this_thread::sleep_for(100ms);
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    text = all.str();
  }
  const size_t at = text.find("\nKernelLost, ");
  if (at == std::string::npos) return "(no loss lines)\n";
  std::string lines = text.substr(at + 1);
  lines.erase(std::remove(lines.begin(), lines.end(), '\r'), lines.end());
  return lines;
}

int Run(const Options& options) {
  std::unique_ptr<SoakEmitter> emitter = SoakEmitter::Attach(options.bpfDir);
  if (!emitter) return 1;
  const uint64_t writtenBefore = emitter->Written();
  const uint64_t refusedBefore = emitter->KernelLost(SOAK_TYPE);
  const int fdsBefore = OpenDescriptors(options.daemon);

  std::vector<std::unique_ptr<SoakClient>> clients;
  const SoakBehaviour behaviours[] = {SoakBehaviour::FAST, SoakBehaviour::SLOW, SoakBehaviour::STALLED,
                                      SoakBehaviour::RECONNECTING};
  for (int b = 0; b < 4; ++b) {
    for (int i = 0; i < options.counts[b]; ++i) {
      char name[64];
      snprintf(name, sizeof(name), "%s-%02d", SoakBehaviourName(behaviours[b]), i);
      clients.push_back(std::make_unique<SoakClient>(name, behaviours[b], options.socketName, SOAK_TYPE,
                                                     static_cast<double>(options.rate) / options.slowRatio));
      if (!clients.back()->Start()) return 1;
    }
  }

  printf("soak: %d s of %" PRIu64
         " records/s of type %u beside the live kernel's; clients: %d fast, %d slow "
         "(1/%g of the rate), %d stalled, %d reconnecting\n",
         options.seconds, options.rate, SOAK_TYPE, options.counts[0], options.counts[1], options.slowRatio,
         options.counts[2], options.counts[3]);
  fflush(stdout);

  // Emission at the rate, in 1 ms ticks. The service's RSS is sampled every
  // second: queues of slow clients fill and are trimmed all the time, so the
  // figures compared are the peaks of a window right after the warm-up and
  // of a window as long at the end.
  uint64_t attempts = 0;
  const Clock::time_point start = Clock::now();
  const Clock::time_point end = start + std::chrono::seconds(options.seconds);
  const auto window = std::chrono::seconds(std::max(1, std::min(30, (options.seconds - options.warmup) / 2)));
  const Clock::time_point firstWindowEnd = start + std::chrono::seconds(options.warmup) + window;
  const Clock::time_point lastWindowStart = end - window;
  uint64_t rssStart = 0;
  uint64_t rssEnd = 0;
  Clock::time_point nextSample = start + std::chrono::seconds(options.warmup);
  Clock::time_point nextReport = start + 60s;
  for (Clock::time_point tick = start; Clock::now() < end; tick += EMIT_TICK) {
    std::this_thread::sleep_until(tick);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const uint64_t due = static_cast<uint64_t>(elapsed * static_cast<double>(options.rate));
    // An emitter that cannot keep up still ends on time.
    for (; attempts < due && (attempts % 1024 != 0 || Clock::now() < end); ++attempts) {
      emitter->Emit(SOAK_TYPE, static_cast<uint64_t>(NowNs()));
    }
    if (tick < Clock::now() - EMIT_TICK) tick = Clock::now();
    if (Clock::now() >= nextSample) {
      const uint64_t rss = RssKiB(options.daemon);
      if (nextSample < firstWindowEnd) rssStart = std::max(rssStart, rss);
      if (nextSample >= lastWindowStart) rssEnd = std::max(rssEnd, rss);
      nextSample += 1s;
    }
    if (Clock::now() >= nextReport) {
      printf("  %3.0f s: %" PRIu64 " emitted, %" PRIu64 " refused by a full ring, service RSS %" PRIu64 " KiB\n",
             elapsed, emitter->Written() - writtenBefore, emitter->KernelLost(SOAK_TYPE) - refusedBefore,
             RssKiB(options.daemon));
      fflush(stdout);
      nextReport += 60s;
    }
  }
  const double emitSeconds = std::chrono::duration<double>(Clock::now() - start).count();
  for (auto& client : clients) client->EmissionOver();
  const uint64_t written = emitter->Written() - writtenBefore;
  const uint64_t refused = emitter->KernelLost(SOAK_TYPE) - refusedBefore;

  // Every client that stayed to the end has received, or been told it lost,
  // every record.
  const auto settled = [&](SoakClient& client) {
    const SoakAccount account = client.Account();
    return account.received + account.queueLost >= written && account.kernelLost >= refused;
  };
  const Clock::time_point drainEnd = Clock::now() + DRAIN_LIMIT;
  for (auto& client : clients) {
    if (client->behaviour() == SoakBehaviour::RECONNECTING) continue;
    while (!settled(*client) && Clock::now() < drainEnd) std::this_thread::sleep_for(50ms);
  }
  // Reports of a loss told twice would come now.
  std::this_thread::sleep_for(1500ms);
  for (auto& client : clients) client->Stop();
  std::this_thread::sleep_for(1s);
  const int fdsAfter = OpenDescriptors(options.daemon);

  printf("emitted %" PRIu64 " records in %.1f s (%.0f/s) of %" PRIu64 " attempts; %" PRIu64
         " refused by a full ring (counted by the kernel)\n",
         written, emitSeconds, static_cast<double>(written) / emitSeconds, attempts, refused);
  std::vector<std::string> failures;
  if (written + refused != attempts) failures.push_back("emitted + refused != attempts");
  LatencyHistogram latencies;
  uint64_t fastLost = 0;
  for (auto& client : clients) {
    if (client->behaviour() == SoakBehaviour::RECONNECTING) {
      printf("%-16s %" PRIu64 " sessions: received %" PRIu64 " + lost in its queue %" PRIu64
             " = the records of their windows%s\n",
             client->name().c_str(), client->sessions(), client->sessionRecords(), client->sessionLost(),
             client->badSessions() == 0 ? ", exactly" : "; NOT in some sessions");
      if (client->badSessions() != 0) failures.push_back(client->name() + ": sessions do not add up");
      continue;
    }
    const SoakAccount a = client->Account();
    const bool exact = a.received + a.queueLost == written && a.kernelLost == refused && a.outOfOrder == 0 &&
                       (a.received == 0 || a.lastSeq == writtenBefore + written);
    printf("%-16s received %" PRIu64 " + lost in its queue %" PRIu64 " = %" PRIu64
           " emitted%s; lost in the kernel "
           "%" PRIu64 " (told in %" PRIu64 " reports)\n",
           client->name().c_str(), a.received, a.queueLost, written, exact ? ", exactly" : ": NOT EXACT", a.kernelLost,
           a.reports);
    if (!exact) failures.push_back(client->name() + ": accounts do not add up");
    if (client->behaviour() == SoakBehaviour::FAST) {
      latencies.Merge(client->Latencies());
      fastLost += a.queueLost;
    }
  }
  const double growth = rssStart == 0 ? 0 : (static_cast<double>(rssEnd) - rssStart) / static_cast<double>(rssStart);
  printf("service RSS, peak of each %d s window: %" PRIu64 " KiB after the %d s warm-up, %" PRIu64
         " KiB at the end (%+.1f%%)\n",
         static_cast<int>(window.count()), rssStart, options.warmup, rssEnd, growth * 100);
  printf("service descriptors: %d before the clients, %d after\n", fdsBefore, fdsAfter);
  printf("fast clients' delivery latency over %" PRIu64 " records: p50 %.0f us, p99 %.0f us, p99.9 %.0f us\n",
         latencies.count(), latencies.PercentileUs(0.5), latencies.PercentileUs(0.99), latencies.PercentileUs(0.999));
  printf("fast clients lost in their queues: %" PRIu64 "\n", fastLost);
  printf("service state file, loss lines:\n%s", StateLossLines(options.daemon).c_str());
  if (growth >= RSS_GROWTH_LIMIT) failures.push_back("service RSS grew by 5% or more");
  if (fdsBefore != fdsAfter) failures.push_back("service descriptors changed");
  if (options.fastLossless && (fastLost != 0 || refused != 0)) failures.push_back("fast clients or the kernel lost");
  for (const std::string& failure : failures) printf("FAILED: %s\n", failure.c_str());
  printf("%s\n", failures.empty() ? "PASS" : "FAIL");
  return failures.empty() ? 0 : 1;
}

}  // namespace
}  // namespace kelo_bench

namespace {

// Sender of the last SIGTERM, 0 for none. On a shared machine a stale pid in
// someone else's `kill` can land here; the soak notes it and goes on (SIGINT
// still ends it).
volatile sig_atomic_t termSender = 0;

void NoteTerm(int, siginfo_t* info, void*) { termSender = info != nullptr ? info->si_pid : -1; }

}  // namespace

int main(int argc, char** argv) {
  kelo_bench::Options options;
  if (!kelo_bench::ParseOptions(argc, argv, &options)) {
    kelo_bench::Usage();
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  struct sigaction term = {};
  term.sa_sigaction = NoteTerm;
  term.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&term.sa_mask);
  sigaction(SIGTERM, &term, nullptr);
  const int status = kelo_bench::Run(options);
  if (termSender != 0) printf("note: a SIGTERM from pid %d was ignored\n", static_cast<int>(termSender));
  return status;
}
