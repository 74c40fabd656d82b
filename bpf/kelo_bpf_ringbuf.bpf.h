/*
 * The ring buffer and status array of one program set, and the emit path all
 * of the set's programs share. Include once per set after vmlinux.h and the
 * libbpf headers, with KELO_SET_RINGBUF_BYTES defined to the set's ring size.
 *
 * Emission contract with the service:
 *  - a record is written only while the service has asked for its class:
 *    core events (task creation and exit) while KELO_RB_FLAG_CORE is set,
 *    every other event while KELO_RB_FLAG_NORMAL is set;
 *  - a record that does not fit sets KELO_RB_FLAG_FULL and refreshes status
 *    entries 1-4 from the ring buffer, so the service can log how full it was;
 *  - and it is counted under its type in ringbuf_lost, so the service can
 *    tell how many records of each type were lost;
 *  - a record is submitted with kelo_submit, which wakes the consumer as its
 *    status entry KELO_RB_STATUS_WAKE_MODE asks.
 */
#ifndef KELO_BPF_RINGBUF_BPF_H_
#define KELO_BPF_RINGBUF_BPF_H_

#include "bpf/kelo_bpf_events.h"
#include "bpf/kelo_bpf_wakeup.bpf.h"

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, KELO_SET_RINGBUF_BYTES);
} ringbuf_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, KELO_RB_STATUS_ENTRIES);
  __type(key, __u32);
  __type(value, __u64);
} ringbuf_status SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, KELO_RB_LOST_ENTRIES);
  __type(key, __u32);
  __type(value, struct kelo_ringbuf_lost);
} ringbuf_lost SEC(".maps");

static __always_inline int kelo_wants(__u64 flag)
{
  __u32 key = KELO_RB_STATUS_FLAGS;
  __u64 *flags = bpf_map_lookup_elem(&ringbuf_status, &key);

  return flags && (*flags & flag);
}

static __always_inline void kelo_status_store(__u32 key, __u64 value)
{
  __u64 *entry = bpf_map_lookup_elem(&ringbuf_status, &key);

  if (entry)
    *entry = value;
}

/* Entries 1-4 from the ring buffer's current positions. */
static __always_inline void kelo_refresh_status(void)
{
  kelo_status_store(KELO_RB_STATUS_AVAIL_DATA, bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA));
  kelo_status_store(KELO_RB_STATUS_RING_SIZE, bpf_ringbuf_query(&ringbuf_map, BPF_RB_RING_SIZE));
  kelo_status_store(KELO_RB_STATUS_CONS_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_CONS_POS));
  kelo_status_store(KELO_RB_STATUS_PROD_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_PROD_POS));
}

static __always_inline void kelo_mark_full(void)
{
  __u32 key = KELO_RB_STATUS_FLAGS;
  __u64 *flags = bpf_map_lookup_elem(&ringbuf_status, &key);

  /* Atomic: the service clears the bit from user space concurrently and
   * every CPU may be marking at once. */
  if (flags)
    __sync_fetch_and_or(flags, KELO_RB_FLAG_FULL);
  kelo_refresh_status();
}

static __always_inline void kelo_count_lost(__u32 type)
{
  struct kelo_ringbuf_lost *lost = bpf_map_lookup_elem(&ringbuf_lost, &type);

  /* This CPU's slot; atomic because a program may interrupt another one
   * on the same CPU. */
  if (lost)
    __sync_fetch_and_add(&lost->records, 1);
}

/* Reserves a record of the given type and fills its header; null (after
 * marking the ring buffer full and counting the loss) when there is no
 * room. size must be a compile-time constant. */
static __always_inline void *kelo_reserve(__u32 type, __u64 size)
{
  struct kelo_event_header *header = bpf_ringbuf_reserve(&ringbuf_map, size, 0);

  if (!header) {
    kelo_mark_full();
    kelo_count_lost(type);
    return 0;
  }
  /* Ring-buffer memory is not cleared: padding and unused name bytes
   * would otherwise carry stale kernel data to user space. */
  __builtin_memset(header, 0, size);
  header->type = type;
  header->reserved = 0;
  header->ts = bpf_ktime_get_ns();
  return header;
}

/* Submits a record reserved by kelo_reserve. */
#define kelo_submit(record) bpf_ringbuf_submit((record), kelo_wake_flags(&ringbuf_map, &ringbuf_status))

#define KELO_RESERVE(type, record_struct) ((struct record_struct *)kelo_reserve((type), sizeof(struct record_struct)))

static __always_inline __u32 kelo_current_tgid(void)
{
  return bpf_get_current_pid_tgid() >> 32;
}

#endif /* KELO_BPF_RINGBUF_BPF_H_ */
