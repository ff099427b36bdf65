// Viterbi evaluation against independent references: brute-force
// enumeration of every state path (tiny models) and a plain log-space
// dynamic programme in double over the full matrices (larger ones), for
// servers made through the public creators; mixture densities written out
// in double for the continuous forms; the fixed-point logarithm against
// log(); the vector steps against the portable ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "hmm/fixlog.h"
#include "hmm/viterbi_kernels.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

using xk::hmm::Topology;
constexpr float kBig = 3.4028235e38f;
constexpr std::int32_t kWImp = 0x1FFFFF;

// A model as the caller writes it: full cost matrices, impossible entries
// as the largest float (float) or 32767 (16-bit).
template <class T>
struct Hmm {
  int n = 0, m = 0;
  Topology topology = Topology::General;
  std::vector<std::vector<T>> a, b;  // a[i][j], b[i][k]
  std::vector<T> pi;
};

// Transition a[i][j] allowed by the topology.
bool allowed(Topology t, int i, int j) {
  if (t == Topology::General) return true;
  if (j < i) return false;
  return t == Topology::LeftRight || j <= i + 2;
}

template <class T>
Hmm<T> randomHmm(int n, int m, Topology topo, std::mt19937 &rng, int impossiblePct = 8) {
  Hmm<T> h;
  h.n = n, h.m = m, h.topology = topo;
  std::uniform_real_distribution<double> cost(0.0, 3.0);
  std::uniform_int_distribution<int> pct(0, 99);
  auto value = [&](bool possible) -> T {
    if (!possible || pct(rng) < impossiblePct) return std::is_same_v<T, float> ? T(kBig) : T(32767);
    const double c = cost(rng);
    return std::is_same_v<T, float> ? T(c) : T(std::lround(c * 1000.0));
  };
  h.a.assign(n, std::vector<T>(n));
  h.b.assign(n, std::vector<T>(m));
  h.pi.resize(n);
  for (int i = 0; i < n; ++i) {
    h.pi[i] = value(true);
    for (int j = 0; j < n; ++j) h.a[i][j] = value(allowed(topo, i, j));
    for (int k = 0; k < m; ++k) h.b[i][k] = value(true);
  }
  return h;
}

// The cost of an entry as a number: float values as they are, 16-bit
// impossible values widened as the store widens them.
double num(float v) { return v; }
double num(short v) { return v >= 32766 ? double(kWImp) : double(v); }

// A path problem in double: arc[i][j] (+inf where there is no arc),
// initial costs and output costs out[t][j].
struct Lattice {
  std::vector<std::vector<double>> arc, out;
  std::vector<double> pi;
};

// The discrete model's lattice: arcs outside the topology do not exist (a
// 16-bit impossible value is a finite cost, but the packed band or
// triangle has no slot for it).
template <class T>
Lattice latticeOf(const Hmm<T> &h, const std::vector<int> &obs) {
  Lattice l;
  l.arc.assign(h.n, std::vector<double>(h.n));
  for (int i = 0; i < h.n; ++i) {
    l.pi.push_back(num(h.pi[i]));
    for (int j = 0; j < h.n; ++j)
      l.arc[i][j] = allowed(h.topology, i, j) ? num(h.a[i][j]) : std::numeric_limits<double>::infinity();
  }
  for (int o : obs) {
    l.out.emplace_back();
    for (int j = 0; j < h.n; ++j) l.out.back().push_back(num(h.b[j][o]));
  }
  return l;
}

// Least path cost by enumerating all n^T state paths.
double enumerate(const Lattice &l) {
  const int n = static_cast<int>(l.pi.size()), T = static_cast<int>(l.out.size());
  std::vector<int> s(T, 0);
  double best = std::numeric_limits<double>::infinity();
  for (;;) {
    double c = l.pi[s[0]] + l.out[0][s[0]];
    for (int t = 1; t < T; ++t) c += l.arc[s[t - 1]][s[t]] + l.out[t][s[t]];
    best = std::min(best, c);
    int t = 0;
    while (t < T && ++s[t] == n) s[t++] = 0;
    if (t == T) break;
  }
  return best;
}

