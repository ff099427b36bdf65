// 16-bit real FFT: an integer algorithm for small frames and a route through
// the float transform for the rest. Flag 8192 forces the integer algorithm,
// otherwise 16384 or an order above 7 selects the float route.
//
// Integer algorithm (order m, N = 2^m, M = N/2 complex points):
//   - each input sample x becomes x * 64 (6 guard bits);
//   - forward: the even/odd samples form M complex values, loaded in
//     bit-reversed order; a radix-2 decimation-in-time complex FFT; then the
//     DC/Nyquist split and the real-split stage, which produce 2*X[k] (the
//     halving of the split is folded into the output shift, so no bit is lost);
//   - inverse: the spectrum is folded into M complex values
//     Z[k] = (X[k] + conj X[M-k]) + i W^-k (X[k] - conj X[M-k]), stored in
//     bit-reversed order, and run through the inverse complex FFT, which yields
//     N * (x[2n] + i x[2n+1]);
//   - orders 0 and 1 are a copy and a sum/difference of the scaled inputs.
// Twiddles are Q30 (cos, sin) pairs rounded to nearest; each complex product
// is one 64-bit dot product rounded to nearest (+2^29, arithmetic shift by 30).
// Values are 32-bit for orders up to 7 (every intermediate stays below 2^30),
// 64-bit beyond, where 32 bits could wrap; the 64-bit products are split so
// that no 128-bit arithmetic is needed and the rounding stays exact.
// The result v goes to 16 bits by an arithmetic right shift s (6, plus 1 for
// the doubled forward output, plus the order for a scaled inverse, plus a
// fixed scale factor), a negative v below 2^s in magnitude giving 0, then
// saturation. Automatic scaling shifts further by (bit length of the largest
// shifted magnitude) - 14 when that magnitude leaves the 16-bit range.
//
// Float route: the shorts go through kfxsRealFftl and come back rounded to
// nearest (halves away from zero) and saturated, after the fixed or the
// automatic scale (the peak's binary exponent - 14, as above).
//
// The integer twiddle tables are process-wide, one per order, built once and
// published atomically; the working values live on the stack for frames up
// to 4 KiB and otherwise in a buffer owned by the calling thread. The AVX2
// kernels (chosen at run time, see kfx::simdActive) compute exactly
// what the portable code computes.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "kernels/fft_tables.h"
#include "kernels/kfx_error.h"
#include "xkl/kfx.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define XKL_FFTW_HAVE_AVX2 1
#endif

namespace kfx::fftw {

// Test hooks: the next `count` integer table or scratch allocations fail
// (count < 0: all fail until reset with 0); the float route's conversion to
// 16 bits (times 2^-shift, rounded, saturated) on a chosen path.
void failIntAllocations(int count);
void floatTo16(const float *f, short *out, std::size_t n, int shift, bool simd);

}  // namespace kfx::fftw

