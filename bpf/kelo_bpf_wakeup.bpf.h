/*
 * Wake-up policy of every ring-buffer submit: the flags a record is
 * submitted with, given its ring buffer and that ring's status array (see
 * enum kelo_ringbuf_wake_mode). Include after vmlinux.h and the libbpf
 * headers.
 */
#ifndef KELO_BPF_WAKEUP_BPF_H_
#define KELO_BPF_WAKEUP_BPF_H_

#include "bpf/kelo_bpf_events.h"

/* A consumer that switches from KELO_RB_WAKE_TIMED back to KELO_RB_WAKE_EACH
 * keeps polling on its timer for one more period before it waits without a
 * time-out, so a record whose submit still saw the old mode is not left
 * behind. */
static __always_inline __u64 kelo_wake_flags(void *ring, void *status)
{
  __u32 key = KELO_RB_STATUS_WAKE_MODE;
  __u64 *mode = bpf_map_lookup_elem(status, &key);

  if (!mode || *(volatile __u64 *)mode != KELO_RB_WAKE_TIMED)
    return 0;
  if (bpf_ringbuf_query(ring, BPF_RB_AVAIL_DATA) >=
      bpf_ringbuf_query(ring, BPF_RB_RING_SIZE) / KELO_RB_WAKE_WATERMARK_DIVISOR)
    return BPF_RB_FORCE_WAKEUP;
  return BPF_RB_NO_WAKEUP;
}

#endif /* KELO_BPF_WAKEUP_BPF_H_ */
