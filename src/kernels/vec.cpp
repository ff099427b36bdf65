// Element-wise vector kernels, conversions between 16-bit integers and float,
// and the dot product (with the SIMD switch shared by the vector kernels).
//
// Every kernel checks its arguments first; a failed check reports status -5
// and returns without writing anything.
#include <atomic>
#include <cmath>
#include <cstring>

#include "kernels/kfx_error.h"
#include "kernels/vec_internal.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define XKL_KFX_X86 1
#include <immintrin.h>
#endif

namespace kfx {
namespace {

void badArg(const char *func, const char *message, const char *module, int line) {
  report(KFX_StsBadArg, func, message, module, line);
}

// ---- dot-product engines ----
// Both engines keep 16 double lanes (lane l takes elements i with i % 16 == l
// in the main loop, lanes 0..3 take the 4-wide remainder), reduce them by the
// same tree and add the scalar tail last, so their sums are bit-identical.

template <class T>
double dotPortable(const T *a, const T *b, int n) {
  double acc[16] = {};
  int i = 0;
  for (; i + 16 <= n; i += 16)
    for (int l = 0; l < 16; ++l) acc[l] += static_cast<double>(a[i + l]) * static_cast<double>(b[i + l]);
  for (; i + 4 <= n; i += 4)
    for (int l = 0; l < 4; ++l) acc[l] += static_cast<double>(a[i + l]) * static_cast<double>(b[i + l]);
  double lane[4];
  for (int l = 0; l < 4; ++l) lane[l] = (acc[l] + acc[4 + l]) + (acc[8 + l] + acc[12 + l]);
  double sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  for (; i < n; ++i) sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  return sum;
}

#ifdef XKL_KFX_X86
__attribute__((target("avx2,fma"))) inline double reduceAvx2(__m256d acc0, __m256d acc1, __m256d acc2,
                                                              __m256d acc3) {
  const __m256d s = _mm256_add_pd(_mm256_add_pd(acc0, acc1), _mm256_add_pd(acc2, acc3));
  alignas(32) double lane[4];
  _mm256_store_pd(lane, s);
  return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

__attribute__((target("avx2,fma"))) double dotAvx2(const float *a, const float *b, int n) {
  __m256d acc0 = _mm256_setzero_pd(), acc1 = acc0, acc2 = acc0, acc3 = acc0;
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    acc0 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i)), _mm256_cvtps_pd(_mm_loadu_ps(b + i)), acc0);
    acc1 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i + 4)), _mm256_cvtps_pd(_mm_loadu_ps(b + i + 4)),
                           acc1);
    acc2 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i + 8)), _mm256_cvtps_pd(_mm_loadu_ps(b + i + 8)),
                           acc2);
    acc3 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i + 12)),
                           _mm256_cvtps_pd(_mm_loadu_ps(b + i + 12)), acc3);
  }
  for (; i + 4 <= n; i += 4)
    acc0 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i)), _mm256_cvtps_pd(_mm_loadu_ps(b + i)), acc0);
  double sum = reduceAvx2(acc0, acc1, acc2, acc3);
  for (; i < n; ++i) sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  return sum;
}

__attribute__((target("avx2,fma"))) double dotAvx2(const double *a, const double *b, int n) {
  __m256d acc0 = _mm256_setzero_pd(), acc1 = acc0, acc2 = acc0, acc3 = acc0;
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    acc0 = _mm256_fmadd_pd(_mm256_loadu_pd(a + i), _mm256_loadu_pd(b + i), acc0);
    acc1 = _mm256_fmadd_pd(_mm256_loadu_pd(a + i + 4), _mm256_loadu_pd(b + i + 4), acc1);
    acc2 = _mm256_fmadd_pd(_mm256_loadu_pd(a + i + 8), _mm256_loadu_pd(b + i + 8), acc2);
    acc3 = _mm256_fmadd_pd(_mm256_loadu_pd(a + i + 12), _mm256_loadu_pd(b + i + 12), acc3);
  }
  for (; i + 4 <= n; i += 4) acc0 = _mm256_fmadd_pd(_mm256_loadu_pd(a + i), _mm256_loadu_pd(b + i), acc0);
  double sum = reduceAvx2(acc0, acc1, acc2, acc3);
  for (; i < n; ++i) sum += a[i] * b[i];
  return sum;
}
#endif

// ---- element-wise helpers shared by the in-place and two-operand forms ----

// Square roots of src into dst (may alias); returns true when some element
// was negative (its result is NaN, as the IEEE square root gives).
bool sqrtInto(const float *src, float *dst, int len) {
  bool negative = false;
  for (int i = 0; i < len; ++i) {
    const float x = src[i];
    if (x < 0.0f) negative = true;
    dst[i] = std::sqrt(x);
  }
  return negative;
}

}  // namespace

double dotProduct(const float *a, const float *b, int n) {
#ifdef XKL_KFX_X86
  if (simdActive()) return dotAvx2(a, b, n);
#endif
  return dotPortable(a, b, n);
}