namespace kfx::fftw {
namespace {

constexpr int kTwdBits = 30;
constexpr std::int64_t kTwdHalf = std::int64_t{1} << (kTwdBits - 1);
constexpr int kGuardBits = 6;
constexpr int kMaxInt32Order = 7;    // 32-bit values suffice up to here
constexpr int kMaxIntDefaultOrder = 7;  // integer algorithm by default up to here
constexpr std::size_t kStackBytes = 4096;

std::atomic<int> gFailAllocs{0};

bool allocationRefused() {
  int pending = gFailAllocs.load(std::memory_order_relaxed);
  while (pending != 0) {
    if (pending < 0) return true;
    if (gFailAllocs.compare_exchange_weak(pending, pending - 1)) return true;
  }
  return false;
}

// ---- integer twiddle tables ----

struct IntTwdTable {
  int order;
  std::size_t points;             // M
  const std::uint32_t *bitRev;    // M entries
  // Q30 (cos, sin) of 2*pi*j/(2h), j < h, for the stage of half length h,
  // starting at pair h-1 (stages h = 1, 2, 4, ..., M/2).
  const std::int32_t *stage;
  // Q30 (cos, sin) of pi*k/M, k = 0..M/2, for the real-split stage.
  const std::int32_t *split;
};

std::atomic<IntTwdTable *> gIntTables[kfx::fft::kSlots];

std::int32_t toQ30(long double v) {
  return static_cast<std::int32_t>(std::floor(std::ldexp(v, kTwdBits) + 0.5L));
}

void destroyIntTable(IntTwdTable *t) { kfx::fft::tableFree(t); }

IntTwdTable *buildIntTable(int order) {
  if (allocationRefused()) return nullptr;
  const std::size_t m = std::size_t{1} << (order - 1);
  const std::size_t splitPairs = m / 2 + 1;
  const std::size_t bytes = sizeof(IntTwdTable) + m * sizeof(std::uint32_t) +
                            2 * (m - 1 + splitPairs) * sizeof(std::int32_t);
  void *block = kfx::fft::tableAlloc(bytes);
  if (!block) return nullptr;
  auto *t = static_cast<IntTwdTable *>(block);
  auto *rev = reinterpret_cast<std::uint32_t *>(t + 1);
  auto *stage = reinterpret_cast<std::int32_t *>(rev + m);
  std::int32_t *split = stage + 2 * (m - 1);

  int bits = order - 1;
  for (std::size_t j = 0; j < m; ++j) {
    std::uint32_t r = 0;
    for (int b = 0; b < bits; ++b) r |= static_cast<std::uint32_t>((j >> b) & 1u) << (bits - 1 - b);
    rev[j] = r;
  }
  const long double pi = 3.141592653589793238462643383279502884L;
  for (std::size_t h = 1; h < m; h <<= 1) {
    std::int32_t *w = stage + 2 * (h - 1);
    for (std::size_t j = 0; j < h; ++j) {
      const long double a = pi * static_cast<long double>(j) / static_cast<long double>(h);
      w[2 * j] = toQ30(std::cos(a));
      w[2 * j + 1] = toQ30(std::sin(a));
    }
  }
  for (std::size_t k = 0; k < splitPairs; ++k) {
    const long double a = pi * static_cast<long double>(k) / static_cast<long double>(m);
    split[2 * k] = toQ30(std::cos(a));
    split[2 * k + 1] = toQ30(std::sin(a));
  }
  // Exact values where the angle is a multiple of pi/2, so the split stage
  // of k = M/2 and the quarter-turn twiddles stay exact.
  split[0] = 1 << kTwdBits;
  split[1] = 0;
  split[2 * (m / 2)] = 0;
  split[2 * (m / 2) + 1] = 1 << kTwdBits;
  t->order = order;
  t->points = m;
  t->bitRev = rev;
  t->stage = stage;
  t->split = split;
  return t;
}

const IntTwdTable *intTable(int order) {
  std::atomic<IntTwdTable *> &slot = gIntTables[order];
  if (IntTwdTable *t = slot.load(std::memory_order_acquire)) return t;
  IntTwdTable *fresh = buildIntTable(order);
  if (!fresh) return nullptr;
  return kfx::fft::publishTable(slot, fresh, destroyIntTable);
}

void releaseIntTables() {
  for (auto &slot : gIntTables)
    if (IntTwdTable *t = slot.exchange(nullptr, std::memory_order_acq_rel)) destroyIntTable(t);
}

// ---- per-thread scratch ----

// Frames up to kStackBytes of working values use the stack; larger ones a
// buffer owned by the calling thread, kept and regrown, so concurrent
// transforms never share working memory. It is freed at thread exit or by
// kfxFreeIntTwdTbls for the calling thread.
struct ThreadScratch {
  void *block = nullptr;
  std::size_t bytes = 0;
  ~ThreadScratch() { release(); }
  void release() {
    if (block) ::operator delete(block, std::align_val_t{32});
    block = nullptr;
    bytes = 0;
  }
  bool reserve(std::size_t need) {
    if (need <= bytes) return true;
    if (allocationRefused()) return false;
    void *fresh = ::operator new(need, std::align_val_t{32}, std::nothrow);
    if (!fresh) return false;
    release();
    block = fresh;
    bytes = need;
    return true;
  }
};

thread_local ThreadScratch tlsScratch;

// ---- integer arithmetic ----

// round((a*c + b*s) / 2^30) for 32-bit values: one 64-bit dot product.
inline std::int32_t dotQ30(std::int32_t a, std::int32_t c, std::int32_t b, std::int32_t s) {
  return static_cast<std::int32_t>(
      (static_cast<std::int64_t>(a) * c + static_cast<std::int64_t>(b) * s + kTwdHalf) >> kTwdBits);
}

// The same for 64-bit values (|a|, |b| < 2^60): a = ah*2^30 + al with
// 0 <= al < 2^30, so a*c = ah*c*2^30 + al*c and the rounding of the low
// part alone is exact.
inline std::int64_t dotQ30(std::int64_t a, std::int32_t c, std::int64_t b, std::int32_t s) {
  constexpr std::int64_t mask = (std::int64_t{1} << kTwdBits) - 1;
  const std::int64_t ah = a >> kTwdBits, al = a & mask;
  const std::int64_t bh = b >> kTwdBits, bl = b & mask;
  return ah * c + bh * s + ((al * c + bl * s + kTwdHalf) >> kTwdBits);
}

// The first two radix-2 stages of a DIT FFT on four complex points in
// bit-reversed order (p[0..7], interleaved): their factors are 1 and -i
// (+i inverse), so they are exact.
template <class T, bool Inverse>
inline void radix4First(T *p, T x0r, T x0i, T x1r, T x1i, T x2r, T x2i, T x3r, T x3i) {
  const T u0r = x0r + x1r, u0i = x0i + x1i;
  const T u1r = x0r - x1r, u1i = x0i - x1i;
  const T u2r = x2r + x3r, u2i = x2i + x3i;
  const T u3r = x2r - x3r, u3i = x2i - x3i;
  const T tr = Inverse ? -u3i : u3i;
  const T ti = Inverse ? u3r : -u3r;
  p[0] = u0r + u2r;
  p[1] = u0i + u2i;
  p[4] = u0r - u2r;
  p[5] = u0i - u2i;
  p[2] = u1r + tr;
  p[3] = u1i + ti;
  p[6] = u1r - tr;
  p[7] = u1i - ti;
}

// The radix-2 stages of half length h = 4, 8, ..., m/2, in place.
template <class T, bool Inverse>
void laterStagesPortable(T *d, std::size_t m, const std::int32_t *stage) {
  for (std::size_t h = 4; h < m; h <<= 1) {
    const std::int32_t *w = stage + 2 * (h - 1);
    for (std::size_t base = 0; base < m; base += 2 * h) {
      T *a = d + 2 * base;
      T *b = a + 2 * h;
      {
        const T br = b[0], bi = b[1];
        b[0] = a[0] - br;
        b[1] = a[1] - bi;
        a[0] += br;
        a[1] += bi;
      }
      for (std::size_t j = 1; j < h; ++j) {
        const std::int32_t c = w[2 * j];
        const std::int32_t s = Inverse ? -w[2 * j + 1] : w[2 * j + 1];
        const T br = b[2 * j], bi = b[2 * j + 1];
        // b * (c - i*s): (br*c + bi*s) + i (bi*c - br*s)
        const T tr = dotQ30(br, c, bi, s);
        const T ti = dotQ30(bi, c, br, -s);
        const T ar = a[2 * j], ai = a[2 * j + 1];
        a[2 * j] = ar + tr;
        a[2 * j + 1] = ai + ti;
        b[2 * j] = ar - tr;
        b[2 * j + 1] = ai - ti;
      }
    }
  }
}

#ifdef XKL_FFTW_HAVE_AVX2
// The same stages on 32-bit values, four butterflies per step. Each product
// is formed exactly in 64 bits (vpmuldq) and rounded as dotQ30 does; the
// logical shift leaves the same low 32 bits as the arithmetic one.
template <bool Inverse>
__attribute__((target("avx2"))) void laterStagesAvx2(std::int32_t *d, std::size_t m,
                                                      const std::int32_t *stage) {
  const __m256i half = _mm256_set1_epi64x(kTwdHalf);
  const __m256i conj = _mm256_setr_epi32(1, -1, 1, -1, 1, -1, 1, -1);
  for (std::size_t h = 4; h < m; h <<= 1) {
    const std::int32_t *w = stage + 2 * (h - 1);
    for (std::size_t base = 0; base < m; base += 2 * h) {
      std::int32_t *a = d + 2 * base;
      std::int32_t *b = a + 2 * h;
      for (std::size_t j = 0; j < h; j += 4) {
        __m256i tw = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(w + 2 * j));
        if (Inverse) tw = _mm256_sign_epi32(tw, conj);
        const __m256i twSwap = _mm256_shuffle_epi32(tw, 0xB1);  // (s, c) pairs
        const __m256i bv = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(b + 2 * j));
        const __m256i bSwap = _mm256_shuffle_epi32(bv, 0xB1);   // (bi, br) pairs
        const __m256i brc = _mm256_mul_epi32(bv, tw);
        const __m256i bis = _mm256_mul_epi32(bSwap, twSwap);
        const __m256i bic = _mm256_mul_epi32(bSwap, tw);
        const __m256i brs = _mm256_mul_epi32(bv, twSwap);
        const __m256i tr = _mm256_srli_epi64(_mm256_add_epi64(_mm256_add_epi64(brc, bis), half), kTwdBits);
        const __m256i ti = _mm256_srli_epi64(_mm256_add_epi64(_mm256_sub_epi64(bic, brs), half), kTwdBits);
        const __m256i t = _mm256_blend_epi32(tr, _mm256_slli_epi64(ti, 32), 0xAA);
        const __m256i av = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a + 2 * j));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(a + 2 * j), _mm256_add_epi32(av, t));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(b + 2 * j), _mm256_sub_epi32(av, t));
      }
    }
  }
}
#endif

