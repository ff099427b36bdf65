// Band geometry, local distances and the vectorised inner frame of the DTW
// evaluation.
//
// Local distances are computed for a run of reference frames at once, from
// the reference stored transposed and widened to double: lane j of a vector
// holds cell j, so each lane sums its own dim terms in the order k = 0, 1,
// ... exactly as kfxsNorm and kfxwNorm do, and every path gives the same
// bits. Multiply and add stay separate (no FMA) for the same reason. The
// vector paths keep 16 (AVX2) or up to 64 (AVX-512) cells in registers
// across the whole dim loop. With AVX-512 the next frame's distances are
// computed ahead of each frame's recurrence (see innerFramesAvx512); the
// other paths run step, distances and sums as separate passes.
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "dtw/dtw_internal.h"
#include "frame/cpu.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define XKL_DTW_X86 1
#endif

namespace xk::dtw {
namespace {

std::atomic<int> isaCap{static_cast<int>(DtwIsa::Avx512)};

// Compilers may fuse a product and a following sum into one FMA, which
// rounds once instead of twice and so changes the bits of a distance. The
// empty asm hands the rounded product over as an opaque value.
#ifdef XKL_DTW_X86
__attribute__((target("avx2"), always_inline)) inline __m256d rounded(__m256d v) {
  __asm__("" : "+v"(v));
  return v;
}
__attribute__((target("avx512f"), always_inline)) inline __m512d rounded(__m512d v) {
  __asm__("" : "+v"(v));
  return v;
}
#endif

int64_t floorDiv(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }
int64_t ceilDiv(int64_t a, int64_t b) { return -floorDiv(-a, b); }

void distancesPortable(const double *x, const double *ref, int64_t ld, int dim, int j0, int j1, bool l1,
                       double *out) {
  const int n = j1 - j0 + 1;
  double *acc = out + j0;
  for (int j = 0; j < n; ++j) acc[j] = 0.0;
  for (int k = 0; k < dim; ++k) {
    const double xk = x[k];
    const double *r = ref + k * ld + j0;
    if (l1)
      for (int j = 0; j < n; ++j) acc[j] += std::fabs(xk - r[j]);
    else
      for (int j = 0; j < n; ++j) {
        const double d = xk - r[j];
        acc[j] += d * d;  // built without FMA, like kfxsNorm
      }
  }
  if (!l1)
    for (int j = 0; j < n; ++j) acc[j] = std::sqrt(acc[j]);
}

bool floatStepPortable(float *A, int32_t *F, int s, int e, float tf, float inf) {
  for (int j = e; j >= s; --j) {
    float c = F[j] ? inf : A[j];
    int32_t h = -1;
    if (A[j - 1] <= c) c = A[j - 1], h = 0;
    if (A[j - 2] < c) c = A[j - 2], h = 0;
    A[j] = c;
    F[j] = h;
  }
  bool any = false;
  for (int j = s; j <= e; ++j) {
    if (A[j] >= tf) A[j] = inf;
    any |= A[j] < tf;
  }
  return any;
}

void addPortable(float *A, const double *dist, int s, int e, float measureBelow) {
  for (int j = s; j <= e; ++j)
    if (A[j] < measureBelow) A[j] += static_cast<float>(dist[j]);
}

#ifdef XKL_DTW_X86
#define XKL_INLINE_AVX2 __attribute__((target("avx2"), always_inline)) inline
#define XKL_INLINE_AVX2_IN_512 __attribute__((target("avx512f,avx2"), always_inline)) inline
#define XKL_INLINE_AVX512 __attribute__((target("avx512f,avx2"), always_inline)) inline

template <bool L1>
XKL_INLINE_AVX2 __m256d term256(__m256d xk, const double *r, __m256d acc) {
  const __m256d d = _mm256_sub_pd(xk, _mm256_loadu_pd(r));
  if constexpr (L1) return _mm256_add_pd(acc, _mm256_andnot_pd(_mm256_set1_pd(-0.0), d));
  return _mm256_add_pd(acc, rounded(_mm256_mul_pd(d, d)));
}

template <bool L1>
XKL_INLINE_AVX2 __m256d finish256(__m256d acc) {
  if constexpr (L1) return acc;
  return _mm256_sqrt_pd(acc);
}

// The distances of cells j .. j + 4K - 1, K accumulators of four lanes.
template <bool L1, int K>
XKL_INLINE_AVX2 void block256(const double *x, const double *ref, int64_t ld, int dim, int j, double *out) {
  __m256d a[K];
  for (int q = 0; q < K; ++q) a[q] = _mm256_setzero_pd();
  const double *r = ref + j;
  for (int k = 0; k < dim; ++k, r += ld) {
    const __m256d xk = _mm256_broadcast_sd(x + k);
    for (int q = 0; q < K; ++q) a[q] = term256<L1>(xk, r + 4 * q, a[q]);
  }
  for (int q = 0; q < K; ++q) _mm256_storeu_pd(out + j + 4 * q, finish256<L1>(a[q]));
}

// Cells j0.. in blocks of 16, then of 8 and 4 (the last block may run up to
// 4 cells past j1).
template <bool L1>
__attribute__((target("avx2"))) void distancesAvx2(const double *x, const double *ref, int64_t ld, int dim,
                                                   int j0, int j1, double *out) {
  int j = j0;
  for (; j + 11 <= j1; j += 16) block256<L1, 4>(x, ref, ld, dim, j, out);
  for (; j + 3 <= j1; j += 8) block256<L1, 2>(x, ref, ld, dim, j, out);
  if (j <= j1) block256<L1, 1>(x, ref, ld, dim, j, out);
}

// GCC 12 warns inside its own AVX-512 intrinsics (an "undefined"
// pass-through operand); the warning says nothing about this code.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

template <bool L1>
XKL_INLINE_AVX512 __m512d term512(__m512d xk, const double *r, __m512d acc) {
  const __m512d d = _mm512_sub_pd(xk, _mm512_loadu_pd(r));
  if constexpr (L1) return _mm512_add_pd(acc, _mm512_abs_pd(d));
  return _mm512_add_pd(acc, rounded(_mm512_mul_pd(d, d)));
}

template <bool L1>
XKL_INLINE_AVX512 __m512d finish512(__m512d acc) {
  if constexpr (L1) return acc;
  return _mm512_sqrt_pd(acc);
}

// The distances of cells j .. j + 8K - 1, K accumulators of eight lanes.
template <bool L1, int K>
XKL_INLINE_AVX512 void block512(const double *x, const double *ref, int64_t ld, int dim, int j, double *out) {
  __m512d a[K];
  for (int q = 0; q < K; ++q) a[q] = _mm512_setzero_pd();
  const double *r = ref + j;
  for (int k = 0; k < dim; ++k, r += ld) {
    const __m512d xk = _mm512_set1_pd(x[k]);
    for (int q = 0; q < K; ++q) a[q] = term512<L1>(xk, r + 8 * q, a[q]);
  }
  for (int q = 0; q < K; ++q) _mm512_storeu_pd(out + j + 8 * q, finish512<L1>(a[q]));
}

// Cells j0.. in blocks of 32, then of 16 and 8 (up to 8 cells past j1).
template <bool L1>
__attribute__((target("avx512f,avx2"))) void distancesAvx512(const double *x, const double *ref, int64_t ld, int dim,
                                                        int j0, int j1, double *out) {
  int j = j0;
  for (; j + 23 <= j1; j += 32) block512<L1, 4>(x, ref, ld, dim, j, out);
  for (; j + 7 <= j1; j += 16) block512<L1, 2>(x, ref, ld, dim, j, out);
  if (j + 4 <= j1)
    block512<L1, 1>(x, ref, ld, dim, j, out);
  else if (j <= j1)  // up to 4 cells left: half the work of a full vector
    block256<L1, 1>(x, ref, ld, dim, j, out);
}

// The inner frame eight cells at a time, from the top of the band down:
// a block reads A[j0-2 .. j0+7] before it writes A[j0 .. j0+7], and the
// next block reads only below j0, so every read sees the previous frame.
// Lanes below s are left as they were.
__attribute__((target("avx2"))) bool floatStepAvx2(float *A, int32_t *F, int s, int e, float tf, float inf) {
  const __m256 vInf = _mm256_set1_ps(inf), t = _mm256_set1_ps(tf);
  const __m256 ones = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  __m256 any = _mm256_setzero_ps();
  for (int j0 = e - 7; j0 + 7 >= s; j0 -= 8) {
    const __m256 a0 = _mm256_loadu_ps(A + j0), a1 = _mm256_loadu_ps(A + j0 - 1), a2 = _mm256_loadu_ps(A + j0 - 2);
    const __m256 f = _mm256_castsi256_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(F + j0)));
    const __m256 valid = _mm256_castsi256_ps(_mm256_cmpgt_epi32(lane, _mm256_set1_epi32(s - j0 - 1)));
    __m256 c = _mm256_blendv_ps(a0, vInf, f);
    const __m256 diagonal = _mm256_cmp_ps(a1, c, _CMP_LE_OQ);
    c = _mm256_blendv_ps(c, a1, diagonal);
    const __m256 skip = _mm256_cmp_ps(a2, c, _CMP_LT_OQ);
    c = _mm256_blendv_ps(c, a2, skip);
    const __m256 horizontal = _mm256_andnot_ps(_mm256_or_ps(diagonal, skip), ones);
    c = _mm256_blendv_ps(c, vInf, _mm256_cmp_ps(c, t, _CMP_GE_OQ));
    any = _mm256_or_ps(any, _mm256_and_ps(valid, _mm256_cmp_ps(c, t, _CMP_LT_OQ)));
    _mm256_storeu_ps(A + j0, _mm256_blendv_ps(a0, c, valid));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(F + j0), _mm256_castps_si256(_mm256_blendv_ps(f, horizontal, valid)));
  }
  return _mm256_movemask_ps(any) != 0;
}

