// Paired timing: a workload and its baselines in alternating batches.
#pragma once

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace quilma::bench {

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

// The ratios: the database workload and each baseline run in alternating batches (of a few
// hundred queries, or a few opens), and each batch's time is compared with the database batch
// beside it. The machine's slow spells (it is shared) then fall on both sides of a pair alike, and
// the median of the per-pair ratios is steady where ratios of separate runs are not.
template <int Batch = 200, class Ours, class... Baselines>
void paired(benchmark::State& state, Ours& ours, const std::vector<std::string>& names,
            Baselines&... baselines) {
  using Clock = std::chrono::steady_clock;
  auto time_batch = [](auto& workload) {
    const auto started = Clock::now();
    for (int i = 0; i < Batch; ++i) workload.run();
    return std::chrono::duration<double, std::nano>(Clock::now() - started).count() / Batch;
  };
  std::vector<double> ours_ns;
  std::vector<std::vector<double>> ratios(sizeof...(Baselines));
  std::vector<std::vector<double>> baseline_ns(sizeof...(Baselines));
  bool ours_first = true;
  for (auto _ : state) {
    std::size_t b = 0;
    double ours_time = 0;
    if (ours_first) ours_time = time_batch(ours);
    (
        [&](auto& baseline) {
          const double time = time_batch(baseline);
          baseline_ns[b].push_back(time);
          ratios[b++].push_back(time);
        }(baselines),
        ...);
    if (!ours_first) ours_time = time_batch(ours);
    ours_first = !ours_first;
    ours_ns.push_back(ours_time);
    for (auto& series : ratios) series.back() = ours_time / series.back();
  }
  state.counters["database_ns"] = median(ours_ns);
  for (std::size_t b = 0; b < names.size(); ++b) {
    state.counters[names[b] + "_ns"] = median(baseline_ns[b]);
    state.counters["database_per_" + names[b]] = median(ratios[b]);
  }
}

}  // namespace quilma::bench
