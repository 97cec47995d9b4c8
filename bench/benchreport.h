#pragma once

// What every benchmark binary of the tool prints besides the library's table:
// the medians its goals are judged on, and one line per goal that a person
// can read alone.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace pmbench {

// The library's console table, in colour only on a terminal (the library's
// own "auto" looks at $TERM, so a file or a pipe got escape codes), keeping
// every run's real time, CPU time and counters by benchmark name.
class Reporter : public benchmark::ConsoleReporter {
 public:
  Reporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      // A benchmark that reports its aggregates only gives its median as one.
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type != Run::RT_Iteration && !median) continue;
      const std::string& name = run.run_name.function_name;
      figures_[name].push_back(run.GetAdjustedRealTime());
      figures_[name + ".cpu"].push_back(run.GetAdjustedCPUTime());
      for (const auto& [counter, value] : run.counters) figures_[name + "." + counter].push_back(value);
    }
  }

  // The median over the repetitions of a benchmark's real time ("name"), CPU
  // time ("name.cpu") or counter ("name.counter"); 0 when it did not run.
  double Median(const std::string& key) const {
    const auto found = figures_.find(key);
    if (found == figures_.end() || found->second.empty()) return 0;
    std::vector<double> values = found->second;
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
  }

 private:
  std::map<std::string, std::vector<double>> figures_;
};

// Runs the benchmarks that the command line selects (all by default) into
// `reporter`. False, after the library has said why, when an argument is not
// one of its own.
inline bool RunBenchmarks(int argc, char** argv, Reporter& reporter) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return false;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return true;
}

// Prints "<what>: <figure>, goal <= <goal>, met" (or "missed"), deciding on
// the figure as it is printed, rounded to `decimals`: a printed 1.50 meets a
// goal of 1.5. Returns whether the goal was met.
inline bool Goal(const std::string& what, double figure, double goal, int decimals) {
  const double scale = std::pow(10.0, decimals);
  const bool met = std::round(figure * scale) <= std::round(goal * scale);
  std::printf("%s: %.*f, goal <= %.*f, %s\n", what.c_str(), decimals, figure, decimals, goal,
              met ? "met" : "missed");
  return met;
}

}  // namespace pmbench
