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

// Row sum of one row over len columns on four double lanes (lane j mod 4,
// the last partial group padded with zero products), lanes combined as
// (0 + 2) + (1 + 3): the order of the vectorised pass. The differences are
// formed in float.
double rowSumPortable(const float *row, const float *x, const float *m, int len) {
  auto p = [&](int j) { return j < len ? static_cast<double>(row[j]) * static_cast<double>(x[j] - m[j]) : 0.0; };
  double a0 = 0.0, a1 = 0.0, a2 = 0.0, a3 = 0.0;
  int j = 0;
  for (; j + 4 <= len; j += 4) {
    a0 += static_cast<double>(row[j]) * static_cast<double>(x[j] - m[j]);
    a1 += static_cast<double>(row[j + 1]) * static_cast<double>(x[j + 1] - m[j + 1]);
    a2 += static_cast<double>(row[j + 2]) * static_cast<double>(x[j + 2] - m[j + 2]);
    a3 += static_cast<double>(row[j + 3]) * static_cast<double>(x[j + 3] - m[j + 3]);
  }
  if (j < len) a0 += p(j), a1 += p(j + 1), a2 += p(j + 2), a3 += p(j + 3);
  return (a0 + a2) + (a1 + a3);
}

// Cross (double) and diagonal (float) sums, fed row by row from the last
// row down; both paths feed them in the same order.
struct FullSums {
  double cross = 0.0;
  float diag = 0.0f;
  void add(const float *x, const float *m, const float *const *a, int i, double rowSum) {
    const float d = x[i] - m[i];
    cross += static_cast<double>(d) * rowSum;
    diag += d * d * a[i][i];
  }
};

FullSums fullSumsPortable(const float *x, const float *m, const float *const *a, int n) {
  FullSums sums;
  for (int i = n - 1; i >= 1; --i) sums.add(x, m, a, i, rowSumPortable(a[i], x, m, i));
  return sums;
}

#ifdef XKL_VQ_HAVE_AVX2
// Lanes 0..r-1 set, for the last partial group of a row.
XKL_TARGET_AVX2 inline __m128i headMask(int r) {
  return _mm_cmpgt_epi32(_mm_set1_epi32(r), _mm_setr_epi32(0, 1, 2, 3));
}

XKL_TARGET_AVX2 inline __m256d product4(const float *row, const float *x, const float *m, int j) {
  const __m256d d = _mm256_cvtps_pd(_mm_sub_ps(_mm_loadu_ps(x + j), _mm_loadu_ps(m + j)));
  return _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(row + j)), d);
}

// The last partial group, read under a mask so nothing past the row (or the
// vectors) is touched; masked lanes give 0 * 0.
XKL_TARGET_AVX2 inline __m256d productTail(const float *row, const float *x, const float *m, int j, int r) {
  const __m128i k = headMask(r);
  const __m256d d = _mm256_cvtps_pd(_mm_sub_ps(_mm_maskload_ps(x + j, k), _mm_maskload_ps(m + j, k)));
  return _mm256_mul_pd(_mm256_cvtps_pd(_mm_maskload_ps(row + j, k)), d);
}

XKL_TARGET_AVX2 inline double lanes(__m256d acc) {
  const __m128d s = _mm_add_pd(_mm256_castpd256_pd128(acc), _mm256_extractf128_pd(acc, 1));
  return _mm_cvtsd_f64(s) + _mm_cvtsd_f64(_mm_unpackhi_pd(s, s));
}

XKL_TARGET_AVX2 inline __m256d rowFrom(__m256d acc, const float *row, const float *x, const float *m, int j,
                                       int len) {
  for (; j + 4 <= len; j += 4) acc = _mm256_add_pd(acc, product4(row, x, m, j));
  if (j < len) acc = _mm256_add_pd(acc, productTail(row, x, m, j, len - j));
  return acc;
}

