// Internal helpers shared by the vector kernels (not exported): the raw
// dot-product engine and the route switch of the
// autocorrelation, so that tests can pin every path and compare them.
#pragma once

#include "kernels/simd.h"

namespace kfx {

// Sum of a[i]*b[i], i < n, accumulated in double, no argument checks.
// The AVX2 and the portable engine add in the same order (16 lanes, then a
// fixed reduction tree, then the tail), and every float product is exact in
// double, so both give bit-identical results.
double dotProduct(const float *a, const float *b, int n);

// Same sum over vectors already widened to double.
double dotProductDouble(const double *a, const double *b, int n);

// Route of kfxsAutoCorr: chosen by the cost rule, or pinned by tests.
enum class AutoCorrRoute { ByCost, Direct, Fft };
void setAutoCorrRoute(AutoCorrRoute route);
// True when the cost rule picks the FFT route for this length and lag count.
bool autoCorrPrefersFft(int len, int nLags);

}  // namespace kfx
