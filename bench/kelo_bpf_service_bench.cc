// Delivery of ring-buffer records to subscribed socket clients: what the
// service's dispatch (counters, observer registry, per-connection queues, IPC
// endpoint) costs against a bare libbpf consumer with an empty callback and
// against a minimal reference pipeline (bench/kelo_bench_reference.h).
//
//  - Drain: a ring is filled while its pump is held at the first record, then
//    drained; timed from the release until every client has counted every
//    record. Records per second to each of 1 and 4 clients, in one bulk
//    round and in rounds of the largest burst a production ring can hold;
//    lost and malformed records are counted.
//  - Paced: records arrive at a steady 10 k or 100 k per second for one
//    client; processor microseconds of the pipeline's threads per event,
//    their context switches per event, and the median and 99th percentile
//    of the delivery latency (record time stamp to the client's receipt).
//  - Fan-out: the bulk drain to 1, 4 and 16 clients, beside the transport's
//    ceiling: ready-made frames written to as many bare socket pairs.
//  - Idle: wake-ups of every service thread over 10 s with 4 subscribed,
//    silent clients, and the resident memory those clients cost the service.
//
// Each pipeline owns a ring of its own (a ring has a single consumer
// position), configured alike and fed alike. Every repetition measures the
// reference and the service back to back, in alternating order, and reports
// their ratio: the processors of a shared machine change speed over minutes,
// so only figures taken side by side compare. Run it through
// scripts/run_service_bench.sh, which gives it a private bpffs and socket
// namespace; a summary with medians and ratios follows the table.
#include <android-base/properties.h>
#include <benchmark/benchmark.h>
#include <bpf/libbpf.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "bench/kelo_bench_client.h"
#include "bench/kelo_bench_delivery.h"
#include "bench/kelo_bench_reference.h"
#include "bench/kelo_bench_ring.h"
#include "bench/kelo_bench_summary.h"
#include "bench/kelo_bench_threads.h"
#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_event_manager.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"

