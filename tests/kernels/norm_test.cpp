// Norms of float and 16-bit vectors against the formulas in long double.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "xkl/kfx.h"

namespace {

class Norms : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override { kfxSetStatus(KFX_StsOk); }
};

void expectReport(const char *func, const char *message) {
  const KFXErrorReport *r = kfxGetErrorReport();
  EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg);
  EXPECT_STREQ(r->funcName, func);
  EXPECT_STREQ(r->message, message);
  EXPECT_STREQ(r->file, "kfxnorm");
}

// The norm written plainly, b == nullptr meaning no difference.
template <class T>
long double reference(const T *a, const T *b, int n, int basic) {
  long double c = 0, l1 = 0, sq = 0;
  for (int i = 0; i < n; ++i) {
    const long double d = static_cast<long double>(a[i]) - (b ? static_cast<long double>(b[i]) : 0.0L);
    c = std::max(c, std::fabs(d));
    l1 += std::fabs(d);
    sq += d * d;
  }
  switch (basic) {
    case KFX_C: return c;
    case KFX_L1: return l1;
    case KFX_L2: return std::sqrt(sq);
    default: return sq;
  }
}

template <class T>
long double referenceFlag(const T *a, const T *b, int n, int flag) {
  const int basic = flag & ~KFX_RELATIVE;
  if (!(flag & KFX_RELATIVE)) return reference(a, b, n, basic);
  return reference(a, b, n, basic) / reference<T>(a, nullptr, n, basic);
}

const int kFlags[] = {KFX_C, KFX_L1, KFX_L2, KFX_L2SQ};

