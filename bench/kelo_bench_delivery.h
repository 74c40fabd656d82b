// Driving one delivery pipeline (the service or the reference) in the
// benchmark: its clients, a drain of bulk-filled records, and a steady
// stream at a fixed rate, each with what it cost the pipeline's threads.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/kelo_bench_client.h"
#include "bench/kelo_bench_ring.h"
#include "bench/kelo_bench_threads.h"
#include "utils/kelo_bpf_mutex.h"

namespace kelo_bench {

// How one pipeline is driven.
struct Pipeline {
  // Where its clients connect.
  std::string socketName;
  // Held while its ring fills: the pump then stops at its first record.
  Kelo::Bpf::Mutex* gate = nullptr;
  // Names of its threads start with this.
  std::string threadPrefix;
  // Name of its thread that writes to the clients.
  std::string senderThread;
  // Makes connected clients subscribers; true when all of them are.
  std::function<bool(std::vector<std::unique_ptr<CountingClient>>&)> enrol;
  // The ring its pump consumes.
  BenchRing* ring = nullptr;
};

// A pipeline with its connected, subscribed and reading clients.
struct Delivery {
  Pipeline pipeline;
  std::vector<std::unique_ptr<CountingClient>> clients;
};

// Connects `count` clients to the pipeline and starts them counting records
// of `recordBytes`; null on failure.
std::unique_ptr<Delivery> ConnectDelivery(const Pipeline& pipeline, int count, uint32_t recordBytes);

struct DeliveryCost {
  // Until every client had every record (or, after a loss, its last one).
  double seconds = 0;
  // Records that did not reach a client, summed over the clients.
  uint64_t lost = 0;
  uint64_t cpuNs = 0;
  uint64_t switches = 0;
  // The share of cpuNs of the sender thread.
  uint64_t senderCpuNs = 0;
  // What the pipeline's clients spent reading (Drain only).
  uint64_t clientCpuNs = 0;
  // Median and 99th percentile of the delivery latency over every client's
  // records, from the record's time stamp to its arrival (Paced only).
  int64_t latencyP50Ns = 0;
  int64_t latencyP99Ns = 0;
  bool failed = false;
};

// Delivers `records` copies of `record` in rounds of `burst`: each round
// fills the ring while the pump is held, then times the drain from the
// release on.
DeliveryCost Drain(Delivery* delivery, const std::string& record, uint32_t records, uint32_t burst);

// Delivers `records` copies of `record` injected at `rate` per second, each
// injection's records stamped with its time (record bytes 8 to 15, as the
// kernel's programs stamp theirs); `burst` receives the mean records per
// injection (1 when the pace held).
DeliveryCost Paced(Delivery* delivery, const std::string& record, uint64_t rate, uint64_t records, double* burst);

}  // namespace kelo_bench
