// The console reporter of Google Benchmark, keeping the median of every
// counter of every benchmark so that the run can end with a summary that
// sets the pipelines side by side.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace kelo_bench {

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  // Plain tables: the output is read from files as often as from terminals.
  SummaryReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& reports) override;

  // Median over the repetitions of `counter` of the benchmark `name`
  // (function name, then "/" and the arguments if any, e.g.
  // "BM_DrainService/clients:4"); the single run's value when there was
  // one repetition; NaN when the benchmark did not run or failed.
  double Median(const std::string& name, const std::string& counter) const;

 private:
  std::map<std::string, benchmark::UserCounters> medians_;
  std::map<std::string, benchmark::UserCounters> singles_;
};

// "%.3g"-style figure, or "n/a" for NaN.
std::string Figure(double value);

}  // namespace kelo_bench
