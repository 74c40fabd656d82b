// SPDX-License-Identifier: GPL-2.0
/*
 * Test and soak emitter: the ring buffer, status array and lost counts of a
 * real set (kelo_bpf_ringbuf.bpf.h) with one program that emits records
 * through the sets' shared reservation path, run through BPF_PROG_TEST_RUN.
 * A caller knows exactly how many records it asked for, so it can hold what
 * the kernel side counted as lost against what reached the service. Its maps
 * may be its own or, reused before loading, a running service's.
 *
 * Input frame: struct kelo_loss_emit_frame, then padding (a test run needs
 * at least an Ethernet header's worth of bytes). Each run emits one
 * kelo_fd_update_event-sized record of the frame's type. `seq`, below, is
 * the number of records this object wrote before this one (0, 1, 2, ...):
 *  - flags 0: header time from the kernel clock, open_count = seq;
 *  - KELO_LOSS_EMIT_SEQUENCED: header time = seq + 1 (so that the times in a
 *    loss report name the records lost), open_count = the frame's stamp.
 *
 * Result: XDP_PASS when the record was written, XDP_DROP when the ring
 * buffer had no room (the loss is counted), XDP_ABORTED for a bad frame.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#define KELO_SET_RINGBUF_BYTES 4096
#include "bpf/kelo_bpf_ringbuf.bpf.h"

#define KELO_LOSS_EMIT_SEQUENCED 1

struct kelo_loss_emit_frame {
  __u32 type; /* 0 to KELO_EVENT_TYPE_MAX */
  __u32 flags;
  __u64 stamp;
};

char LICENSE[] SEC("license") = "GPL";

/* Records written so far. */
__u64 emitted = 0;

SEC("xdp")
int kelo_loss_emit(struct xdp_md *ctx)
{
  struct kelo_loss_emit_frame frame;
  struct kelo_fd_update_event *event;
  __u64 seq;

  if (bpf_xdp_load_bytes(ctx, 0, &frame, sizeof(frame)) || frame.type > KELO_EVENT_TYPE_MAX)
    return XDP_ABORTED;
  event = kelo_reserve(frame.type, sizeof(*event));
  if (!event)
    return XDP_DROP;
  seq = __sync_fetch_and_add(&emitted, 1);
  if (frame.flags & KELO_LOSS_EMIT_SEQUENCED) {
    event->header.ts = seq + 1;
    event->open_count = frame.stamp;
  } else {
    event->open_count = seq;
  }
  kelo_submit(event);
  return XDP_PASS;
}
