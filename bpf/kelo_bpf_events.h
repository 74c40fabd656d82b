/*
 * Record layouts shared by the kernel programs (BPF C) and the service (C++).
 *
 * Every byte that crosses the user/kernel boundary is described here once:
 * the ring-buffer records, the status array, the values of the pinned
 * tracking maps and the task events the service derives and sends to its
 * clients. All records are little-endian with fixed-width fields and explicit
 * padding; every size and every offset that another component relies on is
 * pinned down by a compile-time assertion, so a layout drift breaks the build
 * of both sides instead of corrupting data at run time.
 *
 * Users:
 *  - kernel programs (bpf/kelo_bpf_*.bpf.c) include "vmlinux.h" first, then
 *    this header; they write records with these structs.
 *  - the service includes "bpf/kelo_bpf_events.h". Records arrive as byte
 *    buffers of any alignment (the ring buffer and the client socket give no
 *    alignment guarantee on 32-bit ARM), so C++ code copies them into these
 *    structs with memcpy and never casts a buffer pointer to a struct pointer.
 *  - pinned object paths: KELO_BPF_MAP_PATH / KELO_BPF_PROG_PATH below give
 *    the names the loader pins under (see tools/kelo_bpf_loader_lib.h).
 */
#ifndef KELO_BPF_EVENTS_H_
#define KELO_BPF_EVENTS_H_

#ifndef __bpf__
#include <linux/types.h>
#endif

