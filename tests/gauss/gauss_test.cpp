// Gauss mixture servers against independent references: the mixture
// density written out in long double (with its own determinant by elimination),
// exp() for the fixed-point exponential, the pooled statistics of all
// vectors at once, and file images laid out by hand.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "gauss/gauss_eval.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

class FreeGaussTables : public ::testing::Environment {
 public:
  void TearDown() override { XKFreeGaussTbls(); }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new FreeGaussTables);

using Server = std::unique_ptr<GaussMixServer, void (*)(GaussMixServer *)>;
Server own(GaussMixServer *g) { return Server(g, XKsFreeGaussMixServer); }

// Caller-side arrays of a mixture: weights, means, and per component either
// a dim x dim matrix or a diagonal, with the row-pointer tables Init takes
// (the arrays keep their size, so the tables are made once).
template <class T>
struct Mixture {
  int dim, nMix;
  bool full;
  std::vector<T> w;
  std::vector<std::vector<T>> mu, diag;
  std::vector<std::vector<std::vector<T>>> mat;
  std::vector<T *> muP, diagP;
  std::vector<std::vector<T *>> rowP;
  std::vector<T **> matP;
  Mixture(int d, int k, bool f)
      : dim(d), nMix(k), full(f), w(k), mu(k, std::vector<T>(d)), diag(f ? 0 : k, std::vector<T>(d)),
        mat(f ? k : 0, std::vector<std::vector<T>>(d, std::vector<T>(d))) {
    for (auto &m : mu) muP.push_back(m.data());
    for (auto &v : diag) diagP.push_back(v.data());
    for (auto &m : mat) {
      rowP.emplace_back();
      for (auto &r : m) rowP.back().push_back(r.data());
    }
    for (auto &r : rowP) matP.push_back(r.data());
  }
  T &at(int k, int i, int j) { return full ? mat[k][i][j] : diag[k][i]; }  // diagonal: i == j only
  T ***cov() { return full ? matP.data() : nullptr; }
  T **covD() { return full ? nullptr : diagP.data(); }
};

// Symmetric positive definite matrix A = B B^T / d + I.
std::vector<std::vector<double>> spd(int d, std::mt19937 &rng) {
  std::normal_distribution<double> n(0.0, 1.0);
  std::vector<std::vector<double>> b(d, std::vector<double>(d)), a(d, std::vector<double>(d));
  for (auto &r : b)
    for (auto &v : r) v = n(rng);
  for (int i = 0; i < d; ++i)
    for (int j = 0; j < d; ++j)
      for (int k = 0; k <= d; ++k) a[i][j] += k < d ? b[i][k] * b[j][k] / d : i == j;
  return a;
}

// Determinant by Gaussian elimination with partial pivoting, in long double.
template <class T>
long double detRef(const std::vector<std::vector<T>> &m) {
  const int n = static_cast<int>(m.size());
  std::vector<std::vector<long double>> a(n);
  for (int i = 0; i < n; ++i) a[i].assign(m[i].begin(), m[i].end());
  long double det = 1.0L;
  for (int k = 0; k < n && det != 0.0L; ++k) {
    int p = k;
    for (int i = k; i < n; ++i)
      if (std::fabs(a[i][k]) > std::fabs(a[p][k])) p = i;
    std::swap(a[k], a[p]);
    det *= p != k ? -a[k][k] : a[k][k];
    for (int i = k + 1; i < n && det != 0.0L; ++i)
      for (int j = n - 1; j >= k; --j) a[i][j] -= a[i][k] / a[k][k] * a[k][j];
  }
  return det;
}

// The mixture density times (2 pi)^(d/2): sum_k w_k sqrt(det L_k) exp(-q_k/2).
long double densityRef(Mixture<float> &m, const std::vector<float> &x) {
  long double sum = 0.0L;
  for (int k = 0; k < m.nMix; ++k) {
    long double q = 0.0L, det = m.full ? detRef(m.mat[k]) : 1.0L;
    for (int i = 0; i < m.dim; ++i) {
      if (!m.full) det *= m.diag[k][i];
      for (int j = 0; j < m.dim; ++j)
        if (m.full || i == j) q += ((long double)x[i] - m.mu[k][i]) * m.at(k, i, j) * ((long double)x[j] - m.mu[k][j]);
    }
    sum += m.w[k] * std::sqrt(det) * std::exp(-q / 2.0L);
  }
  return sum;
}

