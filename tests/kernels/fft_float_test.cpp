// Float real FFT: results against a naive DFT in long double, layouts,
// argument checks, the table cache and its concurrent first use.
#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "kernels/fft_tables.h"
#include "xkl/kfx.h"

namespace {

using cld = std::complex<long double>;
using Frame = std::vector<float>;

constexpr long double kPi = 3.141592653589793238462643383279502884L;

// Accuracy bound: a radix-2 float FFT has a worst-case error growing like
// eps * log2(N) times the signal's magnitude (each of the log2(N) butterfly
// levels adds at most a few roundings of that size), eps = 6e-8. 1e-6 per
// level, about 16 eps, leaves room for the twiddle rounding (eps each) and the
// split stage, measured against the spectrum's (or frame's) peak magnitude.
// The "+1" covers orders 0 and 1, whose single level still rounds once.
// Measured: 0.03e-6 to 0.25e-6 of the peak for orders 2..13, so the bound
// has a wide margin for other compilers and paths yet catches any wrong
// factor or index, which costs errors of the order of the peak itself.
double tolerance(int order) { return 1e-6 * (order + 1); }

constexpr double kEps = 5.96e-8;  // float rounding unit, 2^-24

Frame randomFrame(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  Frame x(n);
  for (float &v : x) v = dist(gen);
  return x;
}

// cos/sin of 2*pi*j/N in long double, for the naive transforms.
std::vector<cld> unitRoots(std::size_t n) {
  std::vector<cld> w(n);
  for (std::size_t j = 0; j < n; ++j) {
    const long double a = 2 * kPi * static_cast<long double>(j) / static_cast<long double>(n);
    w[j] = cld(std::cos(a), std::sin(a));
  }
  return w;
}

// X[k] = sum x[j] exp(-2 pi i jk/N) for k = 0..N/2.
std::vector<cld> naiveForward(const Frame &x) {
  const std::size_t n = x.size();
  const auto w = unitRoots(n);
  std::vector<cld> spec(n / 2 + 1);
  for (std::size_t k = 0; k <= n / 2; ++k) {
    cld sum = 0;
    for (std::size_t j = 0; j < n; ++j) sum += static_cast<long double>(x[j]) * std::conj(w[(j * k) % n]);
    spec[k] = sum;
  }
  return spec;
}

// x[j] = sum over the full conjugate-symmetric spectrum of X[k] exp(+2 pi i jk/N), unscaled.
std::vector<long double> naiveInverse(const std::vector<cld> &half, std::size_t n) {
  const auto w = unitRoots(n);
  std::vector<long double> x(n);
  for (std::size_t j = 0; j < n; ++j) {
    cld sum = 0;
    for (std::size_t k = 0; k < n; ++k) {
      const cld xk = k <= n / 2 ? half[k] : std::conj(half[n - k]);
      sum += xk * w[(j * k) % n];
    }
    x[j] = sum.real();
  }
  return x;
}

// The spectrum X[0..N/2] written out in a layout, by hand.
std::vector<long double> layout(const std::vector<cld> &spec, std::size_t n, bool pack) {
  std::vector<long double> out(n);
  if (n == 1) {
    out[0] = spec[0].real();
    return out;
  }
  out[0] = spec[0].real();
  const std::size_t base = pack ? 1 : 2;
  for (std::size_t k = 1; k < n / 2; ++k) {
    out[base + 2 * (k - 1)] = spec[k].real();
    out[base + 2 * (k - 1) + 1] = spec[k].imag();
  }
  out[pack ? n - 1 : 1] = spec[n / 2].real();
  return out;
}

// A random spectrum of a real frame (Im X[0] = Im X[N/2] = 0).
std::vector<cld> randomSpectrum(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-8.0f, 8.0f);
  std::vector<cld> spec(n / 2 + 1);
  for (auto &v : spec) v = cld(dist(gen), dist(gen));
  spec[0] = spec[0].real();
  spec[n / 2] = spec[n / 2].real();
  return spec;
}

template <class T>
long double peak(const std::vector<T> &v) {
  long double p = 0;
  for (const auto &x : v) p = std::max(p, static_cast<long double>(std::fabs(x)));
  return p;
}

long double maxError(const Frame &got, const std::vector<long double> &want) {
  long double e = 0;
  for (std::size_t i = 0; i < got.size(); ++i) e = std::max(e, std::fabs(got[i] - want[i]));
  return e;
}

