// 16-bit real FFT: both algorithms against a naive DFT in long double, scale modes, checks, tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kernels/fft_tables.h"
#include "xkl/kfx.h"

namespace kfx::fftw {  // test hooks of the 16-bit forms
void failIntAllocations(int count);
void floatTo16(const float *f, short *out, std::size_t n, int shift, bool simd);
}  // namespace kfx::fftw

namespace {

using Frame = std::vector<short>;
using Exact = std::vector<long double>;

constexpr long double kPi = 3.141592653589793238462643383279502884L;
constexpr int kPerm = KFX_RCPerm, kPack = KFX_RCPack, kInt = KFX_IntegerFft, kFlt = KFX_FloatFft;

// Naive DFT: forward of a real frame into a layout, or the unscaled inverse of the conjugate-
// symmetric spectrum held in a layout. Re[k] sits at `at`, Im[k] after it (0, not stored, at the edges).
Exact dft(const Frame &in, bool inverse, bool pack) {
  const std::size_t n = in.size();
  Exact c(n), s(n), out(n);
  for (std::size_t j = 0; j < n; ++j) c[j] = std::cos(2 * kPi * j / n), s[j] = std::sin(2 * kPi * j / n);
  for (std::size_t k = 0; k <= n / 2; ++k) {
    const std::size_t at = k == 0 ? 0 : k == n / 2 ? (pack ? n - 1 : 1) : (pack ? 2 * k - 1 : 2 * k);
    const bool edge = k == 0 || k == n / 2;
    for (std::size_t t = 0; t < n; ++t) {
      const long double ct = c[k * t % n], st = s[k * t % n];
      if (inverse) out[t] += (edge ? 1 : 2) * (in[at] * ct - (edge ? 0 : in[at + 1]) * st);
      if (!inverse) out[at] += in[t] * ct;
      if (!inverse && !edge) out[at + 1] -= in[t] * st;
    }
  }
  return out;
}

// Integer algorithm: floor, but (-1, 0) gives 0. Float algorithm: nearest, halves away from zero.
short rounded(long double v, bool nearest) {
  v = nearest ? std::copysign(std::floor(std::fabs(v) + 0.5L), v) : (v < 0 && v > -1 ? 0 : std::floor(v));
  return static_cast<short>(std::clamp<long double>(v, -32768, 32767));  // both saturate
}

Frame randomFrame(std::size_t n, int amplitude, unsigned seed) {
  std::mt19937 gen(seed);
  Frame f(n);
  for (auto &v : f) v = static_cast<short>(std::uniform_int_distribution<int>(-amplitude, amplitude)(gen));
  return f;
}

// One transform in place, or out of place into a buffer of 12345s.
Frame run(const Frame &in, int order, int flags, int mode = 0, int *factor = nullptr, bool inPlace = false) {
  Frame out = inPlace ? in : Frame(in.size(), 12345);
  inPlace ? kfxwRealFftl(out.data(), order, flags, mode, factor)
          : kfxwRealFftlNip(in.data(), out.data(), order, flags, mode, factor);
  return out;
}

// Against exact * 2^-shift rounded as the algorithm rounds: none off by more than `tol`, `offShare` off at all (bias).
void expectMatches(const Frame &got, const Exact &exact, int shift, bool nearest, long long tol, double offShare) {
  std::size_t off = 0;
  for (std::size_t i = 0; i < got.size(); ++i) {
    const long long diff = std::llabs(got[i] - rounded(std::ldexp(exact[i], -shift), nearest));
    EXPECT_LE(diff, tol) << "index " << i << " exact " << static_cast<double>(exact[i]);
    off += diff != 0;
  }
  EXPECT_LE(static_cast<double>(off), offShare * got.size() + 1);
}

// Float algorithm, in output units: a radix-2 float FFT errs below log2(N) * 2^-23 * sqrt(N) * ||x||_2
// (a few roundings per stage of a norm growing to sqrt(N) * ||x||_2), plus one for the roundings to integers.
long long floatTolerance(const Frame &x, int order, int shift) {
  long double sq = 0;
  for (short v : x) sq += static_cast<long double>(v) * v;
  return 1 + static_cast<long long>(std::max(order, 1) * std::ldexp(std::sqrt(sq * x.size()), -23 - shift));
}

// Integer algorithm: its arithmetic error (RMS 0.41 sqrt(M) of the 64 internal units of an output
// unit, measured) stays below 0.75 units up to order 10, so results are off by at most 1, and only
// where the exact value is that close to an integer: this share, with a margin (a bias: half).
double intOffShare(int order) { return 0.02 + std::sqrt(std::ldexp(1.0, order - 1)) / 128; }

class KfxwFft : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override {
    kfx::fftw::failIntAllocations(0);
    kfx::fft::failTableAllocations(0);
    kfx::setSimdEnabled(true);
    EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  }
};

