// Autocorrelation against the direct sum in long double on both (pinned) routes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kernels/fft_tables.h"
#include "kernels/vec_internal.h"
#include "xkl/kfx.h"

static std::vector<float> autoCorr(const std::vector<float> &x, int nLags, int type) {
  std::vector<float> r(nLags);
  kfxsAutoCorr(x.data(), static_cast<int>(x.size()), r.data(), nLags, type);
  return r;
}

// Direct: double sums rounded once to float. FFT: the float transforms err by
// about eps log2(P) of the energy r[0]; 16 eps (log2 P + 1) leaves margin.
TEST(AutoCorr, MatchesTheSumOnBothRoutesAndFallsBackSilently) {
  kfxSetStatus(KFX_StsOk);
  for (auto [len, nLags] :
       {std::pair{1, 1}, {2, 2}, {7, 3}, {16, 16}, {100, 13}, {256, 12}, {512, 20}, {333, 333}, {1000, 700}}) {
    std::mt19937 gen(len * 3 + nLags);
    std::vector<float> x(len);
    for (float &v : x) v = std::normal_distribution<float>(0.0f, 1000.0f)(gen);
    const double energy = std::inner_product(x.begin(), x.end(), x.begin(), 0.0),
                 fftTol = 16 * 5.96e-8 * (std::ceil(std::log2(len + nLags)) + 1) * energy;
    for (int type : {KFX_AutoCorrNone, KFX_AutoCorrBiased, KFX_AutoCorrUnbiased})
      for (auto route : {kfx::AutoCorrRoute::Direct, kfx::AutoCorrRoute::Fft}) {
        kfx::setAutoCorrRoute(route);
        const auto r = autoCorr(x, nLags, type);
        kfx::setSimdEnabled(false);
        const auto portable = autoCorr(x, nLags, type);
        kfx::setSimdEnabled(true);
        for (int k = 0; k < nLags; ++k) {
          long double sum = 0;
          for (int i = 0; i + k < len; ++i) sum += static_cast<long double>(x[i]) * x[i + k];
          const double divisor = type == KFX_AutoCorrBiased ? len : (type == KFX_AutoCorrUnbiased ? len - k : 1);
          const double want = static_cast<double>(sum / divisor);
          const double tol = route == kfx::AutoCorrRoute::Direct ? 6e-8 * std::fabs(want) + 1e-12 * energy / divisor
                                                                 : fftTol / divisor;
          EXPECT_NEAR(r[k], want, tol) << "len " << len << " k " << k << " type " << type;
          EXPECT_NEAR(portable[k], want, tol) << "portable, len " << len << " k " << k << " type " << type;
        }
        // The direct sums add in the same order on both paths.
        if (route == kfx::AutoCorrRoute::Direct) {
          EXPECT_EQ(portable, r) << "portable, len " << len;
        }
      }
  }
  // Without FFT tables the FFT route falls back to the direct sums, silently.
  kfx::setAutoCorrRoute(kfx::AutoCorrRoute::Fft);
  kfxFreeTwdTbls();
  kfx::fft::failTableAllocations(-1);
  const auto r = autoCorr(std::vector<float>(300, 1.0f), 50, KFX_AutoCorrNone);
  kfx::fft::failTableAllocations(0), kfx::setAutoCorrRoute(kfx::AutoCorrRoute::ByCost);
  for (int k = 0; k < 50; ++k) EXPECT_EQ(r[k], 300 - k) << k;
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST(AutoCorr, ArgumentErrorsReportAndLeaveTheOutputUntouched) {
  float in[4] = {}, out[4];
  const std::string srcNull = "Null SRC buffer pointer", dstNull = "Null DST buffer pointer",
                    length = "Invalid SRC buffer length", lag = "Invalid LAG value", type = "Invalid auto-corr type";
  const std::tuple<const float *, float *, int, int, int, std::string> bad[] = {
      {nullptr, out, 4, 2, 0, srcNull}, {in, nullptr, 4, 2, 0, dstNull}, {in, out, 0, 1, 0, length},
      {in, out, 4, 0, 0, lag},          {in, out, 3, 4, 0, lag},         {in, out, 4, 2, 3, type},
      {in, out, 4, 2, -1, type}};
  for (const auto &[src, dst, len, nLags, kind, message] : bad) {
    kfxSetStatus(KFX_StsOk);
    std::fill_n(out, 4, -7.0f);
    kfxsAutoCorr(src, len, dst, nLags, kind);
    const KFXErrorReport *r = kfxGetErrorReport();
    EXPECT_EQ(std::to_string(kfxGetStatus()) + " " + r->funcName + " " + r->file + " " + r->message,
              "-5 kfxsAutoCorr kfxcorr " + message);
    EXPECT_EQ(std::count(out, out + 4, -7.0f), 4) << message;
  }
  kfxSetStatus(KFX_StsOk);  // nLags = len is accepted, nLags = len + 1 (above) is not
  EXPECT_TRUE(autoCorr({1, 2, 3, 4}, 4, KFX_AutoCorrNone) == std::vector<float>({30, 20, 11, 4}) && !kfxGetStatus());
}