// Four rows per pass share the loads of the differences. Each row keeps its
// own lanes, so the result equals rowSumPortable row by row. The products
// of two floats are exact in double, so a fused multiply-add would not
// change them either.
XKL_TARGET_AVX2 FullSums fullSumsAvx2(const float *x, const float *m, const float *const *a, int n) {
  FullSums sums;  // local, so the sums stay in registers
  int i = n - 1;
  for (; i >= 4; i -= 4) {
    const float *r0 = a[i], *r1 = a[i - 1], *r2 = a[i - 2], *r3 = a[i - 3];
    __m256d acc0 = _mm256_setzero_pd(), acc1 = acc0, acc2 = acc0, acc3 = acc0;
    const int common = (i - 3) & ~3;
    for (int j = 0; j < common; j += 4) {
      const __m256d d = _mm256_cvtps_pd(_mm_sub_ps(_mm_loadu_ps(x + j), _mm_loadu_ps(m + j)));
      acc0 = _mm256_add_pd(acc0, _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(r0 + j)), d));
      acc1 = _mm256_add_pd(acc1, _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(r1 + j)), d));
      acc2 = _mm256_add_pd(acc2, _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(r2 + j)), d));
      acc3 = _mm256_add_pd(acc3, _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(r3 + j)), d));
    }
    const double s0 = lanes(rowFrom(acc0, r0, x, m, common, i));
    const double s1 = lanes(rowFrom(acc1, r1, x, m, common, i - 1));
    const double s2 = lanes(rowFrom(acc2, r2, x, m, common, i - 2));
    const double s3 = lanes(rowFrom(acc3, r3, x, m, common, i - 3));
    sums.add(x, m, a, i, s0);
    sums.add(x, m, a, i - 1, s1);
    sums.add(x, m, a, i - 2, s2);
    sums.add(x, m, a, i - 3, s3);
  }
  for (; i >= 1; --i) sums.add(x, m, a, i, lanes(rowFrom(_mm256_setzero_pd(), a[i], x, m, 0, i)));
  return sums;
}
#endif

double sFullBlocked(const float *x, const float *m, const float *const *a, int n) {
#ifdef XKL_VQ_HAVE_AVX2
  FullSums sums = xk::vq::simdActive() ? fullSumsAvx2(x, m, a, n) : fullSumsPortable(x, m, a, n);
#else
  FullSums sums = fullSumsPortable(x, m, a, n);
#endif
  const float d0 = x[0] - m[0];
  sums.diag += d0 * d0 * a[0][0];
  return static_cast<double>(sums.diag) + sums.cross + sums.cross;
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

// The last `tail` lanes of a 16-lane (or 8-lane) group set.
XKL_TARGET_AVX2 inline __m256i lastLanes16(int tail) {
  return _mm256_cmpgt_epi16(_mm256_set1_epi16(static_cast<short>(tail)),
                            _mm256_setr_epi16(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0));
}
XKL_TARGET_AVX2 inline __m128i lastLanes8(int tail) {
  return _mm_cmpgt_epi16(_mm_set1_epi16(static_cast<short>(tail)), _mm_setr_epi16(7, 6, 5, 4, 3, 2, 1, 0));
}

// Rows end anywhere, so the last partial group is read as the group that
// ends with the row (nothing past the row is touched) and the lanes already
// summed are cleared.
XKL_TARGET_AVX2 u32 wRowAvx2(const short *row, const short *x, const short *m, int len) {
  if (len < 8) return wRowPortable(row, x, m, len, 0);
  if (len < 16) {
    const __m128i d0 = _mm_sub_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(x)),
                                     _mm_loadu_si128(reinterpret_cast<const __m128i *>(m)));
    __m128i acc = _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row)), d0);
    const int e = len - 8;
    const __m128i d1 = _mm_sub_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(x + e)),
                                     _mm_loadu_si128(reinterpret_cast<const __m128i *>(m + e)));
    const __m128i a1 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row + e)), lastLanes8(len - 8));
    acc = _mm_add_epi32(acc, _mm_madd_epi16(a1, d1));
    acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, 0x4E));
    acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, 0xB1));
    return static_cast<u32>(_mm_cvtsi128_si32(acc));
  }
  __m256i acc = _mm256_setzero_si256();
  const int len16 = len & ~15;
  for (int j = 0; j < len16; j += 16)
    acc = _mm256_add_epi32(acc, _mm256_madd_epi16(load16(row + j), _mm256_sub_epi16(load16(x + j), load16(m + j))));
  if (len16 < len) {
    const int e = len - 16;
    const __m256i a = _mm256_and_si256(load16(row + e), lastLanes16(len - len16));
    acc = _mm256_add_epi32(acc, _mm256_madd_epi16(a, _mm256_sub_epi16(load16(x + e), load16(m + e))));
  }
  return hsum32(acc);
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
    dist = sFullBlocked(x, m, invCov, n);
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
