// The receiving side of the package protocol: IpcPackageHandler takes whole
// frames out of a connection's read buffer and dispatches each level-2 package
// by its type; IpcReqCallBackManager hands out request ids and delivers each
// response to the one-shot callback registered for its id.
#pragma once

#include <android-base/thread_annotations.h>

#include <cstdint>
#include <functional>
#include <map>

#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_mutex.h"

// Handles the payload of one level-2 package: (fd, payload, payload length).
using IpcPackageHandlerFunc = std::function<int(int fd, char* data, uint32_t size)>;
// Receives one response: (reqId, result, data, dataSize).
using IpcReqCallBack = std::function<int(uint32_t reqId, int result, char* data, uint32_t dataSize)>;

// Used only on the connection's worker thread; it has no lock.
class IpcPackageHandler {
 public:
  // Package type -> handler. Types without a handler (or with an empty one)
  // are dropped silently.
  IpcPackageHandler(const std::map<uint32_t, IpcPackageHandlerFunc>& handlers);

  // Dispatches every whole frame in the buffer, in order. Returns false as
  // soon as a handler returns -1 (that frame is consumed, the rest stays for
  // the next call); true once the buffer holds no further whole frame.
  bool handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer);
  // Dispatches the level-2 package of `size` bytes at `package` and returns
  // the handler's result, 0 when the type has no handler. A header whose size
  // field disagrees with `size` is logged ("Check failed: ...") and refused
  // with -1.
  int handleSecondIpcPackage(int fd, char* package, uint32_t size);

  // Number of package types with an entry; lookups never add one.
  size_t handlerCount() const { return handlers.size(); }

 private:
  std::map<uint32_t, IpcPackageHandlerFunc> handlers;
};

// Thread-safe. Callbacks run under the manager's lock and must not call back
// into the same manager.
class IpcReqCallBackManager {
 public:
  // 0, 1, 2, ... wrapping at 2^32.
  uint32_t getReqId();
  // Registers the callback for reqId, replacing an earlier one; true if
  // reqId had none.
  bool addIpcReqCallBack(uint32_t reqId, IpcReqCallBack callback);
  // Forgets reqId; true if it was registered.
  bool delIpcReq(uint32_t reqId);
  // `response` points at a received response payload: the 12-byte request
  // header, then its data. Runs and forgets the callback of its reqId; false
  // (and logged) when none is registered.
  bool handleReqCallBack(KeloRespIpcPackage* response);

 private:
  uint32_t nextReqId GUARDED_BY(mutex) = 0;
  // Guards nextReqId and callbacks, and is held while a callback runs.
  Kelo::Bpf::Mutex mutex;
  std::map<uint32_t, IpcReqCallBack> callbacks GUARDED_BY(mutex);
};
