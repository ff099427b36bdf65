// 16-bit real FFT forms: both algorithms against a naive DFT in long double,
// the scale modes, the argument checks and concurrent use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "xkl/kfx.h"

namespace kfx::fftw {
void failIntAllocations(int count);
void floatTo16(const float *f, short *out, std::size_t n, int shift, bool simd);
}
namespace kfx::fft {
void failTableAllocations(int count);
void forcePortable(bool portable);
}

namespace {

constexpr int kPerm = KFX_RCPerm;
constexpr int kPack = KFX_RCPack;
constexpr int kInt = KFX_IntegerFft;
constexpr int kFlt = KFX_FloatFft;

using Frame = std::vector<short>;
using Exact = std::vector<long double>;

const long double kPi = 3.141592653589793238462643383279502884L;

// cos/sin of 2*pi*j/n for j < n, with the angle reduced exactly.
struct Roots {
  std::vector<long double> c, s;
  explicit Roots(std::size_t n) : c(n), s(n) {
    for (std::size_t j = 0; j < n; ++j) {
      c[j] = std::cos(2 * kPi * j / n);
      s[j] = std::sin(2 * kPi * j / n);
    }
  }
};

// Forward DFT of a real frame, laid out RCPerm or RCPack.
Exact dftForward(const Frame &x, bool pack) {
  const std::size_t n = x.size();
  if (n == 1) return {static_cast<long double>(x[0])};
  const Roots w(n);
  std::vector<long double> re(n / 2 + 1), im(n / 2 + 1);
  for (std::size_t k = 0; k <= n / 2; ++k)
    for (std::size_t t = 0; t < n; ++t) {
      re[k] += x[t] * w.c[k * t % n];
      im[k] -= x[t] * w.s[k * t % n];
    }
  Exact out(n);
  out[0] = re[0];
  if (pack) {
    for (std::size_t k = 1; k < n / 2; ++k) out[2 * k - 1] = re[k], out[2 * k] = im[k];
    out[n - 1] = re[n / 2];
  } else {
    out[1] = re[n / 2];
    for (std::size_t k = 1; k < n / 2; ++k) out[2 * k] = re[k], out[2 * k + 1] = im[k];
  }
  return out;
}

// Unnormalised inverse DFT of the Hermitian spectrum whose half is given in
// RCPerm or RCPack layout.
Exact dftInverse(const Frame &spectrum, bool pack) {
  const std::size_t n = spectrum.size();
  if (n == 1) return {static_cast<long double>(spectrum[0])};
  const Roots w(n);
  auto re = [&](std::size_t k) -> long double {
    if (k == 0) return spectrum[0];
    if (k == n / 2) return pack ? spectrum[n - 1] : spectrum[1];
    return pack ? spectrum[2 * k - 1] : spectrum[2 * k];
  };
  auto im = [&](std::size_t k) -> long double { return pack ? spectrum[2 * k] : spectrum[2 * k + 1]; };
  Exact out(n);
  for (std::size_t t = 0; t < n; ++t) {
    long double acc = re(0) + ((t & 1) ? -re(n / 2) : re(n / 2));
    for (std::size_t k = 1; k < n / 2; ++k)
      acc += 2 * (re(k) * w.c[k * t % n] - im(k) * w.s[k * t % n]);
    out[t] = acc;
  }
  return out;
}

// The two output roundings: the integer algorithm shifts right (floor),
// except that values in (-1, 0) become 0; the float algorithm rounds to
// nearest, halves away from zero. Both saturate.
enum class Rounding { Shift, Nearest };

long long roundAs(long double v, Rounding r) {
  if (r == Rounding::Nearest) return static_cast<long long>(std::copysign(std::floor(std::fabs(v) + 0.5L), v));
  if (v < 0 && v > -1) return 0;
  return static_cast<long long>(std::floor(v));
}

short saturate(long long v) { return static_cast<short>(std::clamp<long long>(v, -32768, 32767)); }

Frame randomFrame(std::size_t n, int amplitude, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> dist(-amplitude, amplitude);
  Frame f(n);
  for (auto &v : f) v = static_cast<short>(dist(gen));
  return f;
}

// Runs one 16-bit transform out of place or in place.
Frame run(const Frame &in, int order, int flags, int mode = 0, int *factor = nullptr,
          bool inPlace = false) {
  Frame out(in.size(), 12345);
  if (inPlace) {
    out = in;
    kfxwRealFftl(out.data(), order, flags, mode, factor);
  } else {
    kfxwRealFftlNip(in.data(), out.data(), order, flags, mode, factor);
  }
  return out;
}

// Compares with the exact values scaled by 2^-shift and rounded as the
// algorithm rounds. `tol` is the largest difference allowed; at most
// `maxOffFraction` of the values may differ at all (catches biases).
void expectMatches(const Frame &got, const Exact &exact, int shift, Rounding r, long long tol,
                   double maxOffFraction, const std::string &what) {
  ASSERT_EQ(got.size(), exact.size()) << what;
  std::size_t off = 0;
  for (std::size_t i = 0; i < got.size(); ++i) {
    const long long want = saturate(roundAs(std::ldexp(exact[i], -shift), r));
    const long long diff = std::llabs(got[i] - want);
    EXPECT_LE(diff, tol) << what << " index " << i << " exact " << static_cast<double>(exact[i]);
    off += diff != 0;
  }
  EXPECT_LE(static_cast<double>(off), maxOffFraction * got.size() + 1) << what;
}

// Error bound of the float algorithm in output units. A radix-2 float FFT
// keeps the error of every output below log2(N) * 2^-23 * sqrt(N) * ||x||_2
// (each stage adds a few roundings relative to the stage's L2 norm, which
// grows by sqrt(2) per stage up to sqrt(N) * ||x||_2). One more unit covers
// the roundings to integers of the result and of the reference.
long long floatTolerance(const Frame &x, int order, int shift) {
  long double sq = 0;
  for (short v : x) sq += static_cast<long double>(v) * v;
  const long double norm = std::sqrt(sq * static_cast<long double>(x.size()));
  const long double bound = std::max(order, 1) * std::ldexp(norm, -23 - shift);
  return 1 + static_cast<long long>(bound);
}

// Arithmetic error of the integer algorithm, in internal units (1/64 of an
// output unit, 1/128 for the doubled forward output): every rounded product
// adds an independent error of RMS 0.29, and an output sums the errors of
// about 2M of them through unit-modulus factors, so the RMS error is about
// 0.41 * sqrt(M) (measured: 1.9 forward and 2.4 inverse at order 7, 3.7 and
// 4.9 at order 9). The worst cases stay below 2 * sqrt(M) + 2.
long long intInternalTolerance(int order) {
  return 2 + static_cast<long long>(2 * std::sqrt(std::ldexp(1.0, order - 1)));
}
// Share of shifted outputs that may be one unit off: an exact value within
// the arithmetic error of an integer (the mean error over 64 internal units,
// with a margin). A bias of half a unit would put about half of them off.
double intOffFraction(int order) { return 0.02 + std::sqrt(std::ldexp(1.0, order - 1)) / 128; }

class KfxwFft : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override {
    kfx::fftw::failIntAllocations(0);
    kfx::fft::failTableAllocations(0);
    kfxSetStatus(KFX_StsOk);
  }
  void expectOk() { EXPECT_EQ(kfxGetStatus(), KFX_StsOk); }
};

