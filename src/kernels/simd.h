// The kernel layer's switch between its AVX2+FMA paths and the portable ones.
//
// One switch for the whole layer (FFT, DCT, norms, dot products,
// autocorrelation): the vectorised paths run when the processor has AVX2 and
// FMA and XKL_NO_SIMD=1 was not set (see frame/cpu.h), unless a test or a
// benchmark turned them off to compare the paths in one process.
#pragma once

#include <atomic>

#include "frame/cpu.h"

namespace kfx {

inline std::atomic<bool> simdTurnedOff{false};

inline bool simdActive() {
  return !simdTurnedOff.load(std::memory_order_relaxed) && xk::cpuHasAvx2Fma();
}

// Process-wide; for tests and benchmarks only.
inline void setSimdEnabled(bool on) { simdTurnedOff.store(!on, std::memory_order_relaxed); }

}  // namespace kfx
