// Mel filter banks: design (triangular, area-normalised filters on the mel
// scale, optionally after a group spaced linearly in hertz), filtering, and
// release.
#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "features/features_internal.h"
#include "kernels/vec_internal.h"

using xk::features::kModCeps;

namespace {

constexpr long double kPi = 3.14159265358979323846264338327950288L;

struct MelScale {
  long double mul, div;
  long double mel(long double f) const { return mul * std::log10(1.0L + f / div); }
  long double hz(long double m) const { return div * (std::pow(10.0L, m / mul) - 1.0L); }
};

struct Edges {
  double left, centre, right;
};

// Left, centre and right edge of every filter, in hertz.
std::vector<Edges> filterEdges(const MelScale &ms, int nFilters, int lowFreq, int highFreq, int nLin,
                               int linearFreq) {
  std::vector<Edges> e(static_cast<size_t>(nFilters));
  auto melGroup = [&](int first, long double melLow) {
    const int count = nFilters - first;
    const long double step = (ms.mel(highFreq) - melLow) / (0.5L * count + 0.5L);
    for (int i = first; i < nFilters; ++i) {
      const long double start = melLow + (i - first) * step / 2;
      e[i] = {static_cast<double>(ms.hz(start)), static_cast<double>(ms.hz(melLow + (i - first + 1) * step / 2)),
              static_cast<double>(ms.hz(start + step))};
    }
  };
  if (nLin < 1 || linearFreq <= lowFreq) {
    melGroup(0, ms.mel(lowFreq));
    return e;
  }
  const double width = (linearFreq - lowFreq) * 2.0 / nLin, half = width / 2;
  for (int i = 0; i + 1 < nLin; ++i) {
    const double left = lowFreq + i * half;
    e[i] = {left, left + half, left + width};
  }
  // The last linear filter reaches up to the first mel filter's centre.
  const double left = lowFreq + (nLin - 1) * half;
  const long double step = (ms.mel(highFreq) - ms.mel(linearFreq)) / ((nFilters - nLin) * 0.5L + 0.5L);
  const double right = static_cast<double>(ms.hz(ms.mel(left + half) + 0.5L * step));
  e[nLin - 1] = {left, (left + right) * 0.5, right};
  if (nLin < nFilters) melGroup(nLin, ms.mel(linearFreq));
  return e;
}

template <class T>
T *allocOrReport(size_t count, const char *what) {
  T *p = static_cast<T *>(std::calloc(count > 0 ? count : 1, sizeof(T)));
  if (p == nullptr) xk::report(XK_StsNoMem, "XKsMFCCInit", what, kModCeps, __LINE__);
  return p;
}

void freeRecord(XKMFCCFilters *f, bool withDct) {
  std::free(f->FilWeight);
  std::free(f->FilLength);
  std::free(f->disFft);
  std::free(f->adrFft);
  if (withDct) {
    std::free(f->dctSrc);
    std::free(f->dctIn);
    std::free(f->dctOut);
  }
  std::free(f);
}

}  // namespace