// Eight frames by eight values at a time: an in-register 8x8 transpose,
// then each column widened to eight doubles.
__attribute__((target("avx512f,avx2"))) void widenAvx512(const float *const *rows, int M, int dim, double *ref,
                                                        int64_t ld) {
  for (int j0 = 0; j0 < M; j0 += 8) {
    const float *r[8];
    for (int i = 0; i < 8; ++i) r[i] = rows[j0 + i < M ? j0 + i : M - 1];
    for (int k0 = 0; k0 < dim; k0 += 8) {
      __m256 t[8], u[8];
      for (int i = 0; i < 8; i += 2) {
        const __m256 a = _mm256_loadu_ps(r[i] + k0), b = _mm256_loadu_ps(r[i + 1] + k0);
        t[i] = _mm256_unpacklo_ps(a, b);
        t[i + 1] = _mm256_unpackhi_ps(a, b);
      }
      for (int i = 0; i < 8; i += 4) {
        u[i] = _mm256_shuffle_ps(t[i], t[i + 2], 0x44);
        u[i + 1] = _mm256_shuffle_ps(t[i], t[i + 2], 0xEE);
        u[i + 2] = _mm256_shuffle_ps(t[i + 1], t[i + 3], 0x44);
        u[i + 3] = _mm256_shuffle_ps(t[i + 1], t[i + 3], 0xEE);
      }
      const int n = dim - k0 < 8 ? dim - k0 : 8;
      double *out = ref + k0 * ld + j0;
      __m256 c[8];
      for (int k = 0; k < 4; ++k) {
        c[k] = _mm256_permute2f128_ps(u[k], u[4 + k], 0x20);
        c[k + 4] = _mm256_permute2f128_ps(u[k], u[4 + k], 0x31);
      }
      for (int k = 0; k < n; ++k, out += ld) _mm512_storeu_pd(out, _mm512_cvtps_pd(c[k]));
    }
  }
}

