#include "utils/kelo_bpf_ipc_package_manager.h"

#include <android-base/logging.h>

#include <algorithm>
#include <chrono>
#include <cstring>
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

void IpcPackageManager::trimLocked(AppendForm form, std::optional<std::deque<KeloIpcPackage>>* removed) {
  if (queued <= IPC_QUEUE_HIGH_WATER) return;
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
  Kelo::Bpf::RecordBpfServiceErrorInfo(
      errorCode, Kelo::Bpf::StringPrintf("B&A Ipc Package queue full %d", static_cast<int>(IPC_QUEUE_HIGH_WATER)));
  KELO_LOGE(LOG_TAG_UTILS, overflowText, queued);
  removed->emplace();
  while (queued > IPC_QUEUE_LOW_WATER) {
    Entry& entry = queue.front();
    if (entry.frames == 0) {
      removed->value().push_back(std::move(entry.package));
      --queued;
    } else {
      // The listener sees a run's packages one by one.
      const char* run = entry.runData();
      size_t at = 0;
      for (uint32_t i = 0; i < entry.frames; ++i) {
        uint32_t size = 0;
        memcpy(&size, run + at, sizeof(size));
        KeloIpcPackage package;
        package.size = size;
        package.data.resize(size);
        memcpy(package.data.data(), run + at + IPC_FRAME_HEADER_SIZE, size);
        removed->value().push_back(std::move(package));
        at += IPC_FRAME_HEADER_SIZE + size;
      }
      queued -= entry.frames;
    }
    queue.pop_front();
  }
}

void IpcPackageManager::reportTrim(const std::optional<std::deque<KeloIpcPackage>>& removed) {
  if (removed && !removed->empty() && trimListener) trimListener(*removed);
}

void IpcPackageManager::appendPackage(KeloIpcPackage&& package, AppendForm form, bool front) {
  // Freed (and shown to the listener) once the lock is let go. Made only
  // by a trim: an empty deque allocates, and this is every append's path.
  std::optional<std::deque<KeloIpcPackage>> removed;
  {
    MutexLock lock(mutex);
    trimLocked(form, &removed);
    Entry entry;
    entry.package = std::move(package);
    if (front) {
      queue.push_front(std::move(entry));
    } else {
      queue.push_back(std::move(entry));
    }
    ++queued;
    count.store(queued, std::memory_order_relaxed);
    if (waiters != 0) eventReady.notify_all();
  }
  reportTrim(removed);
}

bool IpcPackageManager::appendEventToRun(uint32_t type, const char* data, uint32_t size) {
  if (type > IPC_PACKAGE_TYPE_MAX) return false;
  char prefix[IPC_FRAME_PREFIX_SIZE];
  WriteFramePrefix(type, size, prefix);
  std::optional<std::deque<KeloIpcPackage>> removed;
  {
    MutexLock lock(mutex);
    trimLocked(AppendForm::SECOND_LEVEL, &removed);
    appendToRunLocked(prefix, sizeof(prefix), data, size, 1);
    noteAppendedLocked(1);
  }
  reportTrim(removed);
  return true;
}

void IpcPackageManager::appendSharedFrames(const FrameBlock& block, const std::vector<FrameSlice>& slices, bool copy) {
  std::optional<std::deque<KeloIpcPackage>> removed;
  {
    MutexLock lock(mutex);
    trimLocked(AppendForm::SECOND_LEVEL, &removed);
    uint32_t frames = 0;
    for (const FrameSlice& slice : slices) {
      if (slice.frames == 0) continue;
      if (copy) {
        appendToRunLocked(block->data() + slice.offset, slice.bytes, nullptr, 0, slice.frames);
      } else {
        Entry& run = queue.emplace_back();
        run.block = block;
        run.offset = slice.offset;
        run.bytes = slice.bytes;
        run.frames = slice.frames;
      }
      frames += slice.frames;
    }
    noteAppendedLocked(frames);
  }
  reportTrim(removed);
}

void IpcPackageManager::appendToRunLocked(const char* head, size_t headBytes, const char* tail, size_t tailBytes,
                                          uint32_t frameCount) {
  const size_t bytes = headBytes + tailBytes;
  if (queue.empty() || queue.back().frames == 0 || !queue.back().own ||
      queue.back().own->size() + bytes > EVENT_RUN_BYTES) {
    Entry& run = queue.emplace_back();
    run.own = std::make_shared<std::string>();
    run.own->reserve(std::max(EVENT_RUN_BYTES, bytes));
    run.block = run.own;
  }
  Entry& run = queue.back();
  // An own run ends where its buffer ends, also once the sender took a part.
  run.own->append(head, headBytes);
  if (tailBytes != 0) run.own->append(tail, tailBytes);
  run.bytes += bytes;
  run.frames += frameCount;
}

void IpcPackageManager::noteAppendedLocked(uint32_t frames) {
  queued += frames;
  count.store(queued, std::memory_order_relaxed);
  if (waiters != 0) eventReady.notify_all();
}

void IpcPackageManager::popFront() {
  const uint32_t frames = queue.front().frames;
  queued -= frames == 0 ? 1 : frames;
  queue.pop_front();
  noteTakenLocked();
}

