// Element loops of the cepstrum that dominate its time: the logarithm of a
// whole spectrum and the power of the complex bins. Each has a portable form
// and an AVX2 form doing the same float operations in the same order (no
// fused multiply-add), so both give identical bits.
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

bool useAvx2() { return !simdOff.load(std::memory_order_relaxed) && cpuFeatures().avx2; }

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
__attribute__((target("avx2"))) void lnAvx2(float *v, int n) {
  const __m256 lo = _mm256_set1_ps(1.17549435e-38f), hi = _mm256_set1_ps(3.40282347e38f);
  const __m256i mantMask = _mm256_set1_epi32(0x007fffff), half = _mm256_set1_epi32(0x3f000000);
  const __m256i bias = _mm256_set1_epi32(126);
  const __m256 one = _mm256_set1_ps(1.0f), sqrtHalf = _mm256_set1_ps(kSqrtHalf);
  const __m256 halfF = _mm256_set1_ps(0.5f);
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256 x = _mm256_loadu_ps(v + i);
    const __m256 ok = _mm256_and_ps(_mm256_cmp_ps(x, lo, _CMP_GE_OQ), _mm256_cmp_ps(x, hi, _CMP_LE_OQ));
    const __m256i bits = _mm256_castps_si256(x);
    __m256 e = _mm256_cvtepi32_ps(_mm256_sub_epi32(_mm256_srli_epi32(bits, 23), bias));
    __m256 m = _mm256_castsi256_ps(_mm256_or_si256(_mm256_and_si256(bits, mantMask), half));
    const __m256 small = _mm256_cmp_ps(m, sqrtHalf, _CMP_LT_OQ);
    e = _mm256_sub_ps(e, _mm256_and_ps(small, one));
    m = _mm256_sub_ps(_mm256_add_ps(m, _mm256_and_ps(small, m)), one);
    const __m256 z = _mm256_mul_ps(m, m);
    __m256 y = _mm256_set1_ps(kP[0]);
    for (int k = 1; k < 9; ++k) y = _mm256_add_ps(_mm256_mul_ps(y, m), _mm256_set1_ps(kP[k]));
    y = _mm256_mul_ps(_mm256_mul_ps(y, m), z);
    y = _mm256_add_ps(y, _mm256_mul_ps(e, _mm256_set1_ps(kLn2Lo)));
    y = _mm256_sub_ps(y, _mm256_mul_ps(halfF, z));
    __m256 r = _mm256_add_ps(m, y);
    r = _mm256_add_ps(r, _mm256_mul_ps(e, _mm256_set1_ps(kLn2Hi)));
    const int good = _mm256_movemask_ps(ok);
    if (good == 0xff) {
      _mm256_storeu_ps(v + i, r);
    } else {
      alignas(32) float xs[8];
      _mm256_store_ps(xs, x);
      _mm256_storeu_ps(v + i, r);
      for (int l = 0; l < 8; ++l)
        if (!(good & (1 << l))) v[i + l] = std::log(xs[l]);
    }
  }
  for (; i < n; ++i) v[i] = lnScalar(v[i]);
}

__attribute__((target("avx2"))) void powerAvx2(float *p, int n) {
  int k = 0;
  // Eight bins (16 floats) per step; writes stay behind the reads.
  for (; k + 8 <= n; k += 8) {
    const __m256 a = _mm256_loadu_ps(p + 2 * k), b = _mm256_loadu_ps(p + 2 * k + 8);
    const __m256 sa = _mm256_mul_ps(a, a), sb = _mm256_mul_ps(b, b);
    // hadd pairs: (a0+a1, a2+a3, b0+b1, b2+b3 | a4+a5, a6+a7, b4+b5, b6+b7)
    const __m256 h = _mm256_hadd_ps(sa, sb);
    const __m256 r = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(h), 0xd8));
    _mm256_storeu_ps(p + k, r);
  }
  for (; k < n; ++k) {
    const float re = p[2 * k], im = p[2 * k + 1];
    p[k] = re * re + im * im;
  }
}

__attribute__((target("avx2"))) void sqrtAvx2(float *v, int n) {
  int i = 0;
  for (; i + 8 <= n; i += 8) _mm256_storeu_ps(v + i, _mm256_sqrt_ps(_mm256_loadu_ps(v + i)));
  for (; i < n; ++i) v[i] = std::sqrt(v[i]);
}
#endif

}  // namespace

void lnInPlace(float *v, int n) {
#ifdef XKL_FEATURES_X86
  if (useAvx2()) return lnAvx2(v, n);
#endif
  for (int i = 0; i < n; ++i) v[i] = lnScalar(v[i]);
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

bool setFeatureSimd(bool on) { return !simdOff.exchange(!on); }

void *allocAligned(size_t bytes) {
  if (bytes > static_cast<size_t>(INT_MAX) - 64) return nullptr;
  void *p = kfxMalloc(static_cast<int>(bytes));
  if (p != nullptr) std::memset(p, 0, bytes);
  return p;
}

void freeAligned(void *p) { kfxFree(p); }

}  // namespace xk::features
