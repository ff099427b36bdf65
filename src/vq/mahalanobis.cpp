// Mahalanobis distances of float and 16-bit vectors, diagonal and full
// (lower-triangle) inverse covariances.
//
// Float full form: below 8 elements everything is summed in double in row
// order. From 8 elements on, the row sums sum_{j<i} A[i][j] d_j run on four
// double lanes (lane j mod 4, lanes combined as (0+2)+(1+3), then the tail
// columns in order); the portable code does exactly what the AVX2 code does,
// four rows per pass, so both give the same bits. The cross sum (double) and
// the diagonal sum (float) are then accumulated from the last row to row 0.
//
// 16-bit forms: every operation is modulo 2^32, so the vectorised kernels
// (pmaddwd on 16 lanes) equal the portable loops whatever the data; only the
// diagonal form's 16-bit inner product d * A needs the caller's range.
#include "vq/mahalanobis.h"

#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <new>

#include "frame/cpu.h"
#include "xkl/xk_convert.h"
#include "xkl/xk_vq.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define XKL_VQ_HAVE_AVX2 1
#define XKL_TARGET_AVX2 __attribute__((target("avx2")))
#endif

namespace xk::vq {

namespace {
std::atomic<bool> simdTurnedOff{false};
}

bool simdActive() { return !simdTurnedOff.load(std::memory_order_relaxed) && xk::cpuFeatures().avx2; }
void setSimdEnabled(bool on) { simdTurnedOff.store(!on, std::memory_order_relaxed); }

}  // namespace xk::vq

namespace {

using u32 = std::uint32_t;

// ---- float full form ----

constexpr int kFloatBlockedFrom = 8;

// Row sum of one row over len columns on four double lanes, in the order the
// vectorised pass uses. The differences are formed in float.
double rowSumPortable(const float *row, const float *x, const float *m, int len) {
  double acc[4] = {0.0, 0.0, 0.0, 0.0};
  const int len4 = len & ~3;
  for (int j = 0; j < len4; ++j) {
    const float d = x[j] - m[j];
    acc[j & 3] += static_cast<double>(row[j]) * static_cast<double>(d);
  }
  double s = (acc[0] + acc[2]) + (acc[1] + acc[3]);
  for (int j = len4; j < len; ++j) {
    const float d = x[j] - m[j];
    s += static_cast<double>(row[j]) * static_cast<double>(d);
  }
  return s;
}

void rowSumsPortable(const float *x, const float *m, const float *const *a, int n, double *rs) {
  for (int i = 1; i < n; ++i) rs[i] = rowSumPortable(a[i], x, m, i);
}

#ifdef XKL_VQ_HAVE_AVX2
XKL_TARGET_AVX2 inline __m256d diff4(const float *x, const float *m, int j) {
  return _mm256_cvtps_pd(_mm_sub_ps(_mm_loadu_ps(x + j), _mm_loadu_ps(m + j)));
}

XKL_TARGET_AVX2 inline double finishRow(__m256d acc, const float *row, const float *x, const float *m,
                                        int len) {
  const __m128d lohi = _mm_add_pd(_mm256_castpd256_pd128(acc), _mm256_extractf128_pd(acc, 1));
  double s = _mm_cvtsd_f64(lohi) + _mm_cvtsd_f64(_mm_unpackhi_pd(lohi, lohi));
  for (int j = len & ~3; j < len; ++j) {
    const float d = x[j] - m[j];
    s += static_cast<double>(row[j]) * static_cast<double>(d);
  }
  return s;
}

// Four rows per pass share the loads of the differences. Each row keeps its
// own lanes, so the result equals rowSumPortable row by row. The products
// of two floats are exact in double, so a fused multiply-add would not
// change them either.
XKL_TARGET_AVX2 void rowSumsAvx2(const float *x, const float *m, const float *const *a, int n, double *rs) {
  int i = n - 1;
  for (; i >= 4; i -= 4) {
    const float *r[4] = {a[i], a[i - 1], a[i - 2], a[i - 3]};
    __m256d acc[4] = {_mm256_setzero_pd(), _mm256_setzero_pd(), _mm256_setzero_pd(), _mm256_setzero_pd()};
    const int common = (i - 3) & ~3;
    for (int j = 0; j < common; j += 4) {
      const __m256d d = diff4(x, m, j);
      for (int k = 0; k < 4; ++k)
        acc[k] = _mm256_add_pd(acc[k], _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(r[k] + j)), d));
    }
    for (int k = 0; k < 4; ++k) {
      const int len = i - k;
      for (int j = common; j < (len & ~3); j += 4)
        acc[k] = _mm256_add_pd(acc[k], _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(r[k] + j)), diff4(x, m, j)));
      rs[i - k] = finishRow(acc[k], r[k], x, m, len);
    }
  }
  for (; i >= 1; --i) {
    __m256d acc = _mm256_setzero_pd();
    for (int j = 0; j < (i & ~3); j += 4)
      acc = _mm256_add_pd(acc, _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(a[i] + j)), diff4(x, m, j)));
    rs[i] = finishRow(acc, a[i], x, m, i);
  }
}
#endif

