#include "kernels/fft_tables.h"

#include <cmath>
#include <cstring>
#include <new>

#include "xkl/kfx.h"

namespace kfx::fft {
namespace {

std::atomic<BitRevTable *> gBitRev[kSlots];
std::atomic<TwiddleTable *> gTwiddle[kSlots];
std::atomic<SplitTable *> gSplit[kSlots];

std::atomic<int> gFailAllocations{0};

// The header of a table sits in front of its data, in the same block.
constexpr std::size_t kHeaderBytes = 64;
static_assert(sizeof(BitRevTable) <= kHeaderBytes && sizeof(TwiddleTable) <= kHeaderBytes &&
              sizeof(SplitTable) <= kHeaderBytes);

bool validOrder(int order) { return order >= 2 && order <= kMaxOrder; }

// First span of the vectorised radix-4 passes: the leaves are 16-point
// transforms when log2(M) is even, 8-point ones when it is odd.
std::size_t firstSimdSpan(std::size_t m) {
  int log2m = 0;
  while ((std::size_t{1} << log2m) < m) ++log2m;
  return (log2m & 1) ? 8 : 16;
}

// Floats of the vectorised stage factors for M points (0 when none).
std::size_t simdTwiddleFloats(int order) {
  if (order > kMaxSimdOrder || order < kMinSimdOrder) return 0;
  const std::size_t m = complexPoints(order);
  std::size_t floats = 0;
  for (std::size_t span = firstSimdSpan(m); span < m; span *= 4) floats += (span / 4) * 48;
  // A transform made of one leaf has no pass; keep the table non-empty.
  return floats ? floats : 16;
}

// Stores one complex factor of butterfly `lane` (0..3) in a SIMD block as
// duplicated real and imaginary parts.
void putFactor(float *block, int lane, double angle) {
  const float re = static_cast<float>(std::cos(angle));
  const float im = static_cast<float>(-std::sin(angle));
  block[2 * lane] = block[2 * lane + 1] = re;
  block[8 + 2 * lane] = block[8 + 2 * lane + 1] = im;
}

constexpr double kTwoPi = 6.283185307179586476925286766559;

void fillSimdTwiddles(float *dst, std::size_t m) {
  for (std::size_t span = firstSimdSpan(m); span < m; span *= 4) {
    for (std::size_t j = 0; j < span; ++j)
      for (int r = 1; r <= 3; ++r)
        putFactor(dst + (j / 4) * 48 + (r - 1) * 16, static_cast<int>(j % 4),
                  kTwoPi * static_cast<double>(r * j) / static_cast<double>(4 * span));
    dst += (span / 4) * 48;
  }
}

template <class T>
T *newTable(std::size_t dataBytes, void **data) {
  void *block = tableAlloc(kHeaderBytes + dataBytes);
  if (!block) return nullptr;
  *data = static_cast<char *>(block) + kHeaderBytes;
  return new (block) T{};
}

template <class T>
void destroyTable(T *table) {
  tableFree(table);
}

BitRevTable *buildBitRev(int order) {
  const std::size_t m = complexPoints(order);
  const int bits = order - 1;
  // j < rev(j) for half of the non-palindromic indices; 2^ceil(bits/2)
  // indices read the same reversed.
  const std::size_t pairCount = (m - (std::size_t{1} << ((bits + 1) / 2))) / 2;
  const bool fullTable = order <= kMaxSimdOrder;
  const std::size_t words = 2 * (pairCount + 1) + (fullTable ? m : 0);
  void *data = nullptr;
  BitRevTable *t = newTable<BitRevTable>(words * sizeof(std::uint32_t), &data);
  if (!t) return nullptr;
  auto *pairs = static_cast<std::uint32_t *>(data);
  std::uint32_t *rev = fullTable ? pairs + 2 * (pairCount + 1) : nullptr;
  // Walk j upwards with a bit-reversed counter r = rev(j): adding one at the
  // top bit and carrying downwards.
  std::size_t p = 0;
  std::uint32_t r = 0;
  const std::uint32_t top = std::uint32_t{1} << (bits - 1);
  for (std::size_t j = 0; j < m; ++j) {
    if (rev) rev[j] = r;
    if (j < r) {
      pairs[2 * p] = static_cast<std::uint32_t>(j);
      pairs[2 * p + 1] = r;
      ++p;
    }
    std::uint32_t mask = top;
    while (r & mask) {
      r ^= mask;
      mask >>= 1;
    }
    r |= mask;
  }
  pairs[2 * p] = pairs[2 * p + 1] = 0;
  t->order = order;
  t->points = m;
  t->pairs = pairs;
  t->pairCount = p;
  t->rev = rev;
  return t;
}

TwiddleTable *buildTwiddle(int order) {
  const std::size_t m = complexPoints(order);
  const std::size_t plainFloats = 2 * (m / 2);
  const std::size_t simdFloats = simdTwiddleFloats(order);
  // The vectorised part starts on a 64-byte boundary.
  const std::size_t simdOffset = (plainFloats + 15) & ~std::size_t{15};
  void *data = nullptr;
  TwiddleTable *t = newTable<TwiddleTable>((simdOffset + simdFloats) * sizeof(float), &data);
  if (!t) return nullptr;
  auto *plain = static_cast<float *>(data);
  for (std::size_t j = 0; j < m / 2; ++j) {
    const double angle = kTwoPi * static_cast<double>(j) / static_cast<double>(m);
    plain[2 * j] = static_cast<float>(std::cos(angle));
    plain[2 * j + 1] = static_cast<float>(-std::sin(angle));
  }
  float *simd = nullptr;
  if (simdFloats) {
    simd = plain + simdOffset;
    fillSimdTwiddles(simd, m);
  }
  t->order = order;
  t->points = m;
  t->plain = plain;
  t->simd = simd;
  return t;
}

SplitTable *buildSplit(int order) {
  const std::size_t m = complexPoints(order);
  void *data = nullptr;
  SplitTable *t = newTable<SplitTable>((m / 2 + 1) * 2 * sizeof(float), &data);
  if (!t) return nullptr;
  auto *coef = static_cast<float *>(data);
  const double n = 2.0 * static_cast<double>(m);
  for (std::size_t k = 0; k <= m / 2; ++k) {
    const double angle = kTwoPi * static_cast<double>(k) / n;
    // -i/2 * (cos - i sin) = (-sin - i cos) / 2
    coef[2 * k] = static_cast<float>(-0.5 * std::sin(angle));
    coef[2 * k + 1] = static_cast<float>(-0.5 * std::cos(angle));
  }
  t->order = order;
  t->points = m;
  t->coef = coef;
  return t;
}

template <class T, class Build>
const T *fetch(std::atomic<T *> *slots, int order, Build build) {
  if (!validOrder(order)) return nullptr;
  if (T *t = slots[order].load(std::memory_order_acquire)) return t;
  T *fresh = build(order);
  if (!fresh) return nullptr;
  return publishTable(slots[order], fresh, destroyTable<T>);
}

template <class T>
void releaseSlots(std::atomic<T *> *slots) {
  for (int i = 0; i < kSlots; ++i)
    if (T *t = slots[i].exchange(nullptr, std::memory_order_acq_rel)) destroyTable(t);
}

}  // namespace

void *tableAlloc(std::size_t bytes) {
  int pending = gFailAllocations.load(std::memory_order_relaxed);
  while (pending != 0) {
    if (pending < 0) return nullptr;
    if (gFailAllocations.compare_exchange_weak(pending, pending - 1)) return nullptr;
  }
  bytes = (bytes + 63) & ~std::size_t{63};
  return ::operator new(bytes, std::align_val_t{64}, std::nothrow);
}

void tableFree(void *block) {
  if (block) ::operator delete(block, std::align_val_t{64});
}

void failTableAllocations(int count) { gFailAllocations.store(count); }

const BitRevTable *bitRevTable(int order) { return fetch(gBitRev, order, buildBitRev); }
const TwiddleTable *twiddleTable(int order) { return fetch(gTwiddle, order, buildTwiddle); }
const SplitTable *splitTable(int order) { return fetch(gSplit, order, buildSplit); }

bool acquireTables(int order, FloatTables *out) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    out->bitRev = bitRevTable(order);
    out->twiddle = twiddleTable(order);
    out->split = splitTable(order);
    if (out->bitRev && out->twiddle && out->split) return true;
    // Make room: drop every cached table and build this order's once more.
    if (attempt == 0) releaseAllFloatTables();
  }
  return false;
}

void releaseBitRevTables() { releaseSlots(gBitRev); }

void releaseTwiddleTables() {
  releaseSlots(gTwiddle);
  releaseSlots(gSplit);
}

void releaseAllFloatTables() {
  releaseBitRevTables();
  releaseTwiddleTables();
}

bool bitRevCached(int order) {
  return order >= 0 && order < kSlots && gBitRev[order].load(std::memory_order_acquire);
}
bool twiddleCached(int order) {
  return order >= 0 && order < kSlots && gTwiddle[order].load(std::memory_order_acquire);
}
bool splitCached(int order) {
  return order >= 0 && order < kSlots && gSplit[order].load(std::memory_order_acquire);
}


}  // namespace kfx::fft

extern "C" {

void kfxFreeBitRevTbls(void) { kfx::fft::releaseBitRevTables(); }

void kfxFreeTwdTbls(void) { kfx::fft::releaseTwiddleTables(); }

}  // extern "C"
