#include "tools/kelo_bpf_client_files.h"

#include <android-base/strings.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace Kelo {
namespace Bpf {
namespace {

constexpr char DUMP_TITLE_PREFIX[] = "============ DUMP ALL KELO TASKS INFO (count: ";
constexpr char DUMP_COLUMNS_PREFIX[] = "comm ";
constexpr char DUMP_FULL_MARK[] = "oldThreadNum";
// Numeric columns after the name: pid ppid threadNum oldThreadNum mmId, 8
// sizes of two tokens ("123 KB") and initTimeStamp; short: no oldThreadNum
// and 4 sizes.
constexpr size_t FULL_ROW_TOKENS = 5 + 8 * 2 + 1;
constexpr size_t SHORT_ROW_TOKENS = 4 + 4 * 2 + 1;
// A line that does not parse and is no longer than a task name may be the
// first piece of a name with a newline in it.
constexpr size_t COMM_LEN = 16;

constexpr const char* STATE_COLUMNS[STATE_KINDS] = {"kelo_task_init",  "kmem_rss_info",    "sched_task_create",
                                                    "sched_task_exit", "dmabuf_size_info", "cgroup_attach_cpuset_info",
                                                    "fd_update_info",  "dmabuf_update",    "PollCount"};

// The section of the service's supplement with its counts since it started.
constexpr char EVENTS_SINCE_START[] = "EventsSinceStart, ";

bool ParseInt64(std::string_view text, int64_t* value) {
  // Digits with an optional sign, within the range of int64_t.
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  if (i == text.size()) return false;
  int64_t parsed = 0;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    const int digit = text[i] - '0';
    if (__builtin_mul_overflow(parsed, 10, &parsed) ||
        __builtin_add_overflow(parsed, negative ? -digit : digit, &parsed)) {
      return false;
    }
  }
  *value = parsed;
  return true;
}

template <typename Int>
bool ParseInt(std::string_view text, Int* value) {
  int64_t wide = 0;
  if (!ParseInt64(text, &wide)) return false;
  if (wide < static_cast<int64_t>(std::numeric_limits<Int>::min()) ||
      wide > static_cast<int64_t>(std::numeric_limits<Int>::max())) {
    return false;
  }
  *value = static_cast<Int>(wide);
  return true;
}

struct Token {
  size_t begin;
  std::string_view text;
};

// The blank-separated words of `line`, pointing into it.
std::vector<Token> Tokens(std::string_view line) {
  std::vector<Token> tokens;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    if (i >= line.size()) break;
    const size_t begin = i;
    while (i < line.size() && line[i] != ' ') ++i;
    tokens.push_back({begin, line.substr(begin, i - begin)});
  }
  return tokens;
}

// A size column: a number followed by the token "KB".
bool Size(const std::vector<Token>& t, size_t at, int64_t* kb) {
  return t[at + 1].text == "KB" && ParseInt64(t[at].text, kb);
}

bool ParseRow(std::string_view line, bool full, TaskDumpRow* row) {
  const std::vector<Token> tokens = Tokens(line);
  const size_t need = full ? FULL_ROW_TOKENS : SHORT_ROW_TOKENS;
  if (tokens.size() < need) return false;
  const size_t first = tokens.size() - need;
  size_t at = first;
  const auto next = [&]() { return tokens[at++].text; };
  TaskDumpRow r;
  if (!ParseInt(next(), &r.pid) || !ParseInt(next(), &r.ppid) || !ParseInt(next(), &r.threads)) return false;
  if (full && !ParseInt(next(), &r.oldThreads)) return false;
  if (!ParseInt(next(), &r.mmId)) return false;
  int64_t* const fullSizes[] = {&r.anonKb,  &r.anonOldKb,  &r.fileKb, &r.fileOldKb,
                                &r.shmemKb, &r.shmemOldKb, &r.swapKb, &r.swapOldKb};
  int64_t* const shortSizes[] = {&r.anonKb, &r.fileKb, &r.shmemKb, &r.swapKb};
  for (size_t i = 0; i < (full ? 8u : 4u); ++i) {
    if (!Size(tokens, at, full ? fullSizes[i] : shortSizes[i])) return false;
    at += 2;
  }
  if (!ParseInt64(next(), &r.initTime)) return false;
  // The name, its padding and the three blanks before the pid column.
  std::string comm(line.substr(0, tokens[first].begin));
  while (!comm.empty() && comm.back() == ' ') comm.pop_back();
  r.comm = comm;
  *row = std::move(r);
  return true;
}

