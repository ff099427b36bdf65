// Viterbi scoring of logarithmic HMM servers: the walk over one server or a
// class, the per-call scratch, and the output costs of each frame (a row of
// the discrete table, or the states' Gauss mixtures evaluated afresh and
// turned into costs).
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "gauss/gauss_eval.h"
#include "hmm/fixlog.h"
#include "hmm/hmm_internal.h"
#include "hmm/viterbi_kernels.h"
#include "xkl/kfx.h"
#include "xkl/xk_gauss.h"

namespace xk::hmm {

namespace {

constexpr unsigned kLogKind = XK_HMM_LOGARITHMIC;
constexpr unsigned kDiscreteFloat = HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT | kLogKind;
constexpr unsigned kDiscreteFixed = HMM_SERVER_DISCRETE | HMM_SERVER_SHORT | kLogKind;
constexpr unsigned kContFloat = HMM_SERVER_CONT | HMM_SERVER_FLOAT | kLogKind;
constexpr unsigned kContFixed = HMM_SERVER_CONT | HMM_SERVER_SHORT | kLogKind;

// Fixed-point mixtures are evaluated with the fixed output factor -13: Q30
// component values times Q15 weights shifted right by 17 give the
// likelihood in Q28, the logarithm's exponent offset.
constexpr int kMixScaleFactor = -13;
constexpr int kLikelihoodExp = -28;
constexpr float kMinusLog10E = -0.4342945f;

// One block per call holding three padded rows (two of delta, one of output
// costs), 32-byte aligned by kfxMalloc; regrown only for a candidate with
// more states, refilled with padding for every candidate.
template <class T>
class Scratch {
 public:
  Scratch() = default;
  Scratch(const Scratch &) = delete;
  Scratch &operator=(const Scratch &) = delete;
  ~Scratch() { kfxFree(block_); }

  bool prepare(int n) {
    if (n > capacity_) {
      kfxFree(block_);
      block_ = nullptr;
      capacity_ = 0;
      const std::int64_t bytes = std::int64_t{3} * rowStride(n) * static_cast<std::int64_t>(sizeof(T));
      if (bytes > INT_MAX) return false;
      block_ = static_cast<T *>(kfxMalloc(static_cast<int>(bytes)));
      if (block_ == nullptr) return false;
      capacity_ = n;
    }
    stride_ = rowStride(n);
    std::fill(block_, block_ + 3 * stride_, rowPad<T>());
    return true;
  }
  T *row(int k) { return block_ + k * stride_ + kRowGuard; }

 private:
  T *block_ = nullptr;
  int capacity_ = 0, stride_ = 0;
};

// The best cost so far; an equal cost from a later candidate takes over.
template <class T>
struct Best {
  T cost;
  int id = 0;
  bool found = false;
  void offer(T c, int candidate) {
    if (c <= cost) cost = c, id = candidate, found = true;
  }
};

// Scores every candidate of the evaluator's kind with cost(view, scratch)
// and returns the best, or `failure` when the class is unknown, memory
// fails or no candidate was scored. Servers of another kind or without
// states, and candidates whose cost is empty (a symbol outside their
// alphabet), are passed over.
template <class T, class Cost>
T bestOf(int idOrClass, unsigned kind, T failure, int *bestId, Cost &&cost, bool *scored = nullptr) {
  if (!tablesReady()) return failure;
  Scratch<T> scratch;
  Best<T> best{failure};
  const bool walked = forEachCandidate(idOrClass, [&](int id, const ServerView &v) {
    if ((v.status & kKindMask) != kind || v.nStates < 1 || v.transitions == nullptr || v.initial == nullptr ||
        v.outputs == nullptr)
      return true;
    if (!scratch.prepare(v.nStates)) return false;
    if (const std::optional<T> c = cost(v, scratch)) best.offer(*c, id);
    return true;
  });
  if (!walked || !best.found) return failure;
  if (bestId != nullptr) *bestId = best.id;
  if (scored != nullptr) *scored = true;
  return best.cost;
}

template <class T>
Model<T> modelOf(const ServerView &v) {
  return {static_cast<const T *>(v.transitions), static_cast<const T *>(v.initial), v.nStates,
          topologyOf(v.status)};
}

template <class T>
std::optional<T> discreteCost(const ServerView &v, const int *obs, int nFrames, Scratch<T> &s) {
  for (int t = 0; t < nFrames; ++t)
    if (obs[t] < 0 || obs[t] >= v.nSymbols) return std::nullopt;
  const T *const *rows = static_cast<const T *const *>(v.outputs);
  return runViterbi(modelOf<T>(v), nFrames, s.row(0), s.row(1), [&](int t) { return rows[obs[t]]; });
}

template <class Frame>
bool framesPresent(const Frame *const *obs, int nFrames) {
  for (int t = 0; t < nFrames; ++t)
    if (obs[t] == nullptr) return false;
  return true;
}

// A fixed-point mixture's likelihood in Q28. A one-component server does
// not return it from XKwEvalGaussMix (which then returns its scaleMode), so
// its Q30 component value is weighted and scaled here the same way.
std::int32_t likelihoodQ28(GaussMixServer *g, const short *x, int dim) {
  if (g->nMix < 1) return 0;
  int k = kMixScaleFactor;
  const int v = XKwEvalGaussMix(g, x, dim, 1, &k);
  if (g->nMix > 1) return v;
  k = kMixScaleFactor;
  return xk::gauss::mixAccumulate(static_cast<const std::int32_t *>(g->work), static_cast<const short *>(g->weights),
                                  1, 1, &k);
}

// The fixed-point result scale: with scaleMode 1, *scale = -s shifts left
// by s bits (modulo 2^32) and *scale = s >= 0 right by s bits
// (arithmetically); shifts of 32 or more give 0 (left) or the sign (right).
// Other modes set *scale to 0 and keep the cost.
std::int32_t scaleCost(std::int32_t cost, int scaleMode, int *scale) {
  int none = 0;
  if (scale == nullptr) scale = &none;
  if (scaleMode != 1) {
    *scale = 0;
    return cost;
  }
  const int s = *scale;
  if (s < 0) {
    if (s <= -32) return 0;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(cost) << -s);
  }
  return cost >> (s > 31 ? 31 : s);
}

}  // namespace

}  // namespace xk::hmm

