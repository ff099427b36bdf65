// Mel filter banks: hand-computed banks, the design rules written
// independently, unit area, the mel defaulting and the 16-bit init.
#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

#include "feature_refs.h"
#include "frame/context.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

class MelFilters : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKSetMelScale(0.0f, 0.0f);
    xkltest::ReportingTest::TearDown();
  }
};

// Weights of filter i as stored (fixed-group filters padded to fixedLen).
std::vector<float> weightsOf(const XKMFCCFilters *f, int i) {
  const float *w = f->FilWeight;
  for (int j = 0; j < i; ++j) w += f->FilLength[j];
  return {w, w + f->FilLength[i]};
}

// 16 bins of 1000 Hz (15000 / (16 - 1)) on mel(f) = 1e9 ln(1 + f / 1e9),
// linear to 1e-5 Hz here, so every edge is a hand-computed frequency.
TEST_F(MelFilters, HandComputedBanks) {
  struct {
    const char *name;
    int nf, lo, hi, nLin, linF, nFixed, fixedLen, firstBin, lastBin;
    std::vector<int> dis;
    std::vector<std::vector<double>> w;
  } const banks[] = {
      // One filter 0..8500 peaking at 4250: (0,1,2,3,4,3.5,2.5,1.5,0.5) / 18.
      {"one filter", 1, 0, 8500, 0, 0, 0, 0, 0, 8, {0},
       {{0, 1 / 18., 2 / 18., 3 / 18., 4 / 18., 3.5 / 18., 2.5 / 18., 1.5 / 18., 0.5 / 18.}}},
      // Two linear filters over 0..2500 (width 2500), one mel filter up to
      // 7300: (0,1250,2500), (1250,3075,4900), (2500,4900,7300). Both linear
      // filters catch 3 bins, the next 5: a fixed group of two.
      {"linear group", 3, 0, 7300, 2, 2500, 2, 3, 0, 7, {0, 2, 3},
       {{0, 2 / 3., 1 / 3.}, {750 / 3400., 1750 / 3400., 900 / 3400.},
        {500 / 5900., 1500 / 5900., 2300 / 5900., 1300 / 5900., 300 / 5900.}}},
      // No bin in 1100..1900: weight 1 at the nearer of 1000 and 2000 (a tie
      // goes to the lower); 1250..1950 peaks at 1600, nearer 2000.
      {"narrow, tie", 1, 1100, 1900, 0, 0, 0, 0, 1, 1, {1}, {{1}}},
      {"narrow, above", 1, 1250, 1950, 0, 0, 0, 0, 2, 2, {2}, {{1}}},
  };
  XKSetMelScale(static_cast<float>(1e9 * std::log(10.0)), 1e9f);
  for (const auto &h : banks) {
    SCOPED_TRACE(h.name);
    XKMFCCFilters *f = XKsMFCCInit(4, h.nf, h.lo, h.hi, 15000, h.nLin, h.linF);
    EXPECT_EQ(std::vector<int>({f->order, f->fftLen, f->nFilters, f->nFixed, f->fixedLen, f->firstBin, f->lastBin}),
              std::vector<int>({4, 16, h.nf, h.nFixed, h.fixedLen, h.firstBin, h.lastBin}));
    for (int i = 0; i < h.nf; ++i) {
      EXPECT_EQ(f->disFft[i], h.dis[i]) << i;
      const auto w = weightsOf(f, i);
      ASSERT_EQ(w.size(), h.w[i].size()) << i;
      for (size_t j = 0; j < w.size(); ++j) EXPECT_NEAR(w[j], h.w[i][j], 1e-5) << i << "," << j;
    }
    XKsFreeMFCCFilters(f);
  }
}

// Realistic banks against the design rules: same first bins and weights
// (padding aside), unit area, dctOrder = log2(nFilters) for powers of two.
TEST_F(MelFilters, AgreeWithDesignRulesAndHaveUnitArea) {
  const int banks[][8] = {{9, 26, 0, 8000, 16000, 0, 0, 0},   {9, 32, 133, 6855, 16000, 0, 0, 5},
                          {8, 20, 0, 4000, 8000, 8, 1000, 0}, {10, 24, 64, 8000, 16000, 12, 1000, 0},
                          {8, 1, 300, 3000, 8000, 0, 0, 0},   {8, 2, 300, 3000, 8000, 0, 0, 1}};
  for (const auto &b : banks) {
    SCOPED_TRACE(testing::Message() << "nf=" << b[1] << " nLin=" << b[5]);
    XKMFCCFilters *f = XKsMFCCInit(b[0], b[1], b[2], b[3], b[4], b[5], b[6]);
    EXPECT_EQ(f->dctOrder, b[7]);
    const auto ref = featref::melBank(b[0], b[1], b[2], b[3], b[4], b[5], b[6]);
    for (int i = 0; i < b[1]; ++i) {
      const auto w = weightsOf(f, i);
      EXPECT_NEAR(std::accumulate(w.begin(), w.end(), 0.0), 1.0, 1e-6) << i;
      EXPECT_EQ(f->disFft[i], ref[i].first) << i;
      ASSERT_GE(w.size(), ref[i].w.size()) << i;
      for (size_t j = 0; j < w.size(); ++j)
        EXPECT_NEAR(w[j], j < ref[i].w.size() ? static_cast<double>(ref[i].w[j]) : 0.0, 2e-6) << i << "," << j;
    }
    XKsFreeMFCCFilters(f);
  }
}

// Only melDiv decides whether the scale was set: (0, 0) and (1000, 0) both
// become 2595 / 700; (0, 700) keeps the zero multiplier.
TEST_F(MelFilters, MelDefaultingLooksAtTheDivisorOnly) {
  const auto ref = featref::melBank(9, 24, 0, 8000, 16000);
  for (float mul : {0.0f, 1000.0f, -1.0f}) {
    XKSetMelScale(mul == -1.0f ? 0.0f : mul, mul == -1.0f ? 700.0f : 0.0f);
    XKMFCCFilters *f = XKsMFCCInit(9, 24, 0, 8000, 16000, 0, 0);
    EXPECT_EQ(xk::context().ceps.melMul, mul == -1.0f ? 0.0f : 2595.0f);
    EXPECT_EQ(xk::context().ceps.melDiv, 700.0f);
    for (int i = 0; mul != -1.0f && i < 24; ++i) EXPECT_EQ(f->disFft[i], ref[i].first);
    XKsFreeMFCCFilters(f);
  }
}

// The 16-bit init refuses while a failure is standing, under its own name.
TEST_F(MelFilters, SixteenBitInitReportsStandingFailure) {
  XKSetStatus(XK_StsBadArg);
  EXPECT_EQ(XKwMFCCInit(8, 16, 0, 4000, 8000, 0, 0), nullptr);
  ASSERT_EQ(xkltest::reports().size(), 1u);
  const auto &r = xkltest::reports()[0];
  EXPECT_EQ(std::tie(r.status, r.func, r.context, r.file),
            std::make_tuple(XK_StsBackTrace, std::string("XKwMFCCInit"), std::string(""), std::string("XK_CEPS")));
}

}  // namespace
