// Orthonormal DCT-II / DCT-III against the defining sums in long double, on
// every route (power-of-two lengths through the FFT, short other lengths
// through the cosine matrix, long other lengths through the cosine table).
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "kernels/vec_internal.h"
#include "xkl/kfx.h"

namespace {

constexpr long double kPi = 3.141592653589793238462643383279502884L;

class Dct : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override {
    kfx::setSimdEnabled(true);
    kfxSetStatus(KFX_StsOk);
  }
};

long double weight(int k, int n) { return k == 0 ? std::sqrt(1.0L / n) : std::sqrt(2.0L / n); }

std::vector<long double> dctII(const std::vector<float> &x) {
  const int n = static_cast<int>(x.size());
  std::vector<long double> out(n);
  for (int k = 0; k < n; ++k) {
    long double s = 0;
    for (int i = 0; i < n; ++i) s += x[i] * std::cos(kPi * k * (2 * i + 1) / (2.0L * n));
    out[k] = weight(k, n) * s;
  }
  return out;
}

std::vector<long double> dctIII(const std::vector<float> &c) {
  const int n = static_cast<int>(c.size());
  std::vector<long double> out(n);
  for (int i = 0; i < n; ++i) {
    long double s = 0;
    for (int k = 0; k < n; ++k) s += weight(k, n) * c[k] * std::cos(kPi * k * (2 * i + 1) / (2.0L * n));
    out[i] = s;
  }
  return out;
}

std::vector<float> randomVector(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float &x : v) x = dist(gen);
  return v;
}

double norm2(const std::vector<float> &v) {
  double s = 0;
  for (float x : v) s += static_cast<double>(x) * x;
  return std::sqrt(s);
}

// An orthonormal transform keeps ||x||. Rounding in float (eps 2^-24 per
// operation) grows with the log2(N) FFT stages or the float table entries of
// the summing routes; 8 * eps * (log2 N + 2) * ||x|| bounds every element's
// error with room to spare.
double tolerance(int n, double norm) { return 8 * 5.96e-8 * (std::log2(static_cast<double>(n)) + 2) * norm; }

const int kLengths[] = {1, 2, 3, 4, 5, 7, 8, 12, 16, 20, 23, 24, 32, 64, 100, 128, 256, 512, 600, 1024, 1031};

TEST_F(Dct, ForwardAndInverseMatchTheDefiningSums) {
  for (int n : kLengths) {
    SCOPED_TRACE(n);
    const auto x = randomVector(n, 17 + n);
    const double tol = tolerance(n, norm2(x));
    std::vector<float> y(n), z(n);
    kfxsDct(x.data(), y.data(), n, KFX_DCT_Forward);
    ASSERT_EQ(kfxGetStatus(), KFX_StsOk);
    const auto wantY = dctII(x);
    for (int k = 0; k < n; ++k) ASSERT_NEAR(y[k], static_cast<double>(wantY[k]), tol) << "k=" << k;

    kfxsDct(x.data(), z.data(), n, KFX_DCT_Inverse);
    ASSERT_EQ(kfxGetStatus(), KFX_StsOk);
    const auto wantZ = dctIII(x);
    for (int i = 0; i < n; ++i) ASSERT_NEAR(z[i], static_cast<double>(wantZ[i]), tol) << "i=" << i;

    kfxsDct(y.data(), z.data(), n, KFX_DCT_Inverse);
    for (int i = 0; i < n; ++i) ASSERT_NEAR(z[i], x[i], 2 * tol) << "inverse of forward, i=" << i;
  }
}