namespace kelo_bench {
namespace {

using namespace std::chrono_literals;
using Kelo::Bpf::EventManager;
using Kelo::Bpf::KeloBpfService;

// One record as the kernel programs write it: type, reserved, ts, payload.
// Type 5 is forwarded to subscribers and has no handler of its own.
constexpr uint32_t RECORD_BYTES = 48;
constexpr int32_t EVENT_TYPE = KELO_EVENT_CGROUP_ATTACH;

// A bulk round is DRAIN_RECORDS entries of 56 bytes, which a ring of
// RING_BYTES holds in less than half of it: the publisher holds back for a
// paced client only while its ring is at most half full, so a round that
// filled more than half would be a lossy overload, not a drain. A production ring (KELO_RINGBUF_BYTES)
// holds at most PRODUCTION_BURST of them: the largest burst the service can
// meet there.
constexpr uint32_t RING_BYTES = 128u << 20;
constexpr uint32_t GPL_RING_BYTES = KELO_GPL_RINGBUF_BYTES;
constexpr uint32_t BARE_RECORDS = 1'000'000;
constexpr uint32_t DRAIN_RECORDS = 1'000'000;
static_assert(uint64_t{DRAIN_RECORDS} * (BPF_RINGBUF_HDR_SZ + RECORD_BYTES) < RING_BYTES / 2,
              "a bulk round fits half the ring");
const uint32_t PRODUCTION_BURST = static_cast<uint32_t>(KELO_RINGBUF_BYTES / BenchRing::EntryBytes(RECORD_BYTES));

constexpr int64_t FAN_OUT[] = {1, 4, 16};

constexpr int REPETITIONS = 5;
constexpr int BARE_ITERATIONS = 5;
constexpr int DRAIN_ITERATIONS = 2;
constexpr int IDLE_REPETITIONS = 3;
constexpr uint64_t PACED_SECONDS = 3;
constexpr auto IDLE_WINDOW = 10s;
constexpr int IDLE_CLIENTS = 4;
// Time for new connections and subscriptions to settle before a measurement.
constexpr auto SETTLE = 500ms;
constexpr auto WARM_LIMIT = 60s;
constexpr auto WAIT_SLICE = 1ms;

constexpr char BENCH_BPF_DIR[] = "/sys/fs/bpf/kelo_bench/";
constexpr char REFERENCE_RING[] = "reference_ringbuf_map";
constexpr char BARE_RING[] = "bare_ringbuf_map";
constexpr char SERVICE_SOCKET[] = "kelo_bench_service";
constexpr char REFERENCE_SOCKET[] = "kelo_bench_reference";
constexpr char SERVICE_THREAD_PREFIX[] = "BpfService";
constexpr char MAIN_THREAD_NAME[] = "BenchMain";
constexpr uint64_t SERVICE_RUNNING = KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL;
constexpr double NS_PER_SECOND = 1e9;
constexpr double EVENTS_PER_MILLION = 1e6;

// Indexes of the two sides of a comparison.
constexpr int REFERENCE = 0;
constexpr int SERVICE = 1;
constexpr const char* SIDE_NAMES[] = {"reference", "service"};

std::string Record() {
  std::string record(RECORD_BYTES, '\x5a');
  const uint32_t type = EVENT_TYPE;
  memcpy(&record[0], &type, sizeof(type));
  return record;
}

// Where the service finds designedPath when its directory is BENCH_BPF_DIR.
std::string ServicePath(const char* designedPath) {
  return std::string(BENCH_BPF_DIR) + (designedPath + strlen(KeloBpfService::BPF_FS_PATH));
}

// The pinned kernel side: both rings and status arrays of the service (its
// normal ring is the one measured), and one ring for each baseline.
struct Rings {
  std::unique_ptr<BenchRing> service;
  android::base::unique_fd serviceStatus;
  std::unique_ptr<BenchRing> gpl;
  android::base::unique_fd gplStatus;
  std::unique_ptr<BenchRing> reference;
  std::unique_ptr<BenchRing> bare;
};

Rings* TheRings() {
  static Rings* const rings = []() -> Rings* {
    auto made = std::make_unique<Rings>();
    made->service = BenchRing::Create(ServicePath(KeloBpfService::RINGBUF_MAP_PATH), RING_BYTES);
    made->serviceStatus = CreateStatusArray(ServicePath(KeloBpfService::RINGBUF_STATUS_MAP_PATH));
    made->gpl = BenchRing::Create(ServicePath(KeloBpfService::GPL_RINGBUF_MAP_PATH), GPL_RING_BYTES);
    made->gplStatus = CreateStatusArray(ServicePath(KeloBpfService::GPL_RINGBUF_STATUS_MAP_PATH));
    made->reference = BenchRing::Create(std::string(BENCH_BPF_DIR) + REFERENCE_RING, RING_BYTES);
    made->bare = BenchRing::Create(std::string(BENCH_BPF_DIR) + BARE_RING, RING_BYTES);
    const bool complete = made->service && made->serviceStatus.get() >= 0 && made->gpl && made->gplStatus.get() >= 0 &&
                          made->reference && made->bare;
    if (!complete) return nullptr;
    // The service's records are submitted as its kernel programs submit
    // them; the reference's with the ring's own wake-up rule.
    made->service->FollowWakeMode(made->serviceStatus.get());
    made->gpl->FollowWakeMode(made->gplStatus.get());
    return made.release();
  }();
  return rings;
}

// Runs a consumer's first pass over every page of its ring, whose mapping
// faults page by page on first touch, before anything is timed. `drain`
// consumes what is there, or waits for the consumer's own thread to do so.
bool WarmRing(BenchRing* ring, const std::function<void()>& drain) {
  const uint32_t capacity = static_cast<uint32_t>(ring->bytes() / BenchRing::EntryBytes(RECORD_BYTES)) - 1;
  if (!ring->Fill(Record(), capacity)) return false;
  const auto deadline = std::chrono::steady_clock::now() + WARM_LIMIT;
  while (ring->Unconsumed() != 0) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    drain();
  }
  return true;
}

void AwaitPump() { std::this_thread::sleep_for(WAIT_SLICE); }

// The reference pipeline, started and warmed on first use; null on failure.
ReferencePipeline* TheReference() {
  static ReferencePipeline* const reference = []() -> ReferencePipeline* {
    Rings* rings = TheRings();
    if (rings == nullptr) return nullptr;
    std::unique_ptr<ReferencePipeline> started = ReferencePipeline::Start(rings->reference->fd(), REFERENCE_SOCKET);
    // Nobody is connected yet: the records are dropped.
    if (!started || !WarmRing(rings->reference.get(), AwaitPump)) return nullptr;
    return started.release();
  }();
  return reference;
}

// The service, started and warmed on first use with its clients' socket and
// pinned objects moved to the benchmark's; null on failure.
KeloBpfService* TheService() {
  static KeloBpfService* const service = []() -> KeloBpfService* {
    Rings* rings = TheRings();
    if (rings == nullptr || !MakeDirs(Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_PATH)) return nullptr;
    android::base::SetProperty(KeloBpfService::KELO_BPF_READY, "1");
    Kelo::Bpf::KeloBpfServiceConfig config;
    config.socketName = SERVICE_SOCKET;
    config.bpfFsDir = BENCH_BPF_DIR;
    KeloBpfService* started = KeloBpfService::GetInstance(config);
    started->start();
    // Both pumps set their enable flags right before they start polling.
    const auto deadline = std::chrono::steady_clock::now() + WARM_LIMIT;
    while (ReadStatus(rings->serviceStatus.get(), KELO_RB_STATUS_FLAGS) != SERVICE_RUNNING ||
           ReadStatus(rings->gplStatus.get(), KELO_RB_STATUS_FLAGS) != SERVICE_RUNNING) {
      if (std::chrono::steady_clock::now() > deadline) return nullptr;
      std::this_thread::sleep_for(10ms);
    }
    // No client is subscribed yet: the records are counted and dropped.
    if (!WarmRing(rings->service.get(), AwaitPump)) return nullptr;
    std::this_thread::sleep_for(SETTLE);
    return started;
  }();
  return service;
}

Pipeline ServicePipeline() {
  Pipeline pipeline;
  pipeline.socketName = SERVICE_SOCKET;
  pipeline.gate = &EventManager::keloRawEventManagerLock;
  pipeline.threadPrefix = SERVICE_THREAD_PREFIX;
  pipeline.senderThread = KeloBpfService::IPC_THREAD_NAME;
  pipeline.enrol = [](std::vector<std::unique_ptr<CountingClient>>& clients) {
    // Paced, as the reference pipeline's publisher always is: a drain's
    // burst beyond the queue bound reaches a reading client whole.
    for (auto& client : clients) {
      if (!client->Subscribe(Kelo::Bpf::REQ_ADD_OBSERVER_EVENT, EVENT_TYPE) ||
          !client->Subscribe(Kelo::Bpf::REQ_SET_PACING, 1)) {
        return false;
      }
    }
    return true;
  };
  pipeline.ring = TheRings()->service.get();
  return pipeline;
}

Pipeline ReferencePipelineOf(ReferencePipeline* reference) {
  Pipeline pipeline;
  pipeline.socketName = REFERENCE_SOCKET;
  pipeline.gate = &reference->dispatchGate();
  pipeline.threadPrefix = ReferencePipeline::THREAD_PREFIX;
  pipeline.senderThread = ReferencePipeline::SENDER_THREAD_NAME;
  // Every accepted connection is a subscriber.
  pipeline.enrol = [reference](std::vector<std::unique_ptr<CountingClient>>& clients) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (reference->clientCount() != static_cast<int>(clients.size())) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(WAIT_SLICE);
    }
    return true;
  };
  pipeline.ring = TheRings()->reference.get();
  return pipeline;
}

