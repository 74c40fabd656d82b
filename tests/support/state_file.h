// The service's state file: asked for with signal 50 and read back as rows
// of numbers. Its exact layout is pinned by the state tests; the others only
// read the counts.
#pragma once

#include <android-base/file.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
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

// The numbers of a line "a, b, c, ", or of what follows its leading name.
inline std::vector<int64_t> StateNumbers(std::string line) {
  std::replace(line.begin(), line.end(), ',', ' ');
  std::istringstream fields(line);
  std::vector<int64_t> values;
  for (int64_t value; fields >> value;) values.push_back(value);
  return values;
}

// Each row after the header line, newest first: the sum of the event kinds,
// then the counts of kinds 0 to 8. The rows end where the service's loss
// lines, which start with a name, begin.
inline std::vector<std::vector<int64_t>> StateRows(const std::string& text) {
  std::vector<std::vector<int64_t>> rows;
  std::istringstream lines(text.substr(std::min(text.size(), text.find('\n') + 1)));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || !(isdigit(static_cast<unsigned char>(line[0])) || line[0] == '-')) break;
    rows.push_back(StateNumbers(line));
  }
  return rows;
}

// The numbers of the line after the rows that starts with "<name>, "; empty
// when there is none.
inline std::vector<int64_t> StateLine(const std::string& text, const std::string& name) {
  const std::string lead = "\n" + name + ", ";
  const size_t at = text.find(lead);
  if (at == std::string::npos) return {};
  return StateNumbers(text.substr(at + lead.size(), text.find('\n', at + 1) - at - lead.size()));
}

// A fresh state file written on signal 50 by this process; nothing when none
// came within `limit`.
inline std::optional<std::string> RequestStateText(std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const char* path = Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_TEMPLATE;
  unlink(path);
  kill(getpid(), SIGNAL_DUMP_STATE);
  std::string text;
  const auto written = [&] {
    return android::base::ReadFileToString(path, &text) && !text.empty() && text.back() == '\n';
  };
  if (!WaitUntil(written, limit)) return std::nullopt;
  return text;
}

// Column sums over all rows of a fresh state file written on signal 50 by
// this process; nothing when none came within `limit`.
inline std::optional<std::vector<int64_t>> RequestStateTotals(
    std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const std::optional<std::string> written = RequestStateText(limit);
  if (!written) return std::nullopt;
  const std::string& text = *written;
  std::vector<int64_t> totals(10, 0);
  for (const std::vector<int64_t>& row : StateRows(text)) {
    for (size_t column = 0; column < totals.size() && column < row.size(); ++column) totals[column] += row[column];
  }
  return totals;
}

}  // namespace kelo_test
