// Portable Viterbi steps for the three packed topologies, float and 32-bit
// fixed point, and the dispatch to the AVX2 float steps.
//
// Float layouts (logarithmic): general columns j = n-1 .. 0 of n entries
// a[0][j] .. a[n-1][j]; left-right columns j = n-1 .. 0 of j+1 entries;
// Bakis diagonals indexed by the source state: a[i][i] (n), a[i][i+1]
// (n-1), a[i][i+2] (n-2). Fixed point: general columns padded to an even
// count; left-right as float; Bakis three stretches of even length indexed
// by the target state j: a[j][j], a[j-1][j], a[j-2][j].
#include <algorithm>
#include <atomic>

#include "frame/cpu.h"
#include "hmm/viterbi_kernels.h"

namespace xk::hmm {

namespace {

std::atomic<bool> simdOff{false};

// Minimum of two costs: float compare, or signed 32-bit compare.
inline float minCost(float a, float b) { return b < a ? b : a; }
inline std::int32_t minCost(std::int32_t a, std::int32_t b) { return b < a ? b : a; }

// Where the predecessor costs of state j lie in each layout.
struct FloatLayout {
  static int generalStride(int n) { return n; }
  // a[j][j], a[j-1][j], a[j-2][j] in the Bakis layout.
  static const float *self(const float *t, int, int j) { return t + j; }
  static const float *fromPrev(const float *t, int n, int j) { return t + n + (j - 1); }
  static const float *fromPrev2(const float *t, int n, int j) { return t + 2 * n - 1 + (j - 2); }
};
struct FixedLayout {
  static int generalStride(int n) { return padEven(n); }
  static const std::int32_t *self(const std::int32_t *t, int, int j) { return t + j; }
  static const std::int32_t *fromPrev(const std::int32_t *t, int n, int j) { return t + padEven(n) + j; }
  static const std::int32_t *fromPrev2(const std::int32_t *t, int n, int j) { return t + 2 * padEven(n) + j; }
};

// Column min-plus over predecessors 0..count-1.
template <class T>
inline T columnMin(const T *prev, const T *col, int count) {
  T best = addCost(prev[0], col[0]);
  for (int i = 1; i < count; ++i) best = minCost(best, addCost(prev[i], col[i]));
  return best;
}

template <class T, class L>
void stepPortable(const Model<T> &m, const T *prev, const T *out, T *next) {
  const int n = m.n;
  const T *t = m.trans;
  switch (m.topology) {
    case Topology::General: {
      const int stride = L::generalStride(n);
      for (int j = n - 1; j >= 0; --j) next[j] = addCost(columnMin(prev, t + (n - 1 - j) * stride, n), out[j]);
      break;
    }
    case Topology::LeftRight: {
      const T *col = t;
      for (int j = n - 1; j >= 0; --j) {
        next[j] = addCost(columnMin(prev, col, j + 1), out[j]);
        col += j + 1;
      }
      break;
    }
    case Topology::Bakis: {
      for (int j = n - 1; j >= 2; --j) {
        T best = addCost(prev[j], *L::self(t, n, j));
        best = minCost(best, addCost(prev[j - 1], *L::fromPrev(t, n, j)));
        best = minCost(best, addCost(prev[j - 2], *L::fromPrev2(t, n, j)));
        next[j] = addCost(best, out[j]);
      }
      if (n > 1)
        next[1] = addCost(minCost(addCost(prev[1], *L::self(t, n, 1)), addCost(prev[0], *L::fromPrev(t, n, 1))),
                          out[1]);
      next[0] = addCost(addCost(prev[0], *L::self(t, n, 0)), out[0]);
      break;
    }
  }
}

template <class T>
void startRow(const Model<T> &m, const T *out, T *delta) {
  for (int j = 0; j < m.n; ++j) delta[j] = addCost(m.initial[j], out[j]);
}

template <class T>
T finishRow(const Model<T> &m, const T *delta) {
  T best = delta[m.n - 1];
  for (int j = m.n - 2; j >= 0; --j) best = minCost(best, delta[j]);
  return best;
}

}  // namespace

void setViterbiSimd(bool on) { simdOff.store(!on, std::memory_order_relaxed); }

bool viterbiSimdActive() {
#ifdef XKL_HMM_HAVE_AVX2
  return !simdOff.load(std::memory_order_relaxed) && cpuFeatures().avx2;
#else
  return false;
#endif
}

void viterbiStart(const Model<float> &m, const float *out, float *delta) { startRow(m, out, delta); }
void viterbiStart(const Model<std::int32_t> &m, const std::int32_t *out, std::int32_t *delta) {
  startRow(m, out, delta);
}

StepFn<float> stepFor(const Model<float> &m) {
#ifdef XKL_HMM_HAVE_AVX2
  // The vector steps read whole 8-lane vectors around rows and columns
  // (padding, slack). Below eight states the general and left-right
  // columns fit one vector and the scalar loops are as fast.
  if (viterbiSimdActive()) {
    if (m.topology == Topology::Bakis && m.n >= 3) return stepBakisAvx2;
    if (m.topology == Topology::General && m.n >= 8) return stepGeneralAvx2;
    if (m.topology == Topology::LeftRight && m.n >= 8) return stepLeftRightAvx2;
  }
#endif
  return stepPortable<float, FloatLayout>;
}

StepFn<std::int32_t> stepFor(const Model<std::int32_t> &) { return stepPortable<std::int32_t, FixedLayout>; }

float viterbiFinish(const Model<float> &m, const float *delta) { return finishRow(m, delta); }
std::int32_t viterbiFinish(const Model<std::int32_t> &m, const std::int32_t *delta) { return finishRow(m, delta); }

}  // namespace xk::hmm