// Both pipelines with `clients` clients each; false (state skipped) when one
// of them could not be set up.
bool ConnectBoth(benchmark::State& state, int clients, std::unique_ptr<Delivery> (&sides)[2]) {
  ReferencePipeline* reference = TheReference();
  if (reference == nullptr || TheService() == nullptr) {
    state.SkipWithError("a pipeline did not start");
    return false;
  }
  sides[REFERENCE] = ConnectDelivery(ReferencePipelineOf(reference), clients, RECORD_BYTES);
  sides[SERVICE] = ConnectDelivery(ServicePipeline(), clients, RECORD_BYTES);
  if (!sides[REFERENCE] || !sides[SERVICE]) {
    state.SkipWithError("clients could not connect and subscribe");
    return false;
  }
  return true;
}

// Which side goes first in the n-th measurement: alternating cancels what
// the order does (a warmer cache, a machine that just got busier).
int Side(int n, int k) { return (n + k) % 2; }

double PerMillion(uint64_t value, uint64_t events) {
  return events == 0 ? 0 : static_cast<double>(value) / static_cast<double>(events) * EVENTS_PER_MILLION;
}

uint64_t Malformed(const Delivery& delivery) {
  uint64_t malformed = 0;
  for (const auto& client : delivery.clients) malformed += client->malformed();
  return malformed;
}

