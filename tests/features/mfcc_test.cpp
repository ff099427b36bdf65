// Mel cepstra against the definitions and the 16-bit form against the float
// form; liftering, kernel status, vectorised loops and buffer release.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <thread>

#include "feature_refs.h"
#include "features/features_internal.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

using featref::LD;

class Mfcc : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKFreeCepsTbls();
    xkltest::ReportingTest::TearDown();
  }
};

// Error bound of the float cepstrum: the FFT errs by eps = 1e-6 (order + 1)
// of the peak |X| per bin, so log10 |X_k| by 0.4343 eps / |X_k|; unit-area
// filters pass on their bins' weighted error (magnitude mode: 0.4343 eps /
// y_i), plus a few float roundings, 1e-6 (1 + |y_i|); the DCT multiplies by
// at most sqrt(2/n). A wrong bin, weight or factor errs by 0.1 or more.
LD bound(const std::vector<LD> &power, const std::vector<featref::Filter> &bank, int order, bool magnitude,
         bool useFloor, LD floor) {
  LD peak = 0, sum = 0;
  for (LD p : power) peak = std::max(peak, std::sqrt(p));
  const LD eps = 1e-6L * (order + 1) * peak;
  const int nb = static_cast<int>(power.size());
  for (const auto &f : bank) {
    LD dy = 0, mag = 0;
    for (size_t j = 0; j < f.w.size(); ++j) {
      const int k = f.first + static_cast<int>(j);
      const LD p = power[k < nb ? k : 2 * (nb - 1) - k];
      mag += f.w[j] * std::sqrt(p);
      dy += f.w[j] * 0.4343L * eps / std::sqrt(useFloor ? std::max(p, floor) : p);
    }
    const LD y = useFloor && magnitude ? std::max(mag, floor) : mag;
    sum += (magnitude ? 0.4343L * eps / y : dy) + 1e-6L * (1 + std::fabs(std::log10(y)));
  }
  return std::sqrt(2.0L / bank.size()) * sum;
}

// Every flag combination on every bank: power-of-two counts (FFT-based DCT)
// and others, with and without a linear group, one bank reaching past N/2
// (mirrored spectrum). Speech-like frames, and real speech for the 8 kHz
// banks. Spectrum input gets |X|; one coefficient more than exists is asked
// for and must be 0; a float spectrum in power mode comes back logged.
TEST_F(Mfcc, AgreesWithDefinitionsInEveryFlagCombination) {
  const int banks[][7] = {{9, 26, 0, 8000, 16000, 0, 0}, {9, 32, 100, 7000, 16000, 0, 0},
                          {8, 20, 0, 4000, 8000, 6, 1000}, {8, 16, 0, 4000, 8000, 4, 600},
                          {8, 16, 200, 5000, 8000, 0, 0}};
  const std::vector<short> speech = featref::corpus("7_jackson_32.wav");
  for (const auto &[order, nf, lo, hi, fs, nLin, linF] : banks) {
    XKMFCCFilters *f = XKsMFCCInit(order, nf, lo, hi, fs, nLin, linF);
    const auto bank = featref::melBank(order, nf, lo, hi, fs, nLin, linF);
    const int n = 1 << order;
    std::vector<std::vector<float>> frames = {featref::speechLike(n, 1, 1.5), featref::speechLike(n, 2, 2.5)};
    for (size_t at = 0; fs == 8000 && at + n <= speech.size(); at += 1500) {
      frames.emplace_back(speech.begin() + at, speech.begin() + at + n);
      XKsPreemphasize(frames.back().data(), 0.97f, n);
    }
    for (const auto &x : frames) {
      const std::vector<LD> power = featref::powerSpectrum(x);
      std::vector<LD> sorted(power);
      std::sort(sorted.begin(), sorted.end());
      LD meanMag = 0;  // magnitude floor: a quarter of the mean |X|
      for (LD p : power) meanMag += std::sqrt(p) / power.size();
      for (int flags = 0; flags < 32; flags += (flags & 1) ? 3 : 1) {  // bit 1 is not a flag
        SCOPED_TRACE(testing::Message() << "nf=" << nf << " nLin=" << nLin << " flags=" << flags);
        const bool time = flags & 1, useFloor = flags & 4, magnitude = flags & 8;
        const int skip = (flags & 16) ? 0 : 1;
        // The floor acts on what is logged: power (time input), the given
        // |X| (spectrum input) or the filter output (magnitude mode).
        const LD powerFloor = sorted[sorted.size() / 4];
        const float fl = static_cast<float>(magnitude ? meanMag / 4 : time ? powerFloor : std::sqrt(powerFloor));
        const LD refFloor = magnitude || time ? fl : static_cast<LD>(fl) * fl;
        const auto ref = featref::mfcc(power, bank, magnitude, useFloor, refFloor);
        const LD tol = bound(power, bank, order, magnitude, useFloor, refFloor);
        std::vector<float> in(x), out(nf + 1, 99.0f);
        if (!time) {
          in.resize(n / 2 + 1);
          for (int k = 0; k <= n / 2; ++k) in[k] = static_cast<float>(std::sqrt(power[k]));
        }
        const std::vector<float> given(in);
        ASSERT_EQ(XKsCepstralMFCC(f, in.data(), out.data(), nf + 1, fl, flags), 0);
        for (int i = 0; i + skip < nf; ++i) ASSERT_NEAR(out[i], ref[i + skip], tol) << "c" << i + skip;
        for (int i = nf - skip; i <= nf; ++i) EXPECT_EQ(out[i], 0.0f);
        for (int k = 0; k <= f->lastBin && k <= n / 2; ++k)
          ASSERT_FLOAT_EQ(in[k], time || magnitude ? given[k] : std::log(useFloor ? std::max(given[k], fl) : given[k]));
      }
    }
    XKsFreeMFCCFilters(f);
  }
}

