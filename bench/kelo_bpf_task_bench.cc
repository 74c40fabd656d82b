// Task tracking: the start-up scan beside ps over the same processes, the
// task handlers on a recorded mix of raw task records, and the table's
// memory per task.
//
//   build/test-plain/bench/kelo_bpf_task_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
//
// The scan benchmark starts 2000 extra sleeping processes first, so that the
// walk covers this machine's processes plus those.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_task_manager.h"

extern char** environ;

namespace Kelo {
namespace Bpf {
namespace {

constexpr int EXTRA_PROCESSES = 2000;

// Processes that sleep until the benchmark binary ends (the read end of a
// pipe whose write end only this process holds).
class SleepingProcesses {
 public:
  static void Ensure() { static SleepingProcesses processes(EXTRA_PROCESSES); }

 private:
  explicit SleepingProcesses(int count) {
    int ends[2];
    if (pipe(ends) != 0) return;
    for (int i = 0; i < count; ++i) {
      const pid_t pid = fork();
      if (pid == 0) {
        close(ends[1]);
        char c;
        while (read(ends[0], &c, 1) > 0) {
        }
        _exit(0);
      }
    }
    close(ends[0]);
    // The write end stays open until exit; the kernel closes it then and
    // every sleeper ends.
  }
};

int CountProcesses() {
  int count = 0;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  while (dirent* entry = readdir(proc.get())) count += entry->d_name[0] >= '1' && entry->d_name[0] <= '9';
  return count;
}

double ThreadCpuSeconds() {
  struct timespec ts {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double ChildrenCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  const auto seconds = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec * 1e-6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// CPU seconds of one `ps -e -o pid,ppid,nlwp,rss,comm` (output discarded).
double RunPs() {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const char* argv[] = {"ps", "-e", "-o", "pid,ppid,nlwp,rss,comm", nullptr};
  const double before = ChildrenCpuSeconds();
  pid_t pid = -1;
  if (posix_spawnp(&pid, "ps", &actions, nullptr, const_cast<char**>(argv), environ) == 0) waitpid(pid, nullptr, 0);
  posix_spawn_file_actions_destroy(&actions);
  return ChildrenCpuSeconds() - before;
}

// The start-up scan and ps over the same processes, alternately in each
// iteration: CPU microseconds per process of each and their ratio.
void BM_ScanBesidePs(benchmark::State& state) {
  SleepingProcesses::Ensure();
  KeloBpfService* service = KeloBpfService::GetInstance(KeloBpfServiceConfig{});
  double scanSeconds = 0, psSeconds = 0;
  int64_t processes = 0;
  for (auto _ : state) {
    const double start = ThreadCpuSeconds();
    service->initTaskInfo();
    scanSeconds += ThreadCpuSeconds() - start;
    state.PauseTiming();
    psSeconds += RunPs();
    processes += CountProcesses();
    state.ResumeTiming();
  }
  state.counters["processes"] = static_cast<double>(processes) / static_cast<double>(state.iterations());
  state.counters["scan_us_per_process"] = scanSeconds * 1e6 / static_cast<double>(processes);
  state.counters["ps_us_per_process"] = psSeconds * 1e6 / static_cast<double>(processes);
  state.counters["scan_to_ps"] = scanSeconds / psSeconds;
}
BENCHMARK(BM_ScanBesidePs)->Unit(benchmark::kMillisecond)->Iterations(10);

// A raw record of the mix.
struct MixRecord {
  std::vector<char> bytes;
};

// Raw task records in the proportions of a live run on this machine (28,164
// rss_stat, 124 fork and 124 exit records in 10 s), over a population of 600
// processes with realistic memory figures: 99.1% rss_stat in steps of 4 to
// 64 KiB, 0.45% forks of new processes and 0.45% exits of live ones.
std::vector<MixRecord> RecordedMix(size_t count) {
  std::mt19937 random(42);
  std::vector<int32_t> live;
  std::vector<MixRecord> mix;
  int32_t nextPid = 1000;
  uint64_t ts = 10'000'000'000;
  const auto add = [&](const auto& record) {
    MixRecord r;
    r.bytes.resize(sizeof(record));
    memcpy(r.bytes.data(), &record, sizeof(record));
    mix.push_back(std::move(r));
  };
  const auto fork = [&] {
    kelo_task_create_event r = {};
    r.header = {KELO_EVENT_TASK_CREATE, 0, ts};
    r.ppid = 1;
    r.pid = nextPid++;
    strcpy(r.comm, "app_process");
    r.kind = KELO_TASK_KIND_PROCESS;
    live.push_back(r.pid);
    add(r);
  };
  for (int i = 0; i < 600; ++i) fork();
  std::vector<int64_t> rss(4 * 200000, 4 << 20);
  while (mix.size() < count) {
    ts += 350'000;  // about 2,800 records a second
    const uint32_t dice = random() % 10000;
    if (dice < 45) {
      fork();
    } else if (dice < 90 && !live.empty()) {
      const size_t victim = random() % live.size();
      kelo_task_exit_event r = {};
      r.header = {KELO_EVENT_TASK_EXIT, 0, ts};
      r.pid = live[victim];
      strcpy(r.comm, "app_process");
      r.kind = KELO_TASK_KIND_PROCESS;
      live[victim] = live.back();
      live.pop_back();
      add(r);
    } else if (!live.empty()) {
      kelo_rss_stat_event r = {};
      r.header = {KELO_EVENT_RSS_STAT, 0, ts};
      r.pid = live[random() % live.size()];
      r.member = static_cast<int32_t>(random() % 2);  // file and anon dominate
      int64_t& size = rss[4 * static_cast<size_t>(r.pid) + static_cast<size_t>(r.member)];
      const int64_t step = 4096 * static_cast<int64_t>(1 + random() % 16);
      size = random() % 2 != 0 || size < step ? size + step : size - step;
      r.size = size;
      add(r);
    }
  }
  return mix;
}

// The mix through the service's dispatcher and handlers (no subscriber, so
// the derived events are built and published to nobody): records per CPU
// second on one core.
void BM_TaskHandlersRecordedMix(benchmark::State& state) {
  KeloBpfService* service = KeloBpfService::GetInstance(KeloBpfServiceConfig{});
  const std::vector<MixRecord> mix = RecordedMix(200000);
  for (auto _ : state) {
    for (const MixRecord& record : mix) {
      KeloBpfService::handleBpfRingBuffEvent(service, const_cast<char*>(record.bytes.data()), record.bytes.size());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(mix.size()));
  state.counters["tasks"] = KeloTaskManager::GetInstance()->GetKeloTaskCount();
}
BENCHMARK(BM_TaskHandlersRecordedMix)->Unit(benchmark::kMillisecond);

// Heap bytes the table holds per 1000 records.
void BM_TableMemoryPer1000Tasks(benchmark::State& state) {
  constexpr int TASKS = 10000;
  for (auto _ : state) {
    const size_t before = mallinfo2().uordblks;
    {
      KeloTaskManager table;
      for (int pid = 0; pid < TASKS; ++pid) {
        KeloTask task = {};
        task.pid = pid;
        table.AddKeloTask(pid, task);
      }
      state.counters["KiB_per_1000_tasks"] =
          static_cast<double>(mallinfo2().uordblks - before) / 1024.0 / (TASKS / 1000.0);
    }
  }
}
BENCHMARK(BM_TableMemoryPer1000Tasks)->Iterations(3);

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