TEST_F(KfxwFft, BothAlgorithmsMatchTheRoundedDft) {
  for (int alg : {kInt, kFlt})
    for (int order = 2; order <= (alg == kInt ? 10 : 11); ++order)
      for (bool pack : {false, true}) {
        SCOPED_TRACE(::testing::Message() << "algorithm " << alg << " order " << order << " pack " << pack);
        const int flags = (pack ? kPack : kPerm) | (alg == kFlt && order > 7 ? 0 : alg);  // float: default above 7
        auto check = [&](int dir, int amp, int mode, bool inPlace) {
          const Frame x = randomFrame(std::size_t{1} << order, amp, 100 * order + 10 * dir + pack + alg);
          const int shift = mode || dir == KFX_Inverse ? order : 0;
          int factor = order;
          expectMatches(run(x, order, dir | flags, mode, &factor, inPlace), dft(x, dir != KFX_Forward, pack), shift,
                        alg == kFlt, alg == kInt ? 1 : floatTolerance(x, order, shift),
                        alg == kInt ? intOffShare(order) : 0.05);
        };
        check(KFX_Forward, 32767, KFX_FIXED_SCALE, false);  // full scale, shifted down by the order
        check(KFX_Forward, 200, 0, true);
        check(KFX_Inverse, 32767, 0, alg == kFlt);  // full scale, divided by N
        check(KFX_Inverse | KFX_NoScale, 8, 0, true);
      }
}

TEST_F(KfxwFft, IntegerExtremesDoNotWrap) {  // full-scale extremes reach the largest intermediate values
  for (int order = 2; order <= 12; ++order)
    for (bool alternating : {false, true}) {  // -32768 everywhere, or 32767 and -32768 alternating
      Frame x(std::size_t{1} << order, -32768);
      for (std::size_t i = 0; alternating && i < x.size(); i += 2) x[i] = 32767;
      for (int flags : {KFX_Forward | kPerm, KFX_Inverse | kPerm, KFX_Inverse | kPack}) {
        SCOPED_TRACE(::testing::Message() << "order " << order << " flags " << flags << " alternating " << alternating);
        int factor = order;  // the forward transform shifted down by the order, like the inverse
        expectMatches(run(x, order, flags | kInt, flags & KFX_Inverse ? 0 : KFX_FIXED_SCALE, &factor),
                      dft(x, flags & KFX_Inverse, flags & kPack), order, false, 1, 1.0);
      }
    }
}

// Orders 0 and 1 written out. A lone DC of v*N inverts to v, ties that the integer algorithm floors
// (-1/2 to 0) and the float one rounds away from 0: flag 8192/16384 selects, else the order (float above 7).
TEST_F(KfxwFft, SmallOrdersAndAlgorithmSelection) {
  for (int alg : {kInt, kFlt})
    for (int layout : {kPerm, kPack}) {
      EXPECT_EQ(run({-123}, 0, KFX_Forward | layout | alg), Frame({-123}));
      EXPECT_EQ(run({300, -7}, 1, KFX_Forward | layout | alg), Frame({293, 307}));
      EXPECT_EQ(run({3, -8}, 1, KFX_Inverse | KFX_NoScale | layout | alg), Frame({-5, 11}));
    }
  for (int order : {2, 7, 8, 11})
    for (int alg : {0, kInt, kFlt})
      for (long double v : {-0.5L, 0.5L, -2.5L, 2.5L}) {
        Frame spectrum(std::size_t{1} << order, 0);
        spectrum[0] = static_cast<short>(v * spectrum.size());
        const bool nearest = alg == kFlt || (alg == 0 && order > 7);
        EXPECT_EQ(run(spectrum, order, KFX_Inverse | kPerm | alg), Frame(spectrum.size(), rounded(v, nearest)))
            << "order " << order << " flags " << alg << " value " << static_cast<double>(v);
      }
}