Mixture<float> randomMixture(int dim, int nMix, bool full, std::mt19937 &rng) {
  Mixture<float> m(dim, nMix, full);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f), pos(0.5f, 2.0f);
  for (int k = 0; k < nMix; ++k) {
    m.w[k] = (k % 5 == 3) ? 0.0f : pos(rng) / nMix;  // some components of weight 0
    for (auto &v : m.mu[k]) v = u(rng);
    if (full) {
      const auto a = spd(dim, rng);
      for (int i = 0; i < dim; ++i)
        for (int j = 0; j < dim; ++j) m.mat[k][i][j] = static_cast<float>(a[i][j] / dim * 8.0);
    } else {
      for (auto &v : m.diag[k]) v = pos(rng) * 8.0f / dim;
    }
  }
  return m;
}

// Element (i, j) of component k's matrix in a server; 0 off a diagonal.
template <class T>
double covAt(const GaussMixServer *g, int k, int i, int j) {
  return g->flags & GAUSS_SERVER_FULL ? static_cast<T *>(g->InverseCov[k][i])[j] : i == j ? static_cast<T *>(g->InverseCovD[k])[i] : 0;
}

using GaussTest = xkltest::ReportingTest;

TEST_F(GaussTest, InitChecksPointersAndMasksFlags) {
  float w[5] = {1, 2, 3, 4, 5}, row[3] = {1, 1, 1};
  float *rows[5] = {row, row, row, row, row};
  float **mats[5] = {rows, rows, rows, rows, rows};
  short ws[5] = {1, 2, 3, 4, 5}, rs[3] = {1, 1, 1};
  short *srows[5] = {rs, rs, rs, rs, rs};
  short **smats[5] = {srows, srows, srows, srows, srows};
  EXPECT_EQ(XKsInitGaussMixServer(w, rows, nullptr, nullptr, 3, 5, 0), nullptr);
  EXPECT_EQ(XKsInitGaussMixServer(w, rows, mats, rows, 3, 5, 0), nullptr);
  EXPECT_EQ(XKwInitGaussMixServer(ws, srows, smats, srows, 3, 5, 0, 0), nullptr);
  const auto &r = xkltest::reports();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0].func + "|" + r[2].func + "|" + r[2].context + "|" + std::to_string(r[2].status),
            "XKsInitGaussMixServer|XKwInitGaussMixServer|One of InverseCov or InverseCovD must be NULL and the other "
            "non NULL|" + std::to_string(XK_StsBadArg));
  XKSetStatus(XK_StsOk);

  auto g = own(XKsInitGaussMixServer(w, rows, mats, nullptr, 3, 5, 0x7fff));
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(std::make_pair(g->flags, g->count), std::make_pair(GAUSS_SERVER_FVR_S | GAUSS_SERVER_NORM | GAUSS_SERVER_FULL, 1));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(g->InverseCov[2][1]) % 16, 0u);
  XKsFreeGaussMixServer(nullptr);
}