// ---- integer algorithm ----

// The integer algorithm's error before the final shift stays far below one
// output unit (6 guard bits, Q30 twiddles rounded to nearest), so a result
// differs from the exactly shifted value only when the exact value lies
// within that error of an integer: at most 1, and rarely.
TEST_F(KfxwFft, IntegerForwardMatchesDft) {
  for (int order = 2; order <= 10; ++order) {
    const std::size_t n = std::size_t{1} << order;
    for (int layout : {kPerm, kPack}) {
      const bool pack = layout == kPack;
      // Full-scale input, scaled down by the order so nothing saturates.
      const Frame x = randomFrame(n, 32767, 100 + order);
      int factor = order;
      const Frame got = run(x, order, KFX_Forward | layout | kInt, KFX_FIXED_SCALE, &factor);
      expectOk();
      expectMatches(got, dftForward(x, pack), order, Rounding::Shift, 1, intOffFraction(order),
                    "order " + std::to_string(order) + (pack ? " pack" : " perm"));
      // Small input, unscaled, in place.
      const Frame y = randomFrame(n, 200, 200 + order);
      const Frame gotY = run(y, order, KFX_Forward | layout | kInt, 0, nullptr, true);
      expectMatches(gotY, dftForward(y, pack), 0, Rounding::Shift, 1, intOffFraction(order),
                    "small order " + std::to_string(order));
    }
  }
}

