// Mel cepstra against a reference written from the definitions (naive DFT in
// long double, triangular area-normalised filters, logarithms, orthonormal
// DCT-II), the 16-bit form against the float form, liftering, the kernel
// status and the release of the per-thread buffers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include "feature_refs.h"
#include "features/features_internal.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

using featref::LD;

struct Bank {
  int order, nf, lo, hi, fs, nLin, linF;
};

// Power-of-two banks take the FFT-based DCT, the others the DCT kernel; one
// bank reaches beyond N/2 and reads the mirrored spectrum.
const Bank kBanks[] = {
    {9, 26, 0, 8000, 16000, 0, 0},    {9, 32, 100, 7000, 16000, 0, 0}, {8, 20, 0, 4000, 8000, 6, 1000},
    {8, 16, 0, 4000, 8000, 4, 600},   {8, 16, 200, 5000, 8000, 0, 0},
};

class Mfcc : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKFreeCepsTbls();
    xkltest::ReportingTest::TearDown();
  }
};

// Error bound of the float cepstrum for one frame, derived from what each
// step can err:
// - the float FFT errs by at most eps_f = 1e-6 (order + 1) of the peak
//   magnitude per bin (the kernel layer's documented bound), so |X_k| errs
//   relatively by eps_f peak / |X_k|, and log10 |X_k| by log10(e) times that;
// - the float logarithm, the power and the filter sums add a few float
//   roundings: 1e-6 (1 + |value|) per filter output covers them;
// - filter weights sum to 1, so a filter output errs by the weighted mean of
//   its bins' errors (magnitude mode: relatively, by the weighted maximum);
// - a DCT-II coefficient is sum_i b_ki y_i with |b_ki| <= sqrt(2/n), so it
//   errs by at most sqrt(2/n) sum_i |dy_i|.
// A wrong bin, weight or factor errs by 0.1 or more.
LD bound(const std::vector<LD> &power, const std::vector<featref::Filter> &bank, int order, bool magnitude,
         bool useFloor, LD floor) {
  LD peak = 0;
  for (LD p : power) peak = std::max(peak, std::sqrt(p));
  const LD epsF = 1e-6L * (order + 1) * peak;
  const int nb = static_cast<int>(power.size()), n = 2 * (nb - 1);
  LD sum = 0;
  for (const auto &f : bank) {
    LD dy = 0, mag = 0, val = 0;
    for (size_t j = 0; j < f.w.size(); ++j) {
      const int k = f.first + static_cast<int>(j);
      LD p = power[k < nb ? k : n - k];
      if (useFloor && !magnitude) p = std::max(p, floor);
      const LD m = std::sqrt(p);
      if (magnitude) {
        mag += f.w[j] * m;
      } else {
        dy += f.w[j] * 0.4343L * epsF / m;
        val = std::max(val, std::fabs(std::log10(m)));
      }
    }
    if (magnitude) {
      const LD floored = useFloor ? std::max(mag, floor) : mag;
      dy = 0.4343L * epsF / floored;
      val = std::fabs(std::log10(floored));
    }
    sum += dy + 1e-6L * (1 + val);
  }
  return std::sqrt(2.0L / bank.size()) * sum;
}

std::vector<featref::Filter> refBank(const Bank &b) {
  return featref::melBank(b.order, b.nf, b.lo, b.hi, b.fs, b.nLin, b.linF);
}

