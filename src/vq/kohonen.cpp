// The competitive step of a Kohonen quantizer: distances from one input to
// every codeword and the positions of the nearest ones, in order.
//
// Distances are ordered by the bit patterns of non-negative floats read as
// signed integers (the float form) or by the exact integer sums of squares
// (the 16-bit form); the selection is the same for both.
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "xkl/kfx.h"
#include "xkl/xk_convert.h"
#include "xkl/xk_vq.h"

namespace {

std::int32_t floatKey(float f) {
  std::int32_t k;
  std::memcpy(&k, &f, sizeof k);
  return k;
}

// Writes the positions of the nBest smallest keys into best (see the header
// for what is written with nBest == 1 and nBest > 1).
template <class Key>
void orderNearest(const Key *key, int n, int *best, int nBest) {
  if (nBest <= 0 || n < 1) return;
  if (nBest == 1) {
    int p = 0;
    for (int k = 1; k < n; ++k)
      if (key[k] < key[p]) p = k;
    best[0] = p;
    best[p] = 0;
    return;
  }
  for (int k = 0; k < n; ++k) best[k] = k;
  if (nBest >= n) nBest = n - 1;
  for (int i = 0; i < nBest; ++i) {
    int m = i;
    for (int k = i + 1; k < n; ++k)
      if (key[best[k]] < key[best[m]]) m = k;
    const int t = best[i];
    best[i] = best[m];
    best[m] = t;
  }
}

// Exact sum of squared differences of 16-bit vectors (below 2^64 for any
// dimension an int can count).
std::uint64_t squares16(const short *x, const short *c, int dim) {
  std::uint64_t sum = 0;
  for (int i = 0; i < dim; ++i) {
    const std::int64_t d = static_cast<std::int64_t>(x[i]) - c[i];
    sum += static_cast<std::uint64_t>(d * d);
  }
  return sum;
}

std::uint64_t isqrt64(std::uint64_t v) {
  auto r = static_cast<std::uint64_t>(std::sqrt(static_cast<long double>(v)));
  while (r > 0 && (r > UINT32_MAX || r * r > v)) --r;
  while (r < UINT32_MAX && (r + 1) * (r + 1) <= v) ++r;
  return r;
}

// Shift by the scale (right for positive, left for negative), saturated to
// the int range.
int scaledSaturated(std::uint64_t v, int s) {
  if (s > 0) v = s >= 64 ? 0 : v >> s;
  else if (s < 0 && v != 0) {
    if (s <= -63 || v > (static_cast<std::uint64_t>(INT_MAX) >> -s)) return INT_MAX;
    v <<= -s;
  }
  return v > static_cast<std::uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(v);
}

}  // namespace

extern "C" {

XKL_API void XKsVQKohonen(const float *x, float *const *codewords, float *dist, int dim, int n, int *best,
                          int nBest, int takeRoot) {
  if (n < 1) return;
  for (int k = 0; k < n; ++k) {
    const float *c = codewords[k];
    if (dim < 2) {
      const float d = c[0] - x[0];
      dist[k] = d * d;
    } else {
      long double sum = 0.0L;
      for (int i = 0; i < dim; ++i) {
        const long double d = static_cast<long double>(x[i]) - c[i];
        sum += d * d;
      }
      dist[k] = static_cast<float>(sum);
    }
  }
  if (takeRoot) kfxsbSqrt2(dist, dist, n);
  // Non-negative floats order like their bit patterns read as integers.
  std::int32_t stackKeys[256];
  std::int32_t *key = n <= 256 ? stackKeys : static_cast<std::int32_t *>(std::malloc(sizeof(std::int32_t) * n));
  if (key == nullptr) return;
  for (int k = 0; k < n; ++k) key[k] = floatKey(dist[k]);
  orderNearest(key, n, best, nBest);
  if (key != stackKeys) std::free(key);
}

XKL_API void XKwVQKohonen(const short *x, short *const *codewords, int *dist, int dim, int n, int *best,
                          int nBest, int takeRoot, int scaleMode, int *scaleFactor) {
  if (n < 1) return;
  std::uint64_t stackSums[256];
  auto *sums = n <= 256 ? stackSums : static_cast<std::uint64_t *>(std::malloc(sizeof(std::uint64_t) * n));
  if (sums == nullptr) return;
  for (int k = 0; k < n; ++k) sums[k] = squares16(x, codewords[k], dim < 2 ? 1 : dim);
  if (scaleMode == 0 || scaleMode == 1) {
    const int s = scaleMode == 1 && scaleFactor ? *scaleFactor : 0;
    for (int k = 0; k < n; ++k) dist[k] = scaledSaturated(takeRoot ? isqrt64(sums[k]) : sums[k], s);
  } else {
    // Sums of squares in extended precision (exact for 16-bit data), one
    // common scale for the block.
    double stackVals[256];
    auto *vals = n <= 256 ? stackVals : static_cast<double *>(std::malloc(sizeof(double) * n));
    if (vals) {
      for (int k = 0; k < n; ++k) {
        const long double v = static_cast<long double>(sums[k]);
        vals[k] = static_cast<double>(takeRoot ? std::sqrt(v) : v);
      }
      int local = 0;
      XKdibConvertDown(vals, dist, n, scaleMode, scaleFactor ? scaleFactor : &local);
      if (vals != stackVals) std::free(vals);
    }
  }
  orderNearest(sums, n, best, nBest);
  if (sums != stackSums) std::free(sums);
}

}  // extern "C"
