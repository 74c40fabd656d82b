// The service's state file: asked for with signal 50 and read back as rows
// of numbers. Its exact layout is pinned by the state tests; the others only
// read the counts.
#pragma once

#include <android-base/file.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "service/kelo_bpf_state.h"
#include "tests/support/wait.h"

namespace kelo_test {

// The signal on which the service writes its state file.
constexpr int SIGNAL_DUMP_STATE = 50;

// Each row after the header line, newest first: the sum of the event kinds,
// then the counts of kinds 0 to 8.
inline std::vector<std::vector<int64_t>> StateRows(const std::string& text) {
  std::vector<std::vector<int64_t>> rows;
  std::istringstream lines(text.substr(std::min(text.size(), text.find('\n') + 1)));
  for (std::string line; std::getline(lines, line);) {
    std::replace(line.begin(), line.end(), ',', ' ');
    std::istringstream fields(line);
    rows.emplace_back();
    for (int64_t value; fields >> value;) rows.back().push_back(value);
  }
  return rows;
}

// Column sums over all rows of a fresh state file written on signal 50 by
// this process; nothing when none came within `limit`.
inline std::optional<std::vector<int64_t>> RequestStateTotals(
    std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const char* path = Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_TEMPLATE;
  unlink(path);
  kill(getpid(), SIGNAL_DUMP_STATE);
  std::string text;
  const auto written = [&] { return android::base::ReadFileToString(path, &text) && !text.empty() && text.back() == '\n'; };
  if (!WaitUntil(written, limit)) return std::nullopt;
  std::vector<int64_t> totals(10, 0);
  for (const std::vector<int64_t>& row : StateRows(text)) {
    for (size_t column = 0; column < totals.size() && column < row.size(); ++column) totals[column] += row[column];
  }
  return totals;
}

}  // namespace kelo_test