void IpcPackageManager::noteTakenLocked() {
  count.store(queued, std::memory_order_relaxed);
  if (drainWaiters != 0 && queued <= drainDepth) drained.notify_all();
}

bool IpcPackageManager::dropUnsendableFront(const BufferState* bufferState, int errorCode, const char* errorText) {
  Entry& entry = queue.front();
  if (entry.frames != 0) {
    // A run's frames are whole and far below the damaged size; only a buffer
    // smaller than its first frame can refuse it, which then goes alone.
    if (entry.bytes <= bufferState->bufferSize()) return false;
    uint32_t size = 0;
    memcpy(&size, entry.runData(), sizeof(size));
    if (FrameFits(size, bufferState->bufferSize())) return false;
    Kelo::Bpf::RecordBpfServiceErrorInfo(errorCode, errorText);
    KELO_LOGE(LOG_TAG_UTILS, "The ipc package is too big! remove this package");
    consumeRunLocked(&entry, IPC_FRAME_HEADER_SIZE + size, 1);
    return true;
  }
  const uint32_t size = entry.package.size;
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

void IpcPackageManager::consumeRunLocked(Entry* run, size_t bytes, uint32_t frames) {
  if (frames == run->frames) {
    popFront();
    return;
  }
  run->offset += bytes;
  run->bytes -= bytes;
  run->frames -= frames;
  queued -= frames;
  noteTakenLocked();
}

size_t IpcPackageManager::fillFromRunLocked(BufferState* bufferState) {
  Entry& entry = queue.front();
  const char* run = entry.runData();
  size_t bytes = 0;
  uint32_t frames = 0;
  // Room up to the fill limit, as frames of up to a run's size get.
  const size_t free = bufferState->fillRoom(0);
  if (entry.bytes <= free) {
    // The whole run fits: one copy, without reading its frames' lengths one
    // by one, each from a cache line the publisher's processor wrote.
    bytes = entry.bytes;
    frames = entry.frames;
  } else {
    while (frames < entry.frames) {
      uint32_t size = 0;
      memcpy(&size, run + bytes, sizeof(size));
      const size_t frameBytes = IPC_FRAME_HEADER_SIZE + static_cast<size_t>(size);
      if (frameBytes > free - bytes) break;
      bytes += frameBytes;
      ++frames;
    }
    if (frames == 0) {
      // Only a frame bigger than the fill limit may take more, alone.
      uint32_t size = 0;
      memcpy(&size, run, sizeof(size));
      const size_t frameBytes = IPC_FRAME_HEADER_SIZE + static_cast<size_t>(size);
      if (bufferState->holdsData() || frameBytes > bufferState->fillRoom(frameBytes)) return 0;
      bytes = frameBytes;
      frames = 1;
    }
  }
  CHECK(bufferState->write(run, bytes));
  consumeRunLocked(&entry, bytes, frames);
  return frames;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
  MutexLock lock(mutex);
  return fillNextLocked(buffer) != 0;
}

size_t IpcPackageManager::fillNextIpcPackagesToBuffer(BufferState* buffer) {
  MutexLock lock(mutex);
  size_t moved = 0;
  while (const size_t step = fillNextLocked(buffer)) moved += step;
  return moved;
}

size_t IpcPackageManager::fillNextLocked(BufferState* bufferState) {
  if (queue.empty()) return 0;
  if (dropUnsendableFront(bufferState, Kelo::Bpf::ERROR_CODE_OVERSIZED_SINGLE_FILL,
                          "fillNextIpcPackageToBuffer ipc package damaged")) {
    return 0;
  }
  if (queue.front().frames != 0) return fillFromRunLocked(bufferState);
  const KeloIpcPackage& ipcPackage = queue.front().package;
  if (!FrameFits(ipcPackage.size, bufferState->fillRoom(IPC_FRAME_HEADER_SIZE + size_t{ipcPackage.size}))) return 0;
  CHECK(bufferState->write(ipcPackage.size));
  CHECK(bufferState->write(ipcPackage.data));
  popFront();
  return 1;
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
  BufferState* const bufferState = buffer;
  MutexLock lock(mutex);
  if (queue.empty()) return false;
  while (!queue.empty()) {
    if (queue.front().frames != 0) {
      const size_t entries = queue.size();
      fillFromRunLocked(bufferState);
      // The run stays at the front: its next frame did not fit.
      if (queue.size() == entries) break;
      continue;
    }
    const KeloIpcPackage& ipcPackage = queue.front().package;
    if (!FrameFits(ipcPackage.size, bufferState->fillRoom(IPC_FRAME_HEADER_SIZE + size_t{ipcPackage.size}))) break;
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

bool IpcPackageManager::waitDepthAtMost(size_t depth, std::chrono::microseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex.native());
  // The analysis cannot see that `lock` holds mutex.
  auto shortEnough = [this, depth]() NO_THREAD_SAFETY_ANALYSIS { return queued <= depth; };
  auto enter = [this, depth]() NO_THREAD_SAFETY_ANALYSIS {
    if (drainWaiters++ == 0 || depth > drainDepth) drainDepth = depth;
  };
  auto leave = [this]() NO_THREAD_SAFETY_ANALYSIS { --drainWaiters; };
  if (shortEnough()) return true;
  enter();
  const bool reached = drained.wait_for(lock, timeout, shortEnough);
  leave();
  return reached;
}
