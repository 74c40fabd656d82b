// SPDX-License-Identifier: GPL-2.0
/*
 * Test-only object for the loader: one program every kernel accepts, one the
 * verifier refuses (it dereferences a map lookup without a null check) and
 * one whose section the service could never attach.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

char LICENSE[] SEC("license") = "GPL";

/* A hash map: the verifier knows that a constant-key array lookup cannot
 * fail, but not a hash lookup. */
struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} counter SEC(".maps");

SEC("tracepoint/sched/sched_switch")
int accepted(void *ctx)
{
  __u32 key = 0;
  __u64 *value = bpf_map_lookup_elem(&counter, &key);

  if (value)
    __sync_fetch_and_add(value, 1);
  return 0;
}

SEC("tracepoint/sched/sched_process_fork")
int refused(void *ctx)
{
  __u32 key = 0;
  __u64 *value = bpf_map_lookup_elem(&counter, &key);

  *value += 1;
  return 0;
}

SEC("xdp")
int unattachable(struct xdp_md *ctx)
{
  return XDP_PASS;
}
