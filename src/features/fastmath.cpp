// Element loops of the cepstrum that dominate its time: the logarithm of a
// whole spectrum, the power of the complex bins, the floor, the filter sums
// and pre-emphasis. Each has a portable form and an AVX2 form doing the same
// operations in the same order, so both give identical bits, except the
// logarithm: its vector form fuses the multiply-adds of the polynomial (a
// tenth of the whole cepstrum's time), which the portable form could only do
// by calling fmaf, slow without the instruction. Both logarithms stay within
// 1 ulp of the exact value. (The filter sums fuse too, without effect: a
// float product is exact in double.)
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "features/features_internal.h"
#include "frame/cpu.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define XKL_FEATURES_X86 1
#include <immintrin.h>
#endif

namespace xk::features {
namespace {

std::atomic<bool> simdOff{false};

// The vectorised loops need AVX2 and FMA; asked once.
bool useAvx2() {
  static const bool available = cpuFeatures().avx2 && cpuFeatures().fma;
  return available && !simdOff.load(std::memory_order_relaxed);
}

// log(x) = e ln2 + log(m), m in [sqrt(1/2), sqrt(2)), with a minimax
// polynomial for log(1 + t) - t + t^2/2 (|t| < 0.2929) and ln2 split in two
// parts so that e ln2 adds without rounding error.
constexpr float kSqrtHalf = 0.707106781186547524f;
constexpr float kLn2Hi = 0.693359375f;
constexpr float kLn2Lo = -2.12194440e-4f;
constexpr float kP[9] = {7.0376836292e-2f,  -1.1514610310e-1f, 1.1676998740e-1f,
                         -1.2420140846e-1f, 1.4249322787e-1f,  -1.6668057665e-1f,
                         2.0000714765e-1f,  -2.4999993993e-1f, 3.3333331174e-1f};

inline bool plainPositive(float x) {
  // Normal, positive and finite: the polynomial's domain.
  return x >= 1.17549435e-38f && x <= 3.40282347e38f;
}

float lnScalar(float x) {
  if (!plainPositive(x)) return std::log(x);
  std::uint32_t bits;
  std::memcpy(&bits, &x, 4);
  float e = static_cast<float>(static_cast<int>(bits >> 23) - 126);
  bits = (bits & 0x007fffffu) | 0x3f000000u;  // mantissa in [0.5, 1)
  float m;
  std::memcpy(&m, &bits, 4);
  if (m < kSqrtHalf) {
    e = e - 1.0f;
    m = (m + m) - 1.0f;
  } else {
    m = m - 1.0f;
  }
  const float z = m * m;
  float y = kP[0];
  for (int i = 1; i < 9; ++i) y = y * m + kP[i];
  y = (y * m) * z;
  y = y + e * kLn2Lo;
  y = y - 0.5f * z;
  float r = m + y;
  r = r + e * kLn2Hi;
  return r;
}

#ifdef XKL_FEATURES_X86
// Logarithm of eight values into dst (see lnScalar; specials by std::log).
__attribute__((target("avx2,fma"), always_inline)) inline void lnVec(__m256 x, float *dst) {
  const __m256 lo = _mm256_set1_ps(1.17549435e-38f), hi = _mm256_set1_ps(3.40282347e38f);
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 ok = _mm256_and_ps(_mm256_cmp_ps(x, lo, _CMP_GE_OQ), _mm256_cmp_ps(x, hi, _CMP_LE_OQ));
  const __m256i bits = _mm256_castps_si256(x);
  __m256 e = _mm256_cvtepi32_ps(_mm256_sub_epi32(_mm256_srli_epi32(bits, 23), _mm256_set1_epi32(126)));
  __m256 m = _mm256_castsi256_ps(_mm256_or_si256(_mm256_and_si256(bits, _mm256_set1_epi32(0x007fffff)),
                                                 _mm256_set1_epi32(0x3f000000)));
  const __m256 small = _mm256_cmp_ps(m, _mm256_set1_ps(kSqrtHalf), _CMP_LT_OQ);
  e = _mm256_sub_ps(e, _mm256_and_ps(small, one));
  m = _mm256_sub_ps(_mm256_add_ps(m, _mm256_and_ps(small, m)), one);
  const __m256 z = _mm256_mul_ps(m, m);
  __m256 y = _mm256_set1_ps(kP[0]);
  for (int k = 1; k < 9; ++k) y = _mm256_fmadd_ps(y, m, _mm256_set1_ps(kP[k]));
  y = _mm256_mul_ps(_mm256_mul_ps(y, m), z);
  y = _mm256_fmadd_ps(e, _mm256_set1_ps(kLn2Lo), y);
  y = _mm256_fnmadd_ps(_mm256_set1_ps(0.5f), z, y);
  __m256 r = _mm256_add_ps(m, y);
  r = _mm256_fmadd_ps(e, _mm256_set1_ps(kLn2Hi), r);
  const int good = _mm256_movemask_ps(ok);
  if (good == 0xff) return _mm256_storeu_ps(dst, r);
  alignas(32) float xs[8];
  _mm256_store_ps(xs, x);
  _mm256_storeu_ps(dst, r);
  for (int l = 0; l < 8; ++l)
    if (!(good & (1 << l))) dst[l] = std::log(xs[l]);
}

__attribute__((target("avx2,fma"))) void lnAvx2(float *v, int n) {
  int i = 0;
  for (; i + 8 <= n; i += 8) lnVec(_mm256_loadu_ps(v + i), v + i);
  for (; i < n; ++i) v[i] = lnScalar(v[i]);
}

// re^2 + im^2 of bins k..k+7 from the 16 floats at 2k.
__attribute__((target("avx2"), always_inline)) inline __m256 powerVec(const float *p) {
  const __m256 a = _mm256_loadu_ps(p), b = _mm256_loadu_ps(p + 8);
  // hadd pairs: (a0+a1, a2+a3, b0+b1, b2+b3 | a4+a5, a6+a7, b4+b5, b6+b7)
  const __m256 h = _mm256_hadd_ps(_mm256_mul_ps(a, a), _mm256_mul_ps(b, b));
  return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(h), 0xd8));
}