// Every flag combination, every bank, speech-like frames (and the corpus
// below): time input and spectrum input (|X| given) must agree with the
// reference; nCeps asks for one more coefficient than exists, which must be 0.
TEST_F(Mfcc, AgreesWithReferenceInEveryFlagCombination) {
  for (const Bank &b : kBanks) {
    XKMFCCFilters *f = XKsMFCCInit(b.order, b.nf, b.lo, b.hi, b.fs, b.nLin, b.linF);
    ASSERT_NE(f, nullptr);
    const auto bank = refBank(b);
    const int n = 1 << b.order;
    for (unsigned seed = 1; seed <= 2; ++seed) {
      const std::vector<float> x = featref::speechLike(n, seed, 0.5 + seed);
      const std::vector<LD> power = featref::powerSpectrum(x);
      std::vector<LD> sorted(power);
      std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 4, sorted.end());
      const LD powerFloor = sorted[sorted.size() / 4];  // bites on a quarter of the bins
      for (int flags = 0; flags < 32; ++flags) {
        if (flags & 2) continue;
        SCOPED_TRACE(testing::Message() << "bank nf=" << b.nf << " order=" << b.order << " flags=" << flags);
        const bool time = flags & XK_MFCC_TIME, useFloor = flags & XK_MFCC_FLOOR;
        const bool magnitude = flags & XK_MFCC_MAGNITUDE;
        const int skip = (flags & XK_MFCC_C0) ? 0 : 1;
        // The floor applies to what is logged: power (time input), the
        // given magnitude (spectrum input) or the filtered magnitude.
        float fl = 0;
        LD refFloor = 0;
        if (magnitude) {
          LD m = 0;  // between the smallest and largest filter outputs
          for (LD p : power) m += std::sqrt(p);
          refFloor = m / power.size() / 4;
          fl = static_cast<float>(refFloor);
        } else if (time) {
          fl = static_cast<float>(powerFloor), refFloor = fl;
        } else {
          fl = static_cast<float>(std::sqrt(powerFloor)), refFloor = static_cast<LD>(fl) * fl;
        }
        const std::vector<LD> ref = featref::mfcc(power, bank, magnitude, useFloor, refFloor);
        const LD tol = bound(power, bank, b.order, magnitude, useFloor, refFloor);
        std::vector<float> in(x), out(b.nf + 1, 99.0f);
        if (!time) {
          in.assign(n / 2 + 1, 0);
          for (int k = 0; k <= n / 2; ++k) in[k] = static_cast<float>(std::sqrt(power[k]));
        }
        const std::vector<float> given(in);
        ASSERT_EQ(XKsCepstralMFCC(f, in.data(), out.data(), b.nf + 1, fl, flags), 0);
        for (int i = 0; i + skip < b.nf; ++i) ASSERT_NEAR(out[i], ref[i + skip], tol) << "c" << i + skip;
        for (int i = b.nf - skip; i <= b.nf; ++i) EXPECT_EQ(out[i], 0.0f);
        // A float spectrum in power mode is floored and logged in place
        // over the bins the bank needs.
        if (!time && !magnitude) {
          for (int k = 0; k <= f->lastBin && k <= n / 2; ++k)
            ASSERT_FLOAT_EQ(in[k], std::log(useFloor ? std::max(given[k], fl) : given[k]));
        } else {
          EXPECT_EQ(in, given);
        }
      }
    }
    XKsFreeMFCCFilters(f);
  }
}

// Real speech: 25 ms frames (zero-padded to 256), pre-emphasised and
// Hamming-windowed by the test, against the reference.
TEST_F(Mfcc, AgreesWithReferenceOnCorpusSpeech) {
  const auto dir = featref::corpusDir();
  if (dir.empty()) GTEST_SKIP() << "speech corpus not present";
  const std::vector<short> pcm = featref::readWav(dir / "7_jackson_32.wav");
  ASSERT_GT(pcm.size(), 2000u);
  for (int nf : {23, 16}) {
    XKMFCCFilters *f = XKsMFCCInit(8, nf, 0, 4000, 8000, 0, 0);
    const auto bank = featref::melBank(8, nf, 0, 4000, 8000);
    for (size_t start = 0; start + 200 <= pcm.size(); start += 400) {
      std::vector<float> x(256, 0.0f);
      for (int t = 0; t < 200; ++t) x[t] = pcm[start + t];
      XKsPreemphasize(x.data(), 0.97f, 200);
      for (int t = 0; t < 200; ++t) x[t] *= static_cast<float>(0.54 - 0.46 * std::cos(2 * featref::kPi * t / 199));
      const auto power = featref::powerSpectrum(x);
      for (int flags : {1 | 4 | 16, 1 | 8 | 16}) {
        const bool magnitude = flags & 8;
        const LD floorV = magnitude ? 1.0L : 1e2L;
        const auto ref = featref::mfcc(power, bank, magnitude, true, floorV);
        const LD tol = bound(power, bank, 8, magnitude, true, floorV);
        std::vector<float> out(13);
        ASSERT_EQ(XKsCepstralMFCC(f, x.data(), out.data(), 13, static_cast<float>(floorV), flags), 0);
        for (int i = 0; i < 13; ++i) ASSERT_NEAR(out[i], ref[i], tol) << "frame " << start << " c" << i;
      }
    }
    XKsFreeMFCCFilters(f);
  }
}

