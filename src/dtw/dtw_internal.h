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

// Pins the portable kernels (false) or lets the AVX2 ones run where the
// processor has them (true, the default). For tests and benchmarks.
void setDtwSimdEnabled(bool on);
bool dtwSimdActive();

}  // namespace xk::dtw
