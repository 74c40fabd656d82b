// Shared pieces of the service tests: a client that speaks the package
// protocol over the service's real socket, raw records, and waiting for and
// looking at the service's threads.
#pragma once

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "service/kelo_bpf_service.h"

namespace kelo_service_test {

using namespace std::chrono_literals;

// Polls `done` until it holds or `limit` passed; the limit only bounds a
// broken test.
inline bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 20s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// /proc status text of the thread called name; "" when there is none.
inline std::string ThreadStatus(const std::string& name) {
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir("/proc/self/task"), closedir);
  while (dirent* entry = readdir(tasks.get())) {
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    std::string comm, status;
    if (android::base::ReadFileToString(task + "/comm", &comm) && comm == name + "\n" &&
        android::base::ReadFileToString(task + "/status", &status)) {
      return status;
    }
  }
  return "";
}

inline bool HasThread(const std::string& name) { return !ThreadStatus(name).empty(); }

inline void SetReady(const char* value) {
  android::base::SetProperty(Kelo::Bpf::KeloBpfService::KELO_BPF_READY, value);
}

template <typename T>
std::string Bytes(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

// A raw ring-buffer record: type, 4 reserved bytes, ts, then the payload.
inline std::string Record(uint32_t type, const std::string& payload = "") {
  return Bytes(type) + Bytes(uint32_t{0}) + Bytes(uint64_t{1}) + payload;
}

// A request frame carrying one event type; dataSize is normally 4.
inline std::string Request(uint32_t reqId, uint32_t code, int32_t eventType, uint32_t dataSize = 4) {
  const uint32_t header[] = {24, IPC_PACKAGE_TYPE_REQUEST, 16, reqId, code, dataSize};
  return std::string(reinterpret_cast<const char*>(header), sizeof(header)) + Bytes(eventType);
}

struct Package {
  uint32_t type = 0;
  std::string payload;
  uint32_t Word(size_t index) const {
    uint32_t value = 0;
    memcpy(&value, payload.data() + index * 4, sizeof(value));
    return value;
  }
};

// One client connection to the service's socket.
class Client {
 public:
  // Connects, retrying until the service listens.
  bool Connect() {
    return WaitUntil([this] {
      fd_.reset();  // a retry takes the same descriptor number
      fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      const size_t length = strlen(Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME);
      memcpy(addr.sun_path + 1, Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME, length);
      const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
      return connect(fd_.get(), reinterpret_cast<sockaddr*>(&addr), size) == 0;
    });
  }
  bool Send(const std::string& bytes) { return android::base::WriteFully(fd_.get(), bytes.data(), bytes.size()); }
  void Close() { fd_.reset(); }

  // The next package, or nothing after `limit`.
  std::optional<Package> Next(std::chrono::milliseconds limit = 20s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    uint32_t size = 0;
    while (!HasFrame(&size)) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd readable = {fd_.get(), POLLIN, 0};
      const int ready = left.count() > 0 ? poll(&readable, 1, static_cast<int>(left.count())) : 0;
      if (ready < 0 && errno == EINTR) continue;  // a dump signal landed here
      char chunk[4096];
      const ssize_t n = ready > 0 ? read(fd_.get(), chunk, sizeof(chunk)) : 0;
      if (n <= 0) return std::nullopt;
      pending_.append(chunk, static_cast<size_t>(n));
    }
    Package package;
    memcpy(&package.type, pending_.data() + 4, 4);
    package.payload = pending_.substr(12, size - 8);
    pending_.erase(0, 4 + size);
    return package;
  }

  // Sends a request; the result of its response (same reqId), if one came.
  std::optional<int32_t> Ask(uint32_t reqId, uint32_t code, int32_t eventType) {
    if (!Send(Request(reqId, code, eventType))) return std::nullopt;
    std::optional<Package> response = Next();
    if (!response || response->type != IPC_PACKAGE_TYPE_RESPONSE || response->Word(0) != reqId) return std::nullopt;
    return static_cast<int32_t>(response->Word(1));
  }

  // The next package must be the event `record`.
  void ExpectEvent(const std::string& record) {
    std::optional<Package> package = Next();
    ASSERT_TRUE(package);
    EXPECT_EQ(package->type, Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT);
    EXPECT_EQ(package->payload, record);
  }

 private:
  bool HasFrame(uint32_t* size) const {
    if (pending_.size() < 4) return false;
    memcpy(size, pending_.data(), 4);
    return pending_.size() >= 4 + *size;
  }

  android::base::unique_fd fd_;
  std::string pending_;
};

}  // namespace kelo_service_test
