#include "service/kelo_bpf_event_ring.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>

namespace Kelo {
namespace Bpf {
namespace {

// libbpf registers its first ring under this epoll data word.
constexpr uint32_t FIRST_RING = 0;

}  // namespace

EventRing::EventRing(android::base::unique_fd ring, android::base::unique_fd status)
    : ring_(std::move(ring)), status_(std::move(status)), gauge_(ring_.get()) {}

EventRing::~EventRing() {
  if (consumer_ != nullptr) ring_buffer__free(consumer_);
}

std::unique_ptr<EventRing> EventRing::Create(const std::string& ringPath, const std::string& statusPath,
                                             RecordFn onRecord, void* ctx, Failure* failure) {
  *failure = Failure::OPEN_RING;
  android::base::unique_fd ring(bpf_obj_get(ringPath.c_str()));
  if (ring.get() < 0) return nullptr;
  *failure = Failure::OPEN_STATUS;
  android::base::unique_fd status(bpf_obj_get(statusPath.c_str()));
  if (status.get() < 0) return nullptr;
  std::unique_ptr<EventRing> made(new EventRing(std::move(ring), std::move(status)));
  *failure = Failure::CONSUMER;
  made->consumer_ = ring_buffer__new(made->ring_.get(), onRecord, ctx, nullptr);
  if (made->consumer_ == nullptr) return nullptr;
  made->epollFd_ = ring_buffer__epoll_fd(made->consumer_);
  epoll_event event = {};
  event.events = EPOLLIN | EPOLLET;
  event.data.u32 = FIRST_RING;
  if (epoll_ctl(made->epollFd_, EPOLL_CTL_MOD, made->ring_.get(), &event) != 0) return nullptr;
  if (!made->SetWakeMode(KELO_RB_WAKE_EACH)) return nullptr;
  *failure = Failure::NONE;
  return made;
}

int EventRing::Wait(int timeoutMs) {
  epoll_event event;
  return epoll_wait(epollFd_, &event, 1, timeoutMs);
}

int EventRing::Consume() { return ring_buffer__consume(consumer_); }

bool EventRing::SetWakeMode(kelo_ringbuf_wake_mode mode) {
  if (!SetStatus(KELO_RB_STATUS_WAKE_MODE, static_cast<uint64_t>(mode))) return false;
  // The kernel's submits on other processors see the mode before this
  // thread reads the ring's positions.
  __atomic_thread_fence(__ATOMIC_SEQ_CST);
  return true;
}

uint64_t EventRing::Status(uint32_t key) const {
  uint64_t value = 0;  // stays 0 when the lookup fails
  bpf_map_lookup_elem(status_.get(), &key, &value);
  return value;
}

bool EventRing::SetStatus(uint32_t key, uint64_t value) {
  return bpf_map_update_elem(status_.get(), &key, &value, BPF_ANY) == 0;
}

PollTimer::PollTimer(std::chrono::milliseconds budget)
    : timed_(budget.count() > 0), period_(std::max(std::chrono::milliseconds(1), budget / 2)) {}

int PollTimer::TimeoutMs(Clock::time_point now, bool pending) const {
  if (phase_ == Phase::IDLE) return pending ? 1 : -1;
  if (now >= due_) return 0;
  // Rounded up: a poll a little late is within the budget's slack, one
  // early finds the records of less than a period.
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(due_ - now);
  return static_cast<int>(left.count());
}

bool PollTimer::Drained(int records, Clock::time_point woke) {
  if (!timed_) return false;
  const Phase before = phase_;
  if (records > 0) {
    phase_ = Phase::TIMED;
    due_ = woke + period_;
  } else if (phase_ == Phase::TIMED) {
    phase_ = Phase::PARKING;
    due_ = woke + std::min<Clock::duration>(period_, PARKING_GRACE);
  } else if (phase_ == Phase::PARKING && woke >= due_) {
    phase_ = Phase::IDLE;
  }
  return (before == Phase::TIMED) != (phase_ == Phase::TIMED);
}

}  // namespace Bpf
}  // namespace Kelo