#ifdef __cplusplus
#define KELO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KELO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
#define KELO_ASSERT_SIZE(type, size) KELO_STATIC_ASSERT(sizeof(type) == (size), "size of " #type)
#define KELO_ASSERT_OFFSET(type, field, offset) \
  KELO_STATIC_ASSERT(__builtin_offsetof(type, field) == (offset), "offset of " #type "." #field)
/* Packed records may start at any address. */
#define KELO_ASSERT_PACKED(type) KELO_STATIC_ASSERT(__alignof__(type) == 1, #type " is packed")

/* The same layouts hold for the BPF target, x86-64 and 32-bit ARM (armhf):
 * every 64-bit field sits at a multiple of 8 behind explicit padding, so no
 * layout depends on a target's alignment of 64-bit types, and every size is
 * a multiple of 8, so no target adds padding at the end. Records reach C++
 * code at any address and are read with memcpy only. */

/* ------------------------------------------------------------------------ */
/* Pinned objects                                                            */
/* ------------------------------------------------------------------------ */

/* Directory the platform pins every program and map of both sets under. */
#define KELO_BPF_FS_DIR "/sys/fs/bpf/kelo"
/* Names of the two program sets; the second word of every pinned name. */
#define KELO_BPF_DEFINESET "KeloBpfDefineset"
#define KELO_BPF_GPL_DEFINESET "KeloBpfGplDefineset"
/* <dir>/map_<set>_<map C name>, e.g. KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_map"). */
#define KELO_BPF_MAP_PATH(set, name) KELO_BPF_FS_DIR "/map_" set "_" name
/* <dir>/prog_<set>_<tracepoint|kprobe|kretprobe>_<program C name>. */
#define KELO_BPF_PROG_PATH(set, kind, name) KELO_BPF_FS_DIR "/prog_" set "_" kind "_" name

/* Ring-buffer sizes in bytes (powers of two, multiples of the page size). */
#define KELO_RINGBUF_BYTES (512 * 1024)
#define KELO_GPL_RINGBUF_BYTES (256 * 1024)

/* Capacities of the tracking maps. */
#define KELO_OPEN_FD_MAP_ENTRIES 8192
#define KELO_RSS_MM_MAP_ENTRIES 8192
#define KELO_DMABUF_BUFFER_ENTRIES 8192
#define KELO_DMABUF_PROCESS_ENTRIES 4096
#define KELO_DMABUF_REFERENCE_ENTRIES 16384

#define KELO_COMM_LEN 16

/* ------------------------------------------------------------------------ */
/* Ring-buffer status array: one per ring buffer, key __u32, value __u64.   */
/* ------------------------------------------------------------------------ */

enum kelo_ringbuf_status_key {
  /* Flags word (enum kelo_ringbuf_status_flag); upper 32 bits always 0. */
  KELO_RB_STATUS_FLAGS = 0,
  /* The following four are written by the kernel programs whenever a record
   * could not be written, and at most once a second by the normal set's
   * sched_switch program. */
  KELO_RB_STATUS_AVAIL_DATA = 1,
  KELO_RB_STATUS_RING_SIZE = 2,
  KELO_RB_STATUS_CONS_POS = 3,
  KELO_RB_STATUS_PROD_POS = 4,
  /* How the consumer wants to be woken (enum kelo_ringbuf_wake_mode).
   * Written by the service, read by every submit. */
  KELO_RB_STATUS_WAKE_MODE = 5,
  KELO_RB_STATUS_ENTRIES = 6
};

enum kelo_ringbuf_wake_mode {
  /* The consumer waits for records without a time-out: a record wakes it
   * when the consumer has read everything before it (the ring buffer's own
   * rule). The value of a status array nobody has written. */
  KELO_RB_WAKE_EACH = 0,
  /* The consumer polls on a timer within its latency budget: records are
   * submitted without a wake-up, except that each one submitted while the
   * unread bytes reach 1 / KELO_RB_WAKE_WATERMARK_DIVISOR of the ring forces
   * one, so that a burst is drained before the ring fills. */
  KELO_RB_WAKE_TIMED = 1
};

#define KELO_RB_WAKE_WATERMARK_DIVISOR 4

enum kelo_ringbuf_status_flag {
  /* A record was lost because the ring buffer was full. Set by the kernel,
   * cleared by the service. */
  KELO_RB_FLAG_FULL = 1,
  /* Core events (task creation and exit) are wanted. Set by the service. */
  KELO_RB_FLAG_CORE = 2,
  /* Every other event is wanted. Set by the service after its seeding. */
  KELO_RB_FLAG_NORMAL = 4
};

/* ------------------------------------------------------------------------ */
/* Failed reservations: one per program set, beside its ring buffer         */
/* ------------------------------------------------------------------------ */

/* map_<set>_ringbuf_lost, BPF_MAP_TYPE_PERCPU_ARRAY: key __u32 event type
 * (0 to KELO_EVENT_TYPE_MAX), value one struct kelo_ringbuf_lost per CPU.
 * Each count grows by one for every record of that type that a program of
 * the set could not reserve room for (the ring buffer was full); nothing
 * else writes it, and it never goes back to 0 while the set stays loaded.
 * A reader sums the CPUs' values; the difference between two readings is
 * what was lost in between. The full flag of the status array is set on
 * the same occasions. */
#define KELO_RB_LOST_ENTRIES 8
struct kelo_ringbuf_lost {
  __u64 records;
};
KELO_ASSERT_SIZE(struct kelo_ringbuf_lost, 8);

/* ------------------------------------------------------------------------ */
/* Raw ring-buffer records                                                   */
/* ------------------------------------------------------------------------ */

enum kelo_event_type {
  KELO_EVENT_TASK_INIT = 0,     /* "kelo_task_init" */
  KELO_EVENT_RSS_STAT = 1,      /* "kmem_rss_info" */
  KELO_EVENT_TASK_CREATE = 2,   /* "sched_task_create" */
  KELO_EVENT_TASK_EXIT = 3,     /* "sched_task_exit" */
  KELO_EVENT_DMABUF_SIZE = 4,   /* "dmabuf_size_info" */
  KELO_EVENT_CGROUP_ATTACH = 5, /* "cgroup_attach_cpuset_info" */
  KELO_EVENT_FD_UPDATE = 6,     /* "fd_update_info" */
  KELO_EVENT_DMABUF_UPDATE = 7, /* "dmabuf_update" */
  KELO_EVENT_TYPE_MAX = 7,
  /* Not an event: the counter index under which polls are counted. */
  KELO_EVENT_POLL_COUNT = 8
};

KELO_STATIC_ASSERT(KELO_RB_LOST_ENTRIES == KELO_EVENT_TYPE_MAX + 1, "one lost count per event type");

/* Common header of every record. ts is CLOCK_MONOTONIC in nanoseconds. */
struct kelo_event_header {
  __u32 type;
  __u32 reserved;
  __u64 ts;
};
KELO_ASSERT_SIZE(struct kelo_event_header, 16);
KELO_ASSERT_OFFSET(struct kelo_event_header, ts, 8);
KELO_ASSERT_OFFSET(struct kelo_event_header, reserved, 4);

/* Type 0: full snapshot of one process. The kernel programs do not produce
 * it; the service synthesises it from procfs at start. */
struct kelo_task_init_event {
  struct kelo_event_header header;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  __s32 thread_num;
  char comm[KELO_COMM_LEN];
  __s64 rss_file;
  __s64 rss_anon;
  __s64 rss_shmem;
  __s64 rss_swap;
  __s64 init_time; /* seconds since the epoch the process started */
};
KELO_ASSERT_SIZE(struct kelo_task_init_event, 88);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, pid, 16);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, ppid, 20);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, uid, 24);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, thread_num, 28);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, comm, 32);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, rss_file, 48);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, rss_anon, 56);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, rss_shmem, 64);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, rss_swap, 72);
KELO_ASSERT_OFFSET(struct kelo_task_init_event, init_time, 80);

