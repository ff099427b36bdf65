// Conversions between float/double data and scaled 16-bit / 32-bit integers.
//
// Element rules shared by every form:
//  - unsaturated conversion truncates toward zero; a result outside the
//    destination range, and NaN, gives the integer with only the sign bit set
//    (-32768, -2147483648), which is what a truncating integer store of an x87
//    unit produces;
//  - saturated conversion looks at the source's bit pattern: a magnitude of
//    2^15 (2^31 for 32-bit results) or more, infinities and NaN included,
//    gives the largest value when the sign bit is clear and the smallest when
//    it is set; anything else truncates.
//
// The portable code computes products in long double, as written. The SIMD
// kernels compute them in float or double instead, which gives the same
// integers: the multiplier is a power of two (or 0 or infinity), so a product
// is exact unless it overflows (then the exact value is out of range too) or
// falls below the normal range (then it truncates to 0 either way). Float
// sources use float products only while the multiplier is a normal float
// (2^-126 .. 2^127); other scales take the portable code.
#include "frame/convert.h"

#include <atomic>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "frame/cpu.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__SSE2__) && \
    (defined(__GNUC__) || defined(__clang__))
#define XKL_CONVERT_X86 1
#include <immintrin.h>
#define XKL_TARGET_AVX2 __attribute__((target("avx2")))
#endif