// Runs one transform through the in-place or the out-of-place entry point.
Frame run(const Frame &in, int order, int flags, bool inPlace) {
  Frame out(in.size(), -77.0f);
  if (inPlace) {
    out = in;
    kfxsRealFftl(out.data(), order, flags);
  } else {
    kfxsRealFftlNip(in.data(), out.data(), order, flags);
  }
  return out;
}

class FloatFft : public ::testing::Test {
 protected:
  void SetUp() override {
    kfxSetStatus(KFX_StsOk);
    kfx::fft::failTableAllocations(0);
    kfx::fft::forcePortable(false);
  }
  void TearDown() override {
    kfx::fft::failTableAllocations(0);
    kfx::fft::forcePortable(false);
    EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  }
};

TEST_F(FloatFft, ForwardMatchesNaiveDftInBothLayoutsAndPlacements) {
  for (int order = 0; order <= 12; ++order) {
    const std::size_t n = std::size_t{1} << order;
    const Frame x = randomFrame(n, 100 + order);
    const auto spec = naiveForward(x);
    for (bool pack : {false, true}) {
      const auto want = layout(spec, n, pack);
      const long double bound = tolerance(order) * peak(want);
      for (bool inPlace : {false, true}) {
        const Frame got = run(x, order, KFX_Forward | (pack ? KFX_RCPack : KFX_RCPerm), inPlace);
        EXPECT_LE(maxError(got, want), bound)
            << "order " << order << (pack ? " RCPack" : " RCPerm") << (inPlace ? " in place" : "");
      }
    }
  }
}

TEST_F(FloatFft, InverseMatchesNaiveDftScaledAndUnscaled) {
  for (int order = 0; order <= 12; ++order) {
    const std::size_t n = std::size_t{1} << order;
    const auto spec = randomSpectrum(n, 200 + order);
    const auto unscaled = naiveInverse(spec, n);
    for (bool pack : {false, true}) {
      const auto packed = layout(spec, n, pack);
      const Frame in(packed.begin(), packed.end());
      for (bool noScale : {false, true}) {
        std::vector<long double> want = unscaled;
        if (!noScale)
          for (auto &v : want) v /= static_cast<long double>(n);
        const long double bound = tolerance(order) * peak(want);
        const int flags = KFX_Inverse | (pack ? KFX_RCPack : KFX_RCPerm) | (noScale ? KFX_NoScale : 0);
        for (bool inPlace : {false, true}) {
          const Frame got = run(in, order, flags, inPlace);
          EXPECT_LE(maxError(got, want), bound) << "order " << order << (pack ? " RCPack" : " RCPerm")
                                                << (noScale ? " unscaled" : "")
                                                << (inPlace ? " in place" : "");
        }
      }
    }
  }
}

TEST_F(FloatFft, ForwardThenInverseRestoresTheFrame) {
  for (int order : {0, 1, 2, 3, 5, 8, 10, 13, 16}) {
    const std::size_t n = std::size_t{1} << order;
    const Frame x = randomFrame(n, 300 + order);
    const std::vector<long double> want(x.begin(), x.end());
    for (int layoutFlag : {KFX_RCPack, KFX_RCPerm}) {
      Frame spec(n), back(n);
      kfxsRealFftlNip(x.data(), spec.data(), order, KFX_Forward | layoutFlag);
      kfxsRealFftlNip(spec.data(), back.data(), order, KFX_Inverse | layoutFlag);
      EXPECT_LE(maxError(back, want), 2 * tolerance(order)) << "order " << order;
      Frame inPlace = x;
      kfxsRealFftl(inPlace.data(), order, KFX_Forward | layoutFlag);
      kfxsRealFftl(inPlace.data(), order, KFX_Inverse | layoutFlag);
      EXPECT_LE(maxError(inPlace, want), 2 * tolerance(order)) << "order " << order;
    }
  }
}

TEST_F(FloatFft, ConstantFrameGivesNTimesTheConstantAtDc) {
  const float c = 0.3f;
  for (int order = 0; order <= 14; ++order) {
    const std::size_t n = std::size_t{1} << order;
    const Frame x(n, c);
    for (bool inPlace : {false, true}) {
      const Frame got = run(x, order, KFX_Forward | KFX_RCPerm, inPlace);
      const double dc = static_cast<double>(n) * c;
      EXPECT_NEAR(got[0], dc, tolerance(order) * dc) << "order " << order;
      for (std::size_t i = 1; i < n; ++i)
        ASSERT_NEAR(got[i], 0.0, tolerance(order) * dc) << "order " << order << " position " << i;
    }
  }
}

