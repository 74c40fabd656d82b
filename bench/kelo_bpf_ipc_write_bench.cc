// Cost of the IPC write path for the service's events, beside two baselines
// over the same kind of socket.
//
// An event here is a 48-byte raw event record (u32 type, 4 reserved bytes,
// u64 time, 32 payload bytes) forwarded as a level-2 package of type 3: 56
// bytes of package, 60 bytes on the wire with its length field.
//
//   BM_QueueThroughManager  the service's path: the producer (the benchmark
//       thread) appends each record to the connection's IpcPackageManager
//       and, when requestSend says no write is pending yet, asks the server
//       UnixIpcManager to write, as the service's registry does; the
//       manager's worker fills its 32 KiB write buffer with
//       fillNextIpcPackagesToBuffer (whole packages until one does not fit,
//       under one lock), as the service's writeable hook does, and sends it.
//       With bulk_fill:1 the hook fills the buffer with one
//       fillIpcPackageToBuffer instead.
//   BM_OneSendPerFrame      baseline: the same frames, one send() each, from
//       the benchmark thread.
//   BM_ReadyBufferBatches   ceiling: the same bytes sent in 32 KiB batches
//       from a buffer built beforehand.
// The baselines send over a socketpair whose sending end has the 32 KiB
// SO_SNDBUF and SO_RCVBUF that the manager gives its connections.
//
// In each, a peer thread receives with blocking recv in 256 KiB chunks and
// counts the frames, checking every header and, where frames are built per
// event, the sequence number carried in the record. One iteration is a batch
// of BATCH_EVENTS events and ends when the peer has counted all of them, so
// the rate is of delivered events; a lost frame stops the benchmark with an
// error. The producer respects the queue's back-pressure: above
// QUEUE_PAUSE_AT queued packages it sleeps until the queue is below
// QUEUE_RESUME_AT, far from the 10000 mark at which the queue drops packages.
//
// Counters: events_per_s (delivered, over real time), cpu_s_per_M_events
// (processor time of the whole process per million events) and its split
// over the producer, the peer and the rest (the manager's worker); for the
// manager also worker_wakeups_per_k_events (epoll loop wake-ups) and
// producer_pauses (times the producer waited for the queue to drain).
//
// The server listens on a private abstract name; run it inside
// scripts/sandbox.sh so that a send failure's error-log record lands in the
// sandbox's /data.
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "utils/kelo_bpf_ipc_helper.h"

