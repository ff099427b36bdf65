// Viterbi evaluation against independent references: brute-force
// enumeration of every state path (tiny models) and a plain log-space
// dynamic programme in double over the full matrices (larger ones), on
// transition arrays packed by hand from the layout description; the
// fixed-point logarithm against log(); the vector steps against the
// portable ones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "hmm/fixlog.h"
#include "hmm/viterbi_kernels.h"
#include "xkl/kfx.h"

namespace {

using xk::hmm::Model;
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

// The cost of a transition: arcs outside the topology do not exist (a
// 16-bit impossible value is a finite cost, but the packed band or
// triangle has no slot for them).
template <class T>
double arc(const Hmm<T> &h, int i, int j) {
  return allowed(h.topology, i, j) ? num(h.a[i][j]) : std::numeric_limits<double>::infinity();
}

// Least path cost by enumerating all n^T state paths.
template <class T>
double bruteForce(const Hmm<T> &h, const std::vector<int> &obs) {
  const int T_ = static_cast<int>(obs.size());
  std::vector<int> s(T_, 0);
  double best = std::numeric_limits<double>::infinity();
  for (;;) {
    double c = num(h.pi[s[0]]) + num(h.b[s[0]][obs[0]]);
    for (int t = 1; t < T_; ++t) c += arc(h, s[t - 1], s[t]) + num(h.b[s[t]][obs[t]]);
    best = std::min(best, c);
    int t = 0;
    while (t < T_ && ++s[t] == h.n) s[t++] = 0;
    if (t == T_) break;
  }
  return best;
}

// The textbook recursion in double over the full matrices.
template <class T>
double logSpaceDp(const Hmm<T> &h, const std::vector<int> &obs) {
  std::vector<double> d(h.n), e(h.n);
  for (int j = 0; j < h.n; ++j) d[j] = num(h.pi[j]) + num(h.b[j][obs[0]]);
  for (std::size_t t = 1; t < obs.size(); ++t) {
    for (int j = 0; j < h.n; ++j) {
      double best = std::numeric_limits<double>::infinity();
      for (int i = 0; i < h.n; ++i) best = std::min(best, d[i] + arc(h, i, j));
      e[j] = best + num(h.b[j][obs[t]]);
    }
    d.swap(e);
  }
  return *std::min_element(d.begin(), d.end());
}

// A kfxMalloc block (32-byte aligned), freed with the object.
template <class T>
struct Block {
  T *p;
  explicit Block(std::size_t n, T fill) : p(static_cast<T *>(kfxMalloc(static_cast<int>(n * sizeof(T))))) {
    std::fill(p, p + n, fill);
  }
  ~Block() { kfxFree(p); }
  Block(const Block &) = delete;
};

// The store's packed arrays of a model, written out from the layout
// description: float logarithmic and 16-bit widened to 32-bit slots.
template <class T>
struct Packed {
  using Slot = std::conditional_t<std::is_same_v<T, float>, float, std::int32_t>;
  std::vector<Slot> trans, initial, outputs;  // outputs: m rows of `rowLen`
  int rowLen = 0;
  std::vector<const Slot *> rows;

