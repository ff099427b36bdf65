// Internal pieces of the numeric conversions: the checking order functions of
// double and int vectors, and the choice of instruction set for the block
// conversions.
#pragma once

#include "xkl/xk_convert.h"

namespace xk {

inline constexpr const char *kModConvert = "XK_CNVRT";

// Order of a double vector: the frexp exponent of the largest magnitude M
// (M = f * 2^e, f in [0.5, 1)); 1025 when M is infinite or any element is NaN;
// -1022 when M is zero or denormal. Reports XK_StsBadArg for n < 1 ("n<=0")
// and a null vector ("inVect==0") as "XKdMaxOrder", then returns 0 whenever
// the thread's stored status is negative, including a failure left standing
// from an earlier call.
int dMaxOrder(const double *inVect, int n);

// Order of an int vector: highest set bit of the OR of the magnitudes plus
// one (|INT_MIN| = 2^31 gives 32); an all-zero vector gives 1. Same checks as
// dMaxOrder, reported as "XKiMaxOrder".
int iMaxOrder(const int *inVect, int n);

// Instruction sets the block conversions can use. The best one the CPU
// offers is picked once; XKL_NO_SIMD=1 in the environment forces the portable
// code (plain long double arithmetic, the reference the others must equal).
enum class ConvertIsa { Portable = 0, Sse2 = 1, Avx2 = 2 };

// Best instruction set available on this CPU and build.
ConvertIsa convertIsaAvailable();

// Instruction set the conversions and orders use now: the available one,
// capped by setConvertIsa.
ConvertIsa activeConvertIsa();

// Caps the instruction set used by the conversions of every thread at `isa`
// (never above what is available) and returns the previous cap. For tests and
// benchmarks.
ConvertIsa setConvertIsa(ConvertIsa isa);

}  // namespace xk
