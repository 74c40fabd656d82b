#include "utils/kelo_bpf_ipc_package_handler.h"

#include <android-base/logging.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "utils/kelo_bpf_log.h"

using Kelo::Bpf::LOG_TAG_UTILS;
using Kelo::Bpf::MutexLock;

IpcPackageHandler::IpcPackageHandler(const std::map<uint32_t, IpcPackageHandlerFunc>& handlers) : handlers(handlers) {}

bool IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer) {
  BufferState* const readBufferState = readBuffer;
  while (readBufferState->bufferCursor != readBufferState->bufferDataCursor) {
    uint32_t ipcPackageHeaderSize = 0;
    uint32_t packageSize = 0;
    // Also false after damage, which has already emptied the buffer.
    if (!CheckIpcPackageComplete(readBufferState, &ipcPackageHeaderSize, &packageSize)) return true;
    CHECK(readBufferState->read(ipcPackageHeaderSize) != nullptr);
    char* package = readBufferState->read(packageSize);
    if (handleSecondIpcPackage(fd, package, packageSize) == -1) return false;
  }
  return true;
}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* package, uint32_t size) {
  // The package may sit at any offset of the buffer: copy the header out. A
  // package shorter than the header leaves it partly zero, which fails the
  // check below just as a wrong size field does.
  KeloIpcSecondLevelPackageHeader header{};
  if (size != 0) memcpy(&header, package, std::min<size_t>(size, sizeof(header)));
  const KeloIpcSecondLevelPackageHeader* const packagePtr = &header;
  // The peer wrote both sizes: a disagreement is its fault, refused with -1
  // (the caller may close the connection), not a reason to abort.
  if (!KELO_PEER_CHECK(LOG_TAG_UTILS, packagePtr->size == size - sizeof(KeloIpcSecondLevelPackageHeader))) return -1;
  // Looked up without inserting: a peer sending many unknown types must not
  // grow the map.
  auto entry = handlers.find(packagePtr->type);
  if (entry == handlers.end() || !entry->second) return 0;
  return entry->second(fd, package + sizeof(KeloIpcSecondLevelPackageHeader), packagePtr->size);
}

uint32_t IpcReqCallBackManager::getReqId() {
  MutexLock lock(mutex);
  return nextReqId++;
}

bool IpcReqCallBackManager::addIpcReqCallBack(uint32_t reqId, IpcReqCallBack callback) {
  MutexLock lock(mutex);
  const bool absent = callbacks.find(reqId) == callbacks.end();
  callbacks[reqId] = std::move(callback);
  return absent;
}

bool IpcReqCallBackManager::delIpcReq(uint32_t reqId) {
  MutexLock lock(mutex);
  return callbacks.erase(reqId) != 0;
}

bool IpcReqCallBackManager::handleReqCallBack(KeloRespIpcPackage* response) {
  // A received payload at any offset of the read buffer: the header is copied
  // out and the data starts right behind it.
  KeloReqIpcPackageHeader header;
  char* const payload = reinterpret_cast<char*>(response);
  memcpy(&header, payload, sizeof(header));
  MutexLock lock(mutex);
  auto it = callbacks.find(header.reqId);
  if (it == callbacks.end()) {
    KELO_LOGE(LOG_TAG_UTILS, "[IRCB Manager] Unknow request callback functuin: reqId: %u", header.reqId);
    return false;
  }
  if (it->second) it->second(header.reqId, header.result, payload + sizeof(header), header.dataSize);
  callbacks.erase(it);
  return true;
}
