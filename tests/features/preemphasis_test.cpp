// Pre-emphasis: the float form against the formula in double; the 16-bit
// kernels' edges (saturating aligned groups, wrapping edges), scale modes and
// the conversion path on hand-computed frames.
#include <gtest/gtest.h>

#include "feature_refs.h"
#include "xkl.h"

namespace {

TEST(Preemphasis, FloatFollowsFormula) {
  for (int n : {1, 10, 11, 401})
    for (float alpha : {0.0f, 0.97f, 1.0f}) {
      const auto x = featref::speechLike(n, n);
      std::vector<float> y(x);
      XKsPreemphasize(y.data(), alpha, n);
      for (int i = 0; i < n; ++i)
        ASSERT_EQ(y[i], i == 0 ? x[0] : static_cast<float>(x[i] - static_cast<double>(alpha) * x[i - 1])) << i;
    }
}

// Alternating full-scale samples with alpha = 1 give +-65535 before the
// narrowing: the aligned groups of four saturate to 32767 / -32768, the
// samples before the first 8-byte-aligned element after x[0] and after the
// last group wrap to -1 / 1.
TEST(Preemphasis, SixteenBitEdgesWrapAndGroupsSaturate) {
  alignas(8) short buf[16];
  const short alt[9] = {-32768, 32767, -32768, 32767, -32768, 32767, -32768, 32767, -32768};
  const std::pair<int, std::vector<short>> cases[] = {
      {0, {-32768, -1, 1, -1, -32768, 32767, -32768, 32767, 1}},  // group at 4..7
      {1, {-32768, -1, 1, 32767, -32768, 32767, -32768, -1, 1}},  // group at 3..6
      {3, {-32768, 32767, -32768, 32767, -32768, 32767, -32768, 32767, -32768}},  // groups 1..8
  };
  for (const auto &[offset, expect] : cases) {
    std::copy(alt, alt + 9, buf + offset);
    int scale = 77;
    XKwPreemphasize(buf + offset, 1.0f, 9, 0, &scale);
    EXPECT_EQ(std::vector<short>(buf + offset, buf + offset + 9), expect) << "offset " << offset;
    EXPECT_EQ(scale, 0);
  }
}

TEST(Preemphasis, SixteenBitModes) {
  const struct {
    const char *what;
    float alpha;
    int mode, scaleIn;
    std::vector<short> x, expect;
    int scaleOut;
  } cases[] = {
      {"mode 0, first differences", 1.0f, 0, 5, {100, 300, 200}, {100, 200, -100}, 0},
      {"mode 1, shift 2: (800 - 400/2) / 4", 0.5f, 1, 2, {400, 800}, {100, 150}, 2},
      {"mode 1, shift -1", 0.5f, 1, -1, {400, 800}, {800, 1200}, -1},
      {"mode 2, order 16: shift 1", 1.0f, 2, 0, {-32768, 32767}, {-16384, 32767}, 1},
      {"mode 2, small: no shift", 1.0f, 2, 9, {10, 30}, {10, 20}, 0},
      {"mode 3 saturates", 1.0f, 3, 9, {-32768, 32767, 32767}, {-32768, 32767, 0}, 0},
      {"alpha 0 leaves the frame", 0.0f, 0, 0, {5, -7, 9}, {5, -7, 9}, 0},
      // Outside 0..1, or mode 1 with |scale| >= 15: float and block conversion.
      {"alpha 1.5, mode 0", 1.5f, 0, 3, {1000, 3000, 2000}, {1000, 1500, -2500}, 0},
      {"alpha 1.5, mode 3 saturates", 1.5f, 3, 3, {-30000, 30000}, {-30000, 32767}, 0},
      {"mode 1, scale 20", 0.5f, 1, 20, {1000, 3000}, {0, 0}, 20},
  };
  for (const auto &c : cases) {
    std::vector<short> x(c.x);
    int scale = c.scaleIn;
    XKwPreemphasize(x.data(), c.alpha, static_cast<int>(x.size()), c.mode, &scale);
    EXPECT_TRUE(x == c.expect && scale == c.scaleOut) << c.what << ", scale " << scale;
  }
  EXPECT_EQ(XKFreePreemphasizeTbls(), 0);
}

}  // namespace
