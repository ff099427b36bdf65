// Forward scoring against independent references: brute-force enumeration
// of all state paths in long double on tiny models, a log-space dynamic
// programme in double on larger ones, and the AVX2 step against the
// portable one bit for bit. Models are packed by hand in the exponential
// layout (row-major general, row-wise left-right, Bakis triples).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "hmm/forward_kernels.h"
#include "hmm/hmm_internal.h"
#include "xkl/xk_gauss.h"
#include "xkl_test_support.h"

namespace {

using xk::hmm::ForwardScore;
using xk::hmm::ForwardScratch;
using xk::hmm::ForwardTopology;
constexpr float kBig = std::numeric_limits<float>::max();

struct Model {
  int n = 0, m = 0;
  ForwardTopology topology = ForwardTopology::General;
  std::vector<std::vector<double>> a, b;  // a[i][j]; b[j][k]
  std::vector<double> pi;
};

bool hasArc(ForwardTopology t, int i, int j) {
  if (t == ForwardTopology::General) return true;
  return j >= i && (t == ForwardTopology::LeftRight || j <= i + 2);
}

Model randomModel(ForwardTopology t, int n, int m, std::mt19937 &rng) {
  std::uniform_real_distribution<double> u(0.05, 1.0);
  Model md{n, m, t, std::vector(n, std::vector(n, 0.0)), std::vector(n, std::vector(m, 0.0)), std::vector(n, 0.0)};
  auto normalise = [](std::vector<double> &row) {
    double s = 0;
    for (double &v : row) s += v;
    for (double &v : row) v = static_cast<float>(v / s);  // the reference sees the stored float values
  };
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) md.a[i][j] = hasArc(t, i, j) ? u(rng) : 0.0;
    for (int k = 0; k < m; ++k) md.b[i][k] = u(rng);
    md.pi[i] = u(rng);
    normalise(md.a[i]);
    normalise(md.b[i]);
  }
  normalise(md.pi);
  return md;
}

// The exponential layout, each array followed by a tail of largest floats.
struct Packed {
  std::vector<float> trans, initial;
  std::vector<std::vector<float>> rows;
  std::vector<const float *> rowPtrs;
};

Packed pack(const Model &md) {
  const int n = md.n, nPad = xk::hmm::pad4(n);
  Packed p;
  if (md.topology == ForwardTopology::Bakis) {
    for (int i = 0; i < n - 2; ++i)
      for (int d = 0; d < 3; ++d) p.trans.push_back(md.a[i][i + d]);
    p.trans.insert(p.trans.end(), {float(md.a[n - 2][n - 2]), float(md.a[n - 2][n - 1]), float(md.a[n - 1][n - 1]),
                                   float(md.a[n - 1][n - 1])});
  } else {
    for (int i = 0; i < n; ++i)
      for (int j = md.topology == ForwardTopology::LeftRight ? i : 0; j < n; ++j) p.trans.push_back(md.a[i][j]);
  }
  p.trans.insert(p.trans.end(), xk::hmm::kTransSlack, kBig);
  p.rows.assign(md.m, std::vector<float>(nPad, kBig));
  p.initial.assign(nPad, kBig);
  for (int j = 0; j < n; ++j) {
    p.initial[j] = md.pi[j];
    for (int k = 0; k < md.m; ++k) p.rows[k][j] = md.b[j][k];
  }
  for (auto &r : p.rows) p.rowPtrs.push_back(r.data());
  return p;
}

struct Pass {
  bool ok;
  ForwardScore score;
  double cost() const { return xk::hmm::forwardCost(score); }
};

Pass runDiscrete(const Model &md, const Packed &p, const std::vector<int> &obs) {
  ForwardScratch scratch;
  EXPECT_TRUE(scratch.reserve(md.topology, md.n));
  auto model = xk::hmm::forwardPrepare(md.topology, md.n, p.trans.data(), scratch);
  Pass r{};
  r.ok = xk::hmm::forwardDiscrete(model, p.rowPtrs.data(), md.m, p.initial.data(), obs.data(),
                                  static_cast<int>(obs.size()), scratch, &r.score);
  return r;
}

