#include "tests/support/ipc_client.h"

#include <android-base/file.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "service/kelo_bpf_event_manager.h"
#include "tests/support/wait.h"
#include "utils/kelo_bpf_ipc_package.h"

namespace kelo_test {

std::string Frame(uint32_t type, const std::string& payload) {
  const auto size = static_cast<uint32_t>(payload.size());
  return U32(size + 8) + U32(type) + U32(size) + payload;
}

std::string Request(uint32_t reqId, uint32_t code, int32_t eventType, uint32_t dataSize) {
  return Frame(IPC_PACKAGE_TYPE_REQUEST, U32(reqId) + U32(code) + U32(dataSize) + Bytes(eventType));
}

uint32_t Package::Word(size_t index) const {
  uint32_t value = 0;
  memcpy(&value, payload.data() + index * 4, sizeof(value));
  return value;
}

bool IpcClient::Connect() {
  return WaitUntil([this] {
    fd_.reset();  // a retry takes the same descriptor number
    fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name_.data(), name_.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
    return connect(fd_.get(), reinterpret_cast<sockaddr*>(&addr), size) == 0;
  });
}

bool IpcClient::Send(const std::string& bytes) {
  return android::base::WriteFully(fd_.get(), bytes.data(), bytes.size());
}

std::optional<Package> IpcClient::Next(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  uint32_t size = 0;
  const auto whole = [&] {
    if (pending_.size() < 4) return false;
    memcpy(&size, pending_.data(), 4);
    return pending_.size() >= 4 + size;
  };
  while (!whole()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd readable = {fd_.get(), POLLIN, 0};
    const int ready = left.count() > 0 ? poll(&readable, 1, static_cast<int>(left.count())) : 0;
    if (ready < 0 && errno == EINTR) continue;  // a signal sent by the test landed here
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

std::optional<int32_t> IpcClient::Ask(uint32_t reqId, uint32_t code, int32_t eventType) {
  if (!Send(Request(reqId, code, eventType))) return std::nullopt;
  std::optional<Package> response = Next();
  if (!response || response->type != IPC_PACKAGE_TYPE_RESPONSE || response->Word(0) != reqId) {
    return std::nullopt;
  }
  return static_cast<int32_t>(response->Word(1));
}

void IpcClient::ExpectEvent(const std::string& record) {
  std::optional<Package> package = Next();
  ASSERT_TRUE(package);
  EXPECT_EQ(package->type, Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT);
  EXPECT_EQ(package->payload, record);
}

}  // namespace kelo_test