// A negative fixed scale exposes the guard bits: with *scaleFactor = -7
// (forward: 6 guard bits plus the doubled split output) the output is the
// internal value 128*X, with -6 (inverse with flag 16) it is 64*N*x. Its
// distance from the exact value measures the arithmetic error itself.
TEST_F(KfxwFft, IntegerInternalPrecision) {
  for (int order = 2; order <= 9; ++order) {
    const std::size_t n = std::size_t{1} << order;
    const Frame x = randomFrame(n, std::max(1, 240 >> order), 300 + order);
    int factor = -7;
    const Frame got = run(x, order, KFX_Forward | kPerm | kInt, KFX_FIXED_SCALE, &factor);
    expectMatches(got, dftForward(x, false), -7, Rounding::Shift, intInternalTolerance(order), 1.0,
                  "forward order " + std::to_string(order));
    const Frame spectrum = randomFrame(n, std::max(1, 240 >> order), 400 + order);
    factor = -6;
    const Frame gotInv =
        run(spectrum, order, KFX_Inverse | KFX_NoScale | kPerm | kInt, KFX_FIXED_SCALE, &factor);
    expectMatches(gotInv, dftInverse(spectrum, false), -6, Rounding::Shift, intInternalTolerance(order), 1.0,
                  "inverse order " + std::to_string(order));
  }
  expectOk();
}

TEST_F(KfxwFft, IntegerInverseWithAndWithoutScaling) {
  for (int order = 2; order <= 9; ++order) {
    const std::size_t n = std::size_t{1} << order;
    for (int layout : {kPerm, kPack}) {
      const bool pack = layout == kPack;
      const std::string what = "order " + std::to_string(order) + (pack ? " pack" : " perm");
      // Divided by N: full-scale spectrum.
      const Frame spectrum = randomFrame(n, 32767, 500 + order);
      const Frame got = run(spectrum, order, KFX_Inverse | layout | kInt);
      expectMatches(got, dftInverse(spectrum, pack), order, Rounding::Shift, 1, intOffFraction(order), what);
      // Flag 16: not divided; a small spectrum stays in range.
      const Frame small = randomFrame(n, 8, 600 + order);
      const Frame gotNs = run(small, order, KFX_Inverse | KFX_NoScale | layout | kInt, 0, nullptr, true);
      expectMatches(gotNs, dftInverse(small, pack), 0, Rounding::Shift, 1, intOffFraction(order),
                    what + " noscale");
    }
  }
  expectOk();
}