template <class T, bool Inverse>
void laterStages(T *d, std::size_t m, const std::int32_t *stage) {
#ifdef XKL_FFTW_HAVE_AVX2
  if constexpr (sizeof(T) == 4) {
    if (m >= 8 && kfx::simdActive()) return laterStagesAvx2<Inverse>(d, m, stage);
  }
#endif
  laterStagesPortable<T, Inverse>(d, m, stage);
}

// In-place radix-2 DIT complex FFT of m >= 2 points in bit-reversed order,
// interleaved (re, im). Forward multiplies by exp(-i*a), inverse by exp(+i*a).
template <class T, bool Inverse>
void complexFft(T *d, std::size_t m, const std::int32_t *stage) {
  if (m == 2) {
    const T r0 = d[0], i0 = d[1], r1 = d[2], i1 = d[3];
    d[0] = r0 + r1;
    d[1] = i0 + i1;
    d[2] = r0 - r1;
    d[3] = i0 - i1;
    return;
  }
  for (std::size_t b = 0; b < 2 * m; b += 8) {
    T *p = d + b;
    radix4First<T, Inverse>(p, p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7]);
  }
  laterStages<T, Inverse>(d, m, stage);
}

#ifdef XKL_FFTW_HAVE_AVX2
// Four complex points from 16-bit input (times 64) or from 32-bit values.
__attribute__((target("avx2"))) inline __m256i load4(const short *p) {
  return _mm256_slli_epi32(_mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p))),
                           kGuardBits);
}
__attribute__((target("avx2"))) inline __m256i load4(const std::int32_t *p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}

// Bit-reversed load of m >= 16 complex points fused with the first two
// stages. Group g of four points (positions 4g..4g+3) takes the inputs r,
// r + m/2, r + m/4, r + 3m/4 with r = rev(4g) < m/4; running r in natural
// order, four groups are computed side by side in the lanes and transposed
// into place.
template <bool Inverse, class Src>
__attribute__((target("avx2"))) void radix4LoadAvx2(const Src *in, std::int32_t *d, std::size_t m,
                                                    const std::uint32_t *rev) {
  const std::size_t q = m / 4;
  const __m256i rot = Inverse ? _mm256_setr_epi32(-1, 1, -1, 1, -1, 1, -1, 1)
                              : _mm256_setr_epi32(1, -1, 1, -1, 1, -1, 1, -1);
  for (std::size_t r = 0; r < q; r += 4) {
    const __m256i x0 = load4(in + 2 * r), x1 = load4(in + 2 * (r + 2 * q));
    const __m256i x2 = load4(in + 2 * (r + q)), x3 = load4(in + 2 * (r + 3 * q));
    const __m256i u0 = _mm256_add_epi32(x0, x1), u1 = _mm256_sub_epi32(x0, x1);
    const __m256i u2 = _mm256_add_epi32(x2, x3), u3 = _mm256_sub_epi32(x2, x3);
    // u3 * -i (forward) or u3 * i (inverse)
    const __m256i t = _mm256_sign_epi32(_mm256_shuffle_epi32(u3, 0xB1), rot);
    const __m256i y0 = _mm256_add_epi32(u0, u2), y2 = _mm256_sub_epi32(u0, u2);
    const __m256i y1 = _mm256_add_epi32(u1, t), y3 = _mm256_sub_epi32(u1, t);
    const __m256i t0 = _mm256_unpacklo_epi64(y0, y1), t1 = _mm256_unpackhi_epi64(y0, y1);
    const __m256i t2 = _mm256_unpacklo_epi64(y2, y3), t3 = _mm256_unpackhi_epi64(y2, y3);
    const __m256i rows[4] = {_mm256_permute2x128_si256(t0, t2, 0x20), _mm256_permute2x128_si256(t1, t3, 0x20),
                             _mm256_permute2x128_si256(t0, t2, 0x31), _mm256_permute2x128_si256(t1, t3, 0x31)};
    for (std::size_t i = 0; i < 4; ++i) {
      const std::size_t group = rev[r + i] >> 2;
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + 8 * group), rows[i]);
    }
  }
}

