// Forward scoring against independent references: brute-force enumeration
// of all state paths in long double on tiny models, a log-space dynamic
// programme in double on larger ones, and the AVX2 and AVX-512 steps
// against the portable one bit for bit. Models are exponential servers made by the
// store; the larger ones are also scored through the kernels directly, to
// compare the exact (S, scale count) pairs.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "hmm/forward_kernels.h"
#include "hmm/hmm_internal.h"
#include "xkl_test_support.h"

namespace {

using xk::hmm::Topology;
constexpr float kBig = std::numeric_limits<float>::max();
const Topology kTopologies[] = {Topology::General, Topology::LeftRight, Topology::Bakis};
const int kTopologyBits[] = {0, HMM_SERVER_LEFT_RIGHT, HMM_SERVER_BAKIS};

struct HmmForward : xkltest::ReportingTest {
  void TearDown() override {
    XKHMMFreeAll();
    xk::hmm::setForwardIsa(xk::hmm::ForwardIsa::Auto);
    xkltest::ReportingTest::TearDown();
  }
};

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
    double s = 0;
    for (double v : row) s += v;
    for (double &v : row) v = static_cast<float>(v / s);
  };
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j)
      if (t == Topology::General || (j >= i && (t == Topology::LeftRight || j <= i + 2)))
        md.a[i][j] = u(rng);
    for (double &v : md.b[i]) v = u(rng);
    md.pi[i] = u(rng);
    normalise(md.a[i]);
    normalise(md.b[i]);
  }
  normalise(md.pi);
  return md;
}

// Caller matrices (row pointers) of a model.
struct Caller {
  std::vector<std::vector<float>> a, b;
  std::vector<float *> ap, bp;
  std::vector<float> pi;
  explicit Caller(const Model &md) : pi(md.pi.begin(), md.pi.end()) {
    for (int i = 0; i < md.n; ++i) a.emplace_back(md.a[i].begin(), md.a[i].end());
    for (int i = 0; i < md.n; ++i) b.emplace_back(md.b[i].begin(), md.b[i].end());
    for (int i = 0; i < md.n; ++i) ap.push_back(a[i].data()), bp.push_back(b[i].data());
  }
};

int makeServer(const Model &md) {
  Caller c(md);
  return XKsInitHMMServer(c.ap.data(), c.bp.data(), c.pi.data(), md.n, md.m, XK_HMM_EXPONENTIAL);
}

int topologyBits(int id) {
  int status = 0;
  XKGetHMMParm(id, nullptr, nullptr, nullptr, nullptr, &status);
  return status & (HMM_SERVER_LEFT_RIGHT | HMM_SERVER_BAKIS);
}

// The kernels' exact result for a discrete server.
bool kernelScore(int id, const std::vector<int> &obs, xk::hmm::ForwardScore *score) {
  xk::hmm::ServerView v;
  EXPECT_TRUE(xk::hmm::getServer(id, &v));
  const Topology t = (v.status & HMM_SERVER_BAKIS)        ? Topology::Bakis
                            : (v.status & HMM_SERVER_LEFT_RIGHT) ? Topology::LeftRight
                                                                 : Topology::General;
  xk::hmm::ForwardScratch scratch;
  EXPECT_TRUE(scratch.reserve(t, v.nStates));
  const auto model = xk::hmm::forwardPrepare(t, v.nStates, static_cast<const float *>(v.transitions), scratch);
  return xk::hmm::forwardDiscrete(model, static_cast<const float *const *>(v.outputs), v.nSymbols,
                                  static_cast<const float *>(v.initial), obs.data(), static_cast<int>(obs.size()),
                                  scratch, score);
}

// -log10 of the sum over all N^T state paths, given bt[t][j] = b_j(t).
double bruteForceCost(const Model &md, const std::vector<std::vector<double>> &bt) {
  const int n = md.n, T = static_cast<int>(bt.size());
  long double total = 0;
  std::vector<int> s(T, 0);
  for (;;) {
    long double p = md.pi[s[0]] * bt[0][s[0]];
    for (int t = 1; t < T; ++t) p *= md.a[s[t - 1]][s[t]] * bt[t][s[t]];
    total += p;
    int t = 0;
    while (t < T && ++s[t] == n) s[t++] = 0;
    if (t == T) break;
  }
  return static_cast<double>(-std::log10(total));
}

