// Wire format of the IPC package protocol and the per-connection byte buffer.
//
// A frame on the stream is a u32 `packageSize` followed by that many bytes of
// a level-2 package: u32 `type`, u32 `size`, then `size` payload bytes.
// Requests (type 0) and responses (type 1) carry a 12-byte request header at
// the start of their payload. All integers travel in host byte order.
//
// Nothing here takes a lock: the connection manager and the queues own the
// locking of the buffers they hand around. Frames sit at arbitrary offsets in
// a buffer, so headers are always copied out with memcpy, never cast in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

// Package types known to the framework; 2 and 3 belong to the application.
inline constexpr uint32_t IPC_PACKAGE_TYPE_REQUEST = 0;
inline constexpr uint32_t IPC_PACKAGE_TYPE_RESPONSE = 1;
inline constexpr uint32_t IPC_PACKAGE_TYPE_MAX = 3;

// Width of the level-1 length field in front of every frame.
inline constexpr uint32_t IPC_FRAME_HEADER_SIZE = sizeof(uint32_t);

// Level-2 header: the package type and the payload length behind it.
struct KeloIpcSecondLevelPackageHeader {
  uint32_t type;
  uint32_t size;
};
static_assert(sizeof(KeloIpcSecondLevelPackageHeader) == 8 && offsetof(KeloIpcSecondLevelPackageHeader, size) == 4,
              "wire layout");

// What goes on the wire in front of a level-2 package's payload: the frame's
// length field and the level-2 header.
inline constexpr size_t IPC_FRAME_PREFIX_SIZE = IPC_FRAME_HEADER_SIZE + sizeof(KeloIpcSecondLevelPackageHeader);

// Writes the prefix of a frame carrying `size` payload bytes of package `type`.
inline void WriteFramePrefix(uint32_t type, uint32_t size, char (&out)[IPC_FRAME_PREFIX_SIZE]) {
  const uint32_t packageSize = static_cast<uint32_t>(sizeof(KeloIpcSecondLevelPackageHeader)) + size;
  const KeloIpcSecondLevelPackageHeader header{type, size};
  memcpy(out, &packageSize, sizeof(packageSize));
  memcpy(out + IPC_FRAME_HEADER_SIZE, &header, sizeof(header));
}

// Header at the start of a request or response payload. The second word is
// the request code in a request and the signed result in a response.
struct KeloReqIpcPackageHeader {
  uint32_t reqId;
  union {
    uint32_t reqType;
    int32_t result;
  };
  uint32_t dataSize;
};
static_assert(sizeof(KeloReqIpcPackageHeader) == 12 && offsetof(KeloReqIpcPackageHeader, reqType) == 4 &&
                  offsetof(KeloReqIpcPackageHeader, result) == 4 && offsetof(KeloReqIpcPackageHeader, dataSize) == 8,
              "wire layout");

// A request as its sender describes it before it is serialised. `data` is
// borrowed: `dataSize` bytes that the queue copies when the request is appended.
struct KeloReqIpcPackage {
  uint32_t reqId;
  uint32_t reqType;
  uint32_t dataSize;
  const char* data;
};

// A response as its sender describes it before it is serialised; same rules as
// KeloReqIpcPackage. On the receiving side a pointer of this type is also used
// to name a received response payload (12-byte header, then the data), whose
// bytes are read with memcpy and never through the members.
struct KeloRespIpcPackage {
  uint32_t reqId;
  int32_t result;
  uint32_t dataSize;
  const char* data;
};

// Owned bytes of one queued package. Packages of up to INLINE_CAPACITY bytes
// (every event the service forwards) live inside the object itself, so
// queueing them costs no allocation of their own; larger ones go to the heap.
// New bytes are zero.
class IpcPackageBytes {
 public:
  static constexpr size_t INLINE_CAPACITY = 96;

  IpcPackageBytes() = default;
  explicit IpcPackageBytes(size_t size) { resize(size); }
  IpcPackageBytes(const IpcPackageBytes& other);
  IpcPackageBytes& operator=(const IpcPackageBytes& other);
  IpcPackageBytes(IpcPackageBytes&& other) noexcept;
  IpcPackageBytes& operator=(IpcPackageBytes&& other) noexcept;
  ~IpcPackageBytes() = default;

