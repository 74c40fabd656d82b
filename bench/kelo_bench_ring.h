// The kernel side of the delivery benchmark: BPF ring buffers and status
// arrays pinned where a consumer expects them, and a producer that writes
// records into a ring exactly as a kernel program's bpf_ringbuf_output does.
//
// Records are written by the test injector program (kelo_bpf_inject.bpf.o)
// run through BPF_PROG_TEST_RUN, about half a microsecond per run. A run's
// repeat count lets one system call write the same record any number of
// times at a tenth of that each, after a fixed start of some tens of
// milliseconds: a million records take about a tenth of a second.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <memory>
#include <string>

struct bpf_object;

namespace kelo_bench {

// Creates dir and its missing parents; false (reported on stderr) on failure.
bool MakeDirs(const std::string& dir);

class BenchRing {
 public:
  // A ring of `bytes` (a power of two, a multiple of the page size) pinned at
  // `path`; null after a failure reported on stderr.
  static std::unique_ptr<BenchRing> Create(const std::string& path, uint32_t bytes);
  ~BenchRing();

  BenchRing(const BenchRing&) = delete;
  BenchRing& operator=(const BenchRing&) = delete;

  int fd() const { return map_.get(); }
  uint32_t bytes() const { return bytes_; }

  // Writes `record` (1 to 2048 bytes) `count` times as separate entries.
  // True when every copy found room: the copies are equal in size and room
  // only grows while they are written, so the last one fitting means all did.
  bool Fill(const std::string& record, uint32_t count);

  // From the first Fill on, records are submitted with the wake-up that the
  // status array at statusFd asks for (entry KELO_RB_STATUS_WAKE_MODE), as
  // the kernel programs submit theirs; without it, with the ring's own rule
  // (wake the consumer when it has read everything before the record). The
  // descriptor must outlive the ring.
  void FollowWakeMode(int statusFd) { statusFd_ = statusFd; }

  // Bytes written but not yet consumed, read from the ring's position pages.
  uint64_t Unconsumed() const;

  // Bytes a ring entry of a `recordBytes` record takes (header, 8-byte
  // rounding).
  static uint64_t EntryBytes(uint32_t recordBytes);

 private:
  BenchRing(android::base::unique_fd map, uint32_t bytes) : map_(std::move(map)), bytes_(bytes) {}
  bool mapPositions();
  bool loadInjector();

  android::base::unique_fd map_;
  uint32_t bytes_;
  // Read-only views of the consumer and producer position pages.
  const void* consumerPage_ = nullptr;
  const void* producerPage_ = nullptr;
  bpf_object* injector_ = nullptr;  // loaded on the first Fill
  int injectorProg_ = -1;           // owned by injector_
  int statusFd_ = -1;
};

// A ring-buffer status array (KELO_RB_STATUS_ENTRIES u64 entries) pinned at `path`; an empty
// descriptor after a failure reported on stderr.
android::base::unique_fd CreateStatusArray(const std::string& path);
// Entry `key` of a status array; 0 when the lookup fails.
uint64_t ReadStatus(int statusFd, uint32_t key);

}  // namespace kelo_bench
