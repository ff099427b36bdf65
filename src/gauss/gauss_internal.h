// Layout of a Gauss mixture server block, shared by creation, estimation,
// files and conversion, and the per-thread scratch buffers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "xkl/xk_gauss.h"

namespace xk::gauss {

inline constexpr const char *kModule = "XK_GAUSS";
inline constexpr const char *kBothOrNeither = "One of InverseCov or InverseCovD must be NULL and the other non NULL";
inline constexpr const char *kNoMemPtr = "insufficiency of memory for pointer  ptr";
inline constexpr const char *kNoMemPtr2 = "insufficiency of memory for pointer  ptr2";
inline constexpr int kFilling = 0x40000000;
inline constexpr int kMaxDim = 65535, kMaxMix = 1 << 24;

// Rounds a count up to a multiple of 4.
inline std::int64_t pad4(std::int64_t n) {
  static constexpr int add[4] = {0, 3, 2, 1};
  return n + add[n & 3];
}

// Byte offsets of the tables from the data-area start, for pointers of
// `ptr` bytes (8 in memory here, 4 in files) and elements of `elem` bytes
// (4 for s, 2 for w). Offsets of absent tables are -1.
struct Layout {
  std::int64_t dimPad = 0, nMixPad = 0;
  std::int64_t coefs = -1, work = 0, weights = 0, meanTab = 0, meanRows = 0;
  std::int64_t covTab = 0, rowTabs = -1, covRows = 0, end = 0;
  bool full = false;
  std::int64_t elem = 4, ptr = 8;

  Layout(bool sFlavour, bool isFull, std::int64_t dim, std::int64_t nMix, std::int64_t ptrBytes)
      : dimPad(pad4(dim)), nMixPad(pad4(nMix)), full(isFull), elem(sFlavour ? 4 : 2), ptr(ptrBytes) {
    std::int64_t o = 0;
    if (sFlavour) {
      coefs = 0;
      work = 4 * nMixPad;
      weights = 8 * nMixPad;
      o = 12 * nMixPad;
    } else {
      work = 0;
      weights = 4 * nMixPad;
      o = 6 * nMixPad;
    }
    meanTab = o;
    meanRows = meanTab + ptr * nMixPad;
    covTab = meanRows + elem * nMix * dimPad;
    if (full) {
      rowTabs = covTab + ptr * nMixPad;
      covRows = rowTabs + ptr * nMix * dimPad;
      end = covRows + elem * dim * nMix * dimPad;
    } else {
      covRows = covTab + ptr * nMixPad;
      end = covRows + elem * nMix * dimPad;
    }
  }
  // The data area starts at the block + header + 15 rounded down to 16: 63
  // with the 48-byte header of 32-bit pointers, more with native ones.
  std::int64_t headroom() const { return ptr == 4 ? 63 : static_cast<std::int64_t>(sizeof(GaussMixServer)) + 15; }
  std::int64_t blockSize() const { return headroom() + end; }
  std::int64_t rowBytes() const { return elem * dimPad; }
};

// Start of the data area of an in-memory block.
inline unsigned char *dataStart(void *block) {
  return reinterpret_cast<unsigned char *>((reinterpret_cast<std::uintptr_t>(block) + sizeof(GaussMixServer) + 15) &
                                           ~std::uintptr_t{15});
}

// Allocates a zeroed block for the layout and sets every table pointer and
// the header's dim, nMix and size; flags, scale and count are left to the
// caller. Null when the size does not fit an int or memory is short.
GaussMixServer *allocServer(bool sFlavour, bool full, int dim, int nMix);

// The thread's matrix buffer with room for n rows of pad4(n) floats, grown
// as needed (rows 16-byte aligned); null when it cannot be allocated.
float **scratchMatrix(int n);
// The thread's training vector of at least n floats; null when short of memory.
float *scratchVector(int n);

// Determinant of the n x n float matrix given by rows, by elimination with
// column pivoting; destroys the matrix.
double determinant(float *const *a, int n);

}  // namespace xk::gauss