// The 16-bit form against the float form on the same samples x = w 2^-inScale.
// Its power is the true one times 2^g (g = 0 for flags 1 and 5, else inScale
// - 3 order + 2): each log10 output moves by (g/2) log10 2, c0 by sqrt(nf)
// times that, and the floor acts at 2^-g (power) or 2^(-g/2) (magnitude).
// Bound: the FFT truncates by <= sqrt(2) 2^(order-1) in X_w, relatively rel
// above the floor, sqrt(2 nf) 0.4343 rel through log10 and DCT; plus 1e-4
// and the output conversion (1 unit, 1 + sqrt(2 nf) through the 16-bit DCT).
TEST_F(Mfcc, SixteenBitFormFollowsFloatForm) {
  std::vector<short> pcm = featref::corpus("3_theo_7.wav");
  if (pcm.size() < 2000) {
    const auto x = featref::speechLike(4000, 7, 8000.0);
    pcm.assign(x.begin(), x.end());
  }
  const struct { int nf, flags, outMode, inScale; } cases[] = {{23, 5, 2, 0},  {16, 5, 2, -2}, {23, 21, 2, 0},
                                                               {16, 21, 1, 0}, {23, 13, 2, 0}, {23, 5, 3, 0},
                                                               {16, 29, 2, 1}, {23, 21, 3, 0}};
  const int order = 8, n = 256;
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "nf=" << c.nf << " flags=" << c.flags << " outMode=" << c.outMode);
    XKMFCCFilters *f = XKwMFCCInit(order, c.nf, 0, 4000, 8000, 0, 0);
    const bool magnitude = c.flags & 8, c0 = c.flags & 16;
    const double g = (c.flags == 1 || c.flags == 5) ? 0 : c.inScale - 3 * order + 2, gf = magnitude ? g / 2 : g;
    const int floorW = static_cast<int>((magnitude ? 40000.0 : 1.6e9) * std::exp2(gf + c.inScale));
    const double floorF = floorW * std::exp2(-gf - c.inScale);
    const double rel = std::sqrt(2.0) * std::exp2(order - 1 - c.inScale) / (magnitude ? floorF : std::sqrt(floorF));
    for (size_t start = 0; start + n <= pcm.size(); start += 600) {
      std::vector<short> w(pcm.begin() + start, pcm.begin() + start + n), wOut(c.nf);
      std::vector<float> x(n), sOut(c.nf);
      for (int t = 0; t < n; ++t) x[t] = static_cast<float>(std::ldexp(w[t], -c.inScale));
      ASSERT_EQ(XKsCepstralMFCC(f, x.data(), sOut.data(), c.nf, static_cast<float>(floorF), c.flags), 0);
      int outScale = c.outMode == 1 ? -10 : 0;
      ASSERT_EQ(XKwCepstralMFCC(f, w.data(), wOut.data(), c.nf, floorW, c.flags, c.inScale, c.outMode, &outScale), 0);
      const double unit = std::ldexp(1.0, outScale);
      const bool wDct = f->dctOrder == 0 && c.outMode > 1;
      const double tol = std::sqrt(2.0 * c.nf) * 0.4343 * rel + 1e-4 + unit * (wDct ? 1 + std::sqrt(2.0 * c.nf) : 1);
      for (int i = 0; i < c.nf - !c0; ++i)
        ASSERT_NEAR(wOut[i] * unit, sOut[i] + (c0 && i == 0 ? std::sqrt(c.nf) * g / 2 * std::log10(2.0) : 0), tol)
            << "output " << i << " frame " << start;
    }
    float *dct[] = {f->dctSrc, f->dctIn, f->dctOut};  // left to the caller by the 16-bit release
    XKwFreeMFCCFilters(f);
    for (float *p : dct) std::free(p);
  }
}

