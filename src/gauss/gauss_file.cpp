// Gauss mixture files and the conversion between the flavours.
//
// A file holds the tag "GAUS", the twelve header words and the data area as
// a 32-bit process lays out the block: 4-byte pointer words, the block
// taken to start at address 0 (so the data area starts at 48 and a pointer
// word holds 48 + its table's offset in the data area, 0 for null), and
// `size` the data-area length (the 32-bit block size minus 48). Reading
// rebuilds every pointer from the layout; the stored words only say null or
// not.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "frame/report.h"
#include "gauss/gauss_internal.h"
#include "xkl/xk_convert.h"

namespace xk::gauss {
namespace {

constexpr std::int64_t kData32 = 48;  // data-area start of a block at address 0

void put32(unsigned char *p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}
std::uint32_t get32(const unsigned char *p) {
  return p[0] | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[3]} << 24);
}

// Copies n elements of e bytes each between the host (native order) and
// the little-endian file.
void toFile(unsigned char *dst, const void *src, std::int64_t n, int e) {
  const auto *s = static_cast<const unsigned char *>(src);
  for (std::int64_t k = 0; k < n; ++k) {
    std::uint32_t v = 0;
    std::memcpy(&v, s + k * e, static_cast<std::size_t>(e));  // little-endian host assumed below
    if (e == 4) put32(dst + k * 4, v);
    else dst[k * 2] = static_cast<unsigned char>(v), dst[k * 2 + 1] = static_cast<unsigned char>(v >> 8);
  }
}
void fromFile(void *dst, const unsigned char *src, std::int64_t n, int e) {
  auto *d = static_cast<unsigned char *>(dst);
  for (std::int64_t k = 0; k < n; ++k) {
    if (e == 4) {
      const std::uint32_t v = get32(src + k * 4);
      std::memcpy(d + k * 4, &v, 4);
    } else {
      const std::uint16_t v = static_cast<std::uint16_t>(src[k * 2] | (src[k * 2 + 1] << 8));
      std::memcpy(d + k * 2, &v, 2);
    }
  }
}

}  // namespace
}  // namespace xk::gauss

using namespace xk::gauss;

extern "C" XKL_API int XKWriteGaussMixServer(FILE *file, GaussMixServer *server) {
  const bool sFlavour = (server->flags & GAUSS_SERVER_FVR_S) != 0;
  const bool full = server->InverseCov != nullptr;
  const int dim = server->dim, nMix = server->nMix;
  const Layout l(sFlavour, full, dim, nMix, 4);
  const std::int64_t length = l.blockSize() - kData32;
  std::vector<unsigned char> data(static_cast<std::size_t>(length), 0);
  unsigned char *d = data.data();
  auto addr = [](std::int64_t off) { return static_cast<std::uint32_t>(kData32 + off); };
  const std::int64_t e = l.elem;
  if (sFlavour) toFile(d + l.coefs, server->coefs, nMix, 4);
  toFile(d + l.work, server->work, nMix, 4);
  toFile(d + l.weights, server->weights, nMix, static_cast<int>(e));
  for (int m = 0; m < nMix; ++m) {
    put32(d + l.meanTab + 4 * m, addr(l.meanRows + m * l.rowBytes()));
    toFile(d + l.meanRows + m * l.rowBytes(), server->means[m], l.dimPad, static_cast<int>(e));
    if (full) {
      put32(d + l.covTab + 4 * m, addr(l.rowTabs + 4 * m * l.dimPad));
      for (int i = 0; i < dim; ++i) {
        const std::int64_t row = l.covRows + (static_cast<std::int64_t>(m) * dim + i) * l.rowBytes();
        put32(d + l.rowTabs + 4 * (m * l.dimPad + i), addr(row));
        toFile(d + row, server->InverseCov[m][i], l.dimPad, static_cast<int>(e));
      }
    } else {
      put32(d + l.covTab + 4 * m, addr(l.covRows + m * l.rowBytes()));
      toFile(d + l.covRows + m * l.rowBytes(), server->InverseCovD[m], l.dimPad, static_cast<int>(e));
    }
  }
  unsigned char head[48];
  put32(head + 0, addr(l.weights));
  put32(head + 4, addr(l.meanTab));
  put32(head + 8, full ? addr(l.covTab) : 0);
  put32(head + 12, full ? 0 : addr(l.covTab));
  put32(head + 16, sFlavour ? addr(l.coefs) : 0);
  put32(head + 20, addr(l.work));
  const int words[6] = {dim, nMix, server->flags, server->scale, server->count, static_cast<int>(length)};
  for (int k = 0; k < 6; ++k) put32(head + 24 + 4 * k, static_cast<std::uint32_t>(words[k]));
  if (std::fwrite("GAUS", 4, 1, file) != 1) return 0;
  if (std::fwrite(head, 48, 1, file) != 1) return 0;
  return std::fwrite(data.data(), static_cast<std::size_t>(length), 1, file) == 1 ? 1 : 0;
}

