// 16-bit forward orthonormal DCT-II in integer arithmetic:
//   dst[k] = w_k * sum_i src[i] * cos(pi * k * (2i+1) / (2 len)),
//   w_0 = 1/sqrt(len), w_k = sqrt(2/len).
// The cosines come from a Q30 table of one period, cos(pi*j/(2 len)) for
// j < 4 len, rounded to nearest (a quarter wave computed, the rest by
// symmetry); the cosine of term (k, i) is entry k*(2i+1) mod 4 len. Lengths
// up to 64 also keep the len x len matrix of these entries, so an output is
// one contiguous dot product. Products of a 16-bit sample and a Q30 cosine
// are summed exactly in 64 bits (in chunks of 2^17 terms, so no sum can
// wrap). The weight, the 2^-30 and the output scale are then applied in
// double (relative error below 2^-51) and the result is rounded to nearest,
// halves away from zero, and saturated. The cosine quantization bounds the
// error before that rounding by sqrt(2/len) * len * 2^15 * 2^-31 =
// sqrt(2 len) * 2^-16 output units (0.0005 for len 24, 0.007 for 1000).
//
// Scale modes follow the 16-bit FFT: KFX_FIXED_SCALE shifts right by
// *scaleFactor (none for a null pointer), KFX_AUTO_SCALE shifts right by
// (binary exponent of the peak) - 14 when the peak leaves the 16-bit range,
// so the results stay within +-2^14, and writes that shift (0 otherwise).
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <new>

#include "kernels/fft_tables.h"
#include "kernels/kfx_error.h"
#include "xkl/kfx.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define XKL_DCTW_HAVE_AVX2 1
#endif

namespace kfx {

// The integer 16-bit DCT with the argument checks and reports of kfxwDct.
void fixedDct16(const short *src, short *dst, int len, int scaleMode, int *scaleFactor);

namespace {

constexpr int kCosBits = 30;
constexpr std::size_t kChunk = std::size_t{1} << 17;  // 2^17 * 2^15 * 2^30 < 2^63
constexpr std::size_t kStackValues = 256;
constexpr int kCacheEntries = 4;
constexpr int kMaxMatrixLen = 64;  // up to here the cosines are also kept as a matrix

// One period of Q30 cosines for one length; for short lengths followed by
// the len x len matrix of the same values, row k holding the cosines of
// the terms (k, i), so each output is a contiguous dot product.
struct CosTable {
  int len = 0;
  std::int32_t *cos = nullptr;  // 4*len entries (+ len*len)
  const std::int32_t *matrix() const { return len <= kMaxMatrixLen ? cos + 4 * len : nullptr; }
};

// Each thread keeps the tables of its last few lengths, so concurrent calls
// share nothing and the tables go away with the thread.
struct ThreadCache {
  CosTable entries[kCacheEntries];
  int next = 0;
  double *work = nullptr;
  std::size_t workSize = 0;
  ~ThreadCache() {
    for (CosTable &e : entries) delete[] e.cos;
    delete[] work;
  }
};

thread_local ThreadCache tlsCache;

bool buildTable(CosTable &t, int len) {
  const std::size_t period = 4 * static_cast<std::size_t>(len);
  const std::size_t n = static_cast<std::size_t>(len);
  const std::size_t matrix = len <= kMaxMatrixLen ? n * n : 0;
  auto *c = new (std::nothrow) std::int32_t[period + matrix];
  if (!c) return false;
  const long double pi = 3.141592653589793238462643383279502884L;
  // Quarter wave from the cosine itself, the rest by symmetry, so that
  // equal magnitudes are quantized identically.
  const std::size_t quarter = static_cast<std::size_t>(len);
  for (std::size_t j = 0; j <= quarter; ++j)
    c[j] = static_cast<std::int32_t>(
        std::floor(std::cos(pi * j / (2.0L * len)) * (1L << kCosBits) + 0.5L));
  c[quarter] = 0;
  // Written with the read index rising: g++ 12.2 at -O1/-O2 miscompiles the
  // form c[j] = c[period - j] with j rising into a loop that stores nothing.
  for (std::size_t i = 0; i < quarter; ++i) c[2 * quarter - i] = -c[i];
  for (std::size_t i = 1; i < 2 * quarter; ++i) c[period - i] = c[i];
  if (matrix)
    for (std::size_t k = 0; k < n; ++k)
      for (std::size_t i = 0; i < n; ++i) c[period + k * n + i] = c[k * (2 * i + 1) % period];
  delete[] t.cos;
  t.cos = c;
  t.len = len;
  return true;
}

const CosTable *tableFor(int len) {
  for (const CosTable &e : tlsCache.entries)
    if (e.len == len) return &e;
  CosTable &slot = tlsCache.entries[tlsCache.next];
  if (!buildTable(slot, len)) {
    // Make room: drop the thread's other tables and try once more.
    for (CosTable &e : tlsCache.entries) {
      delete[] e.cos;
      e = CosTable{};
    }
    if (!buildTable(slot, len)) return nullptr;
  }
  tlsCache.next = (tlsCache.next + 1) % kCacheEntries;
  return &slot;
}

double *workFor(std::size_t n, double *stack) {
  if (n <= kStackValues) return stack;
  if (n > tlsCache.workSize) {
    auto *w = new (std::nothrow) double[n];
    if (!w) return nullptr;
    delete[] tlsCache.work;
    tlsCache.work = w;
    tlsCache.workSize = n;
  }
  return tlsCache.work;
}

// sum_i src[i] * cos(pi*k*(2i+1)/(2 len)), in Q30 units.
long double cosineSum(const short *src, std::size_t len, std::size_t k, const std::int32_t *cos) {
  const std::size_t period = 4 * len;
  const std::size_t step = (2 * k) % period;
  std::size_t j = k % period;
  long double total = 0;
  for (std::size_t start = 0; start < len; start += kChunk) {
    const std::size_t end = std::min(len, start + kChunk);
    std::int64_t acc = 0;
    for (std::size_t i = start; i < end; ++i) {
      acc += static_cast<std::int64_t>(src[i]) * cos[j];
      j += step;
      if (j >= period) j -= period;
    }
    total += static_cast<long double>(acc);
  }
  return total;
}

// sum_i src[i] * row[i], exact in 64 bits (len <= kMaxMatrixLen).
std::int64_t dotPortable(const short *src, const std::int32_t *row, std::size_t len) {
  std::int64_t acc = 0;
  for (std::size_t i = 0; i < len; ++i) acc += static_cast<std::int64_t>(src[i]) * row[i];
  return acc;
}

#ifdef XKL_DCTW_HAVE_AVX2
// Eight products per step: even and odd 32-bit lanes through vpmuldq.
__attribute__((target("avx2"))) std::int64_t dotAvx2(const short *src, const std::int32_t *row,
                                                     std::size_t len) {
  __m256i acc = _mm256_setzero_si256();
  std::size_t i = 0;
  for (; i + 8 <= len; i += 8) {
    const __m256i x = _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i)));
    const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(row + i));
    acc = _mm256_add_epi64(acc, _mm256_mul_epi32(x, c));
    acc = _mm256_add_epi64(acc, _mm256_mul_epi32(_mm256_srli_epi64(x, 32), _mm256_srli_epi64(c, 32)));
  }
  alignas(32) std::int64_t lanes[4];
  _mm256_store_si256(reinterpret_cast<__m256i *>(lanes), acc);
  return lanes[0] + lanes[1] + lanes[2] + lanes[3] + dotPortable(src + i, row + i, len - i);
}
#endif

