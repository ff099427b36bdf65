// Element-wise kernels, conversions, dot product and aligned allocator against plain formulas.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "kernels/vec_internal.h"
#include "xkl/kfx.h"

using F = const float *;
using D = float *;
using L = long double;
using B = bool;

static std::string lastReport() {
  const KFXErrorReport *r = kfxGetErrorReport();
  return kfxGetStatus() ? std::to_string(kfxGetStatus()) + " " + r->funcName + " " + r->file + " " + r->message : "ok";
}

static std::vector<float> randomFloats(int n, unsigned seed, float lo, float hi) {
  std::mt19937 gen(seed);
  std::vector<float> v(n);
  for (float &x : v) x = std::uniform_real_distribution<float>(lo, hi)(gen);
  return v;
}

TEST(VecKernels, AllocatorAlignsAndKeepsTheRawAddressJustBeforeTheBlock) {
  for (int size : {0, 1, 3, 31, 32, 33, 100, 4096, 100003}) {
    auto *p = static_cast<unsigned char *>(kfxMalloc(size));
    ASSERT_NE(p, nullptr);
    void *raw;  // kept in the word just before the block
    std::memcpy(&raw, p - sizeof(void *), sizeof(void *));
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p), gap = at - reinterpret_cast<std::uintptr_t>(raw);
    EXPECT_TRUE(at % 32 == 0 && gap >= sizeof(void *) && gap < 32 + sizeof(void *)) << size << " " << gap;
    std::memset(p, 0xA5, static_cast<std::size_t>(size));  // the whole block is usable
    kfxFree(p);
  }
  EXPECT_EQ(kfxMalloc(-1), nullptr);
  kfxFree(nullptr);
}

// Name, input range, ulps, stride (2: complex pairs), kernel, formula. Results
// are exact, or within 1 ulp where the kernel rounds twice or calls logf/expf.
const std::tuple<const char *, float, float, int, int, void (*)(F, D, int), L (*)(L, L)> kElementwise[] = {
    {"kfxsbSqrt1", -1, 1e6, 0, 1, [](F, D d, int n) { kfxsbSqrt1(d, n); }, [](L x, L) { return std::sqrt(x); }},
    {"kfxsbSqrt2", -1, 1e6, 0, 1, [](F s, D d, int n) { kfxsbSqrt2(s, d, n); }, [](L x, L) { return std::sqrt(x); }},
    {"Thr0", -1, 1, 0, 1, [](F, D d, int n) { kfxsbThresh1(d, n, .25f, 0); }, [](L x, L) { return std::max(x, .25L); }},
    {"Thr3", -1, 1, 0, 1, [](F, D d, int n) { kfxsbThresh1(d, n, .25f, 3); }, [](L x, L) { return std::min(x, .25L); }},
    {"InvThr", -1, 1, 0, 1, [](F, D d, int n) { kfxsbInvThresh1(d, n, .1f); },
     [](L x, L) { return 1 / (std::fabs(x) < L{.1f} ? std::copysign(L{.1f}, x) : x); }},
    {"InvThr0", -2, -.5, 0, 1, [](F, D d, int n) { kfxsbInvThresh1(d, n, 0); }, [](L x, L) { return 1 / x; }},
    {"Ln", 1e-3, 1e3, 1, 1, [](F, D d, int n) { kfxsbLn1(d, n); }, [](L x, L) { return std::log(x); }},
    {"Exp", -20, 20, 1, 1, [](F, D d, int n) { kfxsbExp1(d, n); }, [](L x, L) { return std::exp(x); }},
    {"Mag", -1e20, 1e20, 1, 2, [](F s, D d, int n) { kfxcbMag(s, d, n); }, [](L x, L y) { return std::hypot(x, y); }},
    {"Pow", -9, 9, 1, 2, [](F s, D d, int n) { kfxcbPowerSpectr(s, d, n); }, [](L x, L y) { return x * x + y * y; }},
    {"Mpy", -1e3, 1e3, 0, 1, [](F, D d, int n) { kfxsbMpy1(-2.5f, d, n); }, [](L x, L) { return -2.5L * x; }},
    {"Set", -1, 1, 0, 1, [](F, D d, int n) { kfxsbSet(-1.5f, d, n); }, [](L, L) { return -1.5L; }},
    {"Zero", -1, 1, 0, 1, [](F, D d, int n) { kfxsbZero(d, n); }, [](L, L) { return 0.0L; }},
    {"Copy", -1, 1, 0, 1, [](F, D d, int n) { kfxsbCopy(d + 1, d, n); }, [](L, L y) { return y; }},  // overlapping
};