// A flat log spectrum L gives c0 = L sqrt(nFilters) and nothing else, on the
// FFT-based DCT (16 filters) and the kernel DCT (20 filters).
TEST_F(Mfcc, FlatSpectrumHasOnlyC0) {
  for (int nf : {16, 20}) {
    XKMFCCFilters *f = XKsMFCCInit(8, nf, 0, 4000, 8000, 0, 0);
    std::vector<float> spec(129, 100.0f), out(nf);
    ASSERT_EQ(XKsCepstralMFCC(f, spec.data(), out.data(), nf, 0, XK_MFCC_MAGNITUDE | XK_MFCC_C0), 0);
    EXPECT_NEAR(out[0], 2.0 * std::sqrt(nf), 2e-5);
    for (int i = 1; i < nf; ++i) EXPECT_NEAR(out[i], 0.0, 2e-6);
    XKsFreeMFCCFilters(f);
  }
}

// The 16-bit form against the float form on the same samples x = w 2^-inScale.
// The 16-bit transform returns X_w / 2^(order-1) truncated, and the power is
// multiplied by 2^e: e = 2 order - 2 inScale - 2 for flags 1 and 5 exactly,
// which gives the true power, else e = -order - inScale. So the 16-bit power
// is the true power times 2^g (g = 0, or inScale - 3 order + 2): every
// filter's log10 output moves by (g/2) log10 2, which moves c0 alone by
// sqrt(nf) times that, and the floor acts at the true value floor 2^-g
// (power) or floor 2^(-g/2) (magnitude).
// Bound: truncation errs by at most sqrt(2) 2^(order-1) in X_w, i.e. by a
// relative rel = sqrt(2) 2^(order-1-inScale) / sqrt(floor) of any bin (power
// mode) or filter output (magnitude mode) above the floor, which the floor is
// chosen to keep small; log10 turns it into 0.4343 rel, the DCT into at most
// sqrt(2/nf) nf times that; the float form's own error (1e-4) and the output
// conversion (one unit, or 1 + sqrt(2 nf) units through the 16-bit DCT) add.
TEST_F(Mfcc, SixteenBitFormFollowsFloatForm) {
  const auto dir = featref::corpusDir();
  std::vector<short> pcm;
  if (!dir.empty()) pcm = featref::readWav(dir / "3_theo_7.wav");
  if (pcm.size() < 2000) {
    const auto x = featref::speechLike(4000, 7, 8000.0);
    pcm.assign(x.begin(), x.end());
  }
  struct Case {
    int nf, flags, outMode, inScale;
  };
  const Case cases[] = {{23, 5, 2, 0},  {16, 5, 2, -2},  {23, 21, 2, 0}, {16, 21, 1, 0},
                        {23, 13, 2, 0}, {23, 5, 3, 0},  {16, 29, 2, 1}, {23, 1 | 4 | 16, 3, 0}};
  const int order = 8, n = 256;
  const double log2 = std::log10(2.0);
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "nf=" << c.nf << " flags=" << c.flags << " outMode=" << c.outMode);
    XKMFCCFilters *f = XKwMFCCInit(order, c.nf, 0, 4000, 8000, 0, 0);
    ASSERT_NE(f, nullptr);
    const bool magnitude = c.flags & 8, c0 = c.flags & 16;
    const int g = (c.flags == 1 || c.flags == 5) ? 0 : c.inScale - 3 * order + 2;
    // True-unit floors: power 1.6e9 (|X| >= 40000), magnitude 40000.
    const double trueFloor = magnitude ? 40000.0 : 1.6e9;
    const double gf = magnitude ? g / 2.0 : g;
    const int floorW = static_cast<int>(trueFloor * std::exp2(gf + c.inScale));
    const double floorF = floorW * std::exp2(-gf - c.inScale);
    const double rel = std::sqrt(2.0) * std::ldexp(1.0, order - 1 - c.inScale) /
                       (magnitude ? floorF : std::sqrt(floorF));
    for (size_t start = 0; start + n <= pcm.size(); start += 600) {
      std::vector<short> w(pcm.begin() + start, pcm.begin() + start + n);
      std::vector<float> x(n);
      for (int t = 0; t < n; ++t) x[t] = static_cast<float>(std::ldexp(w[t], -c.inScale));
      std::vector<float> sOut(c.nf);
      std::vector<short> wOut(c.nf);
      ASSERT_EQ(XKsCepstralMFCC(f, x.data(), sOut.data(), c.nf, static_cast<float>(floorF), c.flags), 0);
      int outScale = c.outMode == 1 ? -10 : 0;
      ASSERT_EQ(XKwCepstralMFCC(f, w.data(), wOut.data(), c.nf, floorW, c.flags, c.inScale, c.outMode, &outScale), 0);
      const double unit = std::ldexp(1.0, outScale);
      const bool wDct = f->dctOrder == 0 && c.outMode != 0 && c.outMode != 1;
      const double tol = std::sqrt(2.0 * c.nf) * (0.4343 * rel) + 1e-4 + unit * (wDct ? 1 + std::sqrt(2.0 * c.nf) : 1);
      for (int i = 0; i < c.nf - !c0; ++i) {
        const double shift = (c0 && i == 0) ? std::sqrt(c.nf) * g / 2 * log2 : 0.0;
        ASSERT_NEAR(wOut[i] * unit, sOut[i] + shift, tol) << "output " << i << " frame " << start;
      }
    }
    // The 16-bit release leaves the three DCT arrays to the caller.
    float *dct[] = {f->dctSrc, f->dctIn, f->dctOut};
    XKwFreeMFCCFilters(f);
    for (float *p : dct) std::free(p);
  }
}