// Normalised evaluation equals the density times (2 pi)^(d/2); the
// vectorised and portable paths agree to the bit.
TEST_F(GaussTest, FloatEvaluationMatchesDensity) {
  std::mt19937 rng(7);
  struct Case { int dim, nMix; bool full; } cases[] = {{1, 1, false}, {5, 7, false}, {39, 64, false}, {2, 3, true}, {13, 8, true}, {39, 64, true}};
  for (const auto &c : cases) {
    auto m = randomMixture(c.dim, c.nMix, c.full, rng);
    auto g = own(XKsInitGaussMixServer(m.w.data(), m.muP.data(), m.cov(), m.covD(), c.dim, c.nMix, GAUSS_SERVER_NORM));
    ASSERT_NE(g, nullptr);
    std::normal_distribution<float> n(0.0f, 0.3f);
    for (int t = 0; t < 20; ++t) {
      std::vector<float> x(m.mu[t % c.nMix]);
      for (auto &v : x) v += n(rng);
      const long double ref = densityRef(m, x);
      xk::gauss::setSimdEnabled(false);
      const double portable = XKsEvalGaussMix(g.get(), x.data(), c.dim);
      xk::gauss::setSimdEnabled(true);
      EXPECT_EQ(XKsEvalGaussMix(g.get(), x.data(), c.dim), portable);
      EXPECT_NEAR(portable, (double)ref, 1e-4 * (double)ref + 1e-30) << c.dim << " " << c.nMix << " " << c.full;
    }
  }
}

// The fixed-point exponential against exp over its whole input range: within
// 0.2 % of exp(x) plus 2 units of the result.
TEST(GaussFixExp, WithinStatedErrorOfExp) {
  for (int F : {0, 4, 10, 16, 24})
    for (int R : {14, 30}) {
      const double lo = -21.49, hi = R == 30 ? 0.69 : 11.7;  // below 2^(31-R)
      const std::int64_t a = (std::int64_t)std::floor(lo * std::ldexp(1.0, F)), b = (std::int64_t)(hi * std::ldexp(1.0, F));
      const std::int64_t step = std::max<std::int64_t>(1, (b - a) / 200000);
      for (std::int64_t v = a; v <= b; v += step) {
        const double x = std::ldexp((double)v, -F), want = std::exp(x) * std::ldexp(1.0, R);
        ASSERT_LE(std::fabs(xk::gauss::fixExp((std::int32_t)v, F, R) - want), 2e-3 * want + 2.0) << "x=" << x << " F=" << F << " R=" << R;
      }
    }
  EXPECT_EQ(xk::gauss::fixExp(-22 * 1024, 10, 30), 0);
  EXPECT_EQ(xk::gauss::fixExp(21 * 1024 + 600, 10, 30), 0x7fffffff);
  EXPECT_EQ(xk::gauss::fixExp(1024, 10, 30), 0x7fffffff);  // e does not fit Q30
}

// The 16-bit evaluation against the float one on the same values: the
// weights integers, the matrices v * 2^scale.
TEST_F(GaussTest, FixedEvaluationFollowsFloat) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> off(-12, 12), iv(1, 30), wt(1, 30000);
  for (bool full : {false, true}) {
    const int dim = full ? 6 : 39, nMix = 9, scale = full ? -7 : -9;
    Mixture<short> ws(dim, nMix, full);
    Mixture<float> fs(dim, nMix, full);
    for (int k = 0; k < nMix; ++k) {
      fs.w[k] = ws.w[k] = k == 2 ? 0 : (short)wt(rng);
      for (int i = 0; i < dim; ++i) fs.mu[k][i] = ws.mu[k][i] = (short)off(rng);
      for (int i = 0; i < dim; ++i)
        for (int j = full ? 0 : i; j <= i; ++j) {
          const short v = (short)(!full ? iv(rng) : i == j ? 40 + iv(rng) : iv(rng) / 6);
          ws.at(k, i, j) = ws.at(k, j, i) = v;
          fs.at(k, i, j) = fs.at(k, j, i) = std::ldexp((float)v, scale);
        }
    }
    auto w = own(XKwInitGaussMixServer(ws.w.data(), ws.muP.data(), ws.cov(), ws.covD(), dim, nMix, 0, scale));
    auto s = own(XKsInitGaussMixServer(fs.w.data(), fs.muP.data(), fs.cov(), fs.covD(), dim, nMix, 0));
    for (int t = 0; t < 30; ++t) {
      std::vector<short> x(ws.mu[t % nMix]);
      for (auto &v : x) v = (short)(v + off(rng) / 3);
      const std::vector<float> xf(x.begin(), x.end());
      const double ref = XKsEvalGaussMix(s.get(), xf.data(), dim);
      const double tol = 3e-3 * ref + 4.0 * nMix;
      int factor = 99;
      xk::gauss::setSimdEnabled(false);
      const int portable = XKwEvalGaussMix(w.get(), x.data(), dim, 0, &factor);
      xk::gauss::setSimdEnabled(true);
      EXPECT_EQ(XKwEvalGaussMix(w.get(), x.data(), dim, 0, &factor), portable);
      EXPECT_NEAR(portable, ref, tol);
      EXPECT_EQ(factor, 0);
      const int autoResult = XKwEvalGaussMix(w.get(), x.data(), dim, 2, &factor);
      EXPECT_NEAR(std::ldexp((double)autoResult, factor), ref, tol);
      // The sum's top bit lands on bit 29 (0, or factor -30 and below: underflow).
      EXPECT_TRUE(autoResult == 0 || factor <= -30 || (autoResult >= 1 << 29 && autoResult < 1 << 30)) << autoResult;
      for (int k : {-3, 0, 5}) {
        int fixed = k;
        EXPECT_NEAR(std::ldexp((double)XKwEvalGaussMix(w.get(), x.data(), dim, 1, &fixed), k), ref,
                    tol + std::ldexp(1.0, k));
        EXPECT_EQ(fixed, k);
      }
    }
  }
  // One component: the scale mode comes back, the factor is untouched.
  short one = 100, m[2] = {0, 0}, v[2] = {1, 1};
  short *mp = m, *vp = v;
  auto w = own(XKwInitGaussMixServer(&one, &mp, nullptr, &vp, 2, 1, 0, 0));
  int factor = 17;
  EXPECT_EQ(XKwEvalGaussMix(w.get(), m, 2, 2, &factor), 2);
  EXPECT_EQ(factor, 17);
}