// Cell arithmetic of the AVX-512 inner frames. Float cells: the sentinel, the
// threshold as the smallest float not below it, distances rounded to float
// and added only below measureBelow. Integer cells: signed comparisons,
// distances scaled by `scale` (a power of two, exact), truncated and
// saturated, sums clamped to 0x7FFFFFFF.
struct FloatLanes {
  using Cell = float;
  using Vec = __m512;
  float inf, threshold, measureBelow;
  XKL_INLINE_AVX512 static Vec load(const float *p) { return _mm512_loadu_ps(p); }
  XKL_INLINE_AVX512 static Vec set1(float v) { return _mm512_set1_ps(v); }
  XKL_INLINE_AVX512 static Vec mov(Vec a, __mmask16 m, Vec b) { return _mm512_mask_mov_ps(a, m, b); }
  XKL_INLINE_AVX512 static __mmask16 le(Vec a, Vec b) { return _mm512_cmp_ps_mask(a, b, _CMP_LE_OQ); }
  XKL_INLINE_AVX512 static __mmask16 lt(__mmask16 m, Vec a, Vec b) { return _mm512_mask_cmp_ps_mask(m, a, b, _CMP_LT_OQ); }
  XKL_INLINE_AVX512 static __mmask16 ge(Vec a, Vec b) { return _mm512_cmp_ps_mask(a, b, _CMP_GE_OQ); }
  XKL_INLINE_AVX512 __m256d half(__m512d d) const { return _mm256_castps_pd(_mm512_cvtpd_ps(d)); }
  XKL_INLINE_AVX2_IN_512 __m128 quarter(__m256d d) const { return _mm256_cvtpd_ps(d); }
  XKL_INLINE_AVX512 Vec add(Vec c, Vec d, __mmask16 valid) const {
    const __mmask16 measured = _mm512_mask_cmp_ps_mask(valid, c, _mm512_set1_ps(measureBelow), _CMP_LT_OQ);
    return _mm512_mask_add_ps(c, measured, c, d);
  }
  XKL_INLINE_AVX512 static void store(float *p, __mmask16 m, Vec v) { _mm512_mask_storeu_ps(p, m, v); }
};

