// Viterbi evaluation against enumeration of every state path (tiny models),
// a min-plus recursion in double (larger ones), densities in double for the
// continuous forms; fixed-point log against log(); vector against portable.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "hmm/fixlog.h"
#include "hmm_refs.h"

namespace {

using namespace hmmtest;
using xk::hmm::Topology;
constexpr std::int32_t kWImp = 0x1FFFFF;
constexpr double kInf = std::numeric_limits<double>::infinity();

// A caller's model: full cost matrices, impossible entries kBig or 32767.
template <class T>
struct Hmm {
  int n = 0, m = 0;
  Topology topology = Topology::General;
  std::vector<std::vector<T>> a, b;  // a[i][j], b[i][k]
  std::vector<T> pi;
};

template <class T>
Hmm<T> randomHmm(int n, int m, Topology topo, std::mt19937 &rng, int impossiblePct = 8) {
  constexpr bool fl = std::is_same_v<T, float>;
  Hmm<T> h{n, m, topo, std::vector(n, std::vector<T>(n)), std::vector(n, std::vector<T>(m)), std::vector<T>(n)};
  std::uniform_real_distribution<double> cost(0.0, 3.0);
  std::uniform_int_distribution<int> pct(0, 99);
  auto value = [&](bool possible) -> T {
    if (!possible || pct(rng) < impossiblePct) return fl ? T(kBig) : T(32767);
    const double c = cost(rng);
    return fl ? T(c) : T(std::lround(c * 1000.0));
  };
  for (int i = 0; i < n; ++i) {
    h.pi[i] = value(true);
    for (int j = 0; j < n; ++j) h.a[i][j] = value(allowed(int(topo), i, j));
    for (int k = 0; k < m; ++k) h.b[i][k] = value(true);
  }
  return h;
}

// The cost of an entry as a number: float values as they are, 16-bit
// impossible values widened as the store widens them.
double num(float v) { return v; }
double num(short v) { return v >= 32766 ? double(kWImp) : double(v); }

// A path problem in double: arc[i][j] (+inf: no arc), pi[i], out[t][j].
struct Lattice {
  std::vector<std::vector<double>> arc, out;
  std::vector<double> pi;
};

// The discrete model's lattice: arcs outside the topology do not exist (a
// 16-bit impossible value is a finite cost, but the packing has no slot).
template <class T>
Lattice latticeOf(const Hmm<T> &h, const std::vector<int> &obs) {
  Lattice l{std::vector(h.n, std::vector<double>(h.n)), {}, {}};
  for (int i = 0; i < h.n; ++i) {
    l.pi.push_back(num(h.pi[i]));
    for (int j = 0; j < h.n; ++j) l.arc[i][j] = allowed(int(h.topology), i, j) ? num(h.a[i][j]) : kInf;
  }
  for (int o : obs) {
    l.out.emplace_back();
    for (int j = 0; j < h.n; ++j) l.out.back().push_back(num(h.b[j][o]));
  }
  return l;
}

// Least path cost over all n^T state paths.
double enumerate(const Lattice &l) {
  double best = kInf;
  forEachPath(int(l.pi.size()), int(l.out.size()), [&](const std::vector<int> &s) {
    double c = l.pi[s[0]] + l.out[0][s[0]];
    for (std::size_t t = 1; t < s.size(); ++t) c += l.arc[s[t - 1]][s[t]] + l.out[t][s[t]];
    best = std::min(best, c);
  });
  return best;
}

// The textbook recursion in double over the full matrices.
double recursion(const Lattice &l) {
  const std::size_t n = l.pi.size();
  std::vector<double> d(n), e(n);
  for (std::size_t j = 0; j < n; ++j) d[j] = l.pi[j] + l.out[0][j];
  for (std::size_t t = 1; t < l.out.size(); ++t) {
    for (std::size_t j = 0; j < n; ++j) {
      double best = kInf;
      for (std::size_t i = 0; i < n; ++i) best = std::min(best, d[i] + l.arc[i][j]);
      e[j] = best + l.out[t][j];
    }
    d.swap(e);
  }
  return *std::min_element(d.begin(), d.end());
}

// Creates the server; the topology the store detected replaces the
// generator's (a random band may lose its only long skip).
template <class T>
int create(Hmm<T> &h) {
  Rows<T> a(h.a), b(h.b);
  const int id = init(a.p(), b.p(), h.pi.data(), h.n, h.m, XK_HMM_LOGARITHMIC);
  h.topology = xk::hmm::topologyOf(statusOf(id));
  return id;
}

float evaluate(int id, const std::vector<int> &obs, float, int *best = nullptr) {
  return XKsEvalHMMViterbi(id, obs.data(), int(obs.size()), best);
}
std::int32_t evaluate(int id, const std::vector<int> &obs, short) {
  return XKwEvalHMMViterbi(id, obs.data(), int(obs.size()), nullptr, 0, nullptr);
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

// Float sums of T + 1 terms: each addition rounds by at most 2^-24 of the
// running sum, so |error| <= (2T + 1) 2^-24 |cost|.
void expectFloatCost(float got, double ref, int T) {
  if (ref >= 1e37)
    EXPECT_GE(got, 1e37f);
  else
    EXPECT_NEAR(got, ref, (2.0 * T + 1.0) * std::ldexp(std::fabs(ref), -24) + 1e-6);
}

const Topology kTopologies[] = {Topology::General, Topology::LeftRight, Topology::Bakis};

// Every topology, both representations, portable and vector steps: tiny
// models (n <= 4, T <= 6; Bakis needs n >= 3) against enumeration, larger
// ones (n up to 64 for the vector widths and remainders, T up to 1000)
// against the recursion, with few impossible entries so that no best 16-bit
// path collects the 2^31 / 0x1FFFFF impossible steps that wrap the sums.
TEST_F(Freed, KernelsEqualTheReferences) {
  const struct {
    unsigned seed;
    std::vector<int> ns, Ts;
    int m, reps, impossiblePct;
    double (*ref)(const Lattice &);
  } sets[] = {{7, {1, 2, 3, 4}, {1, 2, 3, 4, 5, 6}, 5, 3, 8, enumerate},
              {11, {3, 5, 8, 13, 31, 64}, {2, 97, 1000}, 16, 1, 2, recursion}};
  for (bool simd : {false, true})
    for (const auto &s : sets) {
      xk::hmm::setViterbiSimd(simd);
      std::mt19937 rng(s.seed);
      for (Topology topo : kTopologies)
        for (int n : s.ns)
          for (int T : s.Ts)
            for (int rep = 0; rep < s.reps && (topo != Topology::Bakis || n >= 3); ++rep) {
              SCOPED_TRACE(::testing::Message() << "simd " << simd << " topology " << int(topo) << " n " << n
                                                << " T " << T);
              const auto obs = randomObs(T, s.m, rng);
              auto hs = randomHmm<float>(n, s.m, topo, rng, s.impossiblePct);
              const float cs = apiCost(hs, obs);
              expectFloatCost(cs, s.ref(latticeOf(hs, obs)), T);
              auto hw = randomHmm<short>(n, s.m, topo, rng, s.impossiblePct);
              const std::int32_t cw = apiCost(hw, obs);
              EXPECT_EQ(cw, static_cast<std::int32_t>(s.ref(latticeOf(hw, obs))));
            }
    }
}

// The vector steps give the portable bits, also when the first frame is
// impossible everywhere: inf wins nothing, so *bestId stays unset (a padding
// lane that undercut inf would hand out a winner).
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
        EXPECT_TRUE(!deadStart || best[1] == -1) << "a dead start has no winner";
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
  int scale;
  for (auto [flag, s, want] : {std::tuple(1, -2, raw * 4), std::tuple(1, 3, raw >> 3), std::tuple(0, 7, raw)}) {
    scale = s;
    EXPECT_EQ(XKwEvalHMMViterbi(wa, obs.data(), 20, &best, flag, &scale), want);
  }
  EXPECT_EQ(scale, 0);  // without scaling the factor comes back 0
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

// Continuous servers (1..3 states and components, dimension 3, T <= 5),
// float and 16-bit (2^-10 nats), against enumeration, densities in double.
TEST_F(Freed, ContinuousEqualsEnumerationWithDensitiesInDouble) {
  constexpr int kDim = 3, kParam = 10;
  std::mt19937 rng(21);
  std::uniform_real_distribution<double> u(0.2, 2.0);
  std::uniform_int_distribution<int> x(-3, 3);
  for (int n = 1; n <= 3; ++n)
    for (int nMix = 1; nMix <= 3; ++nMix)
      for (int T = 1; T <= 5; T += 2) {
        SCOPED_TRACE(::testing::Message() << "n " << n << " nMix " << nMix << " T " << T);
        // Each cost drawn once, held as a float (ls) and in 2^-10 units (lw).
        Lattice ls{std::vector(n, std::vector<double>(n)), {}, {}}, lw = ls;
        for (int i = 0; i < n; ++i)
          for (int j = -1; j < n; ++j) {
            const double c = u(rng), cs = static_cast<float>(c), cw = std::lround(c * 1024);
            if (j < 0) ls.pi.push_back(cs), lw.pi.push_back(cw);
            else ls.arc[i][j] = cs, lw.arc[i][j] = cw;
          }
        Rows<float> as(ls.arc);
        Rows<short> aw(lw.arc);
        std::vector<float> pis(ls.pi.begin(), ls.pi.end());
        std::vector<short> piw(lw.pi.begin(), lw.pi.end());
        std::vector<Mixture> mix;
        std::vector<GaussMixServer *> ds, dw;
        for (int i = 0; i < n; ++i) {
          mix.emplace_back(nMix, kDim, rng);
          ds.push_back(mix.back().make(false)), dw.push_back(mix.back().make(true));
        }
        const int ids = XKsInitContHMMServer(as.p(), pis.data(), ds.data(), n, kDim, XK_HMM_LOGARITHMIC);
        const int idw = XKwInitContHMMServer(aw.p(), piw.data(), dw.data(), n, kDim, XK_HMM_LOGARITHMIC, kParam);
        for (int i = 0; i < n; ++i) XKsFreeGaussMixServer(ds[i]), XKwFreeGaussMixServer(dw[i]);
        ASSERT_TRUE(ids > 0 && idw > 0);
        std::vector<std::vector<short>> xw(T, std::vector<short>(kDim));
        for (int t = 0; t < T; ++t) {
          for (short &v : xw[t]) v = static_cast<short>(x(rng));
          ls.out.emplace_back(), lw.out.emplace_back();
          for (const Mixture &m : mix) {
            ls.out[t].push_back(-std::log10(m.density(xw[t])));
            lw.out[t].push_back(-std::log(m.density(xw[t])) * (1 << kParam));
          }
        }
        // Float: each frame's cost carries a few 2^-24 relative errors (the
        // float likelihood, its logarithm, the product) and the sums add
        // (2T + 1) roundings; on costs of order 1, 1e-6 per frame covers both.
        EXPECT_NEAR(XKsEvalContHMMViterbi(ids, Rows<float>(xw).p(), T, nullptr), enumerate(ls), 1e-6 * T);
        // 16-bit: the fixed-point exponential is within 0.2 % of exp (2.1
        // units of 2^-10 in -ln), the Q28 likelihood (>= 0.005 here) within
        // 2^-28 relative 1e-6, the logarithm rounds by 0.5: 3 units a frame.
        EXPECT_NEAR(XKwEvalContHMMViterbi(idw, Rows<short>(xw).p(), T, nullptr, 0, nullptr), enumerate(lw), 3.0 * T);
      }
}

// The fixed-point logarithm at every leading-bit position with random lower
// bits: its own error is below 2^-37 ln units, so the result is the rounded
// value within 0.5 + 2^(p - 37) units (+ 2^-40 for the double reference).
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
  for (int v : {0, -5}) EXPECT_EQ(xk::hmm::fixLogCost(v, -28, -12), kWImp);
  EXPECT_EQ(xk::hmm::fixLogCost(1 << 28, -28, -12), 0);  // likelihood 1
}

// The best single path is never more probable than all paths together:
// one model held as probabilities (forward) and as their costs (Viterbi).
// A float sum of T + 1 costs rounds by at most (2T + 1) 2^-24 of itself.
TEST_F(Freed, ViterbiCostIsNeverBelowForwardCost) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> prob(0.02f, 1.0f);
  for (int topo = 0; topo < 3; ++topo)
    for (int n : {3, 8, 21}) {
      const int m = 6, T = 40;
      Rows<float> pa(n, n, 0.0f), pb(n, m, 0.0f), ca(n, n, kBig), cb(n, m, kBig);
      std::vector<float> ppi(n, 0.0f), cpi(n, kBig);
      ppi[0] = 1.0f, cpi[0] = 0.0f;
      for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j)
          if (allowed(topo, i, j)) pa(i, j) = prob(rng), ca(i, j) = -std::log10(pa(i, j));
        for (int k = 0; k < m; ++k) pb(i, k) = prob(rng), cb(i, k) = -std::log10(pb(i, k));
      }
      const int fwd = XKsInitHMMServer(pa.p(), pb.p(), ppi.data(), n, m, XK_HMM_EXPONENTIAL);
      const int vit = XKsInitHMMServer(ca.p(), cb.p(), cpi.data(), n, m, XK_HMM_LOGARITHMIC);
      for (int trial = 0; trial < 5; ++trial) {
        const auto obs = randomObs(T, m, rng);
        const float f = XKsEvalHMMForward(fwd, obs.data(), T, nullptr);
        const float v = XKsEvalHMMViterbi(vit, obs.data(), T, nullptr);
        ASSERT_LT(v, 1e30f);
        EXPECT_GE(v, f - (2.0 * T + 1) * std::ldexp(v, -24)) << "topology " << topo << " n " << n;
      }
    }
}

}  // namespace