std::string WithoutCr(std::string line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

}  // namespace

bool ParseTaskDump(const std::string& text, TaskDump* dump, std::string* problem) {
  std::vector<std::string> lines = android::base::Split(text, "\n");
  if (!lines.empty() && lines.back().empty()) lines.pop_back();
  if (lines.size() < 2 || !android::base::StartsWith(lines[0], DUMP_TITLE_PREFIX)) {
    *problem = "not a task dump: the first line is not the dump's title";
    return false;
  }
  TaskDump out;
  unsigned long long count = 0;
  long long time = 0;
  if (sscanf(lines[0].c_str() + strlen(DUMP_TITLE_PREFIX), "%llu, time: %lld)", &count, &time) != 2) {
    *problem = "not a task dump: the title has no count and time";
    return false;
  }
  out.count = count;
  out.time = time;
  if (!android::base::StartsWith(lines[1], DUMP_COLUMNS_PREFIX)) {
    *problem = "not a task dump: the second line is not the column header";
    return false;
  }
  out.full = lines[1].find(DUMP_FULL_MARK) != std::string::npos;
  out.rows.reserve(lines.size() - 2);
  std::string pending;  // leading pieces of a name with newlines
  bool havePending = false;
  for (size_t i = 2; i < lines.size(); ++i) {
    TaskDumpRow row;
    if (ParseRow(lines[i], out.full, &row)) {
      if (havePending) row.comm = pending + "\n" + row.comm;
      havePending = false;
      out.rows.push_back(std::move(row));
    } else if (lines[i].size() < COMM_LEN) {
      pending = havePending ? pending + "\n" + lines[i] : lines[i];
      havePending = true;
    } else {
      ++out.skippedLines;
      havePending = false;
    }
  }
  if (havePending) ++out.skippedLines;
  *dump = std::move(out);
  return true;
}

bool ParseStateFile(const std::string& text, StateFile* state, std::string* problem) {
  std::vector<std::string> lines = android::base::Split(text, "\n");
  if (!lines.empty() && lines.back().empty()) lines.pop_back();
  if (lines.empty()) {
    *problem = "the state file is empty";
    return false;
  }
  std::vector<std::string> header = android::base::Split(WithoutCr(lines[0]), ",");
  for (std::string& field : header) field = android::base::Trim(field);
  // EventCount, eight event columns, PollCount, curIndex, firstIndex.
  constexpr size_t HEADER_FIELDS = 1 + 8 + 1 + 2;
  StateFile out;
  if (header.size() < HEADER_FIELDS || header[0] != "EventCount" || header[9] != "PollCount" ||
      !ParseInt64(header[10], &out.curIndex) || !ParseInt64(header[11], &out.firstIndex) ||
      out.curIndex < out.firstIndex) {
    *problem = "not a state file: the first line is not its header";
    return false;
  }
  const int64_t expected = out.curIndex - out.firstIndex + 1;
  size_t i = 1;
  for (; i < lines.size() && static_cast<int64_t>(out.rows.size()) < expected; ++i) {
    std::vector<std::string> fields = android::base::Split(WithoutCr(lines[i]), ",");
    // Ten numbers, each followed by ", ": the last field is blank.
    if (fields.size() != 11 || !android::base::Trim(fields[10]).empty()) {
      *problem = "state row " + std::to_string(i) + " does not hold ten numbers";
      return false;
    }
    int64_t values[10];
    for (size_t k = 0; k < 10; ++k) {
      if (!ParseInt64(android::base::Trim(fields[k]), &values[k])) {
        *problem = "state row " + std::to_string(i) + " holds something that is not a number";
        return false;
      }
    }
    std::array<int64_t, STATE_KINDS> row{};
    for (int kind = 0; kind < STATE_KINDS; ++kind) row[kind] = values[kind + 1];
    out.rows.push_back(row);
  }
  for (; i < lines.size(); ++i) {
    std::string line = WithoutCr(lines[i]);
    if (!android::base::Trim(line).empty()) out.extraLines.push_back(std::move(line));
  }
  *state = std::move(out);
  return true;
}

int64_t StateSummary::windowEvents() const {
  int64_t sum = 0;
  for (int kind = 0; kind < STATE_POLL_KIND; ++kind) sum += windowTotals[kind];
  return sum;
}