// Saturation; automatic shift by the bit length of the largest exact magnitude - 14; fixed shift (null factor: 0).
TEST_F(KfxwFft, ScaleModes) {
  Frame saturated(64, 0);  // a constant 1000 at order 6: X[0] = 64000
  saturated[0] = 32767;
  for (int alg : {kInt, kFlt}) {
    SCOPED_TRACE(::testing::Message() << "algorithm " << alg);
    for (int mode : {0, 1, 3, 8})
      EXPECT_EQ(run(Frame(64, 1000), 6, KFX_Forward | kPerm | alg, mode), saturated) << mode;
    for (int order : {3, 5, 7, 9, 2}) {  // random frames whose peaks need a positive shift, the last none
      const Frame x = randomFrame(std::size_t{1} << order, order > 2 ? 20000 : 100, 1000 + order);
      const Exact exact = dft(x, false, false);
      long double peak = 0;
      for (long double v : exact) peak = std::max(peak, std::fabs(v));
      int factor = -99;
      const Frame got = run(x, order, KFX_Forward | kPerm | alg, KFX_AUTO_SCALE, &factor);
      ASSERT_EQ(factor, peak > 32767 ? std::ilogb(peak) + 1 - 14 : 0) << "order " << order;
      expectMatches(got, exact, factor, alg == kFlt, alg == kInt ? 1 : floatTolerance(x, order, factor), 0.05);
    }
    const Frame x = randomFrame(32, 3000, 77);
    for (int shift : {0, 1, 3, 9, 40, -1, -3}) {
      int factor = shift;
      expectMatches(run(x, 5, KFX_Forward | kPack | alg, KFX_FIXED_SCALE, &factor), dft(x, false, true), shift,
                    alg == kFlt, 1, 0.05);
      EXPECT_EQ(factor, shift);  // only read
    }
    EXPECT_EQ(run(x, 5, KFX_Forward | kPack | alg, KFX_FIXED_SCALE), run(x, 5, KFX_Forward | kPack | alg, 1));
  }
}

TEST_F(KfxwFft, ArgumentErrorsReportTheirMessageAndLeaveTheOutputUntouched) {
  const int ok = KFX_Forward | kPerm;  // columns: in place, null input, null output, order, flags, scale mode
  const std::tuple<bool, bool, bool, int, int, int, const char *> cases[] = {
      {false, true, true, -1, ok, 0, "order<0"},  // the order before the pointers
      {false, false, false, 32, ok, 0, "order>31"},
      {true, true, false, 4, ok, 0, "samps==0"},
      {false, true, false, 4, ok, 0, "inSamps==0"},
      {false, false, true, 4, ok, 0, "outSamps==0"},
      {false, false, false, 4, 3 | kPerm, 0, "(flags & 1) && (flags & 2)"},
      {false, false, false, 4, kPerm | kPack, 0, "(flags & 1)==0 && (flags & 2)==0"},  // direction first
      {true, false, false, 4, KFX_Forward | kPerm | kPack, 0, "(flags & 256) && (flags & 512)"},
      {false, false, false, 4, KFX_Forward, 0, "(flags & 256)==0 && (flags & 512)==0"},
      {false, false, false, 4, ok | kInt | kFlt, 0, "(flags & 8192) && (flags & 16384)"},
      {true, false, false, 4, ok, 6, "(scaleMode & 0x0002) && (scaleMode & 0x0004)"},
      {false, false, false, 9, ok, KFX_AUTO_SCALE, "scaleFactor==0"},  // auto scale, null factor
  };
  for (const auto &[inPlace, nullIn, nullOut, order, flags, mode, message] : cases) {
    SCOPED_TRACE(::testing::Message() << message << (inPlace ? " in place" : ""));
    Frame in(512, 5), out(512, 77);
    int factor = 3, *f = mode == KFX_AUTO_SCALE ? nullptr : &factor;
    inPlace ? kfxwRealFftl(nullIn ? nullptr : in.data(), order, flags, mode, f)
            : kfxwRealFftlNip(nullIn ? nullptr : in.data(), nullOut ? nullptr : out.data(), order, flags, mode, f);
    const KFXErrorReport *r = kfxGetErrorReport();
    EXPECT_EQ(std::string(r->funcName) + " " + r->file + " " + r->message,
              std::string(inPlace ? "kfxwRealFftl" : "kfxwRealFftlNip") + " kfxfftw " + message);
    EXPECT_TRUE(kfxGetStatus() == KFX_StsBadArg && r->status == KFX_StsBadArg && in == Frame(512, 5) &&
                out == Frame(512, 77) && factor == 3);
    kfxSetStatus(KFX_StsOk);
  }
}