TEST_F(FloatFft, OrdersZeroAndOneInEveryMode) {
  for (int layoutFlag : {KFX_RCPack, KFX_RCPerm}) {
    for (bool inPlace : {false, true}) {
      EXPECT_EQ(run({2.5f}, 0, KFX_Forward | layoutFlag, inPlace), Frame({2.5f}));
      EXPECT_EQ(run({2.5f}, 0, KFX_Inverse | layoutFlag, inPlace), Frame({2.5f}));
      EXPECT_EQ(run({3.0f, 5.0f}, 1, KFX_Forward | layoutFlag, inPlace), Frame({8.0f, -2.0f}));
      EXPECT_EQ(run({8.0f, -2.0f}, 1, KFX_Inverse | layoutFlag, inPlace), Frame({3.0f, 5.0f}));
      EXPECT_EQ(run({8.0f, -2.0f}, 1, KFX_Inverse | KFX_NoScale | layoutFlag, inPlace),
                Frame({6.0f, 10.0f}));
    }
  }
}

// ---- argument checks ----

struct BadCall {
  bool inPlace;
  bool nullIn;
  bool nullOut;
  int order;
  int flags;
  const char *message;
};

class FloatFftArguments : public FloatFft, public ::testing::WithParamInterface<BadCall> {};

TEST_P(FloatFftArguments, FailWithTheirMessageAndLeaveTheOutputUntouched) {
  const BadCall &c = GetParam();
  const Frame in = randomFrame(16, 7);
  Frame out(16, -123.0f);
  if (c.inPlace) {
    out = in;
    kfxsRealFftl(c.nullIn ? nullptr : out.data(), c.order, c.flags);
  } else {
    kfxsRealFftlNip(c.nullIn ? nullptr : in.data(), c.nullOut ? nullptr : out.data(), c.order,
                    c.flags);
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg);
  const KFXErrorReport *r = kfxGetErrorReport();
  EXPECT_EQ(r->status, KFX_StsBadArg);
  EXPECT_STREQ(r->funcName, c.inPlace ? "kfxsRealFftl" : "kfxsRealFftlNip");
  EXPECT_STREQ(r->message, c.message);
  EXPECT_STREQ(r->file, "kfxffts");
  EXPECT_GT(r->line, 0);
  EXPECT_EQ(out, c.inPlace ? in : Frame(16, -123.0f));
  kfxSetStatus(KFX_StsOk);
}

constexpr int kFwdPerm = KFX_Forward | KFX_RCPerm;

INSTANTIATE_TEST_SUITE_P(
    CheckOrder, FloatFftArguments,
    ::testing::Values(
        // The order is checked before the pointers and the flags.
        BadCall{false, true, true, -1, 0, "order<0"},
        BadCall{false, false, false, 32, kFwdPerm, "order>31"},
        BadCall{false, false, false, 1000, kFwdPerm, "order>31"},
        BadCall{true, true, false, -5, 3, "order<0"},
        BadCall{true, false, false, 32, kFwdPerm, "order>31"},
        // Pointers before flags, input before output.
        BadCall{false, true, true, 4, 3 | 768, "inSamps==0"},
        BadCall{false, false, true, 4, 3 | 768, "outSamps==0"},
        BadCall{true, true, false, 4, 3 | 768, "samps==0"},
        // Direction before layout.
        BadCall{false, false, false, 4, KFX_Forward | KFX_Inverse | 768, "(flags & 1) && (flags & 2)"},
        BadCall{false, false, false, 4, KFX_RCPerm, "(flags & 1)==0 && (flags & 2)==0"},
        BadCall{false, false, false, 4, KFX_Forward | 768, "(flags & 256) && (flags & 512)"},
        BadCall{false, false, false, 4, KFX_Inverse, "(flags & 256)==0 && (flags & 512)==0"},
        BadCall{true, false, false, 4, KFX_Forward | KFX_Inverse, "(flags & 1) && (flags & 2)"},
        BadCall{true, false, false, 4, KFX_NoScale | KFX_RCPack, "(flags & 1)==0 && (flags & 2)==0"},
        BadCall{true, false, false, 4, KFX_Inverse | 768, "(flags & 256) && (flags & 512)"},
        BadCall{true, false, false, 4, KFX_Forward, "(flags & 256)==0 && (flags & 512)==0"},
        // Orders 0 and 1 use no tables but are checked alike.
        BadCall{false, false, false, 0, 0, "(flags & 1)==0 && (flags & 2)==0"},
        BadCall{true, true, false, 1, kFwdPerm, "samps==0"}));

