// The min-plus recursion of the Viterbi evaluators over the packed
// transition layouts of the server store (see hmm_internal.h): one step per
// frame for each topology, on float costs and on widened 32-bit fixed-point
// costs, and the driver that runs them over a sequence.
//
// Rows of delta and of output costs are padded: each row has kRowGuard cells
// before element 0 and runs to pad8(n) + kRowGuard; every cell outside 0..n-1
// holds the padding value so that vector kernels may read whole 8-lane
// vectors around the row. Steps write only 0..n-1. The float padding is
// +infinity, not the largest float: inf + anything is inf, so a lane that
// reads padding can never undercut a real sum, even one that overflowed to
// inf, and the vector steps give the portable results bit for bit.
#pragma once

#include <cstdint>
#include <limits>

#include "hmm/hmm_internal.h"

namespace xk::hmm {

inline constexpr int kRowGuard = 8;
inline int pad8(int n) { return (n + 7) & ~7; }
inline int rowStride(int n) { return pad8(n) + 2 * kRowGuard; }

// One candidate as the kernels see it: its packed transitions, initial
// costs (padded as the store pads them) and shape. T is float or the
// 32-bit slot type of fixed-point servers.
template <class T>
struct Model {
  const T *trans;
  const T *initial;
  int n;
  Topology topology;
};

// Padding value of the rows: larger than any reachable cost.
template <class T>
constexpr T rowPad();
template <>
constexpr float rowPad<float>() { return std::numeric_limits<float>::infinity(); }
template <>
constexpr std::int32_t rowPad<std::int32_t>() { return kW32Pad; }

// delta[j] = initial[j] + out[j].
void viterbiStart(const Model<float> &m, const float *out, float *delta);
void viterbiStart(const Model<std::int32_t> &m, const std::int32_t *out, std::int32_t *delta);

// One frame: next[j] = min over the predecessors i of j of
// (prev[i] + a[i][j]), plus out[j]. Fixed point adds modulo 2^32 (the
// widened impossible value keeps realistic sums far from wrapping) and
// compares signed. stepFor picks the step of the model's topology (and the
// vector one when it runs) once per candidate.
template <class T>
using StepFn = void (*)(const Model<T> &m, const T *prev, const T *out, T *next);
StepFn<float> stepFor(const Model<float> &m);
StepFn<std::int32_t> stepFor(const Model<std::int32_t> &m);

// min over j < n of delta[j].
float viterbiFinish(const Model<float> &m, const float *delta);
std::int32_t viterbiFinish(const Model<std::int32_t> &m, const std::int32_t *delta);

// The self-transition a[0][0] of a one-state model.
inline float selfCost(const Model<float> &m) { return m.trans[0]; }
inline std::int32_t selfCost(const Model<std::int32_t> &m) { return m.trans[0]; }

// The one-state closed form nFrames a + (pi - a + sum), sum = the output
// costs added in frame order (float) or modulo 2^32 (fixed point, where it
// equals the recursion exactly).
inline float oneStateCost(float pi, float a, float sum, int nFrames) {
  return static_cast<float>(nFrames) * a + (pi - a + sum);
}
inline std::int32_t oneStateCost(std::int32_t pi, std::int32_t a, std::int32_t sum, int nFrames) {
  const std::uint32_t r = static_cast<std::uint32_t>(nFrames) * static_cast<std::uint32_t>(a) +
                          (static_cast<std::uint32_t>(pi) - static_cast<std::uint32_t>(a) +
                           static_cast<std::uint32_t>(sum));
  return static_cast<std::int32_t>(r);
}
inline float addCost(float a, float b) { return a + b; }
inline std::int32_t addCost(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

// The least path cost of a sequence of nFrames >= 1 frames. outRow(t) gives
// the padded output-cost row of frame t, called once per frame in order;
// rowA and rowB are padded rows (pointing at element 0). A one-state model
// over two or more frames takes the closed form.
template <class T, class OutRow>
T runViterbi(const Model<T> &m, int nFrames, T *rowA, T *rowB, OutRow &&outRow) {
  const T *out = outRow(0);
  if (m.n == 1 && nFrames > 1) {
    T sum = out[0];
    for (int t = 1; t < nFrames; ++t) sum = addCost(sum, outRow(t)[0]);
    return oneStateCost(m.initial[0], selfCost(m), sum, nFrames);
  }
  const StepFn<T> step = stepFor(m);
  viterbiStart(m, out, rowA);
  for (int t = 1; t < nFrames; ++t) {
    step(m, rowA, outRow(t), rowB);
    T *swap = rowA;
    rowA = rowB;
    rowB = swap;
  }
  return viterbiFinish(m, rowA);
}

// Switch between the vectorised float steps and the portable ones (tests,
// benchmarks); the vectorised ones run only when the processor has AVX2.
void setViterbiSimd(bool on);
bool viterbiSimdActive();

#if defined(__x86_64__) || defined(__i386__)
#define XKL_HMM_HAVE_AVX2 1
// AVX2 float steps (viterbi_kernels_avx2.cpp); same results as the portable
// ones, bit for bit.
void stepGeneralAvx2(const Model<float> &m, const float *prev, const float *out, float *next);
void stepLeftRightAvx2(const Model<float> &m, const float *prev, const float *out, float *next);
void stepBakisAvx2(const Model<float> &m, const float *prev, const float *out, float *next);
#endif

}  // namespace xk::hmm