namespace xk {
namespace {

// ---------------------------------------------------------------------------
// Element conversions: the reference semantics.

template <class Int>
Int truncStore(long double v) {
  constexpr long double lo = static_cast<long double>(std::numeric_limits<Int>::min()) - 1.0L;
  constexpr long double hi = static_cast<long double>(std::numeric_limits<Int>::max()) + 1.0L;
  if (v > lo && v < hi) return static_cast<Int>(v);  // truncation toward zero
  return std::numeric_limits<Int>::min();            // out of range or NaN
}

template <class Int, class Real>
Int saturateByBits(Real x) {
  using Bits = std::conditional_t<sizeof(Real) == 4, uint32_t, uint64_t>;
  constexpr Bits signBit = Bits{1} << (sizeof(Bits) * 8 - 1);
  constexpr Real limit = static_cast<Real>(std::numeric_limits<Int>::max()) + Real(1);
  Bits b = std::bit_cast<Bits>(x);
  if ((b & ~signBit) >= std::bit_cast<Bits>(limit))
    return (b & signBit) ? std::numeric_limits<Int>::min() : std::numeric_limits<Int>::max();
  return static_cast<Int>(x);  // |x| below the limit: truncation stays in range
}

// 2^-s with s taken as a 64-bit value, so that the extreme scales clamp like
// XKPower2 does instead of overflowing the negation.
double pow2Neg(int s) {
  long long k = -static_cast<long long>(s);
  if (k > 1024) k = 1024;
  if (k < -1087) k = -1087;
  return XKPower2(static_cast<int>(k));
}

// ---------------------------------------------------------------------------
// Portable block loops.

template <class Real, class Int>
void truncPortable(const Real *src, Int *dst, int n, bool multiply, long double mult) {
  for (int i = 0; i < n; ++i) {
    long double v = static_cast<long double>(src[i]);
    dst[i] = truncStore<Int>(multiply ? v * mult : v);
  }
}

template <class Real, class Int>
void saturatePortable(const Real *src, Int *dst, int n) {
  for (int i = 0; i < n; ++i) dst[i] = saturateByBits<Int>(src[i]);
}

template <class Src, class Dst>
void scaleUpPortable(const Src *src, Dst *dst, int n, int u) {
  if (u == 0) {
    for (int i = 0; i < n; ++i) dst[i] = static_cast<Dst>(src[i]);
    return;
  }
  long double mult = pow2Neg(u);
  for (int i = 0; i < n; ++i) dst[i] = static_cast<Dst>(static_cast<long double>(src[i]) * mult);
}

// Up-conversion in float or double: the product of an integer of at most 31
// bits and a power of two is exact in double, so one rounding to the
// destination remains, as in long double. Float products are used for 16-bit
// sources only while the multiplier is a normal float. Written as plain loops
// for the compiler to vectorise; instantiated once per instruction set.
template <class Acc, class Src, class Dst>
[[gnu::always_inline]] inline void scaleUpLoop(const Src *src, Dst *dst, int n, Acc mult) {
  for (int i = 0; i < n; ++i) dst[i] = static_cast<Dst>(static_cast<Acc>(src[i]) * mult);
}

template <class Acc, class Src, class Dst>
void scaleUpBaseline(const Src *src, Dst *dst, int n, Acc mult) {
  scaleUpLoop(src, dst, n, mult);
}

[[maybe_unused]] bool isNormalFloatPower(int k) { return k >= -126 && k <= 127; }

// ---------------------------------------------------------------------------
// SIMD kernels. Each block function converts a fixed number of elements; the
// drivers run it over the vector and pass the tail through a zero-padded
// buffer, so the tail takes the same instructions as the body.

#ifdef XKL_CONVERT_X86

template <class S, class D, int W, class P, void (*Block)(const S *, D *, P)>
inline void runBlocksSse2(const S *src, D *dst, int n, P p) {
  int i = 0;
  for (; i + W <= n; i += W) Block(src + i, dst + i, p);
  if (i < n) {
    S in[W] = {};
    D out[W];
    std::memcpy(in, src + i, sizeof(S) * (n - i));
    Block(in, out, p);
    std::memcpy(dst + i, out, sizeof(D) * (n - i));
  }
}

template <class S, class D, int W, class P, void (*Block)(const S *, D *, P)>
XKL_TARGET_AVX2 inline void runBlocksAvx2(const S *src, D *dst, int n, P p) {
  int i = 0;
  for (; i + W <= n; i += W) Block(src + i, dst + i, p);
  if (i < n) {
    S in[W] = {};
    D out[W];
    std::memcpy(in, src + i, sizeof(S) * (n - i));
    Block(in, out, p);
    std::memcpy(dst + i, out, sizeof(D) * (n - i));
  }
}

// --- SSE2 -------------------------------------------------------------------

// Lanes above 32767 get the sign-bit pattern; lanes below -32768 already
// saturate to -32768 in the following pack.
inline __m128i signPatternAbove16(__m128i v) {
  __m128i over = _mm_cmpgt_epi32(v, _mm_set1_epi32(32767));
  return _mm_or_si128(_mm_andnot_si128(over, v), _mm_slli_epi32(over, 31));
}

// Truncated lanes, or the saturation value chosen by the sign of `hi` where
// |bits| of `hi` reach `limitBits` (both taken from the same source word).
inline __m128i saturateSelect(__m128i truncated, __m128i hi, int limitBits, int maxValue) {
  __m128i mag = _mm_and_si128(hi, _mm_set1_epi32(0x7fffffff));
  __m128i big = _mm_cmpgt_epi32(mag, _mm_set1_epi32(limitBits - 1));
  __m128i sat = _mm_xor_si128(_mm_srai_epi32(hi, 31), _mm_set1_epi32(maxValue));
  return _mm_or_si128(_mm_andnot_si128(big, truncated), _mm_and_si128(big, sat));
}

// High words of four doubles, in element order.
inline __m128i highWords(__m128d a, __m128d b) {
  return _mm_castps_si128(
      _mm_shuffle_ps(_mm_castpd_ps(a), _mm_castpd_ps(b), _MM_SHUFFLE(3, 1, 3, 1)));
}

inline __m128i truncDouble4(__m128d a, __m128d b) {
  return _mm_unpacklo_epi64(_mm_cvttpd_epi32(a), _mm_cvttpd_epi32(b));
}

constexpr int kFloat2p15 = 0x47000000;     // bits of 32768.0f
constexpr int kFloat2p31 = 0x4f000000;     // bits of 2147483648.0f
constexpr int kDouble2p15Hi = 0x40e00000;  // high word of 32768.0
constexpr int kDouble2p31Hi = 0x41e00000;  // high word of 2147483648.0

void swTruncBlockSse2(const float *s, short *d, float mult) {
  __m128 m = _mm_set1_ps(mult);
  __m128i a = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(s), m));
  __m128i b = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(s + 4), m));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d),
                   _mm_packs_epi32(signPatternAbove16(a), signPatternAbove16(b)));
}