extern "C" {

XKL_API void XKSetMelScale(float melMul, float melDiv) {
  auto &c = xk::context().ceps;
  c.melMul = melMul;
  c.melDiv = melDiv;
}

XKL_API XKMFCCFilters *XKsMFCCInit(int order, int nFilters, int lowFreq, int highFreq, int sampleFreq,
                                   int nLinear, int linearFreq) {
  auto &cc = xk::context().ceps;
  // Only the divisor decides whether the scale was set.
  if (cc.melDiv == 0.0f) {
    cc.melMul = 2595.0f;
    cc.melDiv = 700.0f;
  }
  if (order < 0 || order > 30 || nFilters < 1) {
    // Nothing sensible can be built; report like a failed allocation.
    xk::report(XK_StsNoMem, "XKsMFCCInit", "insufficiency of memory for pointer  filters", kModCeps, __LINE__);
    return nullptr;
  }
  const MelScale ms{cc.melMul, cc.melDiv};
  const int n = 1 << order;
  const int nLin = nLinear < nFilters ? nLinear : nFilters;
  const bool linearGroup = !(nLin < 1 || linearFreq <= lowFreq);
  const size_t nf = static_cast<size_t>(nFilters);

  auto *f = allocOrReport<XKMFCCFilters>(1, "insufficiency of memory for pointer  filters");
  if (f == nullptr) return nullptr;
  // Every later failure releases what was built so far.
  auto fail = [&]() -> XKMFCCFilters * {
    freeRecord(f, true);
    return nullptr;
  };
  f->dctIn = allocOrReport<float>(2 * nf, "insufficiency of memory for pointer  filters->dctIn");
  if (f->dctIn == nullptr) return fail();
  f->dctSrc = allocOrReport<float>(nf, "insufficiency of memory for pointer  filters->dctSrc");
  if (f->dctSrc == nullptr) return fail();
  f->dctOut = allocOrReport<float>(2 * nf + 2, "insufficiency of memory for pointer  filters->dctOut");
  if (f->dctOut == nullptr) return fail();

  const long double w0 = std::sqrt(1.0L / nFilters), wk = std::sqrt(2.0L / nFilters);
  f->dctIn[0] = static_cast<float>(w0);
  f->dctIn[1] = -0.0f;
  for (int k = 1; k < nFilters; ++k) {
    const long double a = kPi * k / (2.0L * nFilters);
    f->dctIn[2 * k] = static_cast<float>(wk * std::cos(a));
    f->dctIn[2 * k + 1] = static_cast<float>(-wk * std::sin(a));
  }
  f->FilLength = allocOrReport<int>(nf, "insufficiency of memory for pointer  filters->FilLength");
  if (f->FilLength == nullptr) return fail();
  for (int i = 0; i < nFilters; ++i) f->FilLength[i] = -1;
  f->nFilters = nFilters;
  f->order = order;
  f->fftLen = n;
  f->dctOrder = 0;
  if ((nFilters & (nFilters - 1)) == 0)
    while ((1 << (f->dctOrder + 1)) <= nFilters) ++f->dctOrder;

  const std::vector<Edges> edges = filterEdges(ms, nFilters, lowFreq, highFreq, nLin, linearFreq);
  // Bin k lies at k fs / (N - 1) Hz and all N bins are scanned.
  const double df = static_cast<double>(sampleFreq) / (n - 1);
  auto binFreq = [&](int k) { return k * df; };

  // The leading filters that are no wider than the widest linear one (and
  // than four bins past the linear group) share one weight count, so the
  // filtering loop for them has a fixed length.
  int fixedLen = 0, nFixed = 0;
  if (linearGroup) {
    for (int i = 0; i < nFilters; ++i) {
      int count = 0;
      for (int k = 0; k < n; ++k) {
        const double fk = binFreq(k);
        if (fk >= edges[i].right) break;
        if (fk >= edges[i].left) ++count;
      }
      if (i < nLin) {
        if (count > fixedLen) fixedLen = count;
      } else if (count > fixedLen || fixedLen > 4) {
        break;
      }
      ++nFixed;
    }
  }

  // Weights, filter after filter.
  std::vector<float> weights;
  weights.reserve(static_cast<size_t>(nFixed) * fixedLen + 2 * static_cast<size_t>(n));
  std::vector<int> dis(nf, 0), len(nf, -1);
  int firstBin = -1, lastBin = 0;
  auto useBin = [&](int k) {
    if (firstBin < 0) firstBin = k;
    if (k > lastBin) lastBin = k;
  };
  for (int i = 0; i < nFilters; ++i) {
    const Edges &e = edges[i];
    const size_t start = weights.size();
    int inside = 0, below = 0, beyond = n - 1;
    for (int k = 0; k < n; ++k) {
      const double fk = binFreq(k);
      if (fk >= e.right) {
        beyond = k;
        break;
      }
      if (fk < e.left) {
        below = k;
        continue;
      }
      if (inside == 0) dis[i] = k;
      ++inside;
      useBin(k);
      weights.push_back(static_cast<float>(fk <= e.centre ? (fk - e.left) / (e.centre - e.left)
                                                          : (fk - e.right) / (e.centre - e.right)));
    }
    const bool fixed = i < nFixed && fixedLen > 0;
    if (fixed) {
      if (inside == 0) {
        dis[i] = i > 0 ? dis[i - 1] : 0;
        weights.push_back(1.0f);
        ++inside;
      }
      len[i] = fixedLen;
      // The zero padding is read by the filtering loop too, so the bins it
      // covers count as used: callers then provide (and the cepstrum
      // computes) every value the loop reads.
      const int padEnd = dis[i] + fixedLen - 1;
      useBin(padEnd < n ? padEnd : n - 1);
    } else if (inside > 0) {
      len[i] = inside;
    }
    double sum = 0.0;
    for (size_t j = start; j < weights.size(); ++j) sum += weights[j];
    if (sum != 0.0)
      for (size_t j = start; j < weights.size(); ++j) weights[j] = static_cast<float>(weights[j] / sum);
    if (fixed) {
      weights.resize(start + static_cast<size_t>(fixedLen), 0.0f);
    } else if (inside == 0) {
      // Narrower than a bin: one weight 1 at the bin nearest the centre.
      const int k = (e.centre - below * df <= beyond * df - e.centre) ? below : beyond;
      dis[i] = k;
      len[i] = 1;
      weights.push_back(1.0f);
      useBin(k);
    }
  }

  const size_t weightCount = std::max(weights.size(), static_cast<size_t>(nFixed) * fixedLen + 2 * static_cast<size_t>(n));
  f->FilWeight = allocOrReport<float>(weightCount, "insufficiency of memory for pointer  filters->FilWeight");
  if (f->FilWeight == nullptr) return fail();
  f->disFft = allocOrReport<int>(nf, "insufficiency of memory for pointer  filters->disFft");
  if (f->disFft == nullptr) return fail();
  f->adrFft = allocOrReport<float *>(nf, "insufficiency of memory for pointer  filters->adrFft");
  if (f->adrFft == nullptr) return fail();
  std::copy(weights.begin(), weights.end(), f->FilWeight);
  std::copy(dis.begin(), dis.end(), f->disFft);
  std::copy(len.begin(), len.end(), f->FilLength);
  f->firstBin = firstBin;
  f->lastBin = lastBin;
  f->fixedLen = fixedLen;
  f->nFixed = fixedLen == 0 ? 0 : nFixed;
  return f;
}

XKL_API XKMFCCFilters *XKwMFCCInit(int order, int nFilters, int lowFreq, int highFreq, int sampleFreq, int nLinear,
                                   int linearFreq) {
  XKMFCCFilters *f = XKsMFCCInit(order, nFilters, lowFreq, highFreq, sampleFreq, nLinear, linearFreq);
  if (XKGetStatus() < 0) {
    xk::backTrace("XKwMFCCInit", kModCeps, __LINE__);
    XKsFreeMFCCFilters(f);  // a failure left standing from earlier: do not leak the bank
    return nullptr;
  }
  return f;
}

XKL_API void XKsMelFiltering(XKMFCCFilters *filters, const float *spectrum, float *output) {
  XKMFCCFilters *f = filters;
  for (int i = f->nFilters - 1; i >= 0; --i) f->adrFft[i] = const_cast<float *>(spectrum) + f->disFft[i];
  const float *w = f->FilWeight;
  int i = 0;
  for (; i < f->nFixed; ++i, w += f->fixedLen)
    output[i] = static_cast<float>(kfx::dotProduct(w, f->adrFft[i], f->fixedLen));
  for (; i < f->nFilters; ++i) {
    const int len = f->FilLength[i];
    output[i] = len > 0 ? static_cast<float>(kfx::dotProduct(w, f->adrFft[i], len)) : 0.0f;
    if (len > 0) w += len;
  }
}

XKL_API void XKsFreeMFCCFilters(XKMFCCFilters *filters) {
  if (filters != nullptr) freeRecord(filters, true);
}

XKL_API void XKwFreeMFCCFilters(XKMFCCFilters *filters) {
  // The DCT arrays stay allocated, as applications of this function expect.
  if (filters != nullptr) freeRecord(filters, false);
}

}  // extern "C"
