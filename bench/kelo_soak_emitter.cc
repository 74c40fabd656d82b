#include "bench/kelo_soak_emitter.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bpf/kelo_bpf_events.h"

namespace kelo_bench {
namespace {

// The emitter's input frame (kelo_bpf_loss_test.bpf.c).
struct EmitFrame {
  uint32_t type;
  uint32_t flags;
  uint64_t stamp;
};
constexpr uint32_t EMIT_SEQUENCED = 1;

}  // namespace

std::unique_ptr<SoakEmitter> SoakEmitter::Attach(const std::string& dir) {
  std::unique_ptr<SoakEmitter> emitter(new SoakEmitter());
  emitter->object_ = bpf_object__open_file(KELO_BPF_LOSS_TEST_OBJ, nullptr);
  if (libbpf_get_error(emitter->object_) != 0) {
    emitter->object_ = nullptr;
    fprintf(stderr, "cannot open %s\n", KELO_BPF_LOSS_TEST_OBJ);
    return nullptr;
  }
  for (const char* name : {"ringbuf_map", "ringbuf_status", "ringbuf_lost"}) {
    const std::string path = dir + "/map_" KELO_BPF_DEFINESET "_" + name;
    const int fd = bpf_obj_get(path.c_str());
    bpf_map* map = bpf_object__find_map_by_name(emitter->object_, name);
    const int err = fd < 0 ? -errno : map == nullptr ? -ENOENT : bpf_map__reuse_fd(map, fd);
    if (fd >= 0) close(fd);  // reuse_fd keeps a duplicate
    if (err != 0) {
      fprintf(stderr, "reusing %s: %s\n", path.c_str(), strerror(-err));
      return nullptr;
    }
  }
  const int err = bpf_object__load(emitter->object_);
  if (err != 0) {
    fprintf(stderr, "loading %s: %s\n", KELO_BPF_LOSS_TEST_OBJ, strerror(-err));
    return nullptr;
  }
  emitter->prog_ = bpf_program__fd(bpf_object__find_program_by_name(emitter->object_, "kelo_loss_emit"));
  emitter->lostFd_ = bpf_map__fd(bpf_object__find_map_by_name(emitter->object_, "ringbuf_lost"));
  emitter->bssFd_ = bpf_map__fd(bpf_object__find_map_by_name(emitter->object_, ".bss"));
  return emitter;
}

SoakEmitter::~SoakEmitter() { bpf_object__close(object_); }

bool SoakEmitter::Emit(uint32_t type, uint64_t stamp) {
  char frame[std::max<size_t>(ETH_HLEN, sizeof(EmitFrame))] = {};
  const EmitFrame fields = {type, EMIT_SEQUENCED, stamp};
  memcpy(frame, &fields, sizeof(fields));
  bpf_test_run_opts opts{};
  opts.sz = sizeof(opts);
  opts.data_in = frame;
  opts.data_size_in = sizeof(frame);
  opts.repeat = 1;
  return bpf_prog_test_run_opts(prog_, &opts) == 0 && opts.retval == XDP_PASS;
}

uint64_t SoakEmitter::Written() const {
  uint32_t key = 0;
  uint64_t written = 0;
  bpf_map_lookup_elem(bssFd_, &key, &written);
  return written;
}

uint64_t SoakEmitter::KernelLost(uint32_t type) const {
  std::vector<kelo_ringbuf_lost> perCpu(static_cast<size_t>(libbpf_num_possible_cpus()));
  if (bpf_map_lookup_elem(lostFd_, &type, perCpu.data()) != 0) return 0;
  uint64_t total = 0;
  for (const kelo_ringbuf_lost& cpu : perCpu) total += cpu.records;
  return total;
}

}  // namespace kelo_bench
