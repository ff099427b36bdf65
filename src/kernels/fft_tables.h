// Process-wide table cache of the real FFT, shared by the float and 16-bit
// forms.
//
// A real transform of order m (N = 2^m samples) runs a complex FFT of
// M = N/2 points; its tables are kept in one slot per order (32 slots per
// kind) and built on first use:
//   - bit-reversal table: the permutation of the M complex points,
//   - twiddle table: exp(-2*pi*i*j/M) for j < M/2, plus the per-stage factors
//     of the vectorised complex stage laid out for contiguous SIMD loads,
//   - split table: the factors of the real-split stage, -i/2 * exp(-2*pi*i*k/N)
//     for k = 0..M/2.
// A table is built once and never written again. Concurrent first use is
// safe: each racing thread builds its own copy, one copy is published with a
// compare-and-swap and the others are freed. Reading a published table takes
// no lock. Releasing tables while another thread transforms is not allowed.
//
// Other table kinds (the 16-bit forms' integer twiddles) follow the same
// scheme with tableAlloc/tableFree and publishTable below.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kernels/simd.h"

namespace kfx::fft {

inline constexpr int kMaxOrder = 31;
inline constexpr int kSlots = 32;

// Orders whose twiddle table carries the factors of the vectorised passes
// (their size grows like 4*M floats); other orders run the portable stages.
inline constexpr int kMinSimdOrder = 6;
inline constexpr int kMaxSimdOrder = 22;

// Complex points of the transform of order m (m >= 1): M = 2^(m-1).
inline constexpr std::size_t complexPoints(int order) { return std::size_t{1} << (order - 1); }

struct BitRevTable {
  int order;            // order of the real transform
  std::size_t points;   // M
  // Pairs (j, rev(j)) with j < rev(j), rev(j) being j with its log2(M) bits
  // reversed: swapping them puts M complex points in bit-reversed order. The
  // list ends with a (0, 0) pair; `pairCount` excludes it.
  const std::uint32_t *pairs;
  std::size_t pairCount;
  // rev[j] for every j < M; null above kMaxSimdOrder to keep the largest
  // tables small (the pairs suffice there).
  const std::uint32_t *rev;
};

struct TwiddleTable {
  int order;
  std::size_t points;   // M
  // exp(-2*pi*i*j/M), j = 0..M/2-1, interleaved (re, im).
  const float *plain;
  // Factors of the vectorised radix-4 passes, or null outside
  // kMinSimdOrder..kMaxSimdOrder. The passes join transforms of span L = 8
  // (log2 M odd) or 16 (log2 M even), then 4L, ... up to M/4. Per pass, in
  // blocks of four consecutive butterflies j = 4b..4b+3, the factors
  // exp(-2*pi*i*r*j/(4L)) for r = 1, 2, 3, each as 8 floats of duplicated real
  // parts followed by 8 floats of duplicated imaginary parts (48 floats a block).
  const float *simd;
};

struct SplitTable {
  int order;
  std::size_t points;   // M
  // -i/2 * exp(-2*pi*i*k/N), k = 0..M/2, interleaved (re, im).
  const float *coef;
};

// Tables of one order, or null when they cannot be built. The order must be
// in 2..31. Each call builds what is missing; it does not release or retry.
const BitRevTable *bitRevTable(int order);
const TwiddleTable *twiddleTable(int order);
const SplitTable *splitTable(int order);

// Fetches (building what is missing) the three tables of an order; if one
// cannot be allocated, releases every cached float table and tries once more.
// Returns false when the second attempt fails too. Order in 2..31.
struct FloatTables {
  const BitRevTable *bitRev;
  const TwiddleTable *twiddle;
  const SplitTable *split;
};
bool acquireTables(int order, FloatTables *out);

// Releases every cached table of one kind (all 32 slots).
void releaseBitRevTables();
void releaseTwiddleTables();  // twiddle and split tables
void releaseAllFloatTables();

// Whether a slot currently holds a table (for tests and diagnostics).
bool bitRevCached(int order);
bool twiddleCached(int order);
bool splitCached(int order);

// 64-byte aligned table memory. tableAlloc returns null on failure (and when
// the test hook below says so); tableFree accepts null.
void *tableAlloc(std::size_t bytes);
void tableFree(void *block);

// Test hook: the next `count` calls of tableAlloc fail (count < 0: every call
// fails until the hook is reset with 0).
void failTableAllocations(int count);

// Publishes a freshly built table in an empty slot. Returns the table that
// ends up in the slot: `fresh` when this call won, otherwise the winner's
// table, in which case `fresh` is handed to `destroy`.
template <class T, class Destroy>
T *publishTable(std::atomic<T *> &slot, T *fresh, Destroy destroy) {
  T *expected = nullptr;
  if (slot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel,
                                   std::memory_order_acquire))
    return fresh;
  destroy(fresh);
  return expected;
}

}  // namespace kfx::fft
