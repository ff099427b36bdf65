// Internal pieces of the DTW evaluation: admission, the band of reference
// frames per test frame, and the local-distance kernels, exposed so that
// tests and benchmarks can pin and count them.
#pragma once

#include <cstdint>

namespace xk::dtw {

// Effective start/end freedom for a test of nTest frames: |delta|, or 0 with
// the fixed-ends flag (bit 1). Kept in 64 bits so |INT_MIN| is defined.
int64_t effectiveDelta(int flags, int delta);

// True when a pattern of nFrames frames is scored against nTest test frames:
// floor((nTest-1)/2) + 1 <= nFrames <= 2*nTest - 1 + D.
bool admitted(int nTest, int nFrames, int64_t D);

// Band of reference frames allowed at each test frame i: start[i]..end[i]
// (inclusive), for M reference frames and D already lowered to M-1 at most.
// start and end each hold nTest entries.
void computeBand(int nTest, int M, int D, int *start, int *end);

// Local distances between one test frame x (dim doubles) and the reference
// frames j0..j1 (inclusive) of a reference stored transposed: value k of
// frame j at ref[k * ld + j]. Each distance is the double norm of the
// difference summed in order k = 0..dim-1 (city-block with l1, else the
// square root of the sum of squares), the same arithmetic as kfxsNorm and
// kfxwNorm. Writes out[j] for j0 <= j <= j1 and may write up to 15 entries
// past j1 (and read ref up to 15 columns past j1), which callers provide.
void localDistances(const double *x, const double *ref, int64_t ld, int dim, int j0, int j1, bool l1,
                    double *out);

// Widens M reference frames of dim values (rows[j] points to frame j) into
// the transposed double table ref (value k of frame j at ref[k * ld + j]).
// Columns M .. M+7 may be written too. The float form reads each row up to
// dim rounded up to 8 values, as the rows of an XKsAlloc2 table allow.
template <class T>
void widenTransposed(const T *const *rows, int M, int dim, double *ref, int64_t ld) {
  for (int j0 = 0; j0 < M; j0 += 8) {  // eight frames at a time: few lines touched
    const int n = M - j0 < 8 ? M - j0 : 8;
    for (int k = 0; k < dim; ++k)
      for (int j = 0; j < n; ++j) ref[k * ld + j0 + j] = static_cast<double>(rows[j0 + j][k]);
  }
}
void widenTransposed(const float *const *rows, int M, int dim, double *ref, int64_t ld);

// One inner test frame of the float recurrence over the band s..e of the
// column A (flags F: -1 where the last step was horizontal, else 0), as
// described in dtw_eval.cpp: predecessor choice (descending, in place), then
// cells at or above tf become the sentinel inf. Returns true when a band
// cell is below tf afterwards. Reads A and F down to s - 17.
bool floatStep(float *A, int32_t *F, int s, int e, float tf, float inf);

// A[j] += (float)dist[j] for s <= j <= e where A[j] < measureBelow.
void floatAddDistances(float *A, const double *dist, int s, int e, float measureBelow);

// Instruction sets of the DTW kernels, in increasing order. The best one
// the processor offers runs unless a test or benchmark caps it.
enum class DtwIsa { Portable = 0, Avx2 = 1, Avx512 = 2 };
DtwIsa dtwIsaAvailable();
DtwIsa activeDtwIsa();
// Caps the kernels of every thread at `isa` and returns the previous cap.
DtwIsa setDtwIsa(DtwIsa isa);

}  // namespace xk::dtw
