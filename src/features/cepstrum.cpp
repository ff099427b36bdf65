// Mel-frequency cepstra of one frame (float and 16-bit), liftering, and the
// release of the cepstrum buffers.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "features/features_internal.h"
#include "xkl/xk_convert.h"

using xk::features::kModCeps;

namespace {

// Slots of the per-thread cepstrum buffers. Sizes: F = nFilters, N = fftLen.
enum Slot {
  kFilterOutput = 0,     // float F: filter outputs (float form)
  kFilterDctInput = 1,   // float F: spare DCT input
  kFilterDctOutput = 2,  // float F: DCT output (both forms)
  kFftOut = 3,           // float 2N + 2: spectrum, CCS layout, mirrored
  kWFftOut2 = 4,         // float N + 2: spectrum of the 16-bit form, mirrored
  kWFilterOutput = 5,    // float F: filter outputs (16-bit form)
  kWFilterDctOutput = 6, // short F: output of the 16-bit DCT
  kTempVect2 = 7,        // short F: filter outputs converted to 16 bits
  kWFftOut = 8,          // short N + 2: 16-bit FFT output, CCS layout
  kSlotCount = 11        // two slots are spare
};

constexpr float kLog10e = 0.4342945f;      // log10(e): natural log of a magnitude to log10
constexpr float kHalfLog10e = 0.2171472f;  // of a power: log10 of the magnitude

void releaseBuffers(xk::XKContext &ctx) {
  for (void *&b : ctx.ceps.buf) {
    xk::features::freeAligned(b);
    b = nullptr;
  }
  ctx.ceps.fftCap = ctx.ceps.filterCap = ctx.ceps.cepsCap = 0;
  xk::features::freeAligned(ctx.ceps.dctBasis);
  ctx.ceps.dctBasis = nullptr;
  ctx.ceps.dctLen = 0;
}

// Orthonormal DCT-II rows for n inputs, row k = w_k cos(pi k (2i+1) / 2n),
// kept per thread for the last n. Only the coefficients asked for are then
// computed (13 of 26, typically). Null when memory runs out.
const float *dctBasis(int n) {
  auto &c = xk::context().ceps;
  if (c.dctLen == n && c.dctBasis != nullptr) return c.dctBasis;
  xk::features::freeAligned(c.dctBasis);
  c.dctLen = 0;
  c.dctBasis = static_cast<float *>(xk::features::allocAligned(sizeof(float) * static_cast<size_t>(n) * n));
  if (c.dctBasis == nullptr) return nullptr;
  const long double pi = 3.14159265358979323846264338327950288L;
  for (int k = 0; k < n; ++k) {
    const long double w = std::sqrt((k == 0 ? 1.0L : 2.0L) / n);
    for (int i = 0; i < n; ++i) c.dctBasis[k * n + i] = static_cast<float>(w * std::cos(pi * k * (2 * i + 1) / (2.0L * n)));
  }
  c.dctLen = n;
  return c.dctBasis;
}

size_t slotBytes(Slot s, size_t n, size_t f) {
  switch (s) {
    case kFftOut: return sizeof(float) * (2 * n + 2);
    case kWFftOut2: return sizeof(float) * (n + 2);
    case kWFftOut: return sizeof(short) * (n + 2);
    case kWFilterDctOutput:
    case kTempVect2: return sizeof(short) * f;
    default: return sizeof(float) * f;
  }
}

// Makes the buffers of one flavour hold the sizes of this call. The buffers
// are kept while they are large enough (their content never carries over
// between calls); when one is too small or missing, all slots are released
// and this flavour's are allocated at the largest sizes seen so far.
int ensureBuffers(const XKMFCCFilters *f, int nCeps, const Slot *slots, const char *const *messages, int count,
                  const char *func) {
  auto &ctx = xk::context();
  auto &c = ctx.ceps;
  bool ok = f->fftLen <= c.fftCap && f->nFilters <= c.filterCap && nCeps <= c.cepsCap;
  for (int i = 0; ok && i < count; ++i) ok = c.buf[slots[i]] != nullptr;
  if (ok) return 0;
  const int fftCap = std::max(c.fftCap, f->fftLen), filterCap = std::max(c.filterCap, f->nFilters);
  const int cepsCap = std::max(c.cepsCap, nCeps);
  releaseBuffers(ctx);
  // A filter-sized buffer also holds the cepstra of this call.
  const size_t fSize = static_cast<size_t>(std::max(filterCap, cepsCap));
  for (int i = 0; i < count; ++i) {
    c.buf[slots[i]] = xk::features::allocAligned(slotBytes(slots[i], static_cast<size_t>(fftCap), fSize));
    if (c.buf[slots[i]] == nullptr) {
      xk::report(XK_StsNoMem, func, messages[i], kModCeps, __LINE__);
      releaseBuffers(ctx);
      return XK_StsNoMem;
    }
  }
  c.fftCap = fftCap;
  c.filterCap = filterCap;
  c.cepsCap = cepsCap;
  return 0;
}

float *fbuf(Slot s) { return static_cast<float *>(xk::context().ceps.buf[s]); }
short *wbuf(Slot s) { return static_cast<short *>(xk::context().ceps.buf[s]); }

// Number of leading bins that must be computed: all N/2 + 1, or only up to
// one past the bank's last bin when the bank stays below N/2 + 1.
int binsNeeded(const XKMFCCFilters *f) {
  const int half = f->fftLen / 2;
  if (f->firstBin < half + 1 && f->lastBin < half + 1) return std::min(f->lastBin + 2, half + 1);
  return half + 1;
}

// A bank that reaches beyond N/2 reads the upper half as the mirror image:
// spec[k] = spec[N - k] for k = N/2 + 1 .. N - 1. Written as a reverse copy:
// g++ 12.2 at -O1/-O2 compiles the plain indexed loop into one that writes
// nothing.
void mirrorIfNeeded(const XKMFCCFilters *f, float *spec) {
  const int n = f->fftLen, half = n / 2;
  if (f->firstBin < half + 1 && f->lastBin < half + 1) return;
  if (half >= 2) std::reverse_copy(spec + 1, spec + half, spec + half + 1);
}

// Moves Re[N/2] from position 1 (RCPerm) to N and zeroes the imaginary parts
// of bins 0 and N/2: N/2 + 1 complex values.
template <class T>
void permToCcs(T *v, int n) {
  if (n < 2) {
    v[1] = 0;
    return;
  }
  v[n] = v[1];
  v[1] = 0;
  v[n + 1] = 0;
}

// Orthonormal DCT-II of the nFilters log outputs, coefficients skip ..
// skip + nOut - 1 written to out[0..nOut-1]. Power-of-two banks use one
// real FFT of the even/odd reordered input and the record's twiddles; other
// banks the cached basis rows (or, without memory for them, the DCT kernel,
// `all` then holding all nFilters coefficients).
// Returns false after reporting a kernel failure.
bool cepstrumDct(XKMFCCFilters *f, const float *in, float *out, int nOut, int skip, float *all,
                 const char *func) {
  const int nf = f->nFilters;
  if (f->dctOrder != 0) {
    float *src = f->dctSrc;
    for (int j = 0; j < nf / 2; ++j) {
      src[j] = in[2 * j];
      src[nf / 2 + j] = in[nf - 1 - 2 * j];
    }
    kfxsRealFftlNip(src, f->dctOut, f->dctOrder, KFX_Forward | KFX_RCPerm);
    if (xk::features::kernelFailed()) {
      xk::backTrace(func, kModCeps, __LINE__);
      return false;
    }
    float *x = f->dctOut;
    permToCcs(x, nf);
    const float *tw = f->dctIn;
    for (int i = 0; i < nOut; ++i) {
      const int k = i + skip;
      if (k < nf / 2 + 1)
        out[i] = x[2 * k] * tw[2 * k] - x[2 * k + 1] * tw[2 * k + 1];
      else
        out[i] = x[2 * (nf - k)] * tw[2 * k] + x[2 * (nf - k) + 1] * tw[2 * k + 1];
    }
    return true;
  }
  if (const float *basis = dctBasis(nf); basis != nullptr) {
    if (nOut > 0) xk::features::weightedSums(basis + static_cast<size_t>(skip) * nf, nullptr, nf, nullptr, in, nOut, out);
    return true;
  }
  kfxsDct(in, all, nf, KFX_DCT_Forward);
  if (xk::features::kernelFailed()) {
    xk::backTrace(func, kModCeps, __LINE__);
    return false;
  }
  if (out != all + skip) std::memmove(out, all + skip, sizeof(float) * static_cast<size_t>(nOut > 0 ? nOut : 0));
  return true;
}

// Output count: nCeps, cut to the nFilters - skip coefficients that exist.
int outputCount(const XKMFCCFilters *f, int nCeps, int skip) {
  return nCeps + skip > f->nFilters ? f->nFilters - skip : nCeps;
}

// Steps after filtering shared by both flavours: in magnitude mode floor and
// natural logarithm of the filter outputs; then the factor to log10.
void finishFilterOutputs(float *out, int nf, int flags, float floor, float factor) {
  if (flags & XK_MFCC_MAGNITUDE) {
    if (flags & XK_MFCC_FLOOR) xk::features::floorInPlace(out, nf, floor);
    xk::features::lnInPlace(out, nf);
  }
  kfxsbMpy1(factor, out, nf);
}

}  // namespace