// Liftering: c_i (1 + L/2 sin(pi i / L)); L = 22 keeps c0 and multiplies c11
// by 12. The 16-bit form rounds through float and back with scale 0.
TEST(Lifter, WeightsBySineLifter) {
  std::vector<float> c(16, 2.0f);
  XKsLiftering(c.data(), 16, 22);
  for (int i = 0; i < 16; ++i) EXPECT_FLOAT_EQ(c[i], 2.0 * (1 + 11 * std::sin(featref::kPi * i / 22)));
  EXPECT_FLOAT_EQ(c[11], 24.0f);
  std::vector<short> w(16, 100);
  XKwLiftering(w.data(), 16, 22);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(w[i], static_cast<short>(std::trunc(c[i] * 50.0f))) << i;
}

// A kernel failure left standing (here set by hand) must not make later
// cepstra fail: each call starts its kernel sequence from a clean status.
TEST_F(Mfcc, StaleKernelFailureDoesNotLeakIntoLaterCalls) {
  XKMFCCFilters *f = XKsMFCCInit(8, 16, 0, 4000, 8000, 0, 0);
  auto x = featref::speechLike(256, 3);
  std::vector<float> a(12), b(12);
  ASSERT_EQ(XKsCepstralMFCC(f, x.data(), a.data(), 12, 1e-3f, 1 | 4), 0);
  kfxSetStatus(KFX_StsBadArg);
  EXPECT_EQ(XKsCepstralMFCC(f, x.data(), b.data(), 12, 1e-3f, 1 | 4), 0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(kfxGetStatus(), 0);
  EXPECT_TRUE(xkltest::reports().empty());
  XKsFreeMFCCFilters(f);
}

// The vectorised element loops give the same bits as the portable ones, and
// the logarithm is within 1 ulp of the exact one (specials as the C library).
TEST_F(Mfcc, VectorisedLoopsMatchPortableBitForBit) {
  std::vector<float> v;
  for (float x = 1e-30f; x < 1e30f; x *= 1.0137f) v.push_back(x);
  for (float x : {0.0f, -0.0f, -1.0f, 1e-40f, std::numeric_limits<float>::infinity(),
                  std::numeric_limits<float>::quiet_NaN(), 1.0f, 0.70710677f, 0.70710683f})
    v.push_back(x);
  std::vector<float> portable(v), simd(v);
  const bool was = xk::features::setFeatureSimd(false);
  xk::features::lnInPlace(portable.data(), static_cast<int>(portable.size()));
  xk::features::setFeatureSimd(true);
  xk::features::lnInPlace(simd.data(), static_cast<int>(simd.size()));
  ASSERT_EQ(std::memcmp(portable.data(), simd.data(), v.size() * sizeof(float)), 0);
  for (size_t i = 0; i < v.size(); ++i) {
    const long double exact = std::log(static_cast<long double>(v[i]));
    if (!std::isfinite(static_cast<double>(exact)) || std::isnan(v[i])) {
      EXPECT_TRUE(std::isnan(portable[i]) ? std::isnan(static_cast<double>(exact)) : portable[i] == exact) << v[i];
      continue;
    }
    const float ulp = std::nextafter(std::fabs(static_cast<float>(exact)), 1e38f) - std::fabs(static_cast<float>(exact));
    ASSERT_LE(std::fabs(portable[i] - exact), ulp) << v[i];
  }
  // The other loops, through the functions that use them: pre-emphasis and
  // whole cepstra in every mode, bit for bit.
  XKMFCCFilters *f = XKsMFCCInit(9, 26, 0, 8000, 16000, 0, 0);
  const auto x = featref::speechLike(512, 5);
  for (int flags : {1, 1 | 4, 1 | 8, 1 | 4 | 8 | 16, 4, 8 | 4}) {
    std::vector<float> res[2];
    for (int simd = 0; simd < 2; ++simd) {
      xk::features::setFeatureSimd(simd == 1);
      std::vector<float> in(x.begin(), x.begin() + ((flags & 1) ? 512 : 257)), out(13);
      for (float &v : in) v = std::fabs(v) + 1e-3f;  // a spectrum when flag 1 is off
      XKsPreemphasize(in.data(), 0.97f, static_cast<int>(in.size()));
      XKsCepstralMFCC(f, in.data(), out.data(), 13, 0.05f, flags);
      res[simd] = in;
      res[simd].insert(res[simd].end(), out.begin(), out.end());
    }
    EXPECT_EQ(std::memcmp(res[0].data(), res[1].data(), res[0].size() * sizeof(float)), 0) << flags;
  }
  xk::features::setFeatureSimd(was);
  XKsFreeMFCCFilters(f);
}

// A thread that computes every kind of feature and calls the three release
// functions leaves nothing behind (checked by the sanitizer build's leak
// detector at exit).
TEST(Release, ThreadReleasesEverything) {
  std::thread t([] {
    XKMFCCFilters *f = XKsMFCCInit(8, 20, 0, 4000, 8000, 0, 0);
    auto x = featref::speechLike(256, 9, 1000.0);
    std::vector<short> w(x.begin(), x.end());
    std::vector<float> c(13), lpc(12), spec(512);
    std::vector<short> wc(13), wl(30), ws(512);
    XKsCepstralMFCC(f, x.data(), c.data(), 13, 1.0f, 1 | 4);
    XKwCepstralMFCC(f, w.data(), wc.data(), 13, 1, 5, 0, 2, nullptr);
    XKwCepstralMFCC(f, w.data(), wc.data(), 13, 1, 5, 0, 3, nullptr);
    XKsLPredict(x.data(), 256, lpc.data(), 12, 1);
    XKsLPredict(x.data(), 256, lpc.data(), 12, 2);
    XKwLPredict(w.data(), 256, wl.data(), 12, 1, 2, nullptr);
    XKsLPSpectrum(lpc.data(), 12, spec.data(), 9, 1.0f);
    XKsLPSpectrum(lpc.data(), 4, spec.data(), 9, 1.0f);
    XKwLPSpectrum(wl.data(), 12, ws.data(), 9, 100, 0, 2, nullptr);
    XKwLPSpectrum(wl.data(), 30, ws.data(), 9, 100, 0, 2, nullptr);
    XKwPreemphasize(w.data(), 1.5f, 256, 2, nullptr);
    XKsFreeMFCCFilters(f);
    XKFreeCepsTbls();
    XKFreeLPTbls();
    XKFreePreemphasizeTbls();
    const auto &ctx = xk::context();
    for (void *b : ctx.ceps.buf) EXPECT_EQ(b, nullptr);
    for (void *b : ctx.preemphLpSpec.slot) EXPECT_EQ(b, nullptr);
    EXPECT_EQ(ctx.lpred.arrAutocorr, nullptr);
    EXPECT_EQ(ctx.ceps.dctBasis, nullptr);
    EXPECT_EQ(ctx.preemphLpSpec.buff, nullptr);
  });
  t.join();
}

}  // namespace