TEST(GaussAccumulator, SmallSumsUnscaledAndSignedSums) {
  const std::int32_t work[3] = {1 << 20, 3, -(1 << 29)};
  const short weights[3] = {5, -7, 1};
  int factor = 0;
  // 5 * 2^20 - 21 - 2^29 is negative and below 2^30 in magnitude.
  EXPECT_EQ(xk::gauss::mixAccumulate(work, weights, 3, 2, &factor), 5 * (1 << 20) - 21 - (1 << 29));
  EXPECT_EQ(factor, -30);
  const std::int32_t big[2] = {0x7fffffff, 0x7fffffff};
  const short top[2] = {32767, 32767};
  const std::int64_t S = 2LL * 0x7fffffff * 32767;
  // S < 2^47: its top bit 46 (bit 14 of the high word) lands on bit 29.
  EXPECT_EQ(xk::gauss::mixAccumulate(big, top, 2, 2, &factor), (std::int32_t)(S >> 17));
  EXPECT_EQ(factor, -13);
}

// Covariance servers: building, pooling (against the statistics of all 15
// vectors in long double), inverting (C times the inverse is the identity,
// the normalisation 1 / sqrt(det C)).
TEST_F(GaussTest, BuildTrainAndInvert) {
  std::mt19937 rng(11);
  std::normal_distribution<float> n(0.0f, 1.0f);
  const int dim = 5;
  std::vector<std::vector<float>> v(15, std::vector<float>(dim));
  std::vector<float *> p;
  std::vector<long double> mean(dim, 0.0L);
  for (auto &r : v) {
    for (int i = 0; i < dim; ++i) r[i] = n(rng) * (dim - i) + (i == 1 ? 0.3f * r[0] : 0.0f) + 3.0f;
    for (int i = 0; i < dim; ++i) mean[i] += r[i] / 15.0L;
    p.push_back(r.data());
  }
  auto cov = [&](int i, int j) {
    long double s = 0.0L;
    for (auto &r : v) s += (r[i] - mean[i]) * (r[j] - mean[j]);
    return (double)(s / 14.0L);
  };
  for (int flags : {0, GAUSS_SERVER_FULL}) {
    auto first = own(XKsBuildGaussMixServer(p.data(), 10, dim, flags));
    auto all = own(XKsTrainGaussMixServer(first.get(), p.data() + 10, 5, dim));
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(std::make_pair(all->count, all->flags),
              std::make_pair(15, (flags ? GAUSS_SERVER_FULL : GAUSS_SERVER_DIAG) | GAUSS_SERVER_COV | GAUSS_SERVER_FVR_S));
    auto inv = own(XKsInvertGaussianCovMatrix(all.get(), GAUSS_SERVER_NORM));
    ASSERT_NE(inv, nullptr);
    std::vector<std::vector<float>> c(dim, std::vector<float>(dim));
    for (int i = 0; i < dim; ++i) {
      EXPECT_NEAR(static_cast<float *>(all->means[0])[i], (double)mean[i], 1e-5);
      for (int j = 0; j < dim; ++j) {
        c[i][j] = (float)covAt<float>(all.get(), 0, i, j);
        if (!flags && i != j) continue;  // the diagonal server's zeros
        EXPECT_NEAR(c[i][j], cov(i, j), 1e-4 * (flags ? 1 + std::fabs(cov(i, j)) : cov(i, j))) << i << " " << j;
      }
    }
    for (int i = 0; i < dim; ++i)
      for (int j = 0; j < dim; ++j) {
        long double e = 0.0L;
        for (int k = 0; k < dim; ++k) e += (long double)c[i][k] * covAt<float>(inv.get(), 0, k, j);
        EXPECT_NEAR((double)e, i == j ? 1.0 : 0.0, 1e-4) << i << " " << j;
      }
    const double det = (double)detRef(c);
    EXPECT_NEAR(inv->coefs[0], 1.0 / std::sqrt(det), 1e-4 / std::sqrt(det));
    // Two identical vectors: zero covariance, no inverse.
    std::vector<float *> same = {p[0], p[0]};
    EXPECT_EQ(XKsInvertGaussianCovMatrix(own(XKsBuildGaussMixServer(same.data(), 2, dim, flags)).get(), 0), nullptr);
  }
  // Diagonal element 1e-31: null without a report.
  float w = 1.0f, mu[2] = {0, 0}, tiny[2] = {1.0f, 1e-31f};
  float *mp = mu, *tp = tiny;
  auto g = own(XKsInitGaussMixServer(&w, &mp, nullptr, &tp, 2, 1, 0));
  EXPECT_EQ(XKsInvertGaussianCovMatrix(g.get(), 0), nullptr);
  EXPECT_TRUE(xkltest::reports().empty());
}