__attribute__((target("avx2,fma"))) void logPowerAvx2(float *p, int n, bool useFloor, float floor) {
  const __m256 f = _mm256_set1_ps(floor);
  int k = 0;
  for (; k + 8 <= n; k += 8) {
    __m256 v = powerVec(p + 2 * k);
    if (useFloor) v = _mm256_blendv_ps(v, f, _mm256_cmp_ps(v, f, _CMP_LT_OQ));
    lnVec(v, p + k);
  }
  for (; k < n; ++k) {
    float v = p[2 * k] * p[2 * k] + p[2 * k + 1] * p[2 * k + 1];
    if (useFloor && v < floor) v = floor;
    p[k] = lnScalar(v);
  }
}

__attribute__((target("avx2"))) void powerAvx2(float *p, int n) {
  int k = 0;
  for (; k + 8 <= n; k += 8) _mm256_storeu_ps(p + k, powerVec(p + 2 * k));  // behind the reads
  for (; k < n; ++k) p[k] = p[2 * k] * p[2 * k] + p[2 * k + 1] * p[2 * k + 1];
}

__attribute__((target("avx2"))) void sqrtAvx2(float *v, int n) {
  int i = 0;
  for (; i + 8 <= n; i += 8) _mm256_storeu_ps(v + i, _mm256_sqrt_ps(_mm256_loadu_ps(v + i)));
  for (; i < n; ++i) v[i] = std::sqrt(v[i]);
}

__attribute__((target("avx2"))) void floorAvx2(float *v, int n, float floor) {
  const __m256 f = _mm256_set1_ps(floor);
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256 x = _mm256_loadu_ps(v + i);
    _mm256_storeu_ps(v + i, _mm256_blendv_ps(x, f, _mm256_cmp_ps(x, f, _CMP_LT_OQ)));
  }
  for (; i < n; ++i)
    if (v[i] < floor) v[i] = floor;
}

