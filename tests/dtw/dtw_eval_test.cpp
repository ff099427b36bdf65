// DTW evaluation against a full-matrix reference written from the rules
// (bands from the slope lines, step choice, pruning, the last-frame rule),
// with local distances from the norm kernels. Scores must agree bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "dtw/dtw_internal.h"
#include "frame/context.h"
#include "xkl_test_support.h"

namespace {

using Matrix = std::vector<std::vector<float>>;

// Band per test frame, written the long way: end walks back from the last
// reference frame losing one every second frame until the slope-2 line from
// D takes over; start climbs 0,0,1,1,... until the slope-2 line into the
// last frame takes over.
void referenceBand(int N, int M, int D, std::vector<int> &start, std::vector<int> &end) {
  start.assign(N, 0), end.assign(N, 0);
  const int k1 = std::max(-1, static_cast<int>(std::floor((2.0 * M - N - 2 * D - 1) / 3)));
  int e = M - 1;
  for (int i = N - 1; i > k1; --i) {
    end[i] = e;
    if ((i - 1) % 2 == (N - 1) % 2) --e;
  }
  for (int i = k1; i >= 0; --i) end[i] = D + 2 * i;
  int k2 = static_cast<int>(std::ceil((4.0 * N + 2 * D - 2 * M - 2) / 3));
  if (k2 > N - 1) k2 = N;
  for (int i = 0; i < N; ++i) start[i] = i < k2 ? i / 2 : M + 2 * i - 2 * N - D + 1;
}

// Value traits of the reference: float cells with the 3.4e38 sentinel and a
// double threshold, or 32-bit cells with 0x7FFFFFFF and an int threshold.
struct FloatCells {
  using V = float;
  using Score = double;
  static V inf() { return 3.4e38f; }
  static bool below(V a, Score T) { return static_cast<double>(a) < T; }
  static V fromScore(Score T) { return static_cast<float>(T); }
  static bool measured(V a) { return static_cast<double>(a) < 3.4e38; }
  static V add(V a, V d) { return a + d; }
};
struct IntCells {
  using V = int32_t;
  using Score = int32_t;
  static V inf() { return 0x7FFFFFFF; }
  static bool below(V a, Score T) { return a < T; }
  static V fromScore(Score T) { return T; }
  static bool measured(V) { return true; }
  static V add(V a, V d) { return static_cast<V>(std::min<int64_t>(int64_t{a} + d, 0x7FFFFFFF)); }
};

// One pattern, full matrix: row i of C and H from row i-1, cells outside the
// band unreachable. dist(i, j) gives the local distance as a cell value.
template <class C, class Dist>
typename C::Score referenceScore(int N, int M, int D, typename C::Score T, Dist dist) {
  using V = typename C::V;
  std::vector<int> start, end;
  referenceBand(N, M, D, start, end);
  const V inf = C::inf();
  std::vector<std::vector<V>> A(N, std::vector<V>(M, inf));
  std::vector<std::vector<int>> H(N, std::vector<int>(M, 0));
  const auto at = [&](int i, int j) { return j < 0 ? inf : A[i][j]; };
  bool any = false;
  for (int j = 0; j <= end[0]; ++j) {
    A[0][j] = dist(0, j);
    if (C::below(A[0][j], T)) any = true; else A[0][j] = inf;
  }
  if (!any) return T;
  // Predecessor of column j in row r; `blocked` replaces a second
  // horizontal step.
  const auto pred = [&](int r, int j, V blocked, int &horizontal) {
    V c = H[r][j] ? blocked : at(r, j);
    horizontal = 1;
    if (at(r, j - 1) <= c) c = at(r, j - 1), horizontal = 0;
    if (at(r, j - 2) < c) c = at(r, j - 2), horizontal = 0;
    return c;
  };
  for (int i = 1; i < N - 1; ++i) {
    any = false;
    for (int j = start[i]; j <= end[i]; ++j) {
      V c = pred(i - 1, j, inf, H[i][j]);
      if (!C::below(c, T)) c = inf;
      if (C::below(c, T)) any = true;
      A[i][j] = C::measured(c) ? C::add(c, dist(i, j)) : c;
    }
    if (!any) return T;
  }
  // Last frame, a second horizontal step costing the threshold (with N == 1
  // it follows the first frame's own values).
  typename C::Score best = T;
  V bestValue = C::fromScore(T);
  for (int j = M - 1, h; j >= start[N - 1]; --j) {
    const V a = C::add(dist(N - 1, j), pred(N == 1 ? 0 : N - 2, j, C::fromScore(T), h));
    if (C::below(a, T) && a < bestValue) bestValue = a, best = a;
  }
  return best;
}

// Random frames; with `coarse` the values are small integers, so distances
// tie often and the tie rules decide.
Matrix randomFrames(std::mt19937 &gen, int n, int dim, bool coarse) {
  Matrix m(n, std::vector<float>(dim));
  std::uniform_real_distribution<float> u(-2, 2);
  for (auto &row : m)
    for (auto &v : row) v = coarse ? static_cast<float>(gen() % 3) : u(gen);
  return m;
}

template <class T>
std::vector<T *> rows(std::vector<std::vector<T>> &m) {
  std::vector<T *> p;
  for (auto &r : m) p.push_back(r.data());
  return p;
}

// n frames of dim 16-bit values uniform in [-range, range].
std::vector<std::vector<short>> shortFrames(std::mt19937 &gen, int n, int dim, int range) {
  std::vector<std::vector<short>> m(n, std::vector<short>(dim));
  for (auto &r : m)
    for (auto &v : r) v = static_cast<short>(static_cast<int>(gen() % (2 * range + 1)) - range);
  return m;
}

constexpr xk::dtw::DtwIsa kIsas[] = {xk::dtw::DtwIsa::Avx512, xk::dtw::DtwIsa::Avx2, xk::dtw::DtwIsa::Portable};

class DtwEval : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKsPatternFreeAll();
    XKwPatternFreeAll();
    xk::dtw::setDtwIsa(xk::dtw::DtwIsa::Avx512);
    ReportingTest::TearDown();
  }
};

