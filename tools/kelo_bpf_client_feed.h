// A subscriber that is read only when its owner asks: one connection to the
// service, no thread of its own. `top` drains it once per refresh, so that
// it wakes once a refresh whatever the event rate, and while it does not
// read, the service's writes to it gather in the socket's buffer and leave
// in batches once the buffer is full.
//
// Frames are those of the service's package protocol: u32 packageSize,
// u32 type, u32 size (= packageSize - 8), payload. Responses (type 1) carry
// reqId, result and dataSize; events (type 3) carry the record.
//
// Not thread-safe: one thread owns a feed.
#pragma once

#include <android-base/unique_fd.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {

class EventFeed {
 public:
  using EventFn = std::function<void(const char* record, size_t size)>;

  // Takes a connected stream socket (made non-blocking here).
  explicit EventFeed(android::base::unique_fd socket);

  // Sends one subscription request per type (request ids from 0) and reads
  // until every one is answered, handing events that come meanwhile to
  // onEvent. False, with `problem` set, when one is refused, the connection
  // ends or `timeoutSeconds` pass first.
  bool subscribe(const std::vector<int>& types, double timeoutSeconds, const EventFn& onEvent, std::string* problem);

  // Reads what has arrived, without waiting, and hands every whole event
  // record to onEvent. False, with `problem` set, when the service closed
  // the connection or sent something that is not a frame.
  bool drain(const EventFn& onEvent, std::string* problem);

 private:
  // Handles the whole frames in `pending`; false for a malformed one.
  bool handleFrames(const EventFn& onEvent, std::string* problem);

  android::base::unique_fd socket;
  // Bytes after the last whole frame.
  std::string pending;
  // Results of the answered requests by request id.
  std::map<uint32_t, int32_t> results;
};

}  // namespace Bpf
}  // namespace Kelo