// ---- the table cache ----

TEST_F(FloatFft, InitBuildsTablesWithoutTouchingAnyBuffer) {
  kfxsRealFftl(nullptr, 0, KFX_Free);
  EXPECT_FALSE(kfx::fft::twiddleCached(9));
  kfxsRealFftlNip(nullptr, nullptr, 9, KFX_Init);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_TRUE(kfx::fft::bitRevCached(9) && kfx::fft::twiddleCached(9) && kfx::fft::splitCached(9));
  kfxsRealFftl(nullptr, 11, KFX_Init | 3 | 768);  // the direction and layout bits are not checked
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_TRUE(kfx::fft::twiddleCached(11));
  // Init on an order without tables, and with a bad order, still checks the order.
  kfxsRealFftl(nullptr, 1, KFX_Init);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  kfxsRealFftl(nullptr, 32, KFX_Init);
  EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg);
  kfxSetStatus(KFX_StsOk);
}

TEST_F(FloatFft, FreedTablesAreRebuiltAndGiveTheSameResult) {
  const Frame x = randomFrame(1024, 11);
  const Frame first = run(x, 10, KFX_Forward | KFX_RCPerm, false);
  kfxsRealFftlNip(nullptr, nullptr, 0, KFX_Free | KFX_Forward);
  for (int order = 0; order < kfx::fft::kSlots; ++order)
    EXPECT_FALSE(kfx::fft::bitRevCached(order) || kfx::fft::twiddleCached(order) ||
                 kfx::fft::splitCached(order));
  EXPECT_EQ(run(x, 10, KFX_Forward | KFX_RCPerm, false), first);

  kfxFreeBitRevTbls();
  EXPECT_FALSE(kfx::fft::bitRevCached(10));
  EXPECT_TRUE(kfx::fft::twiddleCached(10));
  EXPECT_EQ(run(x, 10, KFX_Forward | KFX_RCPerm, true), first);
  kfxFreeTwdTbls();
  EXPECT_FALSE(kfx::fft::twiddleCached(10) || kfx::fft::splitCached(10));
  EXPECT_TRUE(kfx::fft::bitRevCached(10));
  EXPECT_EQ(run(x, 10, KFX_Forward | KFX_RCPerm, false), first);
}

TEST_F(FloatFft, AllocationFailureReleasesTheCacheAndRetriesOnce) {
  const Frame x = randomFrame(64, 12);
  kfxsRealFftl(nullptr, 0, KFX_Free);
  const Frame want = run(x, 6, KFX_Forward | KFX_RCPack, false);
  kfxsRealFftl(nullptr, 8, KFX_Init);
  kfxFreeTwdTbls();
  kfxFreeBitRevTbls();
  kfxsRealFftl(nullptr, 4, KFX_Init);
  // One failed allocation: the cached tables of order 4 go, order 6 is built.
  kfx::fft::failTableAllocations(1);
  EXPECT_EQ(run(x, 6, KFX_Forward | KFX_RCPack, false), want);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_FALSE(kfx::fft::twiddleCached(4));
  EXPECT_TRUE(kfx::fft::twiddleCached(6));

  // Every allocation fails: the call reports and leaves the output untouched.
  kfxsRealFftl(nullptr, 0, KFX_Free);
  kfx::fft::failTableAllocations(-1);
  const Frame sentinel(64, 9.0f);
  Frame out = sentinel;
  kfxsRealFftlNip(x.data(), out.data(), 6, KFX_Forward | KFX_RCPerm);
  EXPECT_EQ(out, sentinel);
  EXPECT_EQ(kfxGetStatus(), KFX_StsNoMem);
  EXPECT_STREQ(kfxGetErrorReport()->message, "No working Twd memory");
  EXPECT_STREQ(kfxGetErrorReport()->funcName, "kfxsRealFftlNip");
  kfxSetStatus(KFX_StsOk);
  kfxsRealFftl(out.data(), 6, KFX_Forward | KFX_RCPerm);
  EXPECT_EQ(out, sentinel);
  EXPECT_STREQ(kfxGetErrorReport()->funcName, "kfxsRealFftl");
  EXPECT_EQ(kfxGetStatus(), KFX_StsNoMem);
  kfxSetStatus(KFX_StsOk);
  // The largest order reaches the table stage the same way (no 8 GiB frame
  // is needed for that) and fails cleanly.
  kfxsRealFftl(out.data(), 31, KFX_Forward | KFX_RCPerm);
  EXPECT_EQ(kfxGetStatus(), KFX_StsNoMem);
  EXPECT_EQ(out, sentinel);
  kfxSetStatus(KFX_StsOk);
  // Building only the tables fails the same way.
  kfxsRealFftlNip(nullptr, nullptr, 7, KFX_Init);
  EXPECT_EQ(kfxGetStatus(), KFX_StsNoMem);
  EXPECT_EQ(kfxGetErrorReport()->line > 0, true);
  EXPECT_STREQ(kfxGetErrorReport()->file, "kfxffts");
  kfxSetStatus(KFX_StsOk);
  // Orders 0 and 1 need no tables.
  kfxsRealFftl(out.data(), 1, KFX_Forward | KFX_RCPerm);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);

  kfx::fft::failTableAllocations(0);
  EXPECT_EQ(run(x, 6, KFX_Forward | KFX_RCPack, false), want);
}

