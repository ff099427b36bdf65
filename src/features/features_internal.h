// Internal pieces shared by the feature-extraction sources: module names,
// kernel-status handling and the vectorised element loops of the cepstrum.
#pragma once

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
inline bool kernelFailed() { return kfxGetStatus() < 0; }

// Natural logarithm of v[0..n-1] in place. Positive normal values go through
// one polynomial (8 lanes at a time with AVX2, the same operations one at a
// time otherwise: both give bit-identical results, within 1 ulp of the exact
// logarithm); zero, negative, subnormal, infinite and NaN values take
// std::log, so -inf, NaN and +inf come out as the C library gives them.
void lnInPlace(float *v, int n);

// dst[k] = re^2 + im^2 of the interleaved pairs src[2k], src[2k+1], k < n,
// in float. dst may equal src (it is written behind the reads).
void powerInPlace(float *pairs, int n);

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