TEST_F(Norms, FloatNormsMatchFormulasForEveryFlag) {
  std::mt19937 gen(5);
  std::uniform_real_distribution<float> dist(-3.0f, 3.0f);
  for (int n : {1, 2, 7, 64, 1001}) {
    std::vector<float> a(n), b(n);
    for (int i = 0; i < n; ++i) a[i] = dist(gen), b[i] = dist(gen);
    for (int basic : kFlags)
      for (int rel : {0, KFX_RELATIVE})
        for (const float *bp : {static_cast<const float *>(nullptr), static_cast<const float *>(b.data())}) {
          const int flag = basic | rel;
          const double got = kfxsNorm(a.data(), bp, n, flag);
          const long double want = bp || !rel ? referenceFlag(a.data(), bp, n, flag) : 1.0L;
          EXPECT_NEAR(got, static_cast<double>(want), 1e-13 * static_cast<double>(want))
              << "n=" << n << " flag=" << flag << " srcB=" << (bp != nullptr);
        }
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(Norms, ShortNormsMatchFormulasForEveryFlag) {
  std::mt19937 gen(9);
  std::uniform_int_distribution<int> dist(-32768, 32767);
  for (int n : {1, 5, 300}) {
    std::vector<short> a(n), b(n);
    for (int i = 0; i < n; ++i) a[i] = static_cast<short>(dist(gen)), b[i] = static_cast<short>(dist(gen));
    b[0] = -32768, a[0] = 32767;  // the largest difference, 65535
    for (int basic : kFlags)
      for (int rel : {0, KFX_RELATIVE}) {
        const int flag = basic | rel;
        const long double want = referenceFlag(a.data(), b.data(), n, flag);
        EXPECT_NEAR(kfxwNorm(a.data(), b.data(), n, flag), static_cast<double>(want), 1e-13 * static_cast<double>(want))
            << flag;
        EXPECT_NEAR(kfxwNormExt(a.data(), b.data(), n, flag, 0, nullptr), static_cast<double>(want),
                    1e-13 * static_cast<double>(want))
            << flag;
        const long double wantA = reference<short>(a.data(), nullptr, n, basic);
        EXPECT_NEAR(kfxwNorm(a.data(), nullptr, n, basic), static_cast<double>(wantA), 1e-13 * static_cast<double>(wantA));
      }
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(Norms, RelativeNormOfZeroVectors) {
  const float zero[3] = {0, 0, 0}, some[3] = {0, 1, 0};
  for (int basic : kFlags) {
    EXPECT_EQ(kfxsNorm(zero, zero, 3, basic | KFX_RELATIVE), 0.0);
    EXPECT_EQ(kfxsNorm(zero, some, 3, basic | KFX_RELATIVE), std::numeric_limits<double>::infinity());
    EXPECT_EQ(kfxsNorm(zero, nullptr, 3, basic | KFX_RELATIVE), 0.0);
    EXPECT_EQ(kfxsNorm(some, nullptr, 3, basic | KFX_RELATIVE), 1.0);
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(Norms, ArgumentErrorsReturnMinusOne) {
  const float f[2] = {1, 2};
  const short w[2] = {1, 2};
  for (int flag : {0, 3, 5, 6, 8, 9 | 2, 17, 20, 24 | 1, 32, 1 | 32, -1}) {
    kfxSetStatus(KFX_StsOk);
    EXPECT_EQ(kfxsNorm(f, f, 2, flag), -1.0);
    expectReport("kfxsNorm", "flag is wrong");
    kfxSetStatus(KFX_StsOk);
    EXPECT_EQ(kfxwNorm(w, nullptr, 2, flag), -1.0);
    expectReport("kfxwNorm", "flag is wrong");
  }
  kfxSetStatus(KFX_StsOk);
  EXPECT_EQ(kfxsNorm(f, f, 0, KFX_L2), -1.0);
  expectReport("kfxsNorm", "n<=0");
  kfxSetStatus(KFX_StsOk);
  EXPECT_EQ(kfxsNorm(nullptr, f, 2, KFX_L2), -1.0);
  expectReport("kfxsNorm", "srcA==0");
  kfxSetStatus(KFX_StsOk);
  EXPECT_EQ(kfxwNorm(w, w, -4, KFX_L1), -1.0);
  expectReport("kfxwNorm", "n<=0");
  kfxSetStatus(KFX_StsOk);
  EXPECT_EQ(kfxwNormExt(nullptr, w, 2, KFX_L1, 0, nullptr), -1.0);
  expectReport("kfxwNormExt", "srcA==0");
  kfxSetStatus(KFX_StsOk);
  EXPECT_EQ(kfxwNormExt(w, w, 2, 3, 0, nullptr), -1.0);
  expectReport("kfxwNormExt", "flag is wrong");
}

TEST_F(Norms, ExtendedNormScalesLikeThe16BitTransforms) {
  std::vector<short> a(200);
  for (int i = 0; i < 200; ++i) a[i] = static_cast<short>(30000 - 250 * i);
  const double l1 = static_cast<double>(reference<short>(a.data(), nullptr, 200, KFX_L1));

  int sf = 3;
  EXPECT_EQ(kfxwNormExt(a.data(), nullptr, 200, KFX_L1, KFX_FIXED_SCALE, &sf), l1 / 8);
  EXPECT_EQ(sf, 3);
  sf = -2;
  EXPECT_EQ(kfxwNormExt(a.data(), nullptr, 200, KFX_L1, KFX_FIXED_SCALE, &sf), l1 * 4);

  // Automatic: the smallest shift that brings the result to 32767 or less.
  sf = 99;
  const double scaled = kfxwNormExt(a.data(), nullptr, 200, KFX_L1, KFX_AUTO_SCALE, &sf);
  EXPECT_GT(sf, 0);
  EXPECT_EQ(scaled, std::ldexp(l1, -sf));
  EXPECT_LE(scaled, 32767.0);
  EXPECT_GT(scaled * 2, 32767.0);
  sf = 99;
  const short small[2] = {3, 4};
  EXPECT_EQ(kfxwNormExt(small, nullptr, 2, KFX_L2, KFX_AUTO_SCALE, &sf), 5.0);
  EXPECT_EQ(sf, 0);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);

  struct {
    int mode;
    bool nullFactor;
    const char *message;
  } bad[] = {
      {KFX_FIXED_SCALE, true, "scaleMode & KFX_FIXED_SCALE && (scaleFactor==NULL)"},
      {KFX_FIXED_SCALE | KFX_AUTO_SCALE, true, "scaleMode & KFX_FIXED_SCALE && (scaleFactor==NULL)"},
      {KFX_AUTO_SCALE, true, "scaleMode & KFX_AUTO_SCALE && scaleFactor==NULL"},
      {KFX_FIXED_SCALE | KFX_AUTO_SCALE, false, "scaleMode & KFX_FIXED_SCALE && scaleMode & KFX_AUTO_SCALE"},
  };
  for (const auto &b : bad) {
    kfxSetStatus(KFX_StsOk);
    sf = 77;
    EXPECT_EQ(kfxwNormExt(a.data(), nullptr, 200, KFX_L1, b.mode, b.nullFactor ? nullptr : &sf), -1.0);
    expectReport("kfxwNormExt", b.message);
    EXPECT_EQ(sf, 77);
  }
}

}  // namespace