// The textbook recursion in double over the full matrices.
double recursion(const Lattice &l) {
  const std::size_t n = l.pi.size();
  std::vector<double> d(n), e(n);
  for (std::size_t j = 0; j < n; ++j) d[j] = l.pi[j] + l.out[0][j];
  for (std::size_t t = 1; t < l.out.size(); ++t) {
    for (std::size_t j = 0; j < n; ++j) {
      double best = std::numeric_limits<double>::infinity();
      for (std::size_t i = 0; i < n; ++i) best = std::min(best, d[i] + l.arc[i][j]);
      e[j] = best + l.out[t][j];
    }
    d.swap(e);
  }
  return *std::min_element(d.begin(), d.end());
}

// Caller matrices with their row pointers.
template <class T>
struct Rows {
  std::vector<std::vector<T>> data;
  std::vector<T *> ptr;
  explicit Rows(std::vector<std::vector<T>> d) : data(std::move(d)) {
    for (auto &r : data) ptr.push_back(r.data());
  }
  T **p() { return ptr.data(); }
};

struct Freed : xkltest::ReportingTest {
  void TearDown() override {
    XKHMMFreeAll();
    xkltest::ReportingTest::TearDown();
  }
};

// Creates the server through the public creator; the topology the store
// detected replaces the generator's (a random band may lose its only
// long skip), since arcs outside it have no slot.
template <class T>
int create(Hmm<T> &h) {
  Rows<T> a(h.a), b(h.b);
  const int id = std::is_same_v<T, float>
                     ? XKsInitHMMServer(reinterpret_cast<float **>(a.p()), reinterpret_cast<float **>(b.p()),
                                        reinterpret_cast<float *>(h.pi.data()), h.n, h.m, XK_HMM_LOGARITHMIC)
                     : XKwInitHMMServer(reinterpret_cast<short **>(a.p()), reinterpret_cast<short **>(b.p()),
                                        reinterpret_cast<short *>(h.pi.data()), h.n, h.m, XK_HMM_LOGARITHMIC);
  int status = 0;
  XKGetHMMParm(id, nullptr, nullptr, nullptr, nullptr, &status);
  h.topology = xk::hmm::topologyOf(static_cast<unsigned>(status));
  return id;
}

float evaluate(int id, const std::vector<int> &obs, float, int *best = nullptr) {
  return XKsEvalHMMViterbi(id, obs.data(), static_cast<int>(obs.size()), best);
}
std::int32_t evaluate(int id, const std::vector<int> &obs, short, int *best = nullptr) {
  return XKwEvalHMMViterbi(id, obs.data(), static_cast<int>(obs.size()), best, 0, nullptr);
}

// Creates, scores and frees one server.
template <class T>
auto apiCost(Hmm<T> &h, const std::vector<int> &obs) {
  const int id = create(h);
  EXPECT_GT(id, 0);
  const auto c = evaluate(id, obs, T{});
  XKFreeHMMServer(id);
  return c;
}

std::vector<int> randomObs(int T, int m, std::mt19937 &rng) {
  std::uniform_int_distribution<int> sym(0, m - 1);
  std::vector<int> o(T);
  for (int &v : o) v = sym(rng);
  return o;
}

// Float sums of T + 1 terms: each addition rounds by at most 2^-24 of the
// running sum, so |error| <= (2T + 1) 2^-24 |cost|.
double floatTolerance(double ref, int T) { return (2.0 * T + 1.0) * std::ldexp(std::fabs(ref), -24) + 1e-6; }

void expectFloatCost(float got, double ref, int T) {
  if (ref >= 1e37)
    EXPECT_GE(got, 1e37f);
  else
    EXPECT_NEAR(got, ref, floatTolerance(ref, T));
}

const Topology kTopologies[] = {Topology::General, Topology::LeftRight, Topology::Bakis};

class ViterbiPaths : public Freed, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    Freed::SetUp();
    xk::hmm::setViterbiSimd(GetParam());
  }
  void TearDown() override {
    xk::hmm::setViterbiSimd(true);
    Freed::TearDown();
  }
};

