// Forward scoring of exponential servers against enumeration of all state
// paths (tiny models) and a plain recursion (larger ones), both in long
// double, and the AVX2 and AVX-512 steps' (S, scale count) against portable.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "hmm_refs.h"

namespace {

using namespace hmmtest;
using xk::hmm::ForwardIsa;
using xk::hmm::Topology;
const Topology kTopologies[] = {Topology::General, Topology::LeftRight, Topology::Bakis};

// A model in double holding the float values the server stores.
struct Model {
  int n = 0, m = 0;
  std::vector<std::vector<double>> a, b;  // a[i][j]; b[j][k]
  std::vector<double> pi;
};

Model randomModel(Topology t, int n, int m, std::mt19937 &rng) {
  std::uniform_real_distribution<double> u(0.05, 1.0);
  Model md{n, m, std::vector(n, std::vector(n, 0.0)), std::vector(n, std::vector(m, 0.0)), std::vector(n, 0.0)};
  auto normalise = [](std::vector<double> &row) {
    const double s = std::accumulate(row.begin(), row.end(), 0.0);
    for (double &v : row) v = static_cast<float>(v / s);
  };
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j)
      if (allowed(int(t), i, j)) md.a[i][j] = u(rng);
    for (double &v : md.b[i]) v = u(rng);
    md.pi[i] = u(rng);
    normalise(md.a[i]);
    normalise(md.b[i]);
  }
  normalise(md.pi);
  return md;
}

// An exponential server of the model: discrete, or continuous on mixtures
// of dimension 2.
int makeServer(const Model &md, std::vector<GaussMixServer *> *mix = nullptr) {
  Rows<float> a(md.a), b(md.b);
  std::vector<float> pi(md.pi.begin(), md.pi.end());
  if (mix) return XKsInitContHMMServer(a.p(), pi.data(), mix->data(), md.n, 2, XK_HMM_EXPONENTIAL);
  return XKsInitHMMServer(a.p(), b.p(), pi.data(), md.n, md.m, XK_HMM_EXPONENTIAL);
}

// The kernels' exact result for a discrete server.
bool kernelScore(int id, const std::vector<int> &obs, xk::hmm::ForwardScore *score) {
  const xk::hmm::ServerView v = viewOf(id);
  const auto t = xk::hmm::topologyOf(v.status);
  xk::hmm::ForwardScratch scratch;
  EXPECT_TRUE(scratch.reserve(t, v.nStates));
  const auto model = xk::hmm::forwardPrepare(t, v.nStates, static_cast<const float *>(v.transitions), scratch);
  return xk::hmm::forwardDiscrete(model, static_cast<const float *const *>(v.outputs), v.nSymbols,
                                  static_cast<const float *>(v.initial), obs.data(), int(obs.size()), scratch, score);
}

// -log10 of the sum over all N^T state paths, given bt[t][j] = b_j(t).
double bruteForceCost(const Model &md, const std::vector<std::vector<double>> &bt) {
  long double total = 0;
  forEachPath(md.n, static_cast<int>(bt.size()), [&](const std::vector<int> &s) {
    long double p = md.pi[s[0]] * bt[0][s[0]];
    for (std::size_t t = 1; t < s.size(); ++t) p *= md.a[s[t - 1]][s[t]] * bt[t][s[t]];
    total += p;
  });
  return static_cast<double>(-std::log10(total));
}

// The forward recursion without scaling in long double: 150 frames lose
// some 600 bits, far inside its range.
double directCost(const Model &md, const std::vector<int> &obs) {
  std::vector<long double> al(md.n), next(md.n);
  for (int j = 0; j < md.n; ++j) al[j] = md.pi[j] * md.b[j][obs[0]];
  for (std::size_t t = 1; t < obs.size(); ++t) {
    for (int j = 0; j < md.n; ++j) {
      long double sum = 0;
      for (int i = 0; i < md.n; ++i) sum += al[i] * md.a[i][j];
      next[j] = sum * md.b[j][obs[t]];
    }
    al.swap(next);
  }
  return static_cast<double>(-std::log10(std::accumulate(al.begin(), al.end(), 0.0L)));
}

