#include "bench/kelo_bench_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

#include "bench/kelo_bench_threads.h"
#include "service/kelo_bpf_event_manager.h"
#include "utils/kelo_bpf_ipc_package.h"

namespace kelo_bench {
namespace {

using namespace std::chrono_literals;

constexpr auto CONNECT_LIMIT = 20s;
constexpr auto CONNECT_RETRY = 10ms;
// Longest wait for the response to a subscription.
constexpr int RESPONSE_TIMEOUT_MS = 10000;
// Receive buffer of a counting client: room for many 32 KiB sends.
constexpr size_t READ_BUFFER_BYTES = 256 * 1024;
constexpr size_t SECOND_HEADER_BYTES = sizeof(KeloIpcSecondLevelPackageHeader);
constexpr size_t REQUEST_HEADER_BYTES = sizeof(KeloReqIpcPackageHeader);
// Where a record carries its kernel time stamp.
constexpr size_t RECORD_TS_OFFSET = 8;

template <typename T>
void Append(std::string* out, const T& value) {
  out->append(reinterpret_cast<const char*>(&value), sizeof(value));
}

uint32_t WordAt(const char* bytes) {
  uint32_t value = 0;
  memcpy(&value, bytes, sizeof(value));
  return value;
}

// Sends every byte, blocking; false when the peer is gone.
bool SendAll(int fd, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::string EventFrames(const std::string& record, size_t count) {
  std::string frame;
  Append(&frame, static_cast<uint32_t>(SECOND_HEADER_BYTES + record.size()));
  Append(&frame,
         KeloIpcSecondLevelPackageHeader{Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT, static_cast<uint32_t>(record.size())});
  frame += record;
  std::string frames;
  frames.reserve(frame.size() * count);
  for (size_t i = 0; i < count; ++i) frames += frame;
  return frames;
}

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

android::base::unique_fd ConnectAbstract(const std::string& name, std::chrono::milliseconds limit) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.size() + 1 > sizeof(address.sun_path)) return android::base::unique_fd();
  memcpy(address.sun_path + 1, name.data(), name.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (true) {
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return fd;
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0) return fd;
    if (std::chrono::steady_clock::now() > deadline) return android::base::unique_fd();
    std::this_thread::sleep_for(CONNECT_RETRY);
  }
}

bool Subscribe(int fd, uint32_t reqId, uint32_t code, int32_t type, std::string* leftover) {
  const uint32_t dataSize = sizeof(type);
  std::string frame;
  Append(&frame, static_cast<uint32_t>(SECOND_HEADER_BYTES + REQUEST_HEADER_BYTES + dataSize));
  Append(&frame, KeloIpcSecondLevelPackageHeader{IPC_PACKAGE_TYPE_REQUEST,
                                                 static_cast<uint32_t>(REQUEST_HEADER_BYTES + dataSize)});
  Append(&frame, reqId);
  Append(&frame, code);
  Append(&frame, dataSize);
  Append(&frame, type);
  if (!SendAll(fd, frame)) return false;

  std::string received;
  while (true) {
    if (received.size() >= sizeof(uint32_t)) {
      const size_t frameBytes = sizeof(uint32_t) + WordAt(received.data());
      if (received.size() >= frameBytes) {
        // Response payload: reqId, result, dataSize.
        const char* package = received.data() + sizeof(uint32_t);
        const char* response = package + SECOND_HEADER_BYTES;
        const bool answered = frameBytes >= sizeof(uint32_t) + SECOND_HEADER_BYTES + REQUEST_HEADER_BYTES &&
                              WordAt(package) == IPC_PACKAGE_TYPE_RESPONSE && WordAt(response) == reqId &&
                              WordAt(response + sizeof(uint32_t)) == 0;
        leftover->append(received, frameBytes, std::string::npos);
        return answered;
      }
    }
    pollfd readable = {fd, POLLIN, 0};
    const int ready = poll(&readable, 1, RESPONSE_TIMEOUT_MS);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char chunk[4096];
    const ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
    if (n <= 0) return false;
    received.append(chunk, static_cast<size_t>(n));
  }
}

std::unique_ptr<CountingClient> CountingClient::Connect(const std::string& name) {
  android::base::unique_fd fd = ConnectAbstract(name, CONNECT_LIMIT);
  if (fd.get() < 0) return nullptr;
  return std::unique_ptr<CountingClient>(new CountingClient(std::move(fd)));
}

std::unique_ptr<CountingClient> CountingClient::Adopt(android::base::unique_fd fd) {
  if (fd.get() < 0) return nullptr;
  return std::unique_ptr<CountingClient>(new CountingClient(std::move(fd)));
}

CountingClient::~CountingClient() {
  shutdown(fd_.get(), SHUT_RDWR);
  if (reader_.joinable()) reader_.join();
}

bool CountingClient::Subscribe(uint32_t code, int32_t type) {
  static std::atomic<uint32_t> nextReqId{1};
  return kelo_bench::Subscribe(fd_.get(), nextReqId++, code, type, &pending_);
}

void CountingClient::Start(uint32_t recordBytes) {
  reader_ = std::thread([this, recordBytes] {
    NameThisThread(THREAD_NAME);
    try {
      readLoop(recordBytes);
    } catch (const std::exception& e) {
      fprintf(stderr, "counting client ended: %s\n", e.what());
    }
  });
}

void CountingClient::Expect(uint64_t total) {
  completedAt_ = 0;
  expected_ = total;
  if (received_ >= total) completedAt_ = NowNs();
}

std::vector<int64_t> CountingClient::TakeLatencies() {
  std::lock_guard<std::mutex> lock(latencyLock_);
  std::vector<int64_t> taken;
  taken.swap(latencies_);
  return taken;
}

void CountingClient::countEvents(uint64_t events) {
  const int64_t now = NowNs();
  const uint64_t total = received_.fetch_add(events) + events;
  lastEventAt_ = now;
  if (total >= expected_ && completedAt_ == 0) completedAt_ = now;
}

void CountingClient::readLoop(uint32_t recordBytes) {
  std::vector<char> buffer(READ_BUFFER_BYTES);
  size_t have = pending_.size();
  memcpy(buffer.data(), pending_.data(), have);
  while (true) {
    // Whole frames are taken from the front; a partial one waits for the
    // rest at the start of the buffer.
    size_t at = 0;
    uint64_t events = 0;
    const bool sampling = sampling_.load(std::memory_order_relaxed);
    const int64_t arrived = sampling ? NowNs() : 0;
    thread_local std::vector<int64_t> latencies;
    latencies.clear();
    while (have - at >= sizeof(uint32_t)) {
      const size_t frameBytes = sizeof(uint32_t) + WordAt(buffer.data() + at);
      if (frameBytes > buffer.size()) {
        ++malformed_;  // the stream is damaged beyond recovery
        return;
      }
      if (have - at < frameBytes) break;
      const char* package = buffer.data() + at + sizeof(uint32_t);
      if (frameBytes >= sizeof(uint32_t) + SECOND_HEADER_BYTES &&
          WordAt(package) == Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT) {
        const bool wellFormed = WordAt(package + sizeof(uint32_t)) == recordBytes &&
                                frameBytes == sizeof(uint32_t) + SECOND_HEADER_BYTES + recordBytes;
        if (wellFormed) {
          ++events;
          if (sampling && recordBytes >= RECORD_TS_OFFSET + sizeof(int64_t)) {
            int64_t stamped = 0;
            memcpy(&stamped, package + SECOND_HEADER_BYTES + RECORD_TS_OFFSET, sizeof(stamped));
            latencies.push_back(arrived - stamped);
          }
        } else {
          ++malformed_;
        }
      }
      at += frameBytes;
    }
    if (!latencies.empty()) {
      std::lock_guard<std::mutex> lock(latencyLock_);
      latencies_.insert(latencies_.end(), latencies.begin(), latencies.end());
    }
    if (events != 0) countEvents(events);
    memmove(buffer.data(), buffer.data() + at, have - at);
    have -= at;

    const ssize_t n = recv(fd_.get(), buffer.data() + have, buffer.size() - have, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    have += static_cast<size_t>(n);
  }
}

std::unique_ptr<IdleClients> IdleClients::Start(const std::string& name, int count, uint32_t code, int32_t type) {
  int ready[2];
  int hold[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return nullptr;
  android::base::unique_fd readyRead(ready[0]), readyWrite(ready[1]);
  if (pipe2(hold, O_CLOEXEC) != 0) return nullptr;
  android::base::unique_fd holdRead(hold[0]), holdWrite(hold[1]);

  const pid_t child = fork();
  if (child < 0) return nullptr;
  if (child == 0) {
    // The child connects, subscribes, reports and then only waits for the
    // parent to let go; it never returns into the benchmark.
    holdWrite.reset();
    readyRead.reset();
    std::vector<android::base::unique_fd> connections;
    char status = 1;
    for (int i = 0; i < count && status == 1; ++i) {
      connections.push_back(ConnectAbstract(name, CONNECT_LIMIT));
      std::string leftover;
      if (connections.back().get() < 0 ||
          !kelo_bench::Subscribe(connections.back().get(), static_cast<uint32_t>(i + 1), code, type, &leftover)) {
        status = 0;
      }
    }
    if (write(readyWrite.get(), &status, 1) != 1) _exit(1);
    char byte;
    while (read(holdRead.get(), &byte, 1) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  readyWrite.reset();
  holdRead.reset();
  std::unique_ptr<IdleClients> clients(new IdleClients(child, std::move(holdWrite)));
  char status = 0;
  ssize_t n;
  while ((n = read(readyRead.get(), &status, 1)) < 0 && errno == EINTR) {
  }
  return n == 1 && status == 1 ? std::move(clients) : nullptr;
}

IdleClients::~IdleClients() {
  hold_.reset();
  int status = 0;
  while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace kelo_bench