// The inverse fold for k = 1.. in blocks of four (see forwardSplitAvx2),
// from the 16-bit spectrum into natural order. Returns the first k left.
__attribute__((target("avx2"))) std::size_t inverseFoldAvx2(const short *in, std::int32_t *e,
                                                            std::size_t m, std::size_t off,
                                                            const std::int32_t *w) {
  const __m256i half = _mm256_set1_epi64x(kTwdHalf);
  const __m256i conj = _mm256_setr_epi32(1, -1, 1, -1, 1, -1, 1, -1);
  std::size_t k = 1;
  for (; k + 3 < m / 2; k += 4) {
    const std::size_t kk = m - k - 3;
    const __m256i xk = load4(in + 2 * k - 2 + off);
    const __m256i xkk = _mm256_permute4x64_epi64(load4(in + 2 * kk - 2 + off), 0x1B);
    const __m256i xkkConj = _mm256_sign_epi32(xkk, conj);
    const __m256i a = _mm256_add_epi32(xk, xkkConj);
    const __m256i b = _mm256_sub_epi32(xk, xkkConj);
    const __m256i tw = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(w + 2 * k));
    const __m256i twSwap = _mm256_shuffle_epi32(tw, 0xB1);
    const __m256i bSwap = _mm256_shuffle_epi32(b, 0xB1);
    const __m256i cbi = _mm256_mul_epi32(bSwap, tw);
    const __m256i sbr = _mm256_mul_epi32(b, twSwap);
    const __m256i cbr = _mm256_mul_epi32(b, tw);
    const __m256i sbi = _mm256_mul_epi32(bSwap, twSwap);
    const __m256i cr = _mm256_srli_epi64(_mm256_sub_epi64(_mm256_sub_epi64(half, sbr), cbi), kTwdBits);
    const __m256i ci = _mm256_srli_epi64(_mm256_add_epi64(_mm256_sub_epi64(cbr, sbi), half), kTwdBits);
    const __m256i c = _mm256_blend_epi32(cr, _mm256_slli_epi64(ci, 32), 0xAA);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(e + 2 * k), _mm256_add_epi32(a, c));
    const __m256i zkk = _mm256_sign_epi32(_mm256_sub_epi32(a, c), conj);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(e + 2 * kk), _mm256_permute4x64_epi64(zkk, 0x1B));
  }
  return k;
}

// The real-split stage for k = 1..kEnd-1 in steps of four, pairing each
// block k..k+3 with the reversed block m-k-3..m-k; kEnd <= m/2 - 3 keeps
// the blocks apart. Same arithmetic as the portable loop.
__attribute__((target("avx2"))) std::size_t forwardSplitAvx2(std::int32_t *d, std::size_t m,
                                                             const std::int32_t *w) {
  const __m256i half = _mm256_set1_epi64x(kTwdHalf);
  const __m256i conj = _mm256_setr_epi32(1, -1, 1, -1, 1, -1, 1, -1);
  std::size_t k = 1;
  for (; k + 3 < m / 2; k += 4) {
    const std::size_t kk = m - k - 3;
    const __m256i zk = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(d + 2 * k));
    const __m256i zkk = _mm256_permute4x64_epi64(
        _mm256_loadu_si256(reinterpret_cast<const __m256i *>(d + 2 * kk)), 0x1B);
    const __m256i zkkConj = _mm256_sign_epi32(zkk, conj);
    const __m256i a = _mm256_add_epi32(zk, zkkConj);
    const __m256i b = _mm256_sub_epi32(zk, zkkConj);
    const __m256i tw = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(w + 2 * k));
    const __m256i twSwap = _mm256_shuffle_epi32(tw, 0xB1);
    const __m256i bSwap = _mm256_shuffle_epi32(b, 0xB1);
    const __m256i cbi = _mm256_mul_epi32(bSwap, tw);
    const __m256i sbr = _mm256_mul_epi32(b, twSwap);
    const __m256i cbr = _mm256_mul_epi32(b, tw);
    const __m256i sbi = _mm256_mul_epi32(bSwap, twSwap);
    const __m256i cr = _mm256_srli_epi64(_mm256_add_epi64(_mm256_sub_epi64(cbi, sbr), half), kTwdBits);
    const __m256i ci = _mm256_srli_epi64(
        _mm256_sub_epi64(_mm256_sub_epi64(half, cbr), sbi), kTwdBits);
    const __m256i c = _mm256_blend_epi32(cr, _mm256_slli_epi64(ci, 32), 0xAA);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + 2 * k), _mm256_add_epi32(a, c));
    const __m256i xkk = _mm256_sign_epi32(_mm256_sub_epi32(a, c), conj);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + 2 * kk), _mm256_permute4x64_epi64(xkk, 0x1B));
  }
  return k;
}
#endif

// Forward transform of order >= 2 into d[0..N-1]: 2*Re X[0], 2*Re X[M], then
// 2*Re X[k], 2*Im X[k] for k = 1..M-1 (the RCPerm order, doubled).
template <class T>
void forwardInt(const short *in, T *d, const IntTwdTable &t) {
  const std::size_t m = t.points;
  const std::uint32_t *rev = t.bitRev;
  constexpr T g = T{1} << kGuardBits;
  bool simd = false;
#ifdef XKL_FFTW_HAVE_AVX2
  if constexpr (sizeof(T) == 4) simd = kfx::simdActive();
#endif
  if (m == 2) {
    for (std::size_t n = 0; n < 2; ++n) {
      const std::size_t j = 2 * std::size_t{rev[n]};
      d[j] = static_cast<T>(in[2 * n]) * g;
      d[j + 1] = static_cast<T>(in[2 * n + 1]) * g;
    }
    complexFft<T, false>(d, m, t.stage);
  } else if (simd && m >= 16) {
#ifdef XKL_FFTW_HAVE_AVX2
    if constexpr (sizeof(T) == 4) radix4LoadAvx2<false>(in, d, m, rev);
#endif
    laterStages<T, false>(d, m, t.stage);
  } else {
    // Bit-reversed load fused with the first two stages.
    for (std::size_t p = 0; p < m; p += 4) {
      const short *x0 = in + 2 * std::size_t{rev[p]}, *x1 = in + 2 * std::size_t{rev[p + 1]};
      const short *x2 = in + 2 * std::size_t{rev[p + 2]}, *x3 = in + 2 * std::size_t{rev[p + 3]};
      radix4First<T, false>(d + 2 * p, x0[0] * g, x0[1] * g, x1[0] * g, x1[1] * g, x2[0] * g,
                            x2[1] * g, x3[0] * g, x3[1] * g);
    }
    laterStages<T, false>(d, m, t.stage);
  }
  const T zr = d[0], zi = d[1];
  d[0] = 2 * (zr + zi);
  d[1] = 2 * (zr - zi);
  const std::int32_t *w = t.split;
  std::size_t kFirst = 1;
#ifdef XKL_FFTW_HAVE_AVX2
  if constexpr (sizeof(T) == 4) {
    if (simd) kFirst = forwardSplitAvx2(d, m, w);
  }
#endif
  for (std::size_t k = kFirst; k <= m / 2; ++k) {
    const std::size_t kk = m - k;
    const T ar = d[2 * k] + d[2 * kk], ai = d[2 * k + 1] - d[2 * kk + 1];
    const T br = d[2 * k] - d[2 * kk], bi = d[2 * k + 1] + d[2 * kk + 1];
    const std::int32_t c = w[2 * k], s = w[2 * k + 1];
    // C = -i * exp(-i*pi*k/M) * B = (-s*br + c*bi) + i (-c*br - s*bi)
    const T cr = dotQ30(bi, c, br, -s);
    const T ci = dotQ30(br, -c, bi, -s);
    // 2X[k] = A + C, 2X[M-k] = conj(A - C)
    d[2 * k] = ar + cr;
    d[2 * k + 1] = ai + ci;
    d[2 * kk] = ar - cr;
    d[2 * kk + 1] = ci - ai;
  }
}