struct IntLanes {
  using Cell = int32_t;
  using Vec = __m512i;
  int32_t inf, threshold;
  double scale;
  XKL_INLINE_AVX512 static Vec load(const int32_t *p) { return _mm512_loadu_si512(p); }
  XKL_INLINE_AVX512 static Vec set1(int32_t v) { return _mm512_set1_epi32(v); }
  XKL_INLINE_AVX512 static Vec mov(Vec a, __mmask16 m, Vec b) { return _mm512_mask_mov_epi32(a, m, b); }
  XKL_INLINE_AVX512 static __mmask16 le(Vec a, Vec b) { return _mm512_cmp_epi32_mask(a, b, _MM_CMPINT_LE); }
  XKL_INLINE_AVX512 static __mmask16 lt(__mmask16 m, Vec a, Vec b) { return _mm512_mask_cmp_epi32_mask(m, a, b, _MM_CMPINT_LT); }
  XKL_INLINE_AVX512 static __mmask16 ge(Vec a, Vec b) { return _mm512_cmp_epi32_mask(a, b, _MM_CMPINT_NLT); }
  XKL_INLINE_AVX512 __m256d half(__m512d d) const {
    d = _mm512_min_pd(_mm512_mul_pd(d, _mm512_set1_pd(scale)), _mm512_set1_pd(2147483647.0));
    return _mm256_castsi256_pd(_mm512_cvttpd_epi32(d));
  }
  XKL_INLINE_AVX2_IN_512 __m128 quarter(__m256d d) const {
    d = _mm256_min_pd(_mm256_mul_pd(d, _mm256_set1_pd(scale)), _mm256_set1_pd(2147483647.0));
    return _mm_castsi128_ps(_mm256_cvttpd_epi32(d));
  }
  XKL_INLINE_AVX512 Vec add(Vec c, Vec d, __mmask16) const {
    return _mm512_min_epu32(_mm512_add_epi32(c, d), _mm512_set1_epi32(0x7FFFFFFF));
  }
  XKL_INLINE_AVX512 static void store(int32_t *p, __mmask16 m, Vec v) { _mm512_mask_storeu_epi32(p, m, v); }
};

// Distances of the cells j0 .. j0+8Q+4R-1 as cells (Lanes::half and
// quarter convert them) into out[j], Q eight-cell and R four-cell vectors
// summed in one dim loop so that enough independent sums are in flight.
template <class Lanes, bool L1, int Q, int R>
__attribute__((target("avx512f,avx2"))) void distancePass(const Lanes &lanes, const double *x, const double *ref,
                                                          int64_t ld, int dim, int j0, typename Lanes::Cell *out) {
  __m512d acc[Q > 0 ? Q : 1];
  for (auto &v : acc) v = _mm512_setzero_pd();
  __m256d tail = _mm256_setzero_pd();
  const double *r = ref + j0;
  for (int k = 0; k < dim; ++k, r += ld) {
    const __m512d xk = _mm512_set1_pd(x[k]);
    for (int q = 0; q < Q; ++q) acc[q] = term512<L1>(xk, r + 8 * q, acc[q]);
    if constexpr (R > 0) tail = term256<L1>(_mm512_castpd512_pd256(xk), r + 8 * Q, tail);
  }
  for (int q = 0; q < Q; ++q)
    _mm256_storeu_pd(reinterpret_cast<double *>(out + j0 + 8 * q), lanes.half(finish512<L1>(acc[q])));
  if constexpr (R > 0) _mm_storeu_ps(reinterpret_cast<float *>(out + j0 + 8 * Q), lanes.quarter(finish256<L1>(tail)));
}