/* The kernel's rss counter kinds (enum of MM_FILEPAGES..MM_SHMEMPAGES). */
enum kelo_rss_member {
  KELO_RSS_FILE = 0,
  KELO_RSS_ANON = 1,
  KELO_RSS_SWAP = 2,
  KELO_RSS_SHMEM = 3,
  KELO_RSS_MEMBERS = 4
};

/* A type 1 record is sent once a counter has moved this many bytes from the
 * value last sent for it; smaller changes are not reported. */
#define KELO_RSS_REPORT_STEP 16384

/* Type 1: one rss counter of a process changed. pid is the process (tgid)
 * owning the memory; size is the counter's new value in bytes. */
struct kelo_rss_stat_event {
  struct kelo_event_header header;
  __s32 pid;
  __s32 member; /* enum kelo_rss_member */
  __s64 size;
};
KELO_ASSERT_SIZE(struct kelo_rss_stat_event, 32);
KELO_ASSERT_OFFSET(struct kelo_rss_stat_event, pid, 16);
KELO_ASSERT_OFFSET(struct kelo_rss_stat_event, member, 20);
KELO_ASSERT_OFFSET(struct kelo_rss_stat_event, size, 24);

/* kind of task creation and exit records. */
enum kelo_task_kind {
  KELO_TASK_KIND_PROCESS = 1,
  KELO_TASK_KIND_THREAD = 2
};

/* Type 2: a task was created. For a new process pid is the child and ppid
 * the forking process; for a new thread pid is the process (tgid) that
 * gained the thread and ppid its parent. ppid 0 means unknown. comm is the
 * name the new task starts with (its creator's). */
struct kelo_task_create_event {
  struct kelo_event_header header;
  __s32 ppid;
  __s32 pid;
  __u32 uid;
  char comm[KELO_COMM_LEN];
  __u32 kind; /* enum kelo_task_kind */
};
KELO_ASSERT_SIZE(struct kelo_task_create_event, 48);
KELO_ASSERT_OFFSET(struct kelo_task_create_event, ppid, 16);
KELO_ASSERT_OFFSET(struct kelo_task_create_event, pid, 20);
KELO_ASSERT_OFFSET(struct kelo_task_create_event, uid, 24);
KELO_ASSERT_OFFSET(struct kelo_task_create_event, comm, 28);
KELO_ASSERT_OFFSET(struct kelo_task_create_event, kind, 44);

/* Type 3: a task exited. pid is always the process (tgid); kind says
 * whether the whole process ended (its last thread exited) or one thread.
 * comm is the process's (group leader's) name. */
struct kelo_task_exit_event {
  struct kelo_event_header header;
  __s32 pid;
  char comm[KELO_COMM_LEN];
  __u32 kind; /* enum kelo_task_kind */
};
KELO_ASSERT_SIZE(struct kelo_task_exit_event, 40);
KELO_ASSERT_OFFSET(struct kelo_task_exit_event, pid, 16);
KELO_ASSERT_OFFSET(struct kelo_task_exit_event, comm, 20);
KELO_ASSERT_OFFSET(struct kelo_task_exit_event, kind, 36);

/* Type 4: the dma-buf totals of one process changed (a buffer it allocated
 * was created or released, it mapped a buffer for the first time, or it
 * exited, in which case both totals are 0). */
struct kelo_dmabuf_size_event {
  struct kelo_event_header header;
  __s32 pid;
  __u32 reserved;
  __s64 allocated_size;  /* dmabuf_size_map[pid].size */
  __s64 referenced_size; /* dmabuf_perprocess_size_map[pid].size */
};
KELO_ASSERT_SIZE(struct kelo_dmabuf_size_event, 40);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_size_event, pid, 16);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_size_event, reserved, 20);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_size_event, allocated_size, 24);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_size_event, referenced_size, 32);

#define KELO_CGROUP_PATH_LEN 64

