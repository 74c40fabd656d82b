// Log tags and priorities of the platform log. Every line the service writes
// goes through __android_log_print with one of these tags.
#pragma once

#include <android/log.h>

namespace Kelo {
namespace Bpf {

// Members of the service class.
inline constexpr char LOG_TAG_SERVICE[] = "BpfService";
// Attach helpers, state counters, error log, free IPC functions and queues.
inline constexpr char LOG_TAG_UTILS[] = "BpfUtils";

}  // namespace Bpf
}  // namespace Kelo

#define KELO_LOGI(tag, ...) __android_log_print(ANDROID_LOG_INFO, (tag), __VA_ARGS__)
#define KELO_LOGW(tag, ...) __android_log_print(ANDROID_LOG_WARN, (tag), __VA_ARGS__)
#define KELO_LOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, (tag), __VA_ARGS__)

// For a condition that a peer's bytes decide, which must never abort the
// process: true when it holds; otherwise logs "Check failed: <condition>"
// at error priority, as a fatal check would, and is false.
#define KELO_PEER_CHECK(tag, condition) ((condition) ? true : (KELO_LOGE((tag), "Check failed: %s", #condition), false))