int64_t StateSummary::recentEvents() const {
  int64_t sum = 0;
  for (int kind = 0; kind < STATE_POLL_KIND; ++kind) sum += recentTotals[kind];
  return sum;
}

int64_t StateSummary::startEvents() const {
  int64_t sum = 0;
  for (int kind = 0; startTotals && kind < STATE_POLL_KIND; ++kind) sum += (*startTotals)[kind];
  return sum;
}

StateSummary SummarizeState(const StateFile& state, int recentRows, std::optional<int64_t> serviceSeconds) {
  StateSummary summary;
  summary.windowSeconds = static_cast<int64_t>(state.rows.size());
  summary.sinceStart = state.firstIndex == 0;
  if (serviceSeconds && *serviceSeconds <= summary.windowSeconds) {
    summary.sinceStart = true;
    summary.windowSeconds = std::max<int64_t>(*serviceSeconds, 1);
  }
  for (size_t r = 0; r < state.rows.size(); ++r) {
    for (int kind = 0; kind < STATE_KINDS; ++kind) {
      summary.windowTotals[kind] += state.rows[r][kind];
      if (static_cast<int>(r) < recentRows) summary.recentTotals[kind] += state.rows[r][kind];
    }
  }
  summary.recentSeconds = std::min<int64_t>(recentRows, summary.windowSeconds);
  summary.serviceSeconds = serviceSeconds;
  // "EventsSinceStart, <columns>, " then "Counted, <totals>, ".
  for (size_t i = 0; i + 1 < state.extraLines.size(); ++i) {
    if (state.extraLines[i].rfind(EVENTS_SINCE_START, 0) != 0) continue;
    std::vector<std::string> fields = android::base::Split(state.extraLines[i + 1], ",");
    for (std::string& field : fields) field = android::base::Trim(field);
    while (!fields.empty() && fields.back().empty()) fields.pop_back();
    std::array<int64_t, STATE_KINDS> totals{};
    bool valid = fields.size() == STATE_KINDS + 1 && fields[0] == "Counted";
    for (int kind = 0; valid && kind < STATE_KINDS; ++kind) valid = ParseInt64(fields[kind + 1], &totals[kind]);
    if (valid) summary.startTotals = totals;
    break;
  }
  return summary;
}

std::optional<int64_t> ServiceAgeSeconds(const std::string& procStat, const std::string& procUptime,
                                         long ticksPerSecond) {
  // starttime is field 22; the fields after the name's closing parenthesis
  // start with field 3.
  const size_t nameEnd = procStat.rfind(')');
  if (nameEnd == std::string::npos || ticksPerSecond <= 0) return std::nullopt;
  const std::vector<std::string> fields = android::base::Split(procStat.substr(nameEnd + 2), " ");
  char* end = nullptr;
  errno = 0;
  const double uptime = strtod(procUptime.c_str(), &end);
  if (fields.size() < 20 || end == procUptime.c_str() || errno != 0) return std::nullopt;
  int64_t startTicks = 0;
  if (!ParseInt64(fields[19], &startTicks) || startTicks < 0) return std::nullopt;
  const double age = uptime - static_cast<double>(startTicks) / static_cast<double>(ticksPerSecond);
  return age <= 0 ? 0 : static_cast<int64_t>(std::ceil(age));
}

const char* StateKindColumn(int kind) { return kind >= 0 && kind < STATE_KINDS ? STATE_COLUMNS[kind] : nullptr; }

int CountConnectedClients(const std::string& table, const std::string& socketName) {
  constexpr unsigned long ACCEPTING = 0x10000;  // __SO_ACCEPTCON
  constexpr char CONNECTED[] = "03";            // SS_CONNECTED
  int count = 0;
  for (const std::string& line : android::base::Split(table, "\n")) {
    // Num RefCount Protocol Flags Type St Inode Path; the path is the rest of
    // the line and may hold blanks.
    const std::vector<Token> tokens = Tokens(line);
    if (tokens.size() < 8 || tokens[0].text.back() != ':') continue;
    const std::string path = line.substr(tokens[7].begin);
    if (path != "@" + socketName && path != socketName) continue;
    const unsigned long flags = strtoul(std::string(tokens[3].text).c_str(), nullptr, 16);
    if ((flags & ACCEPTING) != 0 || tokens[5].text != CONNECTED) continue;
    ++count;
  }
  return count;
}

}  // namespace Bpf
}  // namespace Kelo
