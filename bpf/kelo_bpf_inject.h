/* Limits shared by the test injector program and its user-space side
 * (tests/support/bpf_fixture.h). */
#ifndef KELO_BPF_INJECT_H_
#define KELO_BPF_INJECT_H_

/* Longest record the injector writes in one test run. */
#define KELO_INJECT_MAX_BYTES 2048

#endif /* KELO_BPF_INJECT_H_ */