// Every topology, both representations, n <= 4, T <= 6 (Bakis needs n >= 3).
TEST_P(ViterbiPaths, KernelsEqualBruteForceOnTinyModels) {
  std::mt19937 rng(7);
  for (Topology topo : kTopologies)
    for (int n = topo == Topology::Bakis ? 3 : 1; n <= 4; ++n)
      for (int T = 1; T <= 6; ++T)
        for (int rep = 0; rep < 3; ++rep) {
          SCOPED_TRACE(::testing::Message() << "topology " << int(topo) << " n " << n << " T " << T);
          const auto obs = randomObs(T, 5, rng);
          auto hs = randomHmm<float>(n, 5, topo, rng);
          const float cs = apiCost(hs, obs);
          expectFloatCost(cs, enumerate(latticeOf(hs, obs)), T);
          auto hw = randomHmm<short>(n, 5, topo, rng);
          const std::int32_t cw = apiCost(hw, obs);
          EXPECT_EQ(cw, static_cast<std::int32_t>(enumerate(latticeOf(hw, obs))));
        }
}

// Larger models, n up to 64 (vector widths and their remainders), T up to
// 1000, against the double recursion. Few impossible entries, so that no
// best 16-bit path collects the 2^31 / 0x1FFFFF impossible steps at which
// the 32-bit sums wrap.
TEST_P(ViterbiPaths, KernelsEqualLogSpaceRecursionOnLargerModels) {
  std::mt19937 rng(11);
  for (Topology topo : kTopologies)
    for (int n : {3, 5, 8, 13, 31, 64})
      for (int T : {2, 97, 1000}) {
        SCOPED_TRACE(::testing::Message() << "topology " << int(topo) << " n " << n << " T " << T);
        const auto obs = randomObs(T, 16, rng);
        auto hs = randomHmm<float>(n, 16, topo, rng, 2);
        const float cs = apiCost(hs, obs);
        expectFloatCost(cs, recursion(latticeOf(hs, obs)), T);
        auto hw = randomHmm<short>(n, 16, topo, rng, 2);
        const std::int32_t cw = apiCost(hw, obs);
        EXPECT_EQ(cw, static_cast<std::int32_t>(recursion(latticeOf(hw, obs))));
      }
}

INSTANTIATE_TEST_SUITE_P(PortableAndVector, ViterbiPaths, ::testing::Values(false, true));

// The vector steps give the portable results bit for bit, also when every
// sum overflows to inf: with the first frame impossible in every state the
// portable path scores inf, which wins nothing, so *bestId stays unset; a
// padding lane that undercut inf would hand out a winner.
TEST_F(Freed, VectorStepsEqualPortableBitForBit) {
  if (!xk::hmm::viterbiSimdActive()) GTEST_SKIP() << "no AVX2";
  std::mt19937 rng(3);
  for (Topology topo : kTopologies)
    for (int n = 3; n <= 40; ++n)
      for (bool deadStart : {false, true}) {
        auto h = randomHmm<float>(n, 8, topo, rng);
        auto obs = randomObs(60, 8, rng);
        if (deadStart) {
          obs[0] = 0;
          for (int i = 0; i < n; ++i) h.pi[i] = h.b[i][0] = kBig;
        }
        const int id = create(h);
        float cost[2];
        int best[2] = {-1, -1};
        for (int simd : {0, 1}) {
          xk::hmm::setViterbiSimd(simd != 0);
          cost[simd] = evaluate(id, obs, 0.0f, &best[simd]);
        }
        XKFreeHMMServer(id);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(cost[0]), std::bit_cast<std::uint32_t>(cost[1])) << "n " << n;
        EXPECT_EQ(best[0], best[1]) << "n " << n;
        if (deadStart) {
          EXPECT_EQ(best[1], -1);
        }
      }
}

