// Distances and vector quantization: codebook construction, the farthest-pair
// search against a plain double loop, tree search against exhaustive search
// over the same codewords, and the Mahalanobis kernels against plain scalar
// double loops.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "vq/codebook_internal.h"
#include "vq/mahalanobis.h"
#include "xkl.h"

namespace {

constexpr int kDim = 12;

struct Set {
  std::vector<std::vector<float>> rows;
  std::vector<float *> ptr;
  Set(int n, unsigned seed) {
    // A mixture of 32 Gaussians, roughly the spread of cepstral vectors.
    std::mt19937 rng(seed);
    std::normal_distribution<float> g(0, 1);
    std::vector<std::vector<float>> centres(32, std::vector<float>(kDim));
    std::mt19937 crng(1);
    for (auto &c : centres)
      for (auto &e : c) e = 3 * g(crng);
    rows.assign(n, std::vector<float>(kDim));
    for (int i = 0; i < n; ++i)
      for (int k = 0; k < kDim; ++k) rows[i][k] = centres[i % 32][k] + g(rng);
    for (auto &r : rows) ptr.push_back(r.data());
  }
};

const Set &training() {
  static const Set s(20000, 2);
  return s;
}
const Set &queries() {
  static const Set s(100000, 3);
  return s;
}

const int kSplit = XK_CDBK_EUCLID | XK_CDBK_SPLIT_WIDEST;

void BM_MakeCodebook(benchmark::State &state) {
  const Set &t = training();
  for (auto _ : state) {
    XKCodebook *cb = XKsMakeCodebook(t.ptr.data(), nullptr, 20000, kDim, (int)state.range(0), kSplit);
    benchmark::DoNotOptimize(cb);
    XK_FreeCodebook(cb);
  }
  state.SetLabel("20000 vectors, dim 12");
}
BENCHMARK(BM_MakeCodebook)->Arg(64)->Arg(256)->Unit(benchmark::kMillisecond);

void BM_FarthestPair(benchmark::State &state) {
  const Set &t = training();
  std::vector<int> members(20000);
  for (int i = 0; i < 20000; ++i) members[i] = i;
  for (auto _ : state) benchmark::DoNotOptimize(xk::vq::farthestPair(t.ptr.data(), members.data(), 20000, kDim));
}
BENCHMARK(BM_FarthestPair)->Unit(benchmark::kMillisecond);

// The peer: every pair, a plain double loop.
void BM_FarthestPairPlainDoubleLoop(benchmark::State &state) {
  const Set &t = training();
  for (auto _ : state) {
    double best = 0;
    int ba = 0, bb = 0;
    for (int i = 0; i < 20000; ++i)
      for (int j = i + 1; j < 20000; ++j) {
        double s = 0;
        for (int k = 0; k < kDim; ++k) {
          const double d = (double)t.rows[i][k] - t.rows[j][k];
          s += d * d;
        }
        if (s > best) best = s, ba = i, bb = j;
      }
    benchmark::DoNotOptimize(ba + bb);
  }
}
BENCHMARK(BM_FarthestPairPlainDoubleLoop)->Unit(benchmark::kMillisecond)->Iterations(1);

XKCodebook *codebookOf(int size) {
  static XKCodebook *books[2] = {nullptr, nullptr};
  XKCodebook *&cb = books[size == 256];
  if (!cb) cb = XKsMakeCodebook(training().ptr.data(), nullptr, 20000, kDim, size, kSplit);
  return cb;
}

void BM_QuantizeTree(benchmark::State &state) {
  XKCodebook *cb = codebookOf((int)state.range(0));
  const Set &q = queries();
  std::vector<int> idx(q.rows.size());
  double distortion = 0;
  for (auto _ : state) XKsVQCodebook(cb, q.ptr.data(), idx.data(), (int)idx.size(), kDim, &distortion);
  state.SetItemsProcessed(state.iterations() * (int64_t)idx.size());
  state.counters["depth"] = cb->depth;
  state.counters["distortion"] = distortion;
}
BENCHMARK(BM_QuantizeTree)->Arg(64)->Arg(256)->Unit(benchmark::kMillisecond);

// The peer: nearest codeword by squared distance in double over all codewords.
void BM_QuantizeExhaustive(benchmark::State &state) {
  XKCodebook *cb = codebookOf((int)state.range(0));
  const Set &q = queries();
  std::vector<int> idx(q.rows.size());
  double distortion = 0;
  for (auto _ : state) {
    double sum = 0;
    for (size_t n = 0; n < q.rows.size(); ++n) {
      const float *v = q.rows[n].data();
      double best = INFINITY;
      int arg = 0;
      for (int c = 0; c < cb->size; ++c) {
        const float *w = static_cast<const float *>(cb->codewords[c]);
        double s = 0;
        for (int k = 0; k < kDim; ++k) {
          const double d = (double)v[k] - w[k];
          s += d * d;
        }
        if (s < best) best = s, arg = c;
      }
      idx[n] = arg + 1;
      sum += std::sqrt(best);
    }
    distortion = sum / q.rows.size();
    benchmark::DoNotOptimize(idx.data());
  }
  state.SetItemsProcessed(state.iterations() * (int64_t)idx.size());
  state.counters["distortion"] = distortion;
}
BENCHMARK(BM_QuantizeExhaustive)->Arg(64)->Arg(256)->Unit(benchmark::kMillisecond);

// ---- Mahalanobis kernels, dimension from the argument ----

struct Gauss {
  int n;
  std::vector<float> x, m, v;
  std::vector<std::vector<float>> rows;
  std::vector<float *> tri;
  std::vector<short> wx, wm, wv;
  std::vector<std::vector<short>> wrows;
  std::vector<short *> wtri;
  explicit Gauss(int n) : n(n), x(n), m(n), v(n), rows(n), wx(n), wm(n), wv(n), wrows(n) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-1, 1);
    for (int i = 0; i < n; ++i) {
      x[i] = u(rng), m[i] = u(rng), v[i] = 1 + u(rng);
      wx[i] = (short)(x[i] * 500), wm[i] = (short)(m[i] * 500), wv[i] = (short)(v[i] * 8);
      rows[i].resize(i + 1), wrows[i].resize(i + 1);
      for (int j = 0; j <= i; ++j) rows[i][j] = u(rng), wrows[i][j] = (short)(rows[i][j] * 8);
      tri.push_back(rows[i].data()), wtri.push_back(wrows[i].data());
    }
  }
};

