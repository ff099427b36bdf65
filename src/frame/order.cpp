// Orders of float, double, 16-bit and int vectors, and the power of two.
//
// The order of a vector is the least e such that every magnitude is below
// 2^e. The loops below compare bit patterns only (no floating-point
// comparison), so they vectorise and treat NaN as larger than infinity.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "frame/convert.h"
#include "frame/report.h"

namespace xk {
namespace {

constexpr int kLineDoubleOrder = 1250;
constexpr int kLineIntOrder = 1355;

// The loops below are plain C++ for the compiler to vectorise. Each is
// compiled twice, for the baseline instruction set and for AVX2 (which has the
// 32- and 64-bit maximum and compare instructions the baseline lacks); the
// AVX2 copy is taken when the conversions may use AVX2.
#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define XKL_ORDER_AVX2 1
#define XKL_TARGET_AVX2 __attribute__((target("avx2")))
#endif

// Largest magnitude bit pattern as a signed value: with the sign bit cleared,
// signed comparison orders magnitudes, NaN above infinity. For floats the
// order is its exponent field.
template <class Real>
[[gnu::always_inline]] inline auto maxAbsBitsLoop(const Real *v, int n) {
  using Bits = std::conditional_t<sizeof(Real) == 4, int32_t, int64_t>;
  constexpr Bits mask = std::numeric_limits<Bits>::max();
  Bits m = 0;
  for (int i = 0; i < n; ++i) {
    Bits a = std::bit_cast<Bits>(v[i]) & mask;
    m = a > m ? a : m;
  }
  return m;
}

// OR of the magnitudes; the most negative value contributes its magnitude
// (32768 for 16-bit, 2^31 for int).
template <class Int>
[[gnu::always_inline]] inline uint32_t orMagnitudesLoop(const Int *v, int n) {
  uint32_t acc = 0;
  for (int i = 0; i < n; ++i) {
    uint32_t x = static_cast<uint32_t>(static_cast<int32_t>(v[i]));
    acc |= (v[i] < 0) ? 0u - x : x;
  }
  return acc;
}

template <class Real>
auto maxAbsBitsBaseline(const Real *v, int n) {
  return maxAbsBitsLoop(v, n);
}

#if defined(__SSE2__)
// SSE2 has no 32-bit maximum, but the exponent field lies in the upper half
// of the word, so the signed 16-bit maximum of the sign-cleared upper halves
// finds it. The result keeps only those upper halves (enough for the order).
int32_t maxAbsBitsBaseline(const float *v, int n) {
  const __m128i mask = _mm_set1_epi32(0x7fffffff);
  __m128i m0 = _mm_setzero_si128(), m1 = _mm_setzero_si128();
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    __m128i a = _mm_and_si128(_mm_castps_si128(_mm_loadu_ps(v + i)), mask);
    __m128i b = _mm_and_si128(_mm_castps_si128(_mm_loadu_ps(v + i + 4)), mask);
    m0 = _mm_max_epi16(m0, a);
    m1 = _mm_max_epi16(m1, b);
  }
  alignas(16) int32_t lanes[4];
  _mm_store_si128(reinterpret_cast<__m128i *>(lanes), _mm_max_epi16(m0, m1));
  int32_t high = 0;
  for (int32_t lane : lanes) high = std::max(high, lane >> 16);
  int32_t m = high << 16;
  int32_t rest = maxAbsBitsLoop(v + i, n - i);
  return std::max(m, rest & 0x7fff0000);
}
#endif
template <class Int>
uint32_t orMagnitudesBaseline(const Int *v, int n) {
  return orMagnitudesLoop(v, n);
}

#ifdef XKL_ORDER_AVX2
template <class Real>
XKL_TARGET_AVX2 auto maxAbsBitsAvx2(const Real *v, int n) {
  return maxAbsBitsLoop(v, n);
}
template <class Int>
XKL_TARGET_AVX2 uint32_t orMagnitudesAvx2(const Int *v, int n) {
  return orMagnitudesLoop(v, n);
}
#endif

template <class Real>
auto maxAbsBits(const Real *v, int n) {
  ConvertIsa isa = activeConvertIsa();
#ifdef XKL_ORDER_AVX2
  if (isa == ConvertIsa::Avx2) return maxAbsBitsAvx2(v, n);
#endif
  if (isa == ConvertIsa::Portable) return maxAbsBitsLoop(v, n);
  return maxAbsBitsBaseline(v, n);
}

template <class Int>
uint32_t orMagnitudes(const Int *v, int n) {
#ifdef XKL_ORDER_AVX2
  if (activeConvertIsa() == ConvertIsa::Avx2) return orMagnitudesAvx2(v, n);
#endif
  return orMagnitudesBaseline(v, n);
}

// Float exponent field minus 126: denormals and zero count as field 0, so an
// all-zero vector has order -126; infinity and NaN give 129.
int floatOrderFromBits(int32_t bits) { return static_cast<int>(bits >> 23) - 126; }

// 2^(1087 - 64k) as doubles; the first entry, 2^1087, is infinity.
constexpr int kPow2Top = 1087;
struct Pow2Tables {
  double coarse[34];
  float fine[64];
};

constexpr Pow2Tables makePow2Tables() {
  Pow2Tables t{};
  t.coarse[0] = std::numeric_limits<double>::infinity();
  double p = 1.0;
  for (int i = 0; i < 1023; ++i) p *= 2.0;  // 2^1023, exact
  for (int k = 1; k < 34; ++k) {
    t.coarse[k] = p;  // 2^(1087 - 64k), down to the denormal 2^-1025
    for (int i = 0; i < 64; ++i) p *= 0.5;
  }
  float f = 1.0f;
  for (int j = 0; j < 64; ++j) {
    t.fine[j] = f;  // 2^-j
    f *= 0.5f;
  }
  return t;
}

constexpr Pow2Tables kPow2 = makePow2Tables();

}  // namespace