std::vector<std::vector<double>> discreteOutputs(const Model &md, const std::vector<int> &obs) {
  std::vector<std::vector<double>> bt;
  for (int o : obs) {
    bt.emplace_back(md.n);
    for (int j = 0; j < md.n; ++j) bt.back()[j] = md.b[j][o];
  }
  return bt;
}

// The forward recursion in log space (log-sum-exp), double.
double logSpaceCost(const Model &md, const std::vector<int> &obs) {
  const double ninf = -std::numeric_limits<double>::infinity();
  auto lg = [&](double v) { return v > 0 ? std::log(v) : ninf; };
  auto logSum = [&](const std::vector<double> &x) {
    double mx = ninf, s = 0;
    for (double v : x) mx = std::max(mx, v);
    for (double v : x) s += std::exp(v - mx);
    return mx + std::log(s);
  };
  std::vector<double> la(md.n), next(md.n), terms(md.n);
  for (int j = 0; j < md.n; ++j) la[j] = lg(md.pi[j]) + lg(md.b[j][obs[0]]);
  for (std::size_t t = 1; t < obs.size(); ++t) {
    for (int j = 0; j < md.n; ++j) {
      for (int i = 0; i < md.n; ++i) terms[i] = la[i] + lg(md.a[i][j]);
      next[j] = logSum(terms) + lg(md.b[j][obs[t]]);
    }
    la.swap(next);
  }
  return -logSum(la) / std::log(10.0);
}

std::vector<int> randomObs(int T, int m, std::mt19937 &rng) {
  std::uniform_int_distribution<int> u(0, m - 1);
  std::vector<int> obs(T);
  for (int &o : obs) o = u(rng);
  return obs;
}

TEST_F(HmmForward, TinyModelsEqualPathEnumeration) {
  std::mt19937 rng(7);
  for (int k = 0; k < 3; ++k)
    for (int n = kTopologies[k] == Topology::Bakis ? 3 : 1; n <= 4; ++n)
      for (int T = 1; T <= 6; ++T) {
        const Model md = randomModel(kTopologies[k], n, 5, rng);
        const auto obs = randomObs(T, 5, rng);
        const int id = makeServer(md);
        if (n == 4) {  // three upper-triangular states are always Bakis
          ASSERT_EQ(topologyBits(id), kTopologyBits[k]);
        }
        int best = -1;
        const float cost = XKsEvalHMMForward(id, obs.data(), T, &best);
        EXPECT_NEAR(cost, bruteForceCost(md, discreteOutputs(md, obs)), 1e-6 * (1 + cost))
            << "topology " << k << " N=" << n << " T=" << T;
        EXPECT_EQ(best, id);
        XKFreeHMMServer(id);
      }
}