void BM_sMahalanobis(benchmark::State &state) {
  Gauss g((int)state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(XKsMahalanobis(g.x.data(), g.m.data(), g.tri.data(), g.n, 0));
}
BENCHMARK(BM_sMahalanobis)->Arg(39);

void BM_sMahalanobisPlainDoubleLoop(benchmark::State &state) {
  Gauss g((int)state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(g.tri.data());
    double diag = 0, cross = 0;
    for (int i = 0; i < g.n; ++i) {
      const double di = (double)g.x[i] - g.m[i];
      double row = 0;
      for (int j = 0; j < i; ++j) row += (double)g.tri[i][j] * ((double)g.x[j] - g.m[j]);
      cross += di * row;
      diag += di * di * g.tri[i][i];
    }
    benchmark::DoNotOptimize(diag + 2 * cross);
  }
}
BENCHMARK(BM_sMahalanobisPlainDoubleLoop)->Arg(39);

void BM_sMahalanobisD(benchmark::State &state) {
  Gauss g((int)state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(XKsMahalanobisD(g.x.data(), g.m.data(), g.v.data(), g.n, 0));
}
BENCHMARK(BM_sMahalanobisD)->Arg(39);

void BM_sMahalanobisDPlainDoubleLoop(benchmark::State &state) {
  Gauss g((int)state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(g.v.data());
    double s = 0;
    for (int i = 0; i < g.n; ++i) {
      const double d = (double)g.x[i] - g.m[i];
      s += d * d * g.v[i];
    }
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_sMahalanobisDPlainDoubleLoop)->Arg(39);

// 16-bit kernels, vectorised (argument 1) and portable (0).
void BM_wMahalanobis(benchmark::State &state) {
  Gauss g(39);
  xk::vq::setSimdEnabled(state.range(0) != 0);
  for (auto _ : state) benchmark::DoNotOptimize(xk::wMahalanobisFullRaw(g.wx.data(), g.wm.data(), g.wtri.data(), 39));
  xk::vq::setSimdEnabled(true);
}
BENCHMARK(BM_wMahalanobis)->Arg(1)->Arg(0);

void BM_wMahalanobisD(benchmark::State &state) {
  Gauss g(39);
  xk::vq::setSimdEnabled(state.range(0) != 0);
  for (auto _ : state) benchmark::DoNotOptimize(xk::wMahalanobisDiagRaw(g.wx.data(), g.wm.data(), g.wv.data(), 39));
  xk::vq::setSimdEnabled(true);
}
BENCHMARK(BM_wMahalanobisD)->Arg(1)->Arg(0);

void BM_sMahalanobisPortable(benchmark::State &state) {
  Gauss g((int)state.range(0));
  xk::vq::setSimdEnabled(false);
  for (auto _ : state) benchmark::DoNotOptimize(XKsMahalanobis(g.x.data(), g.m.data(), g.tri.data(), g.n, 0));
  xk::vq::setSimdEnabled(true);
}
BENCHMARK(BM_sMahalanobisPortable)->Arg(39);

}  // namespace

BENCHMARK_MAIN();
