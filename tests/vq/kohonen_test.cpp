// The Kohonen step: its order against a stable sort of all distances, the
// documented writes into `best`, and the 16-bit scale modes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "xkl.h"

namespace {

TEST(Kohonen, DocumentedWritesIntoBest) {
  // dim 1, x = 0: distances {4, 1, 1}; the second element must not count.
  float x[2] = {0, 100}, c0[2] = {2, 0}, c1[2] = {1, 5}, c2[2] = {-1, 9}, dist[3];
  float *cw[3] = {c0, c1, c2};
  // nBest 0 writes nothing; 5 is lowered to 2.
  const std::pair<int, std::vector<int>> cases[] = {{0, {-1, -1, -1}}, {1, {1, 0, -1}}, {5, {1, 2, 0}}};
  for (const auto &[nBest, want] : cases) {
    int best[3] = {-1, -1, -1};
    XKsVQKohonen(x, cw, dist, 1, 3, best, nBest, 0);
    EXPECT_EQ(std::vector<int>(best, best + 3), want) << nBest;
  }
  EXPECT_EQ(std::vector<float>(dist, dist + 3), (std::vector<float>{4, 1, 1}));
}

TEST(Kohonen, OrderAgainstSortOfAllDistances) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> small(-3, 3);  // coarse values: many ties
  for (int trial = 0; trial < 42; ++trial) {
    // The last two trials take more codewords than the scratch on the stack.
    const int n = trial < 40 ? 2 + trial % 13 : 300, dim = 1 + trial % 5;
    // The input vector first, then the codewords; sums stay exact in float.
    std::vector<std::vector<short>> w(n + 1, std::vector<short>(dim));
    std::vector<std::vector<float>> f(n + 1);
    std::vector<float *> fp;
    std::vector<short *> wp;
    std::vector<double> ref(n);
    std::vector<int> order(n);
    for (int i = 0; i <= n; ++i) {
      for (auto &e : w[i]) e = (short)(small(rng) * (i ? 100 : 1));
      f[i].assign(w[i].begin(), w[i].end()), fp.push_back(f[i].data()), wp.push_back(w[i].data());
      for (int k = 0; i && k < dim; ++k) ref[i - 1] += std::pow((double)w[0][k] - w[i][k], 2);
    }
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return ref[a] < ref[b]; });
    for (int nBest = 1; nBest <= n + 1; nBest += n < 20 ? 1 : 37)
      for (int root = 0; root < 2; ++root) {
        std::vector<float> dist(n);
        std::vector<int> best(n, -1), wbest(n, -1), wdist(n);
        XKsVQKohonen(fp[0], fp.data() + 1, dist.data(), dim, n, best.data(), nBest, root);
        XKwVQKohonen(wp[0], wp.data() + 1, wdist.data(), dim, n, wbest.data(), nBest, root, 0, nullptr);
        for (int i = 0; i < n; ++i)
          EXPECT_EQ(std::make_pair(dist[i], wdist[i]), std::make_pair(root ? std::sqrt((float)ref[i]) : (float)ref[i],
                                                                      (int)(root ? std::floor(std::sqrt(ref[i])) : ref[i])));
        EXPECT_EQ(wbest, best);
        EXPECT_TRUE(nBest > 1 || best[0] == order[0]) << n;
        // Selection with swaps does not keep equal distances in position
        // order: compare the distances, and that best is a permutation.
        for (int i = 0; i < std::min(nBest, n - 1); ++i) EXPECT_EQ(ref[best[i]], ref[order[i]]) << n << " " << nBest;
        EXPECT_TRUE(nBest == 1 || std::is_permutation(best.begin(), best.end(), order.begin())) << n;
      }
  }
}

TEST(Kohonen, SixteenBitScaleModes) {
  short x[2] = {0, 0}, a[2] = {300, 400}, b[2] = {-30000, 30000};
  short *cw[2] = {a, b};
  const double exact[2] = {250000, 1800000000};
  // Mode 1 shifts by the given scale, saturating to the left.
  int dist[2], best[2];
  for (auto [s, d0, d1] : {std::array{3, 250000 >> 3, 1800000000 >> 3}, {-2, 250000 << 2, INT32_MAX}}) {
    XKwVQKohonen(x, cw, dist, 2, 2, best, 1, 0, 1, &s);
    EXPECT_EQ(std::vector<int>(dist, dist + 2), (std::vector<int>{d0, d1})) << s;
  }
  // Modes 2 and 3: one block conversion of the exact values.
  for (int mode : {2, 3}) {
    int want[2], s1 = 0, s2 = 0;
    XKdibConvertDown(exact, want, 2, mode, &s2);
    XKwVQKohonen(x, cw, dist, 2, 2, best, 2, 0, mode, &s1);
    EXPECT_EQ(std::vector<int>(dist, dist + 2), std::vector<int>(want, want + 2));
    EXPECT_EQ(std::make_pair(s1, best[0]), std::make_pair(s2, 0));
  }
}

}  // namespace