// c_i (1 + L/2 sin(pi i / L)); the 16-bit form goes through float and back
// with scale 0 (truncating).
TEST(Lifter, WeightsBySineLifter) {
  std::vector<float> c(16, 2.0f);
  std::vector<short> w(16, 100);
  XKsLiftering(c.data(), 16, 22);
  XKwLiftering(w.data(), 16, 22);
  for (int i = 0; i < 16; ++i) {
    EXPECT_FLOAT_EQ(c[i], 2.0 * (1 + 11 * std::sin(featref::kPi * i / 22)));
    EXPECT_EQ(w[i], static_cast<short>(c[i] * 50.0f)) << i;
  }
}

// A kernel failure left standing must not fail later cepstra.
TEST_F(Mfcc, StaleKernelFailureDoesNotLeakIntoLaterCalls) {
  XKMFCCFilters *f = XKsMFCCInit(8, 16, 0, 4000, 8000, 0, 0);
  auto x = featref::speechLike(256, 3);
  std::vector<float> a(12), b(12);
  ASSERT_EQ(XKsCepstralMFCC(f, x.data(), a.data(), 12, 1e-3f, 5), 0);
  kfxSetStatus(KFX_StsBadArg);
  EXPECT_EQ(XKsCepstralMFCC(f, x.data(), b.data(), 12, 1e-3f, 5), 0);
  EXPECT_TRUE(a == b && xkltest::reports().empty());
  XKsFreeMFCCFilters(f);
}

