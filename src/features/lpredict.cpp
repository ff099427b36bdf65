// Linear prediction of one frame: the autocorrelation method (Levinson-Durbin
// in float) and the covariance method (L D L^T factorisation of the
// lagged-product matrix), and the release of all LP buffers.
#include <cmath>
#include <cstdlib>

#include "features/features_internal.h"
#include "xkl/xk_convert.h"
#include "xkl/xk_frame.h"

using xk::features::kModLpred;

namespace {

// Makes `table` hold `rows` rows of at least `len` floats: a smaller one is
// freed (capacity 0 first) and allocated again. False after reporting.
bool growTable(float **&table, int &capacity, int rows, int len, const char *func, const char *message,
               int line) {
  if (len <= capacity) return true;
  capacity = 0;
  XKFree2(table);
  table = XKsAlloc2(rows, len);
  if (table == nullptr) {
    xk::report(XK_StsNoMem, func, message, kModLpred, line);
    return false;
  }
  capacity = len;
  return true;
}

// Autocorrelation method. Returns 1, or 0 when a reflection coefficient
// leaves [-1, 1] (lpc untouched) or memory runs out.
int lpAutocorr(const float *frame, int n, float *lpc, int p) {
  auto &lp = xk::context().lpred;
  const int rowLen = (p + 4) & ~1;
  if (!growTable(lp.arrAutocorr, lp.autocorrLen, 3, rowLen, "ownsLPAutocorr",
                 "insufficiency of memory for pointer  pXKContext->LP.arrAutocorr", __LINE__))
    return 0;
  float *r = lp.arrAutocorr[0], *e = lp.arrAutocorr[1], *a = lp.arrAutocorr[2];
  xk::features::clearKernelStatus();
  kfxsAutoCorr(frame, n, r, p + 1, KFX_AutoCorrNone);
  if (xk::features::kernelFailed()) {
    xk::backTrace("ownsLPAutocorr", kModLpred, __LINE__);
    return 0;
  }
  e[0] = r[0];
  for (int i = 1; i <= p; ++i) {
    float acc = 0.0f;
    for (int j = 1; j < i; ++j) acc += a[j] * r[i - j];
    const float k = (r[i] - acc) / e[i - 1];
    // A silent frame gives 0/0; NaN passes this test like any value that is
    // not above 1 in magnitude.
    if (std::fabs(k) > 1.0f) return 0;
    a[i] = k;
    for (int j = 1; j <= (i - 1) / 2; ++j) {
      const float aj = a[j], aij = a[i - j];
      a[j] = aj - k * aij;
      a[i - j] = aij - k * aj;
    }
    if (i % 2 == 0) a[i / 2] = (1.0f - k) * a[i / 2];
    e[i] = (1.0f - k * k) * e[i - 1];
  }
  for (int j = 1; j <= p; ++j) lpc[j - 1] = a[j];
  return 1;
}

// Covariance method: solves C a = r[1..p] with C[i][j] = sum_{m=i}^{n-1}
// x[m-i] x[m-j] by C = L D L^T. No stability or pivot test.
int lpCovariance(const float *frame, int n, float *lpc, int p) {
  auto &lp = xk::context().lpred;
  const int q = (p + 3) & ~1;
  const int t = (p * (p - 1) / 2 + 3) & ~1;
  const int len = 3 * t + 4 * q;
  if (!growTable(lp.arrCovariance, lp.covarianceLen, 1, len, "ownsLPCovariance",
                 "insufficiency of memory for pointer  pXKContext->LP.arrCovariance", __LINE__))
    return 0;
  float *base = lp.arrCovariance[0];
  float *l = base;               // unit lower factor, packed rows (strict part)
  float *lc = base + t;          // the same factor by columns
  float *c = base + 2 * t;       // lagged products, packed lower triangle
  float *r = base + 3 * t + q;   // autocorrelation r[0..p]
  float *d = r + q;              // diagonal D[1..p] at d[0..p-1]
  float *y = d + q;              // forward-substitution result
  xk::features::clearKernelStatus();
  kfxsAutoCorr(frame, n, r, p + 1, KFX_AutoCorrNone);
  if (xk::features::kernelFailed()) {
    xk::backTrace("ownsLPCovariance", kModLpred, __LINE__);
    return 0;
  }
  // Row i (1-based) of a packed triangle starts at i(i-1)/2.
  auto cAt = [&](int i, int j) -> float & { return c[i * (i - 1) / 2 + (j - 1)]; };
  auto lAt = [&](int i, int j) -> float & { return l[(i - 1) * (i - 2) / 2 + (j - 1)]; };  // j < i
  for (int i = 1; i <= p; ++i)
    for (int j = 1; j <= i; ++j) {
      double s = 0.0;
      for (int m = 0; m + i < n; ++m) s += static_cast<double>(frame[m]) * frame[m + i - j];
      cAt(i, j) = static_cast<float>(s);
    }
  for (int i = 1; i <= p; ++i) {
    for (int j = 1; j < i; ++j) {
      double s = cAt(i, j);
      for (int k = 1; k < j; ++k) s -= static_cast<double>(lAt(i, k)) * d[k - 1] * lAt(j, k);
      lAt(i, j) = static_cast<float>(s / d[j - 1]);
    }
    double s = cAt(i, i);
    for (int k = 1; k < i; ++k) s -= static_cast<double>(lAt(i, k)) * lAt(i, k) * d[k - 1];
    d[i - 1] = static_cast<float>(s);
  }
  for (int i = 1; i <= p; ++i) {
    double s = r[i];
    for (int k = 1; k < i; ++k) s -= static_cast<double>(lAt(i, k)) * y[k - 1];
    y[i - 1] = static_cast<float>(s);
  }
  // Column j of L below the diagonal, contiguous, for the back substitution.
  for (int j = 1, at = 0; j < p; ++j)
    for (int i = j + 1; i <= p; ++i) lc[at++] = lAt(i, j);
  for (int i = p; i >= 1; --i) {
    double s = static_cast<double>(y[i - 1]) / d[i - 1];
    const int start = (i - 1) * p - (i - 1) * i / 2;  // column i follows columns 1..i-1
    for (int j = i + 1; j <= p; ++j) s -= static_cast<double>(lc[start + (j - i - 1)]) * lpc[j - 1];
    lpc[i - 1] = static_cast<float>(s);
  }
  return 1;
}

}  // namespace

