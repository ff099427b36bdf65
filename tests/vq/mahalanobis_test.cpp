// Mahalanobis distances against direct formulas in long double (exact for
// the 16-bit kernels' ranges), hand-computed rows for wrap-around, the integer
// root and the shifts; vectorised paths against the portable ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "vq/mahalanobis.h"
#include "xkl.h"

namespace {

template <class T>
struct Triangle {
  std::vector<std::vector<T>> rows;
  std::vector<T *> ptr;
  explicit Triangle(int n) : rows(n), ptr(n) {
    for (int i = 0; i < n; ++i) rows[i].resize(i + 1), ptr[i] = rows[i].data();
  }
};

// Direct quadratic form over the whole symmetric matrix, and the sum of its
// terms' magnitudes (the scale of any rounding error).
template <class T>
std::pair<long double, long double> quadForm(const T *x, const T *m, const Triangle<T> &a, int n) {
  long double sum = 0, mag = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      const long double t = ((long double)x[i] - m[i]) * a.rows[std::max(i, j)][std::min(i, j)] * ((long double)x[j] - m[j]);
      sum += t, mag += std::fabs(t);
    }
  return {sum, mag};
}

TEST(MahalanobisFloat, AgreesWithDirectSumBothPathsAndBothSimdModes) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  for (int n = 1; n <= 40; ++n) {
    std::vector<float> x(n), m(n), v(n);
    Triangle<float> a(n);
    for (int i = 0; i < n; ++i) {
      x[i] = u(rng), m[i] = u(rng), v[i] = std::fabs(u(rng));
      for (int j = 0; j <= i; ++j) a.rows[i][j] = u(rng);
    }
    auto [ref, mag] = quadForm(x.data(), m.data(), a, n);
    // The diagonal sum of the blocked path is single precision: n roundings
    // of 2^-24 relative to the magnitudes, and the float differences one more.
    const double tol = 4.0 * (n + 2) * std::ldexp(1.0, -24) * (double)mag + 1e-30;
    const double got = XKsMahalanobis(x.data(), m.data(), a.ptr.data(), n, 0);
    EXPECT_NEAR(got, (double)ref, tol) << "n=" << n;
    xk::vq::setSimdEnabled(false);
    EXPECT_EQ(XKsMahalanobis(x.data(), m.data(), a.ptr.data(), n, 0), got) << "portable path, n=" << n;
    xk::vq::setSimdEnabled(true);
    long double dref = 0;  // every term is positive: its own magnitude
    for (int i = 0; i < n; ++i) dref += ((long double)x[i] - m[i]) * ((long double)x[i] - m[i]) * v[i];
    EXPECT_NEAR(XKsMahalanobisD(x.data(), m.data(), v.data(), n, 0), (double)dref, (n + 2) * 1e-16 * (double)dref);
    EXPECT_NEAR(XKsMahalanobisD(x.data(), m.data(), v.data(), n, 1), std::sqrt((double)dref), 1e-12);
    if (ref <= 0) continue;
    EXPECT_NEAR(XKsMahalanobis(x.data(), m.data(), a.ptr.data(), n, 1), std::sqrt((double)ref),
                tol / std::sqrt((double)ref) + 1e-12);
  }
}