// Random tests and patterns with lengths around both admission bounds,
// every flag combination, thresholds that prune some patterns, both kernels.
TEST_F(DtwEval, FloatScoresEqualTheFullMatrixReference) {
  std::mt19937 gen(11);
  int compared = 0, pruned = 0, ties = 0;
  for (int N : {1, 2, 3, 4, 7, 20, 41})
    for (int delta : {0, 2, -5})
      for (bool coarse : {false, true}) {
        const int dim = coarse ? 2 : 1 + static_cast<int>(gen() % 13);
        Matrix test = randomFrames(gen, N, dim, coarse);
        std::vector<Matrix> refs;
        std::vector<int> ids;
        const int lo = (N - 1) / 2 + 1, hi = 2 * N - 1 + std::abs(delta);
        for (int M : {lo - 1, lo, lo + 1, N, (lo + hi) / 2, hi - 1, hi, hi + 1}) {
          if (M < 1) continue;
          refs.push_back(randomFrames(gen, M, dim, coarse));
          ids.push_back(XKsPatternIni(rows(refs.back()).data(), M, dim));
        }
        auto t = rows(test);
        for (int flags : {0, 1, 64, 65, 128, 129, 192, 193})
          for (auto isa : kIsas) {
            if (isa > xk::dtw::dtwIsaAvailable()) continue;
            xk::dtw::setDtwIsa(isa);
            const double T = flags & 64 ? 0.6 * N * (coarse ? 1.0 : 2.0) : 3.4e38;
            std::vector<double> scores(ids.size());
            const int best = XKsEvalDTW(ids.data(), static_cast<int>(ids.size()), t.data(), N, dim, flags, T, delta,
                                        scores.data());
            double bestScore = 3.4e38;
            int expectBest = 0;
            for (size_t p = 0; p < ids.size(); ++p) {
              const int M = static_cast<int>(refs[p].size());
              const int D = flags & 1 ? 0 : std::abs(delta);
              const bool in = M >= lo && M <= 2 * N - 1 + D;
              double want = 3.4e38;
              if (in)
                want = referenceScore<FloatCells>(N, M, std::min(D, M - 1), T, [&](int i, int j) {
                  const int norm = flags & 128 ? KFX_L1 : KFX_L2;
                  return static_cast<float>(kfxsNorm(test[i].data(), refs[p][j].data(), dim, norm));
                });
              EXPECT_EQ(scores[p], want) << "N " << N << " M " << M << " delta " << delta << " flags " << flags
                                         << " coarse " << coarse << " isa " << static_cast<int>(isa);
              ties += in && want == bestScore;
              if (want < bestScore) bestScore = want, expectBest = static_cast<int>(p);
              compared += in;
              pruned += in && want == T;
            }
            EXPECT_EQ(best, expectBest);
          }
        XKsPatternFreeAll();
      }
  EXPECT_GT(compared, 1000);
  EXPECT_GT(pruned, 50);  // the thresholds did prune
  EXPECT_GT(ties, 50);    // and equal scores met
  EXPECT_TRUE(xkltest::reports().empty());
}