namespace {

constexpr uint32_t EVENT_PACKAGE_TYPE = 3;
constexpr uint32_t RECORD_SIZE = 48;
constexpr uint32_t PACKAGE_SIZE = sizeof(KeloIpcSecondLevelPackageHeader) + RECORD_SIZE;
constexpr uint32_t FRAME_SIZE = IPC_FRAME_HEADER_SIZE + PACKAGE_SIZE;
// The record's u64 time field carries the sequence number.
constexpr size_t RECORD_SEQUENCE_OFFSET = 8;
constexpr uint32_t RECORD_EVENT_TYPE = 1;
// The service's connection buffer size, also its SO_SNDBUF.
constexpr int BUFFER_SIZE = 32768;
constexpr size_t PEER_RECV_SIZE = 256 * 1024;
constexpr int64_t BATCH_EVENTS = 1 << 16;
constexpr size_t QUEUE_PAUSE_AT = 8000;
constexpr size_t QUEUE_RESUME_AT = 2000;
constexpr auto BACK_PRESSURE_SLEEP = std::chrono::microseconds(50);
// A batch that makes no progress for this long has lost frames.
constexpr auto STALL_LIMIT = std::chrono::seconds(5);
// How the writeable hook fills the write buffer: fillNextIpcPackagesToBuffer
// as the service does, or one fillIpcPackageToBuffer per buffer.
constexpr int64_t PACKAGE_BY_PACKAGE_FILL = 0;
constexpr int64_t BULK_FILL = 1;
// Thread names, to tell the threads apart in a profile.
constexpr char WORKER_NAME[] = "BpfBenchTr";
constexpr char PEER_NAME[] = "BenchPeer";

double ThreadCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double ProcessCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec * 1e-6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void FillRecord(char* record, uint64_t sequence) {
  memset(record, 0, RECORD_SIZE);
  memcpy(record, &RECORD_EVENT_TYPE, sizeof(RECORD_EVENT_TYPE));
  memcpy(record + RECORD_SEQUENCE_OFFSET, &sequence, sizeof(sequence));
}

// The whole frame of one event, as the queue would put it on the wire.
void FillFrame(char* frame, uint64_t sequence) {
  const KeloIpcSecondLevelPackageHeader header{EVENT_PACKAGE_TYPE, RECORD_SIZE};
  memcpy(frame, &PACKAGE_SIZE, sizeof(PACKAGE_SIZE));
  memcpy(frame + IPC_FRAME_HEADER_SIZE, &header, sizeof(header));
  FillRecord(frame + IPC_FRAME_HEADER_SIZE + sizeof(header), sequence);
}

bool SendAll(int fd, const char* data, size_t size) {
  while (size != 0) {
    const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

// The receiving client: a thread that counts and checks frames until its
// socket is shut down.
class FramePeer {
 public:
  FramePeer(android::base::unique_fd fd, bool checkSequence)
      : fd_(std::move(fd)), checkSequence_(checkSequence), thread_([this] { run(); }) {}
  ~FramePeer() {
    shutdown(fd_.get(), SHUT_RDWR);
    thread_.join();
  }

  uint64_t frames() const { return frames_.load(std::memory_order_acquire); }
  bool broken() const { return broken_.load(std::memory_order_acquire); }
  double cpuSeconds() const { return cpuNs_.load(std::memory_order_relaxed) * 1e-9; }

  // Waits until `target` frames arrived; false when they stop coming.
  bool waitFor(uint64_t target) const {
    uint64_t seen = frames();
    auto lastProgress = std::chrono::steady_clock::now();
    while (seen < target && !broken()) {
      std::this_thread::sleep_for(BACK_PRESSURE_SLEEP);
      const uint64_t now = frames();
      if (now != seen) {
        seen = now;
        lastProgress = std::chrono::steady_clock::now();
      } else if (std::chrono::steady_clock::now() - lastProgress > STALL_LIMIT) {
        return false;
      }
    }
    return !broken() && seen == target;
  }

 private:
  void run() {
    pthread_setname_np(pthread_self(), PEER_NAME);
    std::vector<char> buffer(PEER_RECV_SIZE + FRAME_SIZE);
    size_t held = 0;
    uint64_t expected = 0;
    while (true) {
      const ssize_t got = recv(fd_.get(), buffer.data() + held, PEER_RECV_SIZE, 0);
      if (got <= 0) break;
      held += static_cast<size_t>(got);
      size_t at = 0;
      uint64_t counted = 0;
      while (held - at >= IPC_FRAME_HEADER_SIZE) {
        uint32_t packageSize;
        memcpy(&packageSize, buffer.data() + at, sizeof(packageSize));
        if (held - at < IPC_FRAME_HEADER_SIZE + packageSize) break;
        KeloIpcSecondLevelPackageHeader header;
        memcpy(&header, buffer.data() + at + IPC_FRAME_HEADER_SIZE, sizeof(header));
        uint64_t sequence;
        memcpy(&sequence, buffer.data() + at + IPC_FRAME_HEADER_SIZE + sizeof(header) + RECORD_SEQUENCE_OFFSET,
               sizeof(sequence));
        if (packageSize != PACKAGE_SIZE || header.type != EVENT_PACKAGE_TYPE || header.size != RECORD_SIZE ||
            (checkSequence_ && sequence != expected)) {
          broken_.store(true, std::memory_order_release);
        }
        ++expected;
        ++counted;
        at += IPC_FRAME_HEADER_SIZE + packageSize;
      }
      memmove(buffer.data(), buffer.data() + at, held - at);
      held -= at;
      cpuNs_.store(static_cast<uint64_t>(ThreadCpuSeconds() * 1e9), std::memory_order_relaxed);
      frames_.fetch_add(counted, std::memory_order_release);
    }
  }

  android::base::unique_fd fd_;
  const bool checkSequence_;
  std::atomic<uint64_t> frames_{0};
  std::atomic<bool> broken_{false};
  std::atomic<uint64_t> cpuNs_{0};
  std::thread thread_;
};

// Sender and receiver ends of a connected Unix stream socket, the sender's
// SO_SNDBUF set as the manager sets it on its connections.
void ConnectedPair(android::base::unique_fd* sender, android::base::unique_fd* receiver) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
  sender->reset(ends[0]);
  receiver->reset(ends[1]);
  setsockopt(sender->get(), SOL_SOCKET, SO_SNDBUF, &BUFFER_SIZE, sizeof(BUFFER_SIZE));
  setsockopt(sender->get(), SOL_SOCKET, SO_RCVBUF, &BUFFER_SIZE, sizeof(BUFFER_SIZE));
}

// CPU and rate counters of one benchmark run of `events` delivered events.
struct CpuMeter {
  double process = ProcessCpuSeconds();
  double producer = ThreadCpuSeconds();
  double peerStart;
  explicit CpuMeter(const FramePeer& peer) : peerStart(peer.cpuSeconds()) {}

  void report(benchmark::State& state, const FramePeer& peer, double events) const {
    const double perMillion = 1e6 / events;
    const double processUsed = ProcessCpuSeconds() - process;
    const double producerUsed = ThreadCpuSeconds() - producer;
    const double peerUsed = peer.cpuSeconds() - peerStart;
    state.counters["events_per_s"] = benchmark::Counter(events, benchmark::Counter::kIsRate);
    state.counters["cpu_s_per_M_events"] = processUsed * perMillion;
    state.counters["cpu_producer"] = producerUsed * perMillion;
    state.counters["cpu_peer"] = peerUsed * perMillion;
    state.counters["cpu_rest"] = (processUsed - producerUsed - peerUsed) * perMillion;
  }
};

android::base::unique_fd ConnectAbstract(const std::string& name) {
  android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path + 1, name.data(), name.size());
  const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  for (int attempt = 0; attempt < 1000; ++attempt) {
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), len) == 0) return fd;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return {};
}