extern "C" XKL_API GaussMixServer *XKReadGaussMixServer(FILE *file) {
  unsigned char tag[4], head[48];
  if (std::fread(tag, 4, 1, file) != 1 || std::memcmp(tag, "GAUS", 4) != 0) return nullptr;
  if (std::fread(head, 48, 1, file) != 1) return nullptr;
  const bool hasFull = get32(head + 8) != 0, hasDiag = get32(head + 12) != 0;
  if (hasFull == hasDiag) {
    xk::report(XK_StsBadArg, "XKReadGaussMixServer", kBothOrNeither, kModule, 410);
    return nullptr;
  }
  const int dim = static_cast<int>(get32(head + 24)), nMix = static_cast<int>(get32(head + 28));
  const int flags = static_cast<int>(get32(head + 32)), scale = static_cast<int>(get32(head + 36));
  const int count = static_cast<int>(get32(head + 40)), size = static_cast<int>(get32(head + 44));
  const bool sFlavour = (flags & GAUSS_SERVER_FVR_S) != 0;
  // Words a server of this library never carries: a flavour other than
  // exactly one of s and w, a shape flag disagreeing with the pointer words,
  // a negative shape, a coefs word on a w server.
  if (sFlavour == ((flags & GAUSS_SERVER_FVR_W) != 0)) return nullptr;
  if (((flags & GAUSS_SERVER_FULL) != 0) != hasFull || ((flags & GAUSS_SERVER_DIAG) != 0) != hasDiag) return nullptr;
  if (dim < 0 || nMix < 0 || dim > kMaxDim || nMix > kMaxMix) return nullptr;
  if ((get32(head + 16) != 0) != sFlavour) return nullptr;
  const Layout l(sFlavour, hasFull, dim, nMix, 4);
  // The data area of a 32-bit block is its size less 48 to 63 bytes,
  // depending on where the allocator placed the block.
  if (l.blockSize() > INT_MAX || size < l.end || size > l.end + 15) return nullptr;
  // Read in steps so that a short file fails before a large allocation.
  std::vector<unsigned char> data;
  for (std::size_t have = 0; have < static_cast<std::size_t>(size);) {
    const std::size_t step = std::min<std::size_t>(static_cast<std::size_t>(size) - have, std::size_t{1} << 20);
    data.resize(have + step);
    if (std::fread(data.data() + have, 1, step, file) != step) return nullptr;
    have += step;
  }
  GaussMixServer *g = allocServer(sFlavour, hasFull, dim, nMix);
  if (g == nullptr) {
    xk::report(XK_StsNoMem, sFlavour ? "XKReadGaussMixServer" : "XKwReadGaussMixServer", kNoMemPtr, kModule, 440);
    return nullptr;
  }
  const unsigned char *d = data.data();
  const int e = static_cast<int>(l.elem);
  if (sFlavour) fromFile(g->coefs, d + l.coefs, nMix, 4);
  fromFile(g->work, d + l.work, nMix, 4);
  fromFile(g->weights, d + l.weights, nMix, e);
  for (int m = 0; m < nMix; ++m) {
    // Only the dim elements of a row: the padding stays zero whatever the
    // file holds there, which the evaluation relies on.
    fromFile(g->means[m], d + l.meanRows + m * l.rowBytes(), dim, e);
    if (hasFull) {
      for (int i = 0; i < dim; ++i)
        fromFile(g->InverseCov[m][i], d + l.covRows + (static_cast<std::int64_t>(m) * dim + i) * l.rowBytes(), dim,
                 e);
    } else {
      fromFile(g->InverseCovD[m], d + l.covRows + m * l.rowBytes(), dim, e);
    }
  }
  g->flags = flags;
  g->scale = scale;
  g->count = count;
  return g;
}

