// Forward kernels: widening a candidate's transitions, the frame step in a
// portable, an AVX2 and an AVX-512 form, the power-of-two rescaling and the
// pass over a sequence.
//
// All step forms add the same products in the same order (for every
// target the even and the odd sources apart, each in ascending order, then
// the row sum on eight lanes), and none uses fused multiply-add, so they
// give the same bits. The widened transitions
// are zero wherever the model has no arc; the vector forms may therefore
// run a column block over a few sources past the diagonal of a left-right
// model, adding exact zeros that change nothing. For the same reason a row
// padded to 8 rather than 4 gives the same sums: its extra lanes are zero,
// and adding +0 to a lane that started at +0 leaves it unchanged.
#include "hmm/forward_kernels.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <new>
#include <utility>

#include "frame/cpu.h"
#include "hmm/hmm_internal.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define XKL_FORWARD_HAVE_AVX2 1
#endif

namespace xk::hmm {

namespace {

std::atomic<int> isaSetting{static_cast<int>(ForwardIsa::Auto)};

constexpr double kLog10Of2 = 0.3010299956639812;
constexpr std::size_t kAlign = 64;

inline int pad8(int n) { return (n + 7) & ~7; }

std::size_t transitionDoubles(Topology topology, int nPad) {
  const std::size_t p = static_cast<std::size_t>(nPad);
  return topology == Topology::Bakis ? 3 * p : p * p;
}

// True when S needs neither a check failure nor a rescaling: positive,
// exponent field in 895..1151, and not the last frame.
inline bool inWindow(double S, bool lastFrame) {
  const std::uint64_t e = std::bit_cast<std::uint64_t>(S) >> 52;  // sign and exponent
  return e - 895 <= 1151 - 895 && !lastFrame;
}

// The row sum on eight lanes (j mod 8), as the AVX2 step adds it in two
// registers so that the additions do not form one long chain; combined as
// lanes l + (l + 4), then (0 + 2) + (1 + 3).
inline double laneSum(const double *v, int nPad) {
  double lo[4] = {}, hi[4] = {};
  for (int j = 0; j < nPad; j += 8) {
    for (int l = 0; l < 4; ++l) lo[l] += v[j + l];
    if (j + 4 < nPad)
      for (int l = 0; l < 4; ++l) hi[l] += v[j + 4 + l];
  }
  for (int l = 0; l < 4; ++l) lo[l] += hi[l];
  return (lo[0] + lo[2]) + (lo[1] + lo[3]);
}

// One frame: next[j] = (sum over predecessors i of cur[i] a[i][j]) x b[j]
// for every j < nPad (the padding lanes come out zero because the model's
// padding is zero); returns S = sum of next[j]. b is a float row padded to
// nPad (discrete outputs) or a double row (continuous).
template <class B>
double stepPortable(const ForwardModel &m, const double *cur, double *next, const B *b) {
  const int n = m.n, nPad = m.nPad;
  if (m.topology == Topology::Bakis) {
    const double *d0 = m.a, *d1 = m.a + nPad, *d2 = m.a + 2 * nPad;
    for (int j = 0; j < nPad; ++j)
      next[j] = ((cur[j] * d0[j] + cur[j - 1] * d1[j]) + cur[j - 2] * d2[j]) * static_cast<double>(b[j]);
    return laneSum(next, nPad);
  }
  // Row by row, so that each target still sums its even and its odd
  // sources apart in ascending order while the inner loop runs over
  // contiguous targets; odd[] is the model's work row.
  const bool leftRight = m.topology == Topology::LeftRight;
  double *odd = m.work;
  std::fill(next, next + nPad, 0.0);
  std::fill(odd, odd + nPad, 0.0);
  for (int i = 0; i < n; ++i) {
    const double x = cur[i];
    const double *row = m.a + static_cast<std::size_t>(i) * nPad;
    double *acc = i % 2 ? odd : next;
    for (int j = leftRight ? i : 0; j < nPad; ++j) acc[j] += x * row[j];
  }
  for (int j = 0; j < nPad; ++j) next[j] = (next[j] + odd[j]) * static_cast<double>(b[j]);
  return laneSum(next, nPad);
}

#ifdef XKL_FORWARD_HAVE_AVX2

#define XKL_AVX2 __attribute__((target("avx2")))

XKL_AVX2 inline __m256d loadOutputs(const float *b) { return _mm256_cvtps_pd(_mm_loadu_ps(b)); }
XKL_AVX2 inline __m256d loadOutputs(const double *b) { return _mm256_loadu_pd(b); }

XKL_AVX2 inline double horizontalSum(const __m256d sum[2]) {
  const __m256d v = _mm256_add_pd(sum[0], sum[1]);
  const __m128d pair = _mm_add_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
  return _mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

// Targets jb .. jb + 4K - 1 kept in 2K registers over the sources
// 0..iEnd-1: even and odd sources summed apart, which halves the chain of
// dependent additions that bounds small models.
template <int K, class B>
XKL_AVX2 inline void columnBlock(const double *a, int nPad, const double *cur, int iEnd, int jb, double *next,
                                 const B *b, __m256d sum[2]) {
  // The partial sums start from the first even and odd products rather
  // than from zero (0 + p = p), one addition less on the chain.
  __m256d even[K], odd[K];
  const double *row = a + jb;
  {
    const __m256d x0 = _mm256_broadcast_sd(cur), x1 = _mm256_broadcast_sd(cur + 1);
    for (int k = 0; k < K; ++k) {
      even[k] = _mm256_mul_pd(x0, _mm256_load_pd(row + 4 * k));
      odd[k] = iEnd > 1 ? _mm256_mul_pd(x1, _mm256_load_pd(row + nPad + 4 * k)) : _mm256_setzero_pd();
    }
  }
  int i = 2;
  row += 2 * nPad;
  for (; i + 1 < iEnd; i += 2, row += 2 * nPad) {
    const __m256d x0 = _mm256_broadcast_sd(cur + i), x1 = _mm256_broadcast_sd(cur + i + 1);
    for (int k = 0; k < K; ++k) {
      even[k] = _mm256_add_pd(even[k], _mm256_mul_pd(x0, _mm256_load_pd(row + 4 * k)));
      odd[k] = _mm256_add_pd(odd[k], _mm256_mul_pd(x1, _mm256_load_pd(row + nPad + 4 * k)));
    }
  }
  if (i < iEnd) {
    const __m256d x0 = _mm256_broadcast_sd(cur + i);
    for (int k = 0; k < K; ++k) even[k] = _mm256_add_pd(even[k], _mm256_mul_pd(x0, _mm256_load_pd(row + 4 * k)));
  }
  for (int k = 0; k < K; ++k) {
    const __m256d v = _mm256_mul_pd(_mm256_add_pd(even[k], odd[k]), loadOutputs(b + jb + 4 * k));
    _mm256_store_pd(next + jb + 4 * k, v);
    sum[k & 1] = _mm256_add_pd(sum[k & 1], v);  // jb is a multiple of 8
  }
}

// Bakis targets j..j+3 from cur[j..], cur[j-1..] and cur[j-2..].
template <class B>
XKL_AVX2 inline void bakisTargets(int j, __m256d c0, __m256d c1, __m256d c2, const double *d, int nPad, double *next,
                                  const B *b, __m256d &sum) {
  const __m256d p0 = _mm256_mul_pd(c0, _mm256_load_pd(d + j));
  const __m256d p1 = _mm256_mul_pd(c1, _mm256_load_pd(d + nPad + j));
  const __m256d p2 = _mm256_mul_pd(c2, _mm256_load_pd(d + 2 * nPad + j));
  const __m256d v = _mm256_mul_pd(_mm256_add_pd(_mm256_add_pd(p0, p1), p2), loadOutputs(b + j));
  _mm256_store_pd(next + j, v);
  sum = _mm256_add_pd(sum, v);
}

template <class B>
XKL_AVX2 __attribute__((always_inline)) inline double stepAvx2(const ForwardModel &m, const double *cur, double *next, const B *b) {
  const int n = m.n, nPad = m.nPad;
  __m256d sum[2] = {_mm256_setzero_pd(), _mm256_setzero_pd()};
  if (m.topology == Topology::Bakis) {
    // cur[j-1..] and cur[j-2..] are built from aligned loads: unaligned
    // ones would split cache lines and, in small models, straddle vectors
    // stored a few cycles before, missing store forwarding on the
    // frame-to-frame chain.
    __m256d before = _mm256_setzero_pd();  // the guard cells
    for (int j = 0; j < nPad; j += 4) {
      const __m256d c0 = _mm256_load_pd(cur + j);
      const __m256d c2 = _mm256_permute2f128_pd(before, c0, 0x21);
      bakisTargets(j, c0, _mm256_shuffle_pd(c2, c0, 0x5), c2, m.a, nPad, next, b, sum[0]);
      before = c0;
      if ((j += 4) == nPad) break;
      const __m256d c4 = _mm256_load_pd(cur + j);
      const __m256d c6 = _mm256_permute2f128_pd(before, c4, 0x21);
      bakisTargets(j, c4, _mm256_shuffle_pd(c6, c4, 0x5), c6, m.a, nPad, next, b, sum[1]);
      before = c4;
    }
    return horizontalSum(sum);
  }
  const bool leftRight = m.topology == Topology::LeftRight;
  auto sources = [&](int jEnd) { return leftRight ? std::min(n, jEnd) : n; };
  int jb = 0;
  for (; nPad - jb >= 16; jb += 16) columnBlock<4>(m.a, nPad, cur, sources(jb + 16), jb, next, b, sum);
  if (nPad - jb >= 8) columnBlock<2>(m.a, nPad, cur, sources(jb + 8), jb, next, b, sum), jb += 8;
  if (nPad - jb >= 4) columnBlock<1>(m.a, nPad, cur, sources(jb + 4), jb, next, b, sum);
  return horizontalSum(sum);
}

// The frames after the first, the step inlined into the loop: small
// models spend most of a frame on its fixed costs.
template <class B, class Row>
XKL_AVX2 bool framesAvx2(const ForwardModel &m, int nFrames, double *cur, double *next, double S, Row outputsOf,
                         ForwardScore *score) {
  int scaleCount = 0;
  for (int t = 1; t < nFrames; ++t) {
    const B *b = outputsOf(t);
    if (!b) return false;
    S = stepAvx2(m, cur, next, b);
    const bool last = t == nFrames - 1;
    if (!inWindow(S, last) && !forwardRescale(next, m.nPad, &S, &scaleCount, last)) return false;
    std::swap(cur, next);
  }
  *score = {S, scaleCount};
  return true;
}

#undef XKL_AVX2

// GCC's 512-bit intrinsics start some results from an undefined vector,
// which it then reports as maybe uninitialized.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

#define XKL_AVX512 __attribute__((target("avx512f,avx2")))

// A product the compiler may not fuse with the addition that follows it:
// AVX-512F brings FMA, and a fused multiply-add rounds once where the
// other steps round twice. The empty asm makes the rounded product a value
// of its own.
XKL_AVX512 __attribute__((always_inline)) inline __m512d mul8(__m512d x, __m512d y) {
  __m512d p = _mm512_mul_pd(x, y);
  asm("" : "+v"(p));
  return p;
}

// Eight outputs from j; a discrete row holds only n rounded up to 4 floats,
// so a block that reaches past them loads four and zeroes the rest (those
// lanes meet zero transitions).
XKL_AVX512 inline __m512d loadOutputs8(const float *b, int j, int bEnd) {
  if (j + 8 <= bEnd) return _mm512_cvtps_pd(_mm256_loadu_ps(b + j));
  return _mm512_maskz_cvtps_pd(0x0F, _mm256_castps128_ps256(_mm_loadu_ps(b + j)));
}
XKL_AVX512 inline __m512d loadOutputs8(const double *b, int j, int bEnd) {
  if (j + 8 <= bEnd) return _mm512_loadu_pd(b + j);
  return _mm512_maskz_loadu_pd(0x0F, b + j);
}

// Lanes l + (l + 4), then (0 + 2) + (1 + 3), as laneSum.
XKL_AVX512 inline double horizontalSum8(__m512d sum) {
  const __m256d v = _mm256_add_pd(_mm512_castpd512_pd256(sum), _mm512_extractf64x4_pd(sum, 1));
  const __m128d pair = _mm_add_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
  return _mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

// Targets jb .. jb + 8K - 1 over the sources 0..iEnd-1, as columnBlock with
// eight targets a register; one accumulator holds the eight lanes of the
// row sum.
template <int K, class B>
XKL_AVX512 inline void columnBlock8(const double *a, int nPad, const double *cur, int iEnd, int jb, double *next,
                                    const B *b, int bEnd, __m512d &sum) {
  __m512d even[K], odd[K];
  const double *row = a + jb;
  {
    const __m512d x0 = _mm512_set1_pd(cur[0]), x1 = _mm512_set1_pd(cur[1]);
    for (int k = 0; k < K; ++k) {
      even[k] = mul8(x0, _mm512_load_pd(row + 8 * k));
      odd[k] = iEnd > 1 ? mul8(x1, _mm512_load_pd(row + nPad + 8 * k)) : _mm512_setzero_pd();
    }
  }
  int i = 2;
  row += 2 * nPad;
  for (; i + 1 < iEnd; i += 2, row += 2 * nPad) {
    const __m512d x0 = _mm512_set1_pd(cur[i]), x1 = _mm512_set1_pd(cur[i + 1]);
    for (int k = 0; k < K; ++k) {
      even[k] = _mm512_add_pd(even[k], mul8(x0, _mm512_load_pd(row + 8 * k)));
      odd[k] = _mm512_add_pd(odd[k], mul8(x1, _mm512_load_pd(row + nPad + 8 * k)));
    }
  }
  if (i < iEnd) {
    const __m512d x0 = _mm512_set1_pd(cur[i]);
    for (int k = 0; k < K; ++k) even[k] = _mm512_add_pd(even[k], mul8(x0, _mm512_load_pd(row + 8 * k)));
  }
  for (int k = 0; k < K; ++k) {
    const __m512d v = mul8(_mm512_add_pd(even[k], odd[k]), loadOutputs8(b, jb + 8 * k, bEnd));
    _mm512_store_pd(next + jb + 8 * k, v);
    sum = _mm512_add_pd(sum, v);
  }
}

// nPad is a multiple of 8 here and the rows start on 64 bytes.
template <class B>
XKL_AVX512 __attribute__((always_inline)) inline double stepAvx512(const ForwardModel &m, const double *cur,
                                                                   double *next, const B *b) {
  const int n = m.n, nPad = m.nPad, bEnd = pad4(n);
  __m512d sum = _mm512_setzero_pd();
  if (m.topology == Topology::Bakis) {
    // cur[j-1..] and cur[j-2..] shifted in from the previous aligned vector
    // (valignq), for the same reason as in the AVX2 step.
    const double *d = m.a;
    __m512i before = _mm512_setzero_si512();  // the guard cells
    for (int j = 0; j < nPad; j += 8) {
      const __m512i c0 = _mm512_castpd_si512(_mm512_load_pd(cur + j));
      const __m512d c1 = _mm512_castsi512_pd(_mm512_alignr_epi64(c0, before, 7));
      const __m512d c2 = _mm512_castsi512_pd(_mm512_alignr_epi64(c0, before, 6));
      const __m512d p0 = mul8(_mm512_castsi512_pd(c0), _mm512_load_pd(d + j));
      const __m512d p1 = mul8(c1, _mm512_load_pd(d + nPad + j));
      const __m512d p2 = mul8(c2, _mm512_load_pd(d + 2 * nPad + j));
      const __m512d v = mul8(_mm512_add_pd(_mm512_add_pd(p0, p1), p2), loadOutputs8(b, j, bEnd));
      _mm512_store_pd(next + j, v);
      sum = _mm512_add_pd(sum, v);
      before = c0;
    }
    return horizontalSum8(sum);
  }
  const bool leftRight = m.topology == Topology::LeftRight;
  auto sources = [&](int jEnd) { return leftRight ? std::min(n, jEnd) : n; };
  int jb = 0;
  for (; nPad - jb >= 32; jb += 32) columnBlock8<4>(m.a, nPad, cur, sources(jb + 32), jb, next, b, bEnd, sum);
  if (nPad - jb >= 16) columnBlock8<2>(m.a, nPad, cur, sources(jb + 16), jb, next, b, bEnd, sum), jb += 16;
  if (nPad - jb >= 8) columnBlock8<1>(m.a, nPad, cur, sources(jb + 8), jb, next, b, bEnd, sum);
  return horizontalSum8(sum);
}

// Bakis models of up to 8V states: the transitions and the alpha row stay
// in registers from frame to frame, so the chain of a frame does not pass
// through a store and a load. The row is still stored for the rescaling,
// and read back when that changed it.
template <int V, class B, class Row>
XKL_AVX512 bool bakisFramesInRegisters(const ForwardModel &m, int nFrames, double *cur, double *next, double S,
                                       Row outputsOf, ForwardScore *score) {
  const int nPad = m.nPad, bEnd = pad4(m.n);
  __m512d d0[V], d1[V], d2[V], c[V];
  for (int v = 0; v < V; ++v) {
    d0[v] = _mm512_load_pd(m.a + 8 * v);
    d1[v] = _mm512_load_pd(m.a + nPad + 8 * v);
    d2[v] = _mm512_load_pd(m.a + 2 * nPad + 8 * v);
    c[v] = _mm512_load_pd(cur + 8 * v);
  }
  int scaleCount = 0;
  for (int t = 1; t < nFrames; ++t) {
    const B *b = outputsOf(t);
    if (!b) return false;
    __m512d sum = _mm512_setzero_pd();
    __m512i before = _mm512_setzero_si512();
    for (int v = 0; v < V; ++v) {
      const __m512i c0 = _mm512_castpd_si512(c[v]);
      const __m512d c1 = _mm512_castsi512_pd(_mm512_alignr_epi64(c0, before, 7));
      const __m512d c2 = _mm512_castsi512_pd(_mm512_alignr_epi64(c0, before, 6));
      before = c0;
      const __m512d p0 = mul8(c[v], d0[v]), p1 = mul8(c1, d1[v]), p2 = mul8(c2, d2[v]);
      c[v] = mul8(_mm512_add_pd(_mm512_add_pd(p0, p1), p2), loadOutputs8(b, 8 * v, bEnd));
      _mm512_store_pd(next + 8 * v, c[v]);
      sum = _mm512_add_pd(sum, c[v]);
    }
    S = horizontalSum8(sum);
    const bool last = t == nFrames - 1;
    if (!inWindow(S, last)) {
      if (!forwardRescale(next, nPad, &S, &scaleCount, last)) return false;
      for (int v = 0; v < V; ++v) c[v] = _mm512_load_pd(next + 8 * v);
    }
  }
  *score = {S, scaleCount};
  return true;
}

template <class B, class Row>
XKL_AVX512 bool framesAvx512(const ForwardModel &m, int nFrames, double *cur, double *next, double S, Row outputsOf,
                             ForwardScore *score) {
  if (m.topology == Topology::Bakis) switch (m.nPad) {
      case 8: return bakisFramesInRegisters<1, B>(m, nFrames, cur, next, S, outputsOf, score);
      case 16: return bakisFramesInRegisters<2, B>(m, nFrames, cur, next, S, outputsOf, score);
      case 24: return bakisFramesInRegisters<3, B>(m, nFrames, cur, next, S, outputsOf, score);
      case 32: return bakisFramesInRegisters<4, B>(m, nFrames, cur, next, S, outputsOf, score);
      default: break;
    }
  int scaleCount = 0;
  for (int t = 1; t < nFrames; ++t) {
    const B *b = outputsOf(t);
    if (!b) return false;
    S = stepAvx512(m, cur, next, b);
    const bool last = t == nFrames - 1;
    if (!inWindow(S, last) && !forwardRescale(next, m.nPad, &S, &scaleCount, last)) return false;
    std::swap(cur, next);
  }
  *score = {S, scaleCount};
  return true;
}

#undef XKL_AVX512
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif  // XKL_FORWARD_HAVE_AVX2

// The frames after the first: step, then the rescaling check.
template <class B, class Row>
bool runFrames(const ForwardModel &m, int nFrames, ForwardScratch &scratch, double S, Row outputsOf,
               ForwardScore *score) {
  double *cur = scratch.alpha(0), *next = scratch.alpha(1);
#ifdef XKL_FORWARD_HAVE_AVX2
  if (m.isa == ForwardIsa::Avx512) return framesAvx512<B>(m, nFrames, cur, next, S, outputsOf, score);
  if (m.isa == ForwardIsa::Avx2) return framesAvx2<B>(m, nFrames, cur, next, S, outputsOf, score);
#endif
  int scaleCount = 0;
  for (int t = 1; t < nFrames; ++t) {
    const B *b = outputsOf(t);
    if (!b) return false;
    S = stepPortable(m, cur, next, b);
    const bool last = t == nFrames - 1;
    if (!inWindow(S, last) && !forwardRescale(next, m.nPad, &S, &scaleCount, last)) return false;
    std::swap(cur, next);
  }
  *score = {S, scaleCount};
  return true;
}

// alpha_0[j] = pi[j] x b_j(0) with zero padding; returns its sum.
template <class B>
double firstFrame(const ForwardModel &m, const float *initial, const B *b, double *alpha) {
  for (int j = 0; j < m.nPad; ++j)
    alpha[j] = j < m.n ? static_cast<double>(initial[j]) * static_cast<double>(b[j]) : 0.0;
  return laneSum(alpha, m.nPad);
}

// The step a model runs: the forced one, or by default the processor's
// best where it pays. Small general and left-right models are bound by the
// latency of a frame, which the 512-bit step does not shorten (its row is
// padded to 8): measured on this machine it gains from 10 states and loses
// up to a quarter below. Bakis models gain at every size (up to 32 states
// their row stays in registers).
ForwardIsa stepFor(Topology topology, int n) {
  const ForwardIsa setting = static_cast<ForwardIsa>(isaSetting.load(std::memory_order_relaxed));
  ForwardIsa best = ForwardIsa::Portable;
#ifdef XKL_FORWARD_HAVE_AVX2
  const CpuFeatures &cpu = cpuFeatures();
  if (cpu.avx2) best = cpu.avx512f ? ForwardIsa::Avx512 : ForwardIsa::Avx2;
#endif
  if (setting != ForwardIsa::Auto) return std::min(setting, best);
  if (best == ForwardIsa::Avx512 && topology != Topology::Bakis && n < 10) return ForwardIsa::Avx2;
  return best;
}

}  // namespace

double forwardCost(const ForwardScore &score) {
  return score.scaleCount * kLog10Of2 - kLog10Of2 * std::log2(score.S);
}

ForwardScratch::~ForwardScratch() {
  if (block_) ::operator delete(block_, std::align_val_t{kAlign});
}

// Laid out for rows of n rounded up to 8, which also hold the rows of a
// model padded to 4.
bool ForwardScratch::reserve(Topology topology, int n) {
  const int nPad = pad8(std::max(n, 1));
  const std::size_t rowBytes = static_cast<std::size_t>(kAlphaGuard + nPad) * sizeof(double);
  const std::size_t transBytes = transitionDoubles(topology, nPad) * sizeof(double);
  const std::size_t need = transBytes + 2 * rowBytes + 2 * static_cast<std::size_t>(nPad) * sizeof(double);
  if (need > capacity_) {
    void *fresh = ::operator new(need, std::align_val_t{kAlign}, std::nothrow);
    if (!fresh) return false;
    if (block_) ::operator delete(block_, std::align_val_t{kAlign});
    block_ = fresh;
    capacity_ = need;
  }
  // Every piece starts on 64 bytes: nPad and kAlphaGuard are multiples of 8.
  char *p = static_cast<char *>(block_);
  trans_ = reinterpret_cast<double *>(p);
  p += transBytes;
  for (double *&row : alpha_) {
    std::fill_n(reinterpret_cast<double *>(p), kAlphaGuard, 0.0);
    row = reinterpret_cast<double *>(p) + kAlphaGuard;
    p += rowBytes;
  }
  out_ = reinterpret_cast<double *>(p);
  std::fill_n(out_, nPad, 0.0);
  work_ = out_ + nPad;
  return true;
}

ForwardModel forwardPrepare(Topology topology, int n, const float *packed, ForwardScratch &scratch) {
  ForwardModel m;
  m.topology = topology;
  m.n = n;
  m.isa = stepFor(topology, n);
  m.nPad = m.isa == ForwardIsa::Avx512 ? pad8(std::max(n, 1)) : pad4(std::max(n, 1));
  double *a = scratch.transitions();
  m.a = a;
  m.work = scratch.work();
  const int nPad = m.nPad;
  std::fill_n(a, transitionDoubles(topology, nPad), 0.0);
  switch (topology) {
    case Topology::General:
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) a[std::size_t(i) * nPad + j] = packed[std::size_t(i) * n + j];
      break;
    case Topology::LeftRight:
      for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j) a[std::size_t(i) * nPad + j] = *packed++;
      break;
    case Topology::Bakis:
      // Triples (a[i][i], a[i][i+1], a[i][i+2]) from offset 3i; the tail
      // keeps a[n-1][n-1] at offset 3(n-1).
      for (int j = 0; j < n; ++j) {
        a[j] = packed[3 * j];
        if (j >= 1) a[nPad + j] = packed[3 * (j - 1) + 1];
        if (j >= 2) a[2 * nPad + j] = packed[3 * (j - 2) + 2];
      }
      break;
  }
  return m;
}

bool forwardRescale(double *alpha, int nPad, double *S, int *scaleCount, bool lastFrame) {
  const std::uint64_t bits = std::bit_cast<std::uint64_t>(*S);
  if (bits >> 63) return false;
  int e = static_cast<int>((bits >> 52) & 0x7FF);
  if (e == 0 || e >= 2046) return false;
  if (e >= 895 && e <= 1151 && !lastFrame) return true;
  e = std::max(e, 767);
  // 2^(1023 - e), built from its exponent field: exact, so no rounding.
  const double factor = std::bit_cast<double>(static_cast<std::uint64_t>(2046 - e) << 52);
  for (int j = 0; j < nPad; ++j) alpha[j] *= factor;
  *S *= factor;
  *scaleCount += 1023 - e;
  return true;
}

bool forwardDiscrete(const ForwardModel &m, const float *const *outRows, int nSymbols, const float *initial,
                     const int *obs, int nFrames, ForwardScratch &scratch, ForwardScore *score) {
  auto outputsOf = [&](int t) -> const float * {
    const int o = obs[t];
    return o >= 0 && o < nSymbols ? outRows[o] : nullptr;
  };
  const float *b0 = outputsOf(0);
  if (!b0) return false;
  const double S0 = firstFrame(m, initial, b0, scratch.alpha(0));
  return runFrames<float>(m, nFrames, scratch, S0, outputsOf, score);
}

bool forwardContinuous(const ForwardModel &m, GaussMixServer *const *mixtures, int nQuant, const float *initial,
                       const float *const *obs, int nFrames, ForwardScratch &scratch, ForwardScore *score) {
  double *row = scratch.outputs();  // padding lanes stay zero
  auto outputsOf = [&](int t) -> const double * {
    for (int j = 0; j < m.n; ++j) row[j] = XKsEvalGaussMix(mixtures[j], obs[t], nQuant);
    return row;
  };
  const double S0 = firstFrame(m, initial, outputsOf(0), scratch.alpha(0));
  return runFrames<double>(m, nFrames, scratch, S0, outputsOf, score);
}

ForwardIsa setForwardIsa(ForwardIsa isa) {
  return static_cast<ForwardIsa>(isaSetting.exchange(static_cast<int>(isa), std::memory_order_relaxed));
}

}  // namespace xk::hmm
