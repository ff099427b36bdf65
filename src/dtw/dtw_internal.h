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

// Every inner test frame i = 1 .. N-2 of the float recurrence on the
// column A (step flags F: -1 where the last step was horizontal, else 0),
// as dtw_eval.cpp describes it: over the band start[i]..end[i], the
// predecessor choice (descending, in place), cells at or above tf set to
// the sentinel inf, then the local distances of test frame i (X + i*dim)
// against ref added to the cells below measureBelow; the two cells below
// each band become inf. Returns false as soon as a frame leaves no cell
// below tf (the column is then meaningless). dist, cur and next are scratch
// columns laid out like A (A, F, cur and next readable 17 cells below 0).
bool floatInnerFrames(float *A, int32_t *F, const int *start, const int *end, int N, float tf, float inf,
                      float measureBelow, const double *X, const double *ref, int64_t ld, int dim, bool l1,
                      double *dist, float *cur, float *next);

// Integer local distance: the norm v times scale (a power of two; exact
// for every 16-bit norm), truncated toward zero, saturated at 0x7FFFFFFF.
inline int32_t intDistance(double v, double scale) {
  v *= scale;
  return v >= 2147483647.0 ? 0x7FFFFFFF : static_cast<int32_t>(v);
}

// a + b for 0 <= a, b <= 0x7FFFFFFF as an unsigned sum clamped to
// 0x7FFFFFFF, so an unreachable cell stays unreachable.
inline int32_t satAddInt(int32_t a, int32_t b) {
  const uint32_t s = static_cast<uint32_t>(a) + static_cast<uint32_t>(b);
  return s > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<int32_t>(s);
}

// The same on 32-bit cells: inf is the unreachable value, T the integer
// threshold (signed comparisons), and every band cell gets its distance
// (intDistance with `scale`) added with satAddInt.
bool intInnerFrames(int32_t *A, int32_t *F, const int *start, const int *end, int N, int32_t T, int32_t inf,
                    double scale, const double *X, const double *ref, int64_t ld, int dim, bool l1, double *dist,
                    int32_t *cur, int32_t *next);

// Instruction sets of the DTW kernels, in increasing order. The best one
// the processor offers runs unless a test or benchmark caps it.
enum class DtwIsa { Portable = 0, Avx2 = 1, Avx512 = 2 };
DtwIsa dtwIsaAvailable();
DtwIsa activeDtwIsa();
// Caps the kernels of every thread at `isa` and returns the previous cap.
DtwIsa setDtwIsa(DtwIsa isa);

}  // namespace xk::dtw
