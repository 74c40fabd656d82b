#include "bench/kelo_bench_ring.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "bpf/kelo_bpf_inject.h"

namespace kelo_bench {
namespace {

// XDP test runs refuse input shorter than an Ethernet header.
constexpr size_t MIN_FRAME_BYTES = ETH_HLEN;
// Every ring entry starts with an 8-byte header and is rounded up to 8 bytes.
constexpr uint64_t RING_ENTRY_HEADER_BYTES = 8;
constexpr uint64_t RING_ENTRY_ALIGN = 8;
// Below this many copies, single runs (about half a microsecond each) are
// cheaper than one repeated run.
constexpr uint32_t REPEAT_WORTHWHILE = 65536;

std::string ParentDir(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

android::base::unique_fd CreatePinnedMap(const std::string& path, bpf_map_type type, uint32_t keySize,
                                         uint32_t valueSize, uint32_t maxEntries) {
  if (!MakeDirs(ParentDir(path))) return android::base::unique_fd();
  android::base::unique_fd fd(bpf_map_create(type, nullptr, keySize, valueSize, maxEntries, nullptr));
  if (fd.get() < 0) {
    fprintf(stderr, "bpf_map_create for %s: %s\n", path.c_str(), strerror(errno));
    return android::base::unique_fd();
  }
  if (bpf_obj_pin(fd.get(), path.c_str()) != 0) {
    fprintf(stderr, "bpf_obj_pin(%s): %s\n", path.c_str(), strerror(errno));
    return android::base::unique_fd();
  }
  return fd;
}

}  // namespace

bool MakeDirs(const std::string& dir) {
  for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1)) {
    const std::string prefix = dir.substr(0, pos);
    if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      fprintf(stderr, "mkdir(%s): %s\n", prefix.c_str(), strerror(errno));
      return false;
    }
    if (pos == std::string::npos) return true;
  }
}

std::unique_ptr<BenchRing> BenchRing::Create(const std::string& path, uint32_t bytes) {
  android::base::unique_fd fd = CreatePinnedMap(path, BPF_MAP_TYPE_RINGBUF, 0, 0, bytes);
  if (fd.get() < 0) return nullptr;
  std::unique_ptr<BenchRing> ring(new BenchRing(std::move(fd), bytes));
  return ring->mapPositions() ? std::move(ring) : nullptr;
}

BenchRing::~BenchRing() {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (consumerPage_ != nullptr) munmap(const_cast<void*>(consumerPage_), page);
  if (producerPage_ != nullptr) munmap(const_cast<void*>(producerPage_), page);
  bpf_object__close(injector_);
}

bool BenchRing::mapPositions() {
  // The consumer position is the first word of the first page, the producer
  // position the first word of the second.
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* consumer = mmap(nullptr, page, PROT_READ, MAP_SHARED, map_.get(), 0);
  void* producer = mmap(nullptr, page, PROT_READ, MAP_SHARED, map_.get(), static_cast<off_t>(page));
  consumerPage_ = consumer != MAP_FAILED ? consumer : nullptr;
  producerPage_ = producer != MAP_FAILED ? producer : nullptr;
  if (consumerPage_ == nullptr || producerPage_ == nullptr) {
    fprintf(stderr, "mapping the ring's positions: %s\n", strerror(errno));
    return false;
  }
  return true;
}

uint64_t BenchRing::Unconsumed() const {
  // The kernel keeps both positions as page-aligned unsigned longs.
  const unsigned long consumed = __atomic_load_n(static_cast<const unsigned long*>(consumerPage_), __ATOMIC_ACQUIRE);
  const unsigned long produced = __atomic_load_n(static_cast<const unsigned long*>(producerPage_), __ATOMIC_ACQUIRE);
  return produced - consumed;
}

uint64_t BenchRing::EntryBytes(uint32_t recordBytes) {
  return (RING_ENTRY_HEADER_BYTES + recordBytes + RING_ENTRY_ALIGN - 1) / RING_ENTRY_ALIGN * RING_ENTRY_ALIGN;
}

bool BenchRing::loadInjector() {
  bpf_object* object = bpf_object__open_file(KELO_BPF_INJECT_OBJ, nullptr);
  if (libbpf_get_error(object) != 0) {
    fprintf(stderr, "cannot open %s\n", KELO_BPF_INJECT_OBJ);
    return false;
  }
  bpf_map* ring = bpf_object__find_map_by_name(object, "inject_ringbuf");
  bpf_program* prog = bpf_object__find_program_by_name(object, "kelo_inject");
  // The program writes into this ring, not into a map of its own.
  int err = ring != nullptr && prog != nullptr ? bpf_map__reuse_fd(ring, map_.get()) : -ENOENT;
  bpf_map* status = bpf_object__find_map_by_name(object, "inject_status");
  if (err == 0 && statusFd_ >= 0) err = status != nullptr ? bpf_map__reuse_fd(status, statusFd_) : -ENOENT;
  if (err == 0) err = bpf_object__load(object);
  if (err != 0) {
    fprintf(stderr, "loading %s: %s\n", KELO_BPF_INJECT_OBJ, strerror(-err));
    bpf_object__close(object);
    return false;
  }
  injector_ = object;
  injectorProg_ = bpf_program__fd(prog);
  return true;
}

bool BenchRing::Fill(const std::string& record, uint32_t count) {
  if (record.empty() || record.size() > KELO_INJECT_MAX_BYTES || count == 0) return false;
  if (injector_ == nullptr && !loadInjector()) return false;
  // The injector's input frame: u32 record length, the record, padding.
  const uint32_t length = static_cast<uint32_t>(record.size());
  std::vector<char> frame(std::max(sizeof(length) + record.size(), MIN_FRAME_BYTES), 0);
  memcpy(frame.data(), &length, sizeof(length));
  memcpy(frame.data() + sizeof(length), record.data(), record.size());

  // A test run with a repeat count swaps the XDP dispatcher's program in and
  // out, which waits for an RCU grace period (tens of milliseconds), so small
  // counts are written one run at a time.
  const uint32_t runs = count < REPEAT_WORTHWHILE ? count : 1;
  bpf_test_run_opts opts{};
  opts.sz = sizeof(opts);
  opts.data_in = frame.data();
  opts.data_size_in = static_cast<uint32_t>(frame.size());
  opts.repeat = count / runs;
  for (uint32_t run = 0; run < runs; ++run) {
    if (bpf_prog_test_run_opts(injectorProg_, &opts) != 0) {
      fprintf(stderr, "BPF_PROG_TEST_RUN of the injector: %s\n", strerror(errno));
      return false;
    }
    if (opts.retval != XDP_PASS) return false;
  }
  return true;
}

android::base::unique_fd CreateStatusArray(const std::string& path) {
  return CreatePinnedMap(path, BPF_MAP_TYPE_ARRAY, sizeof(uint32_t), sizeof(uint64_t), KELO_RB_STATUS_ENTRIES);
}

uint64_t ReadStatus(int statusFd, uint32_t key) {
  uint64_t value = 0;
  bpf_map_lookup_elem(statusFd, &key, &value);
  return value;
}

}  // namespace kelo_bench