double sFullBlocked(const float *x, const float *m, const float *const *a, int n, double *rs) {
#ifdef XKL_VQ_HAVE_AVX2
  if (xk::vq::simdActive())
    rowSumsAvx2(x, m, a, n, rs);
  else
#endif
    rowSumsPortable(x, m, a, n, rs);
  double cross = 0.0;
  float diag = 0.0f;
  for (int i = n - 1; i >= 1; --i) {
    const float d = x[i] - m[i];
    cross += static_cast<double>(d) * rs[i];
    diag += d * d * a[i][i];
  }
  const float d0 = x[0] - m[0];
  diag += d0 * d0 * a[0][0];
  return static_cast<double>(diag) + cross + cross;
}

double sFullSmall(const float *x, const float *m, const float *const *a, int n) {
  const double d0 = static_cast<double>(x[0]) - m[0];
  double diag = d0 * d0 * a[0][0];
  double cross = 0.0;
  for (int i = 1; i < n; ++i) {
    double row = 0.0;
    for (int j = 0; j < i; ++j) row += static_cast<double>(a[i][j]) * (static_cast<double>(x[j]) - m[j]);
    const double di = static_cast<double>(x[i]) - m[i];
    cross += di * row;
    diag += di * di * a[i][i];
  }
  return diag + cross + cross;
}

// ---- 16-bit kernels ----

inline short wrap16(int v) { return static_cast<short>(static_cast<std::uint16_t>(v)); }
inline u32 diff32(const short *x, const short *m, int j) {
  return static_cast<u32>(static_cast<int>(wrap16(x[j] - m[j])));
}

u32 wDiagPortable(const short *x, const short *m, const short *a, int n, int from) {
  u32 sum = 0;
  for (int i = from; i < n; ++i) {
    const int d = wrap16(x[i] - m[i]);
    const int t = wrap16(d * a[i]);
    sum += static_cast<u32>(d) * static_cast<u32>(t);
  }
  return sum;
}

// sum_{j<len} row[j] * d_j modulo 2^32.
u32 wRowPortable(const short *row, const short *x, const short *m, int len, int from) {
  u32 s = 0;
  for (int j = from; j < len; ++j) s += static_cast<u32>(static_cast<int>(row[j])) * diff32(x, m, j);
  return s;
}

#ifdef XKL_VQ_HAVE_AVX2
XKL_TARGET_AVX2 inline u32 hsum32(__m256i v) {
  __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
  return static_cast<u32>(_mm_cvtsi128_si32(s));
}

XKL_TARGET_AVX2 inline __m256i load16(const short *p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}

XKL_TARGET_AVX2 u32 wDiagAvx2(const short *x, const short *m, const short *a, int n) {
  __m256i acc = _mm256_setzero_si256();
  const int n16 = n & ~15;
  for (int i = 0; i < n16; i += 16) {
    const __m256i d = _mm256_sub_epi16(load16(x + i), load16(m + i));
    const __m256i t = _mm256_mullo_epi16(d, load16(a + i));
    acc = _mm256_add_epi32(acc, _mm256_madd_epi16(d, t));
  }
  return hsum32(acc) + wDiagPortable(x, m, a, n, n16);
}

XKL_TARGET_AVX2 u32 wRowAvx2(const short *row, const short *x, const short *m, int len) {
  __m256i acc = _mm256_setzero_si256();
  const int len16 = len & ~15;
  for (int j = 0; j < len16; j += 16)
    acc = _mm256_add_epi32(acc, _mm256_madd_epi16(load16(row + j), _mm256_sub_epi16(load16(x + j), load16(m + j))));
  return hsum32(acc) + wRowPortable(row, x, m, len, len16);
}
#endif

int shiftByScale(int v, const int *scaleFactor) {
  const int s = scaleFactor ? *scaleFactor : 0;
  if (s > 0) return s >= 31 ? (v < 0 ? -1 : 0) : v >> s;
  if (s < 0) return s <= -32 ? 0 : static_cast<int>(static_cast<u32>(v) << -s);
  return v;
}

// The integer result of the 16-bit forms in modes 0 and 1.
int finishInteger(std::int32_t raw, int sqrtFlag, int scaleMode, int *scaleFactor) {
  int v = sqrtFlag ? static_cast<int>(xk::isqrt32(static_cast<u32>(raw))) : raw;
  return scaleMode == 1 ? shiftByScale(v, scaleFactor) : v;
}

