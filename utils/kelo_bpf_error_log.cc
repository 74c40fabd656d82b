#include "utils/kelo_bpf_error_log.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "helper/kelo_bpf_helper_strings.h"
#include "utils/kelo_bpf_log.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr mode_t ERROR_LOG_DIR_MODE = 0775;
// As fopen would create it; the process umask applies.
constexpr mode_t ERROR_LOG_FILE_MODE = 0666;
constexpr char CMDLINE_PATH[] = "/proc/self/cmdline";
constexpr char RECORD_FORMAT[] =
    "----------\nTime: %s\nPid: %d\nTid: %d\nCmdline: %s\nComm: %s\nErrorCode: %d\nError: %s\n";

// Serialises the read-prepend-rewrite of error.log between the threads of this
// process, so that two failures at the same moment do not lose a record.
Mutex errorLogLock;

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
  std::string text;
  if (!android::base::ReadFileToString(CMDLINE_PATH, &text)) return "";
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

// The lines of text as a line reader sees them: a final newline does not
// start another (empty) line.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines = android::base::Split(text, "\n");
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

}  // namespace

void InitBpfServiceErrorLog() {
  MutexLock lock(errorLogLock);
  mkdir(ERROR_LOG_DIR, ERROR_LOG_DIR_MODE);
  rename(ERROR_LOG_PATH, ERROR_LOG_OLD_PATH);
}

void RecordBpfServiceErrorInfo(int errorCode, const std::string& error) {
  std::vector<std::string> lines;
  lines.push_back(StringPrintf(RECORD_FORMAT, LocalTimeText().c_str(), getpid(), gettid(), Cmdline().c_str(),
                               ThreadName().c_str(), errorCode, error.c_str()));

  MutexLock lock(errorLogLock);
  std::string previous;
  if (!android::base::ReadFileToString(ERROR_LOG_PATH, &previous)) {
    KELO_LOGE(LOG_TAG_UTILS, "failed to read %s, error: %s", ERROR_LOG_PATH, strerror(errno));
  } else {
    std::vector<std::string> old = Lines(previous);
    const size_t kept = static_cast<size_t>(ERROR_LOG_MAX_KEPT_LINES);
    if (old.size() > kept) old.resize(kept);
    lines.insert(lines.end(), old.begin(), old.end());
  }

  android::base::unique_fd out(
      TEMP_FAILURE_RETRY(open(ERROR_LOG_PATH, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, ERROR_LOG_FILE_MODE)));
  if (out == -1) {
    KELO_LOGE(LOG_TAG_UTILS, "failed to write %s, error: %s", ERROR_LOG_PATH, strerror(errno));
    return;
  }
  for (const std::string& line : lines) {
    android::base::WriteStringToFd(line + "\n", out);
  }
}

}  // namespace Bpf
}  // namespace Kelo