void BM_QueueThroughManager(benchmark::State& state) {
  // The manager's start and stop lines would drown the results; warnings
  // (a full socket) and errors still show.
  __android_log_set_minimum_priority(ANDROID_LOG_WARN);
  IpcPackageManager queue;
  std::atomic<int> connection{-1};
  IpcHandlerState hooks;
  hooks.compactReadBuffer = true;
  hooks.closeOnError = true;
  hooks.onConnection = [&connection](int fd) {
    connection.store(fd, std::memory_order_release);
    return 0;
  };
  const bool bulkFill = state.range(0) == BULK_FILL;
  hooks.onWriteable = [&queue, bulkFill](int, BufferState* writeBuffer) {
    queue.beginSend();
    if (bulkFill) {
      queue.fillIpcPackageToBuffer(writeBuffer);
      return 0;
    }
    // The service's writeable hook: whole packages until one does not fit.
    queue.fillNextIpcPackagesToBuffer(writeBuffer);
    return 0;
  };
  cpu_set_t processors;
  sched_getaffinity(0, sizeof(processors), &processors);
  const std::string name = "kelo_ipc_write_bench_" + std::to_string(getpid());
  UnixIpcManager manager(true, BUFFER_SIZE, name, hooks, WORKER_NAME, processors, 10, 32);
  manager.start();
  android::base::unique_fd client = ConnectAbstract(name);
  while (client.ok() && connection.load(std::memory_order_acquire) == -1) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!client.ok()) {
    state.SkipWithError("cannot connect to the manager");
    return;
  }
  const int fd = connection.load(std::memory_order_acquire);
  FramePeer peer(std::move(client), true);

  const uint64_t wakeupsBefore = manager.getWakeupCount();
  uint64_t sequence = 0;
  uint64_t pauses = 0;
  char record[RECORD_SIZE];
  CpuMeter meter(peer);
  for (auto _ : state) {
    for (int64_t i = 0; i < BATCH_EVENTS; ++i) {
      if (queue.getIpcPackageCount() > QUEUE_PAUSE_AT) {
        ++pauses;
        while (queue.getIpcPackageCount() > QUEUE_RESUME_AT) std::this_thread::sleep_for(BACK_PRESSURE_SLEEP);
      }
      FillRecord(record, sequence++);
      queue.buildAndAppendSecondIpcPackage(EVENT_PACKAGE_TYPE, record, RECORD_SIZE);
      if (queue.requestSend()) manager.notifyNeedWriteData(fd);
    }
    if (!peer.waitFor(sequence)) {
      state.SkipWithError("frames lost or malformed");
      break;
    }
  }
  const double events = static_cast<double>(sequence);
  meter.report(state, peer, events);
  state.counters["worker_wakeups_per_k_events"] = (manager.getWakeupCount() - wakeupsBefore) * 1e3 / events;
  state.counters["producer_pauses"] = static_cast<double>(pauses);
  manager.stop();
}

