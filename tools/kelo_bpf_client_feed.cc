#include "tools/kelo_bpf_client_feed.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_protocol.h"

namespace Kelo {
namespace Bpf {
namespace {

void PutU32(std::string* out, uint32_t value) { out->append(reinterpret_cast<const char*>(&value), sizeof(value)); }

uint32_t GetU32(const char* bytes) {
  uint32_t value;
  memcpy(&value, bytes, sizeof(value));
  return value;
}

}  // namespace

EventFeed::EventFeed(android::base::unique_fd socket) : socket(std::move(socket)) {
  const int flags = fcntl(this->socket.get(), F_GETFL);
  if (flags >= 0) fcntl(this->socket.get(), F_SETFL, flags | O_NONBLOCK);
}

bool EventFeed::subscribe(const std::vector<int>& types, double timeoutSeconds, const EventFn& onEvent,
                          std::string* problem) {
  std::string requests;
  for (size_t i = 0; i < types.size(); ++i) {
    const uint32_t payload = KELO_BPF_REQUEST_HEADER_SIZE + KELO_BPF_SUBSCRIPTION_DATA_SIZE;
    PutU32(&requests, KELO_BPF_PACKAGE_HEADER_SIZE + payload);
    PutU32(&requests, KELO_BPF_PACKAGE_TYPE_REQUEST);
    PutU32(&requests, payload);
    PutU32(&requests, static_cast<uint32_t>(i));
    PutU32(&requests, REQ_ADD_OBSERVER_EVENT);
    PutU32(&requests, KELO_BPF_SUBSCRIPTION_DATA_SIZE);
    PutU32(&requests, static_cast<uint32_t>(types[i]));
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  size_t sent = 0;
  while (true) {
    if (sent < requests.size()) {
      const ssize_t n = send(socket.get(), requests.data() + sent, requests.size() - sent, MSG_NOSIGNAL);
      if (n > 0) sent += static_cast<size_t>(n);
      if (n < 0 && errno != EAGAIN && errno != EINTR) {
        *problem = std::string("cannot send the subscriptions: ") + strerror(errno);
        return false;
      }
    }
    if (!drain(onEvent, problem)) return false;
    size_t answered = 0;
    for (size_t i = 0; i < types.size(); ++i) {
      const auto found = results.find(static_cast<uint32_t>(i));
      if (found == results.end()) continue;
      if (found->second != 0) {
        *problem = StringPrintf("subscription of type %d refused: result %d", types[i], found->second);
        return false;
      }
      ++answered;
    }
    if (sent == requests.size() && answered == types.size()) return true;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      *problem = StringPrintf("the service did not answer the subscriptions within %.1f s", timeoutSeconds);
      return false;
    }
    pollfd p{socket.get(), static_cast<short>(POLLIN | (sent < requests.size() ? POLLOUT : 0)), 0};
    poll(&p, 1, static_cast<int>(left.count()) + 1);
  }
}

bool EventFeed::drain(const EventFn& onEvent, std::string* problem) {
  char buffer[65536];
  while (true) {
    const ssize_t got = recv(socket.get(), buffer, sizeof(buffer), 0);
    if (got > 0) {
      pending.append(buffer, static_cast<size_t>(got));
      if (!handleFrames(onEvent, problem)) return false;
      continue;
    }
    if (got == 0 || errno == ECONNRESET) {
      *problem = "the service closed the connection";
      return false;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
    *problem = std::string("cannot read from the service: ") + strerror(errno);
    return false;
  }
}

bool EventFeed::handleFrames(const EventFn& onEvent, std::string* problem) {
  size_t at = 0;
  while (pending.size() - at >= KELO_BPF_FRAME_LENGTH_SIZE + KELO_BPF_PACKAGE_HEADER_SIZE) {
    const uint32_t packageSize = GetU32(pending.data() + at);
    const uint32_t type = GetU32(pending.data() + at + 4);
    const uint32_t size = GetU32(pending.data() + at + 8);
    // The largest frame accepted is the service's own buffer size.
    if (packageSize < KELO_BPF_PACKAGE_HEADER_SIZE || packageSize > KELO_BPF_MAX_FRAME_SIZE ||
        size != packageSize - KELO_BPF_PACKAGE_HEADER_SIZE) {
      *problem =
          StringPrintf("the service sent a malformed frame (length %u, type %u, size %u)", packageSize, type, size);
      return false;
    }
    if (pending.size() - at < KELO_BPF_FRAME_LENGTH_SIZE + packageSize) break;
    const char* payload = pending.data() + at + KELO_BPF_FRAME_LENGTH_SIZE + KELO_BPF_PACKAGE_HEADER_SIZE;
    if (type == KELO_BPF_PACKAGE_TYPE_EVENT) {
      onEvent(payload, size);
    } else if (type == KELO_BPF_PACKAGE_TYPE_RESPONSE && size >= KELO_BPF_REQUEST_HEADER_SIZE) {
      results[GetU32(payload)] = static_cast<int32_t>(GetU32(payload + 4));
    }
    at += KELO_BPF_FRAME_LENGTH_SIZE + packageSize;
  }
  pending.erase(0, at);
  return true;
}

}  // namespace Bpf
}  // namespace Kelo
