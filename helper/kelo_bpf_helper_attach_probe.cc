// Attaching one pinned program to a tracepoint, kprobe or kretprobe.
#include <android-base/errno_restorer.h>
#include <bcc/libbpf.h>

#include <cerrno>

#include "helper/kelo_bpf_helper_attach.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {

namespace {

// Appended to a probe program's name to form its probe event name.
constexpr char PROBE_EVENT_SUFFIX[] = "_kelobpf";
// Words of a name-driven probe program's direction prefix.
constexpr char PROBE_DIRECTION_ENTER[] = "enter";
constexpr char PROBE_DIRECTION_RETURN[] = "return";
// libbcc_bpf's probe offset and maxactive: probe the function itself, with
// the kernel's default number of concurrent return probes.
constexpr uint64_t PROBE_FUNCTION_OFFSET = 0;
constexpr int PROBE_MAX_ACTIVE = 0;

// Splits name at its first "_"; without one, both halves are the whole name.
void SplitAtFirstUnderscore(const std::string& name, std::string* before, std::string* after) {
  const size_t p = name.find('_');
  if (p == std::string::npos) {
    *before = name;
    *after = name;
    return;
  }
  *before = name.substr(0, p);
  *after = name.substr(p + 1);
}

int AttachProbe(int progFd, bool isEnter, const std::string& progName, const std::string& functionName) {
  const std::string eventName = progName + PROBE_EVENT_SUFFIX;
  return bpf_attach_kprobe(progFd, isEnter ? BPF_PROBE_ENTRY : BPF_PROBE_RETURN, eventName.c_str(),
                           functionName.c_str(), PROBE_FUNCTION_OFFSET, PROBE_MAX_ACTIVE);
}

}  // namespace

int AttachTracepointProgram(const std::string& dir, const std::string& defineset, const std::string& progName,
                            const std::string& subSystem, const std::string& eventName) {
  const int progFd = RetrieveProgramFd(dir, defineset, ATTACH_KIND_WORD_TRACEPOINT, progName);
  if (progFd < 0) {
    android::base::ErrnoRestorer keepErrno;
    KELO_LOGE(LOG_TAG_UTILS, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s", progName.c_str());
    return -1;
  }
  return bpf_attach_tracepoint(progFd, subSystem.c_str(), eventName.c_str());
}

int AttachTracepointProgram(const std::string& dir, const std::string& defineset, const std::string& progName) {
  int progFd = RetrieveProgramFd(dir, defineset, ATTACH_KIND_WORD_TRACEPOINT, progName);
  if (progFd < 0) progFd = RetrieveProgramFd(dir, defineset);
  if (progFd < 0) {
    android::base::ErrnoRestorer keepErrno;
    KELO_LOGE(LOG_TAG_UTILS, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s", progName.c_str());
    return -1;
  }
  std::string category;
  std::string event;
  SplitAtFirstUnderscore(progName, &category, &event);
  return bpf_attach_tracepoint(progFd, category.c_str(), event.c_str());
}

int AttachTracepointProgram(const std::string& dir, const std::string& fileName, const std::string& subSystem,
                            const std::string& eventName) {
  const int progFd = RetrieveProgramFd(dir, fileName);
  if (progFd < 0) {
    android::base::ErrnoRestorer keepErrno;
    KELO_LOGE(LOG_TAG_UTILS, "[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: %s, eventName: %s",
              subSystem.c_str(), eventName.c_str());
    return -1;
  }
  return bpf_attach_tracepoint(progFd, subSystem.c_str(), eventName.c_str());
}

int AttachKProbeProgram(const std::string& dir, const std::string& defineset, const std::string& progName,
                        const std::string& functionName, bool isEnter) {
  const int progFd =
      RetrieveProgramFd(dir, defineset, isEnter ? ATTACH_KIND_WORD_KPROBE : ATTACH_KIND_WORD_KRETPROBE, progName);
  if (progFd < 0) {
    android::base::ErrnoRestorer keepErrno;
    if (isEnter) {
      KELO_LOGE(LOG_TAG_UTILS, "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, function: %s", progName.c_str(),
                functionName.c_str());
    } else {
      KELO_LOGE(LOG_TAG_UTILS, "[AttachKProbeProgram] Retrieve kretprobe prog failed: %s, function: %s",
                progName.c_str(), functionName.c_str());
    }
    return -1;
  }
  if (isEnter) {
    KELO_LOGI(LOG_TAG_UTILS, "[AttachKProbeProgram] Attach kprobe prog: enter: progName: %s, functionName: %s",
              progName.c_str(), functionName.c_str());
  } else {
    KELO_LOGI(LOG_TAG_UTILS, "[AttachKProbeProgram] Attach kretprobe prog: return: progName: %s, functionName: %s",
              progName.c_str(), functionName.c_str());
  }
  return AttachProbe(progFd, isEnter, progName, functionName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& defineset, const std::string& progName) {
  // Both directions are pinned under the "kprobe" word; the direction comes
  // from the program name's prefix.
  const int progFd = RetrieveProgramFd(dir, defineset, ATTACH_KIND_WORD_KPROBE, progName);
  if (progFd < 0) {
    android::base::ErrnoRestorer keepErrno;
    KELO_LOGE(LOG_TAG_UTILS, "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, prog: %s", progName.c_str(),
              defineset.c_str());
    return -1;
  }
  std::string direction;
  std::string function;
  SplitAtFirstUnderscore(progName, &direction, &function);
  if (direction.find(PROBE_DIRECTION_ENTER) != std::string::npos) {
    KELO_LOGI(LOG_TAG_UTILS, "[AttachKProbeProgram] Attach kprobe prog: enter: eventType: %s, eventName: %s",
              direction.c_str(), function.c_str());
    return AttachProbe(progFd, true, progName, function);
  }
  if (direction.find(PROBE_DIRECTION_RETURN) != std::string::npos) {
    KELO_LOGI(LOG_TAG_UTILS, "[AttachKProbeProgram] Attach kprobe prog: return: eventType: %s, eventName: %s",
              direction.c_str(), function.c_str());
    return AttachProbe(progFd, false, progName, function);
  }
  KELO_LOGE(LOG_TAG_UTILS, "[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: %s, prog: %s", progName.c_str(),
            defineset.c_str());
  errno = EINVAL;
  return -1;
}

}  // namespace Bpf
}  // namespace Kelo
