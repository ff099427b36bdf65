// Viterbi scoring: discrete float servers over 10,000 frames of 64 symbols
// with 5, 10, 32 and 128 states, general and Bakis, on the vector and the
// portable steps, next to a plain log-space loop in double over the full
// matrices (the textbook recursion, column access as in common Python
// toolkits' cores), and the general step on the Bakis models; and continuous servers of 8 states with 4-component
// diagonal mixtures at dimension 39, float and 16-bit. Counters: seconds
// per frame and per evaluated arc (the peer evaluates all n^2 arcs).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "hmm/viterbi_kernels.h"
#include "xkl.h"

namespace {

constexpr int kFrames = 10000, kSymbols = 64;

struct Discrete {
  int n = 0, id = 0;
  bool bakis = false;
  std::vector<double> a, b;  // full costs for the peer: a[i*n+j], b[j*M+k]; +inf where impossible
  std::vector<double> pi;
};

bool inBand(bool bakis, int i, int j) { return !bakis || (j >= i && j <= i + 2); }

const std::vector<int> &symbols() {
  static const std::vector<int> o = [] {
    std::mt19937 rng(1);
    std::uniform_int_distribution<int> s(0, kSymbols - 1);
    std::vector<int> v(kFrames);
    for (int &x : v) x = s(rng);
    return v;
  }();
  return o;
}

Discrete &discrete(int n, bool bakis) {
  static std::map<std::pair<int, bool>, Discrete> all;
  auto [it, fresh] = all.try_emplace({n, bakis});
  Discrete &d = it->second;
  if (!fresh) return d;
  std::mt19937 rng(n * 2 + bakis);
  std::uniform_real_distribution<float> c(0.1f, 3.0f);
  std::vector<std::vector<float>> A(n, std::vector<float>(n)), B(n, std::vector<float>(kSymbols));
  std::vector<float> pi(n);
  std::vector<float *> ap, bp;
  const double inf = std::numeric_limits<double>::infinity();
  d.n = n, d.bakis = bakis;
  for (int i = 0; i < n; ++i) {
    pi[i] = c(rng);
    d.pi.push_back(pi[i]);
    for (int j = 0; j < n; ++j) {
      A[i][j] = inBand(bakis, i, j) ? c(rng) : 30.0f;
      d.a.push_back(inBand(bakis, i, j) ? A[i][j] : inf);
    }
    for (int k = 0; k < kSymbols; ++k) B[i][k] = c(rng);
    ap.push_back(A[i].data()), bp.push_back(B[i].data());
  }
  d.b.resize(static_cast<std::size_t>(n) * kSymbols);
  for (int j = 0; j < n; ++j)
    for (int k = 0; k < kSymbols; ++k) d.b[j * kSymbols + k] = B[j][k];
  d.id = XKsInitHMMServer(ap.data(), bp.data(), pi.data(), n, kSymbols, XK_HMM_LOGARITHMIC);
  if (d.id <= 0) std::abort();
  return d;
}

// The plain recursion in double: every state from every state.
double plainLoop(const Discrete &d, const std::vector<int> &obs, std::vector<double> &prev, std::vector<double> &next) {
  const int n = d.n;
  for (int j = 0; j < n; ++j) prev[j] = d.pi[j] + d.b[j * kSymbols + obs[0]];
  for (std::size_t t = 1; t < obs.size(); ++t) {
    for (int j = 0; j < n; ++j) {
      double best = std::numeric_limits<double>::infinity();
      for (int i = 0; i < n; ++i) best = std::min(best, prev[i] + d.a[i * n + j]);
      next[j] = best + d.b[j * kSymbols + obs[t]];
    }
    prev.swap(next);
  }
  return *std::min_element(prev.begin(), prev.begin() + n);
}

double arcs(int n, bool bakis) { return bakis ? 3.0 * n - 3.0 : static_cast<double>(n) * n; }

void setCounters(benchmark::State &state, double arcsPerFrame) {
  state.counters["frame"] = benchmark::Counter(kFrames, benchmark::Counter::kIsIterationInvariantRate |
                                                            benchmark::Counter::kInvert);
  state.counters["arc"] = benchmark::Counter(kFrames * arcsPerFrame, benchmark::Counter::kIsIterationInvariantRate |
                                                                         benchmark::Counter::kInvert);
}

// Our server; range(2) = 1 runs the vector steps, 0 the portable ones.
void BM_Viterbi(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  const bool bakis = state.range(1) != 0;
  Discrete &d = discrete(n, bakis);
  xk::hmm::setViterbiSimd(state.range(2) != 0);
  const auto &obs = symbols();
  std::vector<double> p(n), q(n);
  const double ref = plainLoop(d, obs, p, q);
  float cost = 0.0f;
  for (auto _ : state) {
    cost = XKsEvalHMMViterbi(d.id, obs.data(), kFrames, nullptr);
    benchmark::DoNotOptimize(cost);
  }
  xk::hmm::setViterbiSimd(true);
  if (std::fabs(cost - ref) > 1e-4 * ref) state.SkipWithError("cost differs from the plain loop");
  setCounters(state, arcs(n, bakis));
}

void BM_PlainDoubleLoop(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  Discrete &d = discrete(n, state.range(1) != 0);
  std::vector<double> p(n), q(n);
  for (auto _ : state) benchmark::DoNotOptimize(plainLoop(d, symbols(), p, q));
  setCounters(state, static_cast<double>(n) * n);
}

void discreteArgs(benchmark::internal::Benchmark *b, bool withPath) {
  for (int bakis : {0, 1})
    for (int n : {5, 10, 32, 128}) {
      if (withPath) {
        b->Args({n, bakis, 1});
        b->Args({n, bakis, 0});
      } else {
        b->Args({n, bakis});
      }
    }
}

// The general step on the Bakis model: its full matrix (the largest float
// outside the band) packed column by column as the store packs a general
// server, run with the server's own output table and initial costs.
void BM_GeneralStepOnBakisModel(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  Discrete &d = discrete(n, true);
  std::vector<float> trans;
  for (int j = n - 1; j >= 0; --j)
    for (int i = 0; i < n; ++i) {
      const double a = d.a[i * n + j];
      trans.push_back(std::isinf(a) ? xk::hmm::kLargest : static_cast<float>(a));
    }
  trans.insert(trans.end(), xk::hmm::kTransSlack, xk::hmm::kLargest);
  xk::hmm::ServerView v;
  xk::hmm::getServer(d.id, &v);
  const xk::hmm::Model<float> m{trans.data(), static_cast<const float *>(v.initial), n, xk::hmm::Topology::General};
  const auto *rows = static_cast<const float *const *>(v.outputs);
  const int stride = xk::hmm::rowStride(n);
  auto *block = static_cast<float *>(kfxMalloc(2 * stride * static_cast<int>(sizeof(float))));
  std::fill(block, block + 2 * stride, xk::hmm::rowPad<float>());
  const auto &obs = symbols();
  float cost = 0.0f;
  for (auto _ : state) {
    cost = xk::hmm::runViterbi(m, kFrames, block + xk::hmm::kRowGuard, block + stride + xk::hmm::kRowGuard,
                               [&](int t) { return rows[obs[t]]; });
    benchmark::DoNotOptimize(cost);
  }
  kfxFree(block);
  if (cost != XKsEvalHMMViterbi(d.id, obs.data(), kFrames, nullptr)) state.SkipWithError("cost differs");
  setCounters(state, static_cast<double>(n) * n);
}

BENCHMARK(BM_GeneralStepOnBakisModel)->Arg(32)->Arg(128)->ArgName("n");
BENCHMARK(BM_Viterbi)->Apply([](auto *b) { discreteArgs(b, true); })->ArgNames({"n", "bakis", "simd"});
BENCHMARK(BM_PlainDoubleLoop)->Apply([](auto *b) { discreteArgs(b, false); })->ArgNames({"n", "bakis"});

// Continuous: 8 states, 4 diagonal components, dimension 39, 1,000 frames.
constexpr int kContStates = 8, kMix = 4, kDim = 39, kContFrames = 1000;

struct Continuous {
  int ids = 0, idw = 0;
  std::vector<std::vector<float>> xs;
  std::vector<std::vector<short>> xw;
  std::vector<const float *> ps;
  std::vector<const short *> pw;
  Continuous() {
    std::mt19937 rng(3);
    std::normal_distribution<float> g(0.0f, 1.0f);
    std::uniform_real_distribution<float> pos(0.5f, 1.5f), c(0.1f, 2.0f);
    std::vector<GaussMixServer *> ds, dw;
    for (int i = 0; i < kContStates; ++i) {
      std::vector<std::vector<float>> mu(kMix, std::vector<float>(kDim)), iv = mu;
      std::vector<std::vector<short>> muw(kMix, std::vector<short>(kDim)), ivw = muw;
      std::vector<float *> mp, vp;
      std::vector<short *> mpw, vpw;
      for (int m = 0; m < kMix; ++m) {
        for (int k = 0; k < kDim; ++k) {
          mu[m][k] = g(rng), iv[m][k] = pos(rng);
          muw[m][k] = static_cast<short>(std::lround(mu[m][k] * 64)),
          ivw[m][k] = static_cast<short>(std::lround(iv[m][k] * 16));
        }
        mp.push_back(mu[m].data()), vp.push_back(iv[m].data()), mpw.push_back(muw[m].data()),
            vpw.push_back(ivw[m].data());
      }
      const std::vector<float> w(kMix, 1.0f / kMix);
      const std::vector<short> ww(kMix, 32767 / kMix);
      ds.push_back(XKsInitGaussMixServer(w.data(), mp.data(), nullptr, vp.data(), kDim, kMix, 0));
      dw.push_back(XKwInitGaussMixServer(ww.data(), mpw.data(), nullptr, vpw.data(), kDim, kMix, 0, -16));
    }
    std::vector<std::vector<float>> A(kContStates, std::vector<float>(kContStates));
    std::vector<std::vector<short>> Aw(kContStates, std::vector<short>(kContStates));
    std::vector<float *> ap;
    std::vector<short *> apw;
    std::vector<float> pi(kContStates);
    std::vector<short> piw(kContStates);
    for (int i = 0; i < kContStates; ++i) {
      pi[i] = c(rng), piw[i] = static_cast<short>(std::lround(pi[i] * 2.302585f * 1024));
      for (int j = 0; j < kContStates; ++j)
        A[i][j] = c(rng), Aw[i][j] = static_cast<short>(std::lround(A[i][j] * 2.302585f * 1024));
      ap.push_back(A[i].data()), apw.push_back(Aw[i].data());
    }
    ids = XKsInitContHMMServer(ap.data(), pi.data(), ds.data(), kContStates, kDim, XK_HMM_LOGARITHMIC);
    idw = XKwInitContHMMServer(apw.data(), piw.data(), dw.data(), kContStates, kDim, XK_HMM_LOGARITHMIC, 10);
    for (int i = 0; i < kContStates; ++i) XKsFreeGaussMixServer(ds[i]), XKwFreeGaussMixServer(dw[i]);
    if (ids <= 0 || idw <= 0) std::abort();
    // Frames near the means (a fifth of a standard deviation off), so
    // that the likelihoods stay within the float range.
    std::normal_distribution<float> near(0.0f, 0.2f);
    for (int t = 0; t < kContFrames; ++t) {
      xs.emplace_back(kDim), xw.emplace_back(kDim);
      for (int k = 0; k < kDim; ++k) xs[t][k] = near(rng), xw[t][k] = static_cast<short>(std::lround(xs[t][k] * 64));
    }
    for (int t = 0; t < kContFrames; ++t) ps.push_back(xs[t].data()), pw.push_back(xw[t].data());
  }
};

Continuous &continuous() {
  static Continuous c;
  return c;
}

void contCounters(benchmark::State &state) {
  state.counters["frame"] = benchmark::Counter(kContFrames, benchmark::Counter::kIsIterationInvariantRate |
                                                                benchmark::Counter::kInvert);
}

void BM_ContViterbiFloat(benchmark::State &state) {
  Continuous &c = continuous();
  for (auto _ : state) benchmark::DoNotOptimize(XKsEvalContHMMViterbi(c.ids, c.ps.data(), kContFrames, nullptr));
  contCounters(state);
}

void BM_ContViterbiFixed(benchmark::State &state) {
  Continuous &c = continuous();
  int scale = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(XKwEvalContHMMViterbi(c.idw, c.pw.data(), kContFrames, nullptr, 0, &scale));
  contCounters(state);
}

BENCHMARK(BM_ContViterbiFloat);
BENCHMARK(BM_ContViterbiFixed);

}  // namespace

BENCHMARK_MAIN();
