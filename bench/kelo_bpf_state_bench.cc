// Cost of counting one event: every raw event and every poll of both producer
// threads goes through RecordEvent.
#include <benchmark/benchmark.h>

#include "service/kelo_bpf_state.h"

namespace Kelo {
namespace Bpf {
namespace {

void BM_RecordEvent(benchmark::State& state) {
  KeloBpfDataState* counters = KeloBpfDataState::GetInstance();
  const int type = state.thread_index() == 0 ? STATE_COUNTER_KMEM_RSS_INFO : STATE_COUNTER_POLL;
  for (auto _ : state) {
    counters->RecordEvent(type, 1);
  }
}

// One producer alone, as when only the normal ring buffer carries events.
BENCHMARK(BM_RecordEvent);
// Both producers counting at once, contending for the counters' lock.
BENCHMARK(BM_RecordEvent)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