int dMaxOrder(const double *inVect, int n) {
  if (n < 1) report(XK_StsBadArg, "XKdMaxOrder", "n<=0", kModConvert, kLineDoubleOrder);
  if (!inVect) report(XK_StsBadArg, "XKdMaxOrder", "inVect==0", kModConvert, kLineDoubleOrder);
  if (statusFailed()) return 0;
  if (n < 1 || !inVect) return 0;  // reachable only when a handler cleared the status

  int64_t m = maxAbsBits(inVect, n);
  // Infinity exceeds the largest finite double; NaN is taken as larger still.
  if (m >= std::bit_cast<int64_t>(std::numeric_limits<double>::infinity())) return 1025;
  // Normal M = 1.f * 2^(field - 1023) = 0.1f * 2^(field - 1022).
  if (m >= std::bit_cast<int64_t>(std::numeric_limits<double>::min()))
    return static_cast<int>(m >> 52) - 1022;
  return -1022;
}

int iMaxOrder(const int *inVect, int n) {
  if (n < 1) report(XK_StsBadArg, "XKiMaxOrder", "n<=0", kModConvert, kLineIntOrder);
  if (!inVect) report(XK_StsBadArg, "XKiMaxOrder", "inVect==0", kModConvert, kLineIntOrder);
  if (statusFailed()) return 0;
  if (n < 1 || !inVect) return 0;

  uint32_t acc = orMagnitudes(inVect, n);
  // Unlike the 16-bit order, an all-zero int vector counts as one bit.
  return acc == 0 ? 1 : static_cast<int>(std::bit_width(acc));
}

}  // namespace xk

using namespace xk;

// An empty or null vector is treated like an all-zero one: order -126.
extern "C" XKL_API int XKsMaxOrder(const float *vec, int n) {
  if (!vec || n < 1) return floatOrderFromBits(0);
  return floatOrderFromBits(maxAbsBits(vec, n));
}

// An empty or null vector is treated like an all-zero one: order 0.
extern "C" XKL_API int XKwMaxOrder(const short *vec, int n) {
  if (!vec || n < 1) return 0;
  return static_cast<int>(std::bit_width(orMagnitudes(vec, n)));
}

// A null row table gives 0 like an empty matrix; a null row counts as zeros.
extern "C" XKL_API int XKsMaxMatrixOrder(float *const *rows, int nRows, int nCols) {
  if (!rows || nRows < 1 || nCols < 1) return 0;
  int32_t m = 0;
  for (int r = 0; r < nRows; ++r) {
    if (!rows[r]) continue;
    int32_t a = maxAbsBits(rows[r], nCols);
    m = a > m ? a : m;
  }
  return floatOrderFromBits(m);
}

extern "C" XKL_API int XKwMaxMatrixOrder(short *const *rows, int nRows, int nCols) {
  if (!rows || nRows < 1 || nCols < 1) return 0;
  uint32_t acc = 0;
  for (int r = 0; r < nRows; ++r)
    if (rows[r]) acc |= orMagnitudes(rows[r], nCols);
  return static_cast<int>(std::bit_width(acc));
}

// Two table lookups and one product: 2^n = 2^(1087 - 64k) * 2^-j with
// 1087 - n = 64k + j. The product rounds in double, so -1075 (half the
// smallest denormal) and below give 0, and 1024 gives infinity.
extern "C" XKL_API double XKPower2(int n) {
  if (n > 1024) n = 1024;
  if (n < -kPow2Top) n = -kPow2Top;
  int m = kPow2Top - n;
  return kPow2.coarse[m / 64] * static_cast<double>(kPow2.fine[m % 64]);
}