// -log10 of the sum over all N^T state paths, given per-frame outputs.
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
  std::vector<double> la(md.n), next(md.n);
  for (int j = 0; j < md.n; ++j) la[j] = lg(md.pi[j]) + lg(md.b[j][obs[0]]);
  for (std::size_t t = 1; t < obs.size(); ++t) {
    for (int j = 0; j < md.n; ++j) {
      double mx = ninf;
      for (int i = 0; i < md.n; ++i) mx = std::max(mx, la[i] + lg(md.a[i][j]));
      double s = 0;
      for (int i = 0; i < md.n; ++i) s += std::exp(la[i] + lg(md.a[i][j]) - mx);
      next[j] = mx + std::log(s) + lg(md.b[j][obs[t]]);
    }
    la.swap(next);
  }
  double mx = ninf, s = 0;
  for (double v : la) mx = std::max(mx, v);
  for (double v : la) s += std::exp(v - mx);
  return -(mx + std::log(s)) / std::log(10.0);
}

std::vector<int> randomObs(int T, int m, std::mt19937 &rng) {
  std::uniform_int_distribution<int> u(0, m - 1);
  std::vector<int> obs(T);
  for (int &o : obs) o = u(rng);
  return obs;
}

const ForwardTopology kTopologies[] = {ForwardTopology::General, ForwardTopology::LeftRight, ForwardTopology::Bakis};

TEST(HmmForwardKernels, TinyModelsEqualPathEnumeration) {
  std::mt19937 rng(7);
  for (ForwardTopology topo : kTopologies)
    for (int n = topo == ForwardTopology::Bakis ? 3 : 1; n <= 4; ++n)
      for (int T = 1; T <= 6; ++T) {
        const Model md = randomModel(topo, n, 5, rng);
        const auto obs = randomObs(T, 5, rng);
        const Pass r = runDiscrete(md, pack(md), obs);
        ASSERT_TRUE(r.ok);
        EXPECT_NEAR(r.cost(), bruteForceCost(md, discreteOutputs(md, obs)), 1e-12)
            << "topology " << int(topo) << " N=" << n << " T=" << T;
      }
}

// Larger models: the log-space programme, and the AVX2 step giving the
// portable step's bits. The relative error of the double recursion grows
// by about N ulps a frame: 1000 x 64 x 2^-53 / ln 10 is below 1e-11.
TEST(HmmForwardKernels, LargeModelsEqualLogSpaceAndPathsAgree) {
  std::mt19937 rng(11);
  const struct { int n, T; } sizes[] = {{5, 300}, {10, 500}, {13, 1000}, {31, 200}, {64, 1000}};
  for (ForwardTopology topo : kTopologies)
    for (auto [n, T] : sizes) {
      const Model md = randomModel(topo, n, 16, rng);
      const Packed p = pack(md);
      const auto obs = randomObs(T, 16, rng);
      xk::hmm::setForwardSimd(false);
      const Pass portable = runDiscrete(md, p, obs);
      xk::hmm::setForwardSimd(true);
      const Pass simd = runDiscrete(md, p, obs);
      ASSERT_TRUE(portable.ok && simd.ok);
      const double ref = logSpaceCost(md, obs);
      EXPECT_NEAR(portable.cost(), ref, 1e-11 * ref) << "topology " << int(topo) << " N=" << n;
      EXPECT_EQ(simd.score.S, portable.score.S);
      EXPECT_EQ(simd.score.scaleCount, portable.score.scaleCount);
    }
}

// Every frame emits with probability 0.01 in every state and the
// transitions are exact binary fractions, so 1000 frames have probability
// 0.01f^1000, about 10^-2000: the scaled sums keep it in range.
TEST(HmmForwardKernels, ProbabilityFarBelowTheSmallestDouble) {
  Model md{3, 100, ForwardTopology::General,
           {{0.5, 0.25, 0.25}, {0.25, 0.5, 0.25}, {0.125, 0.375, 0.5}},
           std::vector(3, std::vector(100, double(0.01f))),
           {0.5, 0.25, 0.25}};
  std::mt19937 rng(3);
  const Pass r = runDiscrete(md, pack(md), randomObs(1000, 100, rng));
  ASSERT_TRUE(r.ok);
  EXPECT_NEAR(r.cost(), -1000 * std::log10(double(0.01f)), 1e-9);
  EXPECT_NEAR(r.cost(), 2000.0, 1e-4);
  EXPECT_GE(r.score.S, 1.0);
  EXPECT_LT(r.score.S, 2.0);
}

