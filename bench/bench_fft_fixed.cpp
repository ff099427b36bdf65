// 16-bit real FFT: the integer algorithm against the float route, for the
// small frames the integer algorithm exists for; the float transform and
// FFTW (single precision) for reference. Also the integer 16-bit DCT.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "xkl/kfx.h"
#ifdef XKL_HAVE_FFTW
#include <fftw3.h>
#endif


namespace {

std::vector<short> frame(std::size_t n) {
  std::mt19937 gen(7);
  std::uniform_int_distribution<int> dist(-20000, 20000);
  std::vector<short> v(n);
  for (auto &x : v) x = static_cast<short>(dist(gen));
  return v;
}

void run16(benchmark::State &state, int algorithm, int direction, int scaleMode) {
  const int order = static_cast<int>(state.range(0));
  const std::size_t n = std::size_t{1} << order;
  const auto in = frame(n);
  std::vector<short> out(n);
  const int flags = direction | KFX_RCPerm | algorithm;
  int factor = 0;
  kfxwRealFftlNip(in.data(), out.data(), order, flags, scaleMode, &factor);
  for (auto _ : state) {
    kfxwRealFftlNip(in.data(), out.data(), order, flags, scaleMode, &factor);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  if (kfxGetStatus() < 0) state.SkipWithError("transform failed");
}

void BM_IntegerForward(benchmark::State &s) { run16(s, KFX_IntegerFft, KFX_Forward, 0); }
void BM_IntegerForwardAuto(benchmark::State &s) { run16(s, KFX_IntegerFft, KFX_Forward, KFX_AUTO_SCALE); }
void BM_IntegerInverse(benchmark::State &s) { run16(s, KFX_IntegerFft, KFX_Inverse, 0); }
void BM_FloatRouteForward(benchmark::State &s) { run16(s, KFX_FloatFft, KFX_Forward, 0); }
void BM_FloatRouteForwardAuto(benchmark::State &s) { run16(s, KFX_FloatFft, KFX_Forward, KFX_AUTO_SCALE); }
void BM_FloatRouteInverse(benchmark::State &s) { run16(s, KFX_FloatFft, KFX_Inverse, 0); }

// The float transform alone, on float data.
void BM_FloatFftOnly(benchmark::State &state) {
  const int order = static_cast<int>(state.range(0));
  const std::size_t n = std::size_t{1} << order;
  const auto in16 = frame(n);
  std::vector<float> in(in16.begin(), in16.end()), out(n);
  kfxsRealFftlNip(in.data(), out.data(), order, KFX_Forward | KFX_RCPerm);
  for (auto _ : state) {
    kfxsRealFftlNip(in.data(), out.data(), order, KFX_Forward | KFX_RCPerm);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}

#ifdef XKL_HAVE_FFTW
void BM_FftwR2c(benchmark::State &state) {
  const int order = static_cast<int>(state.range(0));
  const int n = 1 << order;
  float *in = fftwf_alloc_real(n);
  fftwf_complex *out = fftwf_alloc_complex(n / 2 + 1);
  fftwf_plan plan = fftwf_plan_dft_r2c_1d(n, in, out, FFTW_MEASURE);
  const auto in16 = frame(n);
  for (int i = 0; i < n; ++i) in[i] = in16[i];
  for (auto _ : state) {
    fftwf_execute(plan);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  fftwf_destroy_plan(plan);
  fftwf_free(in);
  fftwf_free(out);
}
BENCHMARK(BM_FftwR2c)->DenseRange(5, 7);
#endif

BENCHMARK(BM_IntegerForward)->DenseRange(5, 7);
BENCHMARK(BM_FloatRouteForward)->DenseRange(5, 7);
BENCHMARK(BM_IntegerForwardAuto)->DenseRange(5, 7);
BENCHMARK(BM_FloatRouteForwardAuto)->DenseRange(5, 7);
BENCHMARK(BM_IntegerInverse)->DenseRange(5, 7);
BENCHMARK(BM_FloatRouteInverse)->DenseRange(5, 7);
BENCHMARK(BM_FloatFftOnly)->DenseRange(5, 7);

// 16-bit DCT of cepstrum-sized vectors: the integer form and the exported one.
void runDct(benchmark::State &state, void (*fn)(const short *, short *, int, int, int *)) {
  const int len = static_cast<int>(state.range(0));
  const auto in = frame(static_cast<std::size_t>(len));
  std::vector<short> out(static_cast<std::size_t>(len));
  int factor = 0;
  for (auto _ : state) {
    fn(in.data(), out.data(), len, KFX_AUTO_SCALE, &factor);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
void BM_Dct16(benchmark::State &s) { runDct(s, kfxwDct); }
BENCHMARK(BM_Dct16)->Arg(13)->Arg(24)->Arg(32);

}  // namespace

BENCHMARK_MAIN();
