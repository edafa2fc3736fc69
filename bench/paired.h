// Two pieces of work timed in turn within one run, and their ratio as a benchmark's counter.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

/// Seconds that f takes.
template <class F>
double seconds_of(F f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double median_of(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

/// Runs ours and reference in turn until the benchmark has enough; reports the time of ours and the counters
/// "ratio" (median of ours over median of reference), "limit" (what the project promises) and "reference_ms".
template <class Ours, class Reference>
void run_paired(benchmark::State& state, double limit, Ours ours, Reference reference) {
  std::vector<double> ours_s;
  std::vector<double> reference_s;
  ours();
  reference();
  for (auto _ : state) {
    reference_s.push_back(seconds_of(reference));
    ours_s.push_back(seconds_of(ours));
    state.SetIterationTime(ours_s.back());
  }
  state.counters["ratio"] = median_of(ours_s) / median_of(reference_s);
  state.counters["limit"] = limit;
  state.counters["reference_ms"] = median_of(reference_s) * 1e3;
}
