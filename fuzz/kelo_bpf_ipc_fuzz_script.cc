#include "fuzz/kelo_bpf_ipc_fuzz_script.h"

#include <algorithm>

#include "utils/kelo_bpf_ipc_package.h"

namespace kelo_fuzz {
namespace {

constexpr uint32_t SECOND_LEVEL_HEADER_SIZE = sizeof(KeloIpcSecondLevelPackageHeader);
constexpr uint32_t REQUEST_HEADER_SIZE = sizeof(KeloReqIpcPackageHeader);
constexpr uint32_t WRAPPING_LENGTH = 0xFFFFFFFC;
constexpr uint32_t LAST_TYPE_BEFORE_WRAP = 254;
// A long length maps to one of the 16 largest that fit.
constexpr uint32_t NEAR_MAX_CHOICES = 16;
constexpr uint32_t RESULT_BIAS = 32;

// Sequential little-endian reader that yields zeros past the end.
class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool done() const { return pos_ >= size_; }
  uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint16_t u16() {
    const uint16_t low = u8();
    return static_cast<uint16_t>(low | (u8() << 8));
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

uint32_t ClampLength(uint32_t wanted, uint32_t max) {
  if (wanted <= max) return wanted;
  return max - std::min(max, wanted % NEAR_MAX_CHOICES);
}

int HandlerResult(uint8_t argument) {
  switch (argument) {
    case 12:
      return 1;
    case 13:
      return -2;
    case 14:
      return -3;
    case 15:
      return -1;
    default:
      return 0;
  }
}

}  // namespace

FuzzScript DecodeFuzzScript(const uint8_t* data, size_t size) {
  ByteReader in(data, size);
  FuzzScript script;
  const uint8_t setup = in.u8();
  script.bufferSize = FUZZ_BUFFER_SIZES[setup & 3];
  script.clientLoop = (setup & 4) != 0;
  script.compactReadBuffer = (setup & 8) == 0;
  script.emptyType2Handler = (setup & 16) != 0;
  script.closeOnError = (setup & 32) != 0;

  // The largest level-2 payload whose frame fits the buffer.
  const uint32_t maxPayload = script.bufferSize - IPC_FRAME_HEADER_SIZE - SECOND_LEVEL_HEADER_SIZE;
  const uint32_t maxRequestData = maxPayload - REQUEST_HEADER_SIZE;

  while (!in.done()) {
    const uint8_t opByte = in.u8();
    const uint8_t kind = opByte & 0x0F;
    const uint8_t argument = opByte >> 4;
    FuzzOp op;
    op.handlerResult = HandlerResult(argument);
    op.argument = argument;
    switch (kind) {
      case 0:
        op.kind = OpKind::REQUEST;
        op.type = IPC_PACKAGE_TYPE_REQUEST;
        op.requestCode = in.u8();
        op.payloadLength = REQUEST_HEADER_SIZE + ClampLength(in.u16(), maxRequestData);
        break;
      case 1: {
        op.kind = OpKind::RESPONSE;
        op.type = IPC_PACKAGE_TYPE_RESPONSE;
        const uint8_t flags = in.u8();
        op.registerCallback = (flags & 1) != 0;
        op.reusePreviousId = (flags & 2) != 0;
        op.responseResult = static_cast<int32_t>(flags >> 2) - static_cast<int32_t>(RESULT_BIAS);
        op.payloadLength = REQUEST_HEADER_SIZE + ClampLength(in.u16(), maxRequestData);
        break;
      }
      case 2:
      case 3:
        op.kind = OpKind::APPLICATION;
        op.type = kind;
        op.payloadLength = ClampLength(in.u16(), maxPayload);
        break;
      case 4: {
        op.kind = OpKind::UNKNOWN_TYPE;
        const uint8_t t = in.u8();
        op.type = t > LAST_TYPE_BEFORE_WRAP ? UINT32_MAX : IPC_PACKAGE_TYPE_MAX + 1 + t;
        op.payloadLength = ClampLength(in.u16(), maxPayload);
        break;
      }
      case 5: {
        op.kind = OpKind::DAMAGE;
        const uint8_t selector = in.u8();
        const uint16_t extra = in.u16();
        // A frame of packageSize + 4 > bufferSize can never be received.
        op.damagedLength =
            selector < 4 ? WRAPPING_LENGTH + selector : script.bufferSize - IPC_FRAME_HEADER_SIZE + 1 + extra;
        op.garbageLength = in.u8();
        break;
      }
      case 6: {
        op.kind = OpKind::TRUNCATED;
        op.type = in.u8() & IPC_PACKAGE_TYPE_MAX;
        const bool withRequestHeader = op.type <= IPC_PACKAGE_TYPE_RESPONSE;
        op.payloadLength = withRequestHeader ? REQUEST_HEADER_SIZE + ClampLength(in.u16(), maxRequestData)
                                             : ClampLength(in.u16(), maxPayload);
        const uint32_t wireLength = IPC_FRAME_HEADER_SIZE + SECOND_LEVEL_HEADER_SIZE + op.payloadLength;
        op.keptBytes = in.u16() % wireLength;
        break;
      }
      case 7:
        op.kind = OpKind::DELIVER;
        op.chunk = in.u16();
        break;
      case 8:
        op.kind = OpKind::SPURIOUS_READABLE;
        break;
      default:
        op.kind = OpKind::DELIVER;
        op.chunk = argument + 1u;
        break;
    }
    script.ops.push_back(op);
  }
  return script;
}

}  // namespace kelo_fuzz
