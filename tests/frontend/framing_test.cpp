// The front end's one-pass framing (energy, pre-emphasis, window) gives the
// bits of the library's functions called one after the other, alone and
// through the whole front end.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "frontend/framing.h"
#include "xkl.h"

namespace {

using xk::frontend::prepareFrame;
using xk::frontend::setFramingSimd;

// Restores the vectorised path however a test ends.
struct SimdOn {
  ~SimdOn() { setFramingSimd(true); }
};

TEST(FrontendFraming, VectorPassEqualsTheLibraryFunctions) {
  SimdOn restore;
  std::mt19937 gen(3);
  std::normal_distribution<float> sample(0.0f, 3000.0f);
  std::uniform_real_distribution<float> weight(0.0f, 1.0f);
  // Every remainder of 16 and 4, short frames, and a usual one; starts at
  // every alignment; pre-emphasis off, usual and at its limit.
  for (int n : {2, 3, 4, 5, 7, 15, 16, 17, 19, 31, 33, 47, 400, 401}) {
    for (float alpha : {0.0f, 0.97f, 1.0f}) {
      SCOPED_TRACE(testing::Message() << "n " << n << " alpha " << alpha);
      std::vector<float> x(static_cast<size_t>(n) + 3), win(static_cast<size_t>(n));
      for (float &v : x) v = sample(gen);
      for (float &v : win) v = weight(gen);
      for (int offset = 0; offset < 3; ++offset) {
        for (bool energy : {false, true}) {
          std::vector<float> vec(static_cast<size_t>(n) + 1, -1.0f), port = vec;
          setFramingSimd(true);
          const double e1 = prepareFrame(x.data() + offset, n, alpha, win.data(), vec.data(), energy);
          setFramingSimd(false);
          const double e2 = prepareFrame(x.data() + offset, n, alpha, win.data(), port.data(), energy);
          EXPECT_EQ(std::memcmp(&e1, &e2, sizeof e1), 0) << e1 << " " << e2;
          EXPECT_EQ(std::memcmp(vec.data(), port.data(), vec.size() * sizeof(float)), 0);
        }
      }
    }
  }
  // Through the front end, with a padded last frame.
  std::vector<float> x(16000 + 77);
  for (float &v : x) v = sample(gen);
  xkl_frontend_config cfg;
  xkl_frontend_config_init(&cfg);
  cfg.deltas = 2;
  const int frames = xkl_frontend_frame_count(&cfg, x.size());
  std::vector<float> vec(static_cast<size_t>(frames) * 39), port(vec.size());
  setFramingSimd(true);
  ASSERT_EQ(xkl_frontend_compute(&cfg, x.data(), x.size(), vec.data(), frames), frames);
  setFramingSimd(false);
  ASSERT_EQ(xkl_frontend_compute(&cfg, x.data(), x.size(), port.data(), frames), frames);
  EXPECT_EQ(std::memcmp(vec.data(), port.data(), vec.size() * sizeof(float)), 0);
}

}  // namespace
