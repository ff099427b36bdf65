// Mahalanobis distances against direct formulas: long double for the float
// forms, exact 64-bit integers for the 16-bit kernels, hand-computed rows
// for wrap-around, the integer root and the shifts; vectorised paths against
// the portable ones.
#include <gtest/gtest.h>

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
  T at(int i, int j) const { return i >= j ? rows[i][j] : rows[j][i]; }
};

// Direct quadratic form over the whole symmetric matrix, and the sum of the
// magnitudes of its terms (the scale of any rounding error).
template <class T>
std::pair<long double, long double> quadForm(const T *x, const T *m, const Triangle<T> &a, int n) {
  long double sum = 0, mag = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      const long double t = ((long double)x[i] - m[i]) * a.at(i, j) * ((long double)x[j] - m[j]);
      sum += t, mag += std::fabs(t);
    }
  return {sum, mag};
}

struct SimdOff {
  SimdOff() { xk::vq::setSimdEnabled(false); }
  ~SimdOff() { xk::vq::setSimdEnabled(true); }
};

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
    {
      SimdOff off;
      EXPECT_EQ(XKsMahalanobis(x.data(), m.data(), a.ptr.data(), n, 0), got) << "portable path, n=" << n;
    }
    if (ref > 0) {
      EXPECT_NEAR(XKsMahalanobis(x.data(), m.data(), a.ptr.data(), n, 1), std::sqrt((double)ref),
                  tol / std::sqrt((double)ref) + 1e-12);
    }

    long double dref = 0, dmag = 0;
    for (int i = 0; i < n; ++i) {
      const long double d = (long double)x[i] - m[i];
      dref += d * d * v[i], dmag += std::fabs(d * d * v[i]);
    }
    EXPECT_NEAR(XKsMahalanobisD(x.data(), m.data(), v.data(), n, 0), (double)dref, (n + 2) * 1e-16 * (double)dmag);
    EXPECT_NEAR(XKsMahalanobisD(x.data(), m.data(), v.data(), n, 1), std::sqrt((double)dref), 1e-12);
  }
}

// Exact 16-bit results: the direct double sum over the symmetric matrix is
// exact for these ranges, and the kernels must agree modulo 2^32.
TEST(Mahalanobis16, ExactInRangeAndSimdEqualsPortable) {
  std::mt19937 rng(11);
  for (int n = 1; n <= 70; ++n) {
    // |d| <= 2000 and |A| <= 15 keep d * A within 16 bits.
    std::uniform_int_distribution<int> ux(-1000, 1000), ua(-15, 15);
    std::vector<short> x(n), m(n), v(n);
    Triangle<short> a(n);
    for (int i = 0; i < n; ++i) {
      x[i] = (short)ux(rng), m[i] = (short)ux(rng), v[i] = (short)std::abs(ua(rng));
      for (int j = 0; j <= i; ++j) a.rows[i][j] = (short)ua(rng);
    }
    const auto full = (std::int64_t)quadForm(x.data(), m.data(), a, n).first;
    std::int64_t diag = 0;
    for (int i = 0; i < n; ++i) diag += (std::int64_t)(x[i] - m[i]) * (x[i] - m[i]) * v[i];
    const int gotFull = XKwMahalanobis(x.data(), m.data(), a.ptr.data(), n, 0, 0, nullptr);
    const int gotDiag = XKwMahalanobisD(x.data(), m.data(), v.data(), n, 0, 0, nullptr);
    EXPECT_EQ(gotFull, (std::int32_t)(std::uint32_t)full) << n;
    EXPECT_EQ(gotDiag, (std::int32_t)(std::uint32_t)diag) << n;
    EXPECT_EQ(xk::wMahalanobisFullRaw(x.data(), m.data(), a.ptr.data(), n), gotFull);
    // Outside the documented range too, both paths keep the same 16-bit
    // products and 32-bit sums.
    std::uniform_int_distribution<int> wide(-32768, 32767);
    for (int i = 0; i < n; ++i) {
      x[i] = (short)wide(rng), m[i] = (short)wide(rng), v[i] = (short)wide(rng);
      for (int j = 0; j <= i; ++j) a.rows[i][j] = (short)wide(rng);
    }
    const int wf = xk::wMahalanobisFullRaw(x.data(), m.data(), a.ptr.data(), n);
    const int wd = xk::wMahalanobisDiagRaw(x.data(), m.data(), v.data(), n);
    SimdOff off;
    EXPECT_EQ(XKwMahalanobis(x.data(), m.data(), a.ptr.data(), n, 0, 0, nullptr), wf) << n;
    EXPECT_EQ(XKwMahalanobisD(x.data(), m.data(), v.data(), n, 0, 0, nullptr), wd) << n;
  }
}

TEST(Mahalanobis16, HandComputedRows) {
  struct Row {
    std::vector<short> x, m, v;
    int sqrtFlag, mode, scale;
    bool nullScale;
    int expect;
  };
  const Row rows[] = {
      {{3}, {1}, {5}, 0, 0, 0, true, 20},                       // 2 * (2 * 5)
      {{3}, {1}, {5}, 1, 0, 0, true, 4},                        // floor(sqrt 20)
      {{30000}, {-30000}, {1}, 0, 0, 0, true, 30647296},       // d wraps to -5536
      {{32767, 32767, 32767}, {0, 0, 0}, {1, 1, 1}, 0, 0, 0, true, -1073938429},  // 32-bit wrap
      {{32767, 32767, 32767}, {0, 0, 0}, {1, 1, 1}, 1, 0, 0, true, 56754},        // root of the unsigned sum
      {{3}, {1}, {5}, 0, 1, 2, false, 5},                       // 20 >> 2
      {{3}, {1}, {5}, 0, 1, -2, false, 80},                     // 20 << 2
      {{3}, {1}, {5}, 0, 1, 0, true, 20},                       // null scale: unshifted
      {{3}, {1}, {5}, 1, 1, 1, false, 2},                       // root before the shift
      {{32767, 32767, 32767}, {0, 0, 0}, {1, 1, 1}, 0, 1, 4, false, -1073938429 >> 4},  // arithmetic
      {{7, 7}, {7, 7}, {9, 9}, 0, 2, 5, false, 0},              // identical: 0, scale 0
  };
  for (const Row &r : rows) {
    int scale = r.scale;
    const int n = (int)r.x.size();
    EXPECT_EQ(XKwMahalanobisD(r.x.data(), r.m.data(), r.v.data(), n, r.sqrtFlag, r.mode,
                              r.nullScale ? nullptr : &scale),
              r.expect)
        << r.x[0] << " mode " << r.mode << " scale " << r.scale;
    if (r.mode == 2) {
      EXPECT_EQ(scale, 0);
    }
  }
  // Full form: x = (1, 2), A = [[2, 1], [1, 3]]: 2 + 12 + 2 * 2.
  short x[2] = {1, 2}, m[2] = {0, 0}, r0[1] = {2}, r1[2] = {1, 3};
  short *tri[2] = {r0, r1};
  EXPECT_EQ(XKwMahalanobis(x, m, tri, 2, 0, 0, nullptr), 18);
  EXPECT_EQ(XKwMahalanobis(x, m, tri, 0, 0, 0, nullptr), 0);
  // Other modes: the same D in double through the scalar conversion.
  for (int mode : {2, 3}) {
    int s1 = 0, s2 = 0;
    EXPECT_EQ(XKwMahalanobis(x, m, tri, 2, 1, mode, &s1), XKdiConvertDown(std::sqrt(18.0), mode, &s2));
    EXPECT_EQ(s1, s2);
  }
}

}  // namespace
