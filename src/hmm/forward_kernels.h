// Forward scoring of one exponential float model: the transitions widened
// to double once per candidate, one frame step (portable, AVX2 and AVX-512
// paths that give the same bits), the power-of-two rescaling, and the whole
// pass over a sequence. The candidate walk and the entry points live in
// forward.cpp.
#pragma once

#include <cstddef>

#include "hmm/hmm_internal.h"
#include "xkl/xk_gauss.h"

namespace xk::hmm {

// Zero doubles in front of every alpha row, so that the portable Bakis step
// may read cur[j-1] and cur[j-2] from j = 0; eight keep the rows on 64 bytes.
inline constexpr int kAlphaGuard = 8;

// The frame steps, in rising order. Auto: the processor's best step where
// it pays for the model's size (the default); the others force that step
// where the processor has it (tests, benchmarks).
enum class ForwardIsa { Portable = 0, Avx2 = 1, Avx512 = 2, Auto = 3 };

// A candidate's transitions as the step reads them. General and left-right:
// nPad rows of nPad doubles, a[i * nPad + j] = a[i][j], zero where the model
// has no transition and in the padding. Bakis: three rows of nPad doubles
// indexed by the target j: a[j][j], a[j-1][j], a[j-2][j] (zero where the
// source does not exist and in the padding). nPad is n rounded up to 4, or
// to 8 for the AVX-512 step (whole 64-byte rows); isa is the step that runs.
struct ForwardModel {
  Topology topology = Topology::General;
  ForwardIsa isa = ForwardIsa::Portable;
  int n = 0, nPad = 0;
  const double *a = nullptr;
  double *work = nullptr;  // nPad doubles the portable step may overwrite
};

// The (S, scale count) pair of a scored sequence: its probability is
// S x 2^-scaleCount.
struct ForwardScore {
  double S = 0.0;
  int scaleCount = 0;
};

// -log10 of the probability: scaleCount x log10(2) - log10(2) x log2(S).
double forwardCost(const ForwardScore &score);

// One block of scratch for a whole call: the widened transitions, two alpha
// rows, a row of continuous output probabilities and a work row. Grown only
// when a candidate needs more; freed with the object.
class ForwardScratch {
 public:
  ForwardScratch() = default;
  ForwardScratch(const ForwardScratch &) = delete;
  ForwardScratch &operator=(const ForwardScratch &) = delete;
  ~ForwardScratch();

  // Lays the block out for a model of n states; false when memory fails.
  bool reserve(Topology topology, int n);

  double *transitions() const { return trans_; }
  double *alpha(int k) const { return alpha_[k]; }  // k = 0, 1; kAlphaGuard zeros before each
  double *outputs() const { return out_; }           // n rounded up to 8 doubles
  double *work() const { return work_; }              // n rounded up to 8 doubles

 private:
  void *block_ = nullptr;
  std::size_t capacity_ = 0;
  double *trans_ = nullptr, *alpha_[2] = {nullptr, nullptr}, *out_ = nullptr, *work_ = nullptr;
};

// Widens the exponential packed transitions of an n-state model (row-major
// general, row-wise left-right, Bakis triples) into scratch.transitions(),
// for the step setForwardIsa's setting picks for this model.
ForwardModel forwardPrepare(Topology topology, int n, const float *packed, ForwardScratch &scratch);

// The rescaling check after frame t >= 1: false for a negative, zero,
// subnormal, overflowing or NaN S. Otherwise, when S leaves the exponent
// window 895..1151 or the frame is the last one, multiplies alpha[0..nPad)
// and S by the exact power of two that brings S to [1, 2) (at most 2^256)
// and adds its exponent to *scaleCount.
bool forwardRescale(double *alpha, int nPad, double *S, int *scaleCount, bool lastFrame);

// Whole passes over one model. Discrete: outRows[k] is the float output row
// of symbol k (n rounded up to 4 entries), initial the float initial vector; a symbol
// outside 0..nSymbols-1 fails. Continuous: mixtures[j] is state j's Gauss
// mixture, evaluated on obs[t] with nQuant values. False on any failure of
// the rescaling check; *score then is unspecified.
bool forwardDiscrete(const ForwardModel &m, const float *const *outRows, int nSymbols, const float *initial,
                     const int *obs, int nFrames, ForwardScratch &scratch, ForwardScore *score);
bool forwardContinuous(const ForwardModel &m, GaussMixServer *const *mixtures, int nQuant, const float *initial,
                       const float *const *obs, int nFrames, ForwardScratch &scratch, ForwardScore *score);

// Sets the step for the models prepared afterwards and returns the previous
// setting; a forced step the processor lacks falls to the next lower one.
ForwardIsa setForwardIsa(ForwardIsa isa);

}  // namespace xk::hmm
