// What the processor offers the vectorised kernels, probed once per process.
//
// Every family of kernels with a vectorised path asks here, so the probe and
// the XKL_NO_SIMD switch live in one place. Each family keeps its own switch
// on top of this (for tests that compare its paths in one process).
#pragma once

namespace xk {

struct CpuFeatures {
  bool sse2;  // x86 baseline; false elsewhere
  bool avx2;
  bool fma;
  bool avx512f;  // 512-bit float and double arithmetic, with OS support
};

// The processor's features as the library may use them: all false when the
// environment held XKL_NO_SIMD=1 at the first call, or off x86. Read once;
// safe to call from any thread.
const CpuFeatures &cpuFeatures();

// AVX2 with FMA: what the float kernels of the kernel layer need.
inline bool cpuHasAvx2Fma() { return cpuFeatures().avx2 && cpuFeatures().fma; }

}  // namespace xk
