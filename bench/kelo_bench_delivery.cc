#include "bench/kelo_bench_delivery.h"

#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

namespace kelo_bench {
namespace {

using namespace std::chrono_literals;
using Kelo::Bpf::MutexLock;

// Time for new connections and subscriptions to settle.
constexpr auto SETTLE = 500ms;
// A delivery that makes no progress for this long has lost records; longer
// than the one-second pause of a sender whose peer's socket stays full.
constexpr auto STALL_LIMIT = 3s;
constexpr auto WAIT_SLICE = 1ms;
constexpr int64_t NS_PER_SECOND = 1'000'000'000;
// Where a record carries its kernel time stamp.
constexpr size_t RECORD_TS_OFFSET = 8;

// Arms every client for `records` more and returns what each expects.
std::vector<uint64_t> ExpectMore(const Delivery& delivery, uint64_t records) {
  std::vector<uint64_t> expected;
  for (const auto& client : delivery.clients) {
    expected.push_back(client->received() + records);
    client->Expect(expected.back());
  }
  return expected;
}

// Waits until every client has what it expects, or until deliveries stall;
// `start` is when the records began to flow. Adds the time and the losses.
void AwaitDelivery(const Delivery& delivery, const std::vector<uint64_t>& expected, int64_t start, DeliveryCost* cost) {
  uint64_t progress = UINT64_MAX;
  auto lastProgress = std::chrono::steady_clock::now();
  while (true) {
    bool complete = true;
    uint64_t received = 0;
    for (const auto& client : delivery.clients) {
      complete = complete && client->completedAtNs() != 0;
      received += client->received();
    }
    if (complete) break;
    if (received != progress) {
      progress = received;
      lastProgress = std::chrono::steady_clock::now();
    } else if (std::chrono::steady_clock::now() - lastProgress > STALL_LIMIT) {
      break;
    }
    std::this_thread::sleep_for(WAIT_SLICE);
  }
  int64_t end = start;
  for (size_t i = 0; i < delivery.clients.size(); ++i) {
    const CountingClient& client = *delivery.clients[i];
    end = std::max(end, client.completedAtNs() != 0 ? client.completedAtNs() : client.lastEventAtNs());
    if (client.received() < expected[i]) cost->lost += expected[i] - client.received();
  }
  cost->seconds += static_cast<double>(end - start) / NS_PER_SECOND;
}

int64_t MonotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

// Injects `records` at `rate` per second, deadline-driven: a producer that
// overslept catches up with one larger injection, so the average rate holds.
// Returns the number of injections, 0 after a failure.
uint64_t Produce(BenchRing* ring, std::string record, uint64_t rate, uint64_t records) {
  const int64_t start = MonotonicNs();
  uint64_t injected = 0;
  uint64_t injections = 0;
  while (injected < records) {
    const double elapsed = static_cast<double>(MonotonicNs() - start);
    const uint64_t due = std::min(records, static_cast<uint64_t>(elapsed * rate / NS_PER_SECOND) + 1);
    if (due > injected) {
      const int64_t stamp = MonotonicNs();
      if (record.size() >= RECORD_TS_OFFSET + sizeof(stamp)) memcpy(&record[RECORD_TS_OFFSET], &stamp, sizeof(stamp));
      if (!ring->Fill(record, static_cast<uint32_t>(due - injected))) return 0;
      injected = due;
      ++injections;
      continue;
    }
    const int64_t next = start + static_cast<int64_t>(static_cast<double>(injected) * NS_PER_SECOND / rate);
    const timespec deadline = {static_cast<time_t>(next / NS_PER_SECOND), static_cast<long>(next % NS_PER_SECOND)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
  }
  return injections;
}

// The value below which `share` of the sorted samples lie; 0 without samples.
int64_t Percentile(const std::vector<int64_t>& sorted, double share) {
  if (sorted.empty()) return 0;
  const size_t at = std::min(sorted.size() - 1, static_cast<size_t>(share * static_cast<double>(sorted.size())));
  return sorted[at];
}

void AddUsage(const ThreadUsage& before, const ThreadUsage& after, DeliveryCost* cost) {
  cost->cpuNs += after.cpuNs - before.cpuNs;
  cost->switches += after.switches - before.switches;
}

}  // namespace

std::unique_ptr<Delivery> ConnectDelivery(const Pipeline& pipeline, int count, uint32_t recordBytes) {
  auto delivery = std::make_unique<Delivery>();
  delivery->pipeline = pipeline;
  for (int i = 0; i < count; ++i) {
    delivery->clients.push_back(CountingClient::Connect(pipeline.socketName));
    if (!delivery->clients.back()) return nullptr;
  }
  if (!pipeline.enrol(delivery->clients)) return nullptr;
  for (auto& client : delivery->clients) client->Start(recordBytes);
  std::this_thread::sleep_for(SETTLE);
  return delivery;
}

DeliveryCost Drain(Delivery* delivery, const std::string& record, uint32_t records, uint32_t burst) {
  const Pipeline& pipeline = delivery->pipeline;
  DeliveryCost cost;
  const ThreadUsage before = SumThreadUsage(pipeline.threadPrefix);
  const ThreadUsage senderBefore = SumThreadUsage(pipeline.senderThread);
  const ThreadUsage clientsBefore = SumThreadUsage(CountingClient::THREAD_NAME);
  for (uint32_t done = 0; done < records && !cost.failed; done += burst) {
    const uint32_t round = std::min(burst, records - done);
    // A round starts on an empty ring, so that it holds exactly its records.
    // The pump moves the ring's consumer position only after its callback
    // has handed the last record on, so it may lag the clients briefly.
    const auto deadline = std::chrono::steady_clock::now() + STALL_LIMIT;
    while (pipeline.ring->Unconsumed() != 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(WAIT_SLICE);
    }
    if (pipeline.ring->Unconsumed() != 0) {
      cost.failed = true;
      break;
    }
    const std::vector<uint64_t> expected = ExpectMore(*delivery, round);
    int64_t start = 0;
    {
      MutexLock gate(*pipeline.gate);
      cost.failed = !pipeline.ring->Fill(record, round);
      start = NowNs();
    }
    if (!cost.failed) AwaitDelivery(*delivery, expected, start, &cost);
  }
  AddUsage(before, SumThreadUsage(pipeline.threadPrefix), &cost);
  cost.senderCpuNs = SumThreadUsage(pipeline.senderThread).cpuNs - senderBefore.cpuNs;
  cost.clientCpuNs = SumThreadUsage(CountingClient::THREAD_NAME).cpuNs - clientsBefore.cpuNs;
  return cost;
}

DeliveryCost Paced(Delivery* delivery, const std::string& record, uint64_t rate, uint64_t records, double* burst) {
  const Pipeline& pipeline = delivery->pipeline;
  DeliveryCost cost;
  const std::vector<uint64_t> expected = ExpectMore(*delivery, records);
  const ThreadUsage before = SumThreadUsage(pipeline.threadPrefix);
  const ThreadUsage senderBefore = SumThreadUsage(pipeline.senderThread);
  // Sleeps of the producer end on time, not up to 50 us late.
  prctl(PR_SET_TIMERSLACK, 1UL);
  for (auto& client : delivery->clients) {
    client->TakeLatencies();
    client->SampleLatency(true);
  }
  const int64_t start = NowNs();
  const uint64_t injections = Produce(pipeline.ring, record, rate, records);
  prctl(PR_SET_TIMERSLACK, 0UL);
  cost.failed = injections == 0;
  if (!cost.failed) {
    AwaitDelivery(*delivery, expected, start, &cost);
    *burst = static_cast<double>(records) / static_cast<double>(injections);
  }
  AddUsage(before, SumThreadUsage(pipeline.threadPrefix), &cost);
  cost.senderCpuNs = SumThreadUsage(pipeline.senderThread).cpuNs - senderBefore.cpuNs;
  std::vector<int64_t> latencies;
  for (auto& client : delivery->clients) {
    client->SampleLatency(false);
    const std::vector<int64_t> taken = client->TakeLatencies();
    latencies.insert(latencies.end(), taken.begin(), taken.end());
  }
  std::sort(latencies.begin(), latencies.end());
  cost.latencyP50Ns = Percentile(latencies, 0.5);
  cost.latencyP99Ns = Percentile(latencies, 0.99);
  return cost;
}

}  // namespace kelo_bench
