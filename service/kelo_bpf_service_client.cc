// The service's side of the client conversation: connection callbacks of the
// IPC endpoint, request handling and the per-connection outgoing queues. All
// of it runs on the IPC thread "BpfServiceTr", the only thread that opens
// and closes the registry's connections.
#include <android-base/logging.h>
#include <sys/types.h>

#include <atomic>

#include <cstring>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_service.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr int32_t RESULT_OK = 0;
constexpr int32_t RESULT_REFUSED = -1;

}  // namespace

int KeloBpfService::onClientLibConnection(int fd) {
  openClientQueue(fd);
  return 0;
}

int KeloBpfService::onClientLibClose(int fd) {
  // Subscriptions and queue go together, so that no producer queues an event
  // for this connection once its queue is gone.
  EventManager::GetInstance()->CloseConnection(fd);
  // Only now can no trim of its queue happen any more.
  losses.ConnectionClosed(fd);
  return 0;
}

int KeloBpfService::onClientLibReadable(int fd, BufferState* readBufferState) {
  while (!readBufferState->empty()) {
    uint32_t ipcPackageHeaderSize = 0;
    uint32_t dataSize = 0;
    if (!CheckIpcPackageComplete(readBufferState, &ipcPackageHeaderSize, &dataSize)) return 0;
    CHECK(readBufferState->read(ipcPackageHeaderSize) != nullptr);
    char* package = readBufferState->read(dataSize);
    if (packageHandler->handleSecondIpcPackage(fd, package, dataSize) != -1) continue;
    // Refused frames are damaged ones: the connection is closed for them.
    badFrames.fetch_add(1, std::memory_order_relaxed);

    const size_t frameSize = static_cast<size_t>(ipcPackageHeaderSize) + dataSize;
    KELO_LOGE(LOG_TAG_SERVICE,
              "[KeloBpfService] Resv event: bufferCursor (%zd), numSize (%zd), dataSize (%zd), readCount (%zd)",
              static_cast<ssize_t>(readBufferState->bufferCursor), static_cast<ssize_t>(ipcPackageHeaderSize),
              static_cast<ssize_t>(dataSize), static_cast<ssize_t>(readBufferState->bufferDataCursor));
    const char* frame = readBufferState->buffer.data() + readBufferState->bufferCursor - frameSize;
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] BUFFER HEXDUMP: %s",
              ConvertToHexString(frame, static_cast<int>(frameSize)).c_str());
    return -1;
  }
  return 0;
}

int KeloBpfService::onClientLibWriteable(int fd, BufferState* writeBufferState) {
  // Only this thread closes connections, so the queue outlives the lookup.
  IpcPackageManager* queue = EventManager::GetInstance()->QueueOf(fd);
  if (queue == nullptr) return 0;
  queue->beginSend();
  queue->fillNextIpcPackagesToBuffer(writeBufferState);
  return 0;
}

int KeloBpfService::onEventProvideReqCallBack(int fd, char* payload, unsigned int size) {
  // The request header may sit at any address in the read buffer: it is
  // copied out, and the check reads the copy (named as the check's text
  // names the request).
  KeloReqIpcPackageHeader data[1] = {};
  memcpy(data, payload, size < sizeof(data) ? size : sizeof(data));
  // Sent by a client, so not the service's invariant: the request is refused
  // and its connection closed, the service goes on.
  if (!KELO_PEER_CHECK(LOG_TAG_SERVICE,
                       ((KeloReqIpcPackageHeader*)data)->dataSize == size - sizeof(KeloReqIpcPackageHeader))) {
    return -1;
  }
  const KeloReqIpcPackageHeader& request = data[0];

  KeloRespIpcPackage response = {request.reqId, RESULT_REFUSED, 0, nullptr};
  int32_t argument = 0;
  const bool hasArgument = request.dataSize >= sizeof(argument);
  if (hasArgument) memcpy(&argument, payload + sizeof(KeloReqIpcPackageHeader), sizeof(argument));
  if (hasArgument && request.reqType == REQ_DEL_OBSERVER_EVENT) {
    EventManager::GetInstance()->DelObserverEvent(fd, argument);
    response.result = RESULT_OK;
  } else if (hasArgument && request.reqType == REQ_ADD_OBSERVER_EVENT) {
    EventManager::GetInstance()->AddObserverEvent(fd, argument);
    response.result = RESULT_OK;
  } else if (hasArgument && request.reqType == REQ_SET_PACING && (argument == 0 || argument == 1)) {
    EventManager::GetInstance()->SetPacing(fd, argument == 1);
    response.result = RESULT_OK;
  }

  // Only this thread closes connections, so the queue outlives the lookup.
  IpcPackageManager* queue = openClientQueue(fd);
  queue->appendRespIpcPackage(&response);
  ipcManager->notifyNeedWriteData(fd);
  return 0;
}

}  // namespace Bpf
}  // namespace Kelo
