// Orders of vectors and matrices, the checking double/int orders, XKPower2.
// References: frexp, ldexp and the definition of the order written as a
// search (the least e with every magnitude below 2^e).
#include <cfloat>
#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "frame/convert.h"
#include "xkl_test_support.h"

namespace {

using xkltest::reports;

constexpr float kInfF = std::numeric_limits<float>::infinity();
constexpr float kNanF = std::numeric_limits<float>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Order of a float vector from frexp: M in [2^(k-1), 2^k) has order k; zero
// and denormals count as the smallest exponent field, infinities and NaN as
// the largest.
int refFloatOrder(const std::vector<float> &v) {
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

int refDoubleOrder(const std::vector<double> &v) {
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

// The least e >= 0 such that every magnitude is below 2^e.
template <class Int>
int refIntegerOrder(const std::vector<Int> &v) {
  int e = 0;
  for (Int x : v) {
    long long a = std::llabs(static_cast<long long>(x));
    while (a >= (1LL << e)) ++e;
  }
  return e;
}

// Runs `body` once per instruction set the orders can use.
template <class Body>
void forEachIsa(Body body) {
  for (xk::ConvertIsa isa :
       {xk::ConvertIsa::Portable, xk::ConvertIsa::Sse2, xk::ConvertIsa::Avx2}) {
    if (static_cast<int>(isa) > static_cast<int>(xk::convertIsaAvailable())) continue;
    xk::ConvertIsa prev = xk::setConvertIsa(isa);
    SCOPED_TRACE(static_cast<int>(isa));
    body();
    xk::setConvertIsa(prev);
  }
}

TEST(FloatOrder, Table) {
  const struct {
    std::vector<float> v;
    int order;
  } table[] = {
      {{0.0f, -0.0f}, -126}, {{std::numeric_limits<float>::denorm_min(), -1e-40f}, -126},
      {{FLT_MIN}, -125},     {{-FLT_MIN, 1e-40f}, -125},
      {{0.5f}, 0},           {{1.0f}, 1},
      {{-1.999f, 0.25f}, 1}, {{1000.0f, -3.0f}, 10},
      {{-1024.0f}, 11},      {{32767.0f}, 15},
      {{32768.0f}, 16},      {{FLT_MAX}, 128},
      {{1.0f, kInfF}, 129},  {{-kInfF}, 129},
      {{kNanF, 1.0f}, 129},
  };
  forEachIsa([&] {
    for (const auto &row : table) {
      EXPECT_EQ(XKsMaxOrder(row.v.data(), static_cast<int>(row.v.size())), row.order)
          << "first " << row.v[0];
      EXPECT_EQ(refFloatOrder(row.v), row.order);  // the reference agrees with the table
    }
  });
}

TEST(FloatOrder, EmptyOrNullIsLikeZero) {
  float x = 5.0f;
  EXPECT_EQ(XKsMaxOrder(&x, 0), -126);
  EXPECT_EQ(XKsMaxOrder(&x, -3), -126);
  EXPECT_EQ(XKsMaxOrder(nullptr, 4), -126);
}

// Lengths on both sides of the unrolled kernels' thresholds, largest element
// at every position.
TEST(FloatOrder, RandomAgainstFrexp) {
  forEachIsa([] {
    std::mt19937 gen(11);
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> exps(-150, 127);
    for (int n = 1; n <= 40; ++n) {
      for (int trial = 0; trial < 20; ++trial) {
        std::vector<float> v(n);
        for (auto &x : v) x = std::ldexp(mant(gen), exps(gen));
        // Now and then an infinity or NaN of either sign, anywhere.
        const float specials[] = {kInfF, -kInfF, kNanF, -kNanF};
        if (trial % 5 == 4) v[gen() % n] = specials[gen() % 4];
        ASSERT_EQ(XKsMaxOrder(v.data(), n), refFloatOrder(v)) << "n=" << n;
      }
    }
  });
}

TEST(ShortOrder, Table) {
  const struct {
    std::vector<short> v;
    int order;
  } table[] = {
      {{0, 0}, 0},
      {{-32768}, 16},
      {{1}, 1},
      {{-1}, 1},
      {{2, -1}, 2},
      {{3, 4}, 3},
      {{32767}, 15},
      {{-16384, 100}, 15},
      {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, -5}, 3},
  };
  forEachIsa([&] {
    for (const auto &row : table) {
      EXPECT_EQ(XKwMaxOrder(row.v.data(), static_cast<int>(row.v.size())), row.order);
      EXPECT_EQ(refIntegerOrder(row.v), row.order);
    }
  });
  short x = 7;
  EXPECT_EQ(XKwMaxOrder(&x, 0), 0);
  EXPECT_EQ(XKwMaxOrder(nullptr, 3), 0);
}

TEST(ShortOrder, RandomAgainstDefinition) {
  forEachIsa([] {
    std::mt19937 gen(12);
    for (int n = 1; n <= 45; ++n) {
      for (int trial = 0; trial < 20; ++trial) {
        std::uniform_int_distribution<int> bits(0, 16);
        int range = 1 << bits(gen);
        std::uniform_int_distribution<int> val(-range, range - 1);
        std::vector<short> v(n);
        for (auto &x : v) x = static_cast<short>(std::clamp(val(gen), -32768, 32767));
        ASSERT_EQ(XKwMaxOrder(v.data(), n), refIntegerOrder(v)) << "n=" << n;
      }
    }
  });
}

TEST(MatrixOrder, WholeMatrixAndDegenerateShapes) {
  std::mt19937 gen(13);
  std::uniform_real_distribution<float> val(-1.0f, 1.0f);
  for (int rows : {1, 2, 3, 7}) {
    for (int cols : {1, 3, 4, 8, 9, 33}) {
      std::vector<std::vector<float>> fm(rows, std::vector<float>(cols));
      std::vector<std::vector<short>> wm(rows, std::vector<short>(cols));
      std::vector<float> flatF;
      std::vector<short> flatW;
      for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
          fm[r][c] = std::ldexp(val(gen), (r * 7 + c * 3) % 40 - 20);
          wm[r][c] = static_cast<short>(val(gen) * ((r * 5 + c) % 15 + 1) * 2000);
          flatF.push_back(fm[r][c]);
          flatW.push_back(wm[r][c]);
        }
      std::vector<float *> fp;
      std::vector<short *> wp;
      for (int r = 0; r < rows; ++r) {
        fp.push_back(fm[r].data());
        wp.push_back(wm[r].data());
      }
      EXPECT_EQ(XKsMaxMatrixOrder(fp.data(), rows, cols), refFloatOrder(flatF));
      EXPECT_EQ(XKwMaxMatrixOrder(wp.data(), rows, cols), refIntegerOrder(flatW));
    }
  }
  float row[2] = {100.0f, 1.0f};
  float *rowsF[1] = {row};
  short rowW[2] = {100, 1};
  short *rowsW[1] = {rowW};
  EXPECT_EQ(XKsMaxMatrixOrder(rowsF, 0, 2), 0);
  EXPECT_EQ(XKsMaxMatrixOrder(rowsF, 1, 0), 0);
  EXPECT_EQ(XKsMaxMatrixOrder(nullptr, 1, 2), 0);
  EXPECT_EQ(XKwMaxMatrixOrder(rowsW, -1, 2), 0);
  EXPECT_EQ(XKwMaxMatrixOrder(rowsW, 1, 0), 0);
  EXPECT_EQ(XKwMaxMatrixOrder(nullptr, 1, 2), 0);
  float zeros[4] = {};
  float *rowsZ[1] = {zeros};
  EXPECT_EQ(XKsMaxMatrixOrder(rowsZ, 1, 4), -126);
}

// The checking orders run with a recording handler in parent mode.
class CheckedOrderTest : public xkltest::ReportingTest {};

TEST_F(CheckedOrderTest, DoubleOrderValues) {
  const struct {
    std::vector<double> v;
    int order;
  } table[] = {
      {{0.0, -0.0}, -1022}, {{std::numeric_limits<double>::denorm_min()}, -1022},
      {{DBL_MIN}, -1021},   {{0.75}, 0},
      {{1.0}, 1},           {{-1000.0, 3.0}, 10},
      {{DBL_MAX}, 1024},    {{1.0, kInf}, 1025},
      {{kNan}, 1025},       {{-1.0, kNan, 2.0}, 1025},
  };
  forEachIsa([&] {
    for (const auto &row : table) {
      EXPECT_EQ(xk::dMaxOrder(row.v.data(), static_cast<int>(row.v.size())), row.order);
      EXPECT_EQ(refDoubleOrder(row.v), row.order);
    }
    std::mt19937 gen(14);
    std::uniform_real_distribution<double> mant(-1.0, 1.0);
    std::uniform_int_distribution<int> exps(-1074, 1023);
    for (int n = 1; n <= 30; ++n) {
      std::vector<double> v(n);
      for (auto &x : v) x = std::ldexp(mant(gen), exps(gen));
      ASSERT_EQ(xk::dMaxOrder(v.data(), n), refDoubleOrder(v));
    }
  });
  EXPECT_TRUE(reports().empty());
}

TEST_F(CheckedOrderTest, IntOrderValues) {
  const struct {
    std::vector<int> v;
    int order;
  } table[] = {
      {{0, 0, 0}, 1},  // all zero counts as one bit, unlike the 16-bit order
      {{1}, 1},
      {{-1}, 1},
      {{2}, 2},
      {{3, -4}, 3},
      {{INT_MAX}, 31},
      {{INT_MIN}, 32},
      {{65535, -65536}, 17},
  };
  forEachIsa([&] {
    for (const auto &row : table)
      EXPECT_EQ(xk::iMaxOrder(row.v.data(), static_cast<int>(row.v.size())), row.order);
    std::mt19937 gen(15);
    for (int n = 1; n <= 30; ++n) {
      std::uniform_int_distribution<int> bits(1, 31);
      int range = 1 << (bits(gen) - 1);
      std::uniform_int_distribution<int> val(-range, range);
      std::vector<int> v(n);
      for (auto &x : v) x = val(gen);
      if (n % 7 == 0) v[n / 2] = INT_MIN;
      int expected = refIntegerOrder(v);
      ASSERT_EQ(xk::iMaxOrder(v.data(), n), expected == 0 ? 1 : expected);
    }
  });
  EXPECT_TRUE(reports().empty());
}

TEST_F(CheckedOrderTest, ArgumentChecksReportEachFailure) {
  const struct {
    const char *func;
    int line;
    int (*call)(bool null, int n);
  } orders[] = {
      {"XKdMaxOrder", 1250,
       [](bool null, int n) {
         double v[2] = {1.0, 2.0};
         return xk::dMaxOrder(null ? nullptr : v, n);
       }},
      {"XKiMaxOrder", 1355,
       [](bool null, int n) {
         int v[2] = {1, 2};
         return xk::iMaxOrder(null ? nullptr : v, n);
       }},
  };
  for (const auto &o : orders) {
    const struct {
      bool null;
      int n;
      std::vector<const char *> messages;
    } cases[] = {
        {false, 0, {"n<=0"}},
        {false, -7, {"n<=0"}},
        {true, 2, {"inVect==0"}},
        {true, 0, {"n<=0", "inVect==0"}},
    };
    for (const auto &c : cases) {
      XKSetStatus(XK_StsOk);
      reports().clear();
      EXPECT_EQ(o.call(c.null, c.n), 0) << o.func;
      ASSERT_EQ(reports().size(), c.messages.size()) << o.func;
      for (size_t i = 0; i < c.messages.size(); ++i) {
        EXPECT_EQ(reports()[i].status, XK_StsBadArg);
        EXPECT_EQ(reports()[i].func, o.func);
        EXPECT_EQ(reports()[i].context, c.messages[i]);
        EXPECT_EQ(reports()[i].file, "XK_CNVRT");
        EXPECT_EQ(reports()[i].line, o.line);
      }
      EXPECT_EQ(XKGetStatus(), XK_StsBadArg);
    }
    // The failure is sticky: valid arguments still give 0 until it is cleared.
    EXPECT_EQ(o.call(false, 2), 0) << o.func;
    XKSetStatus(XK_StsOk);
    EXPECT_EQ(o.call(false, 2), 2) << o.func;
  }
}

TEST(CheckedOrderSilent, SilentModeOnlyRecordsTheStatus) {
  int previousMode = XKGetErrMode();
  XKSetErrMode(XK_ErrorModeSilent);
  XKSetStatus(XK_StsOk);
  EXPECT_EQ(xk::dMaxOrder(nullptr, 0), 0);
  EXPECT_EQ(XKGetStatus(), XK_StsBadArg);
  XKSetStatus(XK_StsOk);
  XKSetErrMode(previousMode);
}

TEST(Power2, Edges) {
  const struct {
    int n;
    double value;
  } table[] = {
      {INT_MIN, 0.0},
      {-100000, 0.0},
      {-1088, 0.0},
      {-1087, 0.0},
      {-1076, 0.0},
      {-1075, 0.0},  // half the smallest denormal rounds to even: 0
      {-1074, std::numeric_limits<double>::denorm_min()},
      {-1022, DBL_MIN},
      {0, 1.0},
      {1, 2.0},
      {-1, 0.5},
      {1023, std::ldexp(1.0, 1023)},
      {1024, kInf},
      {1025, kInf},
      {INT_MAX, kInf},
  };
  for (const auto &row : table) EXPECT_EQ(XKPower2(row.n), row.value) << row.n;
}

TEST(Power2, ExactOverTheWholeRange) {
  for (int n = -1074; n <= 1023; ++n) ASSERT_EQ(XKPower2(n), std::ldexp(1.0, n)) << n;
}

}  // namespace
