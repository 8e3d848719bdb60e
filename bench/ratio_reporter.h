// A console reporter that also keeps each benchmark's time per iteration (the median when the
// benchmark repeats), so that a program can print ratios against its floor at the end.
#ifndef MAILSERVER_BENCH_RATIO_REPORTER_H_
#define MAILSERVER_BENCH_RATIO_REPORTER_H_

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const auto &run : runs) {
      const std::string name = run.run_name.function_name;
      if (run.run_type == Run::RT_Iteration && times_.count(name) == 0) {
        times_[name] = run.GetAdjustedRealTime();
      } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        times_[name] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Time per iteration of a benchmark by its name, in the benchmark's unit; 0 when it didn't run.
  double Time(const std::string &name) const {
    const auto found = times_.find(name);
    return found == times_.end() ? 0 : found->second;
  }

  void PrintRatio(const char *what, const std::string &measured, const std::string &floor,
                  const char *goal = "") const {
    const double a = Time(measured), b = Time(floor);
    if (a <= 0 || b <= 0) return;
    printf("%-58s %8.3f  %s\n", what, a / b, goal);
  }

 private:
  std::map<std::string, double> times_;
};

#endif  // MAILSERVER_BENCH_RATIO_REPORTER_H_
