// SPDX-License-Identifier: (GPL-2.0 OR BSD-2-Clause)
/*
 * The normal program set ("KeloBpfDefineset"): task creation and exit, rss
 * changes and descriptor installs, written into this set's ring buffer in the
 * layouts of kelo_bpf_events.h. Loaded and pinned by the platform; the service
 * attaches each program by its name.
 */
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#define KELO_SET_RINGBUF_BYTES KELO_RINGBUF_BYTES
#include "bpf/kelo_bpf_ringbuf.bpf.h"

#define NSEC_PER_SEC 1000000000ULL
#define PF_KTHREAD 0x00200000
/* How many of the forking process's newest threads are compared with the
 * child: more than one, because another thread of the process may have
 * created a thread between the child's creation and this tracepoint. */
#define NEW_THREAD_SCAN 4

char LICENSE[] SEC("license") = "Dual BSD/GPL";

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KELO_OPEN_FD_MAP_ENTRIES);
  __type(key, __s32);
  __type(value, struct open_fd_caller_info);
} open_fd_caller_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, KELO_RSS_MM_MAP_ENTRIES);
  __type(key, __u32);
  __type(value, struct kelo_rss_mm_info);
} rss_mm_map SEC(".maps");

/* When sched_switch last refreshed the status entries (ns). */
struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} status_refresh_time SEC(".maps");

/*
 * Keeps status entries 1-4 at most a second old, so they describe the ring
 * buffer even when nothing overflowed. One CPU per second wins the
 * compare-and-swap and does the refresh; every other switch costs one lookup.
 */
SEC("tracepoint/sched/sched_switch")
int sched_sched_switch(void *ctx)
{
  __u32 key = 0;
  __u64 *last = bpf_map_lookup_elem(&status_refresh_time, &key);
  __u64 now = bpf_ktime_get_ns();
  __u64 prev;

  if (!last)
    return 0;
  prev = *last;
  if (now - prev < NSEC_PER_SEC)
    return 0;
  if (__sync_val_compare_and_swap(last, prev, now) != prev)
    return 0;
  kelo_refresh_status();
  return 0;
}

/* True when child is one of the newest threads of parent's thread group,
 * i.e. the clone created a thread rather than a process. A new thread is
 * linked at the tail of signal->thread_head before the fork tracepoint runs;
 * a new process gets a thread group of its own. */
static __always_inline int joined_thread_group(struct task_struct *parent, pid_t child)
{
  struct signal_struct *signal = BPF_CORE_READ(parent, signal);
  struct list_head *head = __builtin_preserve_access_index(&signal->thread_head);
  struct list_head *node = BPF_CORE_READ(signal, thread_head.prev);
  __u32 node_offset = bpf_core_field_offset(struct task_struct, thread_node);
  int i;

#pragma unroll
  for (i = 0; i < NEW_THREAD_SCAN; i++) {
    struct task_struct *task;

    if (!node || node == head)
      return 0;
    task = (void *)node - node_offset;
    if (BPF_CORE_READ(task, pid) == child)
      return 1;
    node = BPF_CORE_READ(node, prev);
  }
  return 0;
}

SEC("tracepoint/sched/sched_process_fork")
int sched_sched_process_fork(struct trace_event_raw_sched_process_fork *ctx)
{
  struct task_struct *parent = (void *)bpf_get_current_task();
  struct kelo_task_create_event *event;
  pid_t child = ctx->child_pid;
  __u32 tgid = kelo_current_tgid();
  int thread;

  if (!kelo_wants(KELO_RB_FLAG_CORE))
    return 0;
  thread = joined_thread_group(parent, child);
  event = KELO_RESERVE(KELO_EVENT_TASK_CREATE, kelo_task_create_event);
  if (!event)
    return 0;
  if (thread) {
    event->ppid = BPF_CORE_READ(parent, real_parent, tgid);
    event->pid = tgid;
    event->kind = KELO_TASK_KIND_THREAD;
  } else {
    event->ppid = tgid;
    event->pid = child;
    event->kind = KELO_TASK_KIND_PROCESS;
  }
  event->uid = (__u32)bpf_get_current_uid_gid();
  bpf_get_current_comm(event->comm, sizeof(event->comm));
  kelo_submit(event);
  return 0;
}

/*
 * A process ends when its last thread exits (group_dead), which need not be
 * the group leader; kernels whose tracepoint lacks group_dead fall back to
 * the leader's exit.
 */
SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(struct trace_event_raw_sched_process_exit *ctx)
{
  struct task_struct *task = (void *)bpf_get_current_task();
  struct task_struct *leader = BPF_CORE_READ(task, group_leader);
  struct kelo_task_exit_event *event;
  __u64 id = bpf_get_current_pid_tgid();
  __s32 tgid = id >> 32;
  int group_dead;

  if (bpf_core_field_exists(ctx->group_dead))
    group_dead = ctx->group_dead;
  else
    group_dead = (__u32)id == (__u32)tgid;
  if (group_dead)
    bpf_map_delete_elem(&open_fd_caller_map, &tgid);

  if (!kelo_wants(KELO_RB_FLAG_CORE))
    return 0;
  event = KELO_RESERVE(KELO_EVENT_TASK_EXIT, kelo_task_exit_event);
  if (!event)
    return 0;
  event->pid = tgid;
  bpf_core_read_str(event->comm, sizeof(event->comm), &leader->comm);
  event->kind = group_dead ? KELO_TASK_KIND_PROCESS : KELO_TASK_KIND_THREAD;
  kelo_submit(event);
  return 0;
}

static __always_inline int current_is_kthread(void)
{
  struct task_struct *task = (void *)bpf_get_current_task();

  return BPF_CORE_READ(task, flags) & PF_KTHREAD;
}

/* The owner of mm_id, learnt from the events the owner causes itself
 * (curr set). Counter changes made from elsewhere (reclaim, another
 * process's madvise) are attributed through what was learnt; an mm never
 * seen from its own process is not reported. */
static __always_inline struct kelo_rss_mm_info *rss_owner(__u32 mm_id, int curr)
{
  struct kelo_rss_mm_info *info = bpf_map_lookup_elem(&rss_mm_map, &mm_id);
  __s32 tgid = kelo_current_tgid();

  if (!curr || (info && info->pid == tgid) || current_is_kthread())
    return info;
  {
    struct kelo_rss_mm_info fresh = {.pid = tgid};

    bpf_map_update_elem(&rss_mm_map, &mm_id, &fresh, BPF_ANY);
  }
  return bpf_map_lookup_elem(&rss_mm_map, &mm_id);
}

/*
 * The counters change on nearly every page fault; a record is sent only once
 * a counter has moved KELO_RSS_REPORT_STEP bytes from the value last sent for
 * it, so the service's figures are never further than that from the truth.
 */
SEC("tracepoint/kmem/rss_stat")
int kmem_rss_stat(struct trace_event_raw_rss_stat *ctx)
{
  struct kelo_rss_stat_event *event;
  struct kelo_rss_mm_info *info;
  int member = ctx->member;
  __s64 size = ctx->size;
  __s64 delta;

  if (member < 0 || member >= KELO_RSS_MEMBERS)
    return 0;
  info = rss_owner(ctx->mm_id, ctx->curr);
  if (!info || !kelo_wants(KELO_RB_FLAG_NORMAL))
    return 0;
  delta = size - info->reported[member];
  if (delta < KELO_RSS_REPORT_STEP && delta > -KELO_RSS_REPORT_STEP)
    return 0;
  info->reported[member] = size;
  event = KELO_RESERVE(KELO_EVENT_RSS_STAT, kelo_rss_stat_event);
  if (!event)
    return 0;
  event->pid = info->pid;
  event->member = member;
  event->size = size;
  kelo_submit(event);
  return 0;
}

static __always_inline struct open_fd_caller_info *open_fd_entry(__s32 tgid)
{
  struct open_fd_caller_info *info = bpf_map_lookup_elem(&open_fd_caller_map, &tgid);

  if (info)
    return info;
  {
    struct open_fd_caller_info fresh = {.pid = tgid};

    bpf_get_current_comm(fresh.comm, sizeof(fresh.comm));
    bpf_map_update_elem(&open_fd_caller_map, &tgid, &fresh, BPF_NOEXIST);
  }
  return bpf_map_lookup_elem(&open_fd_caller_map, &tgid);
}

SEC("kprobe/fd_install")
int BPF_KPROBE(enter_fd_install, unsigned int fd)
{
  struct kelo_fd_update_event *event;
  struct open_fd_caller_info *info;
  __s32 tgid = kelo_current_tgid();
  __u64 count;

  info = open_fd_entry(tgid);
  if (!info)
    return 0;
  count = __sync_fetch_and_add(&info->open_count, 1) + 1;
  if (count - info->reported_count < KELO_FD_REPORT_STEP)
    return 0;
  info->reported_count = count;
  if (!kelo_wants(KELO_RB_FLAG_NORMAL))
    return 0;
  event = KELO_RESERVE(KELO_EVENT_FD_UPDATE, kelo_fd_update_event);
  if (!event)
    return 0;
  event->pid = tgid;
  event->fd = fd;
  event->open_count = count;
  bpf_get_current_comm(event->comm, sizeof(event->comm));
  kelo_submit(event);
  return 0;
}
