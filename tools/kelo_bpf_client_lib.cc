#include "tools/kelo_bpf_client_lib.h"

#include <cstring>
#include <map>
#include <utility>

#include "service/kelo_bpf_protocol.h"
#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_ipc_package_handler.h"
#include "utils/kelo_bpf_ipc_package_manager.h"
#include "utils/kelo_bpf_ipc_unix_manager.h"

namespace Kelo {
namespace Bpf {
namespace {

// The service's own buffer size, so that every frame it can send fits.
constexpr int CLIENT_BUFFER_SIZE = KELO_BPF_MAX_FRAME_SIZE;
// One connection to watch, plus the endpoint's control descriptor.
constexpr int CLIENT_EPOLL_SIZE = 2;
constexpr int CLIENT_MAX_EVENTS = 8;

static_assert(IPC_PACKAGE_TYPE_RESPONSE == KELO_BPF_PACKAGE_TYPE_RESPONSE, "package types of the client protocol");
static_assert(sizeof(KeloReqIpcPackageHeader) == KELO_BPF_REQUEST_HEADER_SIZE, "request header of the client protocol");

}  // namespace

class KeloBpfClient::Impl {
 public:
  Impl(std::string socketName, std::vector<int> types, KeloBpfClientCallbacks callbacks)
      : types(std::move(types)),
        callbacks(std::move(callbacks)),
        packageHandler(std::map<uint32_t, IpcPackageHandlerFunc>{
            {KELO_BPF_PACKAGE_TYPE_RESPONSE,
             [this](int, char* payload, uint32_t size) { return onResponsePackage(payload, size); }},
            {KELO_BPF_PACKAGE_TYPE_EVENT,
             [this](int, char* payload, uint32_t size) { return onEventPackage(payload, size); }},
        }),
        outgoing(std::make_unique<IpcPackageManager>()) {
    IpcHandlerState handlerState;
    // Frames may straddle receives; compacting keeps the whole buffer free for
    // the rest of a frame.
    handlerState.compactReadBuffer = true;
    // A stream that cannot be parsed is dropped and the connection made anew.
    handlerState.closeOnError = true;
    handlerState.onReadable = [this](int fd, BufferState* buffer) { return onReadable(fd, buffer); };
    handlerState.onWriteable = [this](int fd, BufferState* buffer) { return onWriteable(fd, buffer); };
    handlerState.onConnection = [this](int fd) { return onConnection(fd); };
    handlerState.onClose = [this](int fd) { return onClose(fd); };
    ipcManager =
        std::make_unique<UnixIpcManager>(false, CLIENT_BUFFER_SIZE, std::move(socketName), std::move(handlerState),
                                         THREAD_NAME, CLIENT_EPOLL_SIZE, CLIENT_MAX_EVENTS);
  }

  ~Impl() {
    ipcManager->stop();
    ipcManager.reset();
  }

  bool start() { return ipcManager->start(); }
  void stop() { ipcManager->stop(); }

 private:
  int onConnection(int fd) {
    outgoing = std::make_unique<IpcPackageManager>();
    for (int type : types) {
      const uint32_t reqId = requests.getReqId();
      requests.addIpcReqCallBack(reqId, [this, type](uint32_t id, int result, char*, uint32_t) {
        if (callbacks.onResponse) callbacks.onResponse(id, type, result);
        return 0;
      });
      sentReqIds.push_back(reqId);
      KeloReqIpcPackage request{reqId, REQ_ADD_OBSERVER_EVENT, sizeof(type), reinterpret_cast<const char*>(&type)};
      outgoing->appendReqIpcPackage(&request);
    }
    ipcManager->notifyNeedWriteData(fd);
    return 0;
  }

  int onClose(int /*fd*/) {
    // Requests lost with the connection are never answered; the next
    // connection subscribes afresh.
    for (uint32_t reqId : sentReqIds) requests.delIpcReq(reqId);
    sentReqIds.clear();
    outgoing = std::make_unique<IpcPackageManager>();
    return 0;
  }

  int onReadable(int fd, BufferState* readBuffer) {
    return packageHandler.handleAllIpcPackageInBuffer(fd, readBuffer) ? 0 : -1;
  }

  int onWriteable(int /*fd*/, BufferState* writeBuffer) {
    while (outgoing->fillNextIpcPackageToBuffer(writeBuffer)) {
    }
    return 0;
  }

  int onResponsePackage(char* payload, uint32_t size) {
    // Shorter than a response header: not a response of this protocol.
    if (size < sizeof(KeloReqIpcPackageHeader)) return -1;
    requests.handleReqCallBack(reinterpret_cast<KeloRespIpcPackage*>(payload));
    return 0;
  }

  int onEventPackage(char* payload, uint32_t size) {
    if (callbacks.onEvent) callbacks.onEvent(payload, size);
    return 0;
  }

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

KeloBpfClient::KeloBpfClient(std::string socketName, std::vector<int> types, KeloBpfClientCallbacks callbacks)
    : impl(std::make_unique<Impl>(std::move(socketName), std::move(types), std::move(callbacks))) {}

KeloBpfClient::~KeloBpfClient() = default;

bool KeloBpfClient::start() { return impl->start(); }

void KeloBpfClient::stop() { impl->stop(); }

}  // namespace Bpf
}  // namespace Kelo
