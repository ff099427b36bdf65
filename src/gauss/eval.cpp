// Evaluation of Gauss mixture servers: the float form with the kernel
// layer's exponential and dot product, the 16-bit form with a table-driven
// fixed-point exponential and a 64-bit mixture accumulator.
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>

#include "frame/cpu.h"
#include "gauss/gauss_eval.h"
#include "gauss/gauss_internal.h"
#include "vq/mahalanobis.h"
#include "xkl/kfx.h"
#include "xkl/xk_vq.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define XKL_GAUSS_HAVE_AVX2 1
#endif

namespace xk::gauss {

namespace {

std::atomic<bool> simdOff{false};
bool simdOn() { return !simdOff.load(std::memory_order_relaxed) && xk::cpuFeatures().avx2; }

// Tables of the fixed-point exponential, generated once from exp():
// frac[k] = exp(k/1024) in Q10, neg[j] = exp(j - 22) in Q31, and exp(i) for
// i = 0..21 split as hi[i] + lo[i] * 2^-21 (hi the integer part, lo the
// fraction in Q21). The shifts of fixExp follow from these formats:
// frac * neg is Q41, hi * frac << 21 and lo * frac are Q31.
struct ExpTables {
  std::array<std::uint32_t, 1024> frac{};
  std::array<std::uint32_t, 22> neg{}, lo{}, hi{};
  ExpTables() {
    for (int k = 0; k < 1024; ++k) frac[k] = static_cast<std::uint32_t>(std::lround(std::exp(k / 1024.0) * 1024.0));
    for (int j = 0; j < 22; ++j) neg[j] = static_cast<std::uint32_t>(std::llround(std::exp(j - 22.0) * 2147483648.0));
    for (int i = 0; i < 22; ++i) {
      const double e = std::exp(static_cast<double>(i));
      const double h = std::floor(e);
      hi[i] = static_cast<std::uint32_t>(h);
      lo[i] = static_cast<std::uint32_t>(std::llround((e - h) * 2097152.0));
      if (lo[i] == 2097152u) lo[i] = 0, ++hi[i];
    }
  }
};

const ExpTables &tables() {
  static const ExpTables t;
  return t;
}

}  // namespace

void setSimdEnabled(bool on) { simdOff.store(!on, std::memory_order_relaxed); }

std::int32_t fixExp(std::int32_t x, int F, int R) {
  const ExpTables &t = tables();
  // Integer part (floor) and the fraction brought to 10 bits; F may exceed
  // 31 for extreme server scales, so the split is done in 64 bits.
  const std::int64_t x64 = x;
  std::int64_t i;
  std::uint32_t fr;
  if (F >= 32) {
    // |x| < 2^31 <= 2^F: the integer part is 0 or -1.
    const int fc = F > 62 ? 62 : F;
    i = x64 < 0 ? -1 : 0;
    const std::uint64_t part = static_cast<std::uint64_t>(x64 + (i < 0 ? (std::int64_t{1} << fc) : 0));
    fr = static_cast<std::uint32_t>(part >> (fc - 10));
  } else {
    i = x64 >> F;
    fr = static_cast<std::uint32_t>(x) & (0x7fffffffu >> (31 - F));
    if (F > 10)
      fr >>= (F - 10);
    else
      fr <<= (10 - F);
  }
  fr &= 1023u;
  if (i < 0) {
    if (i < -22 || (i == -22 && fr < 529)) return 0;
    const std::uint32_t e = t.neg[static_cast<std::size_t>(i + 22)];
    if (fr == 0) return static_cast<std::int32_t>(e >> (31 - R));
    const std::uint64_t p = static_cast<std::uint64_t>(e) * t.frac[fr];
    const int sh = 41 - R;
    if (sh >= 32) return static_cast<std::int32_t>((p >> 31) >> (10 - R));
    return static_cast<std::int32_t>(p >> sh);
  }
  if (i > 21 || (i == 21 && fr >= 499)) return 0x7fffffff;
  const std::uint64_t p = static_cast<std::uint64_t>(t.lo[static_cast<std::size_t>(i)]) * t.frac[fr] +
                          ((static_cast<std::uint64_t>(t.hi[static_cast<std::size_t>(i)]) * t.frac[fr]) << 21);
  if ((p >> 32) > (0x7fffffffu >> (R + 1))) return 0x7fffffff;
  return static_cast<std::int32_t>(p >> (31 - R));
}

std::int32_t mixAccumulate(const std::int32_t *work, const short *weights, int nMix, int scaleMode,
                           int *pScaleFactor) {
  // Exact 64-bit sum, formed as the byte-wise products of the 32-bit values
  // (three unsigned low bytes, the signed top byte), each column summed in
  // 32 bits.
  std::uint32_t b0 = 0, b1 = 0, b2 = 0, b3 = 0;
  for (int m = 0; m < nMix; ++m) {
    const std::uint32_t v = static_cast<std::uint32_t>(work[m]);
    const std::int32_t w = weights[m];
    b0 += static_cast<std::uint32_t>(static_cast<std::int32_t>(v & 0xff) * w);
    b1 += static_cast<std::uint32_t>(static_cast<std::int32_t>((v >> 8) & 0xff) * w);
    b2 += static_cast<std::uint32_t>(static_cast<std::int32_t>((v >> 16) & 0xff) * w);
    b3 += static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<std::int8_t>(v >> 24)) * w);
  }
  const std::int64_t S = static_cast<std::int64_t>(static_cast<std::int32_t>(b0)) +
                         static_cast<std::int64_t>(static_cast<std::int32_t>(b1)) * 256 +
                         static_cast<std::int64_t>(static_cast<std::int32_t>(b2)) * 65536 +
                         static_cast<std::int64_t>(static_cast<std::int32_t>(b3)) * 16777216;
  const std::int32_t high = static_cast<std::int32_t>(S >> 32);
  const std::uint32_t low = static_cast<std::uint32_t>(S);
  if (scaleMode == 1) {
    const int k = *pScaleFactor;
    if (k >= 34) return high >> 31;
    if (k >= 2) return high >> (k - 2);
    if (k > -31) return static_cast<std::int32_t>(S >> (k + 30));
    if (k < -61) return 0;
    return static_cast<std::int32_t>(low << ((-(k + 30)) & 31));
  }
  if (scaleMode == 2) {
    const std::uint64_t a = S < 0 ? 0 - static_cast<std::uint64_t>(S) : static_cast<std::uint64_t>(S);
    const std::uint32_t ah = static_cast<std::uint32_t>(a >> 32), al = static_cast<std::uint32_t>(a);
    if (ah != 0) {
      const int h = 31 - __builtin_clz(ah);
      *pScaleFactor = h - 27;
      return static_cast<std::int32_t>(S >> (h + 3));
    }
    if (al == 0) {
      *pScaleFactor = 0;
      return 0;
    }
    const int top = 31 - __builtin_clz(al);
    if (top < 30) {
      *pScaleFactor = -30;
      return static_cast<std::int32_t>(low);
    }
    *pScaleFactor = -28 - (31 - top);
    return static_cast<std::int32_t>(S >> (2 - (31 - top)));
  }
  *pScaleFactor = 0;
  return static_cast<std::int32_t>(S >> 30);
}

