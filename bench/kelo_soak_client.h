// The soak's clients: each a thread with its own connection to the service,
// subscribed to the emitted type and to the loss reports (50005), keeping
// exact accounts of what it received and what it was told it lost.
//
// Behaviours:
//  - FAST reads everything as it comes (and, for load, the live kernel's
//    fork and exit records), sampling each emitted record's delivery
//    latency;
//  - SLOW reads at a fixed rate, a fraction of the emission rate;
//  - STALLED reads nothing until the emission ends;
//  - RECONNECTING runs sessions of a few seconds: subscribes, reads, then
//    unsubscribes, waits for the last reports and closes, and again.
//
// Accounting relies on the emitter's header times 1, 2, 3, ...: the records
// a connection receives come in order, and the gaps between them are exactly
// the records its queue dropped, which the queue-loss reports count.
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "utils/kelo_bpf_mutex.h"

namespace kelo_bench {

enum class SoakBehaviour { FAST, SLOW, STALLED, RECONNECTING };
const char* SoakBehaviourName(SoakBehaviour behaviour);

// What one connection received of the emitted type and heard of its losses.
struct SoakAccount {
  uint64_t received = 0;
  uint64_t firstSeq = 0;  // 0: none received
  uint64_t lastSeq = 0;
  uint64_t queueLost = 0;
  uint64_t queueLostFirst = 0;  // lowest first_ts of a queue-loss report; 0: none
  uint64_t queueLostLast = 0;
  uint64_t kernelLost = 0;
  uint64_t reports = 0;
  uint64_t outOfOrder = 0;  // records not newer than the one before
  uint64_t others = 0;      // live kernel records and their reports

  // The first and last record this connection received or heard lost; 0
  // when neither happened.
  uint64_t WindowFirst() const;
  uint64_t WindowLast() const;
};

// Delivery latencies in 10 us steps up to 1 s, and beyond.
class LatencyHistogram {
 public:
  void Add(int64_t ns);
  void Merge(const LatencyHistogram& other);
  uint64_t count() const { return count_; }
  // The latency below which `fraction` of the samples fall, in microseconds.
  double PercentileUs(double fraction) const;

 private:
  static constexpr size_t BUCKETS = 100001;
  std::vector<uint64_t> buckets_ = std::vector<uint64_t>(BUCKETS, 0);
  uint64_t count_ = 0;
};

class SoakClient {
 public:
  SoakClient(std::string name, SoakBehaviour behaviour, std::string socketName, int32_t type, double slowRate);
  ~SoakClient();
  SoakClient(const SoakClient&) = delete;
  SoakClient& operator=(const SoakClient&) = delete;

  // Connects and subscribes (all but RECONNECTING, which does so per
  // session) and starts the thread; false after a failure (on stderr).
  bool Start();
  // The emission is over: a stalled client starts reading, a reconnecting
  // one finishes its session and starts no other.
  void EmissionOver() { emissionOver_.store(true); }
  // Closes the connection and joins the thread.
  void Stop();

  const std::string& name() const { return name_; }
  SoakBehaviour behaviour() const { return behaviour_; }
  // The account of the current connection (all but RECONNECTING).
  SoakAccount Account();
  // RECONNECTING: sessions ended and those whose account did not add up
  // (received + queue-lost = the records of its window).
  uint64_t sessions() const { return sessions_.load(); }
  uint64_t badSessions() const { return badSessions_.load(); }
  uint64_t sessionRecords() const { return sessionRecords_.load(); }
  uint64_t sessionLost() const { return sessionLost_.load(); }
  LatencyHistogram Latencies();

 private:
  void run();
  void runSession();
  // Reads what is there within `waitMs` and accounts for it; false once
  // the connection is gone.
  bool readOnce(int waitMs);
  void account(const char* payload, size_t size);
  bool connectAndSubscribe();
  bool request(uint32_t code, int32_t value);

  const std::string name_;
  const SoakBehaviour behaviour_;
  const std::string socketName_;
  const int32_t type_;
  const double slowRate_;

  android::base::unique_fd fd_;
  std::string pending_;
  uint32_t nextReqId_ = 1;
  // Responses seen: reqId of the last one and its result.
  uint32_t lastResponseId_ = 0;
  int32_t lastResult_ = 0;

  Kelo::Bpf::Mutex mutex_;
  SoakAccount account_ GUARDED_BY(mutex_);
  LatencyHistogram latencies_ GUARDED_BY(mutex_);

  std::atomic<bool> emissionOver_{false};
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> sessions_{0};
  std::atomic<uint64_t> badSessions_{0};
  std::atomic<uint64_t> sessionRecords_{0};
  std::atomic<uint64_t> sessionLost_{0};
  std::thread thread_;
};

}  // namespace kelo_bench