// The ceiling: libbpf's own loop over the records with an empty callback, on
// the benchmark's thread.
void BM_DrainBare(benchmark::State& state) {
  static ring_buffer* const consumer = []() -> ring_buffer* {
    Rings* rings = TheRings();
    if (rings == nullptr) return nullptr;
    ring_buffer* made = ring_buffer__new(
        rings->bare->fd(), [](void*, void*, size_t) { return 0; }, nullptr, nullptr);
    if (made != nullptr && !WarmRing(rings->bare.get(), [made] { ring_buffer__consume(made); })) {
      ring_buffer__free(made);
      made = nullptr;
    }
    return made;
  }();
  if (consumer == nullptr) {
    state.SkipWithError("no ring consumer");
    return;
  }
  BenchRing* ring = TheRings()->bare.get();
  const std::string record = Record();
  double seconds = 0;
  uint64_t lost = 0;
  for (auto _ : state) {
    if (!ring->Fill(record, BARE_RECORDS)) {
      state.SkipWithError("the ring had no room for the fill");
      break;
    }
    const int64_t start = NowNs();
    const int consumed = ring_buffer__consume(consumer);
    const double elapsed = static_cast<double>(NowNs() - start) / NS_PER_SECOND;
    state.SetIterationTime(elapsed);
    seconds += elapsed;
    if (consumed >= 0 && static_cast<uint32_t>(consumed) < BARE_RECORDS) lost += BARE_RECORDS - consumed;
  }
  const uint64_t records = static_cast<uint64_t>(state.iterations()) * BARE_RECORDS;
  state.counters["records_per_s"] = seconds > 0 ? static_cast<double>(records - lost) / seconds : 0;
  state.counters["lost"] = static_cast<double>(lost);
}
BENCHMARK(BM_DrainBare)
    ->UseManualTime()
    ->Iterations(BARE_ITERATIONS)
    ->Repetitions(REPETITIONS)
    ->DisplayAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// Wake-ups and memory of the idle service. It runs first among the service's
// benchmarks, before any client has come and gone.
void BM_IdleService(benchmark::State& state) {
  if (TheService() == nullptr) {
    state.SkipWithError("the service did not start");
    return;
  }
  for (auto _ : state) {
    // Freed memory handed back first, so that what the clients cost shows in
    // VmRSS even where it reuses addresses freed earlier.
    malloc_trim(0);
    const long residentBefore = ResidentKib();
    std::unique_ptr<IdleClients> clients =
        IdleClients::Start(SERVICE_SOCKET, IDLE_CLIENTS, Kelo::Bpf::REQ_ADD_OBSERVER_EVENT, EVENT_TYPE);
    if (!clients) {
      state.SkipWithError("idle clients could not connect and subscribe");
      break;
    }
    std::this_thread::sleep_for(SETTLE);
    const long residentAfter = ResidentKib();
    const ThreadUsage before = SumThreadUsage(SERVICE_THREAD_PREFIX);
    const int64_t start = NowNs();
    std::this_thread::sleep_for(IDLE_WINDOW);
    const ThreadUsage after = SumThreadUsage(SERVICE_THREAD_PREFIX);
    state.SetIterationTime(static_cast<double>(NowNs() - start) / NS_PER_SECOND);
    state.counters["wakeups"] = static_cast<double>(after.switches - before.switches);
    state.counters["cpu_ms"] = static_cast<double>(after.cpuNs - before.cpuNs) / 1e6;
    state.counters["threads"] = after.threads;
    state.counters["rss_delta_kib"] = static_cast<double>(residentAfter - residentBefore);
  }
}
BENCHMARK(BM_IdleService)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(IDLE_REPETITIONS)
    ->DisplayAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// Writes DRAIN_RECORDS records to each of `writers` in sends of `full`