// Rounds half away from zero and saturates; clamping first does not change
// the result, and after it v +- 0.5 is exact, so truncation rounds.
inline short roundSaturate(double v) {
  v = v < -32768.0 ? -32768.0 : (v > 32767.0 ? 32767.0 : v);
  return static_cast<short>(static_cast<int>(v + (v >= 0.0 ? 0.5 : -0.5)));
}

}  // namespace

void fixedDct16(const short *src, short *dst, int len, int scaleMode, int *scaleFactor) {
  static constexpr const char *kFunc = "kfxwDct";
  if (len < 1)
    return (void)report(KFX_StsBadArg, kFunc, "\nBad value of data buffer size\n", kModDct, __LINE__);
  if (!src) return (void)report(KFX_StsBadArg, kFunc, "src==0", kModDct, __LINE__);
  if (!dst) return (void)report(KFX_StsBadArg, kFunc, "dst==0", kModDct, __LINE__);
  if ((scaleMode & KFX_FIXED_SCALE) && (scaleMode & KFX_AUTO_SCALE))
    return (void)report(KFX_StsBadArg, kFunc, "(scaleMode & 0x0002) && (scaleMode & 0x0004)",
                        kModDct, __LINE__);
  if ((scaleMode & KFX_AUTO_SCALE) && !scaleFactor)
    return (void)report(KFX_StsBadArg, kFunc, "scaleFactor==0", kModDct, __LINE__);

  const std::size_t n = static_cast<std::size_t>(len);
  double stack[kStackValues];
  const CosTable *table = tableFor(len);
  double *y = table ? workFor(n, stack) : nullptr;
  if (!y) return (void)report(KFX_StsNoMem, kFunc, "\nNot enough memory\n", kModDct, __LINE__);

  // Weights folded with the Q30 scale of the sums.
  const double unit = std::ldexp(1.0, -kCosBits);
  const double w0 = unit / std::sqrt(static_cast<double>(len));
  const double wk = unit * std::sqrt(2.0 / static_cast<double>(len));
  const std::int32_t *matrix = table->matrix();
#ifdef XKL_DCTW_HAVE_AVX2
  const bool simd = kfx::simdActive();
#endif
  double lo = 0, hi = 0;
  for (std::size_t k = 0; k < n; ++k) {
    double sum;
    if (matrix) {
      const std::int32_t *row = matrix + k * n;
#ifdef XKL_DCTW_HAVE_AVX2
      sum = static_cast<double>(simd ? dotAvx2(src, row, n) : dotPortable(src, row, n));
#else
      sum = static_cast<double>(dotPortable(src, row, n));
#endif
    } else {
      sum = static_cast<double>(cosineSum(src, n, k, table->cos));
    }
    y[k] = sum * (k == 0 ? w0 : wk);
    lo = std::min(lo, y[k]);
    hi = std::max(hi, y[k]);
  }

  int shift = 0;
  if (scaleMode & KFX_AUTO_SCALE) {
    if (hi >= 32767.5 || lo <= -32768.5) {
      int e = 0;
      std::frexp(std::max(-lo, hi), &e);
      shift = e - 14;
    }
    *scaleFactor = shift;
  } else if ((scaleMode & KFX_FIXED_SCALE) && scaleFactor) {
    // Beyond these bounds every result is 0 or saturated either way.
    shift = std::clamp(*scaleFactor, -1000, 1000);
  }
  if (shift == 0) {
    for (std::size_t k = 0; k < n; ++k) dst[k] = roundSaturate(y[k]);
  } else {
    const double factor = std::ldexp(1.0, -shift);
    for (std::size_t k = 0; k < n; ++k) dst[k] = roundSaturate(y[k] * factor);
  }
}

}  // namespace kfx

extern "C" void kfxwDct(const short *src, short *dst, int len, int scaleMode, int *scaleFactor) {
  kfx::fixedDct16(src, dst, len, scaleMode, scaleFactor);
}