TEST_F(FloatFft, BitReversalTableListsEverySwapOnceAndEndsWithAZeroPair) {
  for (int order = 2; order <= 14; ++order) {
    const kfx::fft::BitRevTable *t = kfx::fft::bitRevTable(order);
    ASSERT_NE(t, nullptr);
    const int bits = order - 1;
    const std::size_t m = std::size_t{1} << bits;
    ASSERT_EQ(t->points, m);
    auto reversed = [bits](std::size_t j) {
      std::size_t r = 0;
      for (int b = 0; b < bits; ++b) r |= ((j >> b) & 1) << (bits - 1 - b);
      return r;
    };
    std::vector<std::uint32_t> want;
    for (std::size_t j = 0; j < m; ++j) {
      ASSERT_EQ(t->rev[j], reversed(j)) << "order " << order << " j " << j;
      if (j < reversed(j)) {
        want.push_back(static_cast<std::uint32_t>(j));
        want.push_back(static_cast<std::uint32_t>(reversed(j)));
      }
    }
    ASSERT_EQ(t->pairCount * 2, want.size()) << "order " << order;
    EXPECT_TRUE(std::equal(want.begin(), want.end(), t->pairs)) << "order " << order;
    EXPECT_EQ(t->pairs[2 * t->pairCount], 0u);
    EXPECT_EQ(t->pairs[2 * t->pairCount + 1], 0u);
  }
}

TEST_F(FloatFft, OrderAboveTheVectorisedRangeTransformsAnImpulse) {
  // Orders above kMaxSimdOrder keep no full permutation and run the portable
  // stages; an impulse at position 3 has the spectrum exp(-2 pi i 3k/N).
  const int order = kfx::fft::kMaxSimdOrder + 1;
  const std::size_t n = std::size_t{1} << order;
  Frame x(n, 0.0f);
  x[3] = 1.0f;
  Frame spec(n);
  kfxsRealFftlNip(x.data(), spec.data(), order, KFX_Forward | KFX_RCPerm);
  EXPECT_EQ(kfx::fft::bitRevTable(order)->rev, nullptr);
  long double worst = 0;
  for (std::size_t k = 1; k < n / 2; k += 997) {
    const long double a = 2 * kPi * static_cast<long double>((3 * k) % n) / static_cast<long double>(n);
    worst = std::max({worst, std::fabs(spec[2 * k] - std::cos(a)), std::fabs(spec[2 * k + 1] + std::sin(a))});
  }
  EXPECT_LE(worst, tolerance(order));
  EXPECT_FLOAT_EQ(spec[0], 1.0f);
  EXPECT_FLOAT_EQ(spec[1], -1.0f);  // (-1)^3
  kfxsRealFftl(spec.data(), order, KFX_Inverse | KFX_RCPerm);
  long double back = 0;
  for (std::size_t i = 0; i < n; ++i) back = std::max<long double>(back, std::fabs(spec[i] - x[i]));
  EXPECT_LE(back, 2 * tolerance(order));
  // Leave no 100 MB of tables behind for the other tests.
  kfxsRealFftl(nullptr, 0, KFX_Free);
}