// (`perWrite` records) and one of `tail` for the rest, without blocking:
// each round of poll serves every socket that has room. False when a send
// fails.
bool WriteRoundRobin(const std::vector<android::base::unique_fd>& writers, const std::string& full,
                     const std::string& tail, size_t perWrite) {
  struct Progress {
    size_t records = 0;
    size_t offset = 0;  // into the send under way
  };
  std::vector<Progress> progress(writers.size());
  std::vector<pollfd> polled(writers.size());
  size_t finished = 0;
  while (finished < writers.size()) {
    for (size_t i = 0; i < writers.size(); ++i) {
      polled[i] = {writers[i].get(), static_cast<short>(progress[i].records < DRAIN_RECORDS ? POLLOUT : 0), 0};
    }
    if (poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) return false;
    for (size_t i = 0; i < writers.size(); ++i) {
      Progress& at = progress[i];
      if (polled[i].revents == 0 || at.records == DRAIN_RECORDS) continue;
      while (at.records < DRAIN_RECORDS) {
        const bool whole = DRAIN_RECORDS - at.records >= perWrite;
        const std::string& frames = whole ? full : tail;
        const ssize_t n =
            send(writers[i].get(), frames.data() + at.offset, frames.size() - at.offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
        if (n <= 0) return false;
        at.offset += static_cast<size_t>(n);
        if (at.offset < frames.size()) continue;
        at.offset = 0;
        at.records += whole ? perWrite : DRAIN_RECORDS - at.records;
        if (at.records == DRAIN_RECORDS) ++finished;
      }
    }
  }
  return true;
}

// The transport's ceiling for a fan-out: the benchmark's thread writes
// ready-made event frames, a full service write buffer at a time, to each of
// state.range(0) clients over a socket pair with the service's send buffer
// size, to whichever has room, as one sender thread serving every connection
// would at best: nothing is built, queued, copied or woken but by the kernel. Timed
// until every client counted DRAIN_RECORDS records; the CPU is the writer's
// and the clients'.
void BM_FanOutBare(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  std::vector<android::base::unique_fd> writers;
  std::vector<std::unique_ptr<CountingClient>> clients;
  for (int i = 0; i < count; ++i) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
      state.SkipWithError("no socket pair");
      return;
    }
    writers.emplace_back(pair[0]);
    const int sendBuffer = static_cast<int>(Kelo::Bpf::KELO_BPF_MAX_FRAME_SIZE);
    if (setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer)) != 0) {
      state.SkipWithError("no send buffer size");
      return;
    }
    clients.push_back(CountingClient::Adopt(android::base::unique_fd(pair[1])));
    clients.back()->Start(RECORD_BYTES);
  }
  const size_t perWrite = Kelo::Bpf::KELO_BPF_MAX_FRAME_SIZE / EventFrames(Record(), 1).size();
  const std::string full = EventFrames(Record(), perWrite);
  const std::string tail = EventFrames(Record(), DRAIN_RECORDS % perWrite);
  double seconds = 0;
  const auto usage = [] {
    return SumThreadUsage(MAIN_THREAD_NAME).cpuNs + SumThreadUsage(CountingClient::THREAD_NAME).cpuNs;
  };
  const uint64_t cpuBefore = usage();
  for (auto _ : state) {
    for (auto& client : clients) client->Expect(client->received() + DRAIN_RECORDS);
    const int64_t start = NowNs();
    if (!WriteRoundRobin(writers, full, tail, perWrite)) {
      state.SkipWithError("a client went away");
      return;
    }
    int64_t end = start;
    for (auto& client : clients) {
      while (client->completedAtNs() == 0) std::this_thread::sleep_for(WAIT_SLICE);
      end = std::max(end, client->completedAtNs());
    }
    const double elapsed = static_cast<double>(end - start) / NS_PER_SECOND;
    state.SetIterationTime(elapsed);
    seconds += elapsed;
  }
  const uint64_t records = static_cast<uint64_t>(state.iterations()) * DRAIN_RECORDS;
  state.counters["records_per_s"] = seconds > 0 ? static_cast<double>(records) / seconds : 0;
  state.counters["cpu_s_per_M"] = PerMillion(usage() - cpuBefore, records) / NS_PER_SECOND;
  state.counters["malformed"] = static_cast<double>(std::accumulate(
      clients.begin(), clients.end(), uint64_t{0}, [](uint64_t sum, const auto& c) { return sum + c->malformed(); }));
}
BENCHMARK(BM_FanOutBare)
    ->ArgName("clients")
    ->Arg(FAN_OUT[0])
    ->Arg(FAN_OUT[1])
    ->Arg(FAN_OUT[2])
    ->UseManualTime()
    ->Iterations(DRAIN_ITERATIONS)
    ->Repetitions(REPETITIONS)
    ->DisplayAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// DRAIN_RECORDS records per iteration through each pipeline to
