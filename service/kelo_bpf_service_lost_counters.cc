#include "service/kelo_bpf_service_lost_counters.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {

uint64_t MonotonicNowNs() {
  // steady_clock is CLOCK_MONOTONIC, as bpf_ktime_get_ns.
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

bool KernelLostCounters::ReadCounts(int fd, uint64_t (*counts)[KELO_RB_LOST_ENTRIES]) {
  const int cpus = libbpf_num_possible_cpus();
  if (cpus <= 0) return false;
  // Per-CPU values come one per possible processor, each rounded up to 8 bytes.
  static_assert(sizeof(kelo_ringbuf_lost) % 8 == 0, "per-CPU values are 8-byte slots");
  std::vector<kelo_ringbuf_lost> perCpu(static_cast<size_t>(cpus));
  for (uint32_t type = 0; type < KELO_RB_LOST_ENTRIES; ++type) {
    if (bpf_map_lookup_elem(fd, &type, perCpu.data()) != 0) return false;
    (*counts)[type] = 0;
    for (const kelo_ringbuf_lost& cpu : perCpu) (*counts)[type] += cpu.records;
  }
  return true;
}

bool KernelLostCounters::Open(int ring, const std::string& path) {
  if (ring < 0 || ring >= LOSS_RING_COUNT) return false;
  android::base::unique_fd fd(bpf_obj_get(path.c_str()));
  uint64_t counts[KELO_RB_LOST_ENTRIES] = {};
  if (fd.get() < 0 || !ReadCounts(fd.get(), &counts)) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][KernelLostCounters] Open %s failed: %s; its losses go uncounted",
              path.c_str(), strerror(errno));
    errno = 0;
    return false;
  }
  MutexLock guard(lock);
  fds[ring] = std::move(fd);
  memcpy(last[ring], counts, sizeof(counts));
  lastReadNs[ring] = MonotonicNowNs();
  return true;
}

std::vector<KernelLostCounters::Growth> KernelLostCounters::Read() {
  std::vector<Growth> growth;
  MutexLock guard(lock);
  for (int ring = 0; ring < LOSS_RING_COUNT; ++ring) {
    if (fds[ring].get() < 0) continue;
    uint64_t counts[KELO_RB_LOST_ENTRIES] = {};
    const uint64_t now = MonotonicNowNs();
    if (!ReadCounts(fds[ring].get(), &counts)) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][KernelLostCounters] Read ring %d failed: %s", ring, strerror(errno));
      errno = 0;
      continue;
    }
    for (int type = 0; type < KELO_RB_LOST_ENTRIES; ++type) {
      // The kernel's counts only grow while the set is loaded.
      if (counts[type] > last[ring][type]) {
        growth.push_back(Growth{ring, type, counts[type] - last[ring][type], lastReadNs[ring], now});
      }
    }
    memcpy(last[ring], counts, sizeof(counts));
    lastReadNs[ring] = now;
  }
  return growth;
}

}  // namespace Bpf
}  // namespace Kelo
