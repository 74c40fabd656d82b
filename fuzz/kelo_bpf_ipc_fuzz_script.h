// Turns a fuzzer's byte string into a script for the read-path harness: the
// connection's set-up, then a sequence of stream items (frames, damaged
// length fields, a final frame cut short) interleaved with delivery steps
// (receive n bytes, a readable event with nothing to receive).
//
// The script describes frames by their structure, never by raw bytes: every
// frame it yields is consistent (level-2 size = packageSize - 8, request
// dataSize = size - 12) and fits the read buffer, so the reader's fatal
// checks are never reached by design and any abort is a fault. The malformed
// input it can ask for is exactly what the reader must survive: a length
// field that wraps or can never fit the buffer, and a frame cut short at the
// end of the stream.
//
// Input layout (all integers little-endian; missing bytes read as zero):
//
//   byte 0, set-up:
//     bits 0-1  read buffer size: 32768, 4096, 256, 24
//     bit 2     frame with IpcPackageHandler::handleAllIpcPackageInBuffer
//               (client style) instead of the service's inline loop over
//               handleSecondIpcPackage
//     bit 3     do not compact the read buffer before each receive
//     bit 4     register type 2 with an empty handler
//     bit 5     close the connection when a receive or the readable hook
//               fails, as the service asks (the peer then connects again)
//   then ops until the input ends, each an op byte (low nibble: kind, high
//   nibble: argument) and the kind's fields:
//     0 request      u8 request code, u16 data length
//     1 response     u8 flags (bit 0: register a callback for its id, bit 1:
//                    reuse the previous response's id, bits 2-7: result + 32),
//                    u16 data length
//     2, 3           application package of that type: u16 payload length
//     4 unknown type u8 t (type 4 + t, 255 -> 0xFFFFFFFF), u16 payload length
//     5 damage       u8 selector (0-3: length 0xFFFFFFFC + selector, else one
//                    that exceeds the buffer by 1 + u16 extra), u16 extra,
//                    u8 count of garbage bytes behind the length field
//     6 truncated    u8 type (0-3), u16 payload length, u16 cut: the frame's
//                    first cut % (its wire length) bytes end the stream
//     7 deliver      u16 chunk: receive up to that many bytes (0: as many as
//                    the buffer takes)
//     8 spurious     a readable event with nothing in the socket
//     9-15           deliver with chunk = argument nibble + 1, no fields
//   For frame ops the argument nibble picks the handler's result: 0-11 -> 0,
//   12 -> 1, 13 -> -2, 14 -> -3, 15 -> -1.
//   A u16 length L is taken as is when it fits; a larger one picks a length
//   just below the largest that fits (max - L % 16), so that the edges of
//   the buffer are one choice away.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelo_fuzz {

enum class OpKind { REQUEST, RESPONSE, APPLICATION, UNKNOWN_TYPE, DAMAGE, TRUNCATED, DELIVER, SPURIOUS_READABLE };

struct FuzzOp {
  OpKind kind = OpKind::DELIVER;
  // Frames: package type and level-2 payload length (for requests and
  // responses including their 12-byte request header).
  uint32_t type = 0;
  uint32_t payloadLength = 0;
  // Frames: what the handler returns for it.
  int handlerResult = 0;
  // The op byte's high nibble as given (other harnesses read it their way).
  uint8_t argument = 0;
  // REQUEST: request code.
  uint32_t requestCode = 0;
  // RESPONSE: result code and how its id is chosen.
  int32_t responseResult = 0;
  bool registerCallback = false;
  bool reusePreviousId = false;
  // DAMAGE: the length field and the garbage bytes behind it.
  uint32_t damagedLength = 0;
  uint32_t garbageLength = 0;
  // TRUNCATED: wire bytes of the frame that are sent.
  uint32_t keptBytes = 0;
  // DELIVER: most bytes to receive, 0 for the whole free space.
  uint32_t chunk = 0;
};

struct FuzzScript {
  uint32_t bufferSize = 0;
  bool clientLoop = false;
  bool compactReadBuffer = true;
  bool emptyType2Handler = false;
  bool closeOnError = false;
  std::vector<FuzzOp> ops;
};

// Read buffer sizes the set-up byte chooses from: the service's, and smaller
// ones that bring the buffer's edges within reach of short inputs.
inline constexpr uint32_t FUZZ_BUFFER_SIZES[] = {32768, 4096, 256, 24};

FuzzScript DecodeFuzzScript(const uint8_t* data, size_t size);

}  // namespace kelo_fuzz