void siTruncBlockSse2(const float *s, int *d, float mult) {
  __m128 m = _mm_set1_ps(mult);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d),
                   _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(s), m)));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d + 4),
                   _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(s + 4), m)));
}

void dwTruncBlockSse2(const double *s, short *d, double mult) {
  __m128d m = _mm_set1_pd(mult);
  __m128i a = truncDouble4(_mm_mul_pd(_mm_loadu_pd(s), m), _mm_mul_pd(_mm_loadu_pd(s + 2), m));
  __m128i b = truncDouble4(_mm_mul_pd(_mm_loadu_pd(s + 4), m), _mm_mul_pd(_mm_loadu_pd(s + 6), m));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d),
                   _mm_packs_epi32(signPatternAbove16(a), signPatternAbove16(b)));
}

void diTruncBlockSse2(const double *s, int *d, double mult) {
  __m128d m = _mm_set1_pd(mult);
  _mm_storeu_si128(
      reinterpret_cast<__m128i *>(d),
      truncDouble4(_mm_mul_pd(_mm_loadu_pd(s), m), _mm_mul_pd(_mm_loadu_pd(s + 2), m)));
}

inline __m128i saturateFloat4(__m128 x, int limitBits, int maxValue) {
  return saturateSelect(_mm_cvttps_epi32(x), _mm_castps_si128(x), limitBits, maxValue);
}

inline __m128i saturateDouble4(const double *s, int limitHi, int maxValue) {
  __m128d a = _mm_loadu_pd(s), b = _mm_loadu_pd(s + 2);
  return saturateSelect(truncDouble4(a, b), highWords(a, b), limitHi, maxValue);
}

void swSatBlockSse2(const float *s, short *d, int) {
  __m128i a = saturateFloat4(_mm_loadu_ps(s), kFloat2p15, 32767);
  __m128i b = saturateFloat4(_mm_loadu_ps(s + 4), kFloat2p15, 32767);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d), _mm_packs_epi32(a, b));
}

void siSatBlockSse2(const float *s, int *d, int) {
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d),
                   saturateFloat4(_mm_loadu_ps(s), kFloat2p31, INT_MAX));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d + 4),
                   saturateFloat4(_mm_loadu_ps(s + 4), kFloat2p31, INT_MAX));
}

void dwSatBlockSse2(const double *s, short *d, int) {
  __m128i a = saturateDouble4(s, kDouble2p15Hi, 32767);
  __m128i b = saturateDouble4(s + 4, kDouble2p15Hi, 32767);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d), _mm_packs_epi32(a, b));
}

void diSatBlockSse2(const double *s, int *d, int) {
  _mm_storeu_si128(reinterpret_cast<__m128i *>(d), saturateDouble4(s, kDouble2p31Hi, INT_MAX));
}

// --- AVX2 -------------------------------------------------------------------

XKL_TARGET_AVX2 inline __m256i signPatternAbove16Avx2(__m256i v) {
  __m256i over = _mm256_cmpgt_epi32(v, _mm256_set1_epi32(32767));
  return _mm256_or_si256(_mm256_andnot_si256(over, v), _mm256_slli_epi32(over, 31));
}

XKL_TARGET_AVX2 inline __m256i saturateSelectAvx2(__m256i truncated, __m256i hi, int limitBits,
                                                  int maxValue) {
  __m256i mag = _mm256_and_si256(hi, _mm256_set1_epi32(0x7fffffff));
  __m256i big = _mm256_cmpgt_epi32(mag, _mm256_set1_epi32(limitBits - 1));
  __m256i sat = _mm256_xor_si256(_mm256_srai_epi32(hi, 31), _mm256_set1_epi32(maxValue));
  return _mm256_or_si256(_mm256_andnot_si256(big, truncated), _mm256_and_si256(big, sat));
}

// Packs two vectors of eight int32 into sixteen int16 in element order (the
// pack instruction works per 128-bit lane).
XKL_TARGET_AVX2 inline __m256i packOrdered16(__m256i a, __m256i b) {
  return _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), _MM_SHUFFLE(3, 1, 2, 0));
}

