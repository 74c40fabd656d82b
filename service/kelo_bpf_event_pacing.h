// How full the ring buffer is that the calling thread drains. A publisher
// may hold itself back for a client that asked to be paced, but never while
// the ring it drains is more than half full: a client that reads slowly then
// costs its own events, never the kernel's ring and with it every client's.
#pragma once

#include <cstdint>

namespace Kelo {
namespace Bpf {

class RingFillGauge {
 public:
  // Maps the consumer and producer position pages of the ring buffer map at
  // ringFd, read-only. A gauge that cannot (logged) reads as empty.
  explicit RingFillGauge(int ringFd);
  ~RingFillGauge();
  RingFillGauge(const RingFillGauge&) = delete;
  RingFillGauge& operator=(const RingFillGauge&) = delete;

  // Bytes written into the ring and not yet consumed; 0 for an unusable gauge.
  uint64_t Unconsumed() const;
  // Whether more than half of the ring's bytes hold records not consumed yet.
  bool MoreThanHalfFull() const { return Unconsumed() > ringBytes_ / 2; }

  // The gauge made this thread's by a living Scope, or null.
  static const RingFillGauge* OfThisThread();

  // Makes a gauge the calling thread's for its lifetime; at most one per thread.
  class Scope {
   public:
    explicit Scope(const RingFillGauge* gauge);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
  };

 private:
  const void* consumerPage_ = nullptr;
  const void* producerPage_ = nullptr;
  uint64_t ringBytes_ = 0;
};

}  // namespace Bpf
}  // namespace Kelo