/* Type 5: a task was moved into a cgroup. Every hierarchy is reported;
 * dst_root tells them apart (on Android the cpuset hierarchy is the one of
 * interest). path is the destination path relative to the hierarchy's root,
 * NUL-terminated and cut to KELO_CGROUP_PATH_LEN - 1 characters. */
struct kelo_cgroup_attach_event {
  struct kelo_event_header header;
  __s32 pid; /* the task moved (a thread id) */
  __s32 dst_root;
  __s32 dst_level;
  __u32 reserved;
  __u64 dst_id;
  char comm[KELO_COMM_LEN];
  char path[KELO_CGROUP_PATH_LEN];
};
KELO_ASSERT_SIZE(struct kelo_cgroup_attach_event, 120);
KELO_ASSERT_OFFSET(struct kelo_cgroup_attach_event, pid, 16);
KELO_ASSERT_OFFSET(struct kelo_cgroup_attach_event, dst_root, 20);
KELO_ASSERT_OFFSET(struct kelo_cgroup_attach_event, dst_level, 24);
KELO_ASSERT_OFFSET(struct kelo_cgroup_attach_event, reserved, 28);
KELO_ASSERT_OFFSET(struct kelo_cgroup_attach_event, dst_id, 32);
KELO_ASSERT_OFFSET(struct kelo_cgroup_attach_event, comm, 40);
KELO_ASSERT_OFFSET(struct kelo_cgroup_attach_event, path, 56);

/* Type 6 is sent when a process's installed-descriptor count has grown by
 * this many since the last report (or since the service seeded it). */
#define KELO_FD_REPORT_STEP 64

/* Type 6: a process's count of installed descriptors (open_fd_caller_map)
 * passed another KELO_FD_REPORT_STEP. fd is the descriptor just installed. */
struct kelo_fd_update_event {
  struct kelo_event_header header;
  __s32 pid;
  __s32 fd;
  __u64 open_count;
  char comm[KELO_COMM_LEN];
};
KELO_ASSERT_SIZE(struct kelo_fd_update_event, 48);
KELO_ASSERT_OFFSET(struct kelo_fd_update_event, pid, 16);
KELO_ASSERT_OFFSET(struct kelo_fd_update_event, fd, 20);
KELO_ASSERT_OFFSET(struct kelo_fd_update_event, open_count, 24);
KELO_ASSERT_OFFSET(struct kelo_fd_update_event, comm, 32);

/* What happened to a dma-buf in a type 7 record; one per probed function. */
enum kelo_dmabuf_op {
  KELO_DMABUF_OP_ALLOCATE = 1, /* dma_buf_stats_setup: exported */
  KELO_DMABUF_OP_RELEASE = 2,  /* dma_buf_file_release: last file ref gone */
  KELO_DMABUF_OP_ATTACH = 3,   /* dma_buf_dynamic_attach: device import */
  KELO_DMABUF_OP_VMAP = 4,     /* dma_buf_vmap: kernel mapping */
  KELO_DMABUF_OP_MMAP = 5      /* dma_buf_mmap_internal: user mapping */
};

/* Type 7: one operation on one dma-buf. pid/comm are the calling process;
 * owner_pid is the process recorded as the buffer's allocator (0 unknown). */
struct kelo_dmabuf_update_event {
  struct kelo_event_header header;
  __u32 op; /* enum kelo_dmabuf_op */
  __s32 pid;
  __u64 inode;
  __s64 size;
  __s32 owner_pid;
  __u32 reserved;
  char comm[KELO_COMM_LEN];
};
KELO_ASSERT_SIZE(struct kelo_dmabuf_update_event, 64);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_update_event, op, 16);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_update_event, pid, 20);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_update_event, inode, 24);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_update_event, size, 32);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_update_event, owner_pid, 40);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_update_event, reserved, 44);
KELO_ASSERT_OFFSET(struct kelo_dmabuf_update_event, comm, 48);

/* ------------------------------------------------------------------------ */
/* Values of the pinned tracking maps                                        */
/* ------------------------------------------------------------------------ */

/* map_KeloBpfGplDefineset_dmabuf_allocate_map: key __u64 inode of the
 * buffer's file. pid is the process the buffer is accounted to. */
struct dmabuf_allocate_info {
  __s32 pid;
  __u32 reserved;
  __s64 size;
};
KELO_ASSERT_SIZE(struct dmabuf_allocate_info, 16);
KELO_ASSERT_OFFSET(struct dmabuf_allocate_info, reserved, 4);
KELO_ASSERT_OFFSET(struct dmabuf_allocate_info, size, 8);