// Full-scale extremes reach the largest intermediate values (2^29 at order
// 7 in 32 bits): nothing wraps, every order, both directions.
TEST_F(KfxwFft, IntegerExtremesDoNotWrap) {
  for (int order = 2; order <= 12; ++order) {
    const std::size_t n = std::size_t{1} << order;
    Frame alternating(n), spectrum(n, -32768);
    for (std::size_t i = 0; i < n; ++i) alternating[i] = (i & 1) ? -32768 : 32767;
    for (const Frame &x : {Frame(n, -32768), alternating}) {
      int factor = order;
      const Frame got = run(x, order, KFX_Forward | kPerm | kInt, KFX_FIXED_SCALE, &factor);
      expectMatches(got, dftForward(x, false), order, Rounding::Shift, 1, 1.0,
                    "forward order " + std::to_string(order));
    }
    for (int layout : {kPerm, kPack}) {
      const Frame got = run(spectrum, order, KFX_Inverse | layout | kInt);
      expectMatches(got, dftInverse(spectrum, layout == kPack), order, Rounding::Shift, 1, 1.0,
                    "inverse order " + std::to_string(order));
    }
  }
  expectOk();
}

TEST_F(KfxwFft, TinyOrdersBothAlgorithms) {
  for (int alg : {kInt, kFlt}) {
    const Rounding r = alg == kInt ? Rounding::Shift : Rounding::Nearest;
    for (int layout : {kPerm, kPack}) {
      EXPECT_EQ(run({-123}, 0, KFX_Forward | layout | alg), Frame({-123}));
      EXPECT_EQ(run({300, -7}, 1, KFX_Forward | layout | alg), Frame({293, 307}));
      EXPECT_EQ(run({20000, 20000}, 1, KFX_Forward | layout | alg), Frame({32767, 0}));
      EXPECT_EQ(run({-123}, 0, KFX_Inverse | layout | alg), Frame({-123}));
      // (3 + -8) / 2 = -2.5 and (3 - -8) / 2 = 5.5
      const Frame half = run({3, -8}, 1, KFX_Inverse | layout | alg);
      expectMatches(half, Exact{-5.0L, 11.0L}, 1, r, 0, 0, "order 1 inverse");
      EXPECT_EQ(run({3, -8}, 1, KFX_Inverse | KFX_NoScale | layout | alg), Frame({-5, 11}));
    }
  }
  // The shift rule of the integer algorithm: -1/2 becomes 0, -3/2 becomes -2.
  EXPECT_EQ(run({-1, 0}, 1, KFX_Inverse | kPerm | kInt), Frame({0, 0}));
  EXPECT_EQ(run({-3, 0}, 1, KFX_Inverse | kPerm | kInt), Frame({-2, -2}));
  expectOk();
}

// ---- float algorithm ----

TEST_F(KfxwFft, FloatAlgorithmMatchesDft) {
  for (int order = 2; order <= 11; ++order) {
    const std::size_t n = std::size_t{1} << order;
    // Orders above 7 choose the float algorithm by themselves.
    const int alg = order <= 7 ? kFlt : 0;
    for (int layout : {kPerm, kPack}) {
      const bool pack = layout == kPack;
      const std::string what = "order " + std::to_string(order) + (pack ? " pack" : " perm");
      const Frame x = randomFrame(n, 32767, 700 + order);
      int factor = order;
      const Frame got = run(x, order, KFX_Forward | layout | alg, KFX_FIXED_SCALE, &factor);
      expectMatches(got, dftForward(x, pack), order, Rounding::Nearest,
                    floatTolerance(x, order, order), 0.05, what);
      const Frame spectrum = randomFrame(n, 32767, 800 + order);
      const Frame gotInv = run(spectrum, order, KFX_Inverse | layout | alg, 0, nullptr, true);
      expectMatches(gotInv, dftInverse(spectrum, pack), order, Rounding::Nearest,
                    floatTolerance(spectrum, order, order), 0.05, what + " inverse");
      const Frame small = randomFrame(n, 4, 900 + order);
      const Frame gotNs = run(small, order, KFX_Inverse | KFX_NoScale | layout | alg);
      expectMatches(gotNs, dftInverse(small, pack), 0, Rounding::Nearest,
                    floatTolerance(small, order, 0), 0.05, what + " noscale");
    }
  }
  expectOk();
}