// Float products are exact in double, so the fused multiply-add rounds once,
// like the portable product-then-sum; the missing elements of the last group
// are loaded as zeros, which add nothing.
__attribute__((target("avx2,fma"))) void weightedSumsAvx2(const float *w, const int *len, int fixedLen,
                                                          const float *const *src, const float *vec, int rows,
                                                          float *out) {
  static const int kMask[8] = {-1, -1, -1, -1, 0, 0, 0, 0};
  for (int i = 0; i < rows; ++i) {
    const int n = len ? len[i] : fixedLen;
    const float *s = src ? src[i] : vec;
    __m256d acc = _mm256_setzero_pd();
    int j = 0;
    for (; j + 4 <= n; j += 4)
      acc = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(w + j)), _mm256_cvtps_pd(_mm_loadu_ps(s + j)), acc);
    if (j < n) {
      const __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i *>(kMask + 4 - (n - j)));
      acc = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_maskload_ps(w + j, m)), _mm256_cvtps_pd(_mm_maskload_ps(s + j, m)),
                            acc);
    }
    const __m128d pair = _mm_hadd_pd(_mm256_castpd256_pd128(acc), _mm256_extractf128_pd(acc, 1));
    out[i] = static_cast<float>(_mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair))));
    w += n > 0 ? n : 0;
  }
}

__attribute__((target("avx2"))) void preemphAvx2(float *x, double alpha, int n) {
  const __m256d a = _mm256_set1_pd(alpha);
  int i = n - 1;
  // Backwards in blocks of four: x[i-3..i] from x[i-4..i-1], none of which
  // has been written yet.
  for (; i - 3 >= 1; i -= 4) {
    const __m256d cur = _mm256_cvtps_pd(_mm_loadu_ps(x + i - 3));
    const __m256d prev = _mm256_cvtps_pd(_mm_loadu_ps(x + i - 4));
    _mm_storeu_ps(x + i - 3, _mm256_cvtpd_ps(_mm256_sub_pd(cur, _mm256_mul_pd(a, prev))));
  }
  for (; i >= 1; --i) x[i] = static_cast<float>(static_cast<double>(x[i]) - alpha * static_cast<double>(x[i - 1]));
}
#endif

}  // namespace

void lnInPlace(float *v, int n) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return lnAvx2(v, n);
#endif
  for (int i = 0; i < n; ++i) v[i] = lnScalar(v[i]);
}

void logPowerInPlace(float *p, int n, bool useFloor, float floor) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return logPowerAvx2(p, n, useFloor, floor);
#endif
  for (int k = 0; k < n; ++k) {
    float v = p[2 * k] * p[2 * k] + p[2 * k + 1] * p[2 * k + 1];
    if (useFloor && v < floor) v = floor;
    p[k] = lnScalar(v);
  }
}

void powerInPlace(float *p, int n) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return powerAvx2(p, n);
#endif
  for (int k = 0; k < n; ++k) {
    const float re = p[2 * k], im = p[2 * k + 1];
    p[k] = re * re + im * im;
  }
}

void sqrtInPlace(float *v, int n) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return sqrtAvx2(v, n);
#endif
  for (int i = 0; i < n; ++i) v[i] = std::sqrt(v[i]);
}

void floorInPlace(float *v, int n, float floor) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return floorAvx2(v, n, floor);
#endif
  for (int i = 0; i < n; ++i)
    if (v[i] < floor) v[i] = floor;
}

void weightedSums(const float *w, const int *len, int fixedLen, const float *const *src, const float *vec, int rows,
                  float *out) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return weightedSumsAvx2(w, len, fixedLen, src, vec, rows, out);
#endif
  for (int i = 0; i < rows; ++i) {
    const int n = len ? len[i] : fixedLen;
    const float *s = src ? src[i] : vec;
    double l[4] = {0, 0, 0, 0};
    for (int j = 0; j < n; ++j) l[j % 4] += static_cast<double>(w[j]) * s[j];
    out[i] = static_cast<float>((l[0] + l[1]) + (l[2] + l[3]));
    w += n > 0 ? n : 0;
  }
}

void preemphasizeInPlace(float *x, double alpha, int n) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return preemphAvx2(x, alpha, n);
#endif
  for (int i = n - 1; i >= 1; --i)
    x[i] = static_cast<float>(static_cast<double>(x[i]) - alpha * static_cast<double>(x[i - 1]));
}

bool setFeatureSimd(bool on) { return !simdOff.exchange(!on); }

void *allocAligned(size_t bytes) {
  if (bytes > static_cast<size_t>(INT_MAX) - 64) return nullptr;
  void *p = kfxMalloc(static_cast<int>(bytes));
  if (p != nullptr) std::memset(p, 0, bytes);
  return p;
}

void freeAligned(void *p) { kfxFree(p); }

}  // namespace xk::features