TEST_F(Dct, ConstantAndZeroVectors) {
  for (int n : {1, 6, 16, 24, 256, 700}) {
    SCOPED_TRACE(n);
    const float c = -2.5f;
    std::vector<float> x(n, c), y(n, 99.0f);
    kfxsDct(x.data(), y.data(), n, KFX_DCT_Forward);
    const double tol = tolerance(n, std::fabs(c) * std::sqrt(n));
    EXPECT_NEAR(y[0], c * std::sqrt(static_cast<double>(n)), tol);
    for (int k = 1; k < n; ++k) EXPECT_NEAR(y[k], 0.0, tol) << k;

    std::vector<float> zero(n, 0.0f);
    kfxsDct(zero.data(), y.data(), n, KFX_DCT_Forward);
    for (int k = 0; k < n; ++k) EXPECT_EQ(y[k], 0.0f);
    kfxsDct(zero.data(), y.data(), n, KFX_DCT_Inverse);
    for (int k = 0; k < n; ++k) EXPECT_EQ(y[k], 0.0f);
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(Dct, InPlaceEqualsOutOfPlaceOnEveryRoute) {
  for (int n : {5, 64, 600}) {
    for (int flags : {KFX_DCT_Forward, KFX_DCT_Inverse}) {
      const auto x = randomVector(n, 3 * n);
      std::vector<float> separate(n), inplace = x;
      kfxsDct(x.data(), separate.data(), n, flags);
      kfxsDct(inplace.data(), inplace.data(), n, flags);
      EXPECT_EQ(inplace, separate) << n << " flags " << flags;
    }
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(Dct, SummingRouteIsTheSameWithAndWithoutSimd) {
  for (int n : {3, 24, 100, 500}) {
    const auto x = randomVector(n, n);
    std::vector<float> a(n), b(n);
    kfx::setSimdEnabled(false);
    kfxsDct(x.data(), a.data(), n, KFX_DCT_Forward);
    kfx::setSimdEnabled(true);
    kfxsDct(x.data(), b.data(), n, KFX_DCT_Forward);
    EXPECT_EQ(a, b) << n;
  }
}

TEST_F(Dct, FreeFlagReleasesTablesWithoutFurtherChecks) {
  const auto x = randomVector(24, 1);
  std::vector<float> before(24), after(24);
  kfxsDct(x.data(), before.data(), 24, KFX_DCT_Forward);
  kfxsDct(nullptr, nullptr, -1, KFX_DCT_Free | KFX_DCT_Forward | KFX_DCT_Inverse);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  kfxsDct(x.data(), after.data(), 24, KFX_DCT_Forward);  // rebuilt on use
  EXPECT_EQ(before, after);
}

TEST_F(Dct, ArgumentErrorsReportAndLeaveOutputUntouched) {
  const float src[4] = {1, 2, 3, 4};
  struct {
    const float *src;
    bool nullDst;
    int len, flags;
    const char *message;
  } bad[] = {
      {src, false, 0, KFX_DCT_Forward, "\nBad value of data buffer size\n"},
      {src, false, -5, KFX_DCT_Inverse, "\nBad value of data buffer size\n"},
      {src, false, 4, 0, "\nBad value of the transform flag\n"},
      {src, false, 4, KFX_DCT_Forward | KFX_DCT_Inverse, "\nBad value of the transform flag\n"},
      {src, false, 4, 4, "\nBad value of the transform flag\n"},
      {nullptr, false, 4, KFX_DCT_Forward, "src==0"},
      {src, true, 4, KFX_DCT_Inverse, "dst==0"},
  };
  for (const auto &b : bad) {
    kfxSetStatus(KFX_StsOk);
    float dst[4] = {-7, -7, -7, -7};
    kfxsDct(b.src, b.nullDst ? nullptr : dst, b.len, b.flags);
    EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg) << b.message;
    EXPECT_STREQ(kfxGetErrorReport()->message, b.message);
    EXPECT_STREQ(kfxGetErrorReport()->funcName, "kfxsDct");
    EXPECT_STREQ(kfxGetErrorReport()->file, "kfxdct");
    for (float v : dst) EXPECT_EQ(v, -7.0f);
  }
}

// Threads racing to build the same tables all get correct results, and the
// same results as a single thread.
TEST_F(Dct, ConcurrentFirstUseOfTables) {
  const int lengths[] = {24, 40, 128, 512, 777};
  std::vector<std::vector<float>> inputs, expected;
  for (int n : lengths) {
    inputs.push_back(randomVector(n, 1000 + n));
    expected.emplace_back(n);
    kfxsDct(inputs.back().data(), expected.back().data(), n, KFX_DCT_Forward);
  }
  for (int round = 0; round < 5; ++round) {
    // Free the FFT tables too, so the threads also race to build those.
    kfxsDct(nullptr, nullptr, 0, KFX_DCT_Free);
    kfxFreeTwdTbls();
    kfxFreeBitRevTbls();
    std::atomic<int> ready{0}, mismatches{0};
    std::vector<std::thread> threads;
    const int nThreads = 6;
    for (int t = 0; t < nThreads; ++t)
      threads.emplace_back([&, t] {
        ready.fetch_add(1);
        while (ready.load() < nThreads) {
        }
        for (int j = 0; j < 5; ++j) {
          const int idx = (j + t) % 5, n = lengths[idx];
          std::vector<float> out(n);
          kfxsDct(inputs[idx].data(), out.data(), n, KFX_DCT_Forward);
          if (kfxGetStatus() != KFX_StsOk || out != expected[idx]) mismatches.fetch_add(1);
        }
      });
    for (auto &th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0) << "round " << round;
  }
}

}  // namespace
