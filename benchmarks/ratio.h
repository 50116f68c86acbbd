// Runs benchmarks in pairs, ours and its limit, and judges their ratio.

#ifndef POSTWELL_BENCHMARKS_RATIO_H_
#define POSTWELL_BENCHMARKS_RATIO_H_

#include <benchmark/benchmark.h>

#include <vector>

struct RatioGoal {
  const char *name;
  void (*ours)(benchmark::State &);
  void (*limit)(benchmark::State &);  // the least that could do the same work
  double goal;                        // ours may take so many times the limit
};

// Measures all pairs in interleaved repetitions, prints one table, and returns
// main()'s exit status: 0 when every goal is met.
int runRatios(int argc, char **argv, const std::vector<RatioGoal> &goals);

#endif  // POSTWELL_BENCHMARKS_RATIO_H_
