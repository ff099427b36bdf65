// Kernels of the float real FFT (order >= 2, M = N/2 complex points), in a
// portable and a vectorised flavour that give the same results to rounding.
#pragma once

#include <cstdint>
#include <cstring>

#include "kernels/fft_tables.h"

namespace kfx::fft {

// Puts the M complex points at z in bit-reversed order.
inline void bitReverseInPlace(float *z, const BitRevTable &t) {
  const std::uint32_t *p = t.pairs;
  for (std::size_t i = 0; i < t.pairCount; ++i, p += 2) {
    std::uint64_t a, b;
    std::memcpy(&a, z + 2 * std::size_t{p[0]}, 8);
    std::memcpy(&b, z + 2 * std::size_t{p[1]}, 8);
    std::memcpy(z + 2 * std::size_t{p[0]}, &b, 8);
    std::memcpy(z + 2 * std::size_t{p[1]}, &a, 8);
  }
}

// Forward transform of N real samples into the RCPerm layout (Re0, Re(N/2),
// Re1, Im1, ...). `out` may equal `in`; otherwise the two must not overlap.
void realForwardPortable(const float *in, float *out, const FloatTables &t);
// Inverse transform of the RCPerm spectrum `spec` into N real samples at
// `out` multiplied by `scale` (1/N for a scaled inverse). `out` may equal
// `spec`; otherwise the two must not overlap.
void realInversePortable(const float *spec, float *out, const FloatTables &t, float scale);

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define XKL_FFT_HAVE_AVX2 1
// Same contracts; need AVX2 and FMA, and the vectorised twiddle factors
// (TwiddleTable::simd non-null).
void realForwardAvx2(const float *in, float *out, const FloatTables &t);
void realInverseAvx2(const float *spec, float *out, const FloatTables &t, float scale);
#endif

}  // namespace kfx::fft