// 16-bit kernels: in range (|d| <= 2000 and |A| <= 15 keep d * A within 16
// bits) the long double sums are exact and the kernels agree modulo 2^32; over
// the whole range too the public forms, both paths, equal the raw kernels.
TEST(Mahalanobis16, ExactInRangeAndSimdEqualsPortable) {
  std::mt19937 rng(11);
  for (int n = 1; n <= 70; ++n)
    for (bool wide : {false, true}) {
      std::uniform_int_distribution<int> ux(wide ? -32768 : -1000, wide ? 32767 : 1000), ua(wide ? -32768 : -15, wide ? 32767 : 15);
      std::vector<short> x(n), m(n), v(n);
      Triangle<short> a(n);
      for (int i = 0; i < n; ++i) {
        x[i] = (short)ux(rng), m[i] = (short)ux(rng), v[i] = (short)(wide ? ua(rng) : std::abs(ua(rng)));
        for (int j = 0; j <= i; ++j) a.rows[i][j] = (short)ua(rng);
      }
      const int wf = xk::wMahalanobisFullRaw(x.data(), m.data(), a.ptr.data(), n);
      const int wd = xk::wMahalanobisDiagRaw(x.data(), m.data(), v.data(), n);
      if (!wide) {
        std::int64_t diag = 0;
        for (int i = 0; i < n; ++i) diag += (std::int64_t)(x[i] - m[i]) * (x[i] - m[i]) * v[i];
        EXPECT_EQ(wf, (std::int32_t)(std::uint32_t)(std::int64_t)quadForm(x.data(), m.data(), a, n).first) << n;
        EXPECT_EQ(wd, (std::int32_t)(std::uint32_t)diag) << n;
      }
      for (bool simd : {true, false}) {
        xk::vq::setSimdEnabled(simd);
        EXPECT_EQ(XKwMahalanobis(x.data(), m.data(), a.ptr.data(), n, 0, 0, nullptr), wf) << n << " simd " << simd;
        EXPECT_EQ(XKwMahalanobisD(x.data(), m.data(), v.data(), n, 0, 0, nullptr), wd) << n << " simd " << simd;
      }
      xk::vq::setSimdEnabled(true);
    }
}

TEST(Mahalanobis16, HandComputedRows) {
  struct Row { std::vector<short> x, m, v; int sqrtFlag, mode, scale; bool nullScale; int expect; };
  const Row rows[] = {
      {{3}, {1}, {5}, 1, 0, 0, true, 4},                        // floor(sqrt(2 * (2 * 5)))
      {{30000}, {-30000}, {1}, 0, 0, 0, true, 30647296},       // d wraps to -5536
      {{32767, 32767, 32767}, {0, 0, 0}, {1, 1, 1}, 0, 0, 0, true, -1073938429},  // 32-bit wrap
      {{32767, 32767, 32767}, {0, 0, 0}, {1, 1, 1}, 1, 0, 0, true, 56754},        // root of the unsigned sum
      {{3}, {1}, {5}, 0, 1, 2, false, 5}, {{3}, {1}, {5}, 0, 1, -2, false, 80},  // 20 >> 2, 20 << 2
      {{3}, {1}, {5}, 0, 1, 0, true, 20}, {{3}, {1}, {5}, 1, 1, 1, false, 2},  // null scale: unshifted; root, then shift
      {{32767, 32767, 32767}, {0, 0, 0}, {1, 1, 1}, 0, 1, 4, false, -1073938429 >> 4},  // arithmetic
      {{7, 7}, {7, 7}, {9, 9}, 0, 2, 5, false, 0},              // identical: 0, scale 0
  };
  for (const Row &r : rows) {
    int scale = r.scale;
    const int n = (int)r.x.size();
    EXPECT_EQ(XKwMahalanobisD(r.x.data(), r.m.data(), r.v.data(), n, r.sqrtFlag, r.mode, r.nullScale ? nullptr : &scale),
              r.expect) << r.x[0] << " mode " << r.mode << " scale " << r.scale;
    EXPECT_TRUE(r.mode != 2 || scale == 0);
  }
  // Full form, x = (1, 2), A = [[2, 1], [1, 3]]: D = 2 + 12 + 2 * 2 = 18 in
  // double through the scalar conversion in the other modes; n = 0 gives 0.
  short x[2] = {1, 2}, m[2] = {0, 0}, r0[1] = {2}, r1[2] = {1, 3};
  short *tri[2] = {r0, r1};
  EXPECT_EQ(XKwMahalanobis(x, m, tri, 0, 0, 0, nullptr), 0);
  for (int mode : {2, 3}) {
    int s1 = 0, s2 = 0;
    EXPECT_EQ(XKwMahalanobis(x, m, tri, 2, 1, mode, &s1), XKdiConvertDown(std::sqrt(18.0), mode, &s2));
    EXPECT_EQ(s1, s2);
  }
}

}  // namespace
