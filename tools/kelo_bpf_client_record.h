// The event records a subscriber receives (the payload of an event package),
// decoded once for every form the client tool gives them: the text line, the
// JSON object and the facts the filters of `watch` look at. The layouts are
// the shared ones of bpf/kelo_bpf_events.h; records arrive at any alignment,
// so each is copied out whole before a field is read.
//
// Pure functions, callable on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace Kelo {
namespace Bpf {

// Copies a record of layout Record out of `bytes`; false when `size` is
// shorter than the layout.
template <typename Record>
bool CopyRecord(const char* bytes, size_t size, Record* record) {
  if (size < sizeof(Record)) return false;
  memcpy(record, bytes, sizeof(Record));
  return true;
}

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

// Receives the fields of one record, in the order both forms give them.
class RecordFieldVisitor {
 public:
  virtual ~RecordFieldVisitor() = default;
  virtual void Signed(const char* key, int64_t value) = 0;
  virtual void Unsigned(const char* key, uint64_t value) = 0;
  // An enumerated value: its name, or null for a number that has none.
  virtual void Named(const char* key, const char* name, int64_t number) = 0;
  // A task name (`path` false) or a cgroup path: the field's bytes up to the
  // first NUL.
  virtual void Text(const char* key, const std::string& bytes, bool path) = 0;
  // The fields up to EndGroup belong together (the four RSS figures); the
  // text form writes them with `textPrefix` before their keys.
  virtual void BeginGroup(const char* key, const char* textPrefix) = 0;
  virtual void EndGroup() = 0;
};

// Decodes `record` of `size` bytes: its facts, and its fields to `visitor`
// when given (only when the record is decoded).
EventFacts DecodeRecord(const char* record, size_t size, RecordFieldVisitor* visitor);

// The task name of a kernel name field of `length` bytes: the bytes up to
// the first NUL, all of them when there is none.
std::string CommString(const char* comm, size_t length);

// Length of the well-formed UTF-8 sequence at bytes[i], 0 when none starts
// there.
size_t Utf8SequenceLength(const std::string& bytes, size_t i);

// `comm` with the bytes a line must not carry written as \xNN (two lower-case
// hex digits): control bytes and DEL always; as one word of a key=value line
// (`asWord`) also blanks and every byte above 127, otherwise the bytes that
// are not part of a valid UTF-8 sequence.
std::string EscapedComm(const std::string& comm, bool asWord);

}  // namespace Bpf
}  // namespace Kelo
