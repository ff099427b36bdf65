// Internal pieces shared by the feature-extraction sources: module names,
// kernel-status handling and the vectorised element loops of the cepstrum.
#pragma once

#include <cmath>

#include <cstddef>

#include "frame/context.h"
#include "frame/report.h"
#include "xkl/kfx.h"
#include "xkl/xk_features.h"

namespace xk::features {

inline constexpr const char *kModPree = "XK_PREE";
inline constexpr const char *kModLpred = "XK_LPRED";
inline constexpr const char *kModLpspe = "XK_LPSPE";
inline constexpr const char *kModCeps = "XK_CEPS";

// The kernel status is sticky until someone resets it. A feature function
// starts its kernel sequence from a clean status, so that a failure left
// over from an earlier call (or from the application's own kernel calls)
// is not mistaken for a failure of this call; a failure of this call stays
// visible through kfxGetStatus afterwards.
inline void clearKernelStatus() { kfxSetStatus(KFX_StsOk); }

// Weight i of the sine lifter of length L: 1 + (L/2) sin(pi i / L), in
// double. XKsLiftering and the front end both use it, so they agree bit for
// bit.
inline double lifterWeight(int L, int i) {
  const double half = L / 2.0, pi = 3.14159265358979323846;
  return 1.0 + half * std::sin(pi * static_cast<double>(i) / L);
}
inline bool kernelFailed() { return kfxGetStatus() < 0; }

// Natural logarithm of v[0..n-1] in place. Positive normal values go through
// one polynomial (8 lanes at a time with fused multiply-adds under AVX2, one
// at a time with separate ones otherwise; both within 1 ulp of the exact
// logarithm); zero, negative, subnormal, infinite and NaN values take
// std::log, so -inf, NaN and +inf come out as the C library gives them.
void lnInPlace(float *v, int n);

// pairs[k] = re^2 + im^2 of the interleaved pair at 2k, 2k+1, k < n, in
// float, in place (each value is written behind the reads).
void powerInPlace(float *pairs, int n);

// pairs[k] = ln(max(re^2 + im^2, floor)) (floor only when useFloor), k < n,
// in place: power, floor and logarithm in one pass, computed like
// powerInPlace, floorInPlace and lnInPlace.
void logPowerInPlace(float *pairs, int n, bool useFloor, float floor);

// v[i] = floor wherever v[i] < floor (NaN stays), in place.
void floorInPlace(float *v, int n, float floor);

// Filter sums: out[i] = sum_j w_i[j] * src[i][j], j < len[i], products and
// sums in double, stored as float. Row i's weights follow row i-1's
// (w_0 = w); len null means every row has `fixedLen` weights; src null
// means every row reads `vec`. Four lanes (lane l takes j % 4 == l, the
// last partial group included), added as (l0 + l1) + (l2 + l3).
void weightedSums(const float *w, const int *len, int fixedLen, const float *const *src, const float *vec,
                  int rows, float *out);

// Pre-emphasis y[i] = x[i] - alpha x[i-1] for i = n-1 .. 1 in double, in
// place.
void preemphasizeInPlace(float *x, double alpha, int n);

// sqrt of v[0..n-1] in place (correctly rounded in both forms).
void sqrtInPlace(float *v, int n);

// For tests: pin the element loops to their portable forms (false) or let
// the processor decide (true). Returns the previous setting.
bool setFeatureSimd(bool on);

// Allocation helpers: 32-byte aligned, zero-filled blocks released by
// freeAligned (null allowed). Sizes in bytes.
void *allocAligned(std::size_t bytes);
void freeAligned(void *p);

}  // namespace xk::features
