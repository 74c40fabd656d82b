// Text form of the events a subscriber receives: one line per event record
// (the payload of a type-3 package), decoded with the shared record layouts
// of bpf/kelo_bpf_events.h, e.g.
//   fork ts=81234567890 pid=123 ppid=1 uid=0 comm=bash kind=process
// Records of a type this tool does not know, and records shorter than their
// type's layout, are shown as a hex dump.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Kelo {
namespace Bpf {

// Short name of an event type ("fork", "rss_change", ...), or null for a type
// without a known layout.
const char* ClientEventTypeName(uint32_t type);

// The event type of a record: its first four bytes; false when the record is
// shorter than that.
bool ClientEventType(const char* record, size_t size, uint32_t* type);

// One line (without a newline) describing the record of `size` bytes.
std::string FormatClientEvent(const char* record, size_t size);

}  // namespace Bpf
}  // namespace Kelo
