// 16-bit forward DCT-II against the defining sum in long double, rounded to
// nearest and saturated, with the scale modes, the argument checks and
// concurrent use. Runs the integer implementation and the exported kfxwDct.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "xkl/kfx.h"

namespace kfx::fft {
void forcePortable(bool portable);
}

namespace {

constexpr long double kPi = 3.141592653589793238462643383279502884L;

using Dct16 = void (*)(const short *, short *, int, int, int *);

struct Impl {
  const char *name;
  Dct16 fn;
  // Outputs that may be one unit off (exact values near a rounding
  // boundary). The integer form's only error is the Q30 cosine quantization,
  // below sqrt(2 len) * 2^-16 units: under 0.01 for the lengths here. The
  // float route adds float rounding of sums up to sqrt(len) * 2^15.
  double maxOffFraction;
};

const Impl kImpls[] = {{"kfxwDct", kfxwDct, 0.01}};

std::vector<long double> dctII(const std::vector<short> &x) {
  const int n = static_cast<int>(x.size());
  // cos(pi*m/(2n)) over one period, indexed by m = k*(2i+1) mod 4n.
  std::vector<long double> c(4 * n);
  for (int m = 0; m < 4 * n; ++m) c[m] = std::cos(kPi * m / (2.0L * n));
  std::vector<long double> out(n);
  for (int k = 0; k < n; ++k) {
    long double s = 0;
    for (int i = 0; i < n; ++i) s += x[i] * c[static_cast<long long>(k) * (2 * i + 1) % (4 * n)];
    out[k] = s * (k == 0 ? std::sqrt(1.0L / n) : std::sqrt(2.0L / n));
  }
  return out;
}

short roundSaturate(long double v) {
  const long double r = std::copysign(std::floor(std::fabs(v) + 0.5L), v);
  return static_cast<short>(std::clamp(r, -32768.0L, 32767.0L));
}

std::vector<short> randomVector(int n, int amplitude, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> dist(-amplitude, amplitude);
  std::vector<short> v(n);
  for (auto &x : v) x = static_cast<short>(dist(gen));
  return v;
}

void expectMatches(const std::vector<short> &got, const std::vector<long double> &exact, int shift,
                   double maxOffFraction, const std::string &what) {
  std::size_t off = 0;
  for (std::size_t k = 0; k < got.size(); ++k) {
    const int want = roundSaturate(std::ldexp(exact[k], -shift));
    EXPECT_LE(std::abs(got[k] - want), 1) << what << " k " << k;
    off += got[k] != want;
  }
  EXPECT_LE(static_cast<double>(off), maxOffFraction * got.size() + 1) << what;
}

class KfxwDct : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override { kfxSetStatus(KFX_StsOk); }
};

const int kLengths[] = {1, 2, 3, 4, 5, 8, 13, 16, 20, 23, 24, 32, 40, 64, 100, 128, 257, 1000};

TEST_F(KfxwDct, MatchesFormulaInEveryScaleMode) {
  for (const Impl &impl : kImpls) {
    for (int len : kLengths) {
      const std::string what = std::string(impl.name) + " len " + std::to_string(len);
      // Full scale: the peak can reach 2^15 * sqrt(len).
      const auto x = randomVector(len, 32767, 10 + len);
      const auto exact = dctII(x);
      std::vector<short> got(len, 999);
      int factor = -99;
      impl.fn(x.data(), got.data(), len, KFX_AUTO_SCALE, &factor);
      long double peak = 0;
      for (long double v : exact) peak = std::max(peak, std::fabs(v));
      int want = 0;
      if (peak >= 32767.5L) {
        std::frexp(static_cast<double>(peak), &want);
        want -= 14;
      }
      EXPECT_EQ(factor, want) << what;
      expectMatches(got, exact, factor, impl.maxOffFraction, what + " auto");
      // Fixed shift of 3, then none (saturating), then a left shift.
      for (int shift : {3, 0, -2}) {
        factor = shift;
        impl.fn(x.data(), got.data(), len, KFX_FIXED_SCALE, &factor);
        EXPECT_EQ(factor, shift);
        expectMatches(got, exact, shift, impl.maxOffFraction, what + " fixed " + std::to_string(shift));
      }
      impl.fn(x.data(), got.data(), len, 0, nullptr);
      expectMatches(got, exact, 0, impl.maxOffFraction, what + " none");
      // Small input in place, unscaled.
      auto y = randomVector(len, 300, 20 + len);
      const auto exactY = dctII(y);
      impl.fn(y.data(), y.data(), len, 1, nullptr);
      expectMatches(y, exactY, 0, impl.maxOffFraction, what + " in place");
    }
    EXPECT_EQ(kfxGetStatus(), KFX_StsOk) << impl.name;
  }
}