// ---- scale modes ----

TEST_F(KfxwFft, SaturationAndAutoScaleOfConstantFrame) {
  // A constant frame of 1000 at order 6: X[0] = 64000, all else 0.
  const Frame x(64, 1000);
  for (int alg : {kInt, kFlt}) {
    for (int mode : {0, 1, 3, 8}) {
      const Frame sat = run(x, 6, KFX_Forward | kPerm | alg, mode);
      EXPECT_EQ(sat[0], 32767) << "mode " << mode;
      EXPECT_TRUE(std::all_of(sat.begin() + 1, sat.end(), [](short v) { return v == 0; }));
    }
    int factor = -99;
    const Frame scaled = run(x, 6, KFX_Forward | kPerm | alg, KFX_AUTO_SCALE, &factor);
    // 64000 has 16 significant bits: shifted by 16 - 14 = 2.
    EXPECT_EQ(factor, 2);
    EXPECT_EQ(scaled[0], 16000);
    // In range: no shift, and 0 is written.
    factor = -99;
    const Frame plain = run(Frame(64, 100), 6, KFX_Forward | kPerm | alg, KFX_AUTO_SCALE, &factor);
    EXPECT_EQ(factor, 0);
    EXPECT_EQ(plain[0], 6400);
    // Negative peak: -64000 also takes a shift of 2.
    const Frame neg = run(Frame(64, -1000), 6, KFX_Forward | kPerm | alg, KFX_AUTO_SCALE, &factor);
    EXPECT_EQ(factor, 2);
    EXPECT_EQ(neg[0], -16000);
  }
  expectOk();
}

// Auto scale of random frames: the shift is the bit length of the largest
// shifted magnitude minus 14, and the results are the exact values shifted
// by it, rounded as each algorithm rounds.
TEST_F(KfxwFft, AutoScaleMatchesDft) {
  for (int order : {3, 5, 7, 9}) {
    const std::size_t n = std::size_t{1} << order;
    for (int alg : {kInt, kFlt}) {
      const Rounding r = alg == kInt ? Rounding::Shift : Rounding::Nearest;
      const Frame x = randomFrame(n, 20000, 1000 + order);
      const Exact exact = dftForward(x, false);
      long double peak = 0;
      for (long double v : exact) peak = std::max(peak, std::fabs(v));
      int want = 0;
      std::frexp(static_cast<double>(peak), &want);
      want -= 14;
      int factor = -99;
      const Frame got = run(x, order, KFX_Forward | kPerm | alg, KFX_AUTO_SCALE, &factor);
      ASSERT_EQ(factor, want) << "order " << order;
      EXPECT_GT(factor, 0);
      const long long tol = alg == kInt ? 1 : floatTolerance(x, order, factor);
      expectMatches(got, exact, factor, r, tol, 0.05, "auto order " + std::to_string(order));
      const short top = *std::max_element(got.begin(), got.end(),
                                          [](short a, short b) { return std::abs(a) < std::abs(b); });
      EXPECT_LT(std::abs(top), 1 << 14);
      EXPECT_GE(std::abs(top), 1 << 12);
    }
  }
  expectOk();
}

TEST_F(KfxwFft, FixedScale) {
  const int order = 5;
  const Frame x = randomFrame(32, 3000, 77);
  const Exact exact = dftForward(x, true);
  for (int alg : {kInt, kFlt}) {
    const Rounding r = alg == kInt ? Rounding::Shift : Rounding::Nearest;
    for (int shift : {0, 1, 3, 9, 40, -1, -3}) {
      int factor = shift;
      const Frame got = run(x, order, KFX_Forward | kPack | alg, KFX_FIXED_SCALE, &factor);
      EXPECT_EQ(factor, shift) << "the factor is only read";
      expectMatches(got, exact, shift, r, 1, 0.05, "shift " + std::to_string(shift));
    }
    // A null factor stands for 0; so does scale mode 1.
    EXPECT_EQ(run(x, order, KFX_Forward | kPack | alg, KFX_FIXED_SCALE, nullptr),
              run(x, order, KFX_Forward | kPack | alg, 1, nullptr));
  }
  expectOk();
}