XKL_TARGET_AVX2 inline __m256i truncDouble8(__m256d a, __m256d b) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm256_cvttpd_epi32(a)),
                                 _mm256_cvttpd_epi32(b), 1);
}

// High words of eight doubles, in element order.
XKL_TARGET_AVX2 inline __m256i highWordsAvx2(__m256d a, __m256d b) {
  __m256 h = _mm256_shuffle_ps(_mm256_castpd_ps(a), _mm256_castpd_ps(b), _MM_SHUFFLE(3, 1, 3, 1));
  return _mm256_permute4x64_epi64(_mm256_castps_si256(h), _MM_SHUFFLE(3, 1, 2, 0));
}

XKL_TARGET_AVX2 void swTruncBlockAvx2(const float *s, short *d, float mult) {
  __m256 m = _mm256_set1_ps(mult);
  __m256i a = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_loadu_ps(s), m));
  __m256i b = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_loadu_ps(s + 8), m));
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d),
                      packOrdered16(signPatternAbove16Avx2(a), signPatternAbove16Avx2(b)));
}

XKL_TARGET_AVX2 void siTruncBlockAvx2(const float *s, int *d, float mult) {
  __m256 m = _mm256_set1_ps(mult);
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d),
                      _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_loadu_ps(s), m)));
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + 8),
                      _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_loadu_ps(s + 8), m)));
}

XKL_TARGET_AVX2 void dwTruncBlockAvx2(const double *s, short *d, double mult) {
  __m256d m = _mm256_set1_pd(mult);
  __m256i a =
      truncDouble8(_mm256_mul_pd(_mm256_loadu_pd(s), m), _mm256_mul_pd(_mm256_loadu_pd(s + 4), m));
  __m256i b = truncDouble8(_mm256_mul_pd(_mm256_loadu_pd(s + 8), m),
                           _mm256_mul_pd(_mm256_loadu_pd(s + 12), m));
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d),
                      packOrdered16(signPatternAbove16Avx2(a), signPatternAbove16Avx2(b)));
}

XKL_TARGET_AVX2 void diTruncBlockAvx2(const double *s, int *d, double mult) {
  __m256d m = _mm256_set1_pd(mult);
  _mm256_storeu_si256(
      reinterpret_cast<__m256i *>(d),
      truncDouble8(_mm256_mul_pd(_mm256_loadu_pd(s), m), _mm256_mul_pd(_mm256_loadu_pd(s + 4), m)));
}

XKL_TARGET_AVX2 inline __m256i saturateFloat8(__m256 x, int limitBits, int maxValue) {
  return saturateSelectAvx2(_mm256_cvttps_epi32(x), _mm256_castps_si256(x), limitBits, maxValue);
}

XKL_TARGET_AVX2 inline __m256i saturateDouble8(const double *s, int limitHi, int maxValue) {
  __m256d a = _mm256_loadu_pd(s), b = _mm256_loadu_pd(s + 4);
  return saturateSelectAvx2(truncDouble8(a, b), highWordsAvx2(a, b), limitHi, maxValue);
}

XKL_TARGET_AVX2 void swSatBlockAvx2(const float *s, short *d, int) {
  __m256i a = saturateFloat8(_mm256_loadu_ps(s), kFloat2p15, 32767);
  __m256i b = saturateFloat8(_mm256_loadu_ps(s + 8), kFloat2p15, 32767);
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d), packOrdered16(a, b));
}

XKL_TARGET_AVX2 void siSatBlockAvx2(const float *s, int *d, int) {
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d),
                      saturateFloat8(_mm256_loadu_ps(s), kFloat2p31, INT_MAX));
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + 8),
                      saturateFloat8(_mm256_loadu_ps(s + 8), kFloat2p31, INT_MAX));
}

XKL_TARGET_AVX2 void dwSatBlockAvx2(const double *s, short *d, int) {
  __m256i a = saturateDouble8(s, kDouble2p15Hi, 32767);
  __m256i b = saturateDouble8(s + 8, kDouble2p15Hi, 32767);
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d), packOrdered16(a, b));
}

XKL_TARGET_AVX2 void diSatBlockAvx2(const double *s, int *d, int) {
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(d), saturateDouble8(s, kDouble2p31Hi, INT_MAX));
}

