// The 16-bit Mahalanobis kernels without root or scaling, for the Gaussian
// mixture evaluation and training, and the switch between their vectorised
// and portable paths.
#pragma once

#include <cstdint>

namespace xk {

// Diagonal form: sum of d_i * (int16)(d_i * invVar[i]) with d = x - m
// wrapped to 16 bits, summed modulo 2^32. Equals XKwMahalanobisD with
// sqrtFlag 0, scaleMode 0. Exact whenever every d_i * invVar[i] lies within
// -32768..32767; 0 for n < 1.
std::int32_t wMahalanobisDiagRaw(const short *x, const short *m, const short *invVar, int n);

// Full form on the lower triangle (row i: columns 0..i): 2 * cross + diagonal,
// every product exact, every sum modulo 2^32. Equals XKwMahalanobis with
// sqrtFlag 0, scaleMode 0; 0 for n < 1.
std::int32_t wMahalanobisFullRaw(const short *x, const short *m, const short *const *invCov, int n);

// Floor of the square root of v.
std::uint32_t isqrt32(std::uint32_t v);

}  // namespace xk

namespace xk::vq {

// True when the subsystem's AVX2 paths run: the processor has AVX2
// (frame/cpu.h, XKL_NO_SIMD honoured) and no test turned them off.
bool simdActive();

// Process-wide; for tests and benchmarks comparing the paths in one process.
void setSimdEnabled(bool on);

}  // namespace xk::vq
