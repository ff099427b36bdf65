// Autocorrelation against the direct sum in long double, on both routes
// (pinned through the internal route switch) and with the three
// normalisations.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kernels/fft_tables.h"
#include "kernels/vec_internal.h"
#include "xkl/kfx.h"

namespace {

using kfx::AutoCorrRoute;

class AutoCorr : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override {
    kfx::setAutoCorrRoute(AutoCorrRoute::ByCost);
    kfx::setSimdEnabled(true);
    kfxSetStatus(KFX_StsOk);
  }
};

std::vector<float> randomSignal(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<float> dist(0.0f, 1000.0f);
  std::vector<float> v(n);
  for (float &x : v) x = dist(gen);
  return v;
}

long double reference(const std::vector<float> &x, int k, int type) {
  const int n = static_cast<int>(x.size());
  long double s = 0;
  for (int i = 0; i + k < n; ++i) s += static_cast<long double>(x[i]) * x[i + k];
  if (type == KFX_AutoCorrBiased) s /= n;
  if (type == KFX_AutoCorrUnbiased) s /= n - k;
  return s;
}

long double energy(const std::vector<float> &x) { return reference(x, 0, KFX_AutoCorrNone); }

struct Case {
  int len, nLags;
};
const Case kCases[] = {{1, 1}, {2, 2}, {7, 3}, {16, 16}, {100, 13}, {256, 12}, {512, 20}, {333, 333}, {1000, 700}};

TEST_F(AutoCorr, DirectRouteMatchesTheSumForEveryType) {
  kfx::setAutoCorrRoute(AutoCorrRoute::Direct);
  for (const Case &c : kCases)
    for (int type : {KFX_AutoCorrNone, KFX_AutoCorrBiased, KFX_AutoCorrUnbiased}) {
      const auto x = randomSignal(c.len, c.len * 3 + c.nLags);
      std::vector<float> r(c.nLags);
      kfxsAutoCorr(x.data(), c.len, r.data(), c.nLags, type);
      ASSERT_EQ(kfxGetStatus(), KFX_StsOk);
      for (int k = 0; k < c.nLags; ++k) {
        // Sums in double, one rounding to float at the end.
        const long double want = reference(x, k, type);
        const double divisor = type == 1 ? c.len : (type == 2 ? c.len - k : 1);
        EXPECT_NEAR(r[k], static_cast<double>(want),
                    6e-8 * std::fabs(static_cast<double>(want)) + 1e-12 * static_cast<double>(energy(x)) / divisor)
            << "len=" << c.len << " k=" << k << " type=" << type;
      }
    }
}

TEST_F(AutoCorr, FftRouteMatchesTheSumForEveryType) {
  kfx::setAutoCorrRoute(AutoCorrRoute::Fft);
  for (const Case &c : kCases)
    for (int type : {KFX_AutoCorrNone, KFX_AutoCorrBiased, KFX_AutoCorrUnbiased}) {
      const auto x = randomSignal(c.len, c.len * 5 + c.nLags);
      std::vector<float> r(c.nLags);
      kfxsAutoCorr(x.data(), c.len, r.data(), c.nLags, type);
      ASSERT_EQ(kfxGetStatus(), KFX_StsOk);
      // Float FFTs err by about eps * log2(P) relative to the energy r[0];
      // 16 * eps * (log2 P + 1) * r[0] leaves margin.
      const double p = std::ceil(std::log2(c.len + c.nLags));
      for (int k = 0; k < c.nLags; ++k) {
        const double divisor = type == 1 ? c.len : (type == 2 ? c.len - k : 1);
        const double tol = 16 * 5.96e-8 * (p + 1) * static_cast<double>(energy(x)) / divisor;
        EXPECT_NEAR(r[k], static_cast<double>(reference(x, k, type)), tol)
            << "len=" << c.len << " k=" << k << " type=" << type;
      }
    }
}

TEST_F(AutoCorr, DirectRouteIsTheSameWithAndWithoutSimd) {
  kfx::setAutoCorrRoute(AutoCorrRoute::Direct);
  for (const Case &c : kCases) {
    const auto x = randomSignal(c.len, c.len);
    std::vector<float> a(c.nLags), b(c.nLags);
    kfx::setSimdEnabled(false);
    kfxsAutoCorr(x.data(), c.len, a.data(), c.nLags, KFX_AutoCorrNone);
    kfx::setSimdEnabled(true);
    kfxsAutoCorr(x.data(), c.len, b.data(), c.nLags, KFX_AutoCorrNone);
    EXPECT_EQ(a, b) << c.len;
  }
}

