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
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_ipc_package_handler.h"
#include "utils/kelo_bpf_ipc_package_manager.h"
#include "utils/kelo_bpf_ipc_unix_manager.h"

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
  int onConnection(int fd);
  int onClose(int fd);
  int onReadable(int fd, BufferState* readBuffer);
  int onWriteable(int fd, BufferState* writeBuffer);
  int onResponsePackage(char* payload, uint32_t size);
  int onEventPackage(char* payload, uint32_t size);

  const std::vector<int> types;
  const KeloBpfClientCallbacks callbacks;
  // Request ids and the response callbacks of the subscriptions in flight.
  IpcReqCallBackManager requests;
  // The rest is touched only on the endpoint's worker thread.
  IpcPackageHandler packageHandler;
  // Outgoing requests of the current connection; a new connection starts
  // with a new queue.
  std::unique_ptr<IpcPackageManager> outgoing;
  // Request ids sent on the current connection, forgotten when it is lost.
  std::vector<uint32_t> sentReqIds;
  // Last member: destroyed first, so the worker is joined before anything
  // its callbacks use goes away.
  std::unique_ptr<UnixIpcManager> ipcManager;
};

}  // namespace Bpf
}  // namespace Kelo
