// B3: how long a query takes while another thread holds a 3-second write transaction, with
// the reader pool and without it (QUILMA_DB_READERS=0), against the same queries when idle.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): setenv, unsetenv
#include <sys/resource.h>

#include "bench_database.h"

#include "quilma/storage/database.h"

namespace quilma::bench {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct RolledBack {};

double micros(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

double percentile(std::vector<double> samples, double share) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const auto rank =
      static_cast<std::size_t>(std::ceil(share * static_cast<double>(samples.size())));
  return samples[std::clamp<std::size_t>(rank, 1, samples.size()) - 1];
}

double timed_read(storage::Database& db, std::size_t& next) {
  const auto& ids = lookup_ids();
  const auto started = Clock::now();
  auto row = db.fetchone(POINT_QUERY, {ids[next++ % ids.size()]});
  const auto ended = Clock::now();
  benchmark::DoNotOptimize(row);
  return micros(ended - started);
}

// Times the reading thread was taken off its CPU against its will so far: a read that took
// over a millisecond while this did not move was slow by itself.
long preemptions() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nivcsw;
}

void report(benchmark::State& state, const std::string& phase, const std::vector<double>& samples,
            long preempted) {
  state.counters[phase + "_p50_us"] = percentile(samples, 0.50);
  state.counters[phase + "_p99_us"] = percentile(samples, 0.99);
  state.counters[phase + "_max_us"] =
      samples.empty() ? 0 : *std::max_element(samples.begin(), samples.end());
  state.counters[phase + "_reads"] = static_cast<double>(samples.size());
  state.counters[phase + "_over_1ms"] = static_cast<double>(
      std::count_if(samples.begin(), samples.end(), [](double us) { return us > 1000; }));
  state.counters[phase + "_preempted"] = static_cast<double>(preempted);
}

void B3_ReadLatencyDuringWrite(benchmark::State& state) {
  const bool with_pool = state.range(0) != 0;
  // NOLINTBEGIN(concurrency-mt-unsafe): set before the database and its threads exist.
  ::setenv("QUILMA_DB_READERS", with_pool ? "6" : "0", 1);
  storage::Database db(bench_database());
  db.connect();
  ::unsetenv("QUILMA_DB_READERS");
  // NOLINTEND(concurrency-mt-unsafe)
  settle_log(db);
  std::size_t next = 0;
  const std::string payload(200, 'x');

  for (auto _ : state) {
    // As long as the write phase, so that the counts of slow reads compare directly: the idle
    // phase shows what the machine itself adds (preemption, other tenants).
    std::vector<double> idle;
    const long idle_start = preemptions();
    for (const auto until = Clock::now() + 3s; Clock::now() < until;)
      idle.push_back(timed_read(db, next));

    std::latch writing(1);
    std::atomic<bool> done{false};
    std::thread writer([&] {
      try {
        db.transaction([&](sqlite::Cursor& cursor) {
          cursor.execute("INSERT INTO writes (payload) VALUES (?)", {payload});
          writing.count_down();
          for (const auto until = Clock::now() + 3s; Clock::now() < until;) {
            cursor.execute("INSERT INTO writes (payload) VALUES (?)", {payload});
          }
          throw RolledBack{};  // keep the shared file as it was
        });
      } catch (const RolledBack&) {
      }
      done = true;
    });
    const long idle_preempted = preemptions() - idle_start;
    writing.wait();
    std::vector<double> during;
    const long write_start = preemptions();
    while (!done) during.push_back(timed_read(db, next));
    const long write_preempted = preemptions() - write_start;
    writer.join();

    report(state, "idle", idle, idle_preempted);
    report(state, "write", during, write_preempted);
  }
}

BENCHMARK(B3_ReadLatencyDuringWrite)
    ->ArgName("pool")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(1)
    ->Repetitions(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quilma::bench
