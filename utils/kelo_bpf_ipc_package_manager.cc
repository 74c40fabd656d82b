#include "utils/kelo_bpf_ipc_package_manager.h"

#include <android-base/logging.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "helper/kelo_bpf_helper_strings.h"
#include "utils/kelo_bpf_error_log.h"
#include "utils/kelo_bpf_log.h"

using Kelo::Bpf::LOG_TAG_UTILS;
using Kelo::Bpf::MutexLock;

namespace {

// A package this long or longer cannot carry its own 4-byte length field.
constexpr uint32_t DAMAGED_PACKAGE_SIZE = UINT32_MAX - IPC_FRAME_HEADER_SIZE + 1;

constexpr uint32_t SECOND_LEVEL_HEADER_SIZE = sizeof(KeloIpcSecondLevelPackageHeader);
constexpr uint32_t REQUEST_HEADER_SIZE = sizeof(KeloReqIpcPackageHeader);

// Level-2 package of `type` around the request header and its data.
KeloIpcPackage SerialiseRequest(uint32_t type, uint32_t reqId, uint32_t secondWord, uint32_t dataSize,
                                const char* data) {
  KeloIpcPackage package;
  package.size = SECOND_LEVEL_HEADER_SIZE + REQUEST_HEADER_SIZE + dataSize;
  package.data.resize(package.size);
  const KeloIpcSecondLevelPackageHeader second{type, REQUEST_HEADER_SIZE + dataSize};
  const uint32_t request[] = {reqId, secondWord, dataSize};
  static_assert(sizeof(request) == REQUEST_HEADER_SIZE, "request header layout");
  char* out = package.data.data();
  memcpy(out, &second, sizeof(second));
  memcpy(out + SECOND_LEVEL_HEADER_SIZE, request, sizeof(request));
  if (dataSize != 0) memcpy(out + SECOND_LEVEL_HEADER_SIZE + REQUEST_HEADER_SIZE, data, dataSize);
  return package;
}

// Whether a package of `size` bytes plus its length field fits in `free` bytes.
bool FrameFits(uint32_t size, size_t free) { return static_cast<uint64_t>(size) + IPC_FRAME_HEADER_SIZE <= free; }

}  // namespace

void IpcPackageManager::appendRespIpcPackage(KeloRespIpcPackage* resp) {
  // The signed result travels as its two's-complement bit pattern.
  const uint32_t result = static_cast<uint32_t>(resp->result);
  appendPackage(SerialiseRequest(IPC_PACKAGE_TYPE_RESPONSE, resp->reqId, result, resp->dataSize, resp->data),
                AppendForm::RESPONSE);
}

void IpcPackageManager::appendReqIpcPackage(KeloReqIpcPackage* req) {
  appendPackage(SerialiseRequest(IPC_PACKAGE_TYPE_REQUEST, req->reqId, req->reqType, req->dataSize, req->data),
                AppendForm::REQUEST);
}

