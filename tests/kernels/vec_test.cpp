// Element-wise kernels, conversions, the dot product and the aligned
// allocator of the kernel layer.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kernels/vec_internal.h"
#include "xkl/kfx.h"

namespace {

class VecKernels : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override {
    kfx::setSimdEnabled(true);
    kfxSetStatus(KFX_StsOk);
  }
};

void expectReport(const char *func, const char *message, const char *module) {
  const KFXErrorReport *r = kfxGetErrorReport();
  EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg);
  EXPECT_STREQ(r->funcName, func);
  EXPECT_STREQ(r->message, message);
  EXPECT_STREQ(r->file, module);
}

std::vector<float> randomFloats(int n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  std::vector<float> v(static_cast<std::size_t>(n));
  for (float &x : v) x = dist(gen);
  return v;
}

TEST_F(VecKernels, AllocatorAlignsKeepsRawPointerAndFreesNull) {
  for (int size : {0, 1, 3, 31, 32, 33, 100, 4096, 100003}) {
    auto *p = static_cast<unsigned char *>(kfxMalloc(size));
    ASSERT_NE(p, nullptr) << size;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 32, 0u) << size;
    // The raw block starts at most alignment + one word before the aligned one.
    void *raw;
    std::memcpy(&raw, p - sizeof(void *), sizeof(void *));
    const std::uintptr_t gap = reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(raw);
    EXPECT_GE(gap, sizeof(void *));
    EXPECT_LT(gap, 32 + sizeof(void *));
    std::memset(p, 0xA5, static_cast<std::size_t>(size));  // the whole block is usable
    kfxFree(p);
  }
  EXPECT_EQ(kfxMalloc(-1), nullptr);
  kfxFree(nullptr);
}

TEST_F(VecKernels, SqrtProcessesEveryElementAndFlagsNegatives) {
  std::vector<float> v = {0.0f, 1.0f, 2.0f, -4.0f, 9.0f, 1e-30f};
  std::vector<float> out(v.size());
  kfxsbSqrt2(v.data(), out.data(), static_cast<int>(v.size()));
  expectReport("kfxsbSqrt2", "Element of input vector is negative", "kfxvec");
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(out[1], 1.0f);
  EXPECT_EQ(out[2], static_cast<float>(std::sqrt(2.0)));
  EXPECT_TRUE(std::isnan(out[3]));
  EXPECT_EQ(out[4], 3.0f);
  EXPECT_EQ(out[5], static_cast<float>(std::sqrt(1e-30)));

  kfxSetStatus(KFX_StsOk);
  std::vector<float> w = {4.0f, 0.25f};
  kfxsbSqrt1(w.data(), 2);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_EQ(w, (std::vector<float>{2.0f, 0.5f}));
  w = {-1.0f, 16.0f};
  kfxsbSqrt1(w.data(), 2);
  expectReport("kfxsbSqrt1", "Element of input vector is negative", "kfxvec");
  EXPECT_EQ(w[1], 4.0f);
}

