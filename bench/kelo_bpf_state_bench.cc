// Cost of counting one event. A pump counts its records in an EventTally that
// hands them to the window once per poll (or every FLUSH_EVENTS records);
// events counted anywhere else, and the polls themselves when no tally is at
// hand, go through RecordEvent one by one.
#include <benchmark/benchmark.h>

#include "service/kelo_bpf_state.h"

namespace Kelo {
namespace Bpf {
namespace {

int TypeOfThread(const benchmark::State& state) {
  return state.thread_index() == 0 ? STATE_COUNTER_KMEM_RSS_INFO : STATE_COUNTER_POLL;
}

void BM_RecordEvent(benchmark::State& state) {
  KeloBpfDataState* counters = KeloBpfDataState::GetInstance();
  const int type = TypeOfThread(state);
  for (auto _ : state) {
    counters->RecordEvent(type, 1);
  }
}

// One event per iteration through a tally, as a pump draining a burst counts.
void BM_TallyAdd(benchmark::State& state) {
  EventTally tally(KeloBpfDataState::GetInstance());
  const int type = TypeOfThread(state);
  for (auto _ : state) {
    tally.Add(type);
  }
}

// One producer alone, as when only the normal ring buffer carries events.
BENCHMARK(BM_RecordEvent);
BENCHMARK(BM_TallyAdd);
// Both producers counting at once, sharing the window.
BENCHMARK(BM_RecordEvent)->Threads(2)->UseRealTime();
BENCHMARK(BM_TallyAdd)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
