// A peer that speaks the package protocol over a real Unix socket: frames
// built byte by byte, sent raw, and read back whole.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kelo_test {

template <typename T>
std::string Bytes(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}
inline std::string U32(uint32_t value) { return Bytes(value); }
// A ring-buffer record: type, 4 reserved bytes, time, then the payload.
inline std::string RawRecord(uint32_t type, uint64_t ts = 1, const std::string& payload = "") {
  return U32(type) + U32(0) + Bytes(ts) + payload;
}

// A frame: length field, level-2 header (type, payload size), payload.
std::string Frame(uint32_t type, const std::string& payload);
// A request frame carrying one event type; dataSize is normally 4.
std::string Request(uint32_t reqId, uint32_t code, int32_t eventType, uint32_t dataSize = 4);

// One received frame.
struct Package {
  uint32_t type = 0;
  std::string payload;
  // The index-th 32-bit word of the payload.
  uint32_t Word(size_t index) const;
};

// One blocking client connection to an abstract socket name.
class IpcClient {
 public:
  explicit IpcClient(std::string socketName) : name_(std::move(socketName)) {}

  // Connects, retrying until the server listens.
  bool Connect();
  bool Send(const std::string& bytes);
  void Close() { fd_.reset(); }

  // The next frame, or nothing once `limit` passed or the peer closed.
  std::optional<Package> Next(std::chrono::milliseconds limit = std::chrono::seconds(30));
  // Sends a request; the result of the next package if it is the response
  // to that reqId.
  std::optional<int32_t> Ask(uint32_t reqId, uint32_t code, int32_t eventType);
  // The next package must be the event package of `record`.
  void ExpectEvent(const std::string& record);

 private:
  const std::string name_;
  android::base::unique_fd fd_;
  std::string pending_;  // bytes read beyond the last whole frame
};

}  // namespace kelo_test