// ---- argument checks ----

struct BadCall {
  const char *name;
  bool inPlace;
  bool nullIn, nullOut;
  int order, flags, mode;
  bool nullFactor;
  const char *message;
};

TEST_F(KfxwFft, ArgumentChecks) {
  const int ok = KFX_Forward | kPerm;
  const BadCall cases[] = {
      {"order<0 before pointers", false, true, true, -1, ok, 0, false, "order<0"},
      {"order>31", false, false, false, 32, ok, 0, false, "order>31"},
      {"null samps", true, true, false, 4, ok, 0, false, "samps==0"},
      {"null in", false, true, false, 4, ok, 0, false, "inSamps==0"},
      {"null out", false, false, true, 4, ok, 0, false, "outSamps==0"},
      {"both directions", false, false, false, 4, 3 | kPerm, 0, false, "(flags & 1) && (flags & 2)"},
      {"no direction", false, false, false, 4, kPerm, 0, false, "(flags & 1)==0 && (flags & 2)==0"},
      {"both layouts", true, false, false, 4, KFX_Forward | kPerm | kPack, 0, false,
       "(flags & 256) && (flags & 512)"},
      {"no layout", false, false, false, 4, KFX_Forward, 0, false, "(flags & 256)==0 && (flags & 512)==0"},
      {"both algorithms", false, false, false, 4, ok | kInt | kFlt, 0, false,
       "(flags & 8192) && (flags & 16384)"},
      {"both scale bits", true, false, false, 4, ok, 6, false,
       "(scaleMode & 0x0002) && (scaleMode & 0x0004)"},
      {"auto without factor", false, false, false, 9, ok, KFX_AUTO_SCALE, true, "scaleFactor==0"},
      {"direction before layout", false, false, false, 4, kPerm | kPack, 0, false,
       "(flags & 1)==0 && (flags & 2)==0"},
  };
  for (const BadCall &c : cases) {
    kfxSetStatus(KFX_StsOk);
    Frame in(512, 5), out(512, 77);
    const Frame before = c.inPlace ? in : out;
    int factor = 3;
    int *f = c.nullFactor ? nullptr : &factor;
    if (c.inPlace) {
      kfxwRealFftl(c.nullIn ? nullptr : in.data(), c.order, c.flags, c.mode, f);
    } else {
      kfxwRealFftlNip(c.nullIn ? nullptr : in.data(), c.nullOut ? nullptr : out.data(), c.order,
                      c.flags, c.mode, f);
    }
    const KFXErrorReport *rep = kfxGetErrorReport();
    EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg) << c.name;
    EXPECT_STREQ(rep->message, c.message) << c.name;
    EXPECT_STREQ(rep->funcName, c.inPlace ? "kfxwRealFftl" : "kfxwRealFftlNip") << c.name;
    EXPECT_STREQ(rep->file, "kfxfftw") << c.name;
    EXPECT_EQ(c.inPlace ? in : out, before) << c.name << ": output touched";
    EXPECT_EQ(factor, 3) << c.name;
  }
}