// The distance kernels against kfxsNorm in double, bit for bit (a fused
// multiply-add would show here long before it changes a float score).
TEST_F(DtwEval, LocalDistancesEqualTheNormKernelInEveryIsa) {
  std::mt19937 gen(29);
  for (int dim : {1, 7, 39}) {
    const int M = 70, ld = M + 32;
    // Wide exponents make x - r carry more than 26 bits, so its square is
    // inexact and a fused multiply-add would round differently.
    Matrix ref = randomFrames(gen, M, dim, false), x = randomFrames(gen, 1, dim, false);
    for (auto *m : {&ref, &x})
      for (auto &row : *m)
        for (auto &v : row) v = std::ldexp(v, static_cast<int>(gen() % 41) - 20);
    std::vector<double> T(dim * ld), xd(x[0].begin(), x[0].end()), out(ld + 16);
    for (int j = 0; j < M; ++j)
      for (int k = 0; k < dim; ++k) T[k * ld + j] = ref[j][k];
    for (auto isa : kIsas) {
      if (isa > xk::dtw::dtwIsaAvailable()) continue;
      xk::dtw::setDtwIsa(isa);
      for (bool l1 : {false, true})
        for (int j0 : {0, 3, 17})
          for (int j1 : {j0, j0 + 2, j0 + 5, j0 + 13, j0 + 30, M - 1}) {
            xk::dtw::localDistances(xd.data(), T.data(), ld, dim, j0, j1, l1, out.data());
            for (int j = j0; j <= j1; ++j)
              ASSERT_EQ(out[j], kfxsNorm(x[0].data(), ref[j].data(), dim, l1 ? KFX_L1 : KFX_L2))
                  << "isa " << static_cast<int>(isa) << " dim " << dim << " cells " << j0 << ".." << j1;
          }
    }
  }
}

// What the random comparison above cannot meet by chance: a pattern equal
// to the test, and a test of another dim. (Equal scores, where the earlier
// pattern wins, it meets among pruned patterns.)
TEST_F(DtwEval, IdentityAndOtherDim) {
  std::mt19937 gen(3);
  Matrix test = randomFrames(gen, 12, 3, false), other = randomFrames(gen, 12, 3, false);
  auto t = rows(test), o = rows(other);
  const int ids[2] = {XKsPatternIni(o.data(), 12, 3), XKsPatternIni(t.data(), 12, 3)};
  double sc[2];
  EXPECT_EQ(XKsEvalDTW(ids, 2, t.data(), 12, 3, 0, 0, 0, sc), 1);
  EXPECT_EQ(sc[1], 0.0);
  EXPECT_EQ(XKsEvalDTW(ids, 2, t.data(), 12, 2, 0, 0, 0, sc), 0);
  EXPECT_EQ(sc[0], 3.4e38);
}