  // Sets the length, keeping the first min(old, new) bytes; new bytes are zero.
  void resize(size_t size);

  char* data() { return heap_ ? heap_.get() : inline_; }
  const char* data() const { return heap_ ? heap_.get() : inline_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  size_t size_ = 0;
  std::unique_ptr<char[]> heap_;
  char inline_[INLINE_CAPACITY];
};

// One queued, fully serialised package: what goes on the wire is `size`
// (always data.size()) followed by `data`, a level-2 package.
struct KeloIpcPackage {
  uint32_t size = 0;
  IpcPackageBytes data;
};

// A connection's fixed-size read or write buffer. Bytes before `bufferCursor`
// are consumed, bytes up to `bufferDataCursor` are valid; the buffer's length
// (bufferSize()) is fixed when it is allocated and never grows by reading or
// writing. Invariant: bufferCursor <= bufferDataCursor <= bufferSize().
struct BufferState {
  size_t bufferCursor = 0;
  size_t bufferDataCursor = 0;
  std::vector<char> buffer;
  // Bytes a fill brings the data up to at most, below the buffer's size, or
  // 0 for the whole buffer; a frame that needs more still goes alone into an
  // empty buffer.
  size_t fillLimit = 0;

  size_t bufferSize() const { return buffer.size(); }
  bool holdsData() const { return bufferDataCursor > bufferCursor; }
  // Free space behind the data that a fill may take for a frame of
  // `frameBytes`: up to fillLimit, or to the buffer's end for a frame that
  // would not fit fillLimit and comes into an empty buffer. A data cursor
  // beyond the buffer is damage: the room is then unbounded, so that the
  // write itself refuses the bytes.
  size_t fillRoom(size_t frameBytes) const {
    if (bufferDataCursor > buffer.size()) return SIZE_MAX;
    size_t end = buffer.size();
    if (fillLimit != 0 && fillLimit < end && (holdsData() || frameBytes <= fillLimit)) end = fillLimit;
    return bufferDataCursor >= end ? 0 : end - bufferDataCursor;
  }

  // Gives the buffer exactly `size` zero bytes and empties it.
  void allocate(size_t size) {
    buffer.assign(size, 0);
    clear();
  }

  // Address of the next n unread bytes, consuming them; null (and nothing
  // consumed) when fewer than n are there or the buffer has no storage.
  char* read(size_t n) {
    if (buffer.empty() || n > buffer.size() || bufferCursor + n > bufferDataCursor) return nullptr;
    char* p = buffer.data() + bufferCursor;
    bufferCursor += n;
    return p;
  }

  // Appends n bytes; false (and nothing written) when they do not fit.
  bool write(const void* bytes, size_t n) {
    if (bufferDataCursor > buffer.size() || n > buffer.size() - bufferDataCursor) return false;
    if (n != 0) memcpy(buffer.data() + bufferDataCursor, bytes, n);
    bufferDataCursor += n;
    return true;
  }
  // Appends the 4 native bytes of a u32.
  bool write(uint32_t value) { return write(&value, sizeof(value)); }
  bool write(const IpcPackageBytes& bytes) { return write(bytes.data(), bytes.size()); }

  // Moves the unread bytes to the start so that the whole free space is
  // behind them.
  void compact() {
    if (bufferDataCursor > bufferCursor) {
      if (bufferCursor != 0) {
        memmove(buffer.data(), buffer.data() + bufferCursor, bufferDataCursor - bufferCursor);
      }
      bufferDataCursor -= bufferCursor;
    } else {
      bufferDataCursor = 0;
    }
    bufferCursor = 0;
  }

  void clear() {
    bufferCursor = 0;
    bufferDataCursor = 0;
  }

  bool empty() const { return bufferCursor == bufferDataCursor; }
};

// Whether one whole frame starts at the buffer's read cursor. Sets
// *headerSize to the width of the length field and *packageSize to the frame's
// length field once those 4 bytes are in; the cursor is not moved. A length
// that cannot fit the buffer (or wraps when the 4 header bytes are added)
// means the stream is damaged: the event is recorded in the error log (code
// 2), the whole buffer is dropped and false is returned; the connection is
// kept and the next bytes that arrive are taken as a new frame.
bool CheckIpcPackageComplete(BufferState* state, uint32_t* headerSize, uint32_t* packageSize);