// Tiny models of every topology under every step, discrete and continuous
// (two-component diagonal mixtures, their densities in double; the server
// works in float, about 1e-6 relative per density), against enumeration.
TEST_F(Freed, TinyModelsEqualPathEnumeration) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> u(-3, 3);
  for (ForwardIsa isa : {ForwardIsa::Portable, ForwardIsa::Avx2, ForwardIsa::Avx512})
    for (Topology topo : kTopologies)
      for (int n = topo == Topology::Bakis ? 3 : 1; n <= 4; ++n)
        for (int T = 1; T <= 6; ++T) {
          SCOPED_TRACE(::testing::Message() << "isa " << int(isa) << " topo " << int(topo) << " N " << n << " T " << T);
          xk::hmm::setForwardIsa(isa);
          const Model md = randomModel(topo, n, 5, rng);
          const auto obs = randomObs(T, 5, rng);
          std::vector<Mixture> mix;
          std::vector<GaussMixServer *> g;
          for (int j = 0; j < n; ++j) mix.emplace_back(2, 2, rng), g.push_back(mix.back().make(false));
          const int id = makeServer(md), cid = makeServer(md, &g);
          for (auto *m : g) XKsFreeGaussMixServer(m);
          std::vector<std::vector<short>> x(T, std::vector<short>(2));
          std::vector<std::vector<double>> bt(T), ct(T);
          for (int t = 0; t < T; ++t) {
            for (short &v : x[t]) v = static_cast<short>(u(rng));
            for (int j = 0; j < n; ++j) bt[t].push_back(md.b[j][obs[t]]), ct[t].push_back(mix[j].density(x[t]));
          }
          int best = -1, cbest = -1;
          const float cost = XKsEvalHMMForward(id, obs.data(), T, &best);
          EXPECT_NEAR(cost, bruteForceCost(md, bt), 1e-6 * (1 + cost));
          EXPECT_NEAR(XKsEvalContHMMForward(cid, Rows<float>(x).p(), T, &cbest), bruteForceCost(md, ct), 1e-5);
          EXPECT_EQ(best, id);
          EXPECT_EQ(cbest, cid);
        }
}

// Larger models (rescaled a few times in 100 or 150 frames; N = 128 without
// the slow reference) against the direct recursion, and every vector step
// (forced; one the processor lacks falls back) against the portable bits.
TEST_F(Freed, LargeModelsEqualTheDirectRecursionAndPathsAgree) {
  std::mt19937 rng(11);
  std::vector<int> sizes = {64, 128};
  for (int n = 1; n <= 40; ++n) sizes.push_back(n);
  for (Topology topo : kTopologies)
    for (int n : sizes) {
      const Model md = randomModel(topo, n, 16, rng);
      const int id = makeServer(md);
      const auto obs = randomObs(n > 40 ? 100 : 150, 16, rng);
      xk::hmm::ForwardScore portable;
      xk::hmm::setForwardIsa(ForwardIsa::Portable);
      ASSERT_TRUE(kernelScore(id, obs, &portable));
      const double ref = n <= 64 ? directCost(md, obs) : xk::hmm::forwardCost(portable);
      EXPECT_NEAR(xk::hmm::forwardCost(portable), ref, 1e-11 * ref) << "topology " << int(topo) << " N=" << n;
      for (ForwardIsa isa : {ForwardIsa::Avx2, ForwardIsa::Avx512}) {
        xk::hmm::ForwardScore simd;
        xk::hmm::setForwardIsa(isa);
        ASSERT_TRUE(kernelScore(id, obs, &simd));
        EXPECT_EQ(simd.S, portable.S) << "topology " << int(topo) << " N=" << n << " isa " << int(isa);
        EXPECT_EQ(simd.scaleCount, portable.scaleCount);
      }
      XKFreeHMMServer(id);
    }
}

// Every frame emits with probability 0.01 in every state and the
// transitions are exact binary fractions, so 1000 frames have probability
// 0.01f^1000, about 10^-2000: the scaled sums keep it in range.
TEST_F(Freed, ProbabilityFarBelowTheSmallestDouble) {
  const Model md{3, 100, {{0.5, 0.25, 0.25}, {0.25, 0.5, 0.25}, {0.125, 0.375, 0.5}},
                 std::vector(3, std::vector(100, double(0.01f))), {0.5, 0.25, 0.25}};
  std::mt19937 rng(3);
  const auto obs = randomObs(1000, 100, rng);
  EXPECT_NEAR(XKsEvalHMMForward(makeServer(md), obs.data(), 1000, nullptr), 2000.0f, 1e-3f);
}