/* map_KeloBpfGplDefineset_dmabuf_size_map (bytes of live buffers accounted
 * to the process) and ..._dmabuf_perprocess_size_map (bytes of distinct
 * buffers the process references): key __s32 pid. reserved stays 0. */
struct dmabuf_stat {
  __s64 size;
  __s64 reserved;
};
KELO_ASSERT_SIZE(struct dmabuf_stat, 16);
KELO_ASSERT_OFFSET(struct dmabuf_stat, reserved, 8);

/* map_KeloBpfGplDefineset_process_inode_map: which buffers a process
 * references; value __s32 number of references. */
struct dmabuf_process_inode_key {
  __s32 pid;
  __u32 reserved;
  __u64 inode;
};
KELO_ASSERT_SIZE(struct dmabuf_process_inode_key, 16);
KELO_ASSERT_OFFSET(struct dmabuf_process_inode_key, reserved, 4);
KELO_ASSERT_OFFSET(struct dmabuf_process_inode_key, inode, 8);

/* map_KeloBpfGplDefineset_process_mmap_infos: user mapping start address of
 * a process → __u64 inode of the mapped buffer. */
struct dmabuf_process_mmap_key {
  __s32 pid;
  __u32 reserved;
  __u64 start;
};
KELO_ASSERT_SIZE(struct dmabuf_process_mmap_key, 16);
KELO_ASSERT_OFFSET(struct dmabuf_process_mmap_key, reserved, 4);
KELO_ASSERT_OFFSET(struct dmabuf_process_mmap_key, start, 8);

/* map_KeloBpfDefineset_open_fd_caller_map: key __s32 pid. open_count counts
 * the descriptors the process holds at seeding plus every one installed
 * since; reported_count is open_count at the last type 6 record. The seeding
 * writes the same number into both. */
struct open_fd_caller_info {
  __s32 pid;
  __u32 reserved0;
  __u64 open_count;
  __u64 reported_count;
  __u64 reserved1;
  char comm[KELO_COMM_LEN];
};
KELO_ASSERT_SIZE(struct open_fd_caller_info, 48);
KELO_ASSERT_OFFSET(struct open_fd_caller_info, reserved0, 4);
KELO_ASSERT_OFFSET(struct open_fd_caller_info, open_count, 8);
KELO_ASSERT_OFFSET(struct open_fd_caller_info, reported_count, 16);
KELO_ASSERT_OFFSET(struct open_fd_caller_info, reserved1, 24);
KELO_ASSERT_OFFSET(struct open_fd_caller_info, comm, 32);

/* map_KeloBpfDefineset_rss_mm_map (kernel bookkeeping): key __u32 mm_id of
 * the rss_stat tracepoint → the process owning that mm and the counter
 * values last reported for it. */
struct kelo_rss_mm_info {
  __s32 pid;
  __u32 reserved;
  __s64 reported[KELO_RSS_MEMBERS];
};
KELO_ASSERT_SIZE(struct kelo_rss_mm_info, 40);
KELO_ASSERT_OFFSET(struct kelo_rss_mm_info, reserved, 4);
KELO_ASSERT_OFFSET(struct kelo_rss_mm_info, reported, 8);

/* ------------------------------------------------------------------------ */
/* Task events the service derives and sends to its clients                 */
/* ------------------------------------------------------------------------ */

enum kelo_client_event_type {
  KELO_CLIENT_EVENT_PROCESS_CREATE = 50001,
  KELO_CLIENT_EVENT_PROCESS_EXIT = 50002,
  KELO_CLIENT_EVENT_THREAD_COUNT = 50003,
  KELO_CLIENT_EVENT_RSS_CHANGE = 50004,
  KELO_CLIENT_EVENT_EVENTS_LOST = 50005
};

struct __attribute__((packed)) kelo_process_create_client_event {
  __u32 type;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  char comm[KELO_COMM_LEN];
};
KELO_ASSERT_SIZE(struct kelo_process_create_client_event, 32);
KELO_ASSERT_PACKED(struct kelo_process_create_client_event);
KELO_ASSERT_OFFSET(struct kelo_process_create_client_event, pid, 4);
KELO_ASSERT_OFFSET(struct kelo_process_create_client_event, ppid, 8);
KELO_ASSERT_OFFSET(struct kelo_process_create_client_event, uid, 12);
KELO_ASSERT_OFFSET(struct kelo_process_create_client_event, comm, 16);

