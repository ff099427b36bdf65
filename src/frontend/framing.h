// One frame's samples made ready for the cepstrum in a single pass: raw
// energy, per-frame pre-emphasis and window. The portable path calls the
// library's functions one after the other; the AVX2 path does the same
// arithmetic in one pass over the samples and gives the same bits.
#pragma once

namespace xk::frontend {

// Writes w[i] = y[i] * win[i], i < n (n >= 2), where y is x pre-emphasised
// as XKsPreemphasize does it (y[0] = x[0], y[i] = x[i] - alpha x[i-1] in
// double, rounded to float; alpha 0 leaves x as it is). Returns the sum of
// the squares of x as kfxsDotProd(x, x, n) adds them when `energy` is set,
// else 0. x and w do not overlap.
double prepareFrame(const float *x, int n, float alpha, const float *win, float *w, bool energy);

// The AVX2 path runs when the processor has AVX2 and FMA (and XKL_NO_SIMD is
// not set) unless turned off here; for tests and benchmarks. Returns the
// previous setting.
bool setFramingSimd(bool on);

}  // namespace xk::frontend
