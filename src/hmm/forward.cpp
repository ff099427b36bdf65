// Forward scoring entry points: the walk over one server or a class, and
// the choice of the most probable candidate from its (S, scale count) pair.
//
// The stored matrices are taken to be plain probabilities; a logarithmic
// server is not refused, it just scores meaningless numbers (its packed
// arrays have the same sizes, so nothing is read out of bounds).
#include <climits>

#include "hmm/forward_kernels.h"
#include "hmm/hmm_internal.h"

namespace xk::hmm {

namespace {

// Scores every float candidate of the wanted flavour in idOrClass with
// score(view, model, scratch, &result), keeps the most probable and returns
// its cost (the largest float when nothing was scored or any candidate
// failed).
template <class Score>
float walkCandidates(int idOrClass, int nFrames, int *bestId, unsigned flavour, Score score) {
  int dummy = 0;
  if (!bestId) bestId = &dummy;
  *bestId = 0;
  if (!tablesReady() || nFrames <= 0) return kLargest;
  ForwardScratch scratch;
  ForwardScore kept{0.0, INT_MAX};
  double best = kLargest;
  const unsigned wanted = flavour | HMM_SERVER_FLOAT;
  const bool walked = forEachCandidate(idOrClass, [&](int id, const ServerView &view) {
    if ((view.status & wanted) != wanted || view.nStates <= 0) return true;
    const Topology topology = topologyOf(view.status);
    if (!scratch.reserve(topology, view.nStates)) return false;
    const ForwardModel model =
        forwardPrepare(topology, view.nStates, static_cast<const float *>(view.transitions), scratch);
    ForwardScore got;
    if (!score(view, model, scratch, &got)) return false;
    // Fewer scalings mean a larger probability; at equal counts the larger
    // S wins, so of equal members the first (lowest id) stays.
    if (got.scaleCount < kept.scaleCount || (got.scaleCount == kept.scaleCount && got.S > kept.S)) kept = got;
    const double cost = forwardCost(kept);
    if (cost < best) {
      best = cost;
      *bestId = id;
    }
    return true;
  });
  if (!walked) {
    *bestId = 0;
    return kLargest;
  }
  return best < kLargest ? static_cast<float>(best) : kLargest;
}

}  // namespace

}  // namespace xk::hmm

using namespace xk::hmm;

extern "C" float XKsEvalHMMForward(int idOrClass, const int *obs, int nFrames, int *bestId) {
  return walkCandidates(idOrClass, nFrames, bestId, HMM_SERVER_DISCRETE,
                        [&](const ServerView &v, const ForwardModel &m, ForwardScratch &s, ForwardScore *r) {
                          return forwardDiscrete(m, static_cast<const float *const *>(v.outputs), v.nSymbols,
                                                 static_cast<const float *>(v.initial), obs, nFrames, s, r);
                        });
}

extern "C" float XKsEvalContHMMForward(int idOrClass, const float *const *obs, int nFrames, int *bestId) {
  return walkCandidates(idOrClass, nFrames, bestId, HMM_SERVER_CONT,
                        [&](const ServerView &v, const ForwardModel &m, ForwardScratch &s, ForwardScore *r) {
                          return forwardContinuous(m, static_cast<GaussMixServer *const *>(v.outputs), v.nQuant,
                                                   static_cast<const float *>(v.initial), obs, nFrames, s, r);
                        });
}