// One pair of the inverse fold: Z[k] = A + C and Z[M-k] = conj(A - C) with
// A = X[k] + conj X[M-k], B = X[k] - conj X[M-k], C = i exp(+i pi k/M) B,
// stored at points jk and jkk of z.
template <class T>
inline void foldPair(const short *in, T *z, std::size_t k, std::size_t kk, std::size_t jk,
                     std::size_t jkk, std::size_t off, const std::int32_t *w) {
  constexpr T g = T{1} << kGuardBits;
  const T xr = static_cast<T>(in[2 * k - 2 + off]) * g;
  const T xi = static_cast<T>(in[2 * k - 1 + off]) * g;
  const T yr = static_cast<T>(in[2 * kk - 2 + off]) * g;
  const T yi = static_cast<T>(in[2 * kk - 1 + off]) * g;
  const T ar = xr + yr, ai = xi - yi;
  const T br = xr - yr, bi = xi + yi;
  const std::int32_t c = w[2 * k], s = w[2 * k + 1];
  // C = (-s*br - c*bi) + i (c*br - s*bi)
  const T cr = dotQ30(br, -s, bi, -c);
  const T ci = dotQ30(br, c, bi, -s);
  z[2 * jk] = ar + cr;
  z[2 * jk + 1] = ai + ci;
  z[2 * jkk] = ar - cr;
  z[2 * jkk + 1] = ci - ai;
}

// Inverse transform of order >= 2 of a spectrum in either layout into
// d[0..N-1] = N * x (unnormalised).
template <class T>
void inverseInt(const short *in, T *d, const IntTwdTable &t, bool pack) {
  const std::size_t m = t.points;
  const std::size_t n = 2 * m;
  const std::uint32_t *rev = t.bitRev;
  constexpr T g = T{1} << kGuardBits;
  // Position of Re X[k] (1 <= k < M); Im X[k] follows it.
  const std::size_t off = pack ? 1 : 2;
  const T x0 = static_cast<T>(in[0]) * g;
  const T xm = static_cast<T>(pack ? in[n - 1] : in[1]) * g;
  const std::int32_t *w = t.split;
#ifdef XKL_FFTW_HAVE_AVX2
  if constexpr (sizeof(T) == 4) {
    if (m >= 16 && kfx::simdActive()) {
      // Fold into natural order, then the bit-reversed load fused with the
      // first two stages, as in the forward transform.
      alignas(32) std::int32_t e[2 << kMaxInt32Order];
      e[0] = x0 + xm;
      e[1] = x0 - xm;
      for (std::size_t k = inverseFoldAvx2(in, e, m, off, w); k <= m / 2; ++k)
        foldPair(in, e, k, m - k, k, m - k, off, w);
      radix4LoadAvx2<true>(e, d, m, rev);
      laterStages<T, true>(d, m, t.stage);
      return;
    }
  }
#endif
  d[0] = x0 + xm;
  d[1] = x0 - xm;
  for (std::size_t k = 1; k <= m / 2; ++k) foldPair(in, d, k, m - k, rev[k], rev[m - k], off, w);
  complexFft<T, true>(d, m, t.stage);
}

// ---- conversion to 16 bits ----

inline short saturate16(std::int64_t v) {
  return static_cast<short>(std::clamp<std::int64_t>(v, -32768, 32767));
}

// v shifted right arithmetically by sh (0..62); a negative v of magnitude
// below 2^sh gives 0 instead of -1.
inline std::int64_t shiftDown(std::int64_t v, int sh) {
  const std::int64_t r = v >> sh;
  return r + static_cast<std::int64_t>(v < 0 && v > -(std::int64_t{1} << sh));
}

// The shift applied to one value: sh >= 0 shifts right as above, sh < 0
// shifts left; either way the result is saturated.
inline short convertInt(std::int64_t v, int sh) {
  if (sh >= 0) return saturate16(shiftDown(v, sh));
  // Beyond 2^20 every non-zero value saturates anyway.
  const std::int64_t c = std::clamp<std::int64_t>(v, -(std::int64_t{1} << 20), std::int64_t{1} << 20);
  return saturate16(c * (std::int64_t{1} << std::min(-sh, 20)));
}

int bitLength(std::uint64_t v) {
  int n = 0;
  while (v) {
    ++n;
    v >>= 1;
  }
  return n;
}

// The shift rule on 32-bit values for 0 <= sh <= 30, written so that the
// loops below vectorise.
inline short convert32(std::int32_t v, int sh, std::int32_t lowerLimit) {
  std::int32_t r = (v >> sh) + static_cast<std::int32_t>((v < 0) & (v > lowerLimit));
  r = r < -32768 ? -32768 : (r > 32767 ? 32767 : r);
  return static_cast<short>(r);
}