// A class scores every member; equal costs go to the later member.
TEST_F(Freed, ClassesPickTheLeastCostAndTheLaterMemberOnTies) {
  std::mt19937 rng(9);
  auto h = randomHmm<float>(4, 6, Topology::General, rng);
  auto other = randomHmm<float>(4, 6, Topology::General, rng);
  auto hw = randomHmm<short>(4, 6, Topology::General, rng);
  const std::vector<int> obs = randomObs(20, 6, rng);
  const int a = create(h), b = create(other), c = create(h);
  const int wa = create(hw), wb = create(hw);
  const int cls = XKCreateHMMClass(), wcls = XKCreateHMMClass();
  for (int id : {c, a, b}) ASSERT_EQ(XKAddHMMToClass(cls, id), 1);
  for (int id : {wb, wa}) ASSERT_EQ(XKAddHMMToClass(wcls, id), 1);
  const float ca = evaluate(a, obs, 0.0f), cb = evaluate(b, obs, 0.0f);
  int best = -1;
  EXPECT_EQ(evaluate(-cls, obs, 0.0f, &best), std::min(ca, cb));
  EXPECT_EQ(best, cb < ca ? b : c);  // a and c tie: c, the later one
  EXPECT_EQ(XKwEvalHMMViterbi(-wcls, obs.data(), 20, &best, 0, nullptr), evaluate(wa, obs, short{}));
  EXPECT_EQ(best, wb);
  // The w form scales the best cost: left by s for -s, right for s.
  const std::int32_t raw = evaluate(wa, obs, short{});
  int scale = -2;
  EXPECT_EQ(XKwEvalHMMViterbi(wa, obs.data(), 20, &best, 1, &scale), raw * 4);
  scale = 3;
  EXPECT_EQ(XKwEvalHMMViterbi(wa, obs.data(), 20, &best, 1, &scale), raw >> 3);
  scale = 7;
  EXPECT_EQ(XKwEvalHMMViterbi(wa, obs.data(), 20, &best, 0, &scale), raw);
  EXPECT_EQ(scale, 0);
  // Failures: unknown class or server, a server of another kind, an empty
  // class, a symbol outside the alphabet.
  const int empty = XKCreateHMMClass();
  std::vector<int> bad = obs;
  bad[3] = 6;
  for (int idOrClass : {-99, 99, wa, -empty}) EXPECT_EQ(evaluate(idOrClass, obs, 0.0f), kBig);
  EXPECT_EQ(evaluate(a, bad, 0.0f), kBig);
  EXPECT_EQ(XKwEvalHMMViterbi(a, obs.data(), 20, &best, 1, &scale), 0x7FFFFFFF);
  EXPECT_TRUE(xkltest::reports().empty());
  XKHMMFreeAll();
  EXPECT_EQ(evaluate(1, obs, 0.0f), kBig);  // no tables on the thread
  EXPECT_EQ(evaluate(1, obs, short{}), 0x7FFFFFFF);
}

// One state's diagonal mixture with integer means and inverse variances
// iv 2^-4 and weights 32767 / nMix (Q15 in the 16-bit form), made as a
// float and as a 16-bit Gauss server.
struct Mixture {
  std::vector<std::vector<short>> mu, iv;
  short w;
  Mixture(int nMix, int dim, std::mt19937 &rng) : w(static_cast<short>(32767 / nMix)) {
    std::uniform_int_distribution<int> m(-3, 3), v(1, 4);
    mu.assign(nMix, std::vector<short>(dim)), iv = mu;
    for (int k = 0; k < nMix; ++k)
      for (int d = 0; d < dim; ++d) mu[k][d] = static_cast<short>(m(rng)), iv[k][d] = static_cast<short>(v(rng));
  }
  GaussMixServer *make(bool fixed) const {
    const int nMix = static_cast<int>(mu.size()), dim = static_cast<int>(mu[0].size());
    std::vector<std::vector<float>> fm(nMix), fv(nMix);
    std::vector<float *> fmp, fvp;
    std::vector<short *> wmp, wvp;
    for (int k = 0; k < nMix; ++k) {
      for (int d = 0; d < dim; ++d) fm[k].push_back(mu[k][d]), fv[k].push_back(iv[k][d] / 16.0f);
      fmp.push_back(fm[k].data()), fvp.push_back(fv[k].data());
      wmp.push_back(const_cast<short *>(mu[k].data())), wvp.push_back(const_cast<short *>(iv[k].data()));
    }
    const std::vector<float> fw(nMix, w / 32768.0f);
    const std::vector<short> ww(nMix, w);
    return fixed ? XKwInitGaussMixServer(ww.data(), wmp.data(), nullptr, wvp.data(), dim, nMix, 0, -4)
                 : XKsInitGaussMixServer(fw.data(), fmp.data(), nullptr, fvp.data(), dim, nMix, 0);
  }
  // sum_k w_k exp(-1/2 sum_d (x_d - mu_d)^2 iv_d 2^-4), in double.
  double density(const std::vector<short> &x) const {
    double sum = 0.0;
    for (std::size_t k = 0; k < mu.size(); ++k) {
      double dist = 0.0;
      for (std::size_t d = 0; d < x.size(); ++d) dist += std::pow(x[d] - mu[k][d], 2) * iv[k][d] / 16.0;
      sum += w / 32768.0 * std::exp(-0.5 * dist);
    }
    return sum;
  }
};

