#include "frontend/framing.h"

#include <algorithm>
#include <atomic>

#include "frame/cpu.h"
#include "xkl.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define XKL_FRAMING_X86 1
#include <immintrin.h>
#endif

namespace xk::frontend {
namespace {

std::atomic<bool> simdOff{false};

bool useSimd() {
  static const bool available = cpuHasAvx2Fma();  // asked once
  return available && !simdOff.load(std::memory_order_relaxed);
}

double preparePortable(const float *x, int n, float alpha, const float *win, float *w, bool energy) {
  const double sum = energy ? kfxsDotProd(x, x, n) : 0.0;
  std::copy(x, x + n, w);
  if (alpha != 0.0f) XKsPreemphasize(w, alpha, n);
  for (int i = 0; i < n; ++i) w[i] *= win[i];
  return sum;
}

#ifdef XKL_FRAMING_X86
// Four samples from x[j] (their predecessors from `before`): the squares
// join `sum`, the windowed, pre-emphasised values go to w[j..j+3].
template <bool Energy, bool Emphasis>
__attribute__((target("avx2,fma"), always_inline)) inline void four(const float *x, const float *before, int j,
                                                                    __m256d a, const float *win, float *w,
                                                                    __m256d &sum) {
  const __m128 raw = _mm_loadu_ps(x + j);
  const __m256d cur = _mm256_cvtps_pd(raw);
  if constexpr (Energy) sum = _mm256_fmadd_pd(cur, cur, sum);
  __m128 y = raw;
  // The product of two floats is exact in double, so only the subtraction
  // rounds (fused or not), as in the library's pre-emphasis.
  if constexpr (Emphasis)
    y = _mm256_cvtpd_ps(_mm256_fnmadd_pd(a, _mm256_cvtps_pd(_mm_loadu_ps(before)), cur));
  _mm_storeu_ps(w + j, _mm_mul_ps(y, _mm_loadu_ps(win + j)));
}

// The energy keeps the dot product's 16 double lanes (lane l takes the
// samples i with i % 16 == l, lanes 0..3 the 4-wide remainder), its reduction
// tree and its scalar tail.
template <bool Energy, bool Emphasis>
__attribute__((target("avx2,fma"))) double prepareAvx2(const float *x, int n, float alpha, const float *win,
                                                       float *w) {
  const __m256d a = _mm256_set1_pd(static_cast<double>(alpha));
  __m256d acc0 = _mm256_setzero_pd(), acc1 = acc0, acc2 = acc0, acc3 = acc0;
  // The first sample has no predecessor: a zero one leaves it unchanged.
  const float head[4] = {0.0f, x[0], x[1], n > 2 ? x[2] : 0.0f};
  int i = 0;
  if (n >= 16) {
    four<Energy, Emphasis>(x, head, 0, a, win, w, acc0);
    four<Energy, Emphasis>(x, x + 3, 4, a, win, w, acc1);
    four<Energy, Emphasis>(x, x + 7, 8, a, win, w, acc2);
    four<Energy, Emphasis>(x, x + 11, 12, a, win, w, acc3);
    for (i = 16; i + 16 <= n; i += 16) {
      four<Energy, Emphasis>(x, x + i - 1, i, a, win, w, acc0);
      four<Energy, Emphasis>(x, x + i + 3, i + 4, a, win, w, acc1);
      four<Energy, Emphasis>(x, x + i + 7, i + 8, a, win, w, acc2);
      four<Energy, Emphasis>(x, x + i + 11, i + 12, a, win, w, acc3);
    }
  } else if (n >= 4) {
    four<Energy, Emphasis>(x, head, 0, a, win, w, acc0);
    i = 4;
  }
  for (; i + 4 <= n; i += 4) four<Energy, Emphasis>(x, x + i - 1, i, a, win, w, acc0);
  double sum = 0.0;
  if constexpr (Energy) {
    const __m256d s = _mm256_add_pd(_mm256_add_pd(acc0, acc1), _mm256_add_pd(acc2, acc3));
    alignas(32) double lane[4];
    _mm256_store_pd(lane, s);
    sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  }
  const double ad = alpha;
  for (; i < n; ++i) {
    const double cur = x[i];
    if constexpr (Energy) sum += cur * cur;
    const float y = !Emphasis || i == 0 ? x[i] : static_cast<float>(cur - ad * static_cast<double>(x[i - 1]));
    w[i] = y * win[i];
  }
  return sum;
}
#endif

}  // namespace

double prepareFrame(const float *x, int n, float alpha, const float *win, float *w, bool energy) {
#ifdef XKL_FRAMING_X86
  if (useSimd()) {
    if (alpha != 0.0f)
      return energy ? prepareAvx2<true, true>(x, n, alpha, win, w) : prepareAvx2<false, true>(x, n, alpha, win, w);
    return energy ? prepareAvx2<true, false>(x, n, alpha, win, w) : prepareAvx2<false, false>(x, n, alpha, win, w);
  }
#endif
  return preparePortable(x, n, alpha, win, w, energy);
}

bool setFramingSimd(bool on) { return !simdOff.exchange(!on); }

}  // namespace xk::frontend