// state.range(0) clients, in rounds of state.range(1). The time shown is the
// service's.
void BM_Drain(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  const uint32_t burst = static_cast<uint32_t>(state.range(1));
  std::unique_ptr<Delivery> sides[2];
  if (!ConnectBoth(state, clients, sides)) return;
  const std::string record = Record();
  DeliveryCost total[2];
  int iteration = 0;
  const uint64_t waitsBefore = EventManager::GetInstance()->PacingWaits();
  for (auto _ : state) {
    for (int k = 0; k < 2; ++k) {
      const int side = Side(iteration, k);
      const DeliveryCost cost = Drain(sides[side].get(), record, DRAIN_RECORDS, burst);
      if (cost.failed) {
        state.SkipWithError("a ring was not drained or had no room for a fill");
        return;
      }
      if (side == SERVICE) state.SetIterationTime(cost.seconds);
      total[side].seconds += cost.seconds;
      total[side].lost += cost.lost;
      total[side].cpuNs += cost.cpuNs;
      total[side].senderCpuNs += cost.senderCpuNs;
      total[side].clientCpuNs += cost.clientCpuNs;
      total[side].switches += cost.switches;
    }
    ++iteration;
  }
  const uint64_t records = static_cast<uint64_t>(state.iterations()) * DRAIN_RECORDS;
  double rate[2];
  for (int side : {REFERENCE, SERVICE}) {
    // Losses are counted per client, the rate is per client.
    const double delivered = static_cast<double>(records) - static_cast<double>(total[side].lost) / clients;
    rate[side] = delivered / total[side].seconds;
    const std::string name = SIDE_NAMES[side];
    state.counters[name + "_per_s"] = rate[side];
    state.counters[name + "_lost"] = static_cast<double>(total[side].lost);
    state.counters[name + "_cpu_s_per_M"] = PerMillion(total[side].cpuNs, records) / NS_PER_SECOND;
    state.counters[name + "_sender_cpu_s_per_M"] = PerMillion(total[side].senderCpuNs, records) / NS_PER_SECOND;
    state.counters[name + "_switches_per_M"] = PerMillion(total[side].switches, records);
    state.counters[name + "_clients_cpu_s_per_M"] = PerMillion(total[side].clientCpuNs, records) / NS_PER_SECOND;
  }
  state.counters["service_vs_reference"] = rate[SERVICE] / rate[REFERENCE];
  // Times the pump held back for a paced client's sender.
  state.counters["service_pacing_waits_per_M"] =
      PerMillion(EventManager::GetInstance()->PacingWaits() - waitsBefore, records);
  state.counters["malformed"] = static_cast<double>(Malformed(*sides[REFERENCE]) + Malformed(*sides[SERVICE]));
}

// Bulk rounds to 1, 4 and 16 clients (the fan-out), and rounds of the
// largest burst a production ring holds to 1 and to 4 clients.
void DrainArguments(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"clients", "burst"});
  for (int64_t clients : FAN_OUT) benchmark->Args({clients, DRAIN_RECORDS});
  for (int64_t clients : {1, 4}) benchmark->Args({clients, static_cast<int64_t>(PRODUCTION_BURST)});
}
BENCHMARK(BM_Drain)
    ->Apply(DrainArguments)
    ->UseManualTime()
    ->Iterations(DRAIN_ITERATIONS)
    ->Repetitions(REPETITIONS)
    ->DisplayAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// PACED_SECONDS of records at state.range(0) per second through each
