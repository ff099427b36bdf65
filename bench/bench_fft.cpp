// Float real FFT against FFTW's single-precision real-to-complex transform.
// Prints, after the runs, xkl's time over FFTW's for every frame length.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kernels/fft_tables.h"
#include "xkl/kfx.h"

#ifdef XKL_HAVE_FFTW
#include <fftw3.h>

namespace {

constexpr int kOrders[] = {5, 6, 8, 9, 10, 12};

void fillRandom(float *x, int n) {
  std::mt19937 gen(1);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  for (int i = 0; i < n; ++i) x[i] = dist(gen);
}

// RCPerm, out of place unless inPlace, on the vectorised or the portable path.
void runXkl(benchmark::State &state, bool portable, int direction = KFX_Forward,
            bool inPlace = false) {
  const int order = static_cast<int>(state.range(0));
  const int n = 1 << order;
  float *in = fftwf_alloc_real(n);
  float *out = fftwf_alloc_real(n + 2);
  fillRandom(in, n);
  kfx::setSimdEnabled(!portable);
  kfxsRealFftl(nullptr, order, KFX_Init);
  for (auto _ : state) {
    if (inPlace) {
      // A fresh frame each time (the copy is part of the figure).
      std::memcpy(out, in, n * sizeof(float));
      kfxsRealFftl(out, order, direction | KFX_RCPerm);
    } else
      kfxsRealFftlNip(in, out, order, direction | KFX_RCPerm);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  kfx::setSimdEnabled(true);
  state.counters["N"] = n;
  fftwf_free(in);
  fftwf_free(out);
}

void BM_xkl(benchmark::State &state) { runXkl(state, false); }
void BM_xkl_portable(benchmark::State &state) { runXkl(state, true); }
// For information: the other directions and placements.
void BM_xkl_inverse(benchmark::State &state) { runXkl(state, false, KFX_Inverse); }
void BM_xkl_inplace(benchmark::State &state) { runXkl(state, false, KFX_Forward, true); }
void BM_xkl_inplace_inverse(benchmark::State &state) { runXkl(state, false, KFX_Inverse, true); }

void BM_fftw(benchmark::State &state) {
  const int order = static_cast<int>(state.range(0));
  const int n = 1 << order;
  float *in = fftwf_alloc_real(n);
  fftwf_complex *out = fftwf_alloc_complex(n / 2 + 1);
  fftwf_plan plan = fftwf_plan_dft_r2c_1d(n, in, out, FFTW_MEASURE);
  fillRandom(in, n);  // after planning: FFTW_MEASURE overwrites the buffers
  for (auto _ : state) {
    fftwf_execute(plan);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  state.counters["N"] = n;
  fftwf_destroy_plan(plan);
  fftwf_free(in);
  fftwf_free(out);
}

BENCHMARK(BM_xkl)->Arg(5)->Arg(6)->Arg(8)->Arg(9)->Arg(10)->Arg(12);
BENCHMARK(BM_fftw)->Arg(5)->Arg(6)->Arg(8)->Arg(9)->Arg(10)->Arg(12);
BENCHMARK(BM_xkl_portable)->Arg(5)->Arg(6)->Arg(8)->Arg(9)->Arg(10)->Arg(12);
BENCHMARK(BM_xkl_inverse)->Arg(6)->Arg(8)->Arg(9)->Arg(10)->Arg(12);
BENCHMARK(BM_xkl_inplace)->Arg(6)->Arg(8)->Arg(9)->Arg(10)->Arg(12);
BENCHMARK(BM_xkl_inplace_inverse)->Arg(6)->Arg(8)->Arg(9)->Arg(10)->Arg(12);

// Console output as usual, plus the per-order times kept for the summary.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &r : runs) {
      if (r.run_type != Run::RT_Iteration) continue;
      const std::string name = r.benchmark_name();
      const auto slash = name.find('/');
      if (slash == std::string::npos) continue;
      const int order = std::atoi(name.c_str() + slash + 1);
      times_[name.substr(0, slash)][order] = r.GetAdjustedCPUTime();
    }
  }
  void Summary() const {
    const auto xkl = times_.find("BM_xkl");
    const auto fftw = times_.find("BM_fftw");
    if (xkl == times_.end() || fftw == times_.end()) return;
    std::printf("\n%8s %12s %12s %14s\n", "N", "xkl ns", "fftw ns", "xkl/fftw");
    for (int order : kOrders) {
      const auto a = xkl->second.find(order), b = fftw->second.find(order);
      if (a == xkl->second.end() || b == fftw->second.end()) continue;
      std::printf("%8d %12.1f %12.1f %14.2f\n", 1 << order, a->second, b->second,
                  a->second / b->second);
    }
  }

 private:
  std::map<std::string, std::map<int, double>> times_;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Summary();
  benchmark::Shutdown();
  return 0;
}

#else  // no FFTW: nothing to compare with

int main() {
  std::puts("bench_fft: FFTW single precision not found, comparison skipped");
  return 0;
}

#endif