#ifdef XKL_FFTW_HAVE_AVX2
// convert32 on 16 values per step; packs_epi32 saturates exactly like the
// clamp. Returns how many values were converted.
__attribute__((target("avx2"))) std::size_t convert32Avx2(const std::int32_t *src, short *dst,
                                                          std::size_t count, int sh) {
  const __m128i shift = _mm_cvtsi32_si128(sh);
  const __m256i lim = _mm256_set1_epi32(-(std::int32_t{1} << sh));
  const __m256i zero = _mm256_setzero_si256();
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m256i v0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
    const __m256i v1 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i + 8));
    const __m256i m0 = _mm256_and_si256(_mm256_cmpgt_epi32(zero, v0), _mm256_cmpgt_epi32(v0, lim));
    const __m256i m1 = _mm256_and_si256(_mm256_cmpgt_epi32(zero, v1), _mm256_cmpgt_epi32(v1, lim));
    const __m256i r0 = _mm256_sub_epi32(_mm256_sra_epi32(v0, shift), m0);
    const __m256i r1 = _mm256_sub_epi32(_mm256_sra_epi32(v1, shift), m1);
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(r0, r1), 0xD8);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), packed);
  }
  return i;
}

__attribute__((target("avx2"))) void minMaxAvx2(const std::int32_t *d, std::size_t n,
                                                std::int32_t *lo, std::int32_t *hi) {
  __m256i vlo = _mm256_set1_epi32(d[0]), vhi = vlo;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(d + i));
    vlo = _mm256_min_epi32(vlo, v);
    vhi = _mm256_max_epi32(vhi, v);
  }
  alignas(32) std::int32_t l[8], h[8];
  _mm256_store_si256(reinterpret_cast<__m256i *>(l), vlo);
  _mm256_store_si256(reinterpret_cast<__m256i *>(h), vhi);
  std::int32_t a = *std::min_element(l, l + 8), b = *std::max_element(h, h + 8);
  for (; i < n; ++i) {
    a = std::min(a, d[i]);
    b = std::max(b, d[i]);
  }
  *lo = a;
  *hi = b;
}
#endif

// Converts count consecutive 32-bit values with 0 <= sh <= 30.
inline void convertRange32(const std::int32_t *src, short *dst, std::size_t count, int sh) {
  std::size_t i = 0;
#ifdef XKL_FFTW_HAVE_AVX2
  if (count >= 16 && kfx::simdActive()) i = convert32Avx2(src, dst, count, sh);
#endif
  const std::int32_t lim = -(std::int32_t{1} << sh);
  for (; i < count; ++i) dst[i] = convert32(src[i], sh, lim);
}

template <class T>
void minMax(const T *d, std::size_t n, T *lo, T *hi) {
#ifdef XKL_FFTW_HAVE_AVX2
  if constexpr (sizeof(T) == 4) {
    if (kfx::simdActive()) return minMaxAvx2(d, n, lo, hi);
  }
#endif
  T a = d[0], b = d[0];
  for (std::size_t i = 1; i < n; ++i) {
    a = std::min(a, d[i]);
    b = std::max(b, d[i]);
  }
  *lo = a;
  *hi = b;
}

// Writes the working values in output order (RCPack moves Re X[M] from
// position 1 to the end).
template <class T>
void storeInt(const T *d, short *out, std::size_t n, bool packForward, int sh) {
  const bool pack = packForward && n >= 2;
  if constexpr (sizeof(T) == 4) {
    if (sh >= 0 && sh <= 30) {
      if (!pack) {
        convertRange32(d, out, n, sh);
      } else {
        convertRange32(d, out, 1, sh);
        convertRange32(d + 2, out + 1, n - 2, sh);
        convertRange32(d + 1, out + n - 1, 1, sh);
      }
      return;
    }
  }
  if (!pack) {
    for (std::size_t i = 0; i < n; ++i) out[i] = convertInt(d[i], sh);
    return;
  }
  out[0] = convertInt(d[0], sh);
  for (std::size_t i = 1; i + 1 < n; ++i) out[i] = convertInt(d[i + 1], sh);
  out[n - 1] = convertInt(d[1], sh);
}

struct ScaleRequest {
  bool fixed;
  bool automatic;
  int *factor;
};

// Applies the scale rules and writes the output.
template <class T>
void finishInt(const T *d, short *out, std::size_t n, bool packForward, int sh,
               const ScaleRequest &scale) {
  if (scale.fixed && scale.factor) {
    const std::int64_t total = std::clamp<std::int64_t>(std::int64_t{sh} + *scale.factor, -64, 62);
    sh = static_cast<int>(total);
  }
  if (scale.automatic) {
    T lo, hi;
    minMax(d, n, &lo, &hi);
    const std::int64_t ulo = shiftDown(lo, sh), uhi = shiftDown(hi, sh);
    int extra = 0;
    if (ulo < -32768 || uhi > 32767) {
      // Further shift by (bit length of the largest magnitude) - 14: the
      // results then lie within +-2^14.
      const std::uint64_t mag = std::max<std::uint64_t>(static_cast<std::uint64_t>(uhi < 0 ? 0 : uhi),
                                                        static_cast<std::uint64_t>(ulo < 0 ? -ulo : 0));
      extra = bitLength(mag) - 14;
    }
    sh = std::min(sh + extra, 62);
    *scale.factor = extra;
  }
  storeInt(d, out, n, packForward, sh);
}

// Orders 0 and 1 in integer arithmetic: a copy, or sum and difference.
void tinyInt(const short *in, short *out, int order, int sh, const ScaleRequest &scale) {
  std::int64_t d[2];
  const std::int64_t g = std::int64_t{1} << kGuardBits;
  if (order == 0) {
    d[0] = in[0] * g;
  } else {
    const std::int64_t a = in[0] * g, b = in[1] * g;
    d[0] = a + b;
    d[1] = a - b;
  }
  finishInt(d, out, std::size_t{1} << order, false, sh, scale);
}