template <class Acc, class Src, class Dst>
XKL_TARGET_AVX2 void scaleUpAvx2(const Src *src, Dst *dst, int n, Acc mult) {
  scaleUpLoop(src, dst, n, mult);
}

#endif  // XKL_CONVERT_X86

// ---------------------------------------------------------------------------
// Instruction-set choice.

// The kernels are compiled only for x86 builds with SSE2; AVX2 is probed.
ConvertIsa availableIsa() {
#ifdef XKL_CONVERT_X86
  const CpuFeatures &cpu = cpuFeatures();
  if (cpu.avx2) return ConvertIsa::Avx2;
  if (cpu.sse2) return ConvertIsa::Sse2;
#endif
  return ConvertIsa::Portable;
}

std::atomic<int> isaCap{static_cast<int>(ConvertIsa::Avx2)};

ConvertIsa activeIsa() {
  int cap = isaCap.load(std::memory_order_relaxed);
  int have = static_cast<int>(availableIsa());
  return static_cast<ConvertIsa>(cap < have ? cap : have);
}

// ---------------------------------------------------------------------------
// Block kernels by source and destination type.

template <class Real, class Int>
struct BlockKernels;

#ifdef XKL_CONVERT_X86
#define XKL_KERNELS(Real, Int, Mult, W2, trunc2, sat2, W3, trunc3, sat3)      \
  template <>                                                                 \
  struct BlockKernels<Real, Int> {                                            \
    static void trunc(ConvertIsa isa, const Real *s, Int *d, int n, Mult m) { \
      if (isa == ConvertIsa::Avx2)                                            \
        runBlocksAvx2<Real, Int, W3, Mult, trunc3>(s, d, n, m);               \
      else                                                                    \
        runBlocksSse2<Real, Int, W2, Mult, trunc2>(s, d, n, m);               \
    }                                                                         \
    static void saturate(ConvertIsa isa, const Real *s, Int *d, int n) {      \
      if (isa == ConvertIsa::Avx2)                                            \
        runBlocksAvx2<Real, Int, W3, int, sat3>(s, d, n, 0);                  \
      else                                                                    \
        runBlocksSse2<Real, Int, W2, int, sat2>(s, d, n, 0);                  \
    }                                                                         \
  };
XKL_KERNELS(float, short, float, 8, swTruncBlockSse2, swSatBlockSse2, 16, swTruncBlockAvx2,
            swSatBlockAvx2)
XKL_KERNELS(float, int, float, 8, siTruncBlockSse2, siSatBlockSse2, 16, siTruncBlockAvx2,
            siSatBlockAvx2)
XKL_KERNELS(double, short, double, 8, dwTruncBlockSse2, dwSatBlockSse2, 16, dwTruncBlockAvx2,
            dwSatBlockAvx2)
XKL_KERNELS(double, int, double, 4, diTruncBlockSse2, diSatBlockSse2, 8, diTruncBlockAvx2,
            diSatBlockAvx2)
#undef XKL_KERNELS
#endif

// Unsaturated conversion of a block, multiplied by 2^k unless k is 0.
template <class Real, class Int>
void truncBlock(const Real *src, Int *dst, int n, int k) {
  ConvertIsa isa = activeIsa();
#ifdef XKL_CONVERT_X86
  if (isa != ConvertIsa::Portable) {
    if constexpr (std::is_same_v<Real, float>) {
      if (isNormalFloatPower(k)) {
        BlockKernels<Real, Int>::trunc(isa, src, dst, n, static_cast<float>(XKPower2(k)));
        return;
      }
    } else {
      BlockKernels<Real, Int>::trunc(isa, src, dst, n, XKPower2(k));
      return;
    }
  }
#endif
  (void)isa;
  truncPortable(src, dst, n, k != 0, static_cast<long double>(XKPower2(k)));
}

template <class Real, class Int>
void saturateBlock(const Real *src, Int *dst, int n) {
#ifdef XKL_CONVERT_X86
  ConvertIsa isa = activeIsa();
  if (isa != ConvertIsa::Portable) {
    BlockKernels<Real, Int>::saturate(isa, src, dst, n);
    return;
  }
#endif
  saturatePortable(src, dst, n);
}

