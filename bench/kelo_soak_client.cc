#include "bench/kelo_soak_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>

#include "bench/kelo_bench_client.h"
#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"

namespace kelo_bench {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto CONNECT_LIMIT = 20s;
constexpr auto RESPONSE_LIMIT = 10s;
// How long a reconnecting client's session reads: 2 to 5 s, in turn.
constexpr int SESSION_BASE_SECONDS = 2;
constexpr int SESSION_SPREAD = 4;
// After unsubscribing, reports of the session's last losses come within a
// second; a little more is waited.
constexpr auto LAST_REPORTS_WAIT = 1500ms;
constexpr size_t FAST_READ_BYTES = 64 * 1024;
constexpr size_t SLOW_READ_BYTES = 4 * 1024;
constexpr int64_t LATENCY_BUCKET_NS = 10000;

template <typename T>
T ValueAt(const char* bytes) {
  T value;
  memcpy(&value, bytes, sizeof(value));
  return value;
}

template <typename T>
void Append(std::string* out, const T& value) {
  out->append(reinterpret_cast<const char*>(&value), sizeof(value));
}

}  // namespace

const char* SoakBehaviourName(SoakBehaviour behaviour) {
  switch (behaviour) {
    case SoakBehaviour::FAST:
      return "fast";
    case SoakBehaviour::SLOW:
      return "slow";
    case SoakBehaviour::STALLED:
      return "stalled";
    case SoakBehaviour::RECONNECTING:
      return "reconnecting";
  }
  return "?";
}

uint64_t SoakAccount::WindowFirst() const {
  if (firstSeq == 0) return queueLostFirst;
  return queueLostFirst == 0 ? firstSeq : std::min(firstSeq, queueLostFirst);
}

uint64_t SoakAccount::WindowLast() const { return std::max(lastSeq, queueLostLast); }

void LatencyHistogram::Add(int64_t ns) {
  const int64_t bucket = ns < 0 ? 0 : ns / LATENCY_BUCKET_NS;
  ++buckets_[static_cast<size_t>(std::min<int64_t>(bucket, BUCKETS - 1))];
  ++count_;
}

void LatencyHistogram::Merge(const LatencyHistogram& other) {
  for (size_t i = 0; i < BUCKETS; ++i) buckets_[i] += other.buckets_[i];
  count_ += other.count_;
}

double LatencyHistogram::PercentileUs(double fraction) const {
  if (count_ == 0) return 0;
  const uint64_t wanted = static_cast<uint64_t>(fraction * static_cast<double>(count_));
  uint64_t seen = 0;
  for (size_t i = 0; i < BUCKETS; ++i) {
    seen += buckets_[i];
    if (seen > wanted) return static_cast<double>((i + 1) * LATENCY_BUCKET_NS) / 1000.0;
  }
  return static_cast<double>(BUCKETS * LATENCY_BUCKET_NS) / 1000.0;
}

SoakClient::SoakClient(std::string name, SoakBehaviour behaviour, std::string socketName, int32_t type, double slowRate)
    : name_(std::move(name)),
      behaviour_(behaviour),
      socketName_(std::move(socketName)),
      type_(type),
      slowRate_(slowRate) {}

SoakClient::~SoakClient() { Stop(); }

bool SoakClient::Start() {
  if (behaviour_ != SoakBehaviour::RECONNECTING && !connectAndSubscribe()) return false;
  thread_ = std::thread([this] {
    try {
      run();
    } catch (const std::exception& e) {
      fprintf(stderr, "%s: %s\n", name_.c_str(), e.what());
    }
  });
  return true;
}

void SoakClient::Stop() {
  stopping_.store(true);
  if (thread_.joinable()) thread_.join();
  fd_.reset();
}

SoakAccount SoakClient::Account() {
  Kelo::Bpf::MutexLock lock(mutex_);
  return account_;
}

LatencyHistogram SoakClient::Latencies() {
  Kelo::Bpf::MutexLock lock(mutex_);
  return latencies_;
}

bool SoakClient::connectAndSubscribe() {
  pending_.clear();
  fd_ = ConnectAbstract(socketName_, CONNECT_LIMIT);
  if (fd_.get() < 0) {
    fprintf(stderr, "%s: cannot connect to %s\n", name_.c_str(), socketName_.c_str());
    return false;
  }
  std::vector<int32_t> types = {KELO_CLIENT_EVENT_EVENTS_LOST, type_};
  // Live kernel records for load; not accounted.
  if (behaviour_ == SoakBehaviour::FAST) types.insert(types.end(), {KELO_EVENT_TASK_CREATE, KELO_EVENT_TASK_EXIT});
  for (int32_t type : types) {
    if (!request(Kelo::Bpf::REQ_ADD_OBSERVER_EVENT, type)) {
      fprintf(stderr, "%s: subscribing to %d failed\n", name_.c_str(), type);
      return false;
    }
  }
  return true;
}

bool SoakClient::request(uint32_t code, int32_t value) {
  const uint32_t reqId = nextReqId_++;
  std::string frame;
  Append(&frame, uint32_t{8 + 12 + 4});
  Append(&frame, uint32_t{IPC_PACKAGE_TYPE_REQUEST});
  Append(&frame, uint32_t{12 + 4});
  Append(&frame, reqId);
  Append(&frame, code);
  Append(&frame, uint32_t{4});
  Append(&frame, value);
  if (send(fd_.get(), frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size())) return false;
  const Clock::time_point deadline = Clock::now() + RESPONSE_LIMIT;
  while (lastResponseId_ != reqId) {
    if (Clock::now() > deadline || !readOnce(100)) return false;
  }
  return lastResult_ == 0;
}