int finishDouble(double dist, int sqrtFlag, int scaleMode, int *scaleFactor) {
  if (sqrtFlag) dist = std::sqrt(dist);
  int local = 0;
  return XKdiConvertDown(dist, scaleMode, scaleFactor ? scaleFactor : &local);
}

double wDiagDouble(const short *x, const short *m, const short *a, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) {
    const int d = wrap16(x[i] - m[i]);
    sum += static_cast<double>(d) * static_cast<double>(d * a[i]);
  }
  return sum;
}

double wFullDouble(const short *x, const short *m, const short *const *a, int n) {
  double cross = 0.0, diag = 0.0;
  for (int i = 0; i < n; ++i) {
    double row = 0.0;
    for (int j = 0; j < i; ++j) row += static_cast<double>(a[i][j] * wrap16(x[j] - m[j]));
    const std::int64_t d = wrap16(x[i] - m[i]);
    cross += static_cast<double>(d) * row;
    diag += static_cast<double>(d * d * a[i][i]);
  }
  return cross + cross + diag;
}

}  // namespace

namespace xk {

std::uint32_t isqrt32(std::uint32_t v) {
  auto r = static_cast<std::uint64_t>(std::sqrt(static_cast<double>(v)));
  while (r * r > v) --r;
  while ((r + 1) * (r + 1) <= v) ++r;
  return static_cast<std::uint32_t>(r);
}

std::int32_t wMahalanobisDiagRaw(const short *x, const short *m, const short *invVar, int n) {
  if (n < 1) return 0;
#ifdef XKL_VQ_HAVE_AVX2
  if (vq::simdActive()) return static_cast<std::int32_t>(wDiagAvx2(x, m, invVar, n));
#endif
  return static_cast<std::int32_t>(wDiagPortable(x, m, invVar, n, 0));
}

std::int32_t wMahalanobisFullRaw(const short *x, const short *m, const short *const *invCov, int n) {
  if (n < 1) return 0;
#ifdef XKL_VQ_HAVE_AVX2
  const bool simd = vq::simdActive();
#endif
  u32 sum = 0;
  for (int i = 0; i < n; ++i) {
    const short *row = invCov[i];
#ifdef XKL_VQ_HAVE_AVX2
    const u32 rs = simd ? wRowAvx2(row, x, m, i) : wRowPortable(row, x, m, i, 0);
#else
    const u32 rs = wRowPortable(row, x, m, i, 0);
#endif
    const u32 d = diff32(x, m, i);
    sum += 2u * rs * d + d * d * static_cast<u32>(static_cast<int>(row[i]));
  }
  return static_cast<std::int32_t>(sum);
}

}  // namespace xk

extern "C" {

XKL_API double XKsMahalanobisD(const float *x, const float *m, const float *invVar, int n, int sqrtFlag) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) {
    const double d = static_cast<double>(x[i]) - static_cast<double>(m[i]);
    sum += d * d * static_cast<double>(invVar[i]);
  }
  return sqrtFlag ? std::sqrt(sum) : sum;
}

XKL_API double XKsMahalanobis(const float *x, const float *m, float *const *invCov, int n, int sqrtFlag) {
  if (n < 1) return 0.0;
  double dist;
  if (n < kFloatBlockedFrom) {
    dist = sFullSmall(x, m, invCov, n);
  } else {
    double stackSums[256];
    double *rs = n <= 256 ? stackSums : new (std::nothrow) double[n];
    if (rs == nullptr) return std::nan("");  // nothing sensible to return without scratch
    dist = sFullBlocked(x, m, invCov, n, rs);
    if (rs != stackSums) delete[] rs;
  }
  return sqrtFlag ? std::sqrt(dist) : dist;
}

XKL_API int XKwMahalanobisD(const short *x, const short *m, const short *invVar, int n, int sqrtFlag,
                            int scaleMode, int *scaleFactor) {
  if (scaleMode == 0 || scaleMode == 1)
    return finishInteger(xk::wMahalanobisDiagRaw(x, m, invVar, n), sqrtFlag, scaleMode, scaleFactor);
  return finishDouble(wDiagDouble(x, m, invVar, n), sqrtFlag, scaleMode, scaleFactor);
}

XKL_API int XKwMahalanobis(const short *x, const short *m, short *const *invCov, int n, int sqrtFlag,
                           int scaleMode, int *scaleFactor) {
  if (scaleMode == 0 || scaleMode == 1)
    return finishInteger(xk::wMahalanobisFullRaw(x, m, invCov, n), sqrtFlag, scaleMode, scaleFactor);
  return finishDouble(wFullDouble(x, m, invCov, n), sqrtFlag, scaleMode, scaleFactor);
}

}  // extern "C"