TEST_F(AutoCorr, CostRulePicksDirectForPredictionOrdersAndFftForLongLags) {
  for (int len : {160, 240, 256, 400, 512, 1024})
    for (int nLags : {9, 13, 17, 21, 33}) EXPECT_FALSE(kfx::autoCorrPrefersFft(len, nLags)) << len << " " << nLags;
  EXPECT_TRUE(kfx::autoCorrPrefersFft(4096, 4096));
  EXPECT_TRUE(kfx::autoCorrPrefersFft(2048, 1024));
  EXPECT_FALSE(kfx::autoCorrPrefersFft(1, 1));
}

TEST_F(AutoCorr, ResultMayOverwriteTheSource) {
  for (AutoCorrRoute route : {AutoCorrRoute::Direct, AutoCorrRoute::Fft}) {
    kfx::setAutoCorrRoute(route);
    auto x = randomSignal(64, 2);
    std::vector<float> separate(40);
    kfxsAutoCorr(x.data(), 64, separate.data(), 40, KFX_AutoCorrBiased);
    kfxsAutoCorr(x.data(), 64, x.data() + 10, 40, KFX_AutoCorrBiased);
    EXPECT_EQ(std::vector<float>(x.begin() + 10, x.begin() + 50), separate);
  }
}

TEST_F(AutoCorr, FallsBackSilentlyWhenTheFftCannotGetTables) {
  kfx::setAutoCorrRoute(AutoCorrRoute::Fft);
  const auto x = randomSignal(300, 4);
  std::vector<float> r(50);
  kfxFreeTwdTbls();
  kfx::fft::failTableAllocations(-1);
  kfxsAutoCorr(x.data(), 300, r.data(), 50, KFX_AutoCorrNone);
  kfx::fft::failTableAllocations(0);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  std::vector<float> direct(50);
  kfx::setAutoCorrRoute(AutoCorrRoute::Direct);
  kfxsAutoCorr(x.data(), 300, direct.data(), 50, KFX_AutoCorrNone);
  EXPECT_EQ(r, direct);  // the direct route did the work
}

TEST_F(AutoCorr, ArgumentErrorsReportAndLeaveOutputUntouched) {
  const float src[4] = {1, 2, 3, 4};
  struct {
    const float *src;
    bool nullDst;
    int len, nLags, type;
    const char *message;
  } bad[] = {
      {nullptr, false, 4, 2, 0, "Null SRC buffer pointer"},
      {src, true, 4, 2, 0, "Null DST buffer pointer"},
      {src, false, 0, 1, 0, "Invalid SRC buffer length"},
      {src, false, -3, 1, 0, "Invalid SRC buffer length"},
      {src, false, 4, 0, 0, "Invalid LAG value"},
      {src, false, 3, 4, 0, "Invalid LAG value"},  // nLags = len + 1
      {src, false, 4, 2, 3, "Invalid auto-corr type"},
      {src, false, 4, 2, -1, "Invalid auto-corr type"},
  };
  for (const auto &b : bad) {
    kfxSetStatus(KFX_StsOk);
    float dst[4] = {-7, -7, -7, -7};
    kfxsAutoCorr(b.src, b.len, b.nullDst ? nullptr : dst, b.nLags, b.type);
    EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg) << b.message;
    EXPECT_STREQ(kfxGetErrorReport()->message, b.message);
    EXPECT_STREQ(kfxGetErrorReport()->funcName, "kfxsAutoCorr");
    EXPECT_STREQ(kfxGetErrorReport()->file, "kfxcorr");
    for (float v : dst) EXPECT_EQ(v, -7.0f);
  }
  // nLags = len is accepted.
  kfxSetStatus(KFX_StsOk);
  float dst[4];
  kfxsAutoCorr(src, 4, dst, 4, KFX_AutoCorrNone);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_EQ(dst[0], 30.0f);
  EXPECT_EQ(dst[1], 20.0f);
  EXPECT_EQ(dst[2], 11.0f);
  EXPECT_EQ(dst[3], 4.0f);
}

}  // namespace
