// Vector kernels: dot product (SIMD and portable), DCT (against FFTW's
// REDFT10 when available) and autocorrelation (both routes, against a plain
// double loop).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "kernels/vec_internal.h"
#include "xkl/kfx.h"

#ifdef XKL_HAVE_FFTW
#include <fftw3.h>
#endif

namespace {

std::vector<float> randomVector(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(static_cast<std::size_t>(n));
  for (float &x : v) x = dist(gen);
  return v;
}

// ---- dot product: arg 0 = length, arg 1 = 1 SIMD / 0 portable ----
void BM_DotProd(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  kfx::setSimdEnabled(state.range(1) != 0);
  const auto a = randomVector(n, 1), b = randomVector(n, 2);
  for (auto _ : state) benchmark::DoNotOptimize(kfxsDotProd(a.data(), b.data(), n));
  kfx::setSimdEnabled(true);
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_DotProd)->ArgsProduct({{13, 39, 256, 1024}, {0, 1}});

// ---- DCT forward ----
void BM_Dct(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  const auto x = randomVector(n, 3);
  std::vector<float> y(static_cast<std::size_t>(n));
  kfxsDct(x.data(), y.data(), n, KFX_DCT_Forward);
  for (auto _ : state) {
    kfxsDct(x.data(), y.data(), n, KFX_DCT_Forward);
    benchmark::DoNotOptimize(y.data());
  }
}
BENCHMARK(BM_Dct)->Arg(24)->Arg(40)->Arg(32)->Arg(256)->Arg(512)->Arg(1000)->Arg(1024);

#ifdef XKL_HAVE_FFTW
void BM_FftwRedft10(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  auto x = randomVector(n, 3);
  std::vector<float> y(static_cast<std::size_t>(n));
  fftwf_plan plan = fftwf_plan_r2r_1d(n, x.data(), y.data(), FFTW_REDFT10, FFTW_MEASURE);
  for (auto _ : state) {
    fftwf_execute(plan);
    benchmark::DoNotOptimize(y.data());
  }
  fftwf_destroy_plan(plan);
}
BENCHMARK(BM_FftwRedft10)->Arg(24)->Arg(40)->Arg(32)->Arg(256)->Arg(512)->Arg(1000)->Arg(1024);
#endif

// ---- autocorrelation: args len, nLags, route (0 cost rule, 1 direct, 2 FFT) ----
void BM_AutoCorr(benchmark::State &state) {
  const int len = static_cast<int>(state.range(0)), nLags = static_cast<int>(state.range(1));
  const kfx::AutoCorrRoute routes[] = {kfx::AutoCorrRoute::ByCost, kfx::AutoCorrRoute::Direct,
                                       kfx::AutoCorrRoute::Fft};
  kfx::setAutoCorrRoute(routes[state.range(2)]);
  const auto x = randomVector(len, 4);
  std::vector<float> r(static_cast<std::size_t>(nLags));
  for (auto _ : state) {
    kfxsAutoCorr(x.data(), len, r.data(), nLags, KFX_AutoCorrNone);
    benchmark::DoNotOptimize(r.data());
  }
  kfx::setAutoCorrRoute(kfx::AutoCorrRoute::ByCost);
}
BENCHMARK(BM_AutoCorr)
    ->ArgsProduct({{256}, {12}, {0, 1, 2}})
    ->ArgsProduct({{512}, {20}, {0, 1, 2}})
    ->ArgsProduct({{1024}, {64, 128, 256}, {1, 2}})
    ->ArgsProduct({{1024}, {1024}, {1, 2}})
    ->ArgsProduct({{4096}, {256, 4096}, {1, 2}});

// The obvious loop in double, for the ratio.
void BM_AutoCorrPlainLoop(benchmark::State &state) {
  const int len = static_cast<int>(state.range(0)), nLags = static_cast<int>(state.range(1));
  const auto x = randomVector(len, 4);
  std::vector<float> r(static_cast<std::size_t>(nLags));
  for (auto _ : state) {
    for (int k = 0; k < nLags; ++k) {
      double s = 0;
      for (int i = 0; i + k < len; ++i) s += static_cast<double>(x[i]) * x[i + k];
      r[k] = static_cast<float>(s);
    }
    benchmark::DoNotOptimize(r.data());
  }
}
BENCHMARK(BM_AutoCorrPlainLoop)->Args({256, 12})->Args({512, 20})->Args({1024, 1024});

}  // namespace

BENCHMARK_MAIN();
