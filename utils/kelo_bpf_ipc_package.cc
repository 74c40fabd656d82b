#include "utils/kelo_bpf_ipc_package.h"

#include <sys/types.h>

#include <algorithm>
#include <string>
#include <utility>

#include "helper/kelo_bpf_helper_strings.h"
#include "utils/kelo_bpf_error_log.h"
#include "utils/kelo_bpf_log.h"

using Kelo::Bpf::ConvertToHexString;
using Kelo::Bpf::LOG_TAG_UTILS;
using Kelo::Bpf::StringPrintf;

IpcPackageBytes::IpcPackageBytes(const IpcPackageBytes& other) : IpcPackageBytes(other.size_) {
  if (size_ != 0) memcpy(data(), other.data(), size_);
}

IpcPackageBytes& IpcPackageBytes::operator=(const IpcPackageBytes& other) {
  if (this != &other) {
    IpcPackageBytes copy(other);
    *this = std::move(copy);
  }
  return *this;
}

IpcPackageBytes::IpcPackageBytes(IpcPackageBytes&& other) noexcept : size_(other.size_), heap_(std::move(other.heap_)) {
  if (!heap_ && size_ != 0) memcpy(inline_, other.inline_, size_);
  other.size_ = 0;
}

IpcPackageBytes& IpcPackageBytes::operator=(IpcPackageBytes&& other) noexcept {
  if (this != &other) {
    size_ = other.size_;
    heap_ = std::move(other.heap_);
    if (!heap_ && size_ != 0) memcpy(inline_, other.inline_, size_);
    other.size_ = 0;
  }
  return *this;
}

void IpcPackageBytes::resize(size_t size) {
  const size_t kept = std::min(size, size_);
  if (size <= INLINE_CAPACITY) {
    if (heap_) {
      memcpy(inline_, heap_.get(), kept);
      heap_.reset();
    }
    if (size > kept) memset(inline_ + kept, 0, size - kept);
  } else {
    std::unique_ptr<char[]> grown(new char[size]());
    memcpy(grown.get(), data(), kept);
    heap_ = std::move(grown);
  }
  size_ = size;
}

bool CheckIpcPackageComplete(BufferState* state, uint32_t* headerSize, uint32_t* packageSize) {
  *headerSize = IPC_FRAME_HEADER_SIZE;
  if (state->bufferCursor + IPC_FRAME_HEADER_SIZE > state->bufferDataCursor) return false;
  memcpy(packageSize, state->buffer.data() + state->bufferCursor, sizeof(*packageSize));
  // 32-bit on purpose: a length of 0xFFFFFFFC or more wraps and is damage.
  const uint32_t total = *packageSize + IPC_FRAME_HEADER_SIZE;
  if (total >= IPC_FRAME_HEADER_SIZE && total <= state->bufferSize()) {
    return state->bufferCursor + total <= state->bufferDataCursor;
  }

  const ssize_t shownTotal = total;
  const ssize_t cursor = static_cast<ssize_t>(state->bufferCursor);
  const ssize_t dataCursor = static_cast<ssize_t>(state->bufferDataCursor);
  const ssize_t bufferSize = static_cast<ssize_t>(state->bufferSize());
  const int dumpLength = static_cast<int>(state->bufferDataCursor);
  Kelo::Bpf::RecordBpfServiceErrorInfo(
      Kelo::Bpf::ERROR_CODE_PACKAGE_DAMAGED,
      StringPrintf("Ipc package damage, packageSize: %zd, cursor: %zd, data: %zd, bufferSize: %zd, Buffer hexdump: %s",
                   shownTotal, cursor, dataCursor, bufferSize,
                   ConvertToHexString(state->buffer.data(), dumpLength).c_str()));
  KELO_LOGE(LOG_TAG_UTILS,
            "Ipc package too big or damage, clear buffer. packageSize: %zd, cursor: %zd, data: %zd, bufferSize: %zd",
            shownTotal, cursor, dataCursor, bufferSize);
  KELO_LOGE(LOG_TAG_UTILS, "Buffer hexdump: %s", ConvertToHexString(state->buffer.data(), dumpLength).c_str());
  state->clear();
  return false;
}
