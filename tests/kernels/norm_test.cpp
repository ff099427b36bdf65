// Norms of float and 16-bit vectors against the formulas in long double.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "xkl/kfx.h"

// The norm written plainly; a null b stands for zeros.
template <class T>
static double reference(const T *a, const T *b, int n, int flag) {
  long double c = 0, l1 = 0, sq = 0;
  for (int i = 0; i < n; ++i) {
    const long double d = static_cast<long double>(a[i]) - (b ? b[i] : 0);
    c = std::fmax(c, std::fabs(d)), l1 += std::fabs(d), sq += d * d;
  }
  const int basic = flag & ~KFX_RELATIVE;
  const long double value = basic == KFX_C ? c : basic == KFX_L1 ? l1 : basic == KFX_L2 ? std::sqrt(sq) : sq;
  return static_cast<double>(flag & KFX_RELATIVE ? value / reference<T>(a, nullptr, n, basic) : value);
}

// Scaled: result = norm * 2^-factor, the automatic factor the least that gives result <= 32767.
TEST(Norms, MatchTheFormulasForEveryFlagAndScaleMode) {
  kfxSetStatus(KFX_StsOk);
  std::mt19937 gen(5);
  for (int n : {1, 2, 7, 64, 1001}) {
    std::vector<float> a(n), b(n);
    std::vector<short> wa(n), wb(n);
    for (int i = 0; i < n; ++i) a[i] = gen() / 1e9f - 2, b[i] = gen() / 1e9f - 2, wa[i] = gen(), wb[i] = gen();
    wa[0] = 32767, wb[0] = -32768;  // the largest difference, 65535
    for (int flag : {KFX_C, KFX_L1, KFX_L2, KFX_L2SQ, 9, 10, 12, 24})
      for (bool withB : {false, true}) {
        SCOPED_TRACE(std::to_string(n) + " flag " + std::to_string(flag) + " srcB " + std::to_string(withB));
        const float *fb = withB ? b.data() : nullptr;
        const short *sb = withB ? wb.data() : nullptr;
        const double want = reference(a.data(), fb, n, flag), w = reference(wa.data(), sb, n, flag);
        EXPECT_NEAR(kfxsNorm(a.data(), fb, n, flag), want, 1e-13 * want);
        EXPECT_NEAR(kfxwNorm(wa.data(), sb, n, flag), w, 1e-13 * w);
        int fixed = 3, automatic = -1;
        EXPECT_NEAR(kfxwNormExt(wa.data(), sb, n, flag, 0, nullptr), w, 1e-13 * w);
        EXPECT_NEAR(kfxwNormExt(wa.data(), sb, n, flag, KFX_FIXED_SCALE, &fixed), w / 8, 1e-13 * w);
        const double scaled = kfxwNormExt(wa.data(), sb, n, flag, KFX_AUTO_SCALE, &automatic);
        EXPECT_NEAR(std::ldexp(scaled, automatic), w, 1e-13 * w);
        EXPECT_TRUE(automatic >= 0 && scaled <= 32767 && (automatic == 0 || 2 * scaled > 32767)) << automatic;
      }
  }
  const float zero[3] = {0, 0, 0}, some[3] = {0, 1, 0};  // relative to a zero vector: 0 or infinity
  for (int flag : {9, 10, 12, 24})
    EXPECT_TRUE(kfxsNorm(zero, zero, 3, flag) == 0 && kfxsNorm(zero, some, 3, flag) == HUGE_VAL) << flag;
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST(Norms, ArgumentErrorsReturnMinusOne) {
  const float f[2] = {1, 2};
  const short w[2] = {1, 2};
  const auto check = [](double result, const std::string &func, const std::string &message) {
    const KFXErrorReport *r = kfxGetErrorReport();
    EXPECT_EQ(std::to_string(result) + " " + std::to_string(kfxGetStatus()) + " " + r->funcName + " " + r->file + " " +
                  r->message,
              "-1.000000 -5 " + func + " kfxnorm " + message);
    kfxSetStatus(KFX_StsOk);
  };
  const auto checkAll = [&](const float *fa, const short *wa, int n, int flag, const std::string &message) {
    check(kfxsNorm(fa, f, n, flag), "kfxsNorm", message);
    check(kfxwNorm(wa, nullptr, n, flag), "kfxwNorm", message);
    check(kfxwNormExt(wa, w, n, flag, 0, nullptr), "kfxwNormExt", message);
  };
  for (int flag : {0, 3, 5, 6, 8, 11, 17, 20, 25, 32, 33, -1}) checkAll(f, w, 2, flag, "flag is wrong");
  for (int n : {0, -4}) checkAll(f, w, n, KFX_L2, "n<=0");
  checkAll(nullptr, nullptr, 2, KFX_C, "srcA==0");
  int sf = 77;
  const int fixed = KFX_FIXED_SCALE, both = KFX_FIXED_SCALE | KFX_AUTO_SCALE;
  const std::string fixedNull = "scaleMode & KFX_FIXED_SCALE && (scaleFactor==NULL)";
  check(kfxwNormExt(w, w, 2, 1, fixed, nullptr), "kfxwNormExt", fixedNull);
  check(kfxwNormExt(w, w, 2, 1, both, nullptr), "kfxwNormExt", fixedNull);
  check(kfxwNormExt(w, w, 2, 1, KFX_AUTO_SCALE, nullptr), "kfxwNormExt",
        "scaleMode & KFX_AUTO_SCALE && scaleFactor==NULL");
  check(kfxwNormExt(w, w, 2, 1, both, &sf), "kfxwNormExt", "scaleMode & KFX_FIXED_SCALE && scaleMode & KFX_AUTO_SCALE");
  EXPECT_EQ(sf, 77);
}
