#include "utils/kelo_bpf_error_log.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <vector>

#include "helper/kelo_bpf_helper_strings.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr mode_t ERROR_LOG_DIR_MODE = 0775;
constexpr char RECORD_FORMAT[] =
    "----------\nTime: %s\nPid: %d\nTid: %d\nCmdline: %s\nComm: %s\nErrorCode: %d\nError: %s\n";

std::string LocalTimeText() {
  char text[64] = {};
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

// /proc/self/cmdline with its NUL separators turned into blanks, without the
// blank that the final NUL becomes.
std::string Cmdline() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  if (!in.is_open()) return "";
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (char& c : text) {
    if (c == '\0') c = ' ';
  }
  if (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

std::string ThreadName() {
  char name[16] = {};
  if (prctl(PR_GET_NAME, name) != 0) return "";
  return std::string(name, strnlen(name, sizeof(name)));
}

}  // namespace

void InitBpfServiceErrorLog() {
  mkdir(ERROR_LOG_DIR, ERROR_LOG_DIR_MODE);
  rename(ERROR_LOG_PATH, ERROR_LOG_OLD_PATH);
}

void RecordBpfServiceErrorInfo(int errorCode, const std::string& error) {
  std::vector<std::string> lines;
  lines.push_back(StringPrintf(RECORD_FORMAT, LocalTimeText().c_str(), getpid(), gettid(), Cmdline().c_str(),
                               ThreadName().c_str(), errorCode, error.c_str()));
  {
    std::ifstream in(ERROR_LOG_PATH);
    if (!in.is_open()) {
      KELO_LOGE(LOG_TAG_UTILS, "failed to read %s, error: %s", ERROR_LOG_PATH, strerror(errno));
    } else {
      std::string line;
      while (static_cast<int>(lines.size()) <= ERROR_LOG_MAX_KEPT_LINES && std::getline(in, line)) {
        lines.push_back(line);
      }
    }
  }
  std::ofstream out(ERROR_LOG_PATH, std::ios::trunc);
  if (!out.is_open()) {
    KELO_LOGE(LOG_TAG_UTILS, "failed to write %s, error: %s", ERROR_LOG_PATH, strerror(errno));
    return;
  }
  for (const std::string& line : lines) {
    out << line << '\n';
    out.flush();
  }
}

}  // namespace Bpf
}  // namespace Kelo
