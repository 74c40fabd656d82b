// SPDX-License-Identifier: GPL-2.0
/*
 * Test-only injector: writes the bytes it is given into a ring buffer as one
 * record, exactly as a kernel program would. Run through BPF_PROG_TEST_RUN;
 * the test fixture points inject_ringbuf at the ring buffer under test
 * before loading. Input frame: __u32 record length, the record, then any
 * padding (a test run needs at least an Ethernet header's worth of bytes).
 * The record is submitted with the wake-up a kernel program would use for
 * the state in inject_status, which the fixture may point at the ring
 * buffer's status array (left alone, it asks for the ring's own rule).
 *
 * Result: XDP_PASS when the record was written, XDP_DROP when the ring
 * buffer had no room, XDP_ABORTED for a malformed frame.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "bpf/kelo_bpf_inject.h"
#include "bpf/kelo_bpf_wakeup.bpf.h"

char LICENSE[] SEC("license") = "GPL";

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, 4096);
} inject_ringbuf SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, KELO_RB_STATUS_ENTRIES);
  __type(key, __u32);
  __type(value, __u64);
} inject_status SEC(".maps");

struct inject_buffer {
  char bytes[KELO_INJECT_MAX_BYTES];
};

/* Staging copy of the record: the length is only known at run time, which
 * bpf_ringbuf_output accepts from map memory but not from the packet. */
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct inject_buffer);
} inject_scratch SEC(".maps");

SEC("xdp")
int kelo_inject(struct xdp_md *ctx)
{
  __u32 key = 0;
  struct inject_buffer *buffer = bpf_map_lookup_elem(&inject_scratch, &key);
  __u32 frame_len;
  __u32 len;
  __u64 flags;

  if (!buffer || bpf_xdp_load_bytes(ctx, 0, &frame_len, sizeof(frame_len)))
    return XDP_ABORTED;
  /* Checked in a register of its own: the verifier has to see the bound on
   * the value each helper receives, not on a reload from the stack. */
  len = frame_len;
  if (len == 0 || len > KELO_INJECT_MAX_BYTES)
    return XDP_ABORTED;
  if (bpf_xdp_load_bytes(ctx, sizeof(frame_len), buffer->bytes, len))
    return XDP_ABORTED;
  flags = kelo_wake_flags(&inject_ringbuf, &inject_status);
  return bpf_ringbuf_output(&inject_ringbuf, buffer->bytes, len, flags) ? XDP_DROP : XDP_PASS;
}