using namespace xk::hmm;

extern "C" XKL_API float XKsEvalHMMViterbi(int idOrClass, const int *obs, int nFrames, int *bestId) {
  if (obs == nullptr || nFrames < 1) return kLargest;
  return bestOf<float>(idOrClass, kDiscreteFloat, kLargest, bestId, [&](const ServerView &v, Scratch<float> &s) {
    return discreteCost<float>(v, obs, nFrames, s);
  });
}

extern "C" XKL_API int XKwEvalHMMViterbi(int idOrClass, const int *obs, int nFrames, int *bestId, int scaleMode,
                                         int *scale) {
  if (obs == nullptr || nFrames < 1) return kWFail;
  bool scored = false;
  const std::int32_t cost = bestOf<std::int32_t>(
      idOrClass, kDiscreteFixed, kWFail, bestId,
      [&](const ServerView &v, Scratch<std::int32_t> &s) { return discreteCost<std::int32_t>(v, obs, nFrames, s); },
      &scored);
  return scored ? scaleCost(cost, scaleMode, scale) : kWFail;
}

extern "C" XKL_API float XKsEvalContHMMViterbi(int idOrClass, const float *const *obs, int nFrames, int *bestId) {
  if (obs == nullptr || nFrames < 1 || !framesPresent(obs, nFrames)) return kLargest;
  return bestOf<float>(idOrClass, kContFloat, kLargest, bestId, [&](const ServerView &v, Scratch<float> &s) {
    GaussMixServer *const *mix = static_cast<GaussMixServer *const *>(v.outputs);
    float *out = s.row(2);
    const int n = v.nStates;
    return std::optional<float>(runViterbi(modelOf<float>(v), nFrames, s.row(0), s.row(1), [&](int t) {
      for (int j = 0; j < n; ++j) out[j] = static_cast<float>(XKsEvalGaussMix(mix[j], obs[t], v.nQuant));
      kfxsbLn1(out, n);
      kfxsbMpy1(kMinusLog10E, out, n);
      return static_cast<const float *>(out);
    }));
  });
}

extern "C" XKL_API int XKwEvalContHMMViterbi(int idOrClass, const short *const *obs, int nFrames, int *bestId,
                                             int scaleMode, int *scale) {
  if (obs == nullptr || nFrames < 1 || !framesPresent(obs, nFrames)) return kWFail;
  bool scored = false;
  const std::int32_t cost = bestOf<std::int32_t>(
      idOrClass, kContFixed, kWFail, bestId,
      [&](const ServerView &v, Scratch<std::int32_t> &s) {
        GaussMixServer *const *mix = static_cast<GaussMixServer *const *>(v.outputs);
        std::int32_t *out = s.row(2);
        const int n = v.nStates;
        auto costsOf = [&](int t) {
          for (int j = 0; j < n; ++j) out[j] = likelihoodQ28(mix[j], obs[t], v.nQuant);
          fixLogCostRow(out, n, kLikelihoodExp, -v.param);
          return static_cast<const std::int32_t *>(out);
        };
        return std::optional<std::int32_t>(
            runViterbi(modelOf<std::int32_t>(v), nFrames, s.row(0), s.row(1), costsOf));
      },
      &scored);
  return scored ? scaleCost(cost, scaleMode, scale) : kWFail;
}