void BM_OneSendPerFrame(benchmark::State& state) {
  android::base::unique_fd sender;
  android::base::unique_fd receiver;
  ConnectedPair(&sender, &receiver);
  FramePeer peer(std::move(receiver), true);
  uint64_t sequence = 0;
  char frame[FRAME_SIZE];
  CpuMeter meter(peer);
  for (auto _ : state) {
    for (int64_t i = 0; i < BATCH_EVENTS; ++i) {
      FillFrame(frame, sequence++);
      if (!SendAll(sender.get(), frame, sizeof(frame))) {
        state.SkipWithError("send failed");
        return;
      }
    }
    if (!peer.waitFor(sequence)) {
      state.SkipWithError("frames lost or malformed");
      break;
    }
  }
  meter.report(state, peer, static_cast<double>(sequence));
}

void BM_ReadyBufferBatches(benchmark::State& state) {
  android::base::unique_fd sender;
  android::base::unique_fd receiver;
  ConnectedPair(&sender, &receiver);
  FramePeer peer(std::move(receiver), false);
  // As many whole frames as the write buffer holds.
  constexpr int64_t framesPerBatch = BUFFER_SIZE / FRAME_SIZE;
  std::vector<char> ready(framesPerBatch * FRAME_SIZE);
  for (int64_t i = 0; i < framesPerBatch; ++i) FillFrame(ready.data() + i * FRAME_SIZE, static_cast<uint64_t>(i));
  uint64_t sent = 0;
  CpuMeter meter(peer);
  for (auto _ : state) {
    for (int64_t i = 0; i < BATCH_EVENTS; i += framesPerBatch) {
      const int64_t frames = std::min(framesPerBatch, BATCH_EVENTS - i);
      if (!SendAll(sender.get(), ready.data(), static_cast<size_t>(frames) * FRAME_SIZE)) {
        state.SkipWithError("send failed");
        return;
      }
      sent += static_cast<uint64_t>(frames);
    }
    if (!peer.waitFor(sent)) {
      state.SkipWithError("frames lost or malformed");
      break;
    }
  }
  meter.report(state, peer, static_cast<double>(sent));
}

BENCHMARK(BM_QueueThroughManager)
    ->ArgName("bulk_fill")
    ->Arg(PACKAGE_BY_PACKAGE_FILL)
    ->Arg(BULK_FILL)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OneSendPerFrame)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadyBufferBatches)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
