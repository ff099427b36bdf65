// Band geometry and local distances of the DTW evaluation.
//
// Local distances are computed for a run of reference frames at once, from
// the reference stored transposed and widened to double: lane j of a vector
// holds cell j, so each lane sums its own dim terms in the order k = 0, 1,
// ... exactly as kfxsNorm and kfxwNorm do, and every path gives the same
// bits. The AVX2 path keeps 16 cells in registers across the whole dim loop.
#include <atomic>
#include <cmath>
#include <cstdlib>

#include "dtw/dtw_internal.h"
#include "frame/cpu.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define XKL_DTW_X86 1
#endif

namespace xk::dtw {
namespace {

std::atomic<bool> simdOff{false};

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
        acc[j] += d * d;
      }
  }
  if (!l1)
    for (int j = 0; j < n; ++j) acc[j] = std::sqrt(acc[j]);
}

#ifdef XKL_DTW_X86
#define XKL_AVX2 __attribute__((target("avx2"), always_inline)) inline

// One term of a lane's sum: |x - r| or (x - r)^2 added to acc. Separate
// multiply and add (no FMA) keep the rounding of the scalar sum.
template <bool L1>
XKL_AVX2 __m256d term(__m256d xk, const double *r, __m256d acc) {
  const __m256d d = _mm256_sub_pd(xk, _mm256_loadu_pd(r));
  if constexpr (L1) return _mm256_add_pd(acc, _mm256_andnot_pd(_mm256_set1_pd(-0.0), d));
  return _mm256_add_pd(acc, _mm256_mul_pd(d, d));
}

template <bool L1>
XKL_AVX2 __m256d finish(__m256d acc) {
  if constexpr (L1) return acc;
  return _mm256_sqrt_pd(acc);
}

// Cells j0.. in blocks of 16, then of 8 and 4 (the last block may run up to
// 4 cells past j1).
template <bool L1>
__attribute__((target("avx2"))) void distancesAvx2(const double *x, const double *ref, int64_t ld, int dim,
                                                   int j0, int j1, double *out) {
  int j = j0;
  for (; j + 11 <= j1; j += 16) {
    __m256d a0 = _mm256_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
    const double *r = ref + j;
    for (int k = 0; k < dim; ++k, r += ld) {
      const __m256d xk = _mm256_broadcast_sd(x + k);
      a0 = term<L1>(xk, r, a0);
      a1 = term<L1>(xk, r + 4, a1);
      a2 = term<L1>(xk, r + 8, a2);
      a3 = term<L1>(xk, r + 12, a3);
    }
    _mm256_storeu_pd(out + j, finish<L1>(a0));
    _mm256_storeu_pd(out + j + 4, finish<L1>(a1));
    _mm256_storeu_pd(out + j + 8, finish<L1>(a2));
    _mm256_storeu_pd(out + j + 12, finish<L1>(a3));
  }
  for (; j + 3 <= j1; j += 8) {
    __m256d a0 = _mm256_setzero_pd(), a1 = a0;
    const double *r = ref + j;
    for (int k = 0; k < dim; ++k, r += ld) {
      const __m256d xk = _mm256_broadcast_sd(x + k);
      a0 = term<L1>(xk, r, a0);
      a1 = term<L1>(xk, r + 4, a1);
    }
    _mm256_storeu_pd(out + j, finish<L1>(a0));
    _mm256_storeu_pd(out + j + 4, finish<L1>(a1));
  }
  if (j <= j1) {
    __m256d a0 = _mm256_setzero_pd();
    const double *r = ref + j;
    for (int k = 0; k < dim; ++k, r += ld) a0 = term<L1>(_mm256_broadcast_sd(x + k), r, a0);
    _mm256_storeu_pd(out + j, finish<L1>(a0));
  }
}
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

void setDtwSimdEnabled(bool on) { simdOff.store(!on, std::memory_order_relaxed); }

bool dtwSimdActive() { return !simdOff.load(std::memory_order_relaxed) && cpuFeatures().avx2; }

void localDistances(const double *x, const double *ref, int64_t ld, int dim, int j0, int j1, bool l1,
                    double *out) {
  if (j1 < j0) return;
#ifdef XKL_DTW_X86
  if (dtwSimdActive()) {
    if (l1)
      distancesAvx2<true>(x, ref, ld, dim, j0, j1, out);
    else
      distancesAvx2<false>(x, ref, ld, dim, j0, j1, out);
    return;
  }
#endif
  distancesPortable(x, ref, ld, dim, j0, j1, l1, out);
}

}  // namespace xk::dtw