template <class T>
void runInt(const short *in, short *out, int order, int flags, const IntTwdTable &t, void *work,
            const ScaleRequest &scale) {
  T *d = static_cast<T *>(work);
  const bool inverse = (flags & KFX_Inverse) != 0;
  const bool pack = (flags & KFX_RCPack) != 0;
  const std::size_t n = std::size_t{1} << order;
  int sh = kGuardBits;
  if (inverse) {
    inverseInt(in, d, t, pack);
    if (!(flags & KFX_NoScale)) sh += order;
  } else {
    forwardInt(in, d, t);
    sh += 1;  // the split stage delivers 2*X
  }
  finishInt(d, out, n, pack && !inverse, sh, scale);
}

// ---- float algorithm ----

// out[i] = f[i] * factor rounded half away from zero and saturated. The
// product is exact in double (factor is a power of two in 2^-2000..2^1000,
// where 0 stands for the underflowed ones) or infinite, never NaN; clamping
// first does not change the result, and after it v +- 0.5 is exact, so
// truncation rounds. Written without branches so that it vectorises.
#define XKL_ROUND_SATURATE_LOOP                                   \
  for (std::size_t i = 0; i < n; ++i) {                           \
    double v = static_cast<double>(f[i]) * factor;                \
    v = v < -32768.0 ? -32768.0 : v;                              \
    v = v > 32767.0 ? 32767.0 : v;                                \
    v += v >= 0.0 ? 0.5 : -0.5;                                   \
    out[i] = static_cast<short>(static_cast<int>(v));             \
  }

void roundSaturatePortable(const float *f, short *out, std::size_t n, double factor) {
  XKL_ROUND_SATURATE_LOOP
}
#ifdef XKL_FFTW_HAVE_AVX2
// The same on 16 values per step, in double lanes.
__attribute__((target("avx2"))) void roundSaturateAvx2(const float *f, short *out, std::size_t n,
                                                       double factor) {
  const __m256d scale = _mm256_set1_pd(factor);
  const __m256d lo = _mm256_set1_pd(-32768.0), hi = _mm256_set1_pd(32767.0);
  const __m256d half = _mm256_set1_pd(0.5), sign = _mm256_set1_pd(-0.0);
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    __m128i r[4];
    for (int q = 0; q < 4; ++q) {
      __m256d v = _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(f + i + 4 * q)), scale);
      v = _mm256_min_pd(_mm256_max_pd(v, lo), hi);
      v = _mm256_add_pd(v, _mm256_or_pd(_mm256_and_pd(v, sign), half));
      r[q] = _mm256_cvttpd_epi32(v);
    }
    const __m256i a = _mm256_set_m128i(r[1], r[0]), b = _mm256_set_m128i(r[3], r[2]);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i),
                        _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8));
  }
  roundSaturatePortable(f + i, out + i, n - i, factor);
}
#endif
#undef XKL_ROUND_SATURATE_LOOP

void roundSaturate(const float *f, short *out, std::size_t n, int shift, bool simd) {
  const double factor = std::ldexp(1.0, -std::clamp(shift, -1000, 2000));
#ifdef XKL_FFTW_HAVE_AVX2
  if (simd) return roundSaturateAvx2(f, out, n, factor);
#endif
  (void)simd;
  roundSaturatePortable(f, out, n, factor);
}

#ifdef XKL_FFTW_HAVE_AVX2
__attribute__((target("avx2"))) void floatMinMaxAvx2(const float *f, std::size_t n, float *lo,
                                                     float *hi) {
  __m256 vlo = _mm256_setzero_ps(), vhi = vlo;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256 v = _mm256_loadu_ps(f + i);
    vlo = _mm256_min_ps(vlo, v);
    vhi = _mm256_max_ps(vhi, v);
  }
  alignas(32) float l[8], h[8];
  _mm256_store_ps(l, vlo);
  _mm256_store_ps(h, vhi);
  float a = *std::min_element(l, l + 8), b = *std::max_element(h, h + 8);
  for (; i < n; ++i) {
    a = std::min(a, f[i]);
    b = std::max(b, f[i]);
  }
  *lo = a;
  *hi = b;
}
#endif

// Smallest and largest value, and 0.
void floatMinMax(const float *f, std::size_t n, float *lo, float *hi) {
#ifdef XKL_FFTW_HAVE_AVX2
  if (kfx::simdActive()) return floatMinMaxAvx2(f, n, lo, hi);
#endif
  float a = 0.0f, b = 0.0f;
  for (std::size_t i = 0; i < n; ++i) {
    a = std::min(a, f[i]);
    b = std::max(b, f[i]);
  }
  *lo = a;
  *hi = b;
}

void finishFloat(const float *f, short *out, std::size_t n, const ScaleRequest &scale) {
  int shift = 0;
  if (scale.automatic) {
    float lo, hi;
    floatMinMax(f, n, &lo, &hi);
    // Out of range once rounding (half away from zero) leaves -32768..32767.
    if (hi >= 32767.5f || lo <= -32768.5f) {
      // peak < 2^e with e its binary exponent; scaled by 2^-(e-14) it stays
      // within +-2^14, the same headroom as the integer algorithm.
      int e = 0;
      std::frexp(std::max(-lo, hi), &e);
      shift = e - 14;
    }
    *scale.factor = shift;
  } else if (scale.fixed && scale.factor) {
    shift = *scale.factor;
  }
  roundSaturate(f, out, n, shift, kfx::simdActive());
}

// Runs kfxsRealFftl on the calling thread with a clean status and tells
// whether it succeeded; on success the caller's status is restored.
bool callFloatFft(float *buf, int order, int flags) {
  const int saved = kfx::status();
  kfxSetStatus(KFX_StsOk);
  kfxsRealFftl(buf, order, flags);
  if (kfx::status() < 0) return false;
  kfxSetStatus(saved);
  return true;
}

// ---- shared front end ----

std::size_t workBytes(int order, bool useInt) {
  const std::size_t n = std::size_t{1} << order;
  if (!useInt) return n * sizeof(float);
  return n * (order <= kMaxInt32Order ? sizeof(std::int32_t) : sizeof(std::int64_t));
}

