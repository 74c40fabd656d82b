// One pinned ring buffer as its pump sees it: the ring's and its status
// array's descriptors, the libbpf consumer that hands every record to a
// callback, the wait for records and the wake-up mode the kernel's submits
// follow (status entry KELO_RB_STATUS_WAKE_MODE). Made by Create, which can
// fail; everything it opened is closed with it.
//
// Waiting is edge-triggered: Wait returns when the kernel signalled the ring
// since the last Wait (or the time-out passed), not merely because unread
// records remain, so a pump that polls on a timer is not woken by records
// that the kernel submitted without a wake-up. A pump therefore drains
// (Consume) after every Wait and looks at Unconsumed before it waits without
// a time-out.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_event_pacing.h"

struct ring_buffer;

namespace Kelo {
namespace Bpf {

class EventRing {
 public:
  // The callback of every record: (ctx, record, length); a negative result
  // ends the Consume that called it.
  using RecordFn = int (*)(void* ctx, void* data, size_t size);

  // What Create could not do.
  enum class Failure { NONE, OPEN_RING, OPEN_STATUS, CONSUMER };

  // Opens the ring pinned at ringPath and the status array pinned at
  // statusPath and makes the consumer. Null with errno set and *failure
  // naming the step on failure. The wake-up mode is set to
  // KELO_RB_WAKE_EACH. Any thread.
  static std::unique_ptr<EventRing> Create(const std::string& ringPath, const std::string& statusPath,
                                           RecordFn onRecord, void* ctx, Failure* failure);
  ~EventRing();
  EventRing(const EventRing&) = delete;
  EventRing& operator=(const EventRing&) = delete;

  // Waits up to timeoutMs (-1: without a time-out) for the kernel to signal
  // the ring; >0 when it did, 0 after the time-out, -1 with errno set (EINTR
  // when a signal came). The pump's thread only.
  int Wait(int timeoutMs);
  // Hands every committed record to the callback; the number handed, or the
  // callback's negative result (the records after that one stay). The
  // pump's thread only.
  int Consume();
  // Bytes written into the ring and not yet consumed. Any thread.
  uint64_t Unconsumed() const { return gauge_.Unconsumed(); }
  // How full the ring is, for publishers on the pump's thread.
  const RingFillGauge& gauge() const { return gauge_; }

  // Sets the wake-up mode the kernel's submits follow; false (errno set)
  // when the status array refused. Any thread.
  bool SetWakeMode(kelo_ringbuf_wake_mode mode);
  // Status entry `key`; 0 when the lookup fails. Any thread; a
  // read-modify-write needs the caller's lock.
  uint64_t Status(uint32_t key) const;
  bool SetStatus(uint32_t key, uint64_t value);

  int ringFd() const { return ring_.get(); }

 private:
  EventRing(android::base::unique_fd ring, android::base::unique_fd status);

  android::base::unique_fd ring_;
  android::base::unique_fd status_;
  RingFillGauge gauge_;
  ring_buffer* consumer_ = nullptr;
  // libbpf's epoll instance of the consumer, with the ring made edge-triggered.
  int epollFd_ = -1;
};

// When a pump polls its ring, given its delivery-latency budget: how long
// a record may wait in the ring before the pump hands it on.
//
// Budget 0: the pump waits for the kernel's wake-up after each record
// (KELO_RB_WAKE_EACH) and drains at once, as a plain consumer does.
// Otherwise an idle pump waits without a time-out; the first record wakes
// it, it drains, asks the kernel for no more wake-ups (KELO_RB_WAKE_TIMED,
// but for the watermark) and polls again one period after that wake-up, and
// so on while records keep coming. A timed poll that finds nothing asks for
// wake-ups again and polls once more PARKING_GRACE later before it waits
// without a time-out, so that a record whose submit still saw the old mode
// is not left in the ring (a kernel program reads the mode after it reserved
// its record, so the pump also sees such a record as unconsumed). The period is half the budget (at least 1 ms),
// leaving the rest for the way to the client on a busy machine. Used by one pump thread.
class PollTimer {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds PARKING_GRACE{1};

  explicit PollTimer(std::chrono::milliseconds budget);

  // The time-out of the next Wait at `now`: -1 (none) while idle, the
  // milliseconds until the next timed poll otherwise; `pending` (records
  // left in the ring) makes an idle pump look again within 1 ms.
  int TimeoutMs(Clock::time_point now, bool pending) const;
  // After a poll whose Wait returned at `woke` handed on `records`; true
  // when the pump is to set the ring's wake-up mode to Mode().
  bool Drained(int records, Clock::time_point woke);
  kelo_ringbuf_wake_mode Mode() const { return phase_ == Phase::TIMED ? KELO_RB_WAKE_TIMED : KELO_RB_WAKE_EACH; }
  std::chrono::milliseconds period() const { return period_; }

 private:
  enum class Phase { IDLE, TIMED, PARKING };

  const bool timed_;
  const std::chrono::milliseconds period_;
  Phase phase_ = Phase::IDLE;
  // The next timed poll, outside IDLE.
  Clock::time_point due_;
};

}  // namespace Bpf
}  // namespace Kelo
