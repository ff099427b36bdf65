// The Kohonen step: its order against a stable sort of all distances, the
// documented writes into `best`, and the 16-bit scale modes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "xkl.h"

namespace {

// Positions sorted by distance.
template <class D>
std::vector<int> sortedPositions(const std::vector<D> &dist) {
  std::vector<int> p(dist.size());
  std::iota(p.begin(), p.end(), 0);
  std::stable_sort(p.begin(), p.end(), [&](int a, int b) { return dist[a] < dist[b]; });
  return p;
}

TEST(Kohonen, DocumentedWritesIntoBest) {
  // dim 1, x = 0: distances {4, 1, 1}; the second element must not count.
  float x[2] = {0, 100}, c0[2] = {2, 0}, c1[2] = {1, 5}, c2[2] = {-1, 9};
  float *cw[3] = {c0, c1, c2};
  float dist[3];
  int best[3] = {-1, -1, -1};
  XKsVQKohonen(x, cw, dist, 1, 3, best, 1, 0);
  EXPECT_EQ(std::vector<float>(dist, dist + 3), (std::vector<float>{4, 1, 1}));
  EXPECT_EQ(std::vector<int>(best, best + 3), (std::vector<int>{1, 0, -1}));
  XKsVQKohonen(x, cw, dist, 1, 3, best, 5, 0);  // lowered to 2
  EXPECT_EQ(std::vector<int>(best, best + 3), (std::vector<int>{1, 2, 0}));
  std::fill(best, best + 3, -1);
  XKsVQKohonen(x, cw, dist, 1, 3, best, 0, 0);
  EXPECT_EQ(best[0], -1);
}

TEST(Kohonen, OrderAgainstSortOfAllDistances) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> small(-3, 3);  // coarse values: many ties
  for (int trial = 0; trial < 42; ++trial) {
    // The last two trials take more codewords than the scratch on the stack.
    const int n = trial < 40 ? 2 + trial % 13 : 300, dim = 1 + trial % 5;
    std::vector<std::vector<float>> f(n, std::vector<float>(dim));
    std::vector<std::vector<short>> w(n, std::vector<short>(dim));
    std::vector<float *> fp;
    std::vector<short *> wp;
    std::vector<float> fx(dim);
    std::vector<short> wx(dim);
    for (int k = 0; k < dim; ++k) fx[k] = wx[k] = (short)small(rng);
    for (int i = 0; i < n; ++i) {
      for (int k = 0; k < dim; ++k) f[i][k] = w[i][k] = (short)(small(rng) * 100);  // sums stay exact in float
      fp.push_back(f[i].data()), wp.push_back(w[i].data());
    }
    std::vector<double> ref(n);
    for (int i = 0; i < n; ++i)
      for (int k = 0; k < (dim < 2 ? 1 : dim); ++k) ref[i] += std::pow((double)fx[k] - f[i][k], 2);
    const std::vector<int> order = sortedPositions(ref);
    for (int nBest = 1; nBest <= n + 1; nBest += n < 20 ? 1 : 37) {
      const int want = std::min(nBest, n - 1);
      for (int root = 0; root < 2; ++root) {
        std::vector<float> dist(n);
        std::vector<int> best(n, -1), wbest(n, -1), wdist(n);
        XKsVQKohonen(fx.data(), fp.data(), dist.data(), dim, n, best.data(), nBest, root);
        XKwVQKohonen(wx.data(), wp.data(), wdist.data(), dim, n, wbest.data(), nBest, root, 0, nullptr);
        for (int i = 0; i < n; ++i) {
          EXPECT_EQ(dist[i], root ? std::sqrt((float)ref[i]) : (float)ref[i]);
          EXPECT_EQ(wdist[i], (int)(root ? std::floor(std::sqrt(ref[i])) : ref[i]));
        }
        if (nBest == 1) {
          EXPECT_EQ(best[0], order[0]);
          EXPECT_EQ(wbest[0], order[0]);
        } else {
          // Selection with swaps does not keep equal distances in position
          // order: compare the distances, and that best is a permutation.
          for (int i = 0; i < want; ++i) EXPECT_EQ(ref[best[i]], ref[order[i]]) << "n " << n << " nBest " << nBest;
          EXPECT_TRUE(std::is_permutation(best.begin(), best.end(), order.begin()));
          EXPECT_EQ(wbest, best);
        }
      }
    }
  }
}

TEST(Kohonen, SixteenBitScaleModes) {
  short x[2] = {0, 0}, a[2] = {300, 400}, b[2] = {-30000, 30000};
  short *cw[2] = {a, b};
  int dist[2], best[2];
  const std::int64_t sa = 250000, sb = 1800000000;
  int s = 3;
  XKwVQKohonen(x, cw, dist, 2, 2, best, 1, 0, 1, &s);
  EXPECT_EQ(dist[0], sa >> 3);
  EXPECT_EQ(dist[1], sb >> 3);
  s = -2;  // left shift saturates
  XKwVQKohonen(x, cw, dist, 2, 2, best, 1, 0, 1, &s);
  EXPECT_EQ(dist[0], sa << 2);
  EXPECT_EQ(dist[1], INT32_MAX);
  // Modes 2 and 3: one block conversion of the exact values.
  for (int mode : {2, 3}) {
    double ref[2] = {(double)sa, (double)sb};
    int want[2], s1 = 0, s2 = 0;
    XKdibConvertDown(ref, want, 2, mode, &s2);
    XKwVQKohonen(x, cw, dist, 2, 2, best, 2, 0, mode, &s1);
    EXPECT_EQ(std::vector<int>(dist, dist + 2), std::vector<int>(want, want + 2));
    EXPECT_EQ(s1, s2);
    EXPECT_EQ(best[0], 0);
  }
}

}  // namespace