// Continuous servers of 1..3 states with 1..3 components at dimension 3
// and T <= 5 frames, float and 16-bit (costs in 2^-10 nats), against
// enumeration with the densities computed in double.
TEST_F(Freed, ContinuousEqualsEnumerationWithDensitiesInDouble) {
  constexpr int kDim = 3, kParam = 10;
  std::mt19937 rng(21);
  std::uniform_real_distribution<double> u(0.2, 2.0);
  std::uniform_int_distribution<int> x(-3, 3);
  for (int n = 1; n <= 3; ++n)
    for (int nMix = 1; nMix <= 3; ++nMix)
      for (int T = 1; T <= 5; T += 2) {
        SCOPED_TRACE(::testing::Message() << "n " << n << " nMix " << nMix << " T " << T);
        Rows<float> as(std::vector<std::vector<float>>(n, std::vector<float>(n)));
        Rows<short> aw(std::vector<std::vector<short>>(n, std::vector<short>(n)));
        std::vector<float> pis;
        std::vector<short> piw;
        Lattice ls, lw;
        ls.arc.assign(n, std::vector<double>(n)), lw.arc = ls.arc;
        for (int i = 0; i < n; ++i) {
          const double c = u(rng);
          pis.push_back(static_cast<float>(c)), ls.pi.push_back(pis.back());
          piw.push_back(static_cast<short>(std::lround(c * 1024))), lw.pi.push_back(piw.back());
          for (int j = 0; j < n; ++j) {
            const double d = u(rng);
            as.data[i][j] = static_cast<float>(d), ls.arc[i][j] = as.data[i][j];
            aw.data[i][j] = static_cast<short>(std::lround(d * 1024)), lw.arc[i][j] = aw.data[i][j];
          }
        }
        std::vector<Mixture> mix;
        std::vector<GaussMixServer *> ds, dw;
        for (int i = 0; i < n; ++i) {
          mix.emplace_back(nMix, kDim, rng);
          ds.push_back(mix.back().make(false)), dw.push_back(mix.back().make(true));
        }
        const int ids = XKsInitContHMMServer(as.p(), pis.data(), ds.data(), n, kDim, XK_HMM_LOGARITHMIC);
        const int idw = XKwInitContHMMServer(aw.p(), piw.data(), dw.data(), n, kDim, XK_HMM_LOGARITHMIC, kParam);
        for (int i = 0; i < n; ++i) XKsFreeGaussMixServer(ds[i]), XKwFreeGaussMixServer(dw[i]);
        ASSERT_GT(ids, 0);
        ASSERT_GT(idw, 0);
        std::vector<std::vector<short>> xw(T, std::vector<short>(kDim));
        std::vector<std::vector<float>> xs(T);
        std::vector<const float *> ps;
        std::vector<const short *> pw;
        for (int t = 0; t < T; ++t) {
          for (short &v : xw[t]) v = static_cast<short>(x(rng)), xs[t].push_back(v);
          ps.push_back(xs[t].data()), pw.push_back(xw[t].data());
          ls.out.emplace_back(), lw.out.emplace_back();
          for (const Mixture &m : mix) {
            ls.out[t].push_back(-std::log10(m.density(xw[t])));
            lw.out[t].push_back(-std::log(m.density(xw[t])) * (1 << kParam));
          }
        }
        // Float: each frame's cost carries a few 2^-24 relative errors (the
        // float likelihood, its logarithm, the product) and the sums add
        // (2T + 1) roundings; on costs of order 1, 1e-6 per frame covers both.
        EXPECT_NEAR(XKsEvalContHMMViterbi(ids, ps.data(), T, nullptr), enumerate(ls), 1e-6 * T);
        // 16-bit: the fixed-point exponential is within 0.2 % of exp (2.1
        // units of 2^-10 in -ln), the Q28 likelihood (>= 0.005 here) within
        // 2^-28 relative 1e-6, the logarithm rounds by 0.5: 3 units a frame.
        EXPECT_NEAR(XKwEvalContHMMViterbi(idw, pw.data(), T, nullptr, 0, nullptr), enumerate(lw), 3.0 * T);
        XKFreeHMMServer(ids);
        XKFreeHMMServer(idw);
      }
}