template <class Lanes>
using DistancePass = void (*)(const Lanes &, const double *, const double *, int64_t, int, int,
                              typename Lanes::Cell *);

// Passes by width in four-cell steps: entry m covers 4(m+1) cells.
template <class Lanes, bool L1, int... M>
constexpr std::array<DistancePass<Lanes>, sizeof...(M)> distanceTable(std::integer_sequence<int, M...>) {
  return {&distancePass<Lanes, L1, (M + 1) / 2, (M + 1) % 2>...};
}

// Distances of the cells j0..j1 into out (up to 3 entries past j1), in
// passes of up to 64 cells.
template <class Lanes, bool L1>
__attribute__((target("avx512f,avx2"))) void cellDistances(const Lanes &lanes, const double *x, const double *ref,
                                                           int64_t ld, int dim, int j0, int j1,
                                                           typename Lanes::Cell *out) {
  static constexpr auto kPasses = distanceTable<Lanes, L1>(std::make_integer_sequence<int, 16>());
  for (int j = j0; j <= j1;) {
    const int n = j1 - j + 1;
    const int m = n >= 64 ? 16 : (n + 3) / 4;  // four-cell groups in this pass
    kPasses[m - 1](lanes, x, ref, ld, dim, j, out);
    j += 4 * m;
  }
}

// The step, pruning and sums of one inner frame whose distances d[j] are
// ready, sixteen cells at a time from the top of the band down: a block
// reads A[j0-2 .. j0+15] before it writes A[j0 .. j0+15], and the next
// block reads only below j0, so every read sees the previous frame. Lanes
// below s are left as they were.
template <class Lanes>
__attribute__((target("avx512f,avx2"))) bool stepAdd(typename Lanes::Cell *A, int32_t *F, int s, int e,
                                                     const Lanes &lanes, const typename Lanes::Cell *d) {
  using Vec = typename Lanes::Vec;
  const Vec vInf = Lanes::set1(lanes.inf), t = Lanes::set1(lanes.threshold);
  const __m512i allOnes = _mm512_set1_epi32(-1);
  __mmask16 any = 0;
  for (int j0 = e - 15; j0 + 15 >= s; j0 -= 16) {
    const __mmask16 valid = static_cast<__mmask16>(j0 >= s ? 0xFFFF : 0xFFFF << (s - j0));
    const Vec a0 = Lanes::load(A + j0), a1 = Lanes::load(A + j0 - 1), a2 = Lanes::load(A + j0 - 2);
    const __m512i f = _mm512_loadu_si512(F + j0);
    Vec c = Lanes::mov(a0, _mm512_test_epi32_mask(f, f), vInf);
    const __mmask16 diagonal = Lanes::le(a1, c);
    c = Lanes::mov(c, diagonal, a1);
    const __mmask16 skip = Lanes::lt(0xFFFF, a2, c);
    c = Lanes::mov(c, skip, a2);
    c = Lanes::mov(c, Lanes::ge(c, t), vInf);
    any |= Lanes::lt(valid, c, t);
    Lanes::store(A + j0, valid, lanes.add(c, Lanes::load(d + j0), valid));
    _mm512_mask_storeu_epi32(F + j0, valid, _mm512_maskz_mov_epi32(static_cast<__mmask16>(~(diagonal | skip)), allOnes));
  }
  return any != 0;
}

// Every inner frame. The distances of frame i+1 are computed before the
// recurrence of frame i, which does not need them, so their square roots
// (long on the divider) finish while the recurrence runs.
template <class Lanes>
__attribute__((target("avx512f,avx2"))) bool innerFramesAvx512(typename Lanes::Cell *A, int32_t *F,
                                                               const int *start, const int *end, int N,
                                                               const Lanes &lanes, const double *X,
                                                               const double *ref, int64_t ld, int dim, bool l1,
                                                               typename Lanes::Cell *cur, typename Lanes::Cell *next) {
  const auto distances = l1 ? cellDistances<Lanes, true> : cellDistances<Lanes, false>;
  if (N > 2) distances(lanes, X + dim, ref, ld, dim, start[1], end[1], next);
  for (int i = 1; i < N - 1; ++i) {
    std::swap(cur, next);
    if (i + 1 < N - 1)
      distances(lanes, X + static_cast<int64_t>(i + 1) * dim, ref, ld, dim, start[i + 1], end[i + 1], next);
    const int s = start[i];
    if (!stepAdd(A, F, s, end[i], lanes, cur)) return false;
    A[s - 1] = lanes.inf;
    A[s - 2] = lanes.inf;
  }
  return true;
}