TEST_F(KfxwFft, InitAndFreeIgnorePointers) {
  for (int order : {0, 3, 7, 9}) {
    kfxwRealFftlNip(nullptr, nullptr, order, KFX_Init, 0, nullptr);
    kfxwRealFftl(nullptr, order, KFX_Init | kInt, 0, nullptr);
    kfxwRealFftl(nullptr, order, KFX_Init | kFlt, 0, nullptr);
  }
  expectOk();
  kfxwRealFftl(nullptr, 0, KFX_Free, 0, nullptr);
  kfxFreeIntTwdTbls();
  expectOk();
  // Rebuilt on the next use.
  const Frame x = randomFrame(64, 1000, 5);
  int factor = 6;
  expectMatches(run(x, 6, KFX_Forward | kPerm, KFX_FIXED_SCALE, &factor), dftForward(x, false), 6,
                Rounding::Shift, 1, 0.05, "after free");
  expectOk();
}

TEST_F(KfxwFft, AllocationFailures) {
  const Frame x = randomFrame(512, 1000, 9);
  // Integer algorithm: a single failure is absorbed by the release and retry.
  kfxFreeIntTwdTbls();
  kfx::fftw::failIntAllocations(1);
  Frame out = run(x, 9, KFX_Forward | kPerm | kInt);
  expectOk();
  EXPECT_NE(out, Frame(512, 12345));
  // Persistent failure: -4, "No working memory", output untouched.
  kfxFreeIntTwdTbls();
  kfx::fftw::failIntAllocations(-1);
  out = run(x, 9, KFX_Forward | kPerm | kInt);
  EXPECT_EQ(kfxGetStatus(), KFX_StsNoMem);
  EXPECT_STREQ(kfxGetErrorReport()->message, "No working memory");
  EXPECT_STREQ(kfxGetErrorReport()->funcName, "kfxwRealFftlNip");
  EXPECT_EQ(out, Frame(512, 12345));
  kfx::fftw::failIntAllocations(0);
  // Float algorithm: the float tables cannot be built.
  kfxSetStatus(KFX_StsOk);
  kfxwRealFftl(nullptr, 0, KFX_Free, 0, nullptr);
  kfx::fft::failTableAllocations(-1);
  out = run(x, 9, KFX_Forward | kPerm);
  EXPECT_EQ(kfxGetStatus(), KFX_StsBackTrace);
  EXPECT_STREQ(kfxGetErrorReport()->message, "out kfxsRealFftl KFX_Init");
  EXPECT_STREQ(kfxGetErrorReport()->file, "kfxfftw");
  EXPECT_EQ(out, Frame(512, 12345));
}

// The stored status is not cleared by a successful call, whichever
// algorithm runs.
TEST_F(KfxwFft, SuccessKeepsCallersStatus) {
  const Frame x = randomFrame(256, 100, 3);
  for (int alg : {kInt, kFlt}) {
    kfxSetStatus(-5);
    run(x, 8, KFX_Forward | kPerm | alg);
    EXPECT_EQ(kfxGetStatus(), -5);
  }
}

TEST_F(KfxwFft, ConcurrentFirstUseGivesSameResults) {
  struct Job {
    int order, flags;
  };
  std::vector<Job> jobs;
  for (int order = 2; order <= 11; ++order) {
    jobs.push_back({order, KFX_Forward | kPerm | kInt});
    jobs.push_back({order, KFX_Inverse | kPack | kInt});
    jobs.push_back({order, KFX_Forward | kPack | kFlt});
  }
  auto compute = [&](std::vector<Frame> &results) {
    for (const Job &j : jobs) {
      const Frame x = randomFrame(std::size_t{1} << j.order, 30000, 40 + j.order);
      int factor = 0;
      results.push_back(run(x, j.order, j.flags, KFX_AUTO_SCALE, &factor));
      results.back().push_back(static_cast<short>(factor));
    }
  };
  std::vector<Frame> single;
  compute(single);
  for (int round = 0; round < 3; ++round) {
    kfxwRealFftl(nullptr, 0, KFX_Free, 0, nullptr);
    std::vector<std::vector<Frame>> perThread(4);
    std::vector<int> statuses(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        for (int rep = 0; rep < 3; ++rep) {
          perThread[t].clear();
          compute(perThread[t]);
        }
        statuses[t] = kfxGetStatus();
      });
    for (auto &th : threads) th.join();
    for (int t = 0; t < 4; ++t) {
      EXPECT_EQ(statuses[t], KFX_StsOk);
      EXPECT_EQ(perThread[t], single) << "thread " << t;
    }
  }
}

}  // namespace

