// The judge behind the benchmarks: Google Benchmark takes the times, this compares
// the fastest repetitions, because whatever else the machine does can only add time.
// The repetitions of all benchmarks are shuffled, so that a machine that is slow for a
// while is slow for both halves of a pair. The medians are printed to show the noise.

#include "ratio.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>

namespace {

struct Times {
  double fastest = 0;
  double median = 0;
};

// Collects the times of each benchmark and the first error, prints nothing.
class TimesReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context & /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.error_occurred) error = run.error_message;
      if (run.run_type != Run::RT_Aggregate) continue;
      Times &times = microseconds[run.run_name.function_name];
      if (run.aggregate_name == "fastest") times.fastest = run.GetAdjustedRealTime();
      if (run.aggregate_name == "median") times.median = run.GetAdjustedRealTime();
    }
  }

  std::map<std::string, Times> microseconds;
  std::string error;
};

void registerTimed(const std::string &name, void (*function)(benchmark::State &)) {
  benchmark::RegisterBenchmark(name.c_str(), function)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime()
      ->ComputeStatistics("fastest", [](const std::vector<double> &times) {
        return *std::min_element(times.begin(), times.end());
      });
}

}  // namespace

int runRatios(int argc, char **argv, const std::vector<RatioGoal> &goals) {
  // Defaults first: what the command line says comes later and wins.
  std::vector<std::string> defaults = {"--benchmark_enable_random_interleaving=true",
                                       "--benchmark_repetitions=75",
                                       "--benchmark_min_time=0.02"};
  std::vector<char *> arguments = {argv[0]};
  for (std::string &text : defaults) arguments.push_back(text.data());
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  for (const RatioGoal &goal : goals) {
    registerTimed(std::string(goal.name) + ": ours", goal.ours);
    registerTimed(std::string(goal.name) + ": limit", goal.limit);
  }
  TimesReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  if (!reporter.error.empty()) {
    fprintf(stderr, "%s: %s\n", argv[0], reporter.error.c_str());
    return 1;
  }

  bool met = true;
  printf("%-30s %10s %10s %7s %6s   %s\n", "fastest repetition", "ours [us]",
         "limit [us]", "ratio", "goal", "medians [us]");
  for (const RatioGoal &goal : goals) {
    const Times ours = reporter.microseconds[std::string(goal.name) + ": ours"];
    const Times limit = reporter.microseconds[std::string(goal.name) + ": limit"];
    const bool good = limit.fastest > 0 && ours.fastest <= goal.goal * limit.fastest;
    printf("%-30s %10.2f %10.2f %7.3f %6.2f   %.2f / %.2f%s\n", goal.name, ours.fastest,
           limit.fastest, ours.fastest / limit.fastest, goal.goal, ours.median,
           limit.median, good ? "" : "  MISSED");
    met = met && good;
  }
  return met ? 0 : 1;
}
