// Conversions between float/double and scaled integers, orders, XKPower2. The
// references follow the definitions in long double (truncating store, ldexp,
// frexp); cases run under every instruction set the CPU offers.
#include "frame/convert.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "xkl_test_support.h"

namespace {

using xk::ConvertIsa, xkltest::reports;

constexpr double kInf = INFINITY, kNan = NAN, kDenorm = std::numeric_limits<double>::denorm_min();
constexpr long long kMin16 = -32768, kMax16 = 32767, kMin32 = INT_MIN, kMax32 = INT_MAX;
const double kFltMax = FLT_MAX, kFltMin = FLT_MIN, kFltDenorm = std::ldexp(1.0, -149);
const double p31 = 2147483648.0, f31 = 2147483520.0, fm31 = -2147483904.0;  // float-exact

template <class Body>
void forEachIsa(Body body) {
  for (ConvertIsa isa : {ConvertIsa::Portable, ConvertIsa::Sse2, ConvertIsa::Avx2}) {
    if (isa > xk::convertIsaAvailable()) continue;
    ConvertIsa prev = xk::setConvertIsa(isa);
    SCOPED_TRACE(static_cast<int>(isa));
    body();
    xk::setConvertIsa(prev);
  }
}

// Integer store to 16 or 32 bits: truncation; out of range or NaN gives the
// sign-bit pattern. Block saturation picks the limit by the sign bit (NaN
// too); scalar saturation compares values, so NaN stores as without it.
enum Sat { kNoSat, kBlockSat, kScalarSat };
long long refStore(long double x, bool is32, Sat sat) {
  const long long hi = is32 ? INT_MAX : 32767, lo = -hi - 1;
  if (std::isnan(x)) return sat == kBlockSat && !std::signbit(x) ? hi : lo;
  const long double t = std::trunc(x);
  if (t < lo || t > hi) return sat != kNoSat && t > hi ? hi : lo;
  return static_cast<long long>(t);
}

// 2^k as the multiplying double: 0 below the denormals, infinity from 2^1024.
long double refPow2(long long k) {
  return k >= 1024 ? kInf : k < -1074 ? 0.0 : std::ldexp(1.0, static_cast<int>(k));
}

// Largest magnitude in [2^(e-1), 2^e) gives order e; zero and denormals the
// smallest exponent field, infinities and NaN one past the largest.
template <class Real>
int refOrder(const std::vector<Real> &v) {
  using L = std::numeric_limits<Real>;
  Real m = 0;
  for (Real x : v) m = std::max(m, std::isnan(x) ? L::infinity() : std::fabs(x));
  int e;
  std::frexp(m, &e);
  return std::isinf(m) ? L::max_exponent + 1 : m < L::min() ? L::min_exponent - 1 : e;
}

// The least e >= 0 with every magnitude below 2^e.
template <class Int>
int refIntOrder(const std::vector<Int> &v) {
  int e = 0;
  for (Int x : v) while (std::llabs(x) >= (1LL << e)) ++e;
  return e;
}

// The down-conversions with their automatic-scale limits (not uniform across
// the family, on purpose). Sources are doubles, float-exact for float forms.
enum Form { SWB, DWB, SIB, DIB, SW, DW, SI, DI };
const struct { const char *name; bool isDouble, is32, scalar; int upper, lower; } kForms[] = {
    {"XKswbConvertDown", false, false, false, 128, -125}, {"XKdwbConvertDown", true, false, false, 128, -125},
    {"XKsibConvertDown", false, true, false, 1024, -1021}, {"XKdibConvertDown", true, true, false, 1024, -1021},
    {"XKswConvertDown", false, false, true, 128, -125},    {"XKdwConvertDown", true, false, true, 1024, -1021},
    {"XKsiConvertDown", false, true, true, 128, -125},     {"XKdiConvertDown", true, true, true, 128, -125}};

// Scalar forms convert each element from the same scale, keeping the last. The
// block forms return their final scale (a choice where undefined); scalar: copy.
struct Result { std::vector<long long> dst; int scale, ret; bool operator==(const Result &) const = default; };

Result convert(Form f, const std::vector<double> &d, int mode, int scaleIn) {
  const int n = static_cast<int>(d.size());
  const std::vector<float> s(d.begin(), d.end());
  std::vector<short> w(n, 0x5a5a);
  std::vector<int> i(n, 0x5a5a5a5a);
  Result r{std::vector<long long>(n), scaleIn, 0};
  if (!kForms[f].scalar)
    r.ret = f == SWB ? XKswbConvertDown(s.data(), w.data(), n, mode, &r.scale) : f == DWB ? XKdwbConvertDown(d.data(), w.data(), n, mode, &r.scale)
          : f == SIB ? XKsibConvertDown(s.data(), i.data(), n, mode, &r.scale) : XKdibConvertDown(d.data(), i.data(), n, mode, &r.scale);
  for (int k = 0; k < n && kForms[f].scalar; ++k) {
    r.scale = scaleIn;
    i[k] = f == SW ? XKswConvertDown(s[k], mode, &r.scale) : f == DW ? XKdwConvertDown(d[k], mode, &r.scale)
         : f == SI ? XKsiConvertDown(s[k], mode, &r.scale) : XKdiConvertDown(d[k], mode, &r.scale);
    r.ret = r.scale;
  }
  for (int k = 0; k < n; ++k) r.dst[k] = kForms[f].is32 || kForms[f].scalar ? i[k] : w[k];
  return r;
}

Result reference(Form f, const std::vector<double> &d, int mode, int scaleIn) {
  const auto &info = kForms[f];
  const int shift = info.is32 ? 31 : 15;
  auto order = [&](const std::vector<double> &v) { return info.isDouble ? refOrder(v) : refOrder(std::vector<float>(v.begin(), v.end())); };
  const int blockOrder = order(d);
  Result r{std::vector<long long>(d.size()), mode == XK_FIXED_SCALE ? scaleIn : 0, 0};
  const Sat sat = mode >= 0 && mode <= 2 ? kNoSat : info.scalar ? kScalarSat : kBlockSat;
  for (size_t k = 0; k < d.size(); ++k) {
    const int e = info.scalar ? order({d[k]}) : blockOrder;
    const bool inside = e >= info.lower && e <= info.upper;
    const long double m = mode == XK_FIXED_SCALE ? refPow2(-static_cast<long long>(scaleIn))
                          : mode == XK_AUTO_SCALE ? refPow2(shift - e) : 1;
    r.dst[k] = mode == XK_AUTO_SCALE && !inside ? 0 : refStore(d[k] * m, info.is32, sat);
    if (mode == XK_AUTO_SCALE) r.scale = inside ? e - shift : e > info.upper ? INT_MAX : 0;
  }
  r.ret = r.scale;
  return r;
}

// Hand-written cases: each row runs on every form of its mask, under every
// instruction set, and the reference must agree with it too.
constexpr unsigned kW16 = 1 << SWB | 1 << DWB, kI32 = 1 << SIB | 1 << DIB, kAll = 255;
struct Case { unsigned forms; std::vector<double> src; int mode, scaleIn; std::vector<long long> dst; int scale; };

class Convert : public xkltest::ReportingTest {};

// Truncation, the sign-bit pattern and saturation around +-2^15 and +-2^31;
// then the automatic scale at and just beyond each form's limits. Beyond
// XKPower2's range the multiplier is infinity, which the conversion keeps.
TEST_F(Convert, HandWrittenEdges) {
  const std::vector<Case> cases = {
      {kW16 | 1 << SW | 1 << DW, {40000}, 0, 9, {kMin16}, 0},
      {kW16, {32767.998046875, 32768, -32767.5, -32768, -32768.5, -32769, 4294967296.0, -0.0, kInf, -kInf, kNan, kFltDenorm}, 0, 0, {32767, kMin16, -32767, kMin16, kMin16, kMin16, kMin16, 0, kMin16, kMin16, kMin16, 0}, 0},
      {kW16, {32767.998046875, 32768, -32767.998046875, -32768, -32768.5, p31, -4294967296.0, kInf, -kInf, kNan, -kNan, 1.9f}, 3, 5, {32767, 32767, -32767, kMin16, kMin16, kMax16, kMin16, kMax16, kMin16, kMax16, kMin16, 1}, 0},
      {kW16, {65535, 65536, -65537, -65538, 3}, 1, 1, {32767, kMin16, kMin16, kMin16, 1}, 1},
      {kI32, {f31, p31, -p31, fm31, 1.9f, -1.9f, kNan, kInf, -kInf, kFltDenorm}, 0, 4, {2147483520, kMin32, kMin32, kMin32, 1, -1, kMin32, kMin32, kMin32, 0}, 0},
      {kI32, {f31, p31, -p31, fm31, kNan, -kNan, kInf, -kInf, 1e20f, -1.9f}, -1, 0, {2147483520, kMax32, kMin32, kMin32, kMax32, kMin32, kMax32, kMin32, kMax32, -1}, 0},
      {kI32, {4294967040.0, 4294967296.0, -4294967296.0, 3}, 1, 1, {2147483520, kMin32, kMin32, 1}, 1},
      {1 << SW | 1 << DW, {kNan}, 3, 1, {kMin16}, 0},  // the scalar forms let NaN store plainly
      {1 << SI | 1 << DI, {kNan}, 3, 1, {kMin32}, 0},
      {1 << SW | 1 << DW, {-32768.5}, 3, 1, {kMin16}, 0},
      {1 << SI | 1 << DI, {p31}, 9, 1, {kMax32}, 0},
      {kW16, {1000, -3}, 2, 0, {32000, -96}, -5},
      {kI32, {1000, -3}, 2, 0, {2097152000, -6291456}, -21},
      {1 << SW, {1000}, 2, 0, {32000}, -5},
      {kW16, {0, -0.0, 0}, 2, 77, {0, 0, 0}, 0},
      {1 << SIB, {0, kFltDenorm}, 2, 5, {0, 256}, -157},  // denormals have order -126
      {kW16, {32767.5, 0.5}, 2, 0, {32767, 0}, 0},
      {kW16, {-32768, 1}, 2, 0, {-16384, 0}, 1},
      {kI32, {-p31, 1}, 2, 0, {-1073741824, 0}, 1},
      {1 << SWB | 1 << DWB | 1 << SW, {kFltMax}, 2, 0, {32767}, 113},
      {1 << SIB | 1 << SI | 1 << DI, {kFltMax}, 2, 0, {2147483520}, 97},
      {1 << DWB | 1 << DI, {std::ldexp(1.0, 128)}, 2, 0, {0}, INT_MAX},
      {kAll & ~(1u << SIB), {-kInf}, 2, 4, {0}, INT_MAX},
      {kAll & ~(1u << SIB), {kNan}, 2, 4, {0}, INT_MAX},
      {1 << SIB, {kInf, kNan, 1}, 2, 0, {kMin32, kMin32, 0}, 98},  // order 129 is in range
      {kW16 | 1 << SW, {kFltMin}, 2, 0, {16384}, -140},
      {1 << SI | 1 << DI, {kFltMin}, 2, 0, {1 << 30}, -156},
      {kW16 | 1 << SW | 1 << SI | 1 << DI, {std::ldexp(1.0, -127)}, 2, 9, {0}, 0},
      {1 << DW, {DBL_MAX}, 2, 0, {32767}, 1009},
      {1 << DIB, {DBL_MAX}, 2, 0, {kMax32}, 993},
      {1 << DW, {DBL_MIN}, 2, 0, {kMin16}, -1036},
      {1 << DIB, {DBL_MIN, 0}, 2, 0, {kMin32, kMin32}, -1052},
      {1 << DW | 1 << DIB, {kDenorm}, 2, 5, {0}, 0},
  };
  forEachIsa([&] {
    for (size_t row = 0; row < cases.size(); ++row)
      for (int f = SWB; f <= DI; ++f) {
        const Case &c = cases[row];
        const Result want{c.dst, c.scale, c.scale};
        if (!(c.forms >> f & 1)) continue;
        EXPECT_EQ(convert(Form(f), c.src, c.mode, c.scaleIn), want) << kForms[f].name << " row " << row;
        EXPECT_EQ(reference(Form(f), c.src, c.mode, c.scaleIn), want) << "reference, row " << row;
      }
  });
}

// A null scale factor is a local 0; empty or null blocks convert nothing; the
// double forms report an empty vector through the checking order.
TEST_F(Convert, NullScaleAndEmptyBlocks) {
  float src[2] = {1000, -3.7f};
  short dst[2] = {0, 0};
  int scale = 4;
  EXPECT_EQ(XKswbConvertDown(src, dst, 2, XK_AUTO_SCALE, nullptr), -5);
  EXPECT_EQ(XKswbConvertDown(src, dst, 2, 7, nullptr), 0);
  EXPECT_EQ(XKdiConvertDown(5.9, XK_FIXED_SCALE, nullptr), 5);
  XKswbConvertDown(src, dst, 2, XK_FIXED_SCALE, nullptr);
  XKswbConvertDown(nullptr, nullptr, 5, XK_FIXED_SCALE, &scale);
  EXPECT_EQ(XKswbConvertDown(src, dst, -2, XK_AUTO_SCALE, &scale), 0);  // empty: like zeros
  EXPECT_EQ(scale, 0);
  XKwsbConvertUp(nullptr, nullptr, 10, 3);
  EXPECT_TRUE(reports().empty());
  const double one = 1;
  XKdwbConvertDown(&one, dst, 0, XK_AUTO_SCALE, &scale);
  ASSERT_EQ(reports().size(), 1u);
  EXPECT_EQ(reports()[0].func + " " + reports()[0].context, "XKdMaxOrder n<=0");
  EXPECT_EQ(std::make_pair(int(dst[0]), int(dst[1])), std::make_pair(1000, -3));  // untouched
}

// Scales around the float, double and XKPower2 ranges.
const int kScales[] = {0, 1, -1, 5, -5, 15, -15, 31, -31, 100, -100, 126, -126, 127, -127, 128, -128, 140, -140, 149, 150, -160, -200, 1000, 1023, -1023, 1024, -1024, 1074, 1075, 1100, -1100, INT_MIN, INT_MAX};

// Specials, values near the 16- and 32-bit ranges, random bit patterns.
std::vector<double> mixedData(bool isDouble, std::mt19937_64 &gen, int n) {
  const double sp[] = {0, -0.0, kDenorm, kFltDenorm, -1e-40, DBL_MIN, kFltMin, 0.5, -1.9, 32767.9999, 32768, -32768, -32768.5, -32768.9999, 65536, f31, 2147483647.9, p31, -p31, -2147483648.9, fm31, 1e10, 1e300, kFltMax, DBL_MAX, kInf, -kInf, kNan, -kNan};
  std::uniform_real_distribution<double> near16(-70000, 70000), near32(-5e9, 5e9);
  std::vector<double> v(n);
  for (auto &x : v) {
    const uint64_t bits = gen(), kind = gen() % 4;
    x = isDouble ? std::bit_cast<double>(bits) : std::bit_cast<float>(static_cast<uint32_t>(bits));
    if (kind < 3) x = kind == 0 ? sp[gen() % std::size(sp)] : kind == 1 ? near16(gen) : near32(gen);
    if (!isDouble) x = static_cast<float>(x);
  }
  return v;
}

// Random data against the reference under every instruction set, so the SIMD
// paths equal the portable one exactly; lengths on both sides of the unrolled
// kernels.
TEST_F(Convert, RandomDataMatchesReferenceAndPortable) {
  std::mt19937_64 gen(7);
  std::uniform_real_distribution<double> mant(-1.0, 1.0);
  auto check = [&](Form f, const std::vector<double> &v, int mode, int s) {
    const Result want = reference(f, v, mode, s);
    forEachIsa([&] { ASSERT_EQ(convert(f, v, mode, s), want) << "n=" << v.size() << " mode=" << mode << " s=" << s; });
  };
  for (int f = SWB; f <= DI; ++f) {
    SCOPED_TRACE(kForms[f].name);
    const bool isDouble = kForms[f].isDouble;
    for (int n : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 64, 4096, 4099}) {
      if (kForms[f].scalar && n > 64) continue;  // one value at a time anyway
      const auto mixed = mixedData(isDouble, gen, n);
      for (int mode : {0, 2, 3, -5, 100}) check(Form(f), mixed, mode, 0);
      for (int s : kScales) check(Form(f), mixed, XK_FIXED_SCALE, s);
      // Finite data whose largest magnitude has about the given order.
      for (int order = isDouble ? -1070 : -150; order <= (isDouble ? 1024 : 128); order += n > 100 ? 37 : 7) {
        std::vector<double> v(n);
        for (auto &x : v) x = std::ldexp(mant(gen), order - int(gen() % 31));
        if (!isDouble) for (auto &x : v) x = static_cast<float>(x);
        check(Form(f), v, XK_AUTO_SCALE, 0);
      }
      if (HasFatalFailure()) return;
    }
  }
  EXPECT_TRUE(reports().empty());
}