// Both logarithms stay within 1 ulp of the exact one and give the C
// library's specials; the other vectorised loops give the portable loops'
// bits, and cepstra agree to 2 ulp of |ln v| <= 20, times 0.2171 and
// sqrt(2 nf) through filters and DCT: < 4e-6.
TEST_F(Mfcc, VectorisedLoopsMatchPortableLoops) {
  std::vector<float> v = {0.0f, -0.0f, -1.0f, 1e-40f, 1.0f, 0.70710677f, std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::quiet_NaN()};
  for (float x = 1e-30f; x < 1e30f; x *= 1.0137f) v.push_back(x);
  const bool was = xk::features::setFeatureSimd(false);
  for (int simd = 0; simd < 2; ++simd) {
    xk::features::setFeatureSimd(simd == 1);
    std::vector<float> ln(v);
    xk::features::lnInPlace(ln.data(), static_cast<int>(v.size()));
    for (size_t i = 0; i < v.size(); ++i) {
      const float exact = std::log(v[i]);  // the C library's, within half an ulp
      if (!std::isfinite(exact)) EXPECT_TRUE(std::isnan(exact) ? std::isnan(ln[i]) : ln[i] == exact) << v[i];
      else ASSERT_LE(std::fabs(ln[i] - std::log(static_cast<long double>(v[i]))),
                     std::nextafter(std::fabs(exact), 1e38f) - std::fabs(exact)) << v[i] << " simd " << simd;
    }
  }
  XKMFCCFilters *f = XKsMFCCInit(9, 26, 0, 8000, 16000, 0, 0);
  const auto x = featref::speechLike(512, 5);
  for (int flags : {1, 5, 9, 29, 4, 12}) {
    std::vector<float> res[2], spec[2];
    for (int simd = 0; simd < 2; ++simd) {
      xk::features::setFeatureSimd(simd == 1);
      std::vector<float> in(x.begin(), x.begin() + ((flags & 1) ? 512 : 257)), &mel = spec[simd];
      for (float &e : in) e = std::fabs(e) + 1e-3f;
      XKsPreemphasize(in.data(), 0.5f, static_cast<int>(in.size()));
      for (float &e : in) e = std::fabs(e) + 1e-3f;
      mel.resize(26);
      XKsMelFiltering(f, in.data(), mel.data());
      mel.insert(mel.end(), in.begin(), in.end());
      res[simd].resize(13);
      XKsCepstralMFCC(f, in.data(), res[simd].data(), 13, 0.05f, flags);
    }
    EXPECT_EQ(std::memcmp(spec[0].data(), spec[1].data(), spec[0].size() * sizeof(float)), 0) << flags;
    for (int i = 0; i < 13; ++i) EXPECT_NEAR(res[0][i], res[1][i], 4e-6) << flags;
  }
  xk::features::setFeatureSimd(was);
  XKsFreeMFCCFilters(f);
}

// A thread that computes every kind of feature and calls the three release
// functions leaves nothing behind (the sanitizer build checks for leaks).
TEST(Release, ThreadReleasesEverything) {
  std::thread([] {
    XKMFCCFilters *f = XKsMFCCInit(8, 20, 0, 4000, 8000, 0, 0);
    auto x = featref::speechLike(256, 9, 1000.0);
    std::vector<short> w(x.begin(), x.end()), ws(512), wl(30);
    std::vector<float> c(13), lpc(12), spec(512);
    XKsCepstralMFCC(f, x.data(), c.data(), 13, 1.0f, 5);
    for (int mode : {2, 3}) XKwCepstralMFCC(f, w.data(), w.data(), 13, 1, 5, 0, mode, nullptr);
    for (int method : {1, 2}) XKsLPredict(x.data(), 256, lpc.data(), 12, method);
    XKwLPredict(w.data(), 256, wl.data(), 12, 1, 2, nullptr);
    for (int p : {4, 12}) XKsLPSpectrum(lpc.data(), p, spec.data(), 9, 1.0f);
    for (int p : {12, 30}) XKwLPSpectrum(wl.data(), p, ws.data(), 9, 100, 0, 2, nullptr);
    XKwPreemphasize(w.data(), 1.5f, 256, 2, nullptr);
    XKsFreeMFCCFilters(f), XKFreeCepsTbls(), XKFreeLPTbls(), XKFreePreemphasizeTbls();
    const auto &ctx = xk::context();
    std::vector<const void *> left(std::begin(ctx.ceps.buf), std::end(ctx.ceps.buf));
    left.insert(left.end(), std::begin(ctx.preemphLpSpec.slot), std::end(ctx.preemphLpSpec.slot));
    left.insert(left.end(), {ctx.lpred.arrAutocorr, ctx.ceps.dctBasis, ctx.preemphLpSpec.buff});
    EXPECT_EQ(left, std::vector<const void *>(left.size(), nullptr));
  }).join();
}

}  // namespace