double sDiagDistance(const float *x, const float *m, const float *iv, int n) {
  double a0 = 0.0, a1 = 0.0, a2 = 0.0, a3 = 0.0;
  auto term = [&](int i) {
    const double d = static_cast<double>(x[i]) - static_cast<double>(m[i]);
    return d * d * static_cast<double>(iv[i]);
  };
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    a0 += term(i);
    a1 += term(i + 1);
    a2 += term(i + 2);
    a3 += term(i + 3);
  }
  if (i < n) a0 += term(i);
  if (i + 1 < n) a1 += term(i + 1);
  if (i + 2 < n) a2 += term(i + 2);
  return (a0 + a2) + (a1 + a3);
}

namespace {

#ifdef XKL_GAUSS_HAVE_AVX2
constexpr int kPaddedMax = 256;  // longest vector the vectorised path copies to the stack

// One step of a component's distance on four double lanes: lane j sums the
// terms i = j mod 4 in order, as sDiagDistance does; separate multiplies
// and adds so that the bits agree.
__attribute__((target("avx2"))) inline __m256d diagStep(__m256d acc, __m256d x, const float *mu, const float *iv) {
  const __m256d d = _mm256_sub_pd(x, _mm256_cvtps_pd(_mm_load_ps(mu)));
  return _mm256_add_pd(acc, _mm256_mul_pd(_mm256_mul_pd(d, d), _mm256_cvtps_pd(_mm_load_ps(iv))));
}

// (lane 0 + lane 2) + (lane 1 + lane 3), then -|d| / 2 as a float.
__attribute__((target("avx2"))) inline float diagFinish(__m256d acc) {
  const __m128d pair = _mm_add_pd(_mm256_castpd256_pd128(acc), _mm256_extractf128_pd(acc, 1));
  const double dist = _mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair)));
  return static_cast<float>(-std::fabs(dist) * 0.5);
}