// Determinants through the normalisation of a full server, against the
// long double elimination; singular matrices give 0.
TEST_F(GaussTest, DeterminantOfFullMatrices) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  for (int dim : {1, 2, 3, 7, 12})
    for (int singular : {0, 1}) {
      Mixture<float> m(dim, 1, true);
      m.w[0] = 1.0f;
      for (auto &r : m.mat[0])
        for (auto &v : r) v = u(rng);
      if (singular && dim > 1) m.mat[0][dim - 1] = m.mat[0][0];
      auto g = own(XKsInitGaussMixServer(m.w.data(), m.muP.data(), m.cov(), nullptr, dim, 1, GAUSS_SERVER_NORM));
      const double want = std::sqrt(std::fabs((double)detRef(m.mat[0])));
      EXPECT_NEAR(g->coefs[0], want, 1e-4 * want + (singular && dim > 1 ? 1e-3 : 0.0)) << dim;
    }
}

// ---- files ----

struct Image {
  std::vector<unsigned char> b;
  explicit Image(std::size_t dataLen) : b(52 + dataLen, 0) { std::memcpy(b.data(), "GAUS", 4); }
  // Little-endian values of n bytes.
  void put(std::size_t at, std::uint32_t v, int n) {
    for (int k = 0; k < n; ++k) b[at + k] = (unsigned char)(v >> (8 * k));
  }
  void u32(std::size_t at, std::uint32_t v) { put(at, v, 4); }
  void u16(std::size_t at, int v) { put(at, (std::uint32_t)v, 2); }
  void f32(std::size_t at, float v) { put(at, std::bit_cast<std::uint32_t>(v), 4); }
  // Header words: six pointer words then dim, nMix, flags, scale, count, size.
  void head(std::initializer_list<std::uint32_t> words) {
    std::size_t at = 4;
    for (auto w : words) u32(at, w), at += 4;
  }
  static constexpr std::size_t D = 52;  // data area in the file
};

