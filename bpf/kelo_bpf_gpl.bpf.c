// SPDX-License-Identifier: GPL-2.0
/*
 * The GPL program set ("KeloBpfGplDefineset"): cgroup moves and dma-buf
 * accounting. The dma-buf programs keep the tracking maps current from the
 * moment they are attached (the service seeds the maps from procfs once) and
 * report changes into this set's ring buffer in the layouts of
 * kelo_bpf_events.h.
 *
 * Accounting kept here:
 *  - dmabuf_allocate_map: every live buffer by inode, with its size and the
 *    process it is accounted to (its exporter, or after seeding its holder);
 *  - dmabuf_size_map: per process, bytes of live buffers accounted to it;
 *  - dmabuf_perprocess_size_map: per process, bytes of distinct buffers it
 *    allocated or mapped, with process_inode_map recording which ones (and
 *    how often) so that a buffer counts once per process;
 *  - process_mmap_infos: the user mappings of buffers, by process and start.
 * A process's entries are dropped when it exits. A released buffer leaves
 * the figures of its owner; processes that only mapped it keep counting it
 * until they exit, since unmapping is not observed.
 */
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#define KELO_SET_RINGBUF_BYTES KELO_GPL_RINGBUF_BYTES
#include "bpf/kelo_bpf_ringbuf.bpf.h"

char LICENSE[] SEC("license") = "GPL";

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KELO_DMABUF_BUFFER_ENTRIES);
  __type(key, __u64);
  __type(value, struct dmabuf_allocate_info);
} dmabuf_allocate_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KELO_DMABUF_PROCESS_ENTRIES);
  __type(key, __s32);
  __type(value, struct dmabuf_stat);
} dmabuf_size_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KELO_DMABUF_PROCESS_ENTRIES);
  __type(key, __s32);
  __type(value, struct dmabuf_stat);
} dmabuf_perprocess_size_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KELO_DMABUF_REFERENCE_ENTRIES);
  __type(key, struct dmabuf_process_inode_key);
  __type(value, __s32);
} process_inode_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KELO_DMABUF_REFERENCE_ENTRIES);
  __type(key, struct dmabuf_process_mmap_key);
  __type(value, __u64);
} process_mmap_infos SEC(".maps");

SEC("tracepoint/cgroup/cgroup_attach_task")
int cgroup_cgroup_attach_task(struct trace_event_raw_cgroup_migrate *ctx)
{
  struct kelo_cgroup_attach_event *event;
  /* __data_loc: offset of the string in the record (low 16 bits) and its
   * length (high 16 bits). */
  __u32 comm_loc = ctx->__data_loc_comm;
  __u32 path_loc = ctx->__data_loc_dst_path;

  if (!kelo_wants(KELO_RB_FLAG_NORMAL))
    return 0;
  event = KELO_RESERVE(KELO_EVENT_CGROUP_ATTACH, kelo_cgroup_attach_event);
  if (!event)
    return 0;
  event->pid = ctx->pid;
  event->dst_root = ctx->dst_root;
  event->dst_level = ctx->dst_level;
  event->dst_id = ctx->dst_id;
  bpf_probe_read_kernel_str(event->comm, sizeof(event->comm), (void *)ctx + (comm_loc & 0xffff));
  bpf_probe_read_kernel_str(event->path, sizeof(event->path), (void *)ctx + (path_loc & 0xffff));
  kelo_submit(event);
  return 0;
}

static __always_inline void stat_add(void *map, __s32 pid, __s64 delta)
{
  struct dmabuf_stat *stat = bpf_map_lookup_elem(map, &pid);

  if (!stat) {
    struct dmabuf_stat zero = {};

    bpf_map_update_elem(map, &pid, &zero, BPF_NOEXIST);
    stat = bpf_map_lookup_elem(map, &pid);
    if (!stat)
      return;
  }
  __sync_fetch_and_add(&stat->size, delta);
}