struct __attribute__((packed)) kelo_process_exit_client_event {
  __u32 type;
  __s32 pid;
  char comm[KELO_COMM_LEN];
};
KELO_ASSERT_SIZE(struct kelo_process_exit_client_event, 24);
KELO_ASSERT_PACKED(struct kelo_process_exit_client_event);
KELO_ASSERT_OFFSET(struct kelo_process_exit_client_event, pid, 4);
KELO_ASSERT_OFFSET(struct kelo_process_exit_client_event, comm, 8);

struct __attribute__((packed)) kelo_thread_count_client_event {
  __u32 type;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  __s32 old_thread_num;
  __s32 thread_num;
};
KELO_ASSERT_SIZE(struct kelo_thread_count_client_event, 24);
KELO_ASSERT_PACKED(struct kelo_thread_count_client_event);
KELO_ASSERT_OFFSET(struct kelo_thread_count_client_event, pid, 4);
KELO_ASSERT_OFFSET(struct kelo_thread_count_client_event, ppid, 8);
KELO_ASSERT_OFFSET(struct kelo_thread_count_client_event, uid, 12);
KELO_ASSERT_OFFSET(struct kelo_thread_count_client_event, old_thread_num, 16);
KELO_ASSERT_OFFSET(struct kelo_thread_count_client_event, thread_num, 20);

/* rss and rss_old are indexed file, anon, swap, shmem (enum kelo_rss_member). */
struct __attribute__((packed)) kelo_rss_change_client_event {
  __u32 type;
  __s32 pid;
  __s32 ppid;
  __u32 uid;
  char comm[KELO_COMM_LEN];
  __s64 rss[KELO_RSS_MEMBERS];
  __s64 rss_old[KELO_RSS_MEMBERS];
};
KELO_ASSERT_SIZE(struct kelo_rss_change_client_event, 96);
KELO_ASSERT_PACKED(struct kelo_rss_change_client_event);
KELO_ASSERT_OFFSET(struct kelo_rss_change_client_event, pid, 4);
KELO_ASSERT_OFFSET(struct kelo_rss_change_client_event, ppid, 8);
KELO_ASSERT_OFFSET(struct kelo_rss_change_client_event, uid, 12);
KELO_ASSERT_OFFSET(struct kelo_rss_change_client_event, comm, 16);
KELO_ASSERT_OFFSET(struct kelo_rss_change_client_event, rss, 32);
KELO_ASSERT_OFFSET(struct kelo_rss_change_client_event, rss_old, 64);

/* Where the events of a type 50005 report were lost. */
enum kelo_loss_site {
  /* A kernel program found its ring buffer full and could not write them. */
  KELO_LOSS_SITE_KERNEL = 1,
  /* The receiving connection's queue was trimmed: the client read too slowly
   * and the oldest packages of its queue were dropped. */
  KELO_LOSS_SITE_QUEUE = 2
};

/* Type 50005: events of lost_type that were lost at `site` since the last
 * report of that type and site to this connection. Sent at most once a
 * second per type and site, only after a loss, to connections subscribed to
 * 50005.
 *
 * first_ts and last_ts are CLOCK_MONOTONIC nanoseconds, the kernel's time
 * base. Queue losses: the header time of the first and last record dropped
 * (raw types 0 to 7), or the time of the trims (derived types). Kernel
 * losses: the records never existed, so the times bound the span instead:
 * every loss of the report happened after first_ts and not after last_ts.
 * The 64-bit fields sit at offsets that are multiples of 8 in the record,
 * which itself may arrive at any address: copy it out before reading. */
struct __attribute__((packed)) kelo_events_lost_client_event {
  __u32 type;
  __s32 lost_type;
  __u32 site; /* enum kelo_loss_site */
  __u32 reserved;
  __u64 count;
  __u64 first_ts;
  __u64 last_ts;
};
KELO_ASSERT_SIZE(struct kelo_events_lost_client_event, 40);
KELO_ASSERT_OFFSET(struct kelo_events_lost_client_event, lost_type, 4);
KELO_ASSERT_OFFSET(struct kelo_events_lost_client_event, site, 8);
KELO_ASSERT_OFFSET(struct kelo_events_lost_client_event, count, 16);
KELO_ASSERT_OFFSET(struct kelo_events_lost_client_event, first_ts, 24);
KELO_ASSERT_OFFSET(struct kelo_events_lost_client_event, last_ts, 32);

#endif /* KELO_BPF_EVENTS_H_ */
