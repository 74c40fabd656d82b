// JSON form of the events a subscriber receives, and the facts about an event
// that the tool's filters look at, both from the one decoder of
// tools/kelo_bpf_client_record.h.
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

#include "tools/kelo_bpf_client_record.h"

namespace Kelo {
namespace Bpf {

using Json = nlohmann::ordered_json;

// The event record as a JSON object (see above).
Json EventToJson(const char* record, size_t size);

// The facts of `record`; also its JSON object into `json` when given.
EventFacts DescribeEvent(const char* record, size_t size, Json* json = nullptr);

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
