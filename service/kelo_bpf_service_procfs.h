// Small readers of the kernel's process files, shared by the process scan,
// the status re-reads of the task handlers and the tracking-map seeding.
// They read a file with one open and one or few reads into a buffer the
// caller keeps, and parse numbers without exceptions: a value that is not a
// number counts as absent. Thread-compatible: no state of their own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Kelo {
namespace Bpf {

// How a reader knows it has the whole file.
enum class ProcFileEnd {
  // A read returns 0: right for every file.
  END_OF_FILE,
  // A read returns less than the room it was given. Right for the files the
  // kernel renders whole on the first read (a process's status and stat),
  // and one system call fewer per file; not for files of many records
  // (maps), which the kernel may hand out in pieces.
  SHORT_READ,
};

// Replaces *content with the whole file at path. False (errno set) when it
// cannot be opened or read; *content is then empty. procfs files report size
// 0, so the file is read until `end` says it is whole, reusing content's
// capacity.
bool ReadProcFile(const char* path, std::string* content, ProcFileEnd end = ProcFileEnd::END_OF_FILE);

// The decimal number at the start of text as strtoll reads it (leading
// blanks and a sign allowed, parsing stops at the first non-digit); nothing
// when text has no digit there or the value does not fit in 64 bits.
std::optional<int64_t> ParseDecimal(std::string_view text);

// Calls visit(line) for every line of text, without its "\n"; stops early
// when visit returns false.
template <typename Visit>
void ForEachLine(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    if (!visit(line)) return;
    if (end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

// The value of a line that starts with prefix ("Name:\t"), or nothing.
inline std::optional<std::string_view> ValueAfter(std::string_view line, std::string_view prefix) {
  if (line.size() < prefix.size() || line.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
  return line.substr(prefix.size());
}

// Copies name into a process-name field of `size` bytes: at most size - 1
// characters, NUL-terminated, the rest zeroed.
void CopyTaskName(std::string_view name, char* field, size_t size);

// The fields of a /proc/<pid>/stat line that the scan uses. The name between
// the parentheses may hold blanks and parentheses of its own, so the fields
// are counted from the last ')'.
struct ProcStat {
  int64_t threads = 0;     // field 19 (0-based), num_threads
  int64_t startTicks = 0;  // field 21, starttime in clock ticks
  bool complete = false;   // the line had at least 22 fields
};
ProcStat ParseProcStat(std::string_view line);

}  // namespace Bpf
}  // namespace Kelo