  explicit Packed(const Hmm<T> &h) {
    const bool f = std::is_same_v<T, float>;
    const int n = h.n, even = (n + 1) & ~1;
    const Slot pad = f ? Slot(kBig) : Slot(kWImp);
    auto w = [&](T v) { return f ? Slot(v) : Slot(num(v)); };
    switch (h.topology) {
      case Topology::General:
        for (int j = n - 1; j >= 0; --j) {
          for (int i = 0; i < n; ++i) trans.push_back(w(h.a[i][j]));
          if (!f && n % 2) trans.push_back(pad);
        }
        break;
      case Topology::LeftRight:
        for (int j = n - 1; j >= 0; --j)
          for (int i = 0; i <= j; ++i) trans.push_back(w(h.a[i][j]));
        break;
      case Topology::Bakis:
        if (f) {
          for (int i = 0; i < n; ++i) trans.push_back(w(h.a[i][i]));
          for (int i = 0; i + 1 < n; ++i) trans.push_back(w(h.a[i][i + 1]));
          for (int i = 0; i + 2 < n; ++i) trans.push_back(w(h.a[i][i + 2]));
          trans.push_back(w(h.a[n - 1][n - 1]));
        } else {
          for (int d = 0; d < 3; ++d)
            for (int j = 0; j < even; ++j)
              trans.push_back(j >= n ? Slot(0x1FFFFFFF) : j < d ? pad : w(h.a[j - d][j]));
        }
        break;
    }
    trans.insert(trans.end(), xk::hmm::kTransSlack, f ? Slot(kBig) : Slot(0x1FFFFFFF));
    rowLen = f ? (n + 3) & ~3 : even;
    for (int i = 0; i < rowLen; ++i) initial.push_back(i < n ? w(h.pi[i]) : pad);
    for (int k = 0; k < h.m; ++k)
      for (int i = 0; i < rowLen; ++i) outputs.push_back(i < n ? w(h.b[i][k]) : pad);
    for (int k = 0; k < h.m; ++k) rows.push_back(outputs.data() + k * rowLen);
  }
  Model<Slot> model(Topology t, int n) const { return {trans.data(), initial.data(), n, t}; }
};

// Runs the kernels on the hand-packed model.
template <class T>
auto kernelCost(const Hmm<T> &h, const std::vector<int> &obs) {
  Packed<T> p(h);
  using Slot = typename Packed<T>::Slot;
  const int stride = xk::hmm::rowStride(h.n);
  Block<Slot> rows(2 * stride, xk::hmm::rowPad<Slot>());
  return xk::hmm::runViterbi(p.model(h.topology, h.n), static_cast<int>(obs.size()), rows.p + xk::hmm::kRowGuard,
                             rows.p + stride + xk::hmm::kRowGuard, [&](int t) { return p.rows[obs[t]]; });
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

class ViterbiPaths : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { xk::hmm::setViterbiSimd(GetParam()); }
  void TearDown() override { xk::hmm::setViterbiSimd(true); }
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
          const auto hs = randomHmm<float>(n, 5, topo, rng);
          expectFloatCost(kernelCost(hs, obs), bruteForce(hs, obs), T);
          const auto hw = randomHmm<short>(n, 5, topo, rng);
          EXPECT_EQ(kernelCost(hw, obs), static_cast<std::int32_t>(bruteForce(hw, obs)));
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
        const auto hs = randomHmm<float>(n, 16, topo, rng, 2);
        expectFloatCost(kernelCost(hs, obs), logSpaceDp(hs, obs), T);
        const auto hw = randomHmm<short>(n, 16, topo, rng, 2);
        EXPECT_EQ(kernelCost(hw, obs), static_cast<std::int32_t>(logSpaceDp(hw, obs)));
      }
}

INSTANTIATE_TEST_SUITE_P(PortableAndVector, ViterbiPaths, ::testing::Values(false, true));

// The vector steps give the portable results bit for bit, including rows
// where every predecessor is impossible (sums that overflow to inf).
TEST(ViterbiKernels, VectorStepsEqualPortableBitForBit) {
  if (!xk::hmm::viterbiSimdActive()) GTEST_SKIP() << "no AVX2";
  std::mt19937 rng(3);
  for (Topology topo : kTopologies)
    for (int n = 3; n <= 40; ++n) {
      auto h = randomHmm<float>(n, 8, topo, rng);
      if (n % 5 == 0)
        for (int i = 0; i < n; ++i) h.a[i][n / 2] = kBig;  // an unreachable state
      const auto obs = randomObs(60, 8, rng);
      xk::hmm::setViterbiSimd(false);
      const float portable = kernelCost(h, obs);
      xk::hmm::setViterbiSimd(true);
      const float vector = kernelCost(h, obs);
      EXPECT_EQ(std::bit_cast<std::uint32_t>(portable), std::bit_cast<std::uint32_t>(vector)) << "n " << n;
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

}  // namespace
