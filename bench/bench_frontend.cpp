// The streaming front end's whole pipeline (framing, pre-emphasis, window,
// MFCC, lifter, log energy, deltas and delta-deltas, sliding mean
// normalisation) against the bare per-frame MFCC loop that an application
// would write around XKsCepstralMFCC, over 60 s of 16 kHz audio.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "xkl.h"

namespace {

constexpr int kRate = 16000, kSeconds = 60, kLen = 400, kShift = 160, kOrder = 9;

const std::vector<float> &audio() {
  static const std::vector<float> x = [] {
    std::vector<float> v(static_cast<size_t>(kRate) * kSeconds);
    std::mt19937 gen(1);
    std::normal_distribution<double> noise(0.0, 300.0);
    double phase = 0.0;
    for (size_t i = 0; i < v.size(); ++i) {
      const double t = static_cast<double>(i) / kRate;
      phase += 2.0 * M_PI * (120.0 + 40.0 * std::sin(2.0 * M_PI * t)) / kRate;
      double s = 0.0;
      for (int h = 1; h <= 10; ++h) s += std::sin(h * phase) / h;
      v[i] = static_cast<float>(5000.0 * s + noise(gen));
    }
    return v;
  }();
  return x;
}

void report(benchmark::State &state, long frames) {
  state.counters["frames/s"] =
      benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsIterationInvariantRate);
  state.counters["x_realtime"] = benchmark::Counter(
      static_cast<double>(kSeconds), benchmark::Counter::kIsIterationInvariantRate);
}

// What an application writes by hand: frame, pre-emphasis, Hamming window,
// one cepstrum per frame.
void BM_BareMfccLoop(benchmark::State &state) {
  const std::vector<float> &x = audio();
  XKMFCCFilters *bank = XKsMFCCInit(kOrder, 26, 0, kRate / 2, kRate, 0, 0);
  std::vector<float> win(kLen), frame(1 << kOrder), ceps(13);
  for (int i = 0; i < kLen; ++i) win[i] = static_cast<float>(0.54 - 0.46 * std::cos(2 * M_PI * i / (kLen - 1)));
  const long frames = 1 + (static_cast<long>(x.size()) - kLen) / kShift;
  for (auto _ : state) {
    for (long t = 0; t < frames; ++t) {
      const float *s = x.data() + t * kShift;
      std::copy(s, s + kLen, frame.begin());
      std::fill(frame.begin() + kLen, frame.end(), 0.0f);
      XKsPreemphasize(frame.data(), 0.97f, kLen);
      for (int i = 0; i < kLen; ++i) frame[i] *= win[i];
      XKsCepstralMFCC(bank, frame.data(), ceps.data(), 13, 1e-10f,
                      XK_MFCC_TIME | XK_MFCC_FLOOR | XK_MFCC_C0);
      benchmark::DoNotOptimize(ceps.data());
    }
  }
  report(state, frames);
  XKsFreeMFCCFilters(bank);
}
BENCHMARK(BM_BareMfccLoop)->Unit(benchmark::kMillisecond);

// The front end over the same audio; arg 0: statics only (c0 .. c12, no
// lifter: the bare loop's work); arg 1: the full pipeline (log energy,
// lifter, deltas, delta-deltas, sliding mean normalisation).
void BM_FrontendPipeline(benchmark::State &state) {
  const std::vector<float> &x = audio();
  xkl_frontend_config cfg;
  xkl_frontend_config_init(&cfg);
  if (state.range(0) == 0) {
    cfg.energy = XKL_ENERGY_C0;
    cfg.lifter = 0;
  } else {
    cfg.deltas = 2;
    cfg.cmn = XKL_CMN_SLIDING;
  }
  cfg.arithmetic = static_cast<int>(state.range(1));
  const int frames = xkl_frontend_frame_count(&cfg, x.size());
  std::vector<float> out(static_cast<size_t>(frames) * 39);
  xkl_frontend *fe = xkl_frontend_new(&cfg);
  // As a live stream: 100 ms pieces, finished frames pulled after each.
  constexpr size_t kPiece = kRate / 10;
  for (auto _ : state) {
    int got = 0;
    for (size_t at = 0; at < x.size(); at += kPiece) {
      xkl_frontend_push(fe, x.data() + at, std::min(kPiece, x.size() - at));
      got += xkl_frontend_pull(fe, out.data() + static_cast<size_t>(got) * 39, frames - got);
    }
    xkl_frontend_flush(fe);
    got += xkl_frontend_pull(fe, out.data() + static_cast<size_t>(got) * 39, frames - got);
    benchmark::DoNotOptimize(got);
  }
  report(state, frames);
  xkl_frontend_free(fe);
}
BENCHMARK(BM_FrontendPipeline)
    ->ArgNames({"full", "fixed16"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
