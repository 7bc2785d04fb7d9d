// A small benchmark harness shared by the native and the Windows benchmark
// programs (the Windows one is cross-built, so no third-party framework).
//
// What it measures: the time of one call of a function object, as the
// elapsed time of a batch of N calls divided by N. N is calibrated per
// function so that one batch lasts about Config::batch_seconds; a batch is
// repeated Config::reps times and the harness reports the minimum, median
// and maximum of the per-call times.
//
// Ratios: Runner::ratio(id, a, b) measures a and b in the same process,
// alternating within every repetition (a then b, then b then a, ...), and
// takes one ratio per repetition, time(a) / time(b). The reported
// min/median/max of the ratio are over those per-repetition ratios, not
// ratios of medians: a disturbance that hits one repetition moves one ratio.
//
// Not fooling ourselves:
// - consume(v) makes the compiler believe the value is read (an empty asm
//   statement taking it as input), so results are never dead code;
// - opaque(p) hides where a pointer comes from (an empty asm statement that
//   may have changed it), so calls through it cannot be devirtualised or
//   inlined; the programs are also built with -fno-devirtualize-speculatively;
// - every function object is run once before timing (the callers check
//   results there), and every batch is timed with a monotonic clock.
//
// Output: a human-readable line per result on stderr and one line
//   RESULT {"platform": ..., "id": ..., ...}
// per result on stdout, read by bench/report.py.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace valmetra::bench {

template <class T>
inline void consume(const T& value) noexcept {
  asm volatile("" : : "r,m"(value) : "memory");
}

template <class T>
inline T* opaque(T* p) noexcept {
  asm volatile("" : "+r"(p));
  return p;
}

struct Config {
  int reps = 11;
  double batch_seconds = 0.02;
  bool smoke = false;
};

// --smoke: a few short repetitions, for checking that everything runs.
// --reps N, --batch-ms X: override the defaults.
inline Config parse_config(int argc, char** argv) {
  Config c;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--smoke") {
      c.smoke = true;
      c.reps = 3;
      c.batch_seconds = 0.0005;
    } else if (arg == "--reps" && i + 1 < argc) {
      c.reps = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--batch-ms" && i + 1 < argc) {
      c.batch_seconds = std::max(0.0001, std::atof(argv[++i]) / 1000.0);
    }
  }
  return c;
}

struct Stats {
  double min = 0;
  double median = 0;
  double max = 0;
};

inline Stats stats_of(std::vector<double> values) {
  Stats s;
  if (values.empty()) return s;
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  s.min = values.front();
  s.max = values.back();
  s.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  return s;
}

// Failure of a check: the benchmark is meaningless, so stop loudly.
[[noreturn]] inline void fail(const char* what, long detail = 0) {
  std::fprintf(stderr, "BENCHMARK FAILURE: %s (0x%lx)\n", what, static_cast<unsigned long>(detail));
  std::fflush(stderr);
  std::exit(2);
}

inline void check(bool ok, const char* what, long detail = 0) {
  if (!ok) fail(what, detail);
}

class Runner {
 public:
  Runner(Config config, std::string platform) : config_(config), platform_(std::move(platform)) {}

  const Config& config() const noexcept { return config_; }

  // Time per call of `f`, in nanoseconds.
  template <class F>
  void single(const char* id, const char* what, F&& f) {
    const std::int64_t n = calibrate(f);
    std::vector<double> ns;
    for (int r = 0; r < config_.reps; ++r) ns.push_back(per_call_ns(f, n));
    const Stats s = stats_of(ns);
    std::fprintf(stderr, "%-34s %12.2f ns  (min %.2f, max %.2f, n %lld)  %s\n", id, s.median, s.min, s.max,
                 static_cast<long long>(n), what);
    std::printf("RESULT {\"platform\": \"%s\", \"id\": \"%s\", \"kind\": \"single\", \"what\": \"%s\", "
                "\"reps\": %d, \"a_ns\": %s, \"n_a\": %lld}\n",
                platform_.c_str(), id, what, config_.reps, json(s).c_str(), static_cast<long long>(n));
    std::fflush(stdout);
  }

  // time(a) / time(b), taken per repetition.
  template <class FA, class FB>
  void ratio(const char* id, const char* what, FA&& a, FB&& b) {
    const std::int64_t na = calibrate(a);
    const std::int64_t nb = calibrate(b);
    std::vector<double> ta, tb, ratios;
    for (int r = 0; r < config_.reps; ++r) {
      double x, y;
      if (r % 2 == 0) {
        x = per_call_ns(a, na);
        y = per_call_ns(b, nb);
      } else {
        y = per_call_ns(b, nb);
        x = per_call_ns(a, na);
      }
      ta.push_back(x);
      tb.push_back(y);
      ratios.push_back(x / y);
    }
    const Stats sa = stats_of(ta), sb = stats_of(tb), sr = stats_of(ratios);
    std::fprintf(stderr, "%-34s ratio %9.2f  (min %.2f, max %.2f)  a %.2f ns, b %.2f ns  %s\n", id, sr.median,
                 sr.min, sr.max, sa.median, sb.median, what);
    std::printf("RESULT {\"platform\": \"%s\", \"id\": \"%s\", \"kind\": \"ratio\", \"what\": \"%s\", "
                "\"reps\": %d, \"a_ns\": %s, \"b_ns\": %s, \"ratio\": %s, \"n_a\": %lld, \"n_b\": %lld}\n",
                platform_.c_str(), id, what, config_.reps, json(sa).c_str(), json(sb).c_str(), json(sr).c_str(),
                static_cast<long long>(na), static_cast<long long>(nb));
    std::fflush(stdout);
  }

  // A free-form note carried into the report (e.g. what was compared).
  void note(const char* id, const std::string& text) {
    std::fprintf(stderr, "note %s: %s\n", id, text.c_str());
    std::string escaped;
    for (char c : text) {
      if (c == '"' || c == '\\') escaped += '\\';
      escaped += c;
    }
    std::printf("NOTE {\"platform\": \"%s\", \"id\": \"%s\", \"text\": \"%s\"}\n", platform_.c_str(), id,
                escaped.c_str());
    std::fflush(stdout);
  }

 private:
  using Clock = std::chrono::steady_clock;

  template <class F>
  static double batch_seconds(F& f, std::int64_t n) {
    const auto start = Clock::now();
    for (std::int64_t i = 0; i < n; ++i) f();
    const auto stop = Clock::now();
    return std::chrono::duration<double>(stop - start).count();
  }

  template <class F>
  static double per_call_ns(F& f, std::int64_t n) {
    return batch_seconds(f, n) * 1e9 / static_cast<double>(n);
  }

  // The number of calls that lasts about one batch; the runs made here
  // also warm caches and predictors.
  template <class F>
  std::int64_t calibrate(F& f) const {
    std::int64_t n = 1;
    double t = batch_seconds(f, n);
    while (t < config_.batch_seconds / 4 && n < (std::int64_t{1} << 40)) {
      n *= t < config_.batch_seconds / 100 ? 10 : 2;
      t = batch_seconds(f, n);
    }
    const double scaled = static_cast<double>(n) * config_.batch_seconds / std::max(t, 1e-9);
    return std::max<std::int64_t>(1, static_cast<std::int64_t>(scaled));
  }

  static std::string json(const Stats& s) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "{\"min\": %.6g, \"median\": %.6g, \"max\": %.6g}", s.min, s.median, s.max);
    return buf;
  }

  Config config_;
  std::string platform_;
};

}  // namespace valmetra::bench
