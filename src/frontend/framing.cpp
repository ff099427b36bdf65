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

bool useSimd() { return cpuHasAvx2Fma() && !simdOff.load(std::memory_order_relaxed); }

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
__attribute__((target("avx2,fma"), always_inline)) inline void four(const float *x, const float *before, int j,
                                                                    bool energy, bool emphasis, __m256d a,
                                                                    const float *win, float *w, __m256d &sum) {
  const __m128 raw = _mm_loadu_ps(x + j);
  const __m256d cur = _mm256_cvtps_pd(raw);
  if (energy) sum = _mm256_fmadd_pd(cur, cur, sum);
  __m128 y = raw;
  // The product of two floats is exact in double, so only the subtraction
  // rounds, as in the library's pre-emphasis.
  if (emphasis) y = _mm256_cvtpd_ps(_mm256_sub_pd(cur, _mm256_mul_pd(a, _mm256_cvtps_pd(_mm_loadu_ps(before)))));
  _mm_storeu_ps(w + j, _mm_mul_ps(y, _mm_loadu_ps(win + j)));
}

// The energy keeps the dot product's 16 double lanes (lane l takes the
// samples i with i % 16 == l, lanes 0..3 the 4-wide remainder), its reduction
// tree and its scalar tail.
__attribute__((target("avx2,fma"))) double prepareAvx2(const float *x, int n, float alpha, const float *win,
                                                       float *w, bool energy) {
  const bool emphasis = alpha != 0.0f;
  const __m256d a = _mm256_set1_pd(static_cast<double>(alpha));
  __m256d acc0 = _mm256_setzero_pd(), acc1 = acc0, acc2 = acc0, acc3 = acc0;
  // The first sample has no predecessor: a zero one leaves it unchanged.
  const float head[4] = {0.0f, x[0], x[1], n > 2 ? x[2] : 0.0f};
  auto before = [&](int j) { return j == 0 ? head : x + j - 1; };
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    four(x, before(i), i, energy, emphasis, a, win, w, acc0);
    four(x, x + i + 3, i + 4, energy, emphasis, a, win, w, acc1);
    four(x, x + i + 7, i + 8, energy, emphasis, a, win, w, acc2);
    four(x, x + i + 11, i + 12, energy, emphasis, a, win, w, acc3);
  }
  for (; i + 4 <= n; i += 4) four(x, before(i), i, energy, emphasis, a, win, w, acc0);
  double sum = 0.0;
  if (energy) {
    const __m256d s = _mm256_add_pd(_mm256_add_pd(acc0, acc1), _mm256_add_pd(acc2, acc3));
    alignas(32) double lane[4];
    _mm256_store_pd(lane, s);
    sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  }
  const double ad = alpha;
  for (; i < n; ++i) {
    const double cur = x[i];
    if (energy) sum += cur * cur;
    const float y = !emphasis || i == 0 ? x[i] : static_cast<float>(cur - ad * static_cast<double>(x[i - 1]));
    w[i] = y * win[i];
  }
  return sum;
}
#endif

}  // namespace

double prepareFrame(const float *x, int n, float alpha, const float *win, float *w, bool energy) {
#ifdef XKL_FRAMING_X86
  if (useSimd()) return prepareAvx2(x, n, alpha, win, w, energy);
#endif
  return preparePortable(x, n, alpha, win, w, energy);
}

bool setFramingSimd(bool on) { return !simdOff.exchange(!on); }

}  // namespace xk::frontend
