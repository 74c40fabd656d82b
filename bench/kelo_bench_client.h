// Subscribers of the delivery benchmark: clients that speak the package
// protocol over a real Unix-domain stream socket (abstract name), read
// everything they are sent and count the event packages.
//
// A CountingClient reads on a thread of its own ("BenchClient") with blocking
// receives, so it keeps up with any sender the processors allow; it notes the
// moment it has received an expected number of events, which ends the timed
// part of a drain. IdleClients holds subscribed connections from a child
// process, so that the benchmark's own memory and threads stay out of
// measurements of the server.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kelo_bench {

// Steady-clock time in nanoseconds, the time base of every timestamp here.
int64_t NowNs();

// Connects to the abstract socket `name`, retrying until the server listens or
// `limit` passed; empty on failure.
android::base::unique_fd ConnectAbstract(const std::string& name, std::chrono::milliseconds limit);

// `count` event frames around `record`, byte for byte as the service sends
// them.
std::string EventFrames(const std::string& record, size_t count);

// Sends a request with `code` for event type `type` and waits for its
// response; true when the response carries reqId and result 0. Bytes read
// past the response are appended to *leftover.
bool Subscribe(int fd, uint32_t reqId, uint32_t code, int32_t type, std::string* leftover);

class CountingClient {
 public:
  static constexpr char THREAD_NAME[] = "BenchClient";

  // Connects (see ConnectAbstract); null on failure.
  static std::unique_ptr<CountingClient> Connect(const std::string& name);
  // Reads from a stream socket that is already connected (one end of a
  // socketpair whose other end the benchmark writes itself).
  static std::unique_ptr<CountingClient> Adopt(android::base::unique_fd fd);
  // Shuts the socket down and joins the reader.
  ~CountingClient();

  CountingClient(const CountingClient&) = delete;
  CountingClient& operator=(const CountingClient&) = delete;

  // Subscribes to `type` with request `code`; only before Start.
  bool Subscribe(uint32_t code, int32_t type);
  // Starts the reader, which counts event packages carrying a record of
  // recordBytes bytes; event packages of another length count as malformed.
  void Start(uint32_t recordBytes);

  // From now on, the moment received() reaches `total` is noted. Only while
  // no event is on its way.
  void Expect(uint64_t total);

  uint64_t received() const { return received_.load(); }
  uint64_t malformed() const { return malformed_.load(); }
  // When received() reached the expected total; 0 until then.
  int64_t completedAtNs() const { return completedAt_.load(); }
  // When the last event arrived; 0 before the first.
  int64_t lastEventAtNs() const { return lastEventAt_.load(); }

  // From now on, every event's delivery latency is noted: its arrival time
  // less the time stamp in its record's bytes 8 to 15 (both NowNs's clock,
  // which is also the kernel's bpf_ktime_get_ns clock). Only while no event
  // is on its way.
  void SampleLatency(bool on) { sampling_ = on; }
  // The latencies noted since the last call, in nanoseconds.
  std::vector<int64_t> TakeLatencies();

 private:
  explicit CountingClient(android::base::unique_fd fd) : fd_(std::move(fd)) {}
  void readLoop(uint32_t recordBytes);
  void countEvents(uint64_t events);

  android::base::unique_fd fd_;
  // Bytes that arrived together with the subscription's response.
  std::string pending_;
  std::atomic<uint64_t> received_{0};
  std::atomic<uint64_t> malformed_{0};
  std::atomic<uint64_t> expected_{UINT64_MAX};
  std::atomic<int64_t> completedAt_{0};
  std::atomic<int64_t> lastEventAt_{0};
  std::atomic<bool> sampling_{false};
  std::mutex latencyLock_;
  std::vector<int64_t> latencies_;
  std::thread reader_;
};

// `count` connections, each subscribed to one type, held open and never read
// by a child process until this object is destroyed.
class IdleClients {
 public:
  // Returns once every connection is subscribed; null on failure.
  static std::unique_ptr<IdleClients> Start(const std::string& name, int count, uint32_t code, int32_t type);
  // Ends the child (its connections close) and reaps it.
  ~IdleClients();

  IdleClients(const IdleClients&) = delete;
  IdleClients& operator=(const IdleClients&) = delete;

 private:
  IdleClients(pid_t child, android::base::unique_fd hold) : child_(child), hold_(std::move(hold)) {}

  pid_t child_;
  // The child lives while this pipe's write end is open.
  android::base::unique_fd hold_;
};

}  // namespace kelo_bench