// All components of a diagonal server, four at a time so that four
// independent sums hide the latency of the additions. The rows run over
// their padding (zero in mean and inverse variance) against a zero-padded
// copy of x: each padding term adds an exact 0. Components of weight +0 get
// 0 afterwards.
__attribute__((target("avx2"))) void sDiagDistancesAvx2(const GaussMixServer *s, const float *xIn, int dim,
                                                        float *work) {
  alignas(16) float x[kPaddedMax];
  const int dimPad = static_cast<int>(pad4(dim));
  for (int i = 0; i < dimPad; ++i) x[i] = i < dim ? xIn[i] : 0.0f;
  const auto *w = static_cast<const float *>(s->weights);
  const int nMix = s->nMix;
  auto mu = [&](int k) { return static_cast<const float *>(s->means[k]); };
  auto iv = [&](int k) { return static_cast<const float *>(s->InverseCovD[k]); };
  int k = 0;
  for (; k + 4 <= nMix; k += 4) {
    __m256d a0 = _mm256_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
    const float *m0 = mu(k), *m1 = mu(k + 1), *m2 = mu(k + 2), *m3 = mu(k + 3);
    const float *v0 = iv(k), *v1 = iv(k + 1), *v2 = iv(k + 2), *v3 = iv(k + 3);
    for (int i = 0; i < dimPad; i += 4) {
      const __m256d xv = _mm256_cvtps_pd(_mm_load_ps(x + i));
      a0 = diagStep(a0, xv, m0 + i, v0 + i);
      a1 = diagStep(a1, xv, m1 + i, v1 + i);
      a2 = diagStep(a2, xv, m2 + i, v2 + i);
      a3 = diagStep(a3, xv, m3 + i, v3 + i);
    }
    work[k] = diagFinish(a0);
    work[k + 1] = diagFinish(a1);
    work[k + 2] = diagFinish(a2);
    work[k + 3] = diagFinish(a3);
  }
  for (; k < nMix; ++k) {
    __m256d a = _mm256_setzero_pd();
    for (int i = 0; i < dimPad; i += 4) a = diagStep(a, _mm256_cvtps_pd(_mm_load_ps(x + i)), mu(k) + i, iv(k) + i);
    work[k] = diagFinish(a);
  }
  for (k = 0; k < nMix; ++k)
    if (w[k] == 0.0f && !std::signbit(w[k])) work[k] = 0.0f;
}

// 16-bit diagonal distances of all components, as wMahalanobisDiagRaw: the
// differences and their products with the inverse variances wrap to 16
// bits, the pair sums and the total to 32 bits, so any order gives the same
// value. The rows run over their zero padding against a zero-padded x.
__attribute__((target("avx2"))) void wDiagDistancesAvx2(const GaussMixServer *s, const short *xIn, int dim,
                                                        std::int32_t *dist) {
  alignas(32) short x[kPaddedMax];
  const int dimPad = static_cast<int>(pad4(dim));
  for (int i = 0; i < dimPad; ++i) x[i] = i < dim ? xIn[i] : 0;
  const auto *w = static_cast<const short *>(s->weights);
  for (int k = 0; k < s->nMix; ++k) {
    if (w[k] == 0) continue;
    const auto *mu = static_cast<const short *>(s->means[k]);
    const auto *iv = static_cast<const short *>(s->InverseCovD[k]);
    __m256i acc = _mm256_setzero_si256();
    int i = 0;
    for (; i + 16 <= dimPad; i += 16) {
      const __m256i d = _mm256_sub_epi16(_mm256_load_si256(reinterpret_cast<const __m256i *>(x + i)),
                                         _mm256_loadu_si256(reinterpret_cast<const __m256i *>(mu + i)));
      const __m256i p = _mm256_mullo_epi16(d, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(iv + i)));
      acc = _mm256_add_epi32(acc, _mm256_madd_epi16(d, p));
    }
    __m128i sum = _mm_add_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
    for (; i + 8 <= dimPad; i += 8) {
      const __m128i d = _mm_sub_epi16(_mm_load_si128(reinterpret_cast<const __m128i *>(x + i)),
                                      _mm_loadu_si128(reinterpret_cast<const __m128i *>(mu + i)));
      const __m128i p = _mm_mullo_epi16(d, _mm_loadu_si128(reinterpret_cast<const __m128i *>(iv + i)));
      sum = _mm_add_epi32(sum, _mm_madd_epi16(d, p));
    }
    if (i < dimPad) {  // four left
      const __m128i d = _mm_sub_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(x + i)),
                                      _mm_loadl_epi64(reinterpret_cast<const __m128i *>(mu + i)));
      const __m128i p = _mm_mullo_epi16(d, _mm_loadl_epi64(reinterpret_cast<const __m128i *>(iv + i)));
      sum = _mm_add_epi32(sum, _mm_madd_epi16(d, p));
    }
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, 0x4e));
    sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, 0xb1));
    dist[k] = _mm_cvtsi128_si32(sum);
  }
}
#endif

}  // namespace
}  // namespace xk::gauss