// A negative square root is NaN and reported, yet every element is processed.
TEST(VecKernels, ElementwiseKernelsAndConversionsMatchTheirFormulas) {
  for (const auto &[name, lo, hi, ulps, stride, kernel, formula] : kElementwise) {
    auto src = randomFloats(74, 11, lo, hi), dst = src;
    if (lo < 0 && hi > 0) src[0] = 0, src[1] = -1, dst = src;
    bool neg = false;
    kfxSetStatus(KFX_StsOk);
    kernel(src.data(), dst.data(), 37);
    for (int i = 0; i < 37; ++i) {
      const float want = static_cast<float>(formula(src[stride * i], src[stride * i + 1]));
      const float ulp = std::nextafter(std::fabs(want), INFINITY) - std::fabs(want);
      neg |= std::isnan(want);
      EXPECT_TRUE(std::isnan(want) ? std::isnan(dst[i]) : std::fabs(dst[i] - want) <= ulps * ulp) << name << i;
    }
    EXPECT_EQ(lastReport(), neg ? "-5 " + std::string(name) + " kfxvec Element of input vector is negative" : "ok");
    EXPECT_TRUE(std::equal(dst.begin() + 37, dst.end(), src.begin() + 37)) << name << " wrote past the end";
  }
  // Round half away from zero, saturate to the width (outside 1..16 means 16), NaN -> 0.
  const std::vector<float> src = {0.5f, -0.5f, 1.49f, -1.5f, 2.5f, 4e4f, -4e4f, NAN, 127.6f, -128.7f};
  const std::vector<short> w16 = {1, -1, 1, -2, 3, 32767, -32768, 0, 128, -129};
  std::vector<short> out(10), w8 = {1, -1, 1, -2, 3, 127, -128, 0, 127, -128}, w1 = {0, -1, 0, -1, 0, 0, -1, 0, 0, -1};
  std::vector<float> back(10);
  for (const auto &[bits, want] : {std::pair{16, w16}, {0, w16}, {32, w16}, {8, w8}, {1, w1}}) {
    kfxsbFloatToInt(src.data(), out.data(), 10, bits, 0);
    kfxsbIntToFloat(out.data(), back.data(), 10, bits, 0);
    EXPECT_TRUE(out == want && std::equal(back.begin(), back.end(), want.begin())) << bits;
  }
  std::vector<short> w = {9, 9, 9, 9, 9};
  std::vector<float> seq = {1, 2, 3, 4, 5, 6};
  kfxwbZero(w.data(), 4), kfxwbSet(-7, w.data(), 2), kfxwbCopy(w.data() + 1, w.data(), 4);
  kfxsbCopy(seq.data(), seq.data() + 2, 4);
  EXPECT_TRUE(w == std::vector<short>({-7, 0, 0, 9, 9}) && seq == std::vector<float>({1, 2, 1, 2, 3, 4}));
  EXPECT_EQ(lastReport(), "ok");
}

// Every tail length up to 80, unaligned; double sums err by at most n 2^-53 sum |a b|.
TEST(VecKernels, DotProductMatchesLongDoubleAndSimdEqualsPortable) {
  for (int n = 1; n < 5000; n = n < 80 ? n + 1 : 3 * n + 1) {
    const auto a = randomFloats(n + 1, 100 + n, -100, 100), b = randomFloats(n + 2, 200 + n, -1e-3f, 1e-3f);
    long double want = 0, absSum = 0;
    for (int i = 0; i < n; ++i) want += L{a[i + 1]} * b[i + 2], absSum += std::fabs(L{a[i + 1]} * b[i + 2]);
    const double got = kfxsDotProd(&a[1], &b[2], n);
    EXPECT_NEAR(got, static_cast<double>(want), static_cast<double>(absSum) * n * 1.2e-16) << n;
    kfx::setSimdEnabled(false);
    EXPECT_EQ(kfxsDotProd(&a[1], &b[2], n), got) << n;
    kfx::setSimdEnabled(true);
  }
}

const float kUntouched[4] = {-7, -7, 0, -7};  // a zero for kfxsbInvThresh1
static float fIn[4], fOut[4];
static short wIn[4], wOut[4];
static F S(bool on) { return on ? fIn : nullptr; }
static D O(bool on) { return on ? fOut : nullptr; }
static const short *WS(bool on) { return on ? wIn : nullptr; }
static short *WO(bool on) { return on ? wOut : nullptr; }