// The fixed-point logarithm over its whole input range: every leading-bit
// position with random lower bits, at several output precisions. The
// kernel's own error is below 2^-37 in ln units (see fixlog.cpp), so the
// result is the rounded value within 0.5 + 2^(p - 37) units, plus a margin
// of 2^-40 p-units for the double reference.
TEST(FixLog, MatchesLogInDouble) {
  std::mt19937 rng(5);
  for (int p : {0, 6, 12, 16, 20}) {
    const double tol = 0.5 + std::ldexp(1.0, p - 37) + 1e-9;
    for (int e = 0; e <= 30; ++e)
      for (int k = 0; k < 200; ++k) {
        std::uint32_t v = 1u << e;
        if (e > 0) v |= static_cast<std::uint32_t>(rng()) & ((1u << e) - 1);
        if (k == 1) v = (e == 30 ? 0x7FFFFFFFu : (2u << e) - 1);  // top of the octave
        const double exact = -std::log(std::ldexp(static_cast<double>(v), -28)) * std::ldexp(1.0, p);
        const std::int32_t got = xk::hmm::fixLogCost(static_cast<std::int32_t>(v), -28, -p);
        if (std::fabs(exact) >= kWImp)
          EXPECT_EQ(got, exact > 0 ? kWImp : -kWImp);
        else
          EXPECT_LE(std::fabs(got - exact), tol) << "v " << v << " p " << p;
      }
  }
  EXPECT_EQ(xk::hmm::fixLogCost(0, -28, -12), kWImp);
  EXPECT_EQ(xk::hmm::fixLogCost(-5, -28, -12), kWImp);
  EXPECT_EQ(xk::hmm::fixLogCost(1 << 28, -28, -12), 0);  // likelihood 1
}

// The best single path is never more probable than all paths together: on
// one model held as costs (Viterbi) and as probabilities (forward), the
// Viterbi cost is never below the forward cost. Float sums of T + 1 costs
// allow the tolerance of floatTolerance.
TEST_F(Freed, ViterbiCostIsNeverBelowForwardCost) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> prob(0.02, 1.0);
  for (Topology topo : kTopologies)
    for (int n : {3, 8, 21}) {
      const int m = 6, T = 40;
      std::vector<std::vector<float>> pa(n, std::vector<float>(n, 0.0f)), ca(pa), pb(n, std::vector<float>(m)), cb(pb);
      std::vector<float> ppi(n), cpi(n);
      auto cost = [](float p) { return p > 0.0f ? static_cast<float>(-std::log10(p)) : kBig; };
      for (int i = 0; i < n; ++i) {
        ppi[i] = i == 0 ? 1.0f : 0.0f;
        for (int j = 0; j < n; ++j)
          if (allowed(topo, i, j)) pa[i][j] = static_cast<float>(prob(rng));
        for (int k = 0; k < m; ++k) pb[i][k] = static_cast<float>(prob(rng));
      }
      for (int i = 0; i < n; ++i) {
        cpi[i] = cost(ppi[i]);
        for (int j = 0; j < n; ++j) ca[i][j] = cost(pa[i][j]);
        for (int k = 0; k < m; ++k) cb[i][k] = cost(pb[i][k]);
      }
      Rows<float> A(pa), B(pb), CA(ca), CB(cb);
      const int fwd = XKsInitHMMServer(A.p(), B.p(), ppi.data(), n, m, XK_HMM_EXPONENTIAL);
      const int vit = XKsInitHMMServer(CA.p(), CB.p(), cpi.data(), n, m, XK_HMM_LOGARITHMIC);
      for (int trial = 0; trial < 5; ++trial) {
        const auto obs = randomObs(T, m, rng);
        const float f = XKsEvalHMMForward(fwd, obs.data(), T, nullptr);
        const float v = XKsEvalHMMViterbi(vit, obs.data(), T, nullptr);
        ASSERT_LT(v, 1e30f);
        ASSERT_LT(f, 1e30f);
        EXPECT_GE(v, f - floatTolerance(v, T)) << "n " << n;
      }
    }
}

}  // namespace