std::vector<unsigned char> written(GaussMixServer *g) {
  char *buf = nullptr;
  std::size_t len = 0;
  FILE *f = open_memstream(&buf, &len);
  EXPECT_EQ(XKWriteGaussMixServer(f, g), 1);
  std::fclose(f);
  std::vector<unsigned char> out(buf, buf + len);
  std::free(buf);
  return out;
}

GaussMixServer *readBack(const std::vector<unsigned char> &bytes, std::size_t len) {
  if (len == 0) return nullptr;
  FILE *f = fmemopen(const_cast<unsigned char *>(bytes.data()), len, "rb");
  GaussMixServer *g = XKReadGaussMixServer(f);
  std::fclose(f);
  return g;
}

// The four small servers and their images: the offsets below are those of
// a 32-bit block at address 0 (data area at 48), worked out by hand.
TEST_F(GaussTest, FileImagesAreThe32BitLayout) {
  const auto D = Image::D;
  std::vector<std::pair<Server, Image>> cases;
  {  // s diagonal, dim 3, nMix 2: coefs 0, work 16, weights 32, mean table 48,
     // rows 64, 80, cov table 96, rows 112, 128; end 144, block 207.
    float w[2] = {0.25f, 0.75f}, m0[3] = {1, 2, 3}, m1[3] = {-1, -2, -3}, c0[3] = {1, 2, 4}, c1[3] = {8, 16, 32};
    float *ms[2] = {m0, m1}, *cs[2] = {c0, c1};
    Image im(159);
    im.head({80, 96, 0, 144, 48, 64, 3, 2, 0xA0 | 0x200, 0, 1, 159});
    im.f32(D + 0, 0.25f * std::sqrt(8.0f)), im.f32(D + 4, 0.75f * std::sqrt(4096.0f));
    im.f32(D + 32, 0.25f), im.f32(D + 36, 0.75f);
    im.u32(D + 48, 112), im.u32(D + 52, 128);
    for (int i = 0; i < 3; ++i) im.f32(D + 64 + 4 * i, m0[i]), im.f32(D + 80 + 4 * i, m1[i]);
    im.u32(D + 96, 160), im.u32(D + 100, 176);
    for (int i = 0; i < 3; ++i) im.f32(D + 112 + 4 * i, c0[i]), im.f32(D + 128 + 4 * i, c1[i]);
    cases.emplace_back(own(XKsInitGaussMixServer(w, ms, nullptr, cs, 3, 2, GAUSS_SERVER_NORM)), im);
  }
  {  // s full, dim 2, nMix 1: coefs 0, work 16, weights 32, mean table 48,
     // row 64, component table 80, row table 96, rows 112, 128; block 207.
    float w = 1.5f, m[2] = {0.5f, -0.5f}, r0[2] = {2, 1}, r1[2] = {1, 3};
    float *ms = m, *rows[2] = {r0, r1}, **mats = rows;
    Image im(159);
    im.head({80, 96, 128, 0, 48, 64, 2, 1, 0x120, 0, 1, 159});
    im.f32(D + 0, 1.5f), im.f32(D + 32, 1.5f), im.u32(D + 48, 112);
    im.f32(D + 64, 0.5f), im.f32(D + 68, -0.5f);
    im.u32(D + 80, 144), im.u32(D + 96, 160), im.u32(D + 100, 176);
    im.f32(D + 112, 2), im.f32(D + 116, 1), im.f32(D + 128, 1), im.f32(D + 132, 3);
    cases.emplace_back(own(XKsInitGaussMixServer(&w, &ms, &mats, nullptr, 2, 1, 0)), im);
  }
  {  // w diagonal, dim 3, nMix 2: work 0, weights 16, mean table 24, rows 40,
     // 48, cov table 56, rows 72, 80; end 88, block 151.
    short w[2] = {100, -200}, m0[3] = {1, 2, 3}, m1[3] = {4, 5, 6}, c0[3] = {7, 8, 9}, c1[3] = {-1, -2, -3};
    short *ms[2] = {m0, m1}, *cs[2] = {c0, c1};
    Image im(103);
    im.head({64, 72, 0, 104, 0, 48, 3, 2, 0x210, (std::uint32_t)-4, 1, 103});
    im.u16(D + 16, 100), im.u16(D + 18, -200), im.u32(D + 24, 88), im.u32(D + 28, 96);
    for (int i = 0; i < 3; ++i) im.u16(D + 40 + 2 * i, m0[i]), im.u16(D + 48 + 2 * i, m1[i]);
    im.u32(D + 56, 120), im.u32(D + 60, 128);
    for (int i = 0; i < 3; ++i) im.u16(D + 72 + 2 * i, c0[i]), im.u16(D + 80 + 2 * i, c1[i]);
    cases.emplace_back(own(XKwInitGaussMixServer(w, ms, nullptr, cs, 3, 2, 0, -4)), im);
  }
  {  // w full, dim 2, nMix 1: work 0, weights 16, mean table 24, row 40,
     // component table 48, row table 64, rows 80, 88; end 96, block 159.
    short w = 7, m[2] = {-3, 3}, r0[2] = {5, 6}, r1[2] = {6, 9};
    short *ms = m, *rows[2] = {r0, r1}, **mats = rows;
    Image im(111);
    im.head({64, 72, 96, 0, 0, 48, 2, 1, 0x190, 2, 1, 111});
    im.u16(D + 16, 7), im.u32(D + 24, 88), im.u16(D + 40, -3), im.u16(D + 42, 3);
    im.u32(D + 48, 112), im.u32(D + 64, 128), im.u32(D + 68, 136);
    im.u16(D + 80, 5), im.u16(D + 82, 6), im.u16(D + 88, 6), im.u16(D + 90, 9);
    cases.emplace_back(own(XKwInitGaussMixServer(&w, &ms, &mats, nullptr, 2, 1, GAUSS_SERVER_NORM, 2)), im);
  }
  for (auto &[g, im] : cases) {
    const auto bytes = written(g.get());
    ASSERT_EQ(bytes, im.b) << "flags " << g->flags;
    auto back = own(readBack(bytes, bytes.size()));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(written(back.get()), bytes);  // the same header and data behind every pointer
    const bool s = g->flags & GAUSS_SERVER_FVR_S;
    // Every truncation fails; so does a wrong tag or a corrupted header word.
    for (std::size_t len = 0; len < bytes.size(); ++len) ASSERT_EQ(readBack(bytes, len), nullptr) << len;
    const std::uint32_t dim = (std::uint32_t)g->dim, size = (std::uint32_t)bytes.size() - 52;
    const std::uint32_t shape = g->flags & (GAUSS_SERVER_FULL | GAUSS_SERVER_DIAG),
                        flavour = g->flags & (GAUSS_SERVER_FVR_S | GAUSS_SERVER_FVR_W);
    const std::vector<std::vector<std::pair<std::size_t, std::uint32_t>>> bad = {
        {{0, 0x53554148}},                // tag
        {{12, 0}, {16, 0}},               // neither covariance word
        {{12, 4}, {16, 4}},               // both
        {{20, s ? 0u : 4u}},              // coefs word of the other flavour
        {{28, 0xffffffff}}, {{28, dim + 4}}, {{32, 0x7fffffff}},
        {{36, 0x30 | shape}}, {{36, shape}}, {{36, flavour | 0x300}},
        {{48, 0}}, {{48, 0x7ffffff0}}, {{48, size + 16}}, {{48, size - 16}}};
    for (const auto &edits : bad) {
      Image copy(0);
      copy.b = bytes;
      for (auto [at, v] : edits) copy.u32(at, v);
      EXPECT_EQ(own(readBack(copy.b, copy.b.size())), nullptr) << "word at " << edits[0].first;
    }
  }
  XKSetStatus(XK_StsOk);
}