static __always_inline __s64 stat_size(void *map, __s32 pid)
{
  struct dmabuf_stat *stat = bpf_map_lookup_elem(map, &pid);

  return stat ? stat->size : 0;
}

/* Counts one more reference of pid to a buffer; true when it is the first,
 * in which case the buffer now counts in the process's referenced bytes. */
static __always_inline int reference_buffer(__s32 pid, __u64 inode, __s64 size)
{
  struct dmabuf_process_inode_key key = {.pid = pid, .inode = inode};
  __s32 one = 1;
  __s32 *count;

  if (bpf_map_update_elem(&process_inode_map, &key, &one, BPF_NOEXIST) == 0) {
    stat_add(&dmabuf_perprocess_size_map, pid, size);
    return 1;
  }
  count = bpf_map_lookup_elem(&process_inode_map, &key);
  if (count)
    __sync_fetch_and_add(count, 1);
  return 0;
}

static __always_inline void forget_buffer(__s32 pid, __u64 inode, __s64 size)
{
  struct dmabuf_process_inode_key key = {.pid = pid, .inode = inode};

  if (bpf_map_delete_elem(&process_inode_map, &key) == 0)
    stat_add(&dmabuf_perprocess_size_map, pid, -size);
}

static __always_inline void emit_size(__s32 pid)
{
  struct kelo_dmabuf_size_event *event;

  if (!kelo_wants(KELO_RB_FLAG_NORMAL))
    return;
  event = KELO_RESERVE(KELO_EVENT_DMABUF_SIZE, kelo_dmabuf_size_event);
  if (!event)
    return;
  event->pid = pid;
  event->allocated_size = stat_size(&dmabuf_size_map, pid);
  event->referenced_size = stat_size(&dmabuf_perprocess_size_map, pid);
  kelo_submit(event);
}

static __always_inline void emit_update(__u32 op, __u64 inode, __s64 size, __s32 owner)
{
  struct kelo_dmabuf_update_event *event;

  if (!kelo_wants(KELO_RB_FLAG_NORMAL))
    return;
  event = KELO_RESERVE(KELO_EVENT_DMABUF_UPDATE, kelo_dmabuf_update_event);
  if (!event)
    return;
  event->op = op;
  event->pid = kelo_current_tgid();
  event->inode = inode;
  event->size = size;
  event->owner_pid = owner;
  bpf_get_current_comm(event->comm, sizeof(event->comm));
  kelo_submit(event);
}

static __always_inline __s32 owner_of(__u64 inode)
{
  struct dmabuf_allocate_info *info = bpf_map_lookup_elem(&dmabuf_allocate_map, &inode);

  return info ? info->pid : 0;
}

static __always_inline __u64 buffer_inode(struct dma_buf *dmabuf)
{
  return BPF_CORE_READ(dmabuf, file, f_inode, i_ino);
}

static int drop_process_reference(void *map, struct dmabuf_process_inode_key *key, __s32 *count, __s32 *pid)
{
  if (key->pid == *pid)
    bpf_map_delete_elem(map, key);
  return 0;
}

static int drop_process_mapping(void *map, struct dmabuf_process_mmap_key *key, __u64 *inode, __s32 *pid)
{
  if (key->pid == *pid)
    bpf_map_delete_elem(map, key);
  return 0;
}

/* Drops an exited process's dma-buf entries. Only processes that ever held
 * a buffer pay for the walk over the reference maps. */
SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(struct trace_event_raw_sched_process_exit *ctx)
{
  __u64 id = bpf_get_current_pid_tgid();
  __s32 tgid = id >> 32;
  int group_dead;
  int held;

  if (bpf_core_field_exists(ctx->group_dead))
    group_dead = ctx->group_dead;
  else
    group_dead = (__u32)id == (__u32)tgid;
  if (!group_dead)
    return 0;
  held = bpf_map_delete_elem(&dmabuf_size_map, &tgid) == 0;
  held |= bpf_map_delete_elem(&dmabuf_perprocess_size_map, &tgid) == 0;
  if (!held)
    return 0;
  bpf_for_each_map_elem(&process_inode_map, drop_process_reference, &tgid, 0);
  bpf_for_each_map_elem(&process_mmap_infos, drop_process_mapping, &tgid, 0);
  emit_size(tgid);
  return 0;
}

