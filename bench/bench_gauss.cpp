// Gauss mixture evaluation: 100,000 vectors of dimension 39 under diagonal
// mixtures of 8, 64 and 256 components and full mixtures of 8 and 64, float
// (vectorised and portable) and 16-bit, next to a plain double loop over the
// same parameters. Items per second are vectors per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "gauss/gauss_eval.h"
#include "xkl.h"

namespace {

constexpr int kDim = 39, kVectors = 100000;

struct Model {
  int nMix;
  bool full;
  std::vector<float> w;
  std::vector<std::vector<float>> mu, iv;                 // iv: dim (diag) or dim*dim (full)
  std::vector<short> ws;
  std::vector<std::vector<short>> muw, ivw;
  GaussMixServer *s = nullptr, *wsrv = nullptr;
  Model(int k, bool f) : nMix(k), full(f) {
    std::mt19937 rng(k + f);
    std::normal_distribution<float> g(0.0f, 1.0f);
    std::uniform_real_distribution<float> pos(0.5f, 1.5f);
    const int n = full ? kDim * kDim : kDim;
    for (int m = 0; m < k; ++m) {
      w.push_back(1.0f / k);
      mu.emplace_back(kDim), iv.emplace_back(n, 0.0f);
      for (auto &v : mu.back()) v = g(rng);
      for (int i = 0; i < kDim; ++i) {
        if (full) {
          iv.back()[i * kDim + i] = pos(rng);
          if (i) iv.back()[i * kDim + i - 1] = iv.back()[(i - 1) * kDim + i] = 0.1f;
        } else {
          iv.back()[i] = pos(rng);
        }
      }
      // 16-bit: means x 64, inverse variances x 16 at scale -16 (so that
      // 0.5 * d * 2^scale is the float distance).
      ws.push_back(static_cast<short>(32767 / k));
      muw.emplace_back(kDim), ivw.emplace_back(n);
      for (int i = 0; i < kDim; ++i) muw.back()[i] = static_cast<short>(std::lround(mu.back()[i] * 64));
      for (int i = 0; i < n; ++i) ivw.back()[i] = static_cast<short>(std::lround(iv.back()[i] * 16));
    }
    std::vector<float *> mp, dp;
    std::vector<std::vector<float *>> rows(k);
    std::vector<float **> mats;
    std::vector<short *> mpw, dpw;
    std::vector<std::vector<short *>> rowsw(k);
    std::vector<short **> matsw;
    for (int m = 0; m < k; ++m) {
      mp.push_back(mu[m].data()), dp.push_back(iv[m].data());
      mpw.push_back(muw[m].data()), dpw.push_back(ivw[m].data());
      for (int i = 0; i < kDim; ++i) rows[m].push_back(iv[m].data() + (full ? i * kDim : 0));
      for (int i = 0; i < kDim; ++i) rowsw[m].push_back(ivw[m].data() + (full ? i * kDim : 0));
      mats.push_back(rows[m].data()), matsw.push_back(rowsw[m].data());
    }
    s = XKsInitGaussMixServer(w.data(), mp.data(), full ? mats.data() : nullptr, full ? nullptr : dp.data(), kDim, k,
                              GAUSS_SERVER_NORM);
    wsrv = XKwInitGaussMixServer(ws.data(), mpw.data(), full ? matsw.data() : nullptr, full ? nullptr : dpw.data(),
                                 kDim, k, 0, -16);
  }
};

Model &model(int k, bool full) {
  static std::vector<std::unique_ptr<Model>> all;
  for (auto &m : all)
    if (m->nMix == k && m->full == full) return *m;
  all.push_back(std::make_unique<Model>(k, full));
  return *all.back();
}

const std::vector<float> &vectorsF() {
  static const std::vector<float> v = [] {
    std::mt19937 rng(1);
    std::normal_distribution<float> g(0.0f, 1.0f);
    std::vector<float> out(static_cast<std::size_t>(kVectors) * kDim);
    for (auto &x : out) x = g(rng);
    return out;
  }();
  return v;
}
const std::vector<short> &vectorsW() {
  static const std::vector<short> v = [] {
    std::vector<short> out;
    for (float x : vectorsF()) out.push_back(static_cast<short>(std::lround(x * 64)));
    return out;
  }();
  return v;
}

void run(benchmark::State &state, int flavour) {  // 0 float, 1 float portable, 2 16-bit, 3 plain double
  Model &m = model(static_cast<int>(state.range(0)), state.range(1) != 0);
  const auto &xf = vectorsF();
  const auto &xw = vectorsW();
  xk::gauss::setSimdEnabled(flavour != 1);
  std::vector<double> coef(m.nMix);
  for (int k = 0; k < m.nMix; ++k) coef[k] = m.s->coefs[k];
  for (auto _ : state) {
    double sum = 0.0;
    for (int n = 0; n < kVectors; ++n) {
      const float *x = xf.data() + static_cast<std::size_t>(n) * kDim;
      if (flavour <= 1) {
        sum += XKsEvalGaussMix(m.s, x, kDim);
      } else if (flavour == 2) {
        int f = 0;
        sum += XKwEvalGaussMix(m.wsrv, xw.data() + static_cast<std::size_t>(n) * kDim, kDim, 0, &f);
      } else {
        double p = 0.0;
        for (int k = 0; k < m.nMix; ++k) {
          double q = 0.0;
          const float *mu = m.mu[k].data(), *iv = m.iv[k].data();
          if (m.full) {
            for (int i = 0; i < kDim; ++i) {
              double r = 0.0;
              for (int j = 0; j < kDim; ++j) r += iv[i * kDim + j] * (double(x[j]) - mu[j]);
              q += (double(x[i]) - mu[i]) * r;
            }
          } else {
            for (int i = 0; i < kDim; ++i) {
              const double d = double(x[i]) - mu[i];
              q += d * d * iv[i];
            }
          }
          p += coef[k] * std::exp(-0.5 * q);
        }
        sum += p;
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  xk::gauss::setSimdEnabled(true);
  state.SetItemsProcessed(state.iterations() * kVectors);
}

void BM_GaussFloat(benchmark::State &s) { run(s, 0); }
void BM_GaussFloatPortable(benchmark::State &s) { run(s, 1); }
void BM_GaussFixed(benchmark::State &s) { run(s, 2); }
void BM_GaussPlainDouble(benchmark::State &s) { run(s, 3); }

#define SHAPES ->Args({8, 0})->Args({64, 0})->Args({256, 0})->Args({8, 1})->Args({64, 1})->Unit(benchmark::kMillisecond)
BENCHMARK(BM_GaussFloat) SHAPES;
BENCHMARK(BM_GaussFloatPortable) SHAPES;
BENCHMARK(BM_GaussFixed) SHAPES;
BENCHMARK(BM_GaussPlainDouble) SHAPES;

}  // namespace

BENCHMARK_MAIN();
