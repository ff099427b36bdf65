// Orthonormal DCT-II / DCT-III against the defining sums in long double, on every route:
// FFT (powers of two), cosine matrix (other lengths up to 512), cosine table (longer ones).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <latch>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kernels/vec_internal.h"
#include "xkl/kfx.h"

static std::vector<float> randomVector(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::vector<float> v(n);
  for (float &x : v) x = std::uniform_real_distribution<float>(-1, 1)(gen);
  return v;
}

// DCT-II (forward) or DCT-III (inverse) summed in long double.
static std::vector<long double> reference(const std::vector<float> &x, bool inverse) {
  const int n = static_cast<int>(x.size());
  std::vector<long double> out(n);
  for (int k = 0; k < n; ++k)
    for (int i = 0; i < n; ++i)
      (inverse ? out[i] : out[k]) += (inverse ? x[k] : x[i]) * std::sqrt((k ? 2.0L : 1.0L) / n) *
                                     std::cos(std::acos(-1.0L) * k * (2 * i + 1) / (2.0L * n));
  return out;
}

// An orthonormal transform keeps ||x||; float rounding (2^-24 per step) grows
// with the log2 N FFT stages or the table entries: 8 eps (log2 N + 2) ||x||.
TEST(Dct, MatchesTheDefiningSumsOnEveryRoute) {
  kfxSetStatus(KFX_StsOk);
  for (int n : {1, 2, 3, 4, 5, 7, 8, 12, 16, 20, 23, 24, 32, 64, 100, 128, 256, 512, 600, 1024, 1031})
    for (const auto &x : {randomVector(n, 17 + n), std::vector<float>(n, -2.5f)}) {  // constant: DC term only
      const double tol =
          8 * 5.96e-8 * (std::log2(n) + 2) * std::sqrt(std::inner_product(x.begin(), x.end(), x.begin(), 0.0));
      for (bool inverse : {false, true}) {
        const int flags = inverse ? KFX_DCT_Inverse : KFX_DCT_Forward;
        std::vector<float> y(n), back(n), inPlace = x, portable(n);
        kfxsDct(x.data(), y.data(), n, flags);
        kfx::setSimdEnabled(false);
        kfxsDct(x.data(), portable.data(), n, flags);
        kfx::setSimdEnabled(true);
        const auto want = reference(x, inverse);
        for (int k = 0; k < n; ++k) {
          ASSERT_NEAR(y[k], static_cast<double>(want[k]), tol) << n << " " << inverse;
          ASSERT_NEAR(portable[k], static_cast<double>(want[k]), tol) << n << " portable " << inverse;
        }
        kfxsDct(y.data(), back.data(), n, inverse ? KFX_DCT_Forward : KFX_DCT_Inverse);
        for (int i = 0; i < n; ++i) ASSERT_NEAR(back[i], x[i], 2 * tol) << n << " round trip " << inverse;
        kfxsDct(inPlace.data(), inPlace.data(), n, flags);
        EXPECT_EQ(inPlace, y) << n << " in place " << inverse;
        // The summing routes (lengths that are not powers of two) add in the
        // same order on both paths; the FFT route differs by rounding only.
        if (n == 1 || (n & (n - 1)) != 0) {
          EXPECT_EQ(portable, y) << n << " portable " << inverse;
        }
      }
    }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST(Dct, ArgumentErrorsReportAndLeaveTheOutputUntouched) {
  const std::string size = "\nBad value of data buffer size\n", flag = "\nBad value of the transform flag\n";
  float in[4] = {}, out[4];
  const std::tuple<const float *, float *, int, int, std::string> bad[] = {
      {in, out, 0, 1, size}, {in, out, -5, 2, size},         {in, out, 4, 0, flag},        {in, out, 4, 3, flag},
      {in, out, 4, 4, flag}, {nullptr, out, 4, 1, "src==0"}, {in, nullptr, 4, 2, "dst==0"}};
  for (const auto &[src, dst, len, flags, message] : bad) {
    kfxSetStatus(KFX_StsOk);
    std::fill_n(out, 4, -7.0f);
    kfxsDct(src, dst, len, flags);
    const KFXErrorReport *r = kfxGetErrorReport();
    EXPECT_EQ(std::to_string(kfxGetStatus()) + " " + r->funcName + " " + r->file + " " + r->message,
              "-5 kfxsDct kfxdct " + message);
    EXPECT_EQ(std::count(out, out + 4, -7.0f), 4);
  }
}

// Threads racing to build the DCT and FFT tables all get the single-thread results.
TEST(Dct, ConcurrentFirstUseOfTables) {
  kfxSetStatus(KFX_StsOk);
  const auto dct = [](int n) {
    std::vector<float> x = randomVector(n, 1000 + n), y(n);
    kfxsDct(x.data(), y.data(), n, KFX_DCT_Forward);
    return y.push_back(kfxGetStatus()), y;
  };
  const int lengths[] = {24, 40, 128, 512, 777};
  std::vector<std::vector<float>> want;
  for (int n : lengths) want.push_back(dct(n));
  for (int round = 0; round < 5; ++round) {
    kfxsDct(nullptr, nullptr, -1, KFX_DCT_Free | KFX_DCT_Forward | KFX_DCT_Inverse);  // other arguments ignored
    ASSERT_EQ(kfxGetStatus(), KFX_StsOk);
    kfxFreeTwdTbls();
    kfxFreeBitRevTbls();
    std::latch start(6);
    std::vector<int> mismatches(6);
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
      threads.emplace_back([&, t] {
        start.arrive_and_wait();
        for (int j = t; j < t + 5; ++j) mismatches[t] += dct(lengths[j % 5]) != want[j % 5];
      });
    for (auto &th : threads) th.join();
    EXPECT_EQ(mismatches, std::vector<int>(6)) << "round " << round;
  }
}
