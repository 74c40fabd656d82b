// Real BPF objects for tests: ring buffers and status arrays pinned at the
// service's paths inside the test's private bpffs, a way to put arbitrary
// bytes into a ring buffer as one record, a reader that drains one, and the
// real kernel programs loaded and pinned as the platform would.
//
// Every test case runs with a fresh bpffs mounted at /sys/fs/bpf, so pinning
// at the fixed service paths (KELO_BPF_MAP_PATH in bpf/kelo_bpf_events.h) is
// private to the test. Failures are reported to GoogleTest (ADD_FAILURE) with
// the reason and signalled by a null result or false.
#pragma once

#include <android-base/unique_fd.h>
#include <linux/bpf.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_loader_lib.h"

struct bpf_object;
struct ring_buffer;

namespace kelo_test {

// Creates dir and its missing parents (mkdir -p); true when it exists after.
bool MakeDirs(const std::string& dir);

// A BPF ring buffer plus an injector that writes records into it from the
// kernel side, exactly as a kernel program's bpf_ringbuf_output would.
class RingBufferFixture {
 public:
  // Longest record Inject accepts.
  static constexpr size_t kMaxInjectBytes = 2048;

  // Creates a ring buffer of size bytes (a power of two, at least one page)
  // and pins it at path.
  static std::unique_ptr<RingBufferFixture> Create(const std::string& path, uint32_t size);

  RingBufferFixture(const RingBufferFixture&) = delete;
  RingBufferFixture& operator=(const RingBufferFixture&) = delete;

  int fd() const { return map_.get(); }
  const std::string& path() const { return path_; }

  // Writes len bytes (1 to kMaxInjectBytes) of record as one ring-buffer
  // entry, byte for byte: a consumer sees exactly these bytes and this length.
  // False when the ring buffer is full or len is out of range.
  bool Inject(const void* record, size_t len);
  // From the first Inject on, records are submitted with the wake-up that
  // the status array at statusFd asks for (entry KELO_RB_STATUS_WAKE_MODE),
  // as the kernel programs submit theirs; without it, with the ring's own
  // rule. The descriptor must outlive the fixture.
  void FollowWakeMode(int statusFd) { statusFd_ = statusFd; }

 private:
  RingBufferFixture(std::string path, android::base::unique_fd map);
  bool loadInjector();

  struct ObjectCloser {
    void operator()(bpf_object* object) const;
  };

  std::string path_;
  android::base::unique_fd map_;
  std::unique_ptr<bpf_object, ObjectCloser> injector_;  // loaded on first Inject
  int injectorProg_ = -1;                               // owned by injector_
  int statusFd_ = -1;
};

// A ring-buffer status array (KELO_RB_STATUS_ENTRIES u64 entries).
class StatusArray {
 public:
  static std::unique_ptr<StatusArray> Create(const std::string& path);
  static std::unique_ptr<StatusArray> Open(const std::string& path);
  // The array behind a descriptor of it (duplicated), e.g. a loaded object's.
  static std::unique_ptr<StatusArray> Of(int mapFd);

  int fd() const { return map_.get(); }
  // Entry key (enum kelo_ringbuf_status_key); 0 after a reported failure.
  uint64_t Get(uint32_t key) const;
  bool Set(uint32_t key, uint64_t value);

 private:
  explicit StatusArray(android::base::unique_fd map) : map_(std::move(map)) {}
  android::base::unique_fd map_;
};

// A ring buffer's counts of records its programs could not write
// (KELO_RB_LOST_ENTRIES per-CPU entries of struct kelo_ringbuf_lost).
class LostCounts {
 public:
  static std::unique_ptr<LostCounts> Create(const std::string& path);
  // The counts behind a descriptor of them (duplicated), e.g. a loaded object's.
  static std::unique_ptr<LostCounts> Of(int mapFd);

  // Adds `records` to processor `cpu`'s count of `type`, as a program that
  // found the ring full there would.
  bool Add(uint32_t type, uint64_t records, int cpu = 0);
  // The count of `type` over all processors; 0 after a reported failure.
  uint64_t Total(uint32_t type) const;

 private:
  explicit LostCounts(android::base::unique_fd map) : map_(std::move(map)) {}
  std::vector<kelo_ringbuf_lost> read(uint32_t type) const;
  android::base::unique_fd map_;
};

// Both ring buffers, both status arrays and both lost counts at the paths
// the service's pumps open ("/sys/fs/bpf/kelo/map_KeloBpfDefineset_ringbuf_map"
// and the rest), status entries and counts all 0.
struct ServiceRingBuffers {
  static std::unique_ptr<ServiceRingBuffers> Create();

  std::unique_ptr<RingBufferFixture> normal;
  std::unique_ptr<StatusArray> normalStatus;
  std::unique_ptr<LostCounts> normalLost;
  std::unique_ptr<RingBufferFixture> gpl;
  std::unique_ptr<StatusArray> gplStatus;
  std::unique_ptr<LostCounts> gplLost;
};

// Consumes a ring buffer through libbpf's ring_buffer, collecting each
// record's bytes.
class RingBufferReader {
 public:
  static std::unique_ptr<RingBufferReader> Create(int ringBufferFd);
  RingBufferReader(const RingBufferReader&) = delete;
  RingBufferReader& operator=(const RingBufferReader&) = delete;

  // Records that are ready now, oldest first (does not block).
  std::vector<std::vector<uint8_t>> Drain();

 private:
  RingBufferReader() = default;
  static int onRecord(void* ctx, void* data, size_t size);

  struct RingCloser {
    void operator()(ring_buffer* ring) const;
  };

  std::unique_ptr<ring_buffer, RingCloser> ring_;
  std::vector<std::vector<uint8_t>> records_;
};

// Loads the kernel programs built with this tree and pins them under dir as
// the platform does; true when every program and map was pinned. The report
// (optional) lists what was pinned and what failed.
bool LoadAndPinPrograms(const std::string& dir = KELO_BPF_FS_DIR, Kelo::Bpf::BpfLoadReport* report = nullptr);

}  // namespace kelo_test