TEST_F(GaussTest, FlavourConversion) {
  std::mt19937 rng(9);
  for (bool full : {false, true}) {
    auto m = randomMixture(6, 4, full, rng);
    auto s = own(XKsInitGaussMixServer(m.w.data(), m.muP.data(), m.cov(), m.covD(), 6, 4, GAUSS_SERVER_NORM));
    auto w = own(XKswConvertGaussMixServer(s.get(), -14, -12, -10));
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(std::make_pair(w->flags, w->scale), std::make_pair((s->flags & ~GAUSS_SERVER_FVR_S) | GAUSS_SERVER_FVR_W, -10));
    auto back = own(XKwsConvertGaussMixServer(w.get(), -14, -12, -10));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->flags, s->flags);
    for (int k = 0; k < 4; ++k) {
      EXPECT_NEAR(back->coefs[k], s->coefs[k], 2e-3 * s->coefs[k] + 1e-3);
      for (int i = 0; i < 6; ++i) EXPECT_NEAR(static_cast<float *>(back->means[k])[i], m.mu[k][i], 1.0 / 4096);
    }
    EXPECT_EQ(XKswConvertGaussMixServer(w.get(), 0, 0, 0), nullptr);
    EXPECT_EQ(XKwsConvertGaussMixServer(s.get(), 0, 0, 0), nullptr);
  }
  ASSERT_EQ(xkltest::reports().size(), 4u);
  const auto &r = xkltest::reports();
  EXPECT_EQ(r[0].func + "|" + r[0].context + "|" + r[1].func + "|" + r[1].context,
            "XKswConvertGaussMixfServer|flser->flags&GAUSS_SERVER_FVR_W|XKwsConvertGaussMixfServer|shser->flags&GAUSS_SERVER_FVR_S");
}