template <class Acc, class Src, class Dst>
void scaleUpFast(ConvertIsa isa, const Src *src, Dst *dst, int n, Acc mult) {
#ifdef XKL_CONVERT_X86
  if (isa == ConvertIsa::Avx2) {
    scaleUpAvx2(src, dst, n, mult);
    return;
  }
#endif
  (void)isa;
  scaleUpBaseline(src, dst, n, mult);
}

template <class Src, class Dst>
void scaleUpBlock(const Src *src, Dst *dst, int n, int u) {
  if (!src || !dst || n < 1) return;
  ConvertIsa isa = activeIsa();
  if (isa == ConvertIsa::Portable) {
    scaleUpPortable(src, dst, n, u);
    return;
  }
  double mult = pow2Neg(u);
  // 16-bit values times a normal float power of two are exact in float.
  if constexpr (std::is_same_v<Src, short> && std::is_same_v<Dst, float>) {
    if (u >= -127 && u <= 126) {  // 2^-u is a normal float
      scaleUpFast(isa, src, dst, n, static_cast<float>(mult));
      return;
    }
  }
  scaleUpFast(isa, src, dst, n, mult);
}

// ---------------------------------------------------------------------------
// Down-conversions.

struct ScaleLimits {
  int shift;  // bits of the destination below the sign bit
  int upper;  // largest order the automatic scale accepts
  int lower;  // smallest order the automatic scale accepts
};

int floatOrder(const float *v, int n) { return XKsMaxOrder(v, n); }

// One body for the four block forms. A null source or destination, or
// n < 1, converts nothing; the scale is handled as for any other vector (the
// automatic mode still asks the order function, which may report).
template <class Real, class Int>
int convertDownBlock(const Real *src, Int *dst, int n, int scaleMode, int *scaleFactor,
                     ScaleLimits lim, int (*order)(const Real *, int)) {
  int localScale = 0;
  int &scale = scaleFactor ? *scaleFactor : localScale;
  int count = (src && dst && n > 0) ? n : 0;

  switch (scaleMode) {
    case XK_FIXED_SCALE: {
      int s = scale;
      // -s clamped to XKPower2's range; this also keeps -INT_MIN out.
      int k = s <= -1024 ? 1024 : (s >= 1087 ? -1087 : -s);
      if (count) truncBlock(src, dst, count, k);
      return s;
    }
    case XK_NO_SCALE:
      if (count) truncBlock(src, dst, count, 0);
      scale = 0;
      return 0;
    case XK_AUTO_SCALE: {
      int e = order(src, n);
      if (e > lim.upper || e < lim.lower) {
        if (count) std::memset(dst, 0, sizeof(Int) * count);
        scale = e > lim.upper ? INT_MAX : 0;
        return scale;
      }
      if (count) truncBlock(src, dst, count, lim.shift - e);
      scale = e - lim.shift;
      return scale;
    }
    default:
      if (count) saturateBlock(src, dst, count);
      scale = 0;
      return 0;
  }
}

// One body for the four scalar forms; Int is the result's range.
template <class Int, class Real>
int convertDownScalar(Real value, int scaleMode, int *scaleFactor, ScaleLimits lim,
                      int (*order)(Real)) {
  int localScale = 0;
  int &scale = scaleFactor ? *scaleFactor : localScale;
  long double v = value;

  switch (scaleMode) {
    case XK_FIXED_SCALE:
      return truncStore<Int>(v * pow2Neg(scale));
    case XK_NO_SCALE:
      scale = 0;
      return truncStore<Int>(v);
    case XK_AUTO_SCALE: {
      int e = order(value);
      if (e > lim.upper) {
        scale = INT_MAX;
        return 0;
      }
      if (e < lim.lower) {
        scale = 0;
        return 0;
      }
      scale = e - lim.shift;
      return truncStore<Int>(v * XKPower2(lim.shift - e));
    }
    default:
      scale = 0;
      if (v < static_cast<long double>(std::numeric_limits<Int>::min()))
        return std::numeric_limits<Int>::min();
      if (v > static_cast<long double>(std::numeric_limits<Int>::max()))
        return std::numeric_limits<Int>::max();
      return truncStore<Int>(v);  // NaN gives the sign-bit pattern
  }
}