// A sum that is zero, negative, infinite or NaN after a frame fails the
// pass; so does a symbol outside the model's alphabet.
TEST(HmmForwardKernels, FailingSums) {
  std::mt19937 rng(5);
  const struct { const char *what; double value; int symbol; } cases[] = {
      {"zero output", 0.0, 1},
      {"negative output", -0.5, 1},
      {"infinite output", std::numeric_limits<double>::infinity(), 1},
      {"NaN output", std::numeric_limits<double>::quiet_NaN(), 1},
      {"symbol out of range", 0.5, 4},
  };
  for (const auto &c : cases) {
    Model md = randomModel(ForwardTopology::General, 3, 4, rng);
    for (int j = 0; j < 3; ++j) md.b[j][1] = c.value;
    EXPECT_FALSE(runDiscrete(md, pack(md), {0, 2, c.symbol, 0}).ok) << c.what;
  }
}

// The rescaling window and clamp, checked on powers of two.
TEST(HmmForwardKernels, RescalingWindow) {
  const struct { double S; bool last, ok; double after; int count; } cases[] = {
      {std::ldexp(1.0, 127), false, true, std::ldexp(1.0, 127), 0},    // exponent 1150: kept
      {std::ldexp(1.0, 128), false, true, std::ldexp(1.0, 128), 0},    // 1151: kept
      {std::ldexp(1.5, 129), false, true, 1.5, -129},                  // 1152: scaled to [1, 2)
      {std::ldexp(1.0, -128), false, true, std::ldexp(1.0, -128), 0},  // 895: kept
      {std::ldexp(1.0, -129), false, true, 1.0, 129},
      {std::ldexp(1.0, -300), false, true, std::ldexp(1.0, -44), 256},  // at most 2^256 a frame
      {0.75, true, true, 1.5, 1},                                       // the last frame is normalised
      {0.0, false, false, 0, 0},
      {-1.0, false, false, 0, 0},
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

// ---- through the public interface: the store packs, the walk chooses ----

struct HmmForwardApi : xkltest::ReportingTest {
  void TearDown() override {
    XKHMMFreeAll();
    xkltest::ReportingTest::TearDown();
  }
};

// Caller matrices (row pointers) of a model, and the server made from them.
struct Caller {
  std::vector<std::vector<float>> a, b;
  std::vector<float *> ap, bp;
  std::vector<float> pi;
  explicit Caller(const Model &md) : pi(md.pi.begin(), md.pi.end()) {
    for (int i = 0; i < md.n; ++i) {
      a.emplace_back(md.a[i].begin(), md.a[i].end());
      b.emplace_back(md.b[i].begin(), md.b[i].end());
    }
    for (int i = 0; i < md.n; ++i) ap.push_back(a[i].data()), bp.push_back(b[i].data());
  }
};

int makeServer(const Model &md) {
  Caller c(md);
  return XKsInitHMMServer(c.ap.data(), c.bp.data(), c.pi.data(), md.n, md.m, XK_HMM_EXPONENTIAL);
}

TEST_F(HmmForwardApi, DiscreteServersOfEveryTopologyEqualPathEnumeration) {
  std::mt19937 rng(13);
  const unsigned bits[] = {0, HMM_SERVER_LEFT_RIGHT, HMM_SERVER_BAKIS};
  for (int k = 0; k < 3; ++k) {
    const Model md = randomModel(kTopologies[k], 4, 6, rng);
    const int id = makeServer(md);
    int status = 0;
    ASSERT_EQ(XKGetHMMParm(id, nullptr, nullptr, nullptr, nullptr, &status), 0);
    ASSERT_EQ(status & (HMM_SERVER_LEFT_RIGHT | HMM_SERVER_BAKIS), static_cast<int>(bits[k]));
    for (int T : {1, 6}) {
      const auto obs = randomObs(T, 6, rng);
      int best = -1;
      const float cost = XKsEvalHMMForward(id, obs.data(), T, &best);
      EXPECT_NEAR(cost, bruteForceCost(md, discreteOutputs(md, obs)), 1e-6 * (1 + cost)) << k << " T=" << T;
      EXPECT_EQ(best, id);
    }
  }
}

// Each state's density is a two-component diagonal mixture, written out in
// double here: sum_m w_m exp(-0.5 sum_d (x_d - mu_md)^2 iv_md).
TEST_F(HmmForwardApi, ContinuousServerEqualsPathEnumeration) {
  constexpr int kN = 3, kDim = 2, kMix = 2, kT = 5;
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f), pos(0.5f, 2.0f);
  Model md = randomModel(ForwardTopology::General, kN, 1, rng);
  float w[kN][kMix], mu[kN][kMix][kDim], iv[kN][kMix][kDim];
  std::vector<mixture_description *> mix;
  for (int j = 0; j < kN; ++j) {
    float *means[kMix], *inv[kMix];
    for (int m = 0; m < kMix; ++m) {
      w[j][m] = m ? 0.3f : 0.7f;
      for (int d = 0; d < kDim; ++d) mu[j][m][d] = u(rng), iv[j][m][d] = pos(rng);
      means[m] = mu[j][m], inv[m] = iv[j][m];
    }
    mix.push_back(XKsInitGaussMixServer(w[j], means, nullptr, inv, kDim, kMix, 0));
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
        for (int d = 0; d < kDim; ++d) q += (frames[t][d] - mu[j][m][d]) * (frames[t][d] - mu[j][m][d]) * iv[j][m][d];
        bt[t][j] += w[j][m] * std::exp(-0.5 * q);
      }
  }
  int best = -1;
  const float cost = XKsEvalContHMMForward(id, obs.data(), kT, &best);
  // The mixtures are evaluated in float: a relative error near 1e-6 per
  // density, five frames.
  EXPECT_NEAR(cost, bruteForceCost(md, bt), 1e-5);
  EXPECT_EQ(best, id);
}

