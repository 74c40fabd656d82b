#include "service/kelo_bpf_event_pacing.h"

#include <bpf/bpf.h>
#include <linux/bpf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

thread_local const RingFillGauge* threadGauge = nullptr;

size_t PageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

}  // namespace

RingFillGauge::RingFillGauge(int ringFd) {
  bpf_map_info info = {};
  uint32_t infoLength = sizeof(info);
  if (bpf_obj_get_info_by_fd(ringFd, &info, &infoLength) != 0 || info.type != BPF_MAP_TYPE_RINGBUF) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][RingFillGauge] Not a ring buffer (fd %d): %s", ringFd,
              strerror(errno));
    errno = 0;
    return;
  }
  // The consumer position is the first word of the map's first page, the
  // producer position the first word of the second.
  void* consumer = mmap(nullptr, PageSize(), PROT_READ, MAP_SHARED, ringFd, 0);
  void* producer = mmap(nullptr, PageSize(), PROT_READ, MAP_SHARED, ringFd, static_cast<off_t>(PageSize()));
  if (consumer == MAP_FAILED || producer == MAP_FAILED) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][RingFillGauge] Map ring positions failed: %s", strerror(errno));
    errno = 0;
    if (consumer != MAP_FAILED) munmap(consumer, PageSize());
    if (producer != MAP_FAILED) munmap(producer, PageSize());
    return;
  }
  consumerPage_ = consumer;
  producerPage_ = producer;
  ringBytes_ = info.max_entries;
}

RingFillGauge::~RingFillGauge() {
  if (consumerPage_ != nullptr) munmap(const_cast<void*>(consumerPage_), PageSize());
  if (producerPage_ != nullptr) munmap(const_cast<void*>(producerPage_), PageSize());
}

uint64_t RingFillGauge::Unconsumed() const {
  if (consumerPage_ == nullptr) return 0;
  // The kernel keeps both positions as unsigned longs at the start of their pages.
  const unsigned long consumed = __atomic_load_n(static_cast<const unsigned long*>(consumerPage_), __ATOMIC_ACQUIRE);
  const unsigned long produced = __atomic_load_n(static_cast<const unsigned long*>(producerPage_), __ATOMIC_ACQUIRE);
  return produced - consumed;
}

const RingFillGauge* RingFillGauge::OfThisThread() { return threadGauge; }

RingFillGauge::Scope::Scope(const RingFillGauge* gauge) { threadGauge = gauge; }

RingFillGauge::Scope::~Scope() { threadGauge = nullptr; }

}  // namespace Bpf
}  // namespace Kelo