// pipeline to state.range(1) clients. The time shown is the service's.
void BM_Paced(benchmark::State& state) {
  static int measurement = 0;
  const uint64_t rate = static_cast<uint64_t>(state.range(0));
  const int clients = static_cast<int>(state.range(1));
  const uint64_t records = rate * PACED_SECONDS;
  std::unique_ptr<Delivery> sides[2];
  if (!ConnectBoth(state, clients, sides)) return;
  const std::string record = Record();
  for (auto _ : state) {
    double cpu[2];
    double burst = 0;
    for (int k = 0; k < 2; ++k) {
      const int side = Side(measurement, k);
      double sideBurst = 0;
      const DeliveryCost cost = Paced(sides[side].get(), record, rate, records, &sideBurst);
      if (cost.failed) {
        state.SkipWithError("the ring ran full");
        return;
      }
      if (side == SERVICE) state.SetIterationTime(cost.seconds);
      const std::string name = SIDE_NAMES[side];
      // Seconds per million events are microseconds per event.
      cpu[side] = PerMillion(cost.cpuNs, records) / NS_PER_SECOND;
      state.counters[name + "_cpu_us_per_event"] = cpu[side];
      state.counters[name + "_p50_ms"] = static_cast<double>(cost.latencyP50Ns) / 1e6;
      state.counters[name + "_p99_ms"] = static_cast<double>(cost.latencyP99Ns) / 1e6;
      state.counters[name + "_sender_cpu_us_per_event"] = PerMillion(cost.senderCpuNs, records) / NS_PER_SECOND;
      state.counters[name + "_switches_per_event"] = static_cast<double>(cost.switches) / static_cast<double>(records);
      state.counters[name + "_lost"] = static_cast<double>(cost.lost);
      // Records each client received, as a share of those emitted.
      state.counters[name + "_received_share"] =
          1.0 - static_cast<double>(cost.lost) / static_cast<double>(records * clients);
      burst = std::max(burst, sideBurst);
    }
    ++measurement;
    state.counters["service_vs_reference"] = cpu[SERVICE] / cpu[REFERENCE];
    // Records per injection: 1 when the producer held its pace exactly.
    state.counters["burst"] = burst;
  }
}
// One client at 10 k and 100 k per second, and the steady fan-out: 4 and
// 16 clients at 100 k per second.
void PacedArguments(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"rate", "clients"});
  for (int64_t rate : {10'000, 100'000}) benchmark->Args({rate, 1});
  for (int64_t clients : FAN_OUT) {
    if (clients != 1) benchmark->Args({100'000, clients});
  }
}
BENCHMARK(BM_Paced)
    ->Apply(PacedArguments)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(REPETITIONS)
    ->DisplayAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

std::string BareName(int clients) { return "BM_FanOutBare/clients:" + std::to_string(clients); }

std::string DrainName(int clients, uint32_t burst) {
  return "BM_Drain/clients:" + std::to_string(clients) + "/burst:" + std::to_string(burst);
}

std::string PacedName(int rate, int clients = 1) {
  return "BM_Paced/rate:" + std::to_string(rate) + "/clients:" + std::to_string(clients);
}

// One summary line: a label and the figures of two columns.
void Row(const char* label, double first, double second) {
  printf("  %-44s %-10s %s\n", label, Figure(first).c_str(), Figure(second).c_str());
}

void PrintSummary(const SummaryReporter& results) {
  const double bare = results.Median("BM_DrainBare", "records_per_s");
  printf("\nSummary: medians over %d repetitions; %" PRIu32 "-byte records of type %d\n", REPETITIONS, RECORD_BYTES,
         EVENT_TYPE);
  printf("Bare libbpf consumer, empty callback: %s records/s\n", Figure(bare).c_str());
  for (uint32_t burst : {DRAIN_RECORDS, PRODUCTION_BURST}) {
    const std::string one = DrainName(1, burst);
    const std::string four = DrainName(4, burst);
    const auto both = [&](const char* label, const char* counter) {
      Row(label, results.Median(one, counter), results.Median(four, counter));
    };
    printf("Drain in rounds of %" PRIu32 " records, records/s to each client   1 client   4 clients\n", burst);
    both("reference", "reference_per_s");
    both("service", "service_per_s");
    both("service / reference (target >= 1)", "service_vs_reference");
    Row("service / bare libbpf", results.Median(one, "service_per_s") / bare,
        results.Median(four, "service_per_s") / bare);
    Row("reference / bare libbpf", results.Median(one, "reference_per_s") / bare,
        results.Median(four, "reference_per_s") / bare);
    both("records lost by the service (target 0)", "service_lost");
    both("records lost by the reference", "reference_lost");
  }
  printf("Fan-out, bulk rounds, records/s to each client        1 client   4 clients  16 clients\n");
  const auto fan = [&](const char* label, const char* counter) {
    printf("  %-44s %-10s %-10s %s\n", label, Figure(results.Median(DrainName(1, DRAIN_RECORDS), counter)).c_str(),
           Figure(results.Median(DrainName(4, DRAIN_RECORDS), counter)).c_str(),
           Figure(results.Median(DrainName(16, DRAIN_RECORDS), counter)).c_str());
  };
  fan("reference", "reference_per_s");
  fan("service", "service_per_s");
  const double alone = results.Median(DrainName(1, DRAIN_RECORDS), "service_per_s");
  printf("  %-44s %-10s %-10s %s\n", "service, each client / one client alone", "1",
         Figure(results.Median(DrainName(4, DRAIN_RECORDS), "service_per_s") / alone).c_str(),
         Figure(results.Median(DrainName(16, DRAIN_RECORDS), "service_per_s") / alone).c_str());
  fan("service CPU s per million records", "service_cpu_s_per_M");
  fan("of which the sender thread", "service_sender_cpu_s_per_M");
  fan("clients' CPU s per million records", "service_clients_cpu_s_per_M");
  fan("pump's waits for the sender per million", "service_pacing_waits_per_M");
  const auto socketsAt = [&](int clients, const char* counter = "records_per_s") {
    return results.Median(BareName(clients), counter);
  };
  printf("  %-44s %-10s %-10s %s\n", "bare sockets, one writer (the ceiling)", Figure(socketsAt(1)).c_str(),
         Figure(socketsAt(4)).c_str(), Figure(socketsAt(16)).c_str());
  printf("  %-44s %-10s %-10s %s\n", "bare sockets: writer's and clients' CPU s/M",
         Figure(socketsAt(1, "cpu_s_per_M")).c_str(), Figure(socketsAt(4, "cpu_s_per_M")).c_str(),
         Figure(socketsAt(16, "cpu_s_per_M")).c_str());
  printf("  %-44s %-10s %-10s %s\n", "bare sockets / service alone", Figure(socketsAt(1) / alone).c_str(),
         Figure(socketsAt(4) / alone).c_str(), Figure(socketsAt(16) / alone).c_str());
  fan("records lost by the service (target 0)", "service_lost");
  const auto paced = [&](const char* label, const char* counter) {
    Row(label, results.Median(PacedName(10'000), counter), results.Median(PacedName(100'000), counter));
  };
  printf("Paced, 1 client                                           10k/s      100k/s\n");
  paced("CPU us per event, reference", "reference_cpu_us_per_event");
  paced("CPU us per event, service", "service_cpu_us_per_event");
  paced("service / reference", "service_vs_reference");
  paced("of which the sender thread, reference", "reference_sender_cpu_us_per_event");
  paced("of which the sender thread, service", "service_sender_cpu_us_per_event");
  paced("context switches per event, reference", "reference_switches_per_event");
  paced("context switches per event, service", "service_switches_per_event");
  paced("latency p50 ms, reference", "reference_p50_ms");
  paced("latency p50 ms, service", "service_p50_ms");
  paced("latency p99 ms, reference", "reference_p99_ms");
  paced("latency p99 ms, service", "service_p99_ms");
  paced("records lost by the reference", "reference_lost");
  paced("records lost by the service (target 0)", "service_lost");
  printf("Fan-out at a steady 100k/s                            1 client   4 clients  16 clients\n");
  const auto steady = [&](const char* label, const std::function<double(const std::string&)>& figure) {
    printf("  %-44s %-10s %-10s %s\n", label, Figure(figure(PacedName(100'000, 1))).c_str(),
           Figure(figure(PacedName(100'000, 4))).c_str(), Figure(figure(PacedName(100'000, 16))).c_str());
  };
  const auto counter = [&](const char* name) {
    return [&results, name](const std::string& row) { return results.Median(row, name); };
  };
  steady("share of the records each client received", counter("service_received_share"));
  steady("CPU us per event, reference", counter("reference_cpu_us_per_event"));
  steady("CPU us per event, service", counter("service_cpu_us_per_event"));
  steady("service / reference", counter("service_vs_reference"));
  steady("latency p99 ms, service", counter("service_p99_ms"));
  steady("records lost by the service (target 0)", counter("service_lost"));
  printf(
      "Idle service with %d subscribed clients: %s wake-ups of its %s threads in %lld s (target 0); "
      "VmRSS +%s KiB\n",
      IDLE_CLIENTS, Figure(results.Median("BM_IdleService", "wakeups")).c_str(),
      Figure(results.Median("BM_IdleService", "threads")).c_str(),
      static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(IDLE_WINDOW).count()),
      Figure(results.Median("BM_IdleService", "rss_delta_kib")).c_str());
}

}  // namespace
}  // namespace kelo_bench

int main(int argc, char** argv) {
  kelo_bench::NameThisThread(kelo_bench::MAIN_THREAD_NAME);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const char* sandboxed = getenv("KELO_IN_SANDBOX");
  if (sandboxed == nullptr || strcmp(sandboxed, "1") != 0) {
    fprintf(stderr, "needs a private bpffs and socket namespace: run scripts/run_service_bench.sh\n");
    return 1;
  }
  kelo_bench::SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kelo_bench::PrintSummary(reporter);
  benchmark::Shutdown();
  return 0;
}