TEST_F(KfxwDct, ConstantVector) {
  for (const Impl &impl : kImpls) {
    for (int len : {1, 4, 9, 16, 25, 64}) {
      const std::vector<short> x(len, -500);
      std::vector<short> got(len, 999);
      impl.fn(x.data(), got.data(), len, 0, nullptr);
      // -500 * sqrt(len), exact for square lengths.
      EXPECT_EQ(got[0], static_cast<short>(-500 * std::lround(std::sqrt(len)))) << impl.name;
      for (int k = 1; k < len; ++k) EXPECT_EQ(got[k], 0) << impl.name << " len " << len << " k " << k;
    }
  }
}

TEST_F(KfxwDct, ArgumentChecks) {
  struct Case {
    bool nullSrc, nullDst;
    int len, mode;
    bool nullFactor;
    const char *message;
  };
  const Case cases[] = {
      {true, true, 0, 0, false, "\nBad value of data buffer size\n"},
      {false, false, -3, 0, false, "\nBad value of data buffer size\n"},
      {true, false, 8, 0, false, "src==0"},
      {false, true, 8, 0, false, "dst==0"},
      {false, false, 8, 6, false, "(scaleMode & 0x0002) && (scaleMode & 0x0004)"},
      {false, false, 8, KFX_AUTO_SCALE, true, "scaleFactor==0"},
  };
  for (const Impl &impl : kImpls) {
    for (const Case &c : cases) {
      kfxSetStatus(KFX_StsOk);
      std::vector<short> src(8, 100), dst(8, 77);
      int factor = 5;
      impl.fn(c.nullSrc ? nullptr : src.data(), c.nullDst ? nullptr : dst.data(), c.len, c.mode,
              c.nullFactor ? nullptr : &factor);
      EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg) << impl.name << " " << c.message;
      EXPECT_STREQ(kfxGetErrorReport()->message, c.message) << impl.name;
      EXPECT_STREQ(kfxGetErrorReport()->funcName, "kfxwDct");
      EXPECT_STREQ(kfxGetErrorReport()->file, "kfxdct");
      EXPECT_EQ(dst, std::vector<short>(8, 77)) << impl.name << ": output touched";
      EXPECT_EQ(factor, 5);
    }
  }
}

// The vectorised dot products sum exactly, like the portable ones.
TEST_F(KfxwDct, VectorisedEqualsPortable) {
  for (int len : {3, 8, 13, 24, 40, 64}) {
    const auto x = randomVector(len, 32767, 70 + len);
    std::vector<short> a(len), b(len);
    int fa = 0, fb = 0;
    kfx::fft::forcePortable(true);
    kfxwDct(x.data(), a.data(), len, KFX_AUTO_SCALE, &fa);
    kfx::fft::forcePortable(false);
    kfxwDct(x.data(), b.data(), len, KFX_AUTO_SCALE, &fb);
    EXPECT_EQ(a, b) << "len " << len;
    EXPECT_EQ(fa, fb);
  }
}

// More lengths than a thread caches, in several threads at once.
TEST_F(KfxwDct, ThreadsAgreeWithOneThread) {
  const int lengths[] = {12, 13, 20, 23, 24, 40, 300};
  auto compute = [&](std::vector<std::vector<short>> &out) {
    for (int len : lengths) {
      const auto x = randomVector(len, 32767, 50 + len);
      std::vector<short> y(len);
      int factor = 0;
      kfxwDct(x.data(), y.data(), len, KFX_AUTO_SCALE, &factor);
      y.push_back(static_cast<short>(factor));
      out.push_back(y);
    }
  };
  std::vector<std::vector<short>> single;
  compute(single);
  std::vector<std::vector<std::vector<short>>> results(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int rep = 0; rep < 5; ++rep) {
        results[t].clear();
        compute(results[t]);
      }
    });
  for (auto &th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(results[t], single) << "thread " << t;
}

}  // namespace
