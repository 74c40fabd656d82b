// A subscriber of the service's event feed: one connection to the service's
// socket, subscribed to a fixed list of event types.
//
// The connection is made and, when lost, made again by the IPC framework's
// client endpoint (UnixIpcManager in client mode, which retries every
// UnixIpcManager::CONNECT_RETRY_INTERVAL until the service is there). On
// every connection the subscriber sends one subscribe request (code
// REQ_ADD_OBSERVER_EVENT) per event type, each with its own request id, and
// hands each response to onResponse with the type it answers. Every event
// package (level-2 type 3) is handed to onEvent with its record.
//
// Callbacks run on the endpoint's worker thread, one at a time, and must not
// call back into the subscriber.
//
// Installed as <kelobpf/kelo_bpf_client_lib.h> with libkelobpf.so; it depends
// on the C++ standard library only. The protocol's constants (socket name,
// request codes) are in <kelobpf/kelo_bpf_protocol.h>, the record layouts in
// <kelobpf/kelo_bpf_events.h>.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {

struct KeloBpfClientCallbacks {
  // The response to the subscription of `type`, sent with request id reqId.
  std::function<void(uint32_t reqId, int type, int result)> onResponse;
  // One event record: the payload of an event package, `size` bytes at any
  // alignment.
  std::function<void(const char* record, uint32_t size)> onEvent;
};

class KeloBpfClient {
 public:
  // Name of the endpoint's worker thread and tag of its log lines.
  static constexpr char THREAD_NAME[] = "KeloBpfClient";

  KeloBpfClient(std::string socketName, std::vector<int> types, KeloBpfClientCallbacks callbacks);
  // Stops the endpoint and joins its worker.
  ~KeloBpfClient();

  KeloBpfClient(const KeloBpfClient&) = delete;
  KeloBpfClient& operator=(const KeloBpfClient&) = delete;

  // Starts the worker, which connects (waiting for the service as long as
  // it takes) and subscribes; false when the endpoint could not be set up.
  bool start();
  // Ends the worker's loop, or its wait for the service, without waiting.
  void stop();

 private:
  // The endpoint, its queues and handlers (kelo_bpf_client_lib.cc).
  class Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace Bpf
}  // namespace Kelo