// Up-conversions (scalar forms beside block ones) against src * 2^-u in long double.
template <class Src, class Dst>
void checkUp(void (*fn)(const Src *, Dst *, int, int), double (*scalar)(Src, int), std::mt19937_64 &gen) {
  for (int n : {1, 3, 4, 5, 8, 9, 17, 33, 4099}) {
    std::vector<Src> src(n);
    for (auto &x : src) x = static_cast<Src>(gen());
    src[0] = std::numeric_limits<Src>::min();
    if (n > 2) src[1] = 0, src[2] = std::numeric_limits<Src>::max();
    for (int u : kScales) {
      std::vector<Dst> dst(n);
      fn(src.data(), dst.data(), n, u);
      for (int i = 0; i < n; ++i) {
        const Dst want = static_cast<Dst>(src[i] * refPow2(-static_cast<long long>(u)));
        auto same = [&](Dst x) { return x == want || (std::isnan(x) && std::isnan(want)); };
        ASSERT_TRUE(same(dst[i]) && (!scalar || same(Dst(scalar(src[i], u))))) << "u=" << u << " src=" << src[i];
      }
    }
  }
}

TEST_F(Convert, UpConversions) {
  forEachIsa([] {
    std::mt19937_64 gen(21);
    checkUp<short, float>(XKwsbConvertUp, nullptr, gen);
    checkUp<short, double>(XKwdbConvertUp, XKwdConvertUp, gen);
    checkUp<int, float>(XKisbConvertUp, nullptr, gen);
    checkUp<int, double>(XKidbConvertUp, XKidConvertUp, gen);
  });
}

