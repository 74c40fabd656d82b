// The client protocol of the service: what a subscriber needs to talk to it,
// and nothing of the service itself. Installed as <kelobpf/kelo_bpf_protocol.h>;
// it depends on the C++ standard library only.
//
// A client connects a Unix-domain stream socket to KELO_BPF_CLIENT_SOCKET_NAME
// (the service listens on that name in the abstract namespace). Both ways the
// stream is a sequence of frames, all integers 32 bits wide in host byte order:
//
//   u32 packageSize                      (bytes that follow, = 8 + size)
//   u32 type, u32 size                   (package header)
//   size bytes of payload
//
// Requests (type KELO_BPF_PACKAGE_TYPE_REQUEST) and their responses (type
// KELO_BPF_PACKAGE_TYPE_RESPONSE) start their payload with a 12-byte header:
// u32 reqId, then u32 request code (request) or i32 result (response), then
// u32 dataSize and dataSize bytes of data. A subscription request carries the
// event type as 4 data bytes; its response has the same reqId, result 0 and
// no data. Events arrive as packages of type KELO_BPF_PACKAGE_TYPE_EVENT whose
// payload is the event record (layouts in <kelobpf/kelo_bpf_events.h>), at any
// alignment: copy it out with memcpy.
#pragma once

#include <cstdint>

namespace Kelo {
namespace Bpf {

// The clients' socket (a name in the abstract namespace).
inline constexpr char KELO_BPF_CLIENT_SOCKET_NAME[] = "/mnt/bpfframework/kelobpfdispatcher";

// Request codes carried in a request's second header word. Any other code is
// answered with result -1 and changes nothing.
inline constexpr uint32_t REQ_ADD_OBSERVER_EVENT = 51;
inline constexpr uint32_t REQ_DEL_OBSERVER_EVENT = 52;
// Data: int 1 to be paced (publishers hold back while this connection's
// queue is crowded and the kernel's ring has room), 0 to stop; answered
// with 0, or -1 for any other value.
inline constexpr uint32_t REQ_SET_PACING = 55;

// Package types of the package header.
inline constexpr uint32_t KELO_BPF_PACKAGE_TYPE_REQUEST = 0;
inline constexpr uint32_t KELO_BPF_PACKAGE_TYPE_RESPONSE = 1;
inline constexpr uint32_t KELO_BPF_PACKAGE_TYPE_EVENT = 3;

// Frame sizes: the length field, the package header, the request/response
// header and the data of a subscription request.
inline constexpr uint32_t KELO_BPF_FRAME_LENGTH_SIZE = 4;
inline constexpr uint32_t KELO_BPF_PACKAGE_HEADER_SIZE = 8;
inline constexpr uint32_t KELO_BPF_REQUEST_HEADER_SIZE = 12;
inline constexpr uint32_t KELO_BPF_SUBSCRIPTION_DATA_SIZE = 4;
// The service's receive and send buffer per connection: no frame it sends is
// longer (length field included), and a client's frames must fit it too. A
// client that reads with a buffer of this size never sees a frame it cannot
// hold.
inline constexpr uint32_t KELO_BPF_MAX_FRAME_SIZE = 32768;

}  // namespace Bpf
}  // namespace Kelo
