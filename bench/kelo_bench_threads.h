// What the threads of this process cost, read from procfs: processor time
// (schedstat, nanoseconds), context switches (voluntary + involuntary: every
// time a thread left the processor, i.e. every wake-up after it) and the
// process's resident memory.
//
// Threads are selected by the prefix of their name, so one pipeline's
// threads ("BpfService...", "Ref...") are measured apart from the benchmark's
// clients and producer running in the same process.
#pragma once

#include <cstdint>
#include <string>

namespace kelo_bench {

struct ThreadUsage {
  uint64_t cpuNs = 0;
  uint64_t switches = 0;
  int threads = 0;
};

// Sum over the live threads of this process whose name starts with prefix.
ThreadUsage SumThreadUsage(const std::string& prefix);

// VmRSS of this process in KiB; -1 when unreadable.
long ResidentKib();

// Names the calling thread (at most 15 characters are kept).
void NameThisThread(const char* name);

}  // namespace kelo_bench