using namespace xk::gauss;

extern "C" XKL_API double XKsEvalGaussMix(GaussMixServer *server, const float *x, int dim) {
  const int nMix = server->nMix;
  auto *work = static_cast<float *>(server->work);
  const auto *w = static_cast<const float *>(server->weights);
  if (nMix < 1) return 0.0;
  if (server->InverseCovD != nullptr) {
#ifdef XKL_GAUSS_HAVE_AVX2
    if (simdOn() && dim <= kPaddedMax && dim == server->dim) {
      sDiagDistancesAvx2(server, x, dim, work);
    } else
#endif
    {
      for (int m = 0; m < nMix; ++m) {
        if (w[m] == 0.0f && !std::signbit(w[m])) {
          work[m] = 0.0f;
          continue;
        }
        const double d = sDiagDistance(x, static_cast<const float *>(server->means[m]),
                                       static_cast<const float *>(server->InverseCovD[m]), dim);
        work[m] = static_cast<float>(-std::fabs(d) * 0.5);
      }
    }
  } else {
    for (int m = 0; m < nMix; ++m) {
      if (w[m] == 0.0f && !std::signbit(w[m])) {
        work[m] = 0.0f;
        continue;
      }
      const double d = XKsMahalanobis(x, static_cast<const float *>(server->means[m]),
                                      reinterpret_cast<float *const *>(server->InverseCov[m]), dim, 0);
      work[m] = static_cast<float>(-std::fabs(d) * 0.5);
    }
  }
  kfxsbExp1(work, nMix);
  return kfxsDotProd(work, server->coefs, nMix);
}

extern "C" XKL_API int XKwEvalGaussMix(GaussMixServer *server, const short *x, int dim, int scaleMode,
                                       int *pScaleFactor) {
  int local = 0;
  if (pScaleFactor == nullptr) pScaleFactor = &local;
  // Shift rule in 64 bits: any scale word (a file's included) is safe.
  const std::int64_t f = 1 - static_cast<std::int64_t>(server->scale);
  const std::int64_t L = f >= 1 ? 0 : -f;
  const int F = f >= 1 ? static_cast<int>(f > 63 ? 63 : f) : 0;
  const int nMix = server->nMix;
  auto *work = static_cast<std::int32_t *>(server->work);
  const auto *w = static_cast<const short *>(server->weights);
  // The distances go to work first, then each is replaced by its exponential.
  bool haveDistances = false;
#ifdef XKL_GAUSS_HAVE_AVX2
  if (server->InverseCovD != nullptr && simdOn() && dim <= kPaddedMax && dim == server->dim) {
    wDiagDistancesAvx2(server, x, dim, work);
    haveDistances = true;
  }
#endif
  for (int m = 0; m < nMix; ++m) {
    if (w[m] == 0) {
      work[m] = 0;
      continue;
    }
    const auto *mu = static_cast<const short *>(server->means[m]);
    std::int32_t d = haveDistances ? work[m]
                     : server->InverseCovD != nullptr
                         ? xk::wMahalanobisDiagRaw(x, mu, static_cast<const short *>(server->InverseCovD[m]), dim)
                         : xk::wMahalanobisFullRaw(x, mu, reinterpret_cast<const short *const *>(server->InverseCov[m]),
                                                   dim);
    std::uint32_t a = static_cast<std::uint32_t>(d);
    if (d < 0) a = 0u - a;
    const std::uint32_t shifted = L >= 32 ? 0u : a << L;  // modulo 2^32
    work[m] = fixExp(static_cast<std::int32_t>(0u - shifted), F, 30);
  }
  if (nMix <= 1) return scaleMode;
  return mixAccumulate(work, w, nMix, scaleMode, pScaleFactor);
}
