// JSON form of the events a subscriber receives, and the facts about an event
// that the tool's filters look at. Both decode a record (the payload of an
// event package) with the shared layouts of bpf/kelo_bpf_events.h, copying it
// out first: records arrive at any alignment.
//
// One event is one object, keys in this order:
//   "record": "event", "type": <number>, "name": <type name or "unknown">,
//   then the type's fields (README, "JSON output"). A record shorter than
//   its type's layout, or of a type without a known layout, carries
//   "size" and "bytes" (hex, two digits a byte, no separators) instead, and
//   "short": true when the type is known.
// Task names: the bytes up to the first NUL (at most 16). A name that is
// valid UTF-8 is given as it is; otherwise each byte that is not part of a
// valid sequence becomes U+FFFD and "comm_hex" gives the raw bytes.
//
// Pure functions, callable on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace Kelo {
namespace Bpf {

using Json = nlohmann::ordered_json;

// The event record as a JSON object (see above).
Json EventToJson(const char* record, size_t size);

// What the filters of `watch` need to know of one record.
struct EventFacts {
  // False when the record is shorter than its type field.
  bool typed = false;
  uint32_t type = 0;
  // False when the record is shorter than its type's layout or the type has
  // none: then only `type` is set.
  bool decoded = false;
  // The process the event is about (for cgroup_attach: a thread id).
  std::optional<int32_t> pid;
  // Its name as the record gives it, bytes up to the first NUL.
  std::optional<std::string> comm;
  // Type 1: the member (enum kelo_rss_member) and its new size.
  std::optional<int32_t> rssMember;
  std::optional<int64_t> rssSize;
  // Type 50004: |rss - rss_old| summed over the four members.
  std::optional<uint64_t> rssDelta;
  // A whole process ended (exit of kind process, or 50002).
  bool processExit = false;
};

// The facts of `record`; also its JSON object into `json` when given.
EventFacts DescribeEvent(const char* record, size_t size, Json* json = nullptr);

// The task name of a 16-byte kernel name field: the bytes up to the first
// NUL, all 16 when there is none.
std::string CommString(const char* comm, size_t length);

// Length of the well-formed UTF-8 sequence at bytes[i], 0 when none starts
// there.
size_t Utf8SequenceLength(const std::string& bytes, size_t i);

// True when `bytes` is well-formed UTF-8 (no overlong forms, surrogates or
// code points above U+10FFFF).
bool IsValidUtf8(const std::string& bytes);

// Sets key (and, for a name that is not valid UTF-8, key + "_hex") in
// `object` (see above).
void PutComm(Json* object, const char* key, const std::string& comm);

// Hex digits of `size` bytes, two a byte, lower case, no separators.
std::string HexBytes(const char* bytes, size_t size);

// The object on one line; never throws for what this file builds.
std::string JsonLine(const Json& object);

}  // namespace Bpf
}  // namespace Kelo