TEST_F(VecKernels, ThresholdsClampFromBelowOrAbove) {
  std::vector<float> v = {-2.0f, 0.5f, 1.0f, 3.0f};
  kfxsbThresh1(v.data(), 4, 1.0f, 0);
  EXPECT_EQ(v, (std::vector<float>{1.0f, 1.0f, 1.0f, 3.0f}));
  v = {-2.0f, 0.5f, 1.0f, 3.0f};
  kfxsbThresh1(v.data(), 4, 1.0f, 1);
  EXPECT_EQ(v, (std::vector<float>{-2.0f, 0.5f, 1.0f, 1.0f}));
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(VecKernels, InverseThresholdRaisesSmallMagnitudesKeepingSign) {
  std::vector<float> v = {4.0f, -0.5f, 0.01f, -0.01f, 0.0f};
  kfxsbInvThresh1(v.data(), 5, 0.1f);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_FLOAT_EQ(v[0], 0.25f);
  EXPECT_FLOAT_EQ(v[1], -2.0f);
  EXPECT_FLOAT_EQ(v[2], 10.0f);
  EXPECT_FLOAT_EQ(v[3], -10.0f);
  EXPECT_FLOAT_EQ(v[4], 10.0f);

  // A zero threshold is fine as long as no element is zero.
  v = {2.0f, -4.0f};
  kfxsbInvThresh1(v.data(), 2, 0.0f);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_EQ(v, (std::vector<float>{0.5f, -0.25f}));

  v = {2.0f, 0.0f, 4.0f};
  kfxsbInvThresh1(v.data(), 3, 0.0f);
  expectReport("kfxsbInvThresh1", "zero element and zero thresh", "kfxvec");
  EXPECT_EQ(v, (std::vector<float>{2.0f, 0.0f, 4.0f}));  // untouched
}

TEST_F(VecKernels, MagnitudeAndPowerOfComplexPairs) {
  const std::vector<float> c = {3.0f, 4.0f, -5.0f, 12.0f, 0.0f, -2.0f, 1e20f, 1e20f};
  std::vector<float> mag(4), pow(4);
  kfxcbMag(c.data(), mag.data(), 4);
  kfxcbPowerSpectr(c.data(), pow.data(), 4);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  EXPECT_EQ(mag[0], 5.0f);
  EXPECT_EQ(mag[1], 13.0f);
  EXPECT_EQ(mag[2], 2.0f);
  EXPECT_FLOAT_EQ(mag[3], 1.41421356e20f);  // no overflow in the squares
  EXPECT_EQ(pow[0], 25.0f);
  EXPECT_EQ(pow[1], 169.0f);
  EXPECT_EQ(pow[2], 4.0f);
  EXPECT_TRUE(std::isinf(pow[3]));  // 2e40 exceeds float
}

TEST_F(VecKernels, IntegerFloatConversionRoundsAndSaturates) {
  const std::vector<short> ints = {-32768, -1, 0, 1, 32767};
  std::vector<float> f(5);
  kfxsbIntToFloat(ints.data(), f.data(), 5, 16, 0);
  EXPECT_EQ(f, (std::vector<float>{-32768.0f, -1.0f, 0.0f, 1.0f, 32767.0f}));

  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> src = {0.5f, -0.5f, 1.49f, -1.5f, 2.5f, 40000.0f, -40000.0f, nan, 127.6f, -128.7f};
  std::vector<short> out(src.size());
  kfxsbFloatToInt(src.data(), out.data(), 10, 16, 0);
  EXPECT_EQ(out, (std::vector<short>{1, -1, 1, -2, 3, 32767, -32768, 0, 128, -129}));
  kfxsbFloatToInt(src.data(), out.data(), 10, 8, 0);
  EXPECT_EQ(out, (std::vector<short>{1, -1, 1, -2, 3, 127, -128, 0, 127, -128}));
  kfxsbFloatToInt(src.data(), out.data(), 10, 1, 0);
  EXPECT_EQ(out, (std::vector<short>{0, -1, 0, -1, 0, 0, -1, 0, 0, -1}));
  // Widths outside 1..16 mean 16.
  kfxsbFloatToInt(src.data(), out.data(), 10, 0, 0);
  EXPECT_EQ(out[5], 32767);
  kfxsbFloatToInt(src.data(), out.data(), 10, 32, 0);
  EXPECT_EQ(out[6], -32768);
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(VecKernels, ZeroSetCopyMultiply) {
  std::vector<float> f(7, 3.0f);
  kfxsbZero(f.data(), 7);
  EXPECT_EQ(f, std::vector<float>(7, 0.0f));
  kfxsbSet(-1.5f, f.data(), 5);
  EXPECT_EQ(f, (std::vector<float>{-1.5f, -1.5f, -1.5f, -1.5f, -1.5f, 0.0f, 0.0f}));
  std::vector<short> w(5, 9);
  kfxwbZero(w.data(), 4);
  EXPECT_EQ(w, (std::vector<short>{0, 0, 0, 0, 9}));
  kfxwbSet(-7, w.data(), 2);
  EXPECT_EQ(w, (std::vector<short>{-7, -7, 0, 0, 9}));

  std::vector<float> seq = {1, 2, 3, 4, 5, 6};
  kfxsbCopy(seq.data(), seq.data() + 2, 4);  // overlapping, forward
  EXPECT_EQ(seq, (std::vector<float>{1, 2, 1, 2, 3, 4}));
  std::vector<short> ws = {1, 2, 3, 4, 5};
  kfxwbCopy(ws.data() + 1, ws.data(), 4);  // overlapping, backward
  EXPECT_EQ(ws, (std::vector<short>{2, 3, 4, 5, 5}));

  std::vector<float> m = {1.0f, -2.0f, 0.5f};
  kfxsbMpy1(-2.0f, m.data(), 3);
  EXPECT_EQ(m, (std::vector<float>{-2.0f, 4.0f, -1.0f}));
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

long double dotReference(const float *a, const float *b, int n) {
  long double s = 0;
  for (int i = 0; i < n; ++i) s += static_cast<long double>(a[i]) * b[i];
  return s;
}

TEST_F(VecKernels, DotProductMatchesLongDoubleSumOnEveryTailLength) {
  for (int n = 1; n <= 80; ++n) {
    const auto a = randomFloats(n + 3, 100 + n), b = randomFloats(n + 3, 200 + n);
    long double absSum = 0;
    for (int i = 0; i < n; ++i) absSum += std::fabs(static_cast<long double>(a[i + 1]) * b[i + 2]);
    // Unaligned starts; double accumulation errs by at most n * 2^-53 of sum |a*b|.
    const double got = kfxsDotProd(a.data() + 1, b.data() + 2, n);
    EXPECT_NEAR(got, static_cast<double>(dotReference(a.data() + 1, b.data() + 2, n)),
                static_cast<double>(absSum) * n * 1.2e-16)
        << n;
  }
  EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
}

TEST_F(VecKernels, DotProductSimdAndPortableAreBitIdentical) {
  for (int n : {1, 3, 4, 15, 16, 17, 39, 64, 255, 1000, 4097}) {
    const auto a = randomFloats(n, 7 * n, -100.0f, 100.0f), b = randomFloats(n, 11 * n, -1e-3f, 1e-3f);
    kfx::setSimdEnabled(false);
    const double portable = kfxsDotProd(a.data(), b.data(), n);
    kfx::setSimdEnabled(true);
    const double simd = kfxsDotProd(a.data(), b.data(), n);
    EXPECT_EQ(portable, simd) << n;

    std::vector<double> da(a.begin(), a.end()), db(b.begin(), b.end());
    EXPECT_EQ(kfx::dotProductDouble(da.data(), db.data(), n), simd) << n;
    kfx::setSimdEnabled(false);
    EXPECT_EQ(kfx::dotProductDouble(da.data(), db.data(), n), simd) << n;
  }
}

// Every argument check: status -5, the exact message, the output untouched.
struct BadCall {
  const char *func;
  const char *message;
  const char *module;
  std::function<void(float *, short *)> call;  // gets the output buffers
};

TEST_F(VecKernels, EveryArgumentCheckReportsAndLeavesOutputUntouched) {
  const float fin[4] = {1, 2, 3, 4};
  const short win[4] = {1, 2, 3, 4};
  const std::vector<BadCall> calls = {
      {"kfxsbSqrt1", "vec==0", "kfxvec", [](float *, short *) { kfxsbSqrt1(nullptr, 4); }},
      {"kfxsbSqrt1", "len<=0", "kfxvec", [](float *o, short *) { kfxsbSqrt1(o, 0); }},
      {"kfxsbSqrt2", "src==0", "kfxvec", [](float *o, short *) { kfxsbSqrt2(nullptr, o, 4); }},
      {"kfxsbSqrt2", "dst==0", "kfxvec", [&](float *, short *) { kfxsbSqrt2(fin, nullptr, 4); }},
      {"kfxsbSqrt2", "len<=0", "kfxvec", [&](float *o, short *) { kfxsbSqrt2(fin, o, -3); }},
      {"kfxsbThresh1", "vec==0", "kfxvec", [](float *, short *) { kfxsbThresh1(nullptr, 4, 0.0f, 0); }},
      {"kfxsbThresh1", "len<=0", "kfxvec", [](float *o, short *) { kfxsbThresh1(o, 0, 0.0f, 0); }},
      {"kfxsbInvThresh1", "vec==0", "kfxvec", [](float *, short *) { kfxsbInvThresh1(nullptr, 4, 1.0f); }},
      {"kfxsbInvThresh1", "len<=0", "kfxvec", [](float *o, short *) { kfxsbInvThresh1(o, 0, 1.0f); }},
      {"kfxsbInvThresh1", "thresh<0.0f", "kfxvec", [](float *o, short *) { kfxsbInvThresh1(o, 4, -0.5f); }},
      {"kfxsbLn1", "vec==0", "kfxvec", [](float *, short *) { kfxsbLn1(nullptr, 4); }},
      {"kfxsbLn1", "len<=0", "kfxvec", [](float *o, short *) { kfxsbLn1(o, 0); }},
      {"kfxsbExp1", "vec==0", "kfxvec", [](float *, short *) { kfxsbExp1(nullptr, 4); }},
      {"kfxsbExp1", "len<=0", "kfxvec", [](float *o, short *) { kfxsbExp1(o, -1); }},
      {"kfxcbMag", "src==0", "kfxvec", [](float *o, short *) { kfxcbMag(nullptr, o, 2); }},
      {"kfxcbMag", "mag==0", "kfxvec", [&](float *, short *) { kfxcbMag(fin, nullptr, 2); }},
      {"kfxcbMag", "length<=0", "kfxvec", [&](float *o, short *) { kfxcbMag(fin, o, 0); }},
      {"kfxcbPowerSpectr", "src==0", "kfxvec", [](float *o, short *) { kfxcbPowerSpectr(nullptr, o, 2); }},
      {"kfxcbPowerSpectr", "spectr==0", "kfxvec", [&](float *, short *) { kfxcbPowerSpectr(fin, nullptr, 2); }},
      {"kfxcbPowerSpectr", "length<=0", "kfxvec", [&](float *o, short *) { kfxcbPowerSpectr(fin, o, 0); }},
      {"kfxsbIntToFloat", "src==0", "kfxmisc", [](float *o, short *) { kfxsbIntToFloat(nullptr, o, 4, 16, 0); }},
      {"kfxsbIntToFloat", "dst==0", "kfxmisc", [&](float *, short *) { kfxsbIntToFloat(win, nullptr, 4, 16, 0); }},
      {"kfxsbIntToFloat", "len<=0", "kfxmisc", [&](float *o, short *) { kfxsbIntToFloat(win, o, 0, 16, 0); }},
      {"kfxsbFloatToInt", "src==0", "kfxmisc", [](float *, short *o) { kfxsbFloatToInt(nullptr, o, 4, 16, 0); }},
      {"kfxsbFloatToInt", "dst==0", "kfxmisc", [&](float *, short *) { kfxsbFloatToInt(fin, nullptr, 4, 16, 0); }},
      {"kfxsbFloatToInt", "len<=0", "kfxmisc", [&](float *, short *o) { kfxsbFloatToInt(fin, o, 0, 16, 0); }},
      {"kfxsbZero", "dst==0", "kfxmisc", [](float *, short *) { kfxsbZero(nullptr, 4); }},
      {"kfxsbZero", "n<=0", "kfxmisc", [](float *o, short *) { kfxsbZero(o, 0); }},
      {"kfxwbZero", "dst==0", "kfxmisc", [](float *, short *) { kfxwbZero(nullptr, 4); }},
      {"kfxwbZero", "n<=0", "kfxmisc", [](float *, short *o) { kfxwbZero(o, -2); }},
      {"kfxsbSet", "dst==0", "kfxmisc", [](float *, short *) { kfxsbSet(1.0f, nullptr, 4); }},
      {"kfxsbSet", "n<=0", "kfxmisc", [](float *o, short *) { kfxsbSet(1.0f, o, 0); }},
      {"kfxwbSet", "dst==0", "kfxmisc", [](float *, short *) { kfxwbSet(1, nullptr, 4); }},
      {"kfxwbSet", "n<=0", "kfxmisc", [](float *, short *o) { kfxwbSet(1, o, 0); }},
      {"kfxsbCopy", "src==0", "kfxmisc", [](float *o, short *) { kfxsbCopy(nullptr, o, 4); }},
      {"kfxsbCopy", "dst==0", "kfxmisc", [&](float *, short *) { kfxsbCopy(fin, nullptr, 4); }},
      {"kfxsbCopy", "n<=0", "kfxmisc", [&](float *o, short *) { kfxsbCopy(fin, o, 0); }},
      {"kfxwbCopy", "src==0", "kfxmisc", [](float *, short *o) { kfxwbCopy(nullptr, o, 4); }},
      {"kfxwbCopy", "dst==0", "kfxmisc", [&](float *, short *) { kfxwbCopy(win, nullptr, 4); }},
      {"kfxwbCopy", "n<=0", "kfxmisc", [&](float *, short *o) { kfxwbCopy(win, o, 0); }},
      {"kfxsbMpy1", "dst==0", "kfxarith", [](float *, short *) { kfxsbMpy1(2.0f, nullptr, 4); }},
      {"kfxsbMpy1", "n<=0", "kfxarith", [](float *o, short *) { kfxsbMpy1(2.0f, o, 0); }},
      {"kfxsDotProd", "srcA==0", "kfxarith", [&](float *, short *) { EXPECT_EQ(kfxsDotProd(nullptr, fin, 4), 0.0); }},
      {"kfxsDotProd", "srcB==0", "kfxarith", [&](float *, short *) { EXPECT_EQ(kfxsDotProd(fin, nullptr, 4), 0.0); }},
      {"kfxsDotProd", "n<=0", "kfxarith", [&](float *, short *) { EXPECT_EQ(kfxsDotProd(fin, fin, 0), 0.0); }},
  };
  for (const BadCall &c : calls) {
    SCOPED_TRACE(std::string(c.func) + ": " + c.message);
    kfxSetStatus(KFX_StsOk);
    float fout[4] = {-7, -7, -7, -7};
    short wout[4] = {-7, -7, -7, -7};
    c.call(fout, wout);
    expectReport(c.func, c.message, c.module);
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(fout[i], -7.0f);
      EXPECT_EQ(wout[i], -7);
    }
  }
}

}  // namespace
