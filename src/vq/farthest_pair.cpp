// Farthest pair of a cluster's members, the quadratic step of the codebook
// construction.
//
// The fast search must return exactly what the plain scan returns: the first
// pair (in scan order) of the largest distance, where distances are the
// l2Distance values (sums of squares in double, element 0 first). It
// - sorts the members by their distance r to the members' mean and bounds
//   every pair by r_i + r_j (triangle inequality about the mean); a pair, or
//   the rest of a row, is skipped only when the bound is below the best
//   distance by more than the rounding of the computed values can account for;
// - measures the pairs it cannot skip four at a time, one member per lane,
//   each lane summing its squares in the same order as l2Distance, so every
//   distance has the bits the plain scan would see (no fused multiply-add:
//   the AVX2 code is compiled without FMA);
// - breaks ties of equal distance by scan order, whatever order it visits
//   pairs in.
#include <algorithm>
#include <cstdlib>

#include "vq/codebook_internal.h"
#include "vq/mahalanobis.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define XKL_VQ_HAVE_AVX2 1
#define XKL_TARGET_AVX2 __attribute__((target("avx2")))
#endif

namespace xk::vq {

template <class T>
FarPair farthestPairPlain(T *const *vectors, const int *members, int count, int dim) {
  FarPair best{0, 0, 0.0};
  double bestDist = 0.0;
  for (int i = 0; i < count; ++i)
    for (int j = i + 1; j < count; ++j) {
      const double d = l2Distance(vectors[members[i]], vectors[members[j]], dim);
      if (d > bestDist) bestDist = d, best.a = i, best.b = j;
    }
  if (count > 0) best.diameter = l2Distance(vectors[members[best.a]], vectors[members[best.b]], dim);
  return best;
}

namespace {

constexpr int kLanes = 4;
constexpr int kBlocksPerStep = 4;
constexpr int kPlainBelow = 64;
// Relative error of a computed distance is below (dim + 2) * 2^-53; 1e-9
// covers any practical dimension with a wide margin.
constexpr double kMargin = 1e-9;
// Below this the squares may be denormal and lose their relative accuracy:
// no pruning then.
constexpr double kTiny = 1e-100;

// Squared distances from p to the members of nb consecutive blocks; a block
// holds four members element-interleaved (element k of lane l at k*4 + l).
void squaresPortable(const double *p, const double *blocks, int dim, int nb, double *out) {
  const std::size_t stride = static_cast<std::size_t>(dim) * kLanes;
  for (int b = 0; b < nb; ++b) {
    const double *blk = blocks + b * stride;
    double acc[kLanes] = {0.0, 0.0, 0.0, 0.0};
    for (int k = 0; k < dim; ++k)
      for (int l = 0; l < kLanes; ++l) {
        const double d = blk[k * kLanes + l] - p[k];
        acc[l] += d * d;
      }
    for (int l = 0; l < kLanes; ++l) out[b * kLanes + l] = acc[l];
  }
}

#ifdef XKL_VQ_HAVE_AVX2
XKL_TARGET_AVX2 void squaresAvx2(const double *p, const double *blocks, int dim, int nb, double *out) {
  const std::size_t stride = static_cast<std::size_t>(dim) * kLanes;
  if (nb == kBlocksPerStep) {
    __m256d a0 = _mm256_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
    const double *b0 = blocks, *b1 = b0 + stride, *b2 = b1 + stride, *b3 = b2 + stride;
    for (int k = 0; k < dim; ++k) {
      const __m256d pk = _mm256_broadcast_sd(p + k);
      const __m256d d0 = _mm256_sub_pd(_mm256_loadu_pd(b0 + k * kLanes), pk);
      const __m256d d1 = _mm256_sub_pd(_mm256_loadu_pd(b1 + k * kLanes), pk);
      const __m256d d2 = _mm256_sub_pd(_mm256_loadu_pd(b2 + k * kLanes), pk);
      const __m256d d3 = _mm256_sub_pd(_mm256_loadu_pd(b3 + k * kLanes), pk);
      a0 = _mm256_add_pd(a0, _mm256_mul_pd(d0, d0));
      a1 = _mm256_add_pd(a1, _mm256_mul_pd(d1, d1));
      a2 = _mm256_add_pd(a2, _mm256_mul_pd(d2, d2));
      a3 = _mm256_add_pd(a3, _mm256_mul_pd(d3, d3));
    }
    _mm256_storeu_pd(out, a0);
    _mm256_storeu_pd(out + 4, a1);
    _mm256_storeu_pd(out + 8, a2);
    _mm256_storeu_pd(out + 12, a3);
    return;
  }
  for (int b = 0; b < nb; ++b) {
    const double *blk = blocks + b * stride;
    __m256d acc = _mm256_setzero_pd();
    for (int k = 0; k < dim; ++k) {
      const __m256d d = _mm256_sub_pd(_mm256_loadu_pd(blk + k * kLanes), _mm256_broadcast_sd(p + k));
      acc = _mm256_add_pd(acc, _mm256_mul_pd(d, d));
    }
    _mm256_storeu_pd(out + b * kLanes, acc);
  }
}
#endif

struct Scratch {
  double *row = nullptr, *blocks = nullptr, *radius = nullptr, *sortedRadius = nullptr, *mean = nullptr;
  int *order = nullptr;
  ~Scratch() {
    std::free(row), std::free(blocks), std::free(radius), std::free(sortedRadius), std::free(mean);
    std::free(order);
  }
  bool allocate(int count, int dim) {
    const std::size_t n = static_cast<std::size_t>(count), d = static_cast<std::size_t>(dim);
    const std::size_t nBlocks = (n + kLanes - 1) / kLanes;
    row = static_cast<double *>(std::malloc(d * sizeof(double)));
    blocks = static_cast<double *>(std::calloc(nBlocks * kLanes * d, sizeof(double)));
    radius = static_cast<double *>(std::malloc(n * sizeof(double)));
    sortedRadius = static_cast<double *>(std::malloc(n * sizeof(double)));
    mean = static_cast<double *>(std::calloc(d, sizeof(double)));
    order = static_cast<int *>(std::malloc(n * sizeof(int)));
    return row && blocks && radius && sortedRadius && mean && order;
  }
};

}  // namespace

template <class T>
FarPair farthestPair(T *const *vectors, const int *members, int count, int dim) {
  if (count < kPlainBelow || dim < 1) return farthestPairPlain(vectors, members, count, dim);
  Scratch s;
  if (!s.allocate(count, dim)) return farthestPairPlain(vectors, members, count, dim);
  const std::size_t d = static_cast<std::size_t>(dim);

  auto at = [&](int i, int k) { return static_cast<double>(vectors[members[i]][k]); };
  for (int i = 0; i < count; ++i)
    for (int k = 0; k < dim; ++k) s.mean[k] += at(i, k);
  for (int k = 0; k < dim; ++k) s.mean[k] /= count;
  for (int i = 0; i < count; ++i) {
    double acc = 0.0;
    for (int k = 0; k < dim; ++k) {
      const double e = at(i, k) - s.mean[k];
      acc += e * e;
    }
    s.radius[i] = std::sqrt(acc);
    // NaN coordinates defeat the bounds (and the sort): scan plainly.
    if (std::isnan(s.radius[i])) return farthestPairPlain(vectors, members, count, dim);
    s.order[i] = i;
  }
  std::sort(s.order, s.order + count, [&](int a, int b) {
    return s.radius[a] > s.radius[b] || (s.radius[a] == s.radius[b] && a < b);
  });
  for (int t = 0; t < count; ++t) {
    s.sortedRadius[t] = s.radius[s.order[t]];
    double *blk = s.blocks + static_cast<std::size_t>(t / kLanes) * d * kLanes;
    for (int k = 0; k < dim; ++k) blk[k * kLanes + t % kLanes] = at(s.order[t], k);
  }

#ifdef XKL_VQ_HAVE_AVX2
  const bool simd = simdActive();
#endif
  const int nBlocks = (count + kLanes - 1) / kLanes;
  double best = 0.0, gate = 0.0;
  int bestA = 0, bestB = 0;
  auto skippable = [&](double bound) { return best >= kTiny && bound * (1.0 + kMargin) < best; };

  for (int a = 0; a + 1 < count; ++a) {
    // Radii are sorted downwards: no later row can beat this bound either.
    if (skippable(s.sortedRadius[a] + s.sortedRadius[a + 1])) break;
    for (int k = 0; k < dim; ++k) s.row[k] = at(s.order[a], k);
    const double *p = s.row;
    for (int b = (a + 1) / kLanes; b < nBlocks;) {
      const int first = std::max(b * kLanes, a + 1);
      if (skippable(s.sortedRadius[a] + s.sortedRadius[first])) break;
      const int nb = std::min(kBlocksPerStep, nBlocks - b);
      double sq[kBlocksPerStep * kLanes];
      const double *blocks = s.blocks + static_cast<std::size_t>(b) * d * kLanes;
#ifdef XKL_VQ_HAVE_AVX2
      if (simd)
        squaresAvx2(p, blocks, dim, nb, sq);
      else
#endif
        squaresPortable(p, blocks, dim, nb, sq);
      const int end = std::min(count, (b + nb) * kLanes);
      for (int t = first; t < end; ++t) {
        const double q = sq[t - b * kLanes];
        // Squares below the gate have roots clearly below the best one.
        if (!(q >= gate)) continue;
        const double dist = std::sqrt(q);
        const int i = std::min(s.order[a], s.order[t]), j = std::max(s.order[a], s.order[t]);
        if (dist > best || (dist == best && (i < bestA || (i == bestA && j < bestB)))) {
          best = dist, bestA = i, bestB = j;
          gate = q * (1.0 - kMargin);
        }
      }
      b += nb;
    }
  }
  return {bestA, bestB, l2Distance(vectors[members[bestA]], vectors[members[bestB]], dim)};
}

template FarPair farthestPairPlain<float>(float *const *, const int *, int, int);
template FarPair farthestPairPlain<short>(short *const *, const int *, int, int);
template FarPair farthestPair<float>(float *const *, const int *, int, int);
template FarPair farthestPair<short>(short *const *, const int *, int, int);

}  // namespace xk::vq