// A sum that is zero, negative, infinite or NaN after a frame, or a symbol
// outside the alphabet, fails the call with the largest float.
TEST_F(Freed, FailingSums) {
  std::mt19937 rng(5);
  const struct { const char *what; double value; int symbol; } cases[] = {
      {"zero", 0.0, 1}, {"negative", -0.5, 1}, {"infinite", std::numeric_limits<double>::infinity(), 1},
      {"NaN", std::numeric_limits<double>::quiet_NaN(), 1}, {"symbol out of range", 0.5, 4},
  };
  for (const auto &c : cases) {
    Model md = randomModel(Topology::General, 3, 4, rng);
    for (int j = 0; j < 3; ++j) md.b[j][1] = c.value;
    const int id = makeServer(md), obs[] = {0, 2, c.symbol, 0};
    int best = -1;
    EXPECT_EQ(XKsEvalHMMForward(id, obs, 4, &best), kBig) << c.what;
    EXPECT_EQ(best, 0);
  }
}

// The edges of the rescaling window and the 2^256 clamp.
TEST(HmmForward, RescalingWindow) {
  const struct { double S; bool last, ok; double after; int count; } cases[] = {
      {std::ldexp(1.0, 128), false, true, std::ldexp(1.0, 128), 0},    // exponent 1151: kept
      {std::ldexp(1.5, 129), false, true, 1.5, -129},                  // 1152: to [1, 2)
      {std::ldexp(1.0, -128), false, true, std::ldexp(1.0, -128), 0},  // 895: kept
      {std::ldexp(1.0, -129), false, true, 1.0, 129},
      {std::ldexp(1.0, -300), false, true, std::ldexp(1.0, -44), 256},
      {0.75, true, true, 1.5, 1},  // the last frame is always normalised
      {1e-310, false, false, 0, 0},
      {std::ldexp(1.0, 1023), false, false, 0, 0},  // exponent 2046
  };
  for (const auto &c : cases) {
    double alpha[4] = {c.S, 0, 0, 0}, S = c.S;
    int count = 0;
    ASSERT_EQ(xk::hmm::forwardRescale(alpha, 4, &S, &count, c.last), c.ok) << c.S;
    if (!c.ok) continue;
    EXPECT_EQ(S, c.after) << c.S;
    EXPECT_EQ(alpha[0], c.after);
    EXPECT_EQ(count, c.count);
  }
}

// The walk over a class: of equal members the lower id wins, a more
// probable later member replaces it, and a zero-probability member fails
// the whole call.
TEST_F(Freed, ClassRules) {
  std::mt19937 rng(19);
  const Model base = randomModel(Topology::General, 3, 4, rng);
  Model better = base, dead = base;
  for (int j = 0; j < 3; ++j) better.b[j][2] = 1.0, dead.b[j][2] = 0.0;  // symbol 2: certain / impossible
  const int obs[] = {0, 2, 1, 2, 3}, T = 5;
  const int a = makeServer(base), b = makeServer(base), c = makeServer(better), d = makeServer(dead);
  const int e = makeServer(randomModel(Topology::Bakis, 40, 4, rng));  // the scratch grows for it
  const int ae = XKsEvalHMMForward(a, obs, T, nullptr) < XKsEvalHMMForward(e, obs, T, nullptr) ? a : e;
  const struct { std::vector<int> members; int winner; } cases[] = {
      {{b, a}, a}, {{a, c}, c}, {{a, e}, ae}, {{a, d, c}, 0}};
  for (const auto &k : cases) {
    const int cls = XKCreateHMMClass();
    for (int id : k.members) ASSERT_EQ(XKAddHMMToClass(cls, id), 1);
    int best = -1;
    const float cost = XKsEvalHMMForward(-cls, obs, T, &best);
    EXPECT_EQ(best, k.winner);
    EXPECT_EQ(cost, k.winner ? XKsEvalHMMForward(k.winner, obs, T, nullptr) : kBig);
  }
  int best = -1;
  EXPECT_EQ(XKsEvalHMMForward(-99, obs, T, &best), kBig);
  EXPECT_EQ(best, 0);
  float onAnotherThread = 0;  // a thread without HMM tables
  std::thread([&] { onAnotherThread = XKsEvalHMMForward(a, obs, T, nullptr); }).join();
  EXPECT_EQ(onAnotherThread, kBig);
}

}  // namespace
