#include "helper/kelo_bpf_attach_tables.h"

namespace Kelo {
namespace Bpf {

namespace {

using Rows = std::vector<std::vector<std::string>>;

BpfAttachTable BuildNormalTable() {
  Rows tracepoints = {
      {"sched_sched_switch", "sched", "sched_switch", "5.0+"},
      {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
      {"sched_sched_process_fork", "sched", "sched_process_fork", "5.0+"},
      {"kmem_rss_stat", "kmem", "rss_stat", "5.0+"},
  };
  Rows kprobes = {
      {"enter_fd_install", "fd_install", "", "5.0+"},
  };
  std::map<int, Rows> kinds;
  kinds.emplace(ATTACH_KIND_TRACEPOINT, std::move(tracepoints));
  kinds.emplace(ATTACH_KIND_KPROBE, std::move(kprobes));
  kinds.emplace(ATTACH_KIND_KRETPROBE, Rows());
  BpfAttachTable table;
  table.emplace(NORMAL_DEFINESET, std::move(kinds));
  return table;
}

BpfAttachTable BuildGplTable() {
  Rows tracepoints = {
      {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
      {"cgroup_cgroup_attach_task", "cgroup", "cgroup_attach_task", "5.0+"},
  };
  // The dma-buf probes rely on functions that only 6.1 and newer kernels have.
  Rows kprobes = {
      {"dma_buf_file_release", "dma_buf_file_release", "", "6.1+"},
      {"dma_buf_stats_setup", "dma_buf_stats_setup", "", "6.1+"},
      {"dma_buf_dynamic_attach", "dma_buf_dynamic_attach", "", "6.1+"},
      {"dma_buf_vmap", "dma_buf_vmap", "", "6.1+"},
      {"dma_buf_mmap_internal", "dma_buf_mmap_internal", "", "6.1+"},
  };
  std::map<int, Rows> kinds;
  kinds.emplace(ATTACH_KIND_TRACEPOINT, std::move(tracepoints));
  kinds.emplace(ATTACH_KIND_KPROBE, std::move(kprobes));
  BpfAttachTable table;
  table.emplace(GPL_DEFINESET, std::move(kinds));
  return table;
}

}  // namespace

const BpfAttachTable& NormalAttachTable() {
  // Built once on first use (guarded static initialisation), never changed
  // afterwards, so any thread may read it.
  static const BpfAttachTable table = BuildNormalTable();
  return table;
}

const BpfAttachTable& GplAttachTable() {
  static const BpfAttachTable table = BuildGplTable();
  return table;
}

}  // namespace Bpf
}  // namespace Kelo
