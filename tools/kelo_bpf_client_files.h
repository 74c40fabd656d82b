// Readers of what the service writes and of the kernel's socket table:
// the task dump (signals 51 to 54), the state file (signal 50) and
// /proc/net/unix. Pure functions, callable on any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {

// One row of a task dump; sizes in KiB as the dump gives them. Short dumps
// have no old... columns and leave them 0.
struct TaskDumpRow {
  std::string comm;
  int32_t pid = 0;
  int32_t ppid = 0;
  int32_t threads = 0;
  int32_t oldThreads = 0;
  uint32_t mmId = 0;
  int64_t anonKb = 0;
  int64_t anonOldKb = 0;
  int64_t fileKb = 0;
  int64_t fileOldKb = 0;
  int64_t shmemKb = 0;
  int64_t shmemOldKb = 0;
  int64_t swapKb = 0;
  int64_t swapOldKb = 0;
  int64_t initTime = 0;
};

struct TaskDump {
  // From the first line: the number of all records of the table (rows may be
  // fewer in the variants that leave kernel threads out) and the time.
  uint64_t count = 0;
  int64_t time = 0;
  // Full columns (signals 51 and 52) or short ones (53 and 54).
  bool full = true;
  std::vector<TaskDumpRow> rows;
  // Lines that were neither a header nor a row.
  size_t skippedLines = 0;
};

// Parses a task dump. Rows are read from the right: the numeric columns are
// a fixed count, and what is left of them is the name with its padding
// (trailing blanks are taken to be padding). A name holding a newline spans
// lines; its pieces are joined again. False, with `problem` set, when the
// two header lines are not there.
bool ParseTaskDump(const std::string& text, TaskDump* dump, std::string* problem);

// Kinds of counters in a state row: the eight event types, then polls.
inline constexpr int STATE_KINDS = 9;
inline constexpr int STATE_POLL_KIND = 8;

struct StateFile {
  // The window's bounds from the header: logical seconds of the newest and
  // the oldest row.
  int64_t curIndex = 0;
  int64_t firstIndex = 0;
  // Rows newest first: the counts of the kinds 0 to 8 (the file's leading
  // sum of events is checked against them, not kept).
  std::vector<std::array<int64_t, STATE_KINDS>> rows;
  // Lines after the rows, without their line ends (figures the service adds
  // beyond the per-second window, such as losses).
  std::vector<std::string> extraLines;
};

// Parses a state file. The header names the window; exactly
// curIndex - firstIndex + 1 rows follow (fewer when the file ends early).
// False, with `problem` set, when the header is not a state header or a
// row is malformed.
bool ParseStateFile(const std::string& text, StateFile* state, std::string* problem);

// Totals of a state file over the whole window and over its newest rows.
struct StateSummary {
  // Rows in the window, i.e. seconds of service time in which it counted.
  int64_t windowSeconds = 0;
  // The window reaches back to the service's start: no second has left it
  // (firstIndex 0), or the service has run no longer than the window holds.
  // The service numbers its seconds on its own clock, which jumps by the
  // boot time once that is known, so a window may hold seconds from before
  // the start, which have no counts; then windowSeconds is the service's age.
  bool sinceStart = false;
  std::array<int64_t, STATE_KINDS> windowTotals{};
  int64_t recentSeconds = 0;
  std::array<int64_t, STATE_KINDS> recentTotals{};
  // Everything the service counted since it started (its "EventsSinceStart"
  // lines), and how long it has run; nothing from a service that writes no
  // such lines, or when its age is unknown.
  std::optional<std::array<int64_t, STATE_KINDS>> startTotals;
  std::optional<int64_t> serviceSeconds;
  // Sums of the event kinds 0 to 7.
  int64_t windowEvents() const;
  int64_t recentEvents() const;
  // 0 without startTotals.
  int64_t startEvents() const;
};

// recentRows: how many of the newest rows count as recent (10: the last
// ten seconds in which the service counted anything). serviceSeconds: how
// long the service has run (ServiceAgeSeconds), when known.
StateSummary SummarizeState(const StateFile& state, int recentRows = 10,
                            std::optional<int64_t> serviceSeconds = std::nullopt);

// Whole seconds, rounded up, since a process started: from its
// /proc/<pid>/stat text (starttime, in clock ticks after boot), the
// /proc/uptime text and the clock ticks per second. Nothing when either
// text does not parse.
std::optional<int64_t> ServiceAgeSeconds(const std::string& procStat, const std::string& procUptime,
                                         long ticksPerSecond);

// The counter name of kind 0 to 8 as the state file's header gives it.
const char* StateKindColumn(int kind);

// Connections the service has accepted on `socketName`: lines of
// /proc/net/unix (`table`) whose path is the name (abstract: '@' + name,
// or the file-system path), in state 03 (connected) and without the
// listening flag (__SO_ACCEPTCON, 0x10000) of the listener itself.
int CountConnectedClients(const std::string& table, const std::string& socketName);

}  // namespace Bpf
}  // namespace Kelo
