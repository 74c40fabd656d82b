// Attaching whole program sets: from an attach table, or from a directory of
// pinned programs.
#include <android-base/errno_restorer.h>
#include <android-base/strings.h>
#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "helper/kelo_bpf_helper_attach.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {

namespace {

// Pieces of a pinned program's file name prog_<defineset>_<kind>_<progName>.
constexpr size_t PINNED_NAME_MIN_PIECES = 4;
constexpr size_t PINNED_NAME_DEFINESET = 1;
constexpr size_t PINNED_NAME_KIND = 2;
constexpr size_t PINNED_NAME_PROG_FIRST = 3;

// Attaches one well-formed row; true when the attach returned -1.
bool AttachRowFailed(const std::string& dir, const std::string& defineset, int kind,
                     const std::vector<std::string>& row) {
  const std::string& progName = row[ATTACH_COL_PROG_NAME];
  switch (kind) {
    case ATTACH_KIND_TRACEPOINT:
      if (AttachTracepointProgram(dir, defineset, progName, row[ATTACH_COL_TARGET], row[ATTACH_COL_EVENT]) != -1) {
        return false;
      }
      KELO_LOGE(LOG_TAG_UTILS, "Attach tracepoint prog failed: %s, type: %s, msg: %s", defineset.c_str(),
                progName.c_str(), strerror(errno));
      return true;
    case ATTACH_KIND_KPROBE:
      if (AttachKProbeProgram(dir, defineset, progName, row[ATTACH_COL_TARGET], true) != -1) return false;
      KELO_LOGE(LOG_TAG_UTILS, "Attach kprobe prog failed: %s, progname: %s, msg: %s", defineset.c_str(),
                progName.c_str(), strerror(errno));
      return true;
    case ATTACH_KIND_KRETPROBE:
      if (AttachKProbeProgram(dir, defineset, progName, row[ATTACH_COL_TARGET], false) != -1) return false;
      KELO_LOGE(LOG_TAG_UTILS, "Attach kretprobe prog failed: %s, progname: %s, msg: %s", defineset.c_str(),
                progName.c_str(), strerror(errno));
      return true;
    default:
      KELO_LOGE(LOG_TAG_UTILS, "(UNKNOW TYPE) attach prog failed: %s, type: %s", defineset.c_str(), progName.c_str());
      return false;
  }
}

// Attaches the pinned program named fileName (already known to start with
// "prog_"); true when it counts as a failure.
bool AttachPinnedFileFailed(const std::string& dir, const std::string& fileName) {
  const std::vector<std::string> pieces = android::base::Split(fileName, "_");
  if (pieces.size() < PINNED_NAME_MIN_PIECES) return false;
  const std::string& defineset = pieces[PINNED_NAME_DEFINESET];
  const std::string& kind = pieces[PINNED_NAME_KIND];
  const std::string progName =
      android::base::Join(std::vector<std::string>(pieces.begin() + PINNED_NAME_PROG_FIRST, pieces.end()), "_");
  KELO_LOGI(LOG_TAG_UTILS, "Attach bpf prog (%s, type: %s) to %s", fileName.c_str(), kind.c_str(), progName.c_str());
  // EEXIST: the program is attached already, which is what was asked for.
  if (kind == ATTACH_KIND_WORD_KPROBE) {
    if (AttachKProbeProgram(dir, defineset, progName) != -1 || errno == EEXIST) return false;
    KELO_LOGE(LOG_TAG_UTILS, "Attach kprobe prog failed: %s, type: %s, msg: %s", kind.c_str(), progName.c_str(),
              strerror(errno));
    return true;
  }
  if (kind == ATTACH_KIND_WORD_TRACEPOINT) {
    if (AttachTracepointProgram(dir, defineset, progName) != -1 || errno == EEXIST) return false;
    KELO_LOGE(LOG_TAG_UTILS, "Attach tracepoint prog failed: %s, type: %s, msg: %s", defineset.c_str(),
              progName.c_str(), strerror(errno));
    return true;
  }
  KELO_LOGE(LOG_TAG_UTILS, "(UNKNOW TYPE) attach prog failed: %s, type: %s", defineset.c_str(), progName.c_str());
  return false;
}

}  // namespace

int AttachAllKeloBpfProgram(const std::string& dir, const BpfAttachTable& table) {
  int failures = 0;
  for (const auto& [defineset, kinds] : table) {
    for (const auto& [kind, rows] : kinds) {
      for (const std::vector<std::string>& row : rows) {
        if (row.size() != ATTACH_ROW_COLUMNS) {
          KELO_LOGE(LOG_TAG_UTILS, "Error format!: %s", defineset.c_str());
          continue;
        }
        const std::string& progName = row[ATTACH_COL_PROG_NAME];
        const std::string& kernelCompat = row[ATTACH_COL_KERNEL_COMPAT];
        if (!CheckBpfCompatibility(kernelCompat)) {
          KELO_LOGW(LOG_TAG_UTILS, "Skip bpf prog: %s, progName: %s, kernelCompat: %s", defineset.c_str(),
                    progName.c_str(), kernelCompat.c_str());
          continue;
        }
        KELO_LOGI(LOG_TAG_UTILS, "Attach bpf prog start: %s, progName: %s", defineset.c_str(), progName.c_str());
        if (AttachRowFailed(dir, defineset, kind, row)) ++failures;
      }
    }
  }
  return failures;
}

int AttachAllKeloBpfProgram(const std::string& dir) {
  // opendir opens the directory close-on-exec; the stream owns its descriptor.
  std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), closedir);
  if (!listing) {
    android::base::ErrnoRestorer keepErrno;
    KELO_LOGE(LOG_TAG_UTILS, "[AttachAllKeloBpfProgram] Open dir failed: %s, msg: %s", dir.c_str(), strerror(errno));
    return -1;
  }
  int failures = 0;
  while (const dirent* entry = readdir(listing.get())) {
    std::string fileName = entry->d_name;
    if (IsBpfProg(fileName) && AttachPinnedFileFailed(dir, fileName)) ++failures;
  }
  return failures;
}

}  // namespace Bpf
}  // namespace Kelo