// Orders of vectors, matrices and the checked double and int forms: tables,
// then random lengths across the unrolled kernels' thresholds with the largest
// element anywhere (specials too); last the checked forms' argument errors.
TEST_F(Convert, Orders) {
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  const std::pair<std::vector<float>, int> fTable[] = {
      {{0.0f, -0.0f}, -126}, {{1e-45f, -1e-40f}, -126}, {{FLT_MIN}, -125}, {{-FLT_MIN, 1e-40f}, -125},
      {{0.5f}, 0}, {{1.0f}, 1}, {{-1.999f, 0.25f}, 1}, {{1000.0f, -3.0f}, 10}, {{-1024.0f}, 11},
      {{32767.0f}, 15}, {{32768.0f}, 16}, {{FLT_MAX}, 128}, {{1.0f, inf}, 129}, {{-inf}, 129}, {{nan, 1.0f}, 129}};
  const std::pair<std::vector<short>, int> wTable[] = {
      {{0, 0}, 0}, {{-32768}, 16}, {{1}, 1}, {{-1}, 1}, {{2, -1}, 2}, {{3, 4}, 3}, {{32767}, 15}, {{-16384, 100}, 15}};
  const std::pair<std::vector<double>, int> dTable[] = {
      {{0.0, -0.0}, -1022}, {{kDenorm}, -1022}, {{DBL_MIN}, -1021}, {{0.75}, 0}, {{1.0}, 1}, {{-1000.0, 3.0}, 10},
      {{DBL_MAX}, 1024}, {{1.0, kInf}, 1025}, {{kNan}, 1025}, {{-1.0, kNan, 2.0}, 1025}};
  // An all-zero int vector counts as one bit, unlike the 16-bit order.
  const std::pair<std::vector<int>, int> iTable[] = {
      {{0, 0, 0}, 1}, {{1}, 1}, {{-1}, 1}, {{2}, 2}, {{3, -4}, 3}, {{INT_MAX}, 31}, {{INT_MIN}, 32}, {{65535, -65536}, 17}};
  forEachIsa([&] {
    for (const auto &[v, order] : fTable) EXPECT_EQ(XKsMaxOrder(v.data(), int(v.size())), order) << v[0];
    for (const auto &[v, order] : wTable) EXPECT_EQ(XKwMaxOrder(v.data(), int(v.size())), order) << v[0];
    for (const auto &[v, order] : dTable) EXPECT_EQ(xk::dMaxOrder(v.data(), int(v.size())), order) << v[0];
    for (const auto &[v, order] : iTable) EXPECT_EQ(xk::iMaxOrder(v.data(), int(v.size())), order) << v[0];
    // Empty or null vectors count as zeros.
    EXPECT_EQ(std::make_pair(XKsMaxOrder(fTable[3].first.data(), 0), XKsMaxOrder(nullptr, 4)), std::make_pair(-126, -126));
    EXPECT_EQ(std::make_pair(XKwMaxOrder(wTable[1].first.data(), 0), XKwMaxOrder(nullptr, 3)), std::make_pair(0, 0));
    std::mt19937 gen(11);
    for (int n = 1; n <= 45; ++n)
      for (int trial = 0; trial < 20; ++trial) {
        std::vector<float> v(n);
        std::vector<short> w(n);
        for (auto &x : v) x = std::ldexp(float(gen() % 2001) / 1000 - 1, int(gen() % 278) - 150);
        if (trial % 5 == 4) v[gen() % n] = std::array{inf, -inf, nan, -nan}[gen() % 4];
        const int range = 1 << (gen() % 17);
        for (auto &x : w) x = short(std::clamp(int(gen() % (2 * range)) - range, -32768, 32767));
        const unsigned wide = 1u << (gen() % 31);
        std::vector<int> iv(n);
        for (auto &x : iv) x = int(static_cast<long long>(gen() % (2 * wide + 1)) - wide);
        if (trial % 7 == 6) iv[gen() % n] = INT_MIN;
        const std::vector<double> dv(v.begin(), v.end());
        ASSERT_EQ(XKsMaxOrder(v.data(), n), refOrder(v)) << "n=" << n;
        ASSERT_EQ(XKwMaxOrder(w.data(), n), refIntOrder(w)) << "n=" << n;
        ASSERT_EQ(xk::dMaxOrder(dv.data(), n), refOrder(dv)) << "n=" << n;
        ASSERT_EQ(xk::iMaxOrder(iv.data(), n), std::max(1, refIntOrder(iv))) << "n=" << n;
        // The same data as a matrix, rows stored in reverse so that a kernel
        // assuming contiguous rows fails.
        const int rows = 1 + int(gen() % std::min(n, 4)), cols = n / rows;
        std::vector<float *> fr;
        std::vector<short *> wr;
        for (int r = rows - 1; r >= 0; --r) fr.push_back(&v[r * cols]), wr.push_back(&w[r * cols]);
        v.resize(rows * cols), w.resize(rows * cols);
        ASSERT_EQ(XKsMaxMatrixOrder(fr.data(), rows, cols), refOrder(v)) << rows << "x" << cols;
        ASSERT_EQ(XKwMaxMatrixOrder(wr.data(), rows, cols), refIntOrder(w)) << rows << "x" << cols;
      }
  });
  float zeros[4] = {}, *rowsF[1] = {zeros};
  short rowW[2] = {100, 1}, *rowsW[1] = {rowW};
  EXPECT_EQ(XKsMaxMatrixOrder(rowsF, 1, 4), -126);
  for (auto [r, c] : {std::pair{0, 2}, {1, 0}, {-1, 2}})
    EXPECT_EQ(std::make_pair(XKsMaxMatrixOrder(rowsF, r, c), XKwMaxMatrixOrder(rowsW, r, c)), std::make_pair(0, 0));
  EXPECT_EQ(std::make_pair(XKsMaxMatrixOrder(nullptr, 1, 2), XKwMaxMatrixOrder(nullptr, 1, 2)), std::make_pair(0, 0));
  EXPECT_TRUE(reports().empty());
  // Argument errors, each reported; the failure then sticks until cleared.
  const double dv[2] = {1.0, 2.0};
  const int iv[2] = {1, 2};
  auto call = [&](bool isInt, bool null, int n) { return isInt ? xk::iMaxOrder(null ? nullptr : iv, n) : xk::dMaxOrder(null ? nullptr : dv, n); };
  const std::tuple<bool, int, std::vector<std::string>> cases[] = {
      {false, 0, {"n<=0"}}, {false, -7, {"n<=0"}}, {true, 2, {"inVect==0"}}, {true, 0, {"n<=0", "inVect==0"}}};
  for (bool isInt : {false, true}) {
    const std::string func = isInt ? "XKiMaxOrder" : "XKdMaxOrder";
    for (const auto &[null, n, messages] : cases) {
      XKSetStatus(XK_StsOk), reports().clear();
      EXPECT_EQ(call(isInt, null, n), 0) << func;
      ASSERT_EQ(reports().size(), messages.size()) << func;
      for (size_t i = 0; i < messages.size(); ++i)
        EXPECT_EQ(std::tie(reports()[i].status, reports()[i].func, reports()[i].context, reports()[i].file, reports()[i].line),
                  std::make_tuple(XK_StsBadArg, func, messages[i], std::string("XK_CNVRT"), isInt ? 1355 : 1250));
      EXPECT_EQ(XKGetStatus(), XK_StsBadArg);
    }
    EXPECT_EQ(call(isInt, false, 2), 0) << func;
    XKSetStatus(XK_StsOk);
    EXPECT_EQ(call(isInt, false, 2), 2) << func;
  }
}

TEST(Power2, EdgesAndExactOverTheRange) {
  // Outside the range: -1075 is half the smallest denormal, rounds to even, 0.
  for (int n : {INT_MIN, -100000, -1088, -1087, -1076, -1075}) EXPECT_EQ(XKPower2(n), 0.0) << n;
  for (int n : {1024, 1025, INT_MAX}) EXPECT_EQ(XKPower2(n), kInf) << n;
  for (int n = -1074; n <= 1023; ++n) ASSERT_EQ(XKPower2(n), std::ldexp(1.0, n)) << n;
}

}  // namespace
