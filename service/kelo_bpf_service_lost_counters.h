// The kernel's counts of records its programs could not write for want of
// room: one pinned per-CPU array per ring buffer ("map_<set>_ringbuf_lost",
// layout in bpf/kelo_bpf_events.h), read here as growth between readings.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_event_loss.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// CLOCK_MONOTONIC in nanoseconds, the kernel programs' time base.
uint64_t MonotonicNowNs();

class KernelLostCounters {
 public:
  // Records of `type` lost in ring `ring` after sinceNs and not after untilNs.
  struct Growth {
    int ring;
    int type;
    uint64_t records;
    uint64_t sinceNs;
    uint64_t untilNs;
  };

  // Opens ring `ring`'s array at path and takes its counts as they are now
  // as the baseline: only what is lost from now on is the service's to
  // tell. False, logged, when it cannot be opened or read; that ring's
  // losses are then not counted. Any thread (a pump calls it).
  bool Open(int ring, const std::string& path) EXCLUDES(lock);
  // Reads every open array: the growth of each count since the last
  // reading (or the baseline). Any thread; one system call per event type
  // and open ring.
  std::vector<Growth> Read() EXCLUDES(lock);

 private:
  // The counts of the array at fd, summed over the processors.
  bool ReadCounts(int fd, uint64_t (*counts)[KELO_RB_LOST_ENTRIES]);

  Mutex lock;
  android::base::unique_fd fds[LOSS_RING_COUNT] GUARDED_BY(lock);
  uint64_t last[LOSS_RING_COUNT][KELO_RB_LOST_ENTRIES] GUARDED_BY(lock) = {};
  uint64_t lastReadNs[LOSS_RING_COUNT] GUARDED_BY(lock) = {};
};

}  // namespace Bpf
}  // namespace Kelo