// The 16-bit estimate: exact integer sums, covariances at a chosen scale.
TEST_F(GaussTest, FixedBuildAndTrain) {
  std::mt19937 rng(4);
  std::uniform_int_distribution<int> u(-3000, 3000);
  const int dim = 4;
  std::vector<std::vector<short>> v(15, std::vector<short>(dim));
  std::vector<short *> p;
  for (auto &r : v) {
    for (auto &x : r) x = (short)u(rng);
    p.push_back(r.data());
  }
  for (int flags : {0, GAUSS_SERVER_FULL}) {
    auto all = own(XKwBuildGaussMixServer(p.data(), 15, dim, flags));
    auto first = own(XKwBuildGaussMixServer(p.data(), 10, dim, flags));
    auto pooled = own(XKwTrainGaussMixServer(first.get(), p.data() + 10, 5, dim));
    ASSERT_NE(pooled, nullptr);
    EXPECT_EQ(std::make_pair(pooled->count, pooled->flags & GAUSS_SERVER_FVR_W), std::make_pair(15, GAUSS_SERVER_FVR_W));
    for (int i = 0; i < dim; ++i) {
      long double mean = 0, c = 0;
      for (auto &r : v) mean += r[i] / 15.0L;
      for (auto &r : v) c += (r[i] - mean) * (r[i] - mean) / 14.0L;
      EXPECT_NEAR(static_cast<short *>(all->means[0])[i], (double)mean, 0.5);
      EXPECT_NEAR(static_cast<short *>(pooled->means[0])[i], (double)mean, 1.0);
      EXPECT_NEAR(std::ldexp(covAt<short>(all.get(), 0, i, i), all->scale), (double)c, std::ldexp(0.5, all->scale));
      EXPECT_NEAR(std::ldexp(covAt<short>(pooled.get(), 0, i, i), pooled->scale), (double)c,
                  1e-3 * (double)c + std::ldexp(2.0, pooled->scale));
    }
    // A stored failure stops the pooling until the status is cleared.
    XKSetStatus(XK_StsError);
    EXPECT_EQ(XKwTrainGaussMixServer(first.get(), p.data() + 10, 5, dim), nullptr);
    XKSetStatus(XK_StsOk);
  }
}

}  // namespace
