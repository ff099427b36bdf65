// Down- and up-conversions between float/double and scaled integers.
//
// The references are written from the definitions in long double: a
// truncating integer store (truncate; out of range or NaN gives the sign-bit
// pattern), saturation by magnitude and sign bit, powers of two by ldexp and
// orders by frexp. Every case runs once per instruction set the conversions
// can use (portable, SSE2, AVX2 where the CPU has it), and a separate test
// checks the SIMD paths byte for byte against the portable one on random bit
// patterns.
#include "frame/convert.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "xkl_test_support.h"

namespace {

using xk::ConvertIsa;
using xkltest::reports;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// ---------------------------------------------------------------------------
// References.

template <class Int>
long long refTrunc(long double v) {
  constexpr long long lo = std::numeric_limits<Int>::min(), hi = std::numeric_limits<Int>::max();
  if (std::isnan(v)) return lo;
  long double t = std::trunc(v);
  if (t < lo || t > hi) return lo;
  return static_cast<long long>(t);
}

template <class Int>
long long refSaturate(long double x) {
  constexpr long long lo = std::numeric_limits<Int>::min(), hi = std::numeric_limits<Int>::max();
  if (std::isnan(x) || std::fabs(x) >= static_cast<long double>(hi) + 1)
    return std::signbit(x) ? lo : hi;
  return static_cast<long long>(std::trunc(x));
}

// 2^k as the double the conversions multiply by: 0 below the denormals,
// infinity from 2^1024 on.
long double refPow2(long long k) {
  if (k >= 1024) return kInf;
  if (k < -1074) return 0.0;
  return std::ldexp(1.0, static_cast<int>(k));
}

int refOrder(const std::vector<float> &v) {
  float m = 0;
  for (float x : v) {
    if (!std::isfinite(x)) return 129;
    m = std::max(m, std::fabs(x));
  }
  if (m < FLT_MIN) return -126;
  int e;
  std::frexp(m, &e);
  return e;
}

int refOrder(const std::vector<double> &v) {
  double m = 0;
  for (double x : v) {
    if (!std::isfinite(x)) return 1025;
    m = std::max(m, std::fabs(x));
  }
  if (m < DBL_MIN) return -1022;
  int e;
  std::frexp(m, &e);
  return e;
}

// ---------------------------------------------------------------------------
// The forms under test with their shift and automatic-scale limits.

template <class Real, class Int>
struct BlockForm {
  const char *name;
  int (*fn)(const Real *, Int *, int, int, int *);
  int shift, upper, lower;
};

const BlockForm<float, short> kSW{"XKswbConvertDown", XKswbConvertDown, 15, 128, -125};
const BlockForm<double, short> kDW{"XKdwbConvertDown", XKdwbConvertDown, 15, 128, -125};
const BlockForm<float, int> kSI{"XKsibConvertDown", XKsibConvertDown, 31, 1024, -1021};
const BlockForm<double, int> kDI{"XKdibConvertDown", XKdibConvertDown, 31, 1024, -1021};

struct Expected {
  std::vector<long long> dst;
  int scale;
  int ret;
};

template <class Real, class Int>
Expected referenceBlock(const BlockForm<Real, Int> &f, const std::vector<Real> &src, int mode,
                        int scaleIn) {
  Expected x{std::vector<long long>(src.size()), 0, 0};
  switch (mode) {
    case XK_NO_SCALE:
      for (size_t i = 0; i < src.size(); ++i) x.dst[i] = refTrunc<Int>(src[i]);
      break;
    case XK_FIXED_SCALE: {
      long double m = refPow2(-static_cast<long long>(scaleIn));
      for (size_t i = 0; i < src.size(); ++i)
        x.dst[i] = refTrunc<Int>(static_cast<long double>(src[i]) * m);
      x.scale = x.ret = scaleIn;
      break;
    }
    case XK_AUTO_SCALE: {
      int e = refOrder(src);
      if (e > f.upper) {
        x.scale = x.ret = INT_MAX;
      } else if (e >= f.lower) {
        long double m = refPow2(f.shift - e);
        for (size_t i = 0; i < src.size(); ++i)
          x.dst[i] = refTrunc<Int>(static_cast<long double>(src[i]) * m);
        x.scale = x.ret = e - f.shift;
      }
      break;
    }
    default:
      for (size_t i = 0; i < src.size(); ++i) x.dst[i] = refSaturate<Int>(src[i]);
  }
  return x;
}

template <class Real, class Int>
Expected runBlock(const BlockForm<Real, Int> &f, const std::vector<Real> &src, int mode,
                  int scaleIn) {
  std::vector<Int> dst(src.size(), static_cast<Int>(0x5a5a));
  int scale = scaleIn;
  int ret = f.fn(src.data(), dst.data(), static_cast<int>(src.size()), mode, &scale);
  return {std::vector<long long>(dst.begin(), dst.end()), scale, ret};
}

// ---------------------------------------------------------------------------
// Fixture: one instance per instruction set, reports recorded in parent mode.

class ConvertTest : public xkltest::ReportingTest,
                    public ::testing::WithParamInterface<ConvertIsa> {
 protected:
  void SetUp() override {
    ReportingTest::SetUp();
    if (static_cast<int>(GetParam()) > static_cast<int>(xk::convertIsaAvailable()))
      GTEST_SKIP() << "instruction set not available";
    previous_ = xk::setConvertIsa(GetParam());
  }
  void TearDown() override {
    xk::setConvertIsa(previous_);
    ReportingTest::TearDown();
  }
  ConvertIsa previous_ = ConvertIsa::Avx2;
};

std::string isaName(const ::testing::TestParamInfo<ConvertIsa> &info) {
  switch (info.param) {
    case ConvertIsa::Portable:
      return "Portable";
    case ConvertIsa::Sse2:
      return "Sse2";
    case ConvertIsa::Avx2:
      return "Avx2";
  }
  return "Unknown";
}

INSTANTIATE_TEST_SUITE_P(Isa, ConvertTest,
                         ::testing::Values(ConvertIsa::Portable, ConvertIsa::Sse2,
                                           ConvertIsa::Avx2),
                         isaName);

// ---------------------------------------------------------------------------
// Hand-written cases. Source values are written as doubles and must be exact
// in the source type.

struct BlockCase {
  const char *what;
  std::vector<double> src;
  int mode, scaleIn;
  std::vector<long long> dst;
  int scale, ret;
};

template <class Real, class Int>
void checkCases(const BlockForm<Real, Int> &f, const std::vector<BlockCase> &cases) {
  for (const auto &c : cases) {
    std::vector<Real> src(c.src.begin(), c.src.end());
    for (size_t i = 0; i < src.size(); ++i) {
      if (!std::isnan(c.src[i])) {
        ASSERT_EQ(static_cast<double>(src[i]), c.src[i]) << c.what;
      }
    }
    Expected got = runBlock(f, src, c.mode, c.scaleIn);
    EXPECT_EQ(got.dst, c.dst) << f.name << ": " << c.what;
    EXPECT_EQ(got.scale, c.scale) << f.name << ": " << c.what;
    EXPECT_EQ(got.ret, c.ret) << f.name << ": " << c.what;
    // The hand-written expectation and the reference agree.
    Expected ref = referenceBlock(f, src, c.mode, c.scaleIn);
    EXPECT_EQ(ref.dst, c.dst) << "reference, " << f.name << ": " << c.what;
  }
}

constexpr long long kMin16 = -32768, kMax16 = 32767;
constexpr long long kMin32 = INT_MIN, kMax32 = INT_MAX;
const double kFltMax = FLT_MAX, kFltMin = FLT_MIN;

// Cases common to the two 16-bit forms (values exact in float).
std::vector<BlockCase> sixteenBitCases() {
  return {
      {"auto scale example", {1000, -3}, 2, 0, {32000, -96}, -5, -5},
      {"auto scale of zeros", {0, -0.0, 0}, 2, 77, {0, 0, 0}, 0, 0},
      {"saturation example", {40000, -40000, 1.9f}, 3, 5, {32767, -32768, 1}, 0, 0},
      {"no scaling example", {40000}, 0, 9, {kMin16}, 0, 0},
      {"no scaling around the range",
       {32767.998046875, 32768, -32767.5, -32768, -32768.5, -32769, 65536, 4294967296.0, -1.5,
        -0.0, kInf, -kInf, kNan},
       0, 0,
       {32767, kMin16, -32767, kMin16, kMin16, kMin16, kMin16, kMin16, -1, 0, kMin16, kMin16,
        kMin16},
       0, 0},
      {"saturation around the range",
       {32767.998046875, 32768, -32767.998046875, -32768, -32768.5, 2147483648.0, -4294967296.0,
        kInf, -kInf, kNan, -kNan},
       3, 0,
       {32767, 32767, -32767, kMin16, kMin16, kMax16, kMin16, kMax16, kMin16, kMax16, kMin16},
       0, 0},
      {"negative mode saturates", {70000, -1.5}, -1, 3, {kMax16, -1}, 0, 0},
      {"large mode saturates", {-70000, 2.5}, 100, 3, {kMin16, 2}, 0, 0},
      {"fixed scale 1", {65535, 65536, -65537, -65538, 3}, 1, 1, {32767, kMin16, kMin16, kMin16, 1},
       1, 1},
      {"fixed scale -1", {16383.9990234375, 16384, -16384, -16384.5, 0.75}, 1, -1,
       {32767, kMin16, kMin16, kMin16, 1}, -1, -1},
      {"fixed scale 0 truncates only", {1.9f, -1.9f, 40000}, 1, 0, {1, -1, kMin16}, 0, 0},
      {"fixed scale with infinite multiplier", {0, 1, -0.0}, 1, -1024, {kMin16, kMin16, kMin16},
       -1024, -1024},
      {"fixed scale with zero multiplier", {1e30f, kInf, -5}, 1, 1075, {0, kMin16, 0}, 1075, 1075},
      {"fixed scale INT_MIN", {0, 2}, 1, INT_MIN, {kMin16, kMin16}, INT_MIN, INT_MIN},
      {"fixed scale INT_MAX", {1e38f, 0}, 1, INT_MAX, {0, 0}, INT_MAX, INT_MAX},
      {"auto scale at order 15 and 16", {32767.5, 0.5}, 2, 0, {32767, 0}, 0, 0},
      {"auto scale order 16", {-32768, 1}, 2, 0, {-16384, 0}, 1, 1},
      {"auto scale order 0", {0.7500152587890625, -0.25}, 2, 0, {24576, -8192}, -15, -15},
      {"auto scale: NaN is beyond every order", {kNan, 1}, 2, 4, {0, 0}, INT_MAX, INT_MAX},
  };
}

TEST_P(ConvertTest, FloatTo16BitCases) {
  auto cases = sixteenBitCases();
  cases.insert(
      cases.end(),
      {
          {"auto scale at the upper limit", {kFltMax, 1}, 2, 0, {32767, 0}, 113, 113},
          {"auto scale beyond the upper limit", {-kInf, 1}, 2, 0, {0, 0}, INT_MAX, INT_MAX},
          {"auto scale at the lower limit", {kFltMin, -3 * std::ldexp(1.0, -140)}, 2, 0,
           {16384, -3}, -140, -140},
          {"auto scale beyond the lower limit", {std::ldexp(1.0, -127), std::ldexp(1.0, -149)}, 2,
           9, {0, 0}, 0, 0},
          {"fixed scale beyond float multipliers",
           {std::ldexp(1.0, -130), -3 * std::ldexp(1.0, -140), 1}, 1, -140, {1024, -3, kMin16},
           -140, -140},
      });
  checkCases(kSW, cases);
}

TEST_P(ConvertTest, DoubleTo16BitCases) {
  auto cases = sixteenBitCases();
  cases.insert(
      cases.end(),
      {
          {"no scaling, double edges", {32767.999999, -32768.999999, 1e300, 4.9e-324}, 0, 0,
           {32767, kMin16, kMin16, 0}, 0, 0},
          {"saturation, double edges", {32767.999999, -32768.999999, 1e300, -1e300}, 3, 0,
           {32767, kMin16, kMax16, kMin16}, 0, 0},
          {"auto scale at the upper limit", {std::ldexp(1.0, 127), 1}, 2, 0, {16384, 0}, 113, 113},
          {"auto scale beyond the upper limit", {std::ldexp(1.0, 128)}, 2, 0, {0}, INT_MAX,
           INT_MAX},
          {"auto scale of the largest double", {DBL_MAX}, 2, 0, {0}, INT_MAX, INT_MAX},
          {"auto scale at the lower limit", {std::ldexp(1.0, -126)}, 2, 0, {16384}, -140, -140},
          {"auto scale beyond the lower limit", {std::ldexp(1.5, -127)}, 2, 3, {0}, 0, 0},
      });
  checkCases(kDW, cases);
}

TEST_P(ConvertTest, FloatToIntCases) {
  checkCases(
      kSI,
      {
          {"auto scale example", {1000, -3}, 2, 0, {2097152000, -6291456}, -21, -21},
          {"auto scale of zeros stays within the limits", {0, 0}, 2, 5, {0, 0}, -157, -157},
          {"auto scale of the smallest order", {std::ldexp(1.0, -140)}, 2, 0, {131072}, -157, -157},
          {"auto scale of the largest float", {kFltMax}, 2, 0, {2147483520}, 97, 97},
          {"auto scale keeps infinity", {kInf, 1}, 2, 0, {kMin32, 0}, 98, 98},
          {"auto scale keeps NaN", {kNan}, 2, 0, {kMin32}, 98, 98},
          {"no scaling around the range",
           {2147483520.0, 2147483648.0, -2147483648.0, -2147483904.0, 1.9f, -1.9f, kNan, kInf,
            -kInf, std::ldexp(1.0, -149)},
           0, 4, {2147483520, kMin32, kMin32, kMin32, 1, -1, kMin32, kMin32, kMin32, 0}, 0, 0},
          {"saturation around the range",
           {2147483520.0, 2147483648.0, -2147483648.0, -2147483904.0, kNan, -kNan, kInf, -kInf,
            1e20f, -1.9f},
           3, 0, {2147483520, kMax32, kMin32, kMin32, kMax32, kMin32, kMax32, kMin32, kMax32, -1},
           0, 0},
          {"fixed scale 1", {4294967040.0, 4294967296.0, 3}, 1, 1, {2147483520, kMin32, 1}, 1, 1},
      });
}

TEST_P(ConvertTest, DoubleToIntCases) {
  checkCases(
      kDI,
      {
          {"auto scale example", {1000, -3}, 2, 0, {2097152000, -6291456}, -21, -21},
          {"auto scale at the upper limit", {DBL_MAX}, 2, 0, {kMax32}, 993, 993},
          {"auto scale beyond the upper limit", {kInf, 1}, 2, 0, {0, 0}, INT_MAX, INT_MAX},
          // From order -993 down, 2^(31 - e) exceeds XKPower2's range and the
          // multiplier becomes infinity; the conversion keeps that arithmetic.
          {"auto scale with the largest finite multiplier", {std::ldexp(1.0, -993)}, 2, 0,
           {1 << 30}, -1023, -1023},
          {"auto scale at the lower limit", {DBL_MIN, 0}, 2, 0, {kMin32, kMin32}, -1052, -1052},
          {"auto scale beyond the lower limit", {4.9e-324}, 2, 0, {0}, 0, 0},
          {"no scaling around the range",
           {2147483647.9, 2147483648.0, -2147483648.9, -2147483649.0, kNan, 1e300},
           0, 0, {kMax32, kMin32, kMin32, kMin32, kMin32, kMin32}, 0, 0},
          {"saturation around the range",
           {2147483647.9, 2147483648.0, -2147483648.9, -2147483649.0, kNan, -kNan, kInf, -1e300},
           3, 0, {kMax32, kMax32, kMin32, kMin32, kMax32, kMin32, kMax32, kMin32}, 0, 0},
      });
}

TEST_P(ConvertTest, NullScaleFactorActsAsLocalZero) {
  float src[2] = {1000, -3.7f};
  short dst[2];
  EXPECT_EQ(XKswbConvertDown(src, dst, 2, XK_AUTO_SCALE, nullptr), -5);
  EXPECT_EQ(dst[0], 32000);
  EXPECT_EQ(XKswbConvertDown(src, dst, 2, XK_FIXED_SCALE, nullptr), 0);
  EXPECT_EQ(dst[0], 1000);
  EXPECT_EQ(dst[1], -3);
  double dsrc[1] = {-5e9};
  int idst[1];
  EXPECT_EQ(XKdibConvertDown(dsrc, idst, 1, 7, nullptr), 0);
  EXPECT_EQ(idst[0], INT_MIN);
  EXPECT_TRUE(reports().empty());
}

TEST_P(ConvertTest, EmptyAndNullBlocksConvertNothing) {
  float src[1] = {3};
  short dst[1] = {99};
  int scale = 4;
  EXPECT_EQ(XKswbConvertDown(src, dst, 0, XK_NO_SCALE, &scale), 0);
  EXPECT_EQ(scale, 0);
  EXPECT_EQ(XKswbConvertDown(nullptr, nullptr, 5, XK_FIXED_SCALE, &scale), 0);
  // The float order of an empty vector is that of zeros: below the limit.
  scale = 4;
  EXPECT_EQ(XKswbConvertDown(src, dst, -2, XK_AUTO_SCALE, &scale), 0);
  EXPECT_EQ(scale, 0);
  EXPECT_EQ(dst[0], 99);
  int idst[1] = {99};
  EXPECT_EQ(XKsibConvertDown(src, idst, 0, 3, &scale), 0);
  EXPECT_EQ(idst[0], 99);
  XKwsbConvertUp(nullptr, nullptr, 10, 3);
  XKidbConvertUp(nullptr, nullptr, -1, 3);
  EXPECT_TRUE(reports().empty());
}

// The double forms take their automatic order from the checking double
// order, so an empty vector is reported under that order's name.
TEST_P(ConvertTest, DoubleAutoScaleOfEmptyVectorReportsThroughTheOrder) {
  double src[1] = {1};
  short dst[1] = {99};
  int scale = 4;
  XKdwbConvertDown(src, dst, 0, XK_AUTO_SCALE, &scale);
  ASSERT_EQ(reports().size(), 1u);
  EXPECT_EQ(reports()[0].func, "XKdMaxOrder");
  EXPECT_EQ(reports()[0].context, "n<=0");
  EXPECT_EQ(dst[0], 99);
}

// ---------------------------------------------------------------------------
// Random data against the references.

template <class Real>
std::vector<Real> specials();

template <>
std::vector<float> specials<float>() {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  return {0.0f,          -0.0f,      1e-45f,        -1e-45f,       1e-40f,         FLT_MIN,
          -FLT_MIN,      0.5f,       1.0f,          -1.0f,         1.9f,           -1.9f,
          32767.0f,      32767.998f, 32768.0f,      -32768.0f,     -32768.5f,      -32769.0f,
          65535.0f,      65536.0f,   2147483520.0f, 2147483648.0f, -2147483648.0f, -2147483904.0f,
          4294967296.0f, 1e10f,      -1e10f,        FLT_MAX,       -FLT_MAX,       inf,
          -inf,          nan,        -nan};
}

template <>
std::vector<double> specials<double>() {
  return {0.0,          -0.0,          4.9e-324,      -4.9e-324,     DBL_MIN,      -DBL_MIN,
          0.5,          1.9,           -1.9,          32767.0,       32767.9999,   32768.0,
          -32768.0,     -32768.9999,   -32769.0,      65536.0,       2147483647.0, 2147483647.9,
          2147483648.0, -2147483648.0, -2147483648.9, -2147483649.0, 1e300,        -1e300,
          DBL_MAX,      -DBL_MAX,      kInf,          -kInf,         kNan,         -kNan};
}

template <class Real>
Real randomBits(std::mt19937_64 &gen) {
  using Bits = std::conditional_t<sizeof(Real) == 4, uint32_t, uint64_t>;
  Bits b = static_cast<Bits>(gen());
  Real x;
  std::memcpy(&x, &b, sizeof x);
  return x;
}

// Specials, values around the 16- and 32-bit ranges, and random bit patterns.
template <class Real>
std::vector<Real> mixedData(std::mt19937_64 &gen, int n) {
  auto sp = specials<Real>();
  std::uniform_int_distribution<int> kind(0, 3);
  std::uniform_real_distribution<double> near16(-70000, 70000), near32(-5e9, 5e9);
  std::vector<Real> v(n);
  for (auto &x : v) {
    switch (kind(gen)) {
      case 0:
        x = sp[gen() % sp.size()];
        break;
      case 1:
        x = static_cast<Real>(near16(gen));
        break;
      case 2:
        x = static_cast<Real>(near32(gen));
        break;
      default:
        x = randomBits<Real>(gen);
    }
  }
  return v;
}

// Finite values whose largest magnitude has a chosen order; for the
// automatic scale.
template <class Real>
std::vector<Real> dataOfOrder(std::mt19937_64 &gen, int n, int order) {
  std::uniform_real_distribution<double> mant(-1.0, 1.0);
  std::uniform_int_distribution<int> drop(0, 30);
  std::vector<Real> v(n);
  for (auto &x : v) x = static_cast<Real>(std::ldexp(mant(gen), order - drop(gen)));
  return v;
}

const int kLengths[] = {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 64, 4096, 4099};
const int kFixedScales[] = {0,    1,    -1,    5,    -5,    15,   -15,  31,    -31,     100,
                            -100, 126,  -126,  127,  -127,  128,  -128, 140,   -140,    149,
                            -160, 1023, -1023, 1024, -1024, 1074, 1075, -1100, INT_MIN, INT_MAX};

template <class Real, class Int>
void checkRandomAgainstReference(const BlockForm<Real, Int> &f, uint64_t seed) {
  std::mt19937_64 gen(seed);
  for (int n : kLengths) {
    auto mixed = mixedData<Real>(gen, n);
    for (int mode : {0, 3, -5}) {
      ASSERT_EQ(runBlock(f, mixed, mode, 0).dst, referenceBlock(f, mixed, mode, 0).dst)
          << f.name << " n=" << n << " mode=" << mode;
    }
    for (int s : kFixedScales) {
      Expected got = runBlock(f, mixed, XK_FIXED_SCALE, s);
      Expected want = referenceBlock(f, mixed, XK_FIXED_SCALE, s);
      ASSERT_EQ(got.dst, want.dst) << f.name << " n=" << n << " s=" << s;
      ASSERT_EQ(got.scale, s);
    }
    int maxOrder = sizeof(Real) == 4 ? 128 : 1024, minOrder = sizeof(Real) == 4 ? -150 : -1070;
    for (int order = minOrder; order <= maxOrder; order += (n > 100 ? 37 : 7)) {
      auto v = dataOfOrder<Real>(gen, n, order);
      Expected got = runBlock(f, v, XK_AUTO_SCALE, 0);
      Expected want = referenceBlock(f, v, XK_AUTO_SCALE, 0);
      ASSERT_EQ(got.dst, want.dst) << f.name << " n=" << n << " order=" << order;
      ASSERT_EQ(got.scale, want.scale) << f.name << " n=" << n << " order=" << order;
      ASSERT_EQ(got.ret, want.ret);
    }
  }
}

TEST_P(ConvertTest, RandomBlocksMatchReference) {
  checkRandomAgainstReference(kSW, 1);
  checkRandomAgainstReference(kDW, 2);
  checkRandomAgainstReference(kSI, 3);
  checkRandomAgainstReference(kDI, 4);
  EXPECT_TRUE(reports().empty());
}

// ---------------------------------------------------------------------------
// Scalar forms.

struct ScalarCase {
  const char *what;
  double value;
  int mode, scaleIn;
  long long result;
  int scale;
};

template <class Real>
void checkScalar(const char *name, int (*fn)(Real, int, int *),
                 const std::vector<ScalarCase> &cases) {
  for (const auto &c : cases) {
    Real v = static_cast<Real>(c.value);
    if (!std::isnan(c.value)) {
      ASSERT_EQ(static_cast<double>(v), c.value) << c.what;
    }
    int scale = c.scaleIn;
    EXPECT_EQ(fn(v, c.mode, &scale), c.result) << name << ": " << c.what;
    EXPECT_EQ(scale, c.scale) << name << ": " << c.what;
  }
}

TEST_P(ConvertTest, ScalarFloatTo16Bit) {
  checkScalar<float>("XKswConvertDown", XKswConvertDown,
                     {
                         {"auto", 1000, 2, 0, 32000, -5},
                         {"auto at the upper limit", kFltMax, 2, 0, 32767, 113},
                         {"auto beyond the upper limit", kInf, 2, 0, 0, INT_MAX},
                         {"auto at the lower limit", kFltMin, 2, 0, 16384, -140},
                         {"auto beyond the lower limit", 1e-40f, 2, 7, 0, 0},
                         {"auto of zero", 0, 2, 7, 0, 0},
                         {"none", -1.9f, 0, 3, -1, 0},
                         {"none out of range", 40000, 0, 3, kMin16, 0},
                         {"none NaN", kNan, 0, 3, kMin16, 0},
                         {"fixed", 65535, 1, 1, 32767, 1},
                         {"fixed out of range", 65536, 1, 1, kMin16, 1},
                         {"saturate high", 40000, 3, 1, 32767, 0},
                         {"saturate low", -32768.5, 3, 1, kMin16, 0},
                         {"saturate in range", -32767.5, 3, 1, -32767, 0},
                         {"saturate -infinity", -kInf, 3, 1, kMin16, 0},
                         {"saturate NaN truncates", kNan, 3, 1, kMin16, 0},
                     });
}

TEST_P(ConvertTest, ScalarDoubleTo16Bit) {
  checkScalar<double>(
      "XKdwConvertDown", XKdwConvertDown,
      {
          {"auto", -3, 2, 0, -24576, -13},
          {"auto at the upper limit", DBL_MAX, 2, 0, 32767, 1009},
          {"auto beyond the upper limit", -kInf, 2, 0, 0, INT_MAX},
          {"auto NaN is beyond the upper limit", kNan, 2, 0, 0, INT_MAX},
          {"auto with the largest finite multiplier", std::ldexp(1.0, -1009), 2, 0, 16384, -1023},
          // 2^(15 + 1021) is beyond XKPower2's range: the multiplier is infinity.
          {"auto at the lower limit", DBL_MIN, 2, 0, kMin16, -1036},
          {"auto beyond the lower limit", 4.9e-324, 2, 5, 0, 0},
          {"none", 32767.9999, 0, 5, 32767, 0},
          {"none out of range", 32768, 0, 5, kMin16, 0},
          {"fixed", 1.5, 1, -2, 6, -2},
          {"saturate", 1e300, 4, 0, 32767, 0},
          {"saturate low", -32768.25, 4, 0, kMin16, 0},
      });
}

TEST_P(ConvertTest, ScalarFloatToInt) {
  checkScalar<float>("XKsiConvertDown", XKsiConvertDown,
                     {
                         {"auto", 1000, 2, 0, 2097152000, -21},
                         {"auto at the upper limit", kFltMax, 2, 0, 2147483520, 97},
                         {"auto beyond the upper limit", kNan, 2, 0, 0, INT_MAX},
                         {"auto at the lower limit", kFltMin, 2, 0, 1 << 30, -156},
                         {"auto beyond the lower limit", 1e-45f, 2, 5, 0, 0},
                         {"none", 2147483520.0, 0, 5, 2147483520, 0},
                         {"none out of range", 2147483648.0, 0, 5, kMin32, 0},
                         {"fixed", 3, 1, -30, kMin32, -30},
                         {"fixed in range", 1, 1, -30, 1 << 30, -30},
                         {"saturate", 2147483648.0, 3, 5, kMax32, 0},
                         {"saturate low", -2147483904.0, 3, 5, kMin32, 0},
                         {"saturate -1.9", -1.9f, 3, 5, -1, 0},
                     });
}

TEST_P(ConvertTest, ScalarDoubleToInt) {
  checkScalar<double>("XKdiConvertDown", XKdiConvertDown,
                      {
                          {"auto", -1000, 2, 0, -2097152000, -21},
                          {"auto at the upper limit", std::ldexp(1.0, 127), 2, 0, 1 << 30, 97},
                          {"auto beyond the upper limit", std::ldexp(1.0, 128), 2, 0, 0, INT_MAX},
                          {"auto at the lower limit", std::ldexp(1.0, -126), 2, 0, 1 << 30, -156},
                          {"auto beyond the lower limit", std::ldexp(1.9, -127), 2, 5, 0, 0},
                          {"none", -2147483648.9, 0, 5, kMin32, 0},
                          {"none out of range", 2147483648.0, 0, 5, kMin32, 0},
                          {"fixed", 2147483647.0, 1, 0, kMax32, 0},
                          {"saturate high", 2147483647.5, 9, 1, kMax32, 0},
                          {"saturate low", -2147483648.5, 9, 1, kMin32, 0},
                          {"saturate NaN truncates", kNan, 9, 1, kMin32, 0},
                      });
  int scale = 0;
  EXPECT_EQ(XKdiConvertDown(1000.0, XK_AUTO_SCALE, nullptr), 2097152000);
  EXPECT_EQ(XKdiConvertDown(5.9, XK_FIXED_SCALE, nullptr), 5);
  EXPECT_EQ(XKdiConvertDown(5.9, XK_FIXED_SCALE, &scale), 5);
  EXPECT_TRUE(reports().empty());
}

// ---------------------------------------------------------------------------
// Up-conversions.

template <class D>
bool sameValue(D a, D b) {
  return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

template <class Src, class Dst>
void checkUp(void (*fn)(const Src *, Dst *, int, int), const char *name, uint64_t seed) {
  std::mt19937_64 gen(seed);
  const int scales[] = {0,    1,    -1,   5,     -5,    15,    31,      -31,    126,
                        127,  128,  -126, -127,  -128,  149,   150,     -200,   1000,
                        1074, 1075, 1100, -1023, -1024, -1100, INT_MIN, INT_MAX};
  for (int n : kLengths) {
    std::vector<Src> src(n);
    for (auto &x : src) x = static_cast<Src>(gen());
    src[0] = std::numeric_limits<Src>::min();
    if (n > 1) src[1] = 0;
    if (n > 2) src[2] = std::numeric_limits<Src>::max();
    for (int u : scales) {
      std::vector<Dst> dst(n);
      fn(src.data(), dst.data(), n, u);
      long double m = refPow2(-static_cast<long long>(u));
      for (int i = 0; i < n; ++i) {
        Dst want = static_cast<Dst>(static_cast<long double>(src[i]) * m);
        ASSERT_TRUE(sameValue(dst[i], want))
            << name << " u=" << u << " src=" << src[i] << " got " << dst[i] << " want " << want;
      }
    }
  }
}

TEST_P(ConvertTest, UpConversionExample) {
  short src[1] = {32000};
  float dst[1];
  XKwsbConvertUp(src, dst, 1, 5);
  EXPECT_EQ(dst[0], 1000.0f);
  EXPECT_EQ(XKwdConvertUp(-96, 5), -3.0);
  EXPECT_EQ(XKidConvertUp(2097152000, 21), 1000.0);
  EXPECT_EQ(XKidConvertUp(INT_MIN, 0), -2147483648.0);
  EXPECT_EQ(XKwdConvertUp(1, -1023), std::ldexp(1.0, 1023));
  EXPECT_EQ(XKwdConvertUp(1, -1024), kInf);
  EXPECT_EQ(XKwdConvertUp(3, 1075), 0.0);
}

TEST_P(ConvertTest, UpConversionsMatchReference) {
  checkUp<short, float>(XKwsbConvertUp, "XKwsbConvertUp", 21);
  checkUp<short, double>(XKwdbConvertUp, "XKwdbConvertUp", 22);
  checkUp<int, float>(XKisbConvertUp, "XKisbConvertUp", 23);
  checkUp<int, double>(XKidbConvertUp, "XKidbConvertUp", 24);
}

// Down with the automatic scale, then up with the negated scale, recovers
// every value to within one unit of the last kept bit.
TEST_P(ConvertTest, RoundTripThroughTheAutomaticScale) {
  std::mt19937_64 gen(31);
  for (int order : {-100, -20, -1, 0, 3, 15, 40, 127}) {
    auto v = dataOfOrder<float>(gen, 257, order);
    std::vector<short> w(v.size());
    std::vector<float> back(v.size());
    int scale = 0;
    XKswbConvertDown(v.data(), w.data(), 257, XK_AUTO_SCALE, &scale);
    XKwsbConvertUp(w.data(), back.data(), 257, -scale);
    for (size_t i = 0; i < v.size(); ++i) {
      EXPECT_LE(std::fabs(back[i]), std::fabs(v[i]));  // truncation toward zero
      EXPECT_LT(std::fabs(v[i] - back[i]), std::ldexp(1.0, scale)) << order;
    }
  }
}

// ---------------------------------------------------------------------------
// SIMD against portable, byte for byte, on random bit patterns (the
// up-conversions are compared with their reference under every instruction
// set above).

template <class Real, class Int>
std::vector<Int> convertWith(ConvertIsa isa, const BlockForm<Real, Int> &f,
                             const std::vector<Real> &src, int mode, int *scale) {
  ConvertIsa prev = xk::setConvertIsa(isa);
  std::vector<Int> dst(src.size(), 0x3c3c);
  f.fn(src.data(), dst.data(), static_cast<int>(src.size()), mode, scale);
  xk::setConvertIsa(prev);
  return dst;
}

template <class Real, class Int>
void checkSimdEqualsPortable(ConvertIsa isa, const BlockForm<Real, Int> &f, uint64_t seed) {
  std::mt19937_64 gen(seed);
  for (int n : {1, 6, 13, 16, 29, 64, 1000, 4096}) {
    auto v = mixedData<Real>(gen, n);
    for (Real &x : v)
      if (gen() % 3 == 0) x = randomBits<Real>(gen);
    for (int mode : {0, 1, 2, 3}) {
      for (int s : {0, 3, -7, 16, -40, 150, -300}) {
        int s1 = s, s2 = s;
        auto a = convertWith(ConvertIsa::Portable, f, v, mode, &s1);
        auto b = convertWith(isa, f, v, mode, &s2);
        ASSERT_EQ(a, b) << f.name << " n=" << n << " mode=" << mode << " s=" << s;
        ASSERT_EQ(s1, s2);
        if (mode != 1) break;
      }
    }
  }
}

TEST(ConvertSimd, EqualsPortableOnRandomBits) {
  int tested = 0;
  for (ConvertIsa isa : {ConvertIsa::Sse2, ConvertIsa::Avx2}) {
    if (static_cast<int>(isa) > static_cast<int>(xk::convertIsaAvailable())) continue;
    ++tested;
    checkSimdEqualsPortable(isa, kSW, 51);
    checkSimdEqualsPortable(isa, kDW, 52);
    checkSimdEqualsPortable(isa, kSI, 53);
    checkSimdEqualsPortable(isa, kDI, 54);
  }
  if (tested == 0) GTEST_SKIP() << "no SIMD path on this machine";
}

}  // namespace