double dotProductDouble(const double *a, const double *b, int n) {
#ifdef XKL_KFX_X86
  if (simdActive()) return dotAvx2(a, b, n);
#endif
  return dotPortable(a, b, n);
}

}  // namespace kfx

using kfx::badArg;
using kfx::kModArith;
using kfx::kModMisc;
using kfx::kModVec;

extern "C" {

// ---- square root, thresholds, logarithm, exponential ----

void kfxsbSqrt1(float *vec, int len) {
  if (vec == nullptr) return badArg("kfxsbSqrt1", "vec==0", kModVec, __LINE__);
  if (len <= 0) return badArg("kfxsbSqrt1", "len<=0", kModVec, __LINE__);
  if (kfx::sqrtInto(vec, vec, len))
    badArg("kfxsbSqrt1", "Element of input vector is negative", kModVec, __LINE__);
}

void kfxsbSqrt2(const float *src, float *dst, int len) {
  if (src == nullptr) return badArg("kfxsbSqrt2", "src==0", kModVec, __LINE__);
  if (dst == nullptr) return badArg("kfxsbSqrt2", "dst==0", kModVec, __LINE__);
  if (len <= 0) return badArg("kfxsbSqrt2", "len<=0", kModVec, __LINE__);
  if (kfx::sqrtInto(src, dst, len))
    badArg("kfxsbSqrt2", "Element of input vector is negative", kModVec, __LINE__);
}

void kfxsbThresh1(float *vec, int len, float thresh, int relOp) {
  if (vec == nullptr) return badArg("kfxsbThresh1", "vec==0", kModVec, __LINE__);
  if (len <= 0) return badArg("kfxsbThresh1", "len<=0", kModVec, __LINE__);
  if (relOp == 0) {
    for (int i = 0; i < len; ++i)
      if (vec[i] < thresh) vec[i] = thresh;
  } else {
    for (int i = 0; i < len; ++i)
      if (vec[i] > thresh) vec[i] = thresh;
  }
}

void kfxsbInvThresh1(float *vec, int len, float thresh) {
  if (vec == nullptr) return badArg("kfxsbInvThresh1", "vec==0", kModVec, __LINE__);
  if (len <= 0) return badArg("kfxsbInvThresh1", "len<=0", kModVec, __LINE__);
  if (!(thresh >= 0.0f)) return badArg("kfxsbInvThresh1", "thresh<0.0f", kModVec, __LINE__);
  // With a zero threshold a zero element has no inverse; look before writing
  // so the vector stays untouched.
  if (thresh == 0.0f)
    for (int i = 0; i < len; ++i)
      if (vec[i] == 0.0f) return badArg("kfxsbInvThresh1", "zero element and zero thresh", kModVec, __LINE__);
  for (int i = 0; i < len; ++i) {
    float x = vec[i];
    // Small magnitudes are raised to the threshold, keeping their sign.
    if (std::fabs(x) < thresh) x = std::copysign(thresh, x);
    vec[i] = 1.0f / x;
  }
}

void kfxsbLn1(float *vec, int len) {
  if (vec == nullptr) return badArg("kfxsbLn1", "vec==0", kModVec, __LINE__);
  if (len <= 0) return badArg("kfxsbLn1", "len<=0", kModVec, __LINE__);
  for (int i = 0; i < len; ++i) vec[i] = std::log(vec[i]);
}

void kfxsbExp1(float *vec, int len) {
  if (vec == nullptr) return badArg("kfxsbExp1", "vec==0", kModVec, __LINE__);
  if (len <= 0) return badArg("kfxsbExp1", "len<=0", kModVec, __LINE__);
  for (int i = 0; i < len; ++i) vec[i] = std::exp(vec[i]);
}

// ---- complex magnitude and power (src holds re, im pairs) ----
// Squares are summed in double: no overflow for large spectra, one rounding.

void kfxcbMag(const float *src, float *mag, int length) {
  if (src == nullptr) return badArg("kfxcbMag", "src==0", kModVec, __LINE__);
  if (mag == nullptr) return badArg("kfxcbMag", "mag==0", kModVec, __LINE__);
  if (length <= 0) return badArg("kfxcbMag", "length<=0", kModVec, __LINE__);
  for (int i = 0; i < length; ++i) {
    const double re = src[2 * i], im = src[2 * i + 1];
    mag[i] = static_cast<float>(std::sqrt(re * re + im * im));
  }
}

void kfxcbPowerSpectr(const float *src, float *spectr, int length) {
  if (src == nullptr) return badArg("kfxcbPowerSpectr", "src==0", kModVec, __LINE__);
  if (spectr == nullptr) return badArg("kfxcbPowerSpectr", "spectr==0", kModVec, __LINE__);
  if (length <= 0) return badArg("kfxcbPowerSpectr", "length<=0", kModVec, __LINE__);
  for (int i = 0; i < length; ++i) {
    const double re = src[2 * i], im = src[2 * i + 1];
    spectr[i] = static_cast<float>(re * re + im * im);
  }
}

// ---- conversions between 16-bit integers and float ----

// Every 16-bit value is exact in float, so bitWidth and flags change nothing.
void kfxsbIntToFloat(const short *src, float *dst, int len, int bitWidth, int flags) {
  (void)bitWidth;
  (void)flags;
  if (src == nullptr) return badArg("kfxsbIntToFloat", "src==0", kModMisc, __LINE__);
  if (dst == nullptr) return badArg("kfxsbIntToFloat", "dst==0", kModMisc, __LINE__);
  if (len <= 0) return badArg("kfxsbIntToFloat", "len<=0", kModMisc, __LINE__);
  for (int i = 0; i < len; ++i) dst[i] = static_cast<float>(src[i]);
}

// Rounds to nearest (halves away from zero) and saturates to the signed range
// of bitWidth bits, -2^(bitWidth-1) .. 2^(bitWidth-1)-1; a bitWidth outside
// 1..16 means 16. NaN becomes 0. flags is reserved.
void kfxsbFloatToInt(const float *src, short *dst, int len, int bitWidth, int flags) {
  (void)flags;
  if (src == nullptr) return badArg("kfxsbFloatToInt", "src==0", kModMisc, __LINE__);
  if (dst == nullptr) return badArg("kfxsbFloatToInt", "dst==0", kModMisc, __LINE__);
  if (len <= 0) return badArg("kfxsbFloatToInt", "len<=0", kModMisc, __LINE__);
  const int bits = (bitWidth >= 1 && bitWidth <= 16) ? bitWidth : 16;
  const double hi = static_cast<double>((1 << (bits - 1)) - 1);
  const double lo = -static_cast<double>(1 << (bits - 1));
  for (int i = 0; i < len; ++i) {
    const double x = src[i];
    double r = std::round(x);
    if (!(r >= lo)) r = (x != x) ? 0.0 : lo;  // NaN -> 0, below range -> lo
    if (r > hi) r = hi;
    dst[i] = static_cast<short>(r);
  }
}

// ---- zero, set, copy ----

void kfxsbZero(float *dst, int n) {
  if (dst == nullptr) return badArg("kfxsbZero", "dst==0", kModMisc, __LINE__);
  if (n <= 0) return badArg("kfxsbZero", "n<=0", kModMisc, __LINE__);
  for (int i = 0; i < n; ++i) dst[i] = 0.0f;
}

void kfxwbZero(short *dst, int n) {
  if (dst == nullptr) return badArg("kfxwbZero", "dst==0", kModMisc, __LINE__);
  if (n <= 0) return badArg("kfxwbZero", "n<=0", kModMisc, __LINE__);
  std::memset(dst, 0, static_cast<std::size_t>(n) * sizeof(short));
}

void kfxsbSet(float value, float *dst, int n) {
  if (dst == nullptr) return badArg("kfxsbSet", "dst==0", kModMisc, __LINE__);
  if (n <= 0) return badArg("kfxsbSet", "n<=0", kModMisc, __LINE__);
  for (int i = 0; i < n; ++i) dst[i] = value;
}

void kfxwbSet(short value, short *dst, int n) {
  if (dst == nullptr) return badArg("kfxwbSet", "dst==0", kModMisc, __LINE__);
  if (n <= 0) return badArg("kfxwbSet", "n<=0", kModMisc, __LINE__);
  for (int i = 0; i < n; ++i) dst[i] = value;
}

// Overlapping vectors are copied as if through a temporary.
void kfxsbCopy(const float *src, float *dst, int n) {
  if (src == nullptr) return badArg("kfxsbCopy", "src==0", kModMisc, __LINE__);
  if (dst == nullptr) return badArg("kfxsbCopy", "dst==0", kModMisc, __LINE__);
  if (n <= 0) return badArg("kfxsbCopy", "n<=0", kModMisc, __LINE__);
  std::memmove(dst, src, static_cast<std::size_t>(n) * sizeof(float));
}

void kfxwbCopy(const short *src, short *dst, int n) {
  if (src == nullptr) return badArg("kfxwbCopy", "src==0", kModMisc, __LINE__);
  if (dst == nullptr) return badArg("kfxwbCopy", "dst==0", kModMisc, __LINE__);
  if (n <= 0) return badArg("kfxwbCopy", "n<=0", kModMisc, __LINE__);
  std::memmove(dst, src, static_cast<std::size_t>(n) * sizeof(short));
}

// ---- arithmetic ----

void kfxsbMpy1(float value, float *vec, int n) {
  if (vec == nullptr) return badArg("kfxsbMpy1", "dst==0", kModArith, __LINE__);
  if (n <= 0) return badArg("kfxsbMpy1", "n<=0", kModArith, __LINE__);
  for (int i = 0; i < n; ++i) vec[i] *= value;
}

// Returns 0 after an argument error.
double kfxsDotProd(const float *srcA, const float *srcB, int n) {
  if (srcA == nullptr) return badArg("kfxsDotProd", "srcA==0", kModArith, __LINE__), 0.0;
  if (srcB == nullptr) return badArg("kfxsDotProd", "srcB==0", kModArith, __LINE__), 0.0;
  if (n <= 0) return badArg("kfxsDotProd", "n<=0", kModArith, __LINE__), 0.0;
  return kfx::dotProduct(srcA, srcB, n);
}

}  // extern "C"
