// DTW evaluation: one 100-frame test utterance against 100 stored patterns
// of 80..150 frames of 39-dimensional vectors (an isolated-word vocabulary
// of MFCC templates), float and 16-bit integer paths, against a plain
// full-matrix DTW loop in double with the same local distance. The counter
// ns_per_cell is the time per admitted band cell (per matrix cell for the
// plain loop), shown in seconds with an SI prefix (3.5n = 3.5 ns).
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "dtw/dtw_internal.h"
#include "xkl.h"

namespace {

constexpr int kTest = 100, kPatterns = 100, kDim = 39;

struct Vocabulary {
  std::vector<std::vector<float>> test;
  std::vector<std::vector<std::vector<float>>> patterns;
  std::vector<std::vector<short>> wTest;
  std::vector<int> sIds, wIds;
  double bandCells = 0, matrixCells = 0;

  Vocabulary() {
    std::mt19937 gen(7);
    std::normal_distribution<float> coef(0.0f, 4.0f);
    const auto frames = [&](int n) {
      std::vector<std::vector<float>> m(n, std::vector<float>(kDim));
      for (auto &r : m)
        for (auto &v : r) v = coef(gen);
      return m;
    };
    test = frames(kTest);
    std::vector<float *> rows;
    std::vector<std::vector<short>> wRows;
    std::vector<short *> wPtr;
    for (int p = 0; p < kPatterns; ++p) {
      const int M = 80 + static_cast<int>(gen() % 71);
      patterns.push_back(frames(M));
      rows.clear();
      wRows.assign(M, std::vector<short>(kDim));
      wPtr.clear();
      for (int j = 0; j < M; ++j) {
        rows.push_back(patterns.back()[j].data());
        for (int k = 0; k < kDim; ++k) wRows[j][k] = static_cast<short>(std::lrint(patterns.back()[j][k] * 256));
        wPtr.push_back(wRows[j].data());
      }
      sIds.push_back(XKsPatternIni(rows.data(), M, kDim));
      wIds.push_back(XKwPatternIni(wPtr.data(), M, kDim, -8));
      std::vector<int> start(kTest), end(kTest);
      xk::dtw::computeBand(kTest, M, 0, start.data(), end.data());
      for (int i = 0; i < kTest; ++i) bandCells += end[i] - start[i] + 1;
      matrixCells += static_cast<double>(kTest) * M;
    }
    wTest.assign(kTest, std::vector<short>(kDim));
    for (int i = 0; i < kTest; ++i)
      for (int k = 0; k < kDim; ++k) wTest[i][k] = static_cast<short>(std::lrint(test[i][k] * 256));
  }
};

Vocabulary &vocabulary() {
  static Vocabulary v;
  return v;
}

void perCell(benchmark::State &state, double cells) {
  state.counters["ns_per_cell"] =
      benchmark::Counter(cells, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// arg: kernels capped at 2 AVX-512, 1 AVX2, 0 portable.
void BM_XKsEvalDTW(benchmark::State &state) {
  Vocabulary &v = vocabulary();
  xk::dtw::setDtwIsa(static_cast<xk::dtw::DtwIsa>(state.range(0)));
  std::vector<float *> t;
  for (auto &r : v.test) t.push_back(r.data());
  std::vector<double> scores(kPatterns);
  for (auto _ : state)
    benchmark::DoNotOptimize(XKsEvalDTW(v.sIds.data(), kPatterns, t.data(), kTest, kDim, 0, 0, 0, scores.data()));
  xk::dtw::setDtwIsa(xk::dtw::DtwIsa::Avx512);
  perCell(state, v.bandCells);
}
BENCHMARK(BM_XKsEvalDTW)->Arg(2)->Arg(1)->Arg(0);

// The 32-bit integer path on the 16-bit copies (scale mode 0).
void BM_XKwEvalDTW(benchmark::State &state) {
  Vocabulary &v = vocabulary();
  xk::dtw::setDtwIsa(static_cast<xk::dtw::DtwIsa>(state.range(0)));
  std::vector<short *> t;
  for (auto &r : v.wTest) t.push_back(r.data());
  std::vector<int> scores(kPatterns);
  int factor = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(XKwEvalDTW(v.wIds.data(), kPatterns, t.data(), kTest, kDim, -8, 0, 0, 0, 0,
                                        scores.data(), 0, &factor));
  xk::dtw::setDtwIsa(xk::dtw::DtwIsa::Avx512);
  perCell(state, v.bandCells);
}
BENCHMARK(BM_XKwEvalDTW)->Arg(2)->Arg(1)->Arg(0);

// The peer: every cell of the N x M matrix, symmetric steps, double.
double plainDtw(const std::vector<std::vector<float>> &a, const std::vector<std::vector<float>> &b,
                std::vector<double> &prev, std::vector<double> &cur) {
  const size_t M = b.size();
  const double inf = HUGE_VAL;
  prev.assign(M + 1, inf);
  cur.assign(M + 1, inf);
  prev[0] = 0;
  for (const auto &x : a) {
    cur[0] = inf;
    for (size_t j = 1; j <= M; ++j) {
      double s = 0;
      for (int k = 0; k < kDim; ++k) {
        const double d = static_cast<double>(x[k]) - b[j - 1][k];
        s += d * d;
      }
      cur[j] = std::sqrt(s) + std::fmin(prev[j - 1], std::fmin(prev[j], cur[j - 1]));
    }
    std::swap(prev, cur);
  }
  return prev[M];
}

void BM_PlainFullMatrixDouble(benchmark::State &state) {
  Vocabulary &v = vocabulary();
  std::vector<double> prev, cur;
  for (auto _ : state)
    for (const auto &p : v.patterns) benchmark::DoNotOptimize(plainDtw(v.test, p, prev, cur));
  perCell(state, v.matrixCells);
}
BENCHMARK(BM_PlainFullMatrixDouble);

}  // namespace

BENCHMARK_MAIN();