// 16-bit patterns: the integer path against the integer reference for the
// scale modes 0, 1 and 3 and every flag combination.
TEST_F(DtwEval, IntegerPathEqualsItsReference) {
  std::mt19937 gen(17);
  for (int N : {1, 3, 9, 30}) {
    const int dim = 1 + static_cast<int>(gen() % 6);
    auto test = shortFrames(gen, N, dim, 3000);
    auto t = rows(test);
    std::vector<std::vector<std::vector<short>>> refs;
    std::vector<int> ids;
    for (int M : {N / 2 + 1, N, 2 * N - 1, 2 * N + 2}) {
      refs.push_back(shortFrames(gen, M, dim, 3000));
      ids.push_back(XKwPatternIni(rows(refs.back()).data(), M, dim, 0));
    }
    for (int flags : {0, 1, 64, 65, 128, 129, 192, 193})
      for (int scaleMode : {0, 1, 3})
        for (auto isa : kIsas) {
          if (isa > xk::dtw::dtwIsaAvailable()) continue;
          xk::dtw::setDtwIsa(isa);
          int factor = 2;
          const int T = flags & 64 ? 1500 * N : 0x7FFFFFFF;
          std::vector<int> scores(ids.size());
          XKwEvalDTW(ids.data(), static_cast<int>(ids.size()), t.data(), N, dim, 0, flags, T, 5, 3, scores.data(),
                     scaleMode, &factor);
          for (size_t p = 0; p < ids.size(); ++p) {
            auto &ref = refs[p];
            const int M = static_cast<int>(ref.size());
            const int D = flags & 1 ? 0 : 3;
            int want = 0x7FFFFFFF;
            if (M >= (N - 1) / 2 + 1 && M <= 2 * N - 1 + D)
              want = referenceScore<IntCells>(N, M, std::min(D, M - 1), T, [&](int i, int j) {
                int f = factor, norm = flags & 128 ? KFX_L1 : KFX_L2;
                return static_cast<int32_t>(
                    kfxwNormExt(test[i].data(), ref[j].data(), dim, norm, scaleMode == 1 ? KFX_FIXED_SCALE : 0, &f));
              });
            EXPECT_EQ(scores[p], want) << "N " << N << " M " << M << " flags " << flags << " mode " << scaleMode
                                       << " isa " << static_cast<int>(isa);
          }
        }
    XKwPatternFreeAll();
  }
}

// Automatic scaling evaluates in float on the float copies: the same
// scores as XKsEvalDTW on those values, converted with XKdibConvertDown.
TEST_F(DtwEval, AutomaticScalingUsesTheFloatCopies) {
  std::mt19937 gen(23);
  const int N = 15, dim = 4, testScale = -6, patternScale = -5;
  auto test = shortFrames(gen, N, dim, 1000);
  Matrix ft(N, std::vector<float>(dim));
  for (int i = 0; i < N; ++i)
    for (int k = 0; k < dim; ++k) ft[i][k] = std::ldexp(test[i][k], testScale);
  auto t = rows(test);
  auto fp = rows(ft);
  std::vector<int> wids, sids;
  for (int M : {10, 15, 22}) {
    auto r = shortFrames(gen, M, dim, 1000);
    wids.push_back(XKwPatternIni(rows(r).data(), M, dim, patternScale));
    const XKwPattern *rec = static_cast<const XKwPattern *>(xk::context().wPatterns.head);
    while (rec->id != wids.back()) rec = rec->next;
    sids.push_back(XKsPatternIni(rec->floatData, M, dim));
  }
  for (int flags : {0, 64, 128, 193}) {
    std::vector<double> want(3);
    const int wantBest = XKsEvalDTW(sids.data(), 3, fp.data(), N, dim, flags, std::ldexp(300.0, -4), 2, want.data());
    std::vector<int> wantInt(3), got(3);
    int wantFactor = 0, factor = 0;
    XKdibConvertDown(want.data(), wantInt.data(), 3, XK_AUTO_SCALE, &wantFactor);
    EXPECT_EQ(XKwEvalDTW(wids.data(), 3, t.data(), N, dim, testScale, flags, 300, -4, 2, got.data(), XK_AUTO_SCALE, &factor),
              wantBest);
    EXPECT_EQ(got, wantInt) << flags;
    EXPECT_EQ(factor, wantFactor);
  }
}

}  // namespace
