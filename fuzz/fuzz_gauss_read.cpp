// libFuzzer target of XKReadGaussMixServer: a server read must write back
// to a file that reads again into a server writing the same bytes, and must
// evaluate (and, for float servers, invert) without a fault.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "xkl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool silent = [] {
    XKSetErrMode(XK_ErrorModeSilent);
    return true;
  }();
  (void)silent;
  if (size == 0) return 0;
  XKSetStatus(XK_StsOk);
  FILE *in = fmemopen(const_cast<uint8_t *>(data), size, "rb");
  if (in == nullptr) return 0;
  GaussMixServer *g = XKReadGaussMixServer(in);
  std::fclose(in);
  if (g == nullptr) return 0;
  auto image = [](GaussMixServer *s) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&buf, &len);
    if (XKWriteGaussMixServer(mem, s) != 1) __builtin_trap();
    std::fclose(mem);
    std::vector<unsigned char> out(buf, buf + len);
    std::free(buf);
    return out;
  };
  const auto first = image(g);
  FILE *again = fmemopen(const_cast<unsigned char *>(first.data()), first.size(), "rb");
  GaussMixServer *h = XKReadGaussMixServer(again);
  std::fclose(again);
  if (h == nullptr || image(h) != first) __builtin_trap();
  if (g->dim <= 4096) {
    if (g->flags & GAUSS_SERVER_FVR_S) {
      std::vector<float> x(static_cast<size_t>(g->dim) + 1, 0.25f);
      (void)XKsEvalGaussMix(g, x.data(), g->dim);
      XKsFreeGaussMixServer(XKsInvertGaussianCovMatrix(g, GAUSS_SERVER_NORM));
    } else {
      std::vector<short> x(static_cast<size_t>(g->dim) + 1, 3);
      int factor = 0;
      (void)XKwEvalGaussMix(g, x.data(), g->dim, 2, &factor);
    }
  }
  XKsFreeGaussMixServer(h);
  XKsFreeGaussMixServer(g);
  XKFreeGaussTbls();
  return 0;
}
