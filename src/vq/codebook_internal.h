// Pieces of the codebook construction shared with the tests: the distance
// the trees use and the farthest-pair search.
#pragma once

#include <cmath>

namespace xk::vq {

// Euclidean distance with the arithmetic of kfxsNorm / kfxwNorm (flag L2):
// differences in double, squares summed in double from element 0 up, then
// the root. Trees compare these values, so every path must form them alike.
template <class T>
inline double l2Distance(const T *a, const T *b, int dim) {
  double acc = 0.0;
  for (int k = 0; k < dim; ++k) {
    const double d = static_cast<double>(a[k]) - static_cast<double>(b[k]);
    acc += d * d;
  }
  return std::sqrt(acc);
}

struct FarPair {
  int a, b;         // positions in the member list, a <= b
  double diameter;  // l2Distance of the pair
};

// The pair of members farthest apart: the first pair (i < j, i varying
// slowest) whose distance no later pair exceeds; (0, 0) with diameter 0
// when no pair lies apart (single member, identical members, no members).
// `members` holds count numbers of rows of `vectors`.
template <class T>
FarPair farthestPairPlain(T *const *vectors, const int *members, int count, int dim);

// The same result, found by bounding pairs through their distances to the
// members' mean (triangle inequality) and measuring the rest four at a time.
// Falls back to the plain search when scratch memory cannot be had.
template <class T>
FarPair farthestPair(T *const *vectors, const int *members, int count, int dim);

}  // namespace xk::vq
