// Two-dimensional tables, file helpers and the version record.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "frame/report.h"
#include "xkl/xk_frame.h"

namespace xk {
namespace {

constexpr const char *kModAlloc = "XK_ALLOC";
constexpr const char *kTableNoMem = "The table can not be allocated";

// Element traits of the two table flavours: row padding (in elements) to
// whole 32-byte lines, slack bytes for aligning the first row, report site.
struct FloatTable {
  using Elem = float;
  static constexpr int64_t kPad = 8;
  static constexpr size_t kSlack = 28;
  static constexpr const char *kFunc = "XKsAlloc2";
  static constexpr int kLine = 60;
};
struct ShortTable {
  using Elem = short;
  static constexpr int64_t kPad = 16;
  static constexpr size_t kSlack = 30;
  static constexpr const char *kFunc = "XKwAlloc2";
  static constexpr int kLine = 108;
};

// Lays out one block: `rows` row pointers, then the rows, the first on the
// next 32-byte boundary after the pointers, each `padded` elements long.
// The slack (28 or 30 bytes) covers the alignment step because the block
// and the pointer table are at least pointer-aligned. Negative or overflowing
// sizes are treated as a failed allocation.
template <class T>
typename T::Elem **allocTable(int rows, int cols) {
  using Elem = typename T::Elem;
  const int64_t padded = (static_cast<int64_t>(cols) + T::kPad - 1) / T::kPad * T::kPad;
  void *block = nullptr;
  if (rows >= 0 && padded >= 0) {
    const uint64_t r = static_cast<uint64_t>(rows);
    const uint64_t rowBytes = static_cast<uint64_t>(padded) * sizeof(Elem) + sizeof(Elem *);
    const uint64_t limit = static_cast<uint64_t>(PTRDIFF_MAX) - T::kSlack;
    if (r == 0 || rowBytes <= limit / r) block = std::malloc(static_cast<size_t>(r * rowBytes + T::kSlack));
  }
  if (block == nullptr) {
    report(XK_StsNoMem, T::kFunc, kTableNoMem, kModAlloc, T::kLine);
    return nullptr;
  }
  auto **table = static_cast<Elem **>(block);
  uintptr_t data = reinterpret_cast<uintptr_t>(table + rows);
  data = (data + 31) & ~static_cast<uintptr_t>(31);
  auto *first = reinterpret_cast<Elem *>(data);
  for (int i = 0; i < rows; ++i) table[i] = first + static_cast<int64_t>(i) * padded;
  return table;
}

const XKLibVersion kVersion = {
    4, 0, 18, "xklm5.dll", "Version 4.1 Beta Release", "[4.00.18, 01/21/99]", "Jan 26 1999", "DLL",
};

}  // namespace
}  // namespace xk

extern "C" {

float **XKsAlloc2(int rows, int cols) { return xk::allocTable<xk::FloatTable>(rows, cols); }

short **XKwAlloc2(int rows, int cols) { return xk::allocTable<xk::ShortTable>(rows, cols); }

void XKFree2(void *table) { std::free(table); }

FILE *XKOpenFile(const char *name, const char *mode) {
  if (name == nullptr || mode == nullptr) return nullptr;
  return std::fopen(name, mode);
}

int XKCloseFile(FILE *stream) {
  if (stream == nullptr) return EOF;
  return std::fclose(stream);
}

const XKLibVersion *XKGetLibVersion(void) { return &xk::kVersion; }

}  // extern "C"
