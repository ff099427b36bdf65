// Float real FFT against a naive DFT in long double; argument checks; the table cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kernels/fft_tables.h"
#include "xkl/kfx.h"

namespace {

namespace ft = kfx::fft;
using Frame = std::vector<float>;
using Exact = std::vector<long double>;

constexpr long double kPi = 3.141592653589793238462643383279502884L;
constexpr int kFwdPerm = KFX_Forward | KFX_RCPerm;

// A radix-2 float FFT errs by a few roundings (eps = 6e-8) of the peak per
// level; 1e-6 per level (16 eps) covers twiddles and split, "+1" orders 0/1.
// Measured 0.03e-6..0.25e-6; a wrong factor or index errs by about the peak.
double tolerance(int order) { return 1e-6 * (order + 1); }

Frame randomFrame(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  Frame x(n);
  for (float &v : x) v = std::uniform_real_distribution<float>(-1.0f, 1.0f)(gen);
  return x;
}

// Position of Re[k] in a layout; Im[k] follows it for 0 < k < N/2.
std::size_t reAt(std::size_t k, std::size_t n, bool pack) {
  return k == 0 ? 0 : k == n / 2 ? (pack ? n - 1 : 1) : (pack ? 2 * k - 1 : 2 * k);
}

// Naive DFT: forward of a real frame into a layout, or the unscaled inverse
// of the conjugate-symmetric spectrum held in a layout.
Exact dft(const Frame &in, bool inverse, bool pack) {
  const std::size_t n = in.size();
  Exact c(n), s(n), out(n);
  for (std::size_t j = 0; j < n; ++j) c[j] = std::cos(2 * kPi * j / n), s[j] = std::sin(2 * kPi * j / n);
  for (std::size_t k = 0; k <= n / 2; ++k) {
    const std::size_t at = reAt(k, n, pack);
    const bool edge = k == 0 || k == n / 2;  // Im[k] = 0, not stored
    for (std::size_t t = 0; t < n; ++t) {
      const long double ct = c[k * t % n], st = s[k * t % n];
      if (inverse) out[t] += (edge ? 1 : 2) * (in[at] * ct - (edge ? 0.0f : in[at + 1]) * st);
      if (!inverse) out[at] += in[t] * ct;
      if (!inverse && !edge) out[at + 1] -= in[t] * st;
    }
  }
  return out;
}

// Largest deviation from the reference, relative to the reference's peak.
long double relError(const Frame &got, const Exact &want) {
  long double e = 0, p = 0;
  for (std::size_t i = 0; i < got.size(); ++i)
    e = std::max(e, std::fabs(got[i] - want[i])), p = std::max(p, std::fabs(want[i]));
  return e / p;
}

// One transform by either entry point, buffers `offset` floats off alignment; output starts as -77.
Frame run(const Frame &in, int order, int flags, bool inPlace, std::size_t offset = 0) {
  Frame src(offset, 0.0f), dst(in.size() + offset, -77.0f);
  src.insert(src.end(), in.begin(), in.end());
  inPlace ? kfxsRealFftl(src.data() + offset, order, flags)
          : kfxsRealFftlNip(src.data() + offset, dst.data() + offset, order, flags);
  const Frame &out = inPlace ? src : dst;
  return Frame(out.begin() + static_cast<std::ptrdiff_t>(offset), out.end());
}

class FloatFft : public ::testing::Test {
 protected:
  void SetUp() override { kfxSetStatus(KFX_StsOk); }
  void TearDown() override {
    ft::failTableAllocations(0);
    kfx::setSimdEnabled(true);
    EXPECT_EQ(kfxGetStatus(), KFX_StsOk);
  }
};

// Up to order 12 (where the naive DFT stays fast) every mode against it; at
// every order the round trip restores the frame and a constant goes to DC.
TEST_F(FloatFft, MatchesNaiveDftInEveryModeAndRoundTrips) {
  for (int order = 0; order <= 16; ++order) {
    const std::size_t n = std::size_t{1} << order;
    const Frame x = randomFrame(n, 100 + order);  // a frame, or a spectrum in a layout
    Exact dc(n, 0.0L);
    dc[0] = static_cast<double>(n) * 0.3f;
    for (bool pack : {false, true}) {
      const int layout = pack ? KFX_RCPack : KFX_RCPerm;
      for (int dir : {KFX_Forward, KFX_Inverse, KFX_Inverse | KFX_NoScale}) {
        if (order > 12) break;
        Exact want = dft(x, dir != KFX_Forward, pack);
        for (auto &v : want) v /= dir == KFX_Inverse ? n : 1;
        for (bool inPlace : {false, true})
          EXPECT_LE(relError(run(x, order, dir | layout, inPlace), want), tolerance(order))
              << "order " << order << " flags " << (dir | layout) << (inPlace ? " in place" : "");
      }
      for (bool inPlace : {false, true}) {
        const Frame back = run(run(x, order, KFX_Forward | layout, inPlace), order, KFX_Inverse | layout, inPlace);
        EXPECT_LE(relError(back, Exact(x.begin(), x.end())), 2 * tolerance(order)) << "order " << order;
        EXPECT_LE(relError(run(Frame(n, 0.3f), order, KFX_Forward | layout, inPlace), dc), tolerance(order))
            << "constant, order " << order;
      }
    }
  }
}

TEST_F(FloatFft, ArgumentErrorsReportTheirMessageAndLeaveTheOutputUntouched) {
  // In place, null input, null output, order, flags. Checked in turn: order, input, output, direction, layout.
  const std::tuple<bool, bool, bool, int, int, const char *> cases[] = {
      {false, true, true, -1, 0, "order<0"},
      {false, false, false, 32, kFwdPerm, "order>31"},
      {true, true, false, 32, KFX_Init, "order>31"},
      {false, true, true, 4, 3 | 768, "inSamps==0"},
      {false, false, true, 4, 3 | 768, "outSamps==0"},
      {true, true, false, 4, 3 | 768, "samps==0"},
      {true, true, false, 1, kFwdPerm, "samps==0"},
      {false, false, false, 4, KFX_Forward | KFX_Inverse | 768, "(flags & 1) && (flags & 2)"},
      {true, false, false, 4, KFX_Forward | KFX_Inverse, "(flags & 1) && (flags & 2)"},
      {false, false, false, 4, KFX_RCPerm, "(flags & 1)==0 && (flags & 2)==0"},
      {false, false, false, 4, KFX_Forward | 768, "(flags & 256) && (flags & 512)"},
      {false, false, false, 4, KFX_Inverse, "(flags & 256)==0 && (flags & 512)==0"},
      {true, false, false, 4, KFX_Forward, "(flags & 256)==0 && (flags & 512)==0"},
  };
  const Frame in = randomFrame(16, 7);
  for (const auto &[inPlace, nullIn, nullOut, order, flags, message] : cases) {
    SCOPED_TRACE(::testing::Message() << message << (inPlace ? " in place" : "") << ", order " << order);
    Frame out = inPlace ? in : Frame(16, -123.0f);
    if (inPlace)
      kfxsRealFftl(nullIn ? nullptr : out.data(), order, flags);
    else
      kfxsRealFftlNip(nullIn ? nullptr : in.data(), nullOut ? nullptr : out.data(), order, flags);
    const KFXErrorReport *r = kfxGetErrorReport();
    EXPECT_TRUE(kfxGetStatus() == KFX_StsBadArg && r->status == KFX_StsBadArg && r->line > 0);
    EXPECT_EQ(std::string(r->funcName) + " " + r->file + " " + r->message,
              std::string(inPlace ? "kfxsRealFftl" : "kfxsRealFftlNip") + " kfxffts " + message);
    EXPECT_EQ(out, inPlace ? in : Frame(16, -123.0f));
    kfxSetStatus(KFX_StsOk);
  }
}

TEST_F(FloatFft, InitBuildsFreeReleasesAndReleasedTablesAreRebuilt) {
  const Frame x = randomFrame(1024, 11), first = run(x, 10, kFwdPerm, false);
  kfxsRealFftlNip(nullptr, nullptr, 0, KFX_Free | KFX_Forward);
  for (int o = 0; o < ft::kSlots; ++o)
    EXPECT_FALSE(ft::bitRevCached(o) || ft::twiddleCached(o) || ft::splitCached(o)) << "order " << o;
  kfxsRealFftlNip(nullptr, nullptr, 9, KFX_Init);  // touches no buffer
  kfxsRealFftl(nullptr, 11, KFX_Init | 3 | 768);   // direction and layout bits are not checked
  EXPECT_TRUE(ft::bitRevCached(9) && ft::twiddleCached(9) && ft::splitCached(9) && ft::twiddleCached(11));
  EXPECT_EQ(run(x, 10, kFwdPerm, false), first);
  kfxFreeBitRevTbls();
  EXPECT_TRUE(!ft::bitRevCached(10) && ft::twiddleCached(10));
  EXPECT_EQ(run(x, 10, kFwdPerm, true), first);
  kfxFreeTwdTbls();
  EXPECT_TRUE(!ft::twiddleCached(10) && !ft::splitCached(10) && ft::bitRevCached(10));
  EXPECT_EQ(run(x, 10, kFwdPerm, false), first);
}

TEST_F(FloatFft, AllocationFailureReleasesTheCacheAndRetriesOnce) {
  const Frame x = randomFrame(64, 12), want = run(x, 6, KFX_Forward | KFX_RCPack, false);
  kfxsRealFftl(nullptr, 0, KFX_Free);
  kfxsRealFftl(nullptr, 4, KFX_Init);
  ft::failTableAllocations(1);  // one failure: the tables of order 4 go, those of order 6 are built
  EXPECT_EQ(run(x, 6, KFX_Forward | KFX_RCPack, false), want);
  EXPECT_TRUE(!ft::twiddleCached(4) && ft::twiddleCached(6) && kfxGetStatus() == KFX_StsOk);
  // Every allocation fails: -4, output untouched. Order 31 reaches the table
  // stage the same way without needing a frame of 2^31 floats.
  kfxsRealFftl(nullptr, 0, KFX_Free);
  ft::failTableAllocations(-1);
  for (int order : {6, 31})
    for (bool inPlace : {false, true}) {
      EXPECT_EQ(run(x, order, kFwdPerm, inPlace), inPlace ? x : Frame(64, -77.0f));
      EXPECT_EQ(kfxGetStatus(), KFX_StsNoMem);
      EXPECT_EQ(std::string(kfxGetErrorReport()->funcName) + " " + kfxGetErrorReport()->message,
                std::string(inPlace ? "kfxsRealFftl" : "kfxsRealFftlNip") + " No working Twd memory");
      kfxSetStatus(KFX_StsOk);
    }
  kfxsRealFftlNip(nullptr, nullptr, 7, KFX_Init);  // building only the tables fails alike
  EXPECT_EQ(kfxGetStatus(), KFX_StsNoMem);
  kfxSetStatus(KFX_StsOk);
  run(x, 1, kFwdPerm, true);  // orders 0 and 1 need no tables (the fixture checks the status)
  ft::failTableAllocations(0);
  EXPECT_EQ(run(x, 6, KFX_Forward | KFX_RCPack, false), want);
}

// Orders above kMaxSimdOrder keep no full permutation and run the portable
// stages; an impulse at position 3 has the spectrum exp(-2 pi i 3k/N).
TEST_F(FloatFft, OrderAboveTheVectorisedRangeTransformsAnImpulse) {
  const int order = ft::kMaxSimdOrder + 1;
  const std::size_t n = std::size_t{1} << order;
  Frame x(n, 0.0f);
  x[3] = 1.0f;
  const Frame spec = run(x, order, kFwdPerm, false);
  EXPECT_EQ(ft::bitRevTable(order)->rev, nullptr);
  long double worst = std::max(std::fabs(spec[0] - 1.0L), std::fabs(spec[1] + 1.0L));  // (-1)^3 at N/2
  for (std::size_t k = 1; k < n / 2; k += 997) {
    const long double a = 2 * kPi * static_cast<long double>(3 * k % n) / static_cast<long double>(n);
    worst = std::max({worst, std::fabs(spec[2 * k] - std::cos(a)), std::fabs(spec[2 * k + 1] + std::sin(a))});
  }
  EXPECT_LE(worst, tolerance(order));
  const Frame back = run(spec, order, KFX_Inverse | KFX_RCPerm, true);
  EXPECT_LE(relError(back, Exact(x.begin(), x.end())), 2 * tolerance(order));
  kfxsRealFftl(nullptr, 0, KFX_Free);  // leave no 100 MB of tables behind
}

TEST_F(FloatFft, VectorisedPathEqualsPortablePathAtAnyAlignment) {
  if (!kfx::simdActive()) GTEST_SKIP() << "no vectorised path on this processor";
  for (int order = 2; order <= 17; ++order) {
    const Frame x = randomFrame(std::size_t{1} << order, 400 + order);
    for (int flags :
         {kFwdPerm, KFX_Forward | KFX_RCPack, KFX_Inverse | KFX_RCPerm, KFX_Inverse | KFX_RCPack | KFX_NoScale})
      for (bool inPlace : {false, true}) {
        kfx::setSimdEnabled(false);
        const Frame portable = run(x, order, flags, inPlace);
        kfx::setSimdEnabled(true);
        const Frame simd = run(x, order, flags, inPlace);
        // The paths differ only in the order of their roundings, about 0.3 eps (2^-24)
        // per level measured; a wrong factor, lane or index exceeds 2 eps by far.
        EXPECT_LE(relError(simd, Exact(portable.begin(), portable.end())), 2 * 5.96e-8 * (order + 1))
            << "order " << order << " flags " << flags << (inPlace ? " in place" : "");
        EXPECT_EQ(run(x, order, flags, inPlace, 1), simd) << "off alignment, order " << order;
      }
  }
}

TEST_F(FloatFft, ThreadsBuildingTablesTogetherAgreeWithOneThread) {
  constexpr int kThreads = 8, kTop = 12;
  // Own flags and placement per thread; odd threads walk the orders downwards so first uses collide.
  auto transformAll = [](int t) {
    std::vector<Frame> out(kTop + 1);
    const int flags = (t % 2 ? KFX_Inverse : KFX_Forward) | (t % 4 < 2 ? KFX_RCPerm : KFX_RCPack);
    for (int order = t % 2 ? kTop : 0; order >= 0 && order <= kTop; order += t % 2 ? -1 : 1)
      out[order] = run(randomFrame(std::size_t{1} << order, 500 + order), order, flags, t % 3 == 0);
    return out;
  };
  std::vector<std::vector<Frame>> want(kThreads), got(kThreads);
  for (int t = 0; t < kThreads; ++t) want[t] = transformAll(t);
  kfxsRealFftl(nullptr, 0, KFX_Free);
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      got[t] = transformAll(t);
      EXPECT_EQ(kfxGetStatus(), KFX_StsOk) << "thread " << t;
    });
  for (auto &th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(got[t] == want[t]) << "thread " << t;
}

}  // namespace