TEST_F(KfxwFft, InitFreeAndAllocationFailures) {
  const Frame x = randomFrame(512, 1000, 9), untouched(512, 12345);
  const Frame want = run(x, 9, KFX_Forward | kPerm | kInt);
  for (int alg : {0, kInt, kFlt})  // flag 4 builds tables and ignores the pointers
    kfxwRealFftlNip(nullptr, nullptr, alg ? 7 : 9, KFX_Init | alg, 0, nullptr);
  kfxwRealFftl(nullptr, 3, KFX_Init, 0, nullptr);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  // Released tables are rebuilt; one integer allocation failure is absorbed by the retry, a lasting one gives -4.
  for (int failures : {0, 1, -1}) {
    kfxSetStatus(KFX_StsBadArg);  // a success leaves the caller's status alone
    kfxwRealFftl(nullptr, 0, KFX_Free, 0, nullptr);
    kfxFreeIntTwdTbls();
    kfx::fftw::failIntAllocations(failures);
    EXPECT_EQ(run(x, 9, KFX_Forward | kPerm | kInt), failures >= 0 ? want : untouched);
    EXPECT_EQ(kfxGetStatus(), failures >= 0 ? KFX_StsBadArg : KFX_StsNoMem);
    kfxSetStatus(KFX_StsOk);
  }
  EXPECT_STREQ(kfxGetErrorReport()->message, "No working memory");
  kfx::fftw::failIntAllocations(0);
  kfx::fft::failTableAllocations(-1);  // float algorithm: the float tables cannot be built
  EXPECT_EQ(run(x, 9, KFX_Forward | kPerm), untouched);
  EXPECT_EQ(std::to_string(kfxGetStatus()) + " " + kfxGetErrorReport()->message, "-1 out kfxsRealFftl KFX_Init");
  kfxSetStatus(KFX_StsOk);
}

TEST_F(KfxwFft, VectorisedIntegerStagesEqualPortable) {
  for (int order = 2; order <= 11; ++order)
    for (int flags : {KFX_Forward | kPerm, KFX_Forward | kPack, KFX_Inverse | kPerm, KFX_Inverse | KFX_NoScale | kPack})
      for (unsigned seed = 0; seed < 4; ++seed) {
        const Frame x = randomFrame(std::size_t{1} << order, seed == 0 ? 32767 : 3000, 60 + seed + 10 * order);
        int portableFactor = 0, factor = 0;
        kfx::setSimdEnabled(false);
        const Frame portable = run(x, order, flags | kInt, KFX_AUTO_SCALE, &portableFactor);
        kfx::setSimdEnabled(true);
        EXPECT_TRUE(run(x, order, flags | kInt, KFX_AUTO_SCALE, &factor) == portable && factor == portableFactor)
            << order << " " << flags;
      }
}

// The float route's conversion on both paths: ties, near-ties, saturation, zeros under a huge shift.
TEST_F(KfxwFft, ConversionRoundsHalfAwayAndSaturates) {
  std::vector<float> f = {32767.4f, 32767.5f, -32768.5f, 1e9f, -1e9f, 0.0f, -0.0f, 1234.49f, -1234.51f};
  for (int i = -5; i < 19; ++i) f.push_back(i + 0.5f), f.push_back(std::nextafter(i + 0.5f, 0.0f));  // ties, near-ties
  std::vector<short> want;
  for (float v : f) want.push_back(rounded(v, true));
  for (bool simd : {false, true}) {
    if (simd && !kfx::simdActive()) continue;  // the vectorised path needs AVX2
    std::vector<short> out(f.size(), 9), huge(f.size(), 9);
    kfx::fftw::floatTo16(f.data(), out.data(), f.size(), 0, simd);
    kfx::fftw::floatTo16(f.data(), huge.data(), f.size(), -5000, simd);
    EXPECT_EQ(out, want) << "simd " << simd;
    for (std::size_t i = 0; i < f.size(); ++i)
      EXPECT_EQ(huge[i], f[i] > 0 ? 32767 : (f[i] < 0 ? -32768 : 0)) << "simd " << simd << " index " << i;
  }
}

}  // namespace
