#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace verdalune::sessionreplay::bench {

// Remembers each benchmark's time per iteration (the median when repetitions are asked for) so that
// main can print the ratios beside the usual table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (median || (run.run_type == Run::RT_Iteration && run.repetitions <= 1)) {
        times[run.run_name.function_name] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

}  // namespace verdalune::sessionreplay::bench
