// AVX2 float Viterbi steps. Every sum is the same float addition as in the
// portable step and minima select exact values, so the results are the
// portable ones bit for bit. Rows may be read as whole vectors around
// 0..n-1 (padding of +inf, see viterbi_kernels.h) and transition arrays up
// to kTransSlack entries past their end.
#include <algorithm>
#include <cstddef>

#include "hmm/viterbi_kernels.h"

#ifdef XKL_HMM_HAVE_AVX2
#include <immintrin.h>

namespace xk::hmm {

namespace {

// Lanes below r set (r = 1..8): a window of eight words of this table.
alignas(32) const std::int32_t kLaneMask[16] = {-1, -1, -1, -1, -1, -1, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0};

__attribute__((target("avx2"))) inline float horizontalMin(__m256 v) {
  __m128 m = _mm_min_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
  m = _mm_min_ps(m, _mm_movehl_ps(m, m));
  m = _mm_min_ss(m, _mm_shuffle_ps(m, m, 1));
  return _mm_cvtss_f32(m);
}

// The minima of four vectors, lane k holding the minimum of vector k.
__attribute__((target("avx2"))) inline __m128 horizontalMin4(__m256 a0, __m256 a1, __m256 a2, __m256 a3) {
  const __m256 p01 = _mm256_min_ps(_mm256_unpacklo_ps(a0, a1), _mm256_unpackhi_ps(a0, a1));
  const __m256 p23 = _mm256_min_ps(_mm256_unpacklo_ps(a2, a3), _mm256_unpackhi_ps(a2, a3));
  const __m256 q = _mm256_min_ps(_mm256_shuffle_ps(p01, p23, _MM_SHUFFLE(1, 0, 1, 0)),
                                 _mm256_shuffle_ps(p01, p23, _MM_SHUFFLE(3, 2, 3, 2)));
  return _mm_min_ps(_mm256_castps256_ps128(q), _mm256_extractf128_ps(q, 1));
}

}  // namespace

// Four target states at a time (their columns are adjacent, j-3 last), so
// each vector of prev is loaded once for four columns and the four minima
// are reduced together. Lanes past n read prev's +inf padding.
__attribute__((target("avx2"))) void stepGeneralAvx2(const Model<float> &m, const float *prev, const float *out,
                                                     float *next) {
  const float *trans = m.trans;
  const int n = m.n;
  const int width = pad8(n);
  int j = n - 1;
  for (; j >= 3; j -= 4) {
    const float *c3 = trans + static_cast<std::ptrdiff_t>(n - 1 - j) * n;  // column j
    const float *c2 = c3 + n, *c1 = c2 + n, *c0 = c1 + n;                  // j-1, j-2, j-3
    __m256 p = _mm256_load_ps(prev);
    __m256 a0 = _mm256_add_ps(p, _mm256_loadu_ps(c0));
    __m256 a1 = _mm256_add_ps(p, _mm256_loadu_ps(c1));
    __m256 a2 = _mm256_add_ps(p, _mm256_loadu_ps(c2));
    __m256 a3 = _mm256_add_ps(p, _mm256_loadu_ps(c3));
    for (int i = 8; i < width; i += 8) {
      p = _mm256_load_ps(prev + i);
      a0 = _mm256_min_ps(a0, _mm256_add_ps(p, _mm256_loadu_ps(c0 + i)));
      a1 = _mm256_min_ps(a1, _mm256_add_ps(p, _mm256_loadu_ps(c1 + i)));
      a2 = _mm256_min_ps(a2, _mm256_add_ps(p, _mm256_loadu_ps(c2 + i)));
      a3 = _mm256_min_ps(a3, _mm256_add_ps(p, _mm256_loadu_ps(c3 + i)));
    }
    _mm_storeu_ps(next + j - 3, _mm_add_ps(horizontalMin4(a0, a1, a2, a3), _mm_loadu_ps(out + j - 3)));
  }
  for (; j >= 0; --j) {
    const float *c = trans + static_cast<std::ptrdiff_t>(n - 1 - j) * n;
    __m256 a = _mm256_add_ps(_mm256_load_ps(prev), _mm256_loadu_ps(c));
    for (int i = 8; i < width; i += 8)
      a = _mm256_min_ps(a, _mm256_add_ps(_mm256_load_ps(prev + i), _mm256_loadu_ps(c + i)));
    next[j] = horizontalMin(a) + out[j];
  }
}

// Column j holds j+1 predecessors; the lanes of the last vector beyond
// them (the next column's entries) are replaced by +inf.
__attribute__((target("avx2"))) void stepLeftRightAvx2(const Model<float> &m, const float *prev, const float *out,
                                                       float *next) {
  const int n = m.n;
  const __m256 inf = _mm256_set1_ps(rowPad<float>());
  const float *col = m.trans;
  for (int j = n - 1; j >= 0; --j) {
    const int count = j + 1;
    __m256 a = inf;
    int i = 0;
    for (; i + 8 <= count; i += 8)
      a = _mm256_min_ps(a, _mm256_add_ps(_mm256_load_ps(prev + i), _mm256_loadu_ps(col + i)));
    if (i < count) {
      const __m256 keep = _mm256_castsi256_ps(
          _mm256_loadu_si256(reinterpret_cast<const __m256i *>(kLaneMask + 8 - (count - i))));
      const __m256 s = _mm256_add_ps(_mm256_load_ps(prev + i), _mm256_loadu_ps(col + i));
      a = _mm256_min_ps(a, _mm256_blendv_ps(inf, s, keep));
    }
    next[j] = horizontalMin(a) + out[j];
    col += count;
  }
}

// Eight targets j0..j0+7 at a time from the three diagonals (indexed by
// the source state): prev[j] + a[j][j], prev[j-1] + a[j-1][j],
// prev[j-2] + a[j-2][j]. For j0 = 0 the missing predecessors read prev's
// +inf guard cells. The last n mod 8 states take the scalar form.
__attribute__((target("avx2"))) void stepBakisAvx2(const Model<float> &m, const float *prev, const float *out,
                                                   float *next) {
  const int n = m.n;
  const float *d0 = m.trans, *d1 = m.trans + n, *d2 = m.trans + 2 * n - 1;
  int j = 0;
  for (; j + 8 <= n; j += 8) {
    const __m256 s0 = _mm256_add_ps(_mm256_load_ps(prev + j), _mm256_loadu_ps(d0 + j));
    const __m256 s1 = _mm256_add_ps(_mm256_loadu_ps(prev + j - 1), _mm256_loadu_ps(d1 + j - 1));
    const __m256 s2 = _mm256_add_ps(_mm256_loadu_ps(prev + j - 2), _mm256_loadu_ps(d2 + j - 2));
    const __m256 best = _mm256_min_ps(_mm256_min_ps(s0, s1), s2);
    _mm256_store_ps(next + j, _mm256_add_ps(best, _mm256_loadu_ps(out + j)));
  }
  for (; j < n; ++j) {
    float best = prev[j] + d0[j];
    if (j >= 1) best = std::min(best, prev[j - 1] + d1[j - 1]);
    if (j >= 2) best = std::min(best, prev[j - 2] + d2[j - 2]);
    next[j] = best + out[j];
  }
}

}  // namespace xk::hmm
#endif
