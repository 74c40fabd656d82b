#include "service/kelo_bpf_service_procfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace Kelo {
namespace Bpf {
namespace {

// Most status files fit in one read of this size.
constexpr size_t FIRST_READ_BYTES = 2048;

// Fields of a stat line after the name: the first is field 2 (state).
constexpr size_t FIRST_FIELD_AFTER_NAME = 2;
constexpr size_t STAT_THREADS_FIELD = 19;
constexpr size_t STAT_START_TIME_FIELD = 21;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

}  // namespace

bool ReadProcFile(const char* path, std::string* content, ProcFileEnd end) {
  content->clear();
  android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(path, O_RDONLY | O_CLOEXEC)));
  if (fd.get() < 0) return false;
  size_t used = 0;
  content->resize(std::max(content->capacity(), FIRST_READ_BYTES));
  while (true) {
    if (used == content->size()) content->resize(content->size() * 2);
    const size_t room = content->size() - used;
    const ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), &(*content)[used], room));
    if (n < 0) {
      const int readErrno = errno;
      content->clear();
      errno = readErrno;
      return false;
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
    if (end == ProcFileEnd::SHORT_READ && static_cast<size_t>(n) < room) break;
  }
  content->resize(used);
  return true;
}

std::optional<int64_t> ParseDecimal(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && IsBlank(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  const size_t firstDigit = i;
  // Accumulated as a negative number, whose range includes INT64_MIN.
  int64_t value = 0;
  constexpr int64_t MIN = std::numeric_limits<int64_t>::min();
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const int digit = text[i] - '0';
    if (value < (MIN + digit) / 10) return std::nullopt;
    value = value * 10 - digit;
  }
  if (i == firstDigit) return std::nullopt;
  if (negative) return value;
  if (value == MIN) return std::nullopt;
  return -value;
}

void CopyTaskName(std::string_view name, char* field, size_t size) {
  if (size == 0) return;
  const size_t n = std::min(name.size(), size - 1);
  memcpy(field, name.data(), n);
  memset(field + n, 0, size - n);
}

ProcStat ParseProcStat(std::string_view line) {
  ProcStat stat;
  const size_t nameEnd = line.rfind(')');
  if (nameEnd == std::string_view::npos) return stat;
  std::string_view rest = line.substr(nameEnd + 1);
  size_t field = FIRST_FIELD_AFTER_NAME;
  while (field <= STAT_START_TIME_FIELD) {
    while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
    if (rest.empty() || rest.front() == '\n') return stat;
    const size_t end = std::min(rest.find(' '), rest.size());
    const std::string_view value = rest.substr(0, end);
    if (field == STAT_THREADS_FIELD) stat.threads = ParseDecimal(value).value_or(0);
    if (field == STAT_START_TIME_FIELD) stat.startTicks = ParseDecimal(value).value_or(0);
    rest.remove_prefix(end);
    ++field;
  }
  stat.complete = true;
  return stat;
}

}  // namespace Bpf
}  // namespace Kelo