extern "C" {

XKL_API int XKsCepstralMFCC(XKMFCCFilters *filters, float *input, float *output, int nCeps, float floor, int flags) {
  static const Slot slots[] = {kFilterOutput, kFilterDctInput, kFilterDctOutput, kFftOut};
  static const char *const messages[] = {
      "insufficiency of memory for pointer  pXKcontext->Ceps.filterOutput",
      "insufficiency of memory for pointer  pXKcontext->Ceps.filterDctInput",
      "insufficiency of memory for pointer  pXKcontext->Ceps.filterDctOutput",
      "insufficiency of memory for pointer  pXKcontext->Ceps.fftOut"};
  constexpr const char *kFunc = "XKsCepstralMFCC";
  XKMFCCFilters *f = filters;
  const int skip = (flags & XK_MFCC_C0) ? 0 : 1;
  const int nOut = outputCount(f, nCeps, skip);
  if (int st = ensureBuffers(f, nCeps, slots, messages, 4, kFunc); st < 0) return st;
  const int n = f->fftLen, half = n / 2, need = binsNeeded(f);
  float *spec = fbuf(kFftOut);
  float factor = kLog10e;
  xk::features::clearKernelStatus();
  if (flags & XK_MFCC_TIME) {
    kfxsRealFftlNip(input, spec, f->order, KFX_Forward | KFX_RCPerm);
    if (xk::features::kernelFailed()) {
      xk::backTrace(kFunc, kModCeps, __LINE__);
      return kfxGetStatus();
    }
    permToCcs(spec, n);
    if (flags & XK_MFCC_MAGNITUDE) {
      xk::features::powerInPlace(spec, half + 1);
      xk::features::sqrtInPlace(spec, half + 1);
    } else {
      xk::features::logPowerInPlace(spec, need, flags & XK_MFCC_FLOOR, floor);
      factor = kHalfLog10e;
    }
  } else {
    // The caller's spectrum is floored and replaced by its logarithm.
    if (!(flags & XK_MFCC_MAGNITUDE)) {
      if (flags & XK_MFCC_FLOOR) xk::features::floorInPlace(input, half + 1, floor);
      xk::features::lnInPlace(input, need);
    }
    std::memcpy(spec, input, sizeof(float) * static_cast<size_t>(half + 1));
  }
  float *fo = fbuf(kFilterOutput);
  mirrorIfNeeded(f, spec);
  XKsMelFiltering(f, spec, fo);
  finishFilterOutputs(fo, f->nFilters, flags, floor, factor);
  float *dctAll = fbuf(kFilterDctOutput);
  if (!cepstrumDct(f, fo, output, nOut, skip, dctAll, kFunc)) return kfxGetStatus();
  for (int i = nOut > 0 ? nOut : 0; i < nCeps; ++i) output[i] = 0.0f;
  const int st = kfxGetStatus();
  if (st < 0) xk::backTrace(kFunc, kModCeps, __LINE__);
  return st;
}

XKL_API int XKwCepstralMFCC(XKMFCCFilters *filters, const short *input, short *output, int nCeps, int floor,
                            int flags, int inScale, int outMode, int *outScale) {
  static const Slot slots[] = {kWFftOut2, kWFilterOutput, kWFilterDctOutput, kTempVect2, kFilterDctOutput, kWFftOut};
  static const char *const messages[] = {
      "insufficiency of memory for pointer  pXKcontext->Ceps.wfftOut_2",
      "insufficiency of memory for pointer  pXKcontext->Ceps.wfilterOutput",
      "insufficiency of memory for pointer  pXKcontext->Ceps.wfilterDctOutput",
      "insufficiency of memory for pointer  pXKcontext->Ceps.tempVect_2",
      "insufficiency of memory for pointer  pXKcontext->Ceps.filterDctOutput",
      "insufficiency of memory for pointer  pXKcontext->Ceps.wfftOut"};
  constexpr const char *kFunc = "XKwCepstralMFCC";
  int localScale = 0;
  if (outScale == nullptr) outScale = &localScale;
  XKMFCCFilters *f = filters;
  const int skip = (flags & XK_MFCC_C0) ? 0 : 1;
  const int nOut = outputCount(f, nCeps, skip);
  if (int st = ensureBuffers(f, nCeps, slots, messages, 6, kFunc); st < 0) return st;
  const int n = f->fftLen, half = n / 2, need = binsNeeded(f);
  float *spec = fbuf(kWFftOut2);
  float factor = kLog10e;
  // Inputs and floor are scaled integers: x = w * 2^-inScale.
  const float floorF = static_cast<float>(std::ldexp(static_cast<double>(floor), -inScale));
  xk::features::clearKernelStatus();
  if (flags & XK_MFCC_TIME) {
    // The transform returns X / 2^(order-1), which cannot overflow 16 bits
    // for a sine; the power rule below multiplies that factor back in for
    // flags 1 and 5 (exactly those two: the other flag words keep their own
    // scale).
    const int e = (flags == 1 || flags == 5) ? 2 * f->order - 2 * inScale - 2 : -f->order - inScale;
    const float pw = static_cast<float>(std::ldexp(1.0, e));
    int fftShift = f->order - 1;
    short *w = wbuf(kWFftOut);
    kfxwRealFftlNip(input, w, f->order, KFX_Forward | KFX_RCPerm | KFX_IntegerFft, KFX_FIXED_SCALE, &fftShift);
    if (xk::features::kernelFailed()) {
      xk::backTrace(kFunc, kModCeps, __LINE__);
      return kfxGetStatus();
    }
    permToCcs(w, n);
    for (int k = 0; k < need; ++k) {
      const std::int64_t re = w[2 * k], im = w[2 * k + 1];
      spec[k] = static_cast<float>(re * re + im * im) * pw;
    }
    if (flags & XK_MFCC_MAGNITUDE) {
      kfxsbSqrt1(spec, need);
    } else {
      if (flags & XK_MFCC_FLOOR) xk::features::floorInPlace(spec, need, floorF);
      xk::features::lnInPlace(spec, need);
      factor = kHalfLog10e;
    }
  } else {
    XKwsbConvertUp(input, spec, half + 1, inScale);
    if (!(flags & XK_MFCC_MAGNITUDE)) {
      if (flags & XK_MFCC_FLOOR) xk::features::floorInPlace(spec, half + 1, floorF);
      xk::features::lnInPlace(spec, need);
    }
  }
  float *fo = fbuf(kWFilterOutput);
  mirrorIfNeeded(f, spec);
  XKsMelFiltering(f, spec, fo);
  finishFilterOutputs(fo, f->nFilters, flags, floorF, factor);
  float *dctAll = fbuf(kFilterDctOutput);
  const int count = nOut > 0 ? nOut : 0;
  if (f->dctOrder != 0 || outMode == XK_NO_SCALE || outMode == XK_FIXED_SCALE) {
    // The FFT-based DCT reports under the float function's name.
    if (!cepstrumDct(f, fo, dctAll, count, skip, dctAll, f->dctOrder != 0 ? "XKsCepstralMFCC" : kFunc))
      return kfxGetStatus();
    XKswbConvertDown(dctAll, output, count, outMode, outScale);
  } else {
    // 16-bit DCT of the converted filter outputs. With automatic scaling
    // the DCT may grow values by sqrt(nFilters); its own automatic shift
    // keeps them in range and is added to the reported scale.
    short *wIn = wbuf(kTempVect2), *wOut = wbuf(kWFilterDctOutput);
    XKswbConvertDown(fo, wIn, f->nFilters, outMode, outScale);
    int extra = 0;
    kfxwDct(wIn, wOut, f->nFilters, outMode == XK_AUTO_SCALE ? KFX_AUTO_SCALE : 0, &extra);
    if (xk::features::kernelFailed()) {
      xk::backTrace(kFunc, kModCeps, __LINE__);
      return kfxGetStatus();
    }
    if (outMode == XK_AUTO_SCALE) *outScale += extra;
    std::memcpy(output, wOut + skip, sizeof(short) * static_cast<size_t>(count));
  }
  for (int i = count; i < nCeps; ++i) output[i] = 0;
  const int st = kfxGetStatus();
  if (st < 0) xk::backTrace(kFunc, kModCeps, __LINE__);
  return st;
}

XKL_API void XKsLiftering(float *ceps, int n, int L) {
  // L = 0 would divide by zero; no lifter is then applied.
  if (ceps == nullptr || L == 0 || n <= 0) return;
  // The weights of the last L are kept per thread: a front end lifters every
  // frame with the same L, and the sines would cost more than the rest.
  thread_local int cachedL = 0;
  thread_local std::vector<double> weights;
  if (cachedL != L || weights.size() < static_cast<size_t>(n)) {
    const size_t have = cachedL == L ? weights.size() : 0;
    weights.resize(std::max(weights.size(), static_cast<size_t>(n)));
    for (size_t i = have; i < weights.size(); ++i) weights[i] = xk::features::lifterWeight(L, static_cast<int>(i));
    cachedL = L;
  }
  for (int i = 0; i < n; ++i) ceps[i] = static_cast<float>(ceps[i] * weights[static_cast<size_t>(i)]);
}

XKL_API void XKwLiftering(short *ceps, int n, int L) {
  if (ceps == nullptr || n < 1) return;
  float *buf = static_cast<float *>(std::malloc(sizeof(float) * static_cast<size_t>(n)));
  if (buf == nullptr) return;  // nothing is reported: the cepstrum stays as it was
  XKwsbConvertUp(ceps, buf, n, 0);
  XKsLiftering(buf, n, L);
  XKswbConvertDown(buf, ceps, n, XK_FIXED_SCALE, nullptr);
  std::free(buf);
}

XKL_API void XKFreeCepsTbls(void) {
  kfxFreeBitRevTbls();
  kfxFreeTwdTbls();
  kfxFreeIntTwdTbls();
  releaseBuffers(xk::context());
  kfxsDct(nullptr, nullptr, 0, KFX_DCT_Free);
  // The 16-bit DCT keeps its tables per thread; they go with the thread.
}

}  // extern "C"