extern "C" {

XKL_API int XKsLPredict(const float *frame, int n, float *lpc, int p, int method) {
  if (method & XK_LP_AUTOCORR) return lpAutocorr(frame, n, lpc, p);
  if (method & XK_LP_COVARIANCE) return lpCovariance(frame, n, lpc, p);
  return 0;
}

XKL_API int XKwLPredict(const short *frame, int n, short *lpc, int p, int method, int mode, int *scale) {
  int localScale = 0;
  if (scale == nullptr) scale = &localScale;
  const size_t count = static_cast<size_t>(n > 0 ? n : 0) + static_cast<size_t>(p > 0 ? p : 0);
  // Zero-filled, so that a failed method writes zero coefficients.
  float *vec = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));
  if (vec == nullptr) {
    xk::report(XK_StsNoMem, "XKwLPredict", "insufficiency of memory for pointer  vec", kModLpred, __LINE__);
    return 0;
  }
  if (n > 0) XKwsbConvertUp(frame, vec, n, 0);
  float *coef = vec + (n > 0 ? n : 0);
  const int result = XKsLPredict(vec, n, coef, p, method);
  XKswbConvertDown(coef, lpc, p, mode, scale);
  std::free(vec);
  return result;
}

XKL_API void XKFreeLPTbls(void) {
  auto &ls = xk::context().preemphLpSpec;
  for (auto &key : ls.slotKey) key[0] = key[1] = 0;
  for (int i = 0; i < 4; ++i) {
    xk::features::freeAligned(ls.slot[i]);
    ls.slot[i] = nullptr;
  }
  // The last step looks at the sixth slot but releases the fifth (again):
  // a buffer held in the sixth slot is never released here. Nothing in this
  // library stores into that slot.
  if (ls.slot[5] != nullptr || ls.slot[4] != nullptr) {
    xk::features::freeAligned(ls.slot[4]);
    ls.slot[4] = nullptr;
  }
  auto &lp = xk::context().lpred;
  lp.autocorrLen = 0;
  lp.covarianceLen = 0;
  XKFree2(lp.arrAutocorr);
  XKFree2(lp.arrCovariance);
  lp.arrAutocorr = nullptr;
  lp.arrCovariance = nullptr;
  kfxFreeBitRevTbls();
  kfxFreeTwdTbls();
  kfxFreeIntTwdTbls();
}

}  // extern "C"
