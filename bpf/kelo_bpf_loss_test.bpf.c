// SPDX-License-Identifier: GPL-2.0
/*
 * Test-only program set: the ring buffer, status array and lost counts of a
 * real set (kelo_bpf_ringbuf.bpf.h) with one program that emits records
 * through the sets' shared reservation path, run through BPF_PROG_TEST_RUN.
 * A test knows exactly how many records it asked for, so it can hold what
 * the kernel side counted as lost against what reached the service.
 *
 * Input frame: __u32 event type (0 to KELO_EVENT_TYPE_MAX), then padding (a
 * test run needs at least an Ethernet header's worth of bytes). Each run
 * emits one kelo_fd_update_event-sized record of that type whose open_count
 * is the number of records this object wrote before it (0, 1, 2, ...).
 *
 * Result: XDP_PASS when the record was written, XDP_DROP when the ring
 * buffer had no room (the loss is counted), XDP_ABORTED for a bad frame.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#define KELO_SET_RINGBUF_BYTES 4096
#include "bpf/kelo_bpf_ringbuf.bpf.h"

char LICENSE[] SEC("license") = "GPL";

/* Records written so far. */
__u64 emitted = 0;

SEC("xdp")
int kelo_loss_emit(struct xdp_md *ctx)
{
  struct kelo_fd_update_event *event;
  __u32 type;

  if (bpf_xdp_load_bytes(ctx, 0, &type, sizeof(type)) || type > KELO_EVENT_TYPE_MAX)
    return XDP_ABORTED;
  event = kelo_reserve(type, sizeof(*event));
  if (!event)
    return XDP_DROP;
  event->open_count = __sync_fetch_and_add(&emitted, 1);
  bpf_ringbuf_submit(event, 0);
  return XDP_PASS;
}