namespace {

// The vectorised stages of the integer algorithm give the portable path's
// results bit for bit.
TEST_F(KfxwFft, VectorisedStagesEqualPortable) {
  for (int order = 2; order <= 7; ++order) {
    const std::size_t n = std::size_t{1} << order;
    for (int flags : {KFX_Forward | kPerm, KFX_Forward | kPack, KFX_Inverse | kPerm,
                      KFX_Inverse | KFX_NoScale | kPack}) {
      for (unsigned seed = 0; seed < 4; ++seed) {
        const Frame x = randomFrame(n, seed == 0 ? 32767 : 3000, 60 + seed + 10 * order);
        int fa = 0, fb = 0;
        kfx::fft::forcePortable(true);
        const Frame portable = run(x, order, flags | kInt, KFX_AUTO_SCALE, &fa);
        kfx::fft::forcePortable(false);
        const Frame dispatched = run(x, order, flags | kInt, KFX_AUTO_SCALE, &fb);
        EXPECT_EQ(portable, dispatched) << "order " << order << " flags " << flags;
        EXPECT_EQ(fa, fb);
      }
    }
  }
  expectOk();
}

}  // namespace

namespace {

// The float route's conversion: rounding half away from zero at the ties
// and next to them, saturation, scaling, on both paths.
TEST(KfxwFftConversion, RoundsHalfAwayAndSaturates) {
  std::vector<float> f;
  std::vector<short> want;
  auto add = [&](float v, short w) {
    f.push_back(v);
    want.push_back(w);
  };
  add(0.5f, 1);
  add(-0.5f, -1);
  add(std::nextafter(0.5f, 0.0f), 0);
  add(std::nextafter(-0.5f, 0.0f), 0);
  add(2.5f, 3);
  add(-2.5f, -3);
  add(std::nextafter(2.5f, 0.0f), 2);
  add(32767.4f, 32767);
  add(32767.5f, 32767);
  add(-32768.5f, -32768);
  add(1e9f, 32767);
  add(-1e9f, -32768);
  add(0.0f, 0);
  add(-0.0f, 0);
  add(1234.49f, 1234);
  add(-1234.51f, -1235);
  while (f.size() < 40) add(static_cast<float>(f.size()) - 20.5f, static_cast<short>(f.size() >= 21 ? f.size() - 20 : static_cast<int>(f.size()) - 21));
  for (bool simd : {false, true}) {
    std::vector<short> out(f.size(), 9);
    kfx::fftw::floatTo16(f.data(), out.data(), f.size(), 0, simd);
    EXPECT_EQ(out, want) << "simd " << simd;
    // Scaled by 2^-2: 2.5 / 4 = 0.625 -> 1, 1e9 / 4 still saturates.
    kfx::fftw::floatTo16(f.data(), out.data(), f.size(), 2, simd);
    for (std::size_t i = 0; i < f.size(); ++i) {
      const long double v = std::ldexp(static_cast<long double>(f[i]), -2);
      EXPECT_EQ(out[i], saturate(roundAs(v, Rounding::Nearest))) << i;
    }
    // Far beyond the double range both ways.
    kfx::fftw::floatTo16(f.data(), out.data(), f.size(), -5000, simd);
    for (std::size_t i = 0; i < f.size(); ++i)
      EXPECT_EQ(out[i], f[i] > 0 ? 32767 : (f[i] < 0 ? -32768 : 0)) << i;
    kfx::fftw::floatTo16(f.data(), out.data(), f.size(), 5000, simd);
    EXPECT_EQ(out, std::vector<short>(f.size(), 0));
  }
}

}  // namespace