__attribute__((target("avx2"))) void addAvx2(float *A, const double *dist, int s, int e, float measureBelow) {
  const __m256 limit = _mm256_set1_ps(measureBelow);
  int j = s;
  for (; j + 7 <= e; j += 8) {
    const __m256 d = _mm256_set_m128(_mm256_cvtpd_ps(_mm256_loadu_pd(dist + j + 4)),
                                     _mm256_cvtpd_ps(_mm256_loadu_pd(dist + j)));
    const __m256 a = _mm256_loadu_ps(A + j);
    _mm256_storeu_ps(A + j, _mm256_blendv_ps(a, _mm256_add_ps(a, d), _mm256_cmp_ps(a, limit, _CMP_LT_OQ)));
  }
  addPortable(A, dist, j, e, measureBelow);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

}  // namespace

int64_t effectiveDelta(int flags, int delta) {
  if (flags & 1) return 0;
  return delta < 0 ? -static_cast<int64_t>(delta) : delta;
}

bool admitted(int nTest, int nFrames, int64_t D) {
  if (nTest < 1) return false;
  return (nTest - 1) / 2 + 1 <= nFrames && nFrames <= 2 * static_cast<int64_t>(nTest) - 1 + D;
}

void computeBand(int nTest, int M, int D, int *start, int *end) {
  const int64_t N = nTest;
  int64_t k1 = floorDiv(2 * static_cast<int64_t>(M) - N - 2 * static_cast<int64_t>(D) - 1, 3);
  if (k1 < 0) k1 = -1;
  if (k1 > N - 1) k1 = N - 1;
  // Slope-1/2 line back from the last reference frame, then the slope-2
  // line up from D.
  for (int64_t i = N - 1; i > k1; --i) end[i] = static_cast<int>(M - 1 - (N - 1 - i) / 2);
  for (int64_t i = k1; i >= 0; --i) end[i] = static_cast<int>(D + 2 * i);
  int64_t k2 = ceilDiv(4 * N + 2 * static_cast<int64_t>(D) - 2 * static_cast<int64_t>(M) - 2, 3);
  if (k2 > N - 1) k2 = N;
  for (int64_t i = 0; i < N; ++i)
    start[i] = static_cast<int>(i < k2 ? i / 2 : M + 2 * i - 2 * N - D + 1);
}

DtwIsa dtwIsaAvailable() {
  const CpuFeatures &cpu = cpuFeatures();
#ifdef XKL_DTW_X86
  if (cpu.avx512f && cpu.avx2) return DtwIsa::Avx512;
  if (cpu.avx2) return DtwIsa::Avx2;
#endif
  (void)cpu;
  return DtwIsa::Portable;
}

DtwIsa activeDtwIsa() {
  static const DtwIsa available = dtwIsaAvailable();
  const int cap = isaCap.load(std::memory_order_relaxed);
  return static_cast<int>(available) < cap ? available : static_cast<DtwIsa>(cap);
}

DtwIsa setDtwIsa(DtwIsa isa) { return static_cast<DtwIsa>(isaCap.exchange(static_cast<int>(isa))); }

void localDistances(const double *x, const double *ref, int64_t ld, int dim, int j0, int j1, bool l1,
                    double *out) {
  if (j1 < j0) return;
#ifdef XKL_DTW_X86
  switch (activeDtwIsa()) {
    case DtwIsa::Avx512:
      return l1 ? distancesAvx512<true>(x, ref, ld, dim, j0, j1, out)
                : distancesAvx512<false>(x, ref, ld, dim, j0, j1, out);
    case DtwIsa::Avx2:
      return l1 ? distancesAvx2<true>(x, ref, ld, dim, j0, j1, out)
                : distancesAvx2<false>(x, ref, ld, dim, j0, j1, out);
    default:
      break;
  }
#endif
  distancesPortable(x, ref, ld, dim, j0, j1, l1, out);
}

