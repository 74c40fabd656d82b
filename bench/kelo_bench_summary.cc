#include "bench/kelo_bench_summary.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace kelo_bench {
namespace {

constexpr char MEDIAN[] = "median";

std::string Key(const benchmark::BenchmarkReporter::Run& run) {
  return run.run_name.args.empty() ? run.run_name.function_name : run.run_name.function_name + "/" + run.run_name.args;
}

}  // namespace

void SummaryReporter::ReportRuns(const std::vector<Run>& reports) {
  ConsoleReporter::ReportRuns(reports);
  for (const Run& run : reports) {
    if (run.error_occurred) continue;
    if (run.run_type == Run::RT_Aggregate && run.aggregate_name == MEDIAN) {
      medians_[Key(run)] = run.counters;
    } else if (run.run_type == Run::RT_Iteration) {
      singles_[Key(run)] = run.counters;
    }
  }
}

double SummaryReporter::Median(const std::string& name, const std::string& counter) const {
  for (const auto* source : {&medians_, &singles_}) {
    auto run = source->find(name);
    if (run == source->end()) continue;
    auto value = run->second.find(counter);
    if (value != run->second.end()) return value->second.value;
  }
  return std::numeric_limits<double>::quiet_NaN();
}

std::string Figure(double value) {
  if (std::isnan(value)) return "n/a";
  char text[32];
  snprintf(text, sizeof(text), "%.3g", value);
  return text;
}

}  // namespace kelo_bench