int floatValueOrder(float x) { return XKsMaxOrder(&x, 1); }
int doubleValueOrder(double x) { return dMaxOrder(&x, 1); }

// Shift, upper and lower limits of each form. They differ across the family
// and are kept as the interface has always had them.
constexpr ScaleLimits kBlockSW{15, 128, -125};
constexpr ScaleLimits kBlockDW{15, 128, -125};
constexpr ScaleLimits kBlockSI{31, 1024, -1021};
constexpr ScaleLimits kBlockDI{31, 1024, -1021};
constexpr ScaleLimits kScalarSW{15, 128, -125};
constexpr ScaleLimits kScalarDW{15, 1024, -1021};
constexpr ScaleLimits kScalarSI{31, 128, -125};
constexpr ScaleLimits kScalarDI{31, 128, -125};

}  // namespace

ConvertIsa convertIsaAvailable() { return availableIsa(); }

ConvertIsa activeConvertIsa() { return activeIsa(); }

ConvertIsa setConvertIsa(ConvertIsa isa) {
  return static_cast<ConvertIsa>(isaCap.exchange(static_cast<int>(isa)));
}

}  // namespace xk

using namespace xk;

extern "C" XKL_API int XKswbConvertDown(const float *src, short *dst, int n, int scaleMode,
                                        int *scaleFactor) {
  return convertDownBlock(src, dst, n, scaleMode, scaleFactor, kBlockSW, floatOrder);
}

extern "C" XKL_API int XKdwbConvertDown(const double *src, short *dst, int n, int scaleMode,
                                        int *scaleFactor) {
  return convertDownBlock(src, dst, n, scaleMode, scaleFactor, kBlockDW, dMaxOrder);
}

extern "C" XKL_API int XKsibConvertDown(const float *src, int *dst, int n, int scaleMode,
                                        int *scaleFactor) {
  return convertDownBlock(src, dst, n, scaleMode, scaleFactor, kBlockSI, floatOrder);
}

extern "C" XKL_API int XKdibConvertDown(const double *src, int *dst, int n, int scaleMode,
                                        int *scaleFactor) {
  return convertDownBlock(src, dst, n, scaleMode, scaleFactor, kBlockDI, dMaxOrder);
}

extern "C" XKL_API int XKswConvertDown(float value, int scaleMode, int *scaleFactor) {
  return convertDownScalar<short>(value, scaleMode, scaleFactor, kScalarSW, floatValueOrder);
}

extern "C" XKL_API int XKdwConvertDown(double value, int scaleMode, int *scaleFactor) {
  return convertDownScalar<short>(value, scaleMode, scaleFactor, kScalarDW, doubleValueOrder);
}

extern "C" XKL_API int XKsiConvertDown(float value, int scaleMode, int *scaleFactor) {
  return convertDownScalar<int>(value, scaleMode, scaleFactor, kScalarSI, floatValueOrder);
}

extern "C" XKL_API int XKdiConvertDown(double value, int scaleMode, int *scaleFactor) {
  return convertDownScalar<int>(value, scaleMode, scaleFactor, kScalarDI, doubleValueOrder);
}

extern "C" XKL_API void XKwsbConvertUp(const short *src, float *dst, int n, int u) {
  scaleUpBlock(src, dst, n, u);
}

extern "C" XKL_API void XKwdbConvertUp(const short *src, double *dst, int n, int u) {
  scaleUpBlock(src, dst, n, u);
}

extern "C" XKL_API void XKisbConvertUp(const int *src, float *dst, int n, int u) {
  scaleUpBlock(src, dst, n, u);
}

extern "C" XKL_API void XKidbConvertUp(const int *src, double *dst, int n, int u) {
  scaleUpBlock(src, dst, n, u);
}

extern "C" XKL_API double XKwdConvertUp(short value, int u) {
  return static_cast<double>(static_cast<long double>(value) * pow2Neg(u));
}

extern "C" XKL_API double XKidConvertUp(int value, int u) {
  return static_cast<double>(static_cast<long double>(value) * pow2Neg(u));
}