// One inner frame without the fused AVX-512 path: step and pruning, then
// distances and sums as separate passes (AVX2 or portable).
static void floatAddDistances(float *A, const double *dist, int s, int e, float measureBelow);

static bool floatStep(float *A, int32_t *F, int s, int e, float tf, float inf) {
#ifdef XKL_DTW_X86
  if (activeDtwIsa() != DtwIsa::Portable) return floatStepAvx2(A, F, s, e, tf, inf);
#endif
  return floatStepPortable(A, F, s, e, tf, inf);
}

void widenTransposed(const float *const *rows, int M, int dim, double *ref, int64_t ld) {
#ifdef XKL_DTW_X86
  if (activeDtwIsa() == DtwIsa::Avx512) return widenAvx512(rows, M, dim, ref, ld);
#endif
  widenTransposed<float>(rows, M, dim, ref, ld);
}

static bool floatFrame(float *A, int32_t *F, int s, int e, float tf, float inf, float measureBelow,
                       const double *x, const double *ref, int64_t ld, int dim, bool l1, double *dist) {
  if (!floatStep(A, F, s, e, tf, inf)) return false;
  localDistances(x, ref, ld, dim, s, e, l1, dist);
  floatAddDistances(A, dist, s, e, measureBelow);
  return true;
}

bool floatInnerFrames(float *A, int32_t *F, const int *start, const int *end, int N, float tf, float inf,
                      float measureBelow, const double *X, const double *ref, int64_t ld, int dim, bool l1,
                      double *dist, float *cur, float *next) {
#ifdef XKL_DTW_X86
  if (activeDtwIsa() == DtwIsa::Avx512)
    return innerFramesAvx512(A, F, start, end, N, FloatLanes{inf, tf, measureBelow}, X, ref, ld, dim, l1, cur, next);
#endif
  for (int i = 1; i < N - 1; ++i) {
    const int s = start[i];
    if (!floatFrame(A, F, s, end[i], tf, inf, measureBelow, X + static_cast<int64_t>(i) * dim, ref, ld, dim, l1,
                    dist))
      return false;
    A[s - 1] = inf;
    A[s - 2] = inf;
  }
  return true;
}

static bool intFrame(int32_t *A, int32_t *F, int s, int e, int32_t T, int32_t inf, double scale,
                     const double *x, const double *ref, int64_t ld, int dim, bool l1, double *dist) {
  for (int j = e; j >= s; --j) {
    int32_t c = F[j] ? inf : A[j];
    int32_t h = -1;
    if (A[j - 1] <= c) c = A[j - 1], h = 0;
    if (A[j - 2] < c) c = A[j - 2], h = 0;
    A[j] = c;
    F[j] = h;
  }
  bool any = false;
  for (int j = s; j <= e; ++j) {
    if (A[j] >= T) A[j] = inf;
    any |= A[j] < T;
  }
  if (!any) return false;
  localDistances(x, ref, ld, dim, s, e, l1, dist);
  for (int j = s; j <= e; ++j) A[j] = satAddInt(A[j], intDistance(dist[j], scale));
  return true;
}

bool intInnerFrames(int32_t *A, int32_t *F, const int *start, const int *end, int N, int32_t T, int32_t inf,
                    double scale, const double *X, const double *ref, int64_t ld, int dim, bool l1, double *dist,
                    int32_t *cur, int32_t *next) {
#ifdef XKL_DTW_X86
  if (activeDtwIsa() == DtwIsa::Avx512)
    return innerFramesAvx512(A, F, start, end, N, IntLanes{inf, T, scale}, X, ref, ld, dim, l1, cur, next);
#endif
  for (int i = 1; i < N - 1; ++i) {
    const int s = start[i];
    if (!intFrame(A, F, s, end[i], T, inf, scale, X + static_cast<int64_t>(i) * dim, ref, ld, dim, l1, dist))
      return false;
    A[s - 1] = inf;
    A[s - 2] = inf;
  }
  return true;
}

static void floatAddDistances(float *A, const double *dist, int s, int e, float measureBelow) {
#ifdef XKL_DTW_X86
  if (activeDtwIsa() != DtwIsa::Portable) return addAvx2(A, dist, s, e, measureBelow);
#endif
  addPortable(A, dist, s, e, measureBelow);
}

}  // namespace xk::dtw