/* A buffer was exported: it is accounted to the exporting process. */
SEC("kprobe/dma_buf_stats_setup")
int BPF_KPROBE(dma_buf_stats_setup, struct dma_buf *dmabuf, struct file *file)
{
  __s32 tgid = kelo_current_tgid();
  __u64 inode = BPF_CORE_READ(file, f_inode, i_ino);
  __s64 size = BPF_CORE_READ(dmabuf, size);
  struct dmabuf_allocate_info info = {.pid = tgid, .size = size};

  bpf_map_update_elem(&dmabuf_allocate_map, &inode, &info, BPF_ANY);
  stat_add(&dmabuf_size_map, tgid, size);
  reference_buffer(tgid, inode, size);
  emit_update(KELO_DMABUF_OP_ALLOCATE, inode, size, tgid);
  emit_size(tgid);
  return 0;
}

/* The buffer's file lost its last reference: the buffer is gone. */
SEC("kprobe/dma_buf_file_release")
int BPF_KPROBE(dma_buf_file_release, struct inode *inode, struct file *file)
{
  __u64 ino = BPF_CORE_READ(inode, i_ino);
  struct dmabuf_allocate_info *info = bpf_map_lookup_elem(&dmabuf_allocate_map, &ino);
  struct dma_buf *dmabuf = BPF_CORE_READ(file, private_data);
  __s64 size = BPF_CORE_READ(dmabuf, size);
  __s32 owner = 0;

  if (info) {
    owner = info->pid;
    stat_add(&dmabuf_size_map, owner, -size);
    forget_buffer(owner, ino, size);
    bpf_map_delete_elem(&dmabuf_allocate_map, &ino);
  }
  emit_update(KELO_DMABUF_OP_RELEASE, ino, size, owner);
  if (owner)
    emit_size(owner);
  return 0;
}

SEC("kprobe/dma_buf_dynamic_attach")
int BPF_KPROBE(dma_buf_dynamic_attach, struct dma_buf *dmabuf)
{
  __u64 inode = buffer_inode(dmabuf);

  emit_update(KELO_DMABUF_OP_ATTACH, inode, BPF_CORE_READ(dmabuf, size), owner_of(inode));
  return 0;
}

SEC("kprobe/dma_buf_vmap")
int BPF_KPROBE(dma_buf_vmap, struct dma_buf *dmabuf)
{
  __u64 inode = buffer_inode(dmabuf);

  emit_update(KELO_DMABUF_OP_VMAP, inode, BPF_CORE_READ(dmabuf, size), owner_of(inode));
  return 0;
}

/* The calling process maps the buffer into its address space. */
SEC("kprobe/dma_buf_mmap_internal")
int BPF_KPROBE(dma_buf_mmap_internal, struct file *file, struct vm_area_struct *vma)
{
  __s32 tgid = kelo_current_tgid();
  __u64 inode = BPF_CORE_READ(file, f_inode, i_ino);
  struct dma_buf *dmabuf = BPF_CORE_READ(file, private_data);
  __s64 size = BPF_CORE_READ(dmabuf, size);
  struct dmabuf_process_mmap_key key = {.pid = tgid, .start = BPF_CORE_READ(vma, vm_start)};

  bpf_map_update_elem(&process_mmap_infos, &key, &inode, BPF_ANY);
  if (reference_buffer(tgid, inode, size))
    emit_size(tgid);
  emit_update(KELO_DMABUF_OP_MMAP, inode, size, owner_of(inode));
  return 0;
}