// Builds the integer table and sizes the scratch; on failure releases the
// cached integer tables and this thread's scratch and tries once more.
bool prepareInt(const char *func, int order, const IntTwdTable **table) {
  const std::size_t bytes = workBytes(order, true);
  for (int attempt = 0; attempt < 2; ++attempt) {
    *table = order >= 2 ? intTable(order) : nullptr;
    const bool tableOk = order < 2 || *table;
    const bool scratchOk = bytes <= kStackBytes || tlsScratch.reserve(bytes);
    if (tableOk && scratchOk) return true;
    if (attempt == 0) {
      releaseIntTables();
      tlsScratch.release();
    } else if (!tableOk) {
      kfx::report(KFX_StsNoMem, "kfxcCalcFftTwdTbl", "NULL Pointer", kfx::kModTwd, __LINE__);
    }
  }
  kfx::report(KFX_StsNoMem, func, "No working memory", kfx::kModFftw, __LINE__);
  return false;
}

bool prepareFloat(const char *func, int order) {
  const int saved = kfx::status();
  kfxSetStatus(KFX_StsOk);
  kfxsRealFftl(nullptr, order, KFX_Init);
  if (kfx::status() < 0) {
    kfx::report(KFX_StsBackTrace, func, "out kfxsRealFftl KFX_Init", kfx::kModFftw, __LINE__);
    return false;
  }
  kfxSetStatus(saved);
  const std::size_t bytes = workBytes(order, false);
  if (bytes > kStackBytes && !tlsScratch.reserve(bytes)) {
    tlsScratch.release();
    if (!tlsScratch.reserve(bytes)) {
      kfx::report(KFX_StsNoMem, func, "No working memory", kfx::kModFftw, __LINE__);
      return false;
    }
  }
  return true;
}

bool check(bool failed, const char *func, const char *message, int line) {
  if (failed) kfx::report(KFX_StsBadArg, func, message, kfx::kModFftw, line);
  return failed;
}

// in == nullptr with inPlace: the in-place form's samps was null.
void realFftW(const char *func, bool inPlace, const short *in, short *out, int order, int flags,
              int scaleMode, int *scaleFactor) {
  if (flags & KFX_Free) {
    kfxFreeIntTwdTbls();
    kfx::fft::releaseAllFloatTables();
    return;
  }
  if (check(order < 0, func, "order<0", __LINE__)) return;
  if (check(order > kfx::fft::kMaxOrder, func, "order>31", __LINE__)) return;

  const bool useInt =
      (flags & KFX_IntegerFft) || (!(flags & KFX_FloatFft) && order <= kMaxIntDefaultOrder);
  const IntTwdTable *table = nullptr;
  if (useInt ? !prepareInt(func, order, &table) : !prepareFloat(func, order)) return;
  if (flags & KFX_Init) return;

  if (inPlace) {
    if (check(!in, func, "samps==0", __LINE__)) return;
  } else {
    if (check(!in, func, "inSamps==0", __LINE__)) return;
    if (check(!out, func, "outSamps==0", __LINE__)) return;
  }
  if (check((flags & KFX_Forward) && (flags & KFX_Inverse), func, "(flags & 1) && (flags & 2)",
            __LINE__))
    return;
  if (check(!(flags & KFX_Forward) && !(flags & KFX_Inverse), func,
            "(flags & 1)==0 && (flags & 2)==0", __LINE__))
    return;
  if (check((flags & KFX_RCPack) && (flags & KFX_RCPerm), func, "(flags & 256) && (flags & 512)",
            __LINE__))
    return;
  if (check(!(flags & KFX_RCPack) && !(flags & KFX_RCPerm), func,
            "(flags & 256)==0 && (flags & 512)==0", __LINE__))
    return;
  if (check((flags & KFX_IntegerFft) && (flags & KFX_FloatFft), func,
            "(flags & 8192) && (flags & 16384)", __LINE__))
    return;
  if (check((scaleMode & KFX_FIXED_SCALE) && (scaleMode & KFX_AUTO_SCALE), func,
            "(scaleMode & 0x0002) && (scaleMode & 0x0004)", __LINE__))
    return;
  if (check((scaleMode & KFX_AUTO_SCALE) && !scaleFactor, func, "scaleFactor==0", __LINE__)) return;

  const ScaleRequest scale{(scaleMode & KFX_FIXED_SCALE) != 0, (scaleMode & KFX_AUTO_SCALE) != 0,
                           scaleFactor};
  const std::size_t n = std::size_t{1} << order;
  alignas(32) unsigned char stack[kStackBytes];
  void *work = workBytes(order, useInt) <= kStackBytes ? static_cast<void *>(stack) : tlsScratch.block;

  if (useInt) {
    if (order < 2) {
      int sh = kGuardBits;
      if ((flags & KFX_Inverse) && !(flags & KFX_NoScale)) sh += order;
      tinyInt(in, out, order, sh, scale);
    } else if (order <= kMaxInt32Order) {
      runInt<std::int32_t>(in, out, order, flags, *table, work, scale);
    } else {
      runInt<std::int64_t>(in, out, order, flags, *table, work, scale);
    }
    return;
  }
  float *f = static_cast<float *>(work);
  for (std::size_t i = 0; i < n; ++i) f[i] = in[i];
  if (!callFloatFft(f, order, flags & ~(KFX_IntegerFft | KFX_FloatFft))) {
    kfx::report(KFX_StsBackTrace, func, "out kfxsRealFftl calc. FFT", kfx::kModFftw, __LINE__);
    return;
  }
  finishFloat(f, out, n, scale);
}

}  // namespace

void failIntAllocations(int count) { gFailAllocs.store(count); }

void floatTo16(const float *f, short *out, std::size_t n, int shift, bool simd) {
  roundSaturate(f, out, n, shift, simd);
}

}  // namespace kfx::fftw

extern "C" {

void kfxwRealFftl(short *samps, int order, int flags, int scaleMode, int *scaleFactor) {
  kfx::fftw::realFftW("kfxwRealFftl", true, samps, samps, order, flags, scaleMode, scaleFactor);
}

void kfxwRealFftlNip(const short *inSamps, short *outSamps, int order, int flags, int scaleMode,
                     int *scaleFactor) {
  kfx::fftw::realFftW("kfxwRealFftlNip", false, inSamps, outSamps, order, flags, scaleMode,
                      scaleFactor);
}

void kfxFreeIntTwdTbls(void) {
  kfx::fftw::releaseIntTables();
  kfx::fftw::tlsScratch.release();
}

}  // extern "C"