KeloIpcPackage IpcPackageManager::SerialiseSecondLevel(uint32_t type, const char* data, uint32_t size) {
  KeloIpcPackage package;
  package.size = SECOND_LEVEL_HEADER_SIZE + size;
  package.data.resize(package.size);
  const KeloIpcSecondLevelPackageHeader header{type, size};
  memcpy(package.data.data(), &header, sizeof(header));
  if (size != 0) memcpy(package.data.data() + SECOND_LEVEL_HEADER_SIZE, data, size);
  return package;
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(uint32_t type, const char* data, uint32_t size) {
  if (type > IPC_PACKAGE_TYPE_MAX) return false;
  appendPackage(SerialiseSecondLevel(type, data, size), AppendForm::SECOND_LEVEL);
  return true;
}

bool IpcPackageManager::buildAndPushFrontSecondIpcPackage(uint32_t type, const char* data, uint32_t size) {
  if (type > IPC_PACKAGE_TYPE_MAX) return false;
  appendPackage(SerialiseSecondLevel(type, data, size), AppendForm::SECOND_LEVEL, true);
  return true;
}

void IpcPackageManager::buildAndAppendIpcPackage(const char* data, uint32_t size) {
  KeloIpcPackage package;
  package.size = size;
  package.data.resize(size);
  if (size != 0) memcpy(package.data.data(), data, size);
  appendPackage(std::move(package), AppendForm::BUILD_AND_APPEND);
}

void IpcPackageManager::appendPackage(KeloIpcPackage&& package, AppendForm form, bool front) {
  int errorCode = Kelo::Bpf::ERROR_CODE_QUEUE_FULL_BUILD_AND_APPEND;
  const char* overflowText = "[BuildAndAppendIpc] ipc Package Queue too big: %zu";
  switch (form) {
    case AppendForm::BUILD_AND_APPEND:
      break;
    case AppendForm::SECOND_LEVEL:
      errorCode = Kelo::Bpf::ERROR_CODE_QUEUE_FULL_SECOND_LEVEL;
      overflowText = "[AppendSecondIpc] ipc Package Queue too big: %zu";
      break;
    case AppendForm::REQUEST:
      errorCode = Kelo::Bpf::ERROR_CODE_QUEUE_FULL_REQUEST;
      overflowText = "[AppendReqIpc] ipc Package Queue too big: %zu";
      break;
    case AppendForm::RESPONSE:
      errorCode = Kelo::Bpf::ERROR_CODE_QUEUE_FULL_RESPONSE;
      overflowText = "[AppendRespIpc] ipc Package Queue too big: %zu";
      break;
  }

  // Freed (and shown to the listener) once the lock is let go. Made only
  // by a trim: an empty deque allocates, and this is every append's path.
  std::optional<std::deque<KeloIpcPackage>> removed;
  {
    MutexLock lock(mutex);
    if (queue.size() > IPC_QUEUE_HIGH_WATER) {
      Kelo::Bpf::RecordBpfServiceErrorInfo(
          errorCode, Kelo::Bpf::StringPrintf("B&A Ipc Package queue full %d", static_cast<int>(IPC_QUEUE_HIGH_WATER)));
      KELO_LOGE(LOG_TAG_UTILS, overflowText, queue.size());
      removed.emplace();
      while (queue.size() > IPC_QUEUE_LOW_WATER) {
        removed->push_back(std::move(queue.front()));
        queue.pop_front();
      }
    }
    if (front) {
      queue.push_front(std::move(package));
    } else {
      queue.push_back(std::move(package));
    }
    count.store(queue.size(), std::memory_order_relaxed);
    if (waiters != 0) eventReady.notify_all();
  }
  if (removed && !removed->empty() && trimListener) trimListener(*removed);
}

void IpcPackageManager::popFront() {
  queue.pop_front();
  count.store(queue.size(), std::memory_order_relaxed);
}

bool IpcPackageManager::dropUnsendableFront(const BufferState* bufferState, int errorCode, const char* errorText) {
  const uint32_t size = queue.front().size;
  if (size >= DAMAGED_PACKAGE_SIZE) {
    KELO_LOGE(LOG_TAG_UTILS, "The ipc package is damaged! remove this package");
    popFront();
    return true;
  }
  if (!FrameFits(size, bufferState->bufferSize())) {
    Kelo::Bpf::RecordBpfServiceErrorInfo(errorCode, errorText);
    KELO_LOGE(LOG_TAG_UTILS, "The ipc package is too big! remove this package");
    popFront();
    return true;
  }
  return false;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
  MutexLock lock(mutex);
  return fillNextLocked(buffer);
}

size_t IpcPackageManager::fillNextIpcPackagesToBuffer(BufferState* buffer) {
  MutexLock lock(mutex);
  size_t moved = 0;
  while (fillNextLocked(buffer)) ++moved;
  return moved;
}

bool IpcPackageManager::fillNextLocked(BufferState* bufferState) {
  if (queue.empty()) return false;
  if (dropUnsendableFront(bufferState, Kelo::Bpf::ERROR_CODE_OVERSIZED_SINGLE_FILL,
                          "fillNextIpcPackageToBuffer ipc package damaged")) {
    return false;
  }
  const KeloIpcPackage& ipcPackage = queue.front();
  if (!FrameFits(ipcPackage.size, bufferState->bufferSize() - bufferState->bufferDataCursor)) return false;
  CHECK(bufferState->write(ipcPackage.size));
  CHECK(bufferState->write(ipcPackage.data));
  popFront();
  return true;
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
  BufferState* const bufferState = buffer;
  MutexLock lock(mutex);
  if (queue.empty()) return false;
  while (!queue.empty()) {
    const KeloIpcPackage& ipcPackage = queue.front();
    if (!FrameFits(ipcPackage.size, bufferState->bufferSize() - bufferState->bufferDataCursor)) break;
    CHECK(bufferState->write(ipcPackage.size));
    CHECK(bufferState->write(ipcPackage.data));
    popFront();
  }
  // Only the package that stopped the filling can be one that never fits.
  if (queue.empty()) return true;
  return !dropUnsendableFront(bufferState, Kelo::Bpf::ERROR_CODE_OVERSIZED_BULK_FILL,
                              "fillIpcPackageToBuffer ipc package damaged");
}

void IpcPackageManager::waitEventReady(int timeoutMs) {
  if (count.load(std::memory_order_relaxed) != 0) return;
  using Clock = std::chrono::steady_clock;
  const Clock::time_point now = Clock::now();
  // Clamp a deadline beyond the clock's range to its largest value.
  const auto wanted = std::chrono::milliseconds(timeoutMs > 0 ? timeoutMs : 0);
  const Clock::time_point deadline =
      wanted < std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now)
          ? now + wanted
          : Clock::time_point::max();
  std::unique_lock<std::mutex> lock(mutex.native());
  // The analysis cannot see that `lock` holds mutex.
  auto enter = [this]() NO_THREAD_SAFETY_ANALYSIS { ++waiters; };
  auto leave = [this]() NO_THREAD_SAFETY_ANALYSIS { --waiters; };
  enter();
  eventReady.wait_until(lock, deadline, [this] { return count.load(std::memory_order_relaxed) != 0; });
  leave();
}

void IpcPackageManager::notifyEventReady() { eventReady.notify_all(); }