// ---- vectorised path against the portable one ----

TEST_F(FloatFft, VectorisedPathEqualsPortablePath) {
  if (!kfx::fft::simdActive()) GTEST_SKIP() << "no vectorised path on this processor";
  for (int order = 2; order <= 17; ++order) {
    const std::size_t n = std::size_t{1} << order;
    const Frame x = randomFrame(n, 400 + order);
    for (int flags : {KFX_Forward | KFX_RCPerm, KFX_Forward | KFX_RCPack, KFX_Inverse | KFX_RCPerm,
                      KFX_Inverse | KFX_RCPack | KFX_NoScale}) {
      for (bool inPlace : {false, true}) {
        kfx::fft::forcePortable(true);
        const Frame portable = run(x, order, flags, inPlace);
        kfx::fft::forcePortable(false);
        const Frame simd = run(x, order, flags, inPlace);
        const std::vector<long double> want(portable.begin(), portable.end());
        // The two paths differ only in the order of their roundings: about
        // 0.3 eps per butterfly level measured. 2 eps per level is a tight
        // bound that a wrong factor, lane or index would exceed by far.
        EXPECT_LE(maxError(simd, want), 2 * kEps * (order + 1) * peak(want))
            << "order " << order << " flags " << flags << (inPlace ? " in place" : "");
      }
    }
  }
}

TEST_F(FloatFft, BuffersOffTheVectorAlignmentGiveTheSameResult) {
  for (int order : {6, 9, 10, 14}) {
    const std::size_t n = std::size_t{1} << order;
    const Frame x = randomFrame(n, 600 + order);
    for (int flags : {KFX_Forward | KFX_RCPerm, KFX_Inverse | KFX_RCPack}) {
      const Frame want = run(x, order, flags, false);
      // Input and output one float past a 32-byte boundary.
      std::vector<float> in(n + 8), out(n + 8);
      std::copy(x.begin(), x.end(), in.begin() + 1);
      kfxsRealFftlNip(in.data() + 1, out.data() + 1, order, flags);
      EXPECT_TRUE(std::equal(want.begin(), want.end(), out.begin() + 1)) << "order " << order;
      kfxsRealFftl(in.data() + 1, order, flags);
      EXPECT_TRUE(std::equal(want.begin(), want.end(), in.begin() + 1)) << "order " << order;
    }
  }
}

// ---- concurrent first use ----

TEST_F(FloatFft, ThreadsBuildingTablesTogetherAgreeWithOneThread) {
  constexpr int kThreads = 8;
  constexpr int kMaxTestOrder = 12;
  std::vector<Frame> inputs;
  for (int order = 0; order <= kMaxTestOrder; ++order)
    inputs.push_back(randomFrame(std::size_t{1} << order, 500 + order));
  auto flagsOf = [](int t) {
    return (t % 2 ? KFX_Inverse : KFX_Forward) | (t % 4 < 2 ? KFX_RCPerm : KFX_RCPack);
  };
  // Reference results from one thread.
  std::vector<std::vector<Frame>> want(kThreads);
  for (int t = 0; t < kThreads; ++t)
    for (int order = 0; order <= kMaxTestOrder; ++order)
      want[t].push_back(run(inputs[order], order, flagsOf(t), t % 3 == 0));

  kfxsRealFftl(nullptr, 0, KFX_Free);
  std::vector<std::vector<Frame>> got(kThreads);
  std::vector<int> statuses(kThreads);
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      got[t].resize(kMaxTestOrder + 1);
      start.arrive_and_wait();
      // Threads walk the orders in different directions so first uses collide.
      for (int i = 0; i <= kMaxTestOrder; ++i) {
        const int order = t % 2 ? kMaxTestOrder - i : i;
        got[t][order] = run(inputs[order], order, flagsOf(t), t % 3 == 0);
      }
      statuses[t] = kfxGetStatus();
    });
  }
  for (auto &th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(statuses[t], KFX_StsOk);
    for (int order = 0; order <= kMaxTestOrder; ++order)
      EXPECT_EQ(got[t][order], want[t][order]) << "thread " << t << " order " << order;
  }
}

}  // namespace
