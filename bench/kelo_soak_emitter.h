// The soak's source of events: the loss-test emitter program
// (kelo_bpf_loss_test.bpf.o) loaded with the running service's pinned normal
// ring buffer, status array and lost counts in place of its own, so that
// every record it emits goes through the kernel side's reservation path into
// the service's ring, and every record that finds the ring full is counted by
// the kernel exactly as a real program's would be.
//
// Records are kelo_fd_update_event-sized, of the requested type, with a
// header time of 1, 2, 3, ... (the count of records written, so that the
// times in a queue-loss report name the records lost, and a record the ring
// refused leaves no gap) and open_count = the emitter's stamp.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct bpf_object;

namespace kelo_bench {

class SoakEmitter {
 public:
  // Loads the emitter over the maps of the normal set pinned under dir; null
  // after a failure reported on stderr.
  static std::unique_ptr<SoakEmitter> Attach(const std::string& dir);
  ~SoakEmitter();
  SoakEmitter(const SoakEmitter&) = delete;
  SoakEmitter& operator=(const SoakEmitter&) = delete;

  // Emits one record of `type` carrying `stamp`; true when the ring took it.
  // About half a microsecond (one BPF_PROG_TEST_RUN).
  bool Emit(uint32_t type, uint64_t stamp);
  // Records written so far: the header time of the last one.
  uint64_t Written() const;
  // The kernel's count of refused records of `type` in the set, over all
  // processors (since the set was loaded).
  uint64_t KernelLost(uint32_t type) const;

 private:
  SoakEmitter() = default;

  bpf_object* object_ = nullptr;
  int prog_ = -1;
  int lostFd_ = -1;  // owned by object_
  int bssFd_ = -1;   // owned by object_
};

}  // namespace kelo_bench