// Larger models: the log-space programme, and every vector step giving the
// portable step's bits (forced, whatever the default picks for the size;
// a step the processor lacks falls back and compares trivially). The
// relative error of the double recursion grows by about N ulps a frame:
// 150 x 64 x 2^-53 / ln 10 is below 1e-11. 100 or 150 frames lose some 400
// to 600 bits, so every model is rescaled a few times; N = 128 runs
// without the slow reference.
TEST_F(HmmForward, LargeModelsEqualLogSpaceAndPathsAgree) {
  using xk::hmm::ForwardIsa;
  std::mt19937 rng(11);
  std::vector<int> sizes;
  for (int n = 1; n <= 40; ++n) sizes.push_back(n);
  sizes.insert(sizes.end(), {64, 128});
  for (Topology topo : kTopologies)
    for (int n : sizes) {
      const Model md = randomModel(topo, n, 16, rng);
      const int id = makeServer(md);
      const auto obs = randomObs(n > 40 ? 100 : 150, 16, rng);
      xk::hmm::ForwardScore portable;
      xk::hmm::setForwardIsa(ForwardIsa::Portable);
      ASSERT_TRUE(kernelScore(id, obs, &portable));
      if (n <= 64) {
        const double ref = logSpaceCost(md, obs);
        EXPECT_NEAR(xk::hmm::forwardCost(portable), ref, 1e-11 * ref) << "topology " << int(topo) << " N=" << n;
      }
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
TEST_F(HmmForward, ProbabilityFarBelowTheSmallestDouble) {
  const Model md{3, 100, {{0.5, 0.25, 0.25}, {0.25, 0.5, 0.25}, {0.125, 0.375, 0.5}},
                 std::vector(3, std::vector(100, double(0.01f))), {0.5, 0.25, 0.25}};
  std::mt19937 rng(3);
  const auto obs = randomObs(1000, 100, rng);
  const int id = makeServer(md);
  xk::hmm::ForwardScore score;
  ASSERT_TRUE(kernelScore(id, obs, &score));
  EXPECT_NEAR(xk::hmm::forwardCost(score), -1000 * std::log10(double(0.01f)), 1e-9);
  EXPECT_NEAR(XKsEvalHMMForward(id, obs.data(), 1000, nullptr), 2000.0f, 1e-3f);
}

// A sum that is zero, negative, infinite or NaN after a frame, or a symbol
// outside the alphabet, fails the call with the largest float.
TEST_F(HmmForward, FailingSums) {
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
    XKFreeHMMServer(id);
  }
}

// The edges of the rescaling window and the 2^256 clamp.
TEST_F(HmmForward, RescalingWindow) {
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

// Each state's density is a two-component diagonal mixture, written out in
// double here: sum_m w_m exp(-0.5 sum_d (x_d - mu_md)^2 iv_md).
TEST_F(HmmForward, ContinuousServerEqualsPathEnumeration) {
  constexpr int kN = 3, kDim = 2, kMix = 2, kT = 5;
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f), pos(0.5f, 2.0f);
  const Model md = randomModel(Topology::General, kN, 1, rng);
  float w[kMix] = {0.7f, 0.3f}, mu[kN][kMix][kDim], iv[kN][kMix][kDim];
  std::vector<mixture_description *> mix;
  for (int j = 0; j < kN; ++j) {
    float *means[kMix], *inv[kMix];
    for (int m = 0; m < kMix; ++m) {
      for (int d = 0; d < kDim; ++d) mu[j][m][d] = u(rng), iv[j][m][d] = pos(rng);
      means[m] = mu[j][m], inv[m] = iv[j][m];
    }
    mix.push_back(XKsInitGaussMixServer(w, means, nullptr, inv, kDim, kMix, 0));
  }
  Caller c(md);
  const int id = XKsInitContHMMServer(c.ap.data(), c.pi.data(), mix.data(), kN, kDim, XK_HMM_EXPONENTIAL);
  for (auto *g : mix) XKsFreeGaussMixServer(g);
  ASSERT_GT(id, 0);

  std::vector<std::vector<float>> frames(kT, std::vector<float>(kDim));
  std::vector<const float *> obs;
  std::vector<std::vector<double>> bt(kT, std::vector<double>(kN));
  for (int t = 0; t < kT; ++t) {
    for (float &x : frames[t]) x = u(rng);
    obs.push_back(frames[t].data());
    for (int j = 0; j < kN; ++j)
      for (int m = 0; m < kMix; ++m) {
        double q = 0;
        for (int d = 0; d < kDim; ++d) q += std::pow(frames[t][d] - mu[j][m][d], 2) * iv[j][m][d];
        bt[t][j] += w[m] * std::exp(-0.5 * q);
      }
  }
  // The mixtures are evaluated in float: about 1e-6 relative per density.
  for (auto isa : {xk::hmm::ForwardIsa::Portable, xk::hmm::ForwardIsa::Avx2, xk::hmm::ForwardIsa::Avx512}) {
    xk::hmm::setForwardIsa(isa);
    int best = -1;
    EXPECT_NEAR(XKsEvalContHMMForward(id, obs.data(), kT, &best), bruteForceCost(md, bt), 1e-5) << int(isa);
    EXPECT_EQ(best, id);
  }
}

// The walk over a class: of equal members the lower id wins, a more
// probable later member replaces it, and a zero-probability member fails
// the whole call.
TEST_F(HmmForward, ClassRules) {
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
    XKDeleteHMMClass(cls);
  }
  int best = -1;
  EXPECT_EQ(XKsEvalHMMForward(-99, obs, T, &best), kBig);
  EXPECT_EQ(best, 0);
  float onAnotherThread = 0;  // a thread without HMM tables
  std::thread([&] { onAnotherThread = XKsEvalHMMForward(a, obs, T, nullptr); }).join();
  EXPECT_EQ(onAnotherThread, kBig);
}

}  // namespace
