// Log tag of the hosting daemon's own lines; the service's lines keep theirs.
#pragma once

#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {

inline constexpr char LOG_TAG_DAEMON[] = "KeloBpfDaemon";

}  // namespace Bpf
}  // namespace Kelo
