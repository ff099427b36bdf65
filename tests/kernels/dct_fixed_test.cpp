// 16-bit DCT-II against the defining sum in long double, rounded and saturated.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kernels/fft_tables.h"
#include "xkl/kfx.h"

// The cosine argument is reduced modulo its period 4n first, in integers.
static std::vector<long double> reference(const std::vector<short> &x) {
  const int n = static_cast<int>(x.size());
  std::vector<long double> out(n);
  for (int k = 0; k < n; ++k)
    for (int i = 0; i < n; ++i)
      out[k] += x[i] * std::sqrt((k ? 2.0L : 1.0L) / n) *
                std::cos(std::acos(-1.0L) * (static_cast<long long>(k) * (2 * i + 1) % (4 * n)) / (2.0L * n));
  return out;
}

// Rounded half away from zero. The Q30 cosines err by under sqrt(2 len) 2^-16
// units (< 0.01 here), so at most 1% of the outputs (plus one) may be one off.
static void expectMatches(const std::vector<short> &got, const std::vector<long double> &exact, int shift) {
  int off = 0;
  for (std::size_t k = 0; k < got.size(); ++k) {
    const long double want = std::clamp(std::round(std::ldexp(exact[k], -shift)), -32768.0L, 32767.0L);
    EXPECT_LE(std::fabs(got[k] - want), 1) << "shift " << shift << " k " << k;
    off += got[k] != want;
  }
  EXPECT_LE(off, 0.01 * got.size() + 1) << "shift " << shift;
}

TEST(KfxwDct, MatchesTheFormulaInEveryScaleMode) {
  kfxSetStatus(KFX_StsOk);
  for (int len : {1, 2, 3, 4, 5, 8, 13, 16, 20, 23, 24, 32, 40, 64, 100, 128, 257, 1000}) {
    SCOPED_TRACE(len);
    std::mt19937 gen(10 + len);
    std::vector<short> x(len), got(len), portable(len);
    for (short &v : x) v = static_cast<short>(std::uniform_int_distribution<int>(-32767, 32767)(gen));
    const auto exact = reference(x);  // full scale: the peak can reach 2^15 sqrt(len)
    long double peak = 0;
    for (long double v : exact) peak = std::max(peak, std::fabs(v));
    int want = 0, factor = -99, portableFactor = -99;
    if (peak >= 32767.5L) std::frexp(static_cast<double>(peak), &want), want -= 14;  // results within +-2^14
    kfxwDct(x.data(), got.data(), len, KFX_AUTO_SCALE, &factor);
    EXPECT_EQ(factor, want);
    expectMatches(got, exact, factor);
    kfx::setSimdEnabled(false);  // the vectorised dot products are exact like the portable ones
    kfxwDct(x.data(), portable.data(), len, KFX_AUTO_SCALE, &portableFactor);
    kfx::setSimdEnabled(true);
    EXPECT_TRUE(portable == got && portableFactor == factor);
    for (int shift : {3, 0, -2}) {  // right shift, none (saturating), left shift
      kfxwDct(x.data(), got.data(), len, KFX_FIXED_SCALE, &(factor = shift));
      expectMatches(got, exact, shift);
    }
    kfxwDct(x.data(), x.data(), len, 0, nullptr);  // unscaled, in place
    expectMatches(x, exact, 0);
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST(KfxwDct, ArgumentErrorsReportAndLeaveTheOutputUntouched) {
  const std::string size = "\nBad value of data buffer size\n", both = "(scaleMode & 0x0002) && (scaleMode & 0x0004)";
  short in[8] = {}, out[8];
  int sf;
  const std::tuple<const short *, short *, int, int, int *, std::string> bad[] = {
      {nullptr, nullptr, 0, 0, &sf, size}, {in, out, -3, 0, &sf, size}, {nullptr, out, 8, 0, &sf, "src==0"},
      {in, nullptr, 8, 0, &sf, "dst==0"},  {in, out, 8, 6, &sf, both},  {in, out, 8, 4, nullptr, "scaleFactor==0"}};
  for (const auto &[src, dst, len, mode, factor, message] : bad) {
    kfxSetStatus(KFX_StsOk);
    std::fill_n(out, 8, 77), sf = 5;
    kfxwDct(src, dst, len, mode, factor);
    const KFXErrorReport *r = kfxGetErrorReport();
    EXPECT_EQ(std::to_string(kfxGetStatus()) + " " + r->funcName + " " + r->file + " " + r->message,
              "-5 kfxwDct kfxdct " + message);
    EXPECT_TRUE(std::count(out, out + 8, 77) == 8 && sf == 5) << message;
  }
}
