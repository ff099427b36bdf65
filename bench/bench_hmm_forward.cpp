// Discrete forward scoring (XKsEvalHMMForward on an exponential server):
// T = 10,000 frames, M = 64 symbols, N = 5, 10,
// 32 and 128 states, general and Bakis models, the library's forward pass
// (the default step, and each step forced) next to a plain scaled forward in double as
// hmmlearn writes it (for every target a sum over all sources, the row
// normalised by its sum every frame, the logarithms of the scales added).
// Counters: ns_per_frame, and ns_per_arc over the arcs each method
// evaluates (the library: the arcs of the topology; the plain loop: N^2).
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "hmm/forward_kernels.h"
#include "xkl/xk_hmm.h"

namespace {

constexpr int kFrames = 10000, kSymbols = 64;

using xk::hmm::Topology;

// A random row-stochastic model of the topology, in double for the plain
// loop, and the exponential server the library makes of it.
struct Model {
  int n;
  std::vector<double> a, b, pi;  // a[i * n + j], b[j * M + k]
  std::vector<int> obs;
  long arcs = 0;
  int id = 0;

  Model(int nStates, Topology t) : n(nStates), a(n * n), b(n * kSymbols), pi(n) {
    std::mt19937 rng(n);
    std::uniform_real_distribution<double> u(0.05, 1.0);
    auto arc = [&](int i, int j) { return t == Topology::General || (j >= i && j <= i + 2); };
    auto normalise = [](double *v, int len) {
      double s = 0;
      for (int k = 0; k < len; ++k) s += v[k];
      for (int k = 0; k < len; ++k) v[k] = static_cast<float>(v[k] / s);
    };
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) a[i * n + j] = arc(i, j) ? u(rng) : 0.0, arcs += arc(i, j);
      for (int k = 0; k < kSymbols; ++k) b[i * kSymbols + k] = u(rng);
      pi[i] = u(rng);
      normalise(&a[i * n], n);
      normalise(&b[i * kSymbols], kSymbols);
    }
    normalise(pi.data(), n);
    std::vector<float> af(a.begin(), a.end()), bf(b.begin(), b.end()), pf(pi.begin(), pi.end());
    std::vector<float *> ap, bp;
    for (int i = 0; i < n; ++i) ap.push_back(&af[i * n]), bp.push_back(&bf[i * kSymbols]);
    id = XKsInitHMMServer(ap.data(), bp.data(), pf.data(), n, kSymbols, XK_HMM_EXPONENTIAL);
    std::uniform_int_distribution<int> sym(0, kSymbols - 1);
    for (int f = 0; f < kFrames; ++f) obs.push_back(sym(rng));
  }
  ~Model() { XKFreeHMMServer(id); }
};

void setCounters(benchmark::State &state, double arcsPerFrame) {
  using benchmark::Counter;
  state.counters["per_frame"] =
      Counter(kFrames, Counter::kIsIterationInvariantRate | Counter::kInvert);
  state.counters["per_arc"] =
      Counter(kFrames * arcsPerFrame, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void libraryForward(benchmark::State &state, Topology t, xk::hmm::ForwardIsa isa) {
  const Model md(static_cast<int>(state.range(0)), t);
  xk::hmm::setForwardIsa(isa);
  for (auto _ : state) {
    int best = 0;
    const float cost = XKsEvalHMMForward(md.id, md.obs.data(), kFrames, &best);
    if (best != md.id) state.SkipWithError("forward failed");
    benchmark::DoNotOptimize(cost);
  }
  xk::hmm::setForwardIsa(xk::hmm::ForwardIsa::Auto);
  setCounters(state, static_cast<double>(md.arcs));
}

// The peer: hmmlearn's scaled forward, two rows instead of the full lattice.
double plainScaledForward(const Model &md) {
  const int n = md.n;
  std::vector<double> cur(n), next(n);
  double sum = 0, logProb = 0;
  for (int j = 0; j < n; ++j) sum += cur[j] = md.pi[j] * md.b[j * kSymbols + md.obs[0]];
  for (int j = 0; j < n; ++j) cur[j] /= sum;
  logProb += std::log(sum);
  for (int t = 1; t < kFrames; ++t) {
    const int o = md.obs[t];
    sum = 0;
    for (int j = 0; j < n; ++j) {
      double acc = 0;
      for (int i = 0; i < n; ++i) acc += cur[i] * md.a[i * n + j];
      sum += next[j] = acc * md.b[j * kSymbols + o];
    }
    const double scale = 1.0 / sum;
    for (int j = 0; j < n; ++j) next[j] *= scale;
    logProb += std::log(sum);
    cur.swap(next);
  }
  return -logProb / std::log(10.0);
}

void plainLoop(benchmark::State &state, Topology t) {
  const Model md(static_cast<int>(state.range(0)), t);
  for (auto _ : state) benchmark::DoNotOptimize(plainScaledForward(md));
  setCounters(state, static_cast<double>(md.n) * md.n);
}

void sizes(benchmark::internal::Benchmark *b) {
  for (int n : {5, 10, 32, 128}) b->Arg(n);
  b->Unit(benchmark::kMicrosecond);
}

using xk::hmm::ForwardIsa;
BENCHMARK_CAPTURE(libraryForward, general, Topology::General, ForwardIsa::Auto)->Apply(sizes);
BENCHMARK_CAPTURE(libraryForward, general_avx512, Topology::General, ForwardIsa::Avx512)->Apply(sizes);
BENCHMARK_CAPTURE(libraryForward, general_avx2, Topology::General, ForwardIsa::Avx2)->Apply(sizes);
BENCHMARK_CAPTURE(libraryForward, general_portable, Topology::General, ForwardIsa::Portable)->Apply(sizes);
BENCHMARK_CAPTURE(plainLoop, general, Topology::General)->Apply(sizes);
BENCHMARK_CAPTURE(libraryForward, bakis, Topology::Bakis, ForwardIsa::Auto)->Apply(sizes);
BENCHMARK_CAPTURE(libraryForward, bakis_avx512, Topology::Bakis, ForwardIsa::Avx512)->Apply(sizes);
BENCHMARK_CAPTURE(libraryForward, bakis_avx2, Topology::Bakis, ForwardIsa::Avx2)->Apply(sizes);
BENCHMARK_CAPTURE(libraryForward, bakis_portable, Topology::Bakis, ForwardIsa::Portable)->Apply(sizes);
BENCHMARK_CAPTURE(plainLoop, bakis, Topology::Bakis)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