namespace {

// Copies the shape of src into dst element by element through `conv`.
template <class From, class To, class Conv>
void convertTables(const GaussMixServer *src, GaussMixServer *dst, Conv conv) {
  const int dim = src->dim, nMix = src->nMix;
  for (int m = 0; m < nMix; ++m) {
    static_cast<To *>(dst->weights)[m] = conv(static_cast<const From *>(src->weights)[m], 0);
    for (int i = 0; i < dim; ++i)
      static_cast<To *>(dst->means[m])[i] = conv(static_cast<const From *>(src->means[m])[i], 1);
    if (src->InverseCov != nullptr) {
      for (int i = 0; i < dim; ++i)
        for (int j = 0; j < dim; ++j)
          static_cast<To *>(dst->InverseCov[m][i])[j] = conv(static_cast<const From *>(src->InverseCov[m][i])[j], 2);
    } else {
      for (int i = 0; i < dim; ++i)
        static_cast<To *>(dst->InverseCovD[m])[i] = conv(static_cast<const From *>(src->InverseCovD[m])[i], 2);
    }
  }
}

}  // namespace

extern "C" XKL_API GaussMixServer *XKswConvertGaussMixServer(GaussMixServer *src, int weightScale, int meanScale,
                                                             int covScale) {
  static constexpr const char *kFunc = "XKswConvertGaussMixfServer";
  if ((src->InverseCov == nullptr) == (src->InverseCovD == nullptr)) {
    xk::report(XK_StsBadArg, kFunc, kBothOrNeither, kModule, 510);
    return nullptr;
  }
  if (src->flags & GAUSS_SERVER_FVR_W) {
    xk::report(XK_StsBadArg, kFunc, "flser->flags&GAUSS_SERVER_FVR_W", kModule, 515);
    return nullptr;
  }
  GaussMixServer *g = allocServer(false, src->InverseCov != nullptr, src->dim, src->nMix);
  if (g == nullptr) {
    xk::report(XK_StsNoMem, "XKsInitGaussMixServer", kNoMemPtr, kModule, 520);
    return nullptr;
  }
  const int scales[3] = {weightScale, meanScale, covScale};
  convertTables<float, short>(src, g, [&](float v, int which) {
    int sc = scales[which];
    return static_cast<short>(XKswConvertDown(v, XK_FIXED_SCALE, &sc));
  });
  g->flags = GAUSS_SERVER_FVR_W | (src->flags & ~(GAUSS_SERVER_FVR_S | kFilling));
  g->scale = covScale;
  g->count = src->count;
  return g;
}

extern "C" XKL_API GaussMixServer *XKwsConvertGaussMixServer(GaussMixServer *src, int weightScale, int meanScale,
                                                             int covScale) {
  static constexpr const char *kFunc = "XKwsConvertGaussMixfServer";
  if ((src->InverseCov == nullptr) == (src->InverseCovD == nullptr)) {
    xk::report(XK_StsBadArg, kFunc, kBothOrNeither, kModule, 610);
    return nullptr;
  }
  if (src->flags & GAUSS_SERVER_FVR_S) {
    xk::report(XK_StsBadArg, kFunc, "shser->flags&GAUSS_SERVER_FVR_S", kModule, 615);
    return nullptr;
  }
  const bool full = src->InverseCov != nullptr;
  const int dim = src->dim, nMix = src->nMix;
  GaussMixServer *g = allocServer(true, full, dim, nMix);
  if (g == nullptr) {
    xk::report(XK_StsNoMem, "XKsInitGaussMixServer", kNoMemPtr, kModule, 620);
    return nullptr;
  }
  const double unit[3] = {std::ldexp(1.0, weightScale), std::ldexp(1.0, meanScale), std::ldexp(1.0, covScale)};
  convertTables<short, float>(src, g, [&](short v, int which) { return static_cast<float>(v * unit[which]); });
  g->flags = GAUSS_SERVER_FVR_S | (src->flags & ~(GAUSS_SERVER_FVR_W | kFilling));
  g->scale = 0;
  g->count = src->count;
  std::memcpy(g->coefs, g->weights, sizeof(float) * static_cast<std::size_t>(nMix));
  if (src->flags & GAUSS_SERVER_NORM) {
    for (int m = 0; m < nMix; ++m) {
      double det = 1.0;
      if (full) {
        float **buf = scratchMatrix(dim);
        if (buf == nullptr) {
          std::free(g);
          xk::report(XK_StsNoMem, kFunc, kNoMemPtr2, kModule, 640);
          return nullptr;
        }
        for (int i = 0; i < dim; ++i)
          std::memcpy(buf[i], g->InverseCov[m][i], sizeof(float) * static_cast<std::size_t>(dim));
        det = determinant(buf, dim);
      } else {
        for (int i = 0; i < dim; ++i) det *= static_cast<const float *>(g->InverseCovD[m])[i];
      }
      g->coefs[m] = static_cast<float>(std::sqrt(std::fabs(det)) * g->coefs[m]);
    }
  }
  return g;
}