bool SoakClient::readOnce(int waitMs) {
  pollfd readable = {fd_.get(), POLLIN, 0};
  const int ready = poll(&readable, 1, waitMs);
  if (ready < 0) return errno == EINTR;
  if (ready == 0) return true;
  char chunk[FAST_READ_BYTES];
  const size_t want = behaviour_ == SoakBehaviour::SLOW ? SLOW_READ_BYTES : sizeof(chunk);
  const ssize_t got = recv(fd_.get(), chunk, want, MSG_DONTWAIT);
  if (got < 0) return errno == EINTR || errno == EAGAIN;
  if (got == 0) return false;
  pending_.append(chunk, static_cast<size_t>(got));
  size_t at = 0;
  while (pending_.size() - at >= 12) {
    const uint32_t frameSize = ValueAt<uint32_t>(pending_.data() + at);
    if (pending_.size() - at < 4 + static_cast<size_t>(frameSize)) break;
    const uint32_t packageType = ValueAt<uint32_t>(pending_.data() + at + 4);
    const char* payload = pending_.data() + at + 12;
    const size_t payloadSize = frameSize - 8;
    if (packageType == IPC_PACKAGE_TYPE_RESPONSE && payloadSize >= 8) {
      lastResponseId_ = ValueAt<uint32_t>(payload);
      lastResult_ = ValueAt<int32_t>(payload + 4);
    } else if (packageType == Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT) {
      account(payload, payloadSize);
    }
    at += 4 + frameSize;
  }
  pending_.erase(0, at);
  return true;
}

void SoakClient::account(const char* payload, size_t size) {
  if (size < sizeof(int32_t)) return;
  const int32_t type = ValueAt<int32_t>(payload);
  Kelo::Bpf::MutexLock lock(mutex_);
  if (type == type_ && size >= sizeof(kelo_fd_update_event)) {
    const kelo_fd_update_event record = ValueAt<kelo_fd_update_event>(payload);
    const uint64_t seq = record.header.ts;
    if (seq <= account_.lastSeq) {
      ++account_.outOfOrder;
      return;
    }
    ++account_.received;
    if (account_.firstSeq == 0) account_.firstSeq = seq;
    account_.lastSeq = seq;
    if (behaviour_ == SoakBehaviour::FAST) latencies_.Add(NowNs() - static_cast<int64_t>(record.open_count));
    return;
  }
  if (type == KELO_CLIENT_EVENT_EVENTS_LOST && size >= sizeof(kelo_events_lost_client_event)) {
    const kelo_events_lost_client_event report = ValueAt<kelo_events_lost_client_event>(payload);
    if (report.lost_type != type_) {
      ++account_.others;
      return;
    }
    ++account_.reports;
    if (report.site == KELO_LOSS_SITE_KERNEL) {
      account_.kernelLost += report.count;
      return;
    }
    account_.queueLost += report.count;
    if (account_.queueLostFirst == 0 || report.first_ts < account_.queueLostFirst) {
      account_.queueLostFirst = report.first_ts;
    }
    account_.queueLostLast = std::max<uint64_t>(account_.queueLostLast, report.last_ts);
    return;
  }
  ++account_.others;
}

void SoakClient::run() {
  if (behaviour_ == SoakBehaviour::RECONNECTING) {
    while (!stopping_.load() && !emissionOver_.load()) runSession();
    return;
  }
  const Clock::time_point start = Clock::now();
  while (!stopping_.load()) {
    if (behaviour_ == SoakBehaviour::STALLED && !emissionOver_.load()) {
      std::this_thread::sleep_for(50ms);
      continue;
    }
    if (behaviour_ == SoakBehaviour::SLOW) {
      const double allowed = slowRate_ * std::chrono::duration<double>(Clock::now() - start).count();
      if (static_cast<double>(Account().received) > allowed) {
        std::this_thread::sleep_for(1ms);
        continue;
      }
    }
    if (!readOnce(50)) return;
  }
}

void SoakClient::runSession() {
  if (!connectAndSubscribe()) {
    std::this_thread::sleep_for(1s);
    return;
  }
  const auto length = std::chrono::seconds(SESSION_BASE_SECONDS + sessions_.load() % SESSION_SPREAD);
  const Clock::time_point end = Clock::now() + length;
  bool connected = true;
  while (connected && Clock::now() < end && !stopping_.load() && !emissionOver_.load()) connected = readOnce(50);
  // Nothing of the type is queued after the answer; reports of what was
  // lost before it come within a second.
  connected = connected && request(Kelo::Bpf::REQ_DEL_OBSERVER_EVENT, type_);
  const Clock::time_point last = Clock::now() + LAST_REPORTS_WAIT;
  while (connected && Clock::now() < last) connected = readOnce(50);
  fd_.reset();

  SoakAccount session;
  {
    Kelo::Bpf::MutexLock lock(mutex_);
    session = account_;
    account_ = SoakAccount();
  }
  sessions_.fetch_add(1);
  sessionRecords_.fetch_add(session.received);
  sessionLost_.fetch_add(session.queueLost);
  const uint64_t window = session.WindowFirst() == 0 ? 0 : session.WindowLast() - session.WindowFirst() + 1;
  if (!connected || session.outOfOrder != 0 || session.received + session.queueLost != window) {
    badSessions_.fetch_add(1);
    fprintf(stderr,
            "%s: session %" PRIu64 " does not add up: received %" PRIu64 " + lost %" PRIu64 " vs window %" PRIu64
            "..%" PRIu64 " (%s, %" PRIu64 " out of order)\n",
            name_.c_str(), sessions_.load(), session.received, session.queueLost, session.WindowFirst(),
            session.WindowLast(), connected ? "connected" : "connection lost", session.outOfOrder);
  }
}

}  // namespace kelo_bench