// The walk over a class: of equal members the lower id wins, a more
// probable later member replaces it, and a zero-probability member fails
// the whole call.
TEST_F(HmmForwardApi, ClassRules) {
  std::mt19937 rng(19);
  const Model base = randomModel(ForwardTopology::General, 3, 4, rng);
  Model better = base, dead = base;
  for (int j = 0; j < 3; ++j) better.b[j][2] = 1.0, dead.b[j][2] = 0.0;  // symbol 2: certain / impossible
  const std::vector<int> obs = {0, 2, 1, 2, 3};
  const int T = static_cast<int>(obs.size());
  const int a = makeServer(base), b = makeServer(base), c = makeServer(better), d = makeServer(dead);
  int best = -1;
  const float single = XKsEvalHMMForward(a, obs.data(), T, &best);

  const struct { std::vector<int> members; int winner; bool fails; } cases[] = {
      {{b, a}, a, false},
      {{a, c}, c, false},
      {{a, d, c}, 0, true},
  };
  for (const auto &k : cases) {
    const int cls = XKCreateHMMClass();
    for (int id : k.members) ASSERT_EQ(XKAddHMMToClass(cls, id), 1);
    const float cost = XKsEvalHMMForward(-cls, obs.data(), T, &best);
    if (k.fails) {
      EXPECT_EQ(cost, kBig);
    } else {
      EXPECT_EQ(best, k.winner);
      EXPECT_EQ(cost, XKsEvalHMMForward(k.winner, obs.data(), T, nullptr));
    }
    XKDeleteHMMClass(cls);
  }
  EXPECT_EQ(XKsEvalHMMForward(a, obs.data(), T, &best), single);
  EXPECT_EQ(XKsEvalHMMForward(-99, obs.data(), T, &best), kBig);
  EXPECT_EQ(best, 0);
  float onAnotherThread = 0;
  std::thread([&] { onAnotherThread = XKsEvalHMMForward(a, obs.data(), T, nullptr); }).join();
  EXPECT_EQ(onAnotherThread, kBig);
}

}  // namespace
