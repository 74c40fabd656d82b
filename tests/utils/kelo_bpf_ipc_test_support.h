// Shared pieces of the IPC framework tests: waiting for something another
// thread does, the error log under the sandbox's private /data, and raw
// client sockets that play the peer byte by byte.
#pragma once

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "utils/kelo_bpf_error_log.h"

namespace kelo_ipc_test {

// Polls `done` until it holds or `limit` passed; the limit only bounds a
// broken test, it is not a speed requirement.
inline bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline bool InSandbox() {
  const char* sandboxed = getenv("KELO_IN_SANDBOX");
  return sandboxed != nullptr && std::string(sandboxed) == "1";
}

// A fresh error log in the sandbox's private /data.
inline void ResetErrorLog() {
  mkdir("/data/kelolog", 0775);
  mkdir("/data/kelolog/stability", 0775);
  Kelo::Bpf::InitBpfServiceErrorLog();
  unlink(Kelo::Bpf::ERROR_LOG_OLD_PATH);
}

inline std::string ErrorLogText() {
  std::string text;
  android::base::ReadFileToString(Kelo::Bpf::ERROR_LOG_PATH, &text);
  return text;
}

inline int ErrorLogCount(int code) {
  const std::string all = ErrorLogText();
  const std::string needle = "ErrorCode: " + std::to_string(code) + "\n";
  int found = 0;
  for (size_t p = all.find(needle); p != std::string::npos; p = all.find(needle, p + 1)) ++found;
  return found;
}

// A blocking client socket connected to the abstract name.
inline android::base::unique_fd RawConnect(const std::string& name) {
  android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path + 1, name.data(), name.size());
  const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), len) != 0) return {};
  return fd;
}

inline bool SendAll(int fd, const std::string& bytes) {
  return android::base::WriteFully(fd, bytes.data(), bytes.size());
}

// Frame bytes: length field, level-2 header, payload.
inline std::string Frame(uint32_t type, const std::string& payload) {
  const uint32_t header[] = {static_cast<uint32_t>(payload.size() + 8), type, static_cast<uint32_t>(payload.size())};
  return std::string(reinterpret_cast<const char*>(header), sizeof(header)) + payload;
}

inline std::string U32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), sizeof(value)); }

}  // namespace kelo_ipc_test