// A row: function, module, then the messages for a null source ("-": none), a
// null destination and a bad length; outputs must stay as they are.
TEST(VecKernels, EveryArgumentCheckReportsAndLeavesTheOutputUntouched) {
  const std::pair<const char *, void (*)(B, B, int)> rows[] = {
      {"kfxsbSqrt1 kfxvec - vec==0 len<=0", [](B, B d, int n) { kfxsbSqrt1(O(d), n); }},
      {"kfxsbSqrt2 kfxvec src==0 dst==0 len<=0", [](B s, B d, int n) { kfxsbSqrt2(S(s), O(d), n); }},
      {"kfxsbThresh1 kfxvec - vec==0 len<=0", [](B, B d, int n) { kfxsbThresh1(O(d), n, 0, 0); }},
      {"kfxsbInvThresh1 kfxvec - vec==0 len<=0", [](B, B d, int n) { kfxsbInvThresh1(O(d), n, 1); }},
      {"kfxsbInvThresh1 kfxvec - - thresh<0.0f", [](B, B, int) { kfxsbInvThresh1(fOut, 4, -0.5f); }},
      {"kfxsbInvThresh1 kfxvec - - zero element and zero thresh", [](B, B, int) { kfxsbInvThresh1(fOut, 4, 0); }},
      {"kfxsbLn1 kfxvec - vec==0 len<=0", [](B, B d, int n) { kfxsbLn1(O(d), n); }},
      {"kfxsbExp1 kfxvec - vec==0 len<=0", [](B, B d, int n) { kfxsbExp1(O(d), n); }},
      {"kfxcbMag kfxvec src==0 mag==0 length<=0", [](B s, B d, int n) { kfxcbMag(S(s), O(d), n); }},
      {"kfxcbPowerSpectr kfxvec src==0 spectr==0 length<=0", [](B s, B d, int n) { kfxcbPowerSpectr(S(s), O(d), n); }},
      {"kfxsbIntToFloat kfxmisc src==0 dst==0 len<=0", [](B s, B d, int n) { kfxsbIntToFloat(WS(s), O(d), n, 16, 0); }},
      {"kfxsbFloatToInt kfxmisc src==0 dst==0 len<=0", [](B s, B d, int n) { kfxsbFloatToInt(S(s), WO(d), n, 16, 0); }},
      {"kfxsbZero kfxmisc - dst==0 n<=0", [](B, B d, int n) { kfxsbZero(O(d), n); }},
      {"kfxwbZero kfxmisc - dst==0 n<=0", [](B, B d, int n) { kfxwbZero(WO(d), n); }},
      {"kfxsbSet kfxmisc - dst==0 n<=0", [](B, B d, int n) { kfxsbSet(1, O(d), n); }},
      {"kfxwbSet kfxmisc - dst==0 n<=0", [](B, B d, int n) { kfxwbSet(1, WO(d), n); }},
      {"kfxsbCopy kfxmisc src==0 dst==0 n<=0", [](B s, B d, int n) { kfxsbCopy(S(s), O(d), n); }},
      {"kfxwbCopy kfxmisc src==0 dst==0 n<=0", [](B s, B d, int n) { kfxwbCopy(WS(s), WO(d), n); }},
      {"kfxsbMpy1 kfxarith - dst==0 n<=0", [](B, B d, int n) { kfxsbMpy1(2, O(d), n); }},
      {"kfxsDotProd kfxarith srcA==0 srcB==0 n<=0", [](B s, B d, int n) { EXPECT_EQ(kfxsDotProd(S(s), O(d), n), 0); }},
  };
  for (const auto &[row, call] : rows) {
    std::string func, module, m[3];
    std::getline(std::istringstream(row) >> func >> module >> m[0] >> m[1] >> std::ws, m[2]);
    for (const auto &[s, d, n, message] :
         {std::tuple{false, true, 4, m[0]}, {true, false, 4, m[1]}, {true, true, 0, m[2]}, {true, true, -1, m[2]}}) {
      if (message == "-") continue;
      kfxSetStatus(KFX_StsOk);
      std::copy_n(kUntouched, 4, fOut), std::fill_n(wOut, 4, short{-7});
      call(s, d, n);
      EXPECT_EQ(lastReport(), "-5 " + func + " " + module + " " + message);
      EXPECT_TRUE(std::equal(fOut, fOut + 4, kUntouched) && std::count(wOut, wOut + 4, -7) == 4) << row;
    }
  }
}
