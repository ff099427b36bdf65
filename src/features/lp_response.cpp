// Amplitude response gain / |A(w)| of an all-pole model at M = 2^order
// frequencies, by direct evaluation for few coefficients and by a real FFT
// of length 2M for many.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "features/features_internal.h"
#include "xkl/xk_convert.h"

using xk::features::kModLpspe;

namespace {

// Context slots of the LP-spectrum buffers (the sixth is never used).
enum Slot { kSBuffer = 0, kSTwiddle = 1, kWBuffer = 2, kWTwiddle = 3, kWFloat = 4 };

// Largest p evaluated directly, by order; higher orders use the last entry.
constexpr int kFloatLimit[18] = {0, 1, 3, 6, 6, 7, 7, 7, 7, 7, 10, 11, 14, 18, 20, 20, 20, 20};
constexpr int kFloatLimitHigh = 21;
int floatLimit(int order) { return order < 18 ? kFloatLimit[order] : kFloatLimitHigh; }
int fixedLimit(int order) { return order < 3 ? (order == 0 ? 0 : (order == 1 ? 1 : 3)) : 21; }

constexpr int kMaxOrder = 30;

// Makes slot `s` hold at least `bytes`, rebuilt whenever `key` differs from
// the key it was built for (grow-only when growOnly). Returns null after
// reporting when memory runs out.
void *slotFor(Slot s, int key0, int key1, bool growOnly, size_t bytes, const char *func, const char *message,
              bool *rebuilt) {
  auto &ls = xk::context().preemphLpSpec;
  const bool fits = ls.slot[s] != nullptr &&
                    (growOnly ? key0 <= ls.slotKey[s][0] : (key0 == ls.slotKey[s][0] && key1 == ls.slotKey[s][1]));
  *rebuilt = false;
  if (fits) return ls.slot[s];
  xk::features::freeAligned(ls.slot[s]);
  ls.slot[s] = nullptr;
  ls.slotKey[s][0] = ls.slotKey[s][1] = 0;
  ls.slot[s] = xk::features::allocAligned(bytes);
  if (ls.slot[s] == nullptr) {
    xk::report(XK_StsNoMem, func, message, kModLpspe, __LINE__);
    return nullptr;
  }
  ls.slotKey[s][0] = key0;
  ls.slotKey[s][1] = key1;
  *rebuilt = true;
  return ls.slot[s];
}

size_t pairBytes(int order, int entries, size_t elem) {
  return (static_cast<size_t>(1) << order) * static_cast<size_t>(entries > 0 ? entries : 1) * 2 * elem;
}

// Turns |A| into gain / |A| (a zero |A| leaves the kernel's zero-element
// report and the values unchanged).
// Twiddle row k holds (cos, -sin) of j k pi / M for j = 1..limit, computed
// in extended precision and stored by `store` (float, or 16-bit fixed point).
template <class T, class Store>
void fillTwiddles(T *tw, int m, int limit, Store store) {
  for (int k = 0; k < m; ++k)
    for (int j = 1; j <= limit; ++j) {
      const long double w = static_cast<long double>(j) * k * 3.14159265358979323846264338327950288L / m;
      tw[2 * (k * limit + j - 1)] = store(std::cos(w));
      tw[2 * (k * limit + j - 1) + 1] = store(-std::sin(w));
    }
}

void reciprocalTimesGain(float *spec, int m, float gain) {
  kfxsbInvThresh1(spec, m, 0.0f);
  kfxsbMpy1(gain, spec, m);
}

}  // namespace

extern "C" {

XKL_API void XKsLPSpectrum(const float *lpc, int p, float *spec, int order, float gain) {
  if (order < 0 || order > kMaxOrder || spec == nullptr || p < 0) return;
  const int m = 1 << order;
  const int limit = floatLimit(order);
  xk::features::clearKernelStatus();
  bool rebuilt;
  if (p > limit) {
    auto *buf = static_cast<float *>(slotFor(kSBuffer, order, 0, true, sizeof(float) * 2 * m, "XKsLPSpectrum",
                                             "insufficiency of memory for pointer  pXKContext->LP.sLPBuffer",
                                             &rebuilt));
    if (buf == nullptr) return;
    // A(w_k) only sees the coefficients modulo 2M, so a p beyond the buffer
    // folds onto it without changing the values.
    std::memset(buf, 0, sizeof(float) * 2 * m);
    buf[0] = -1.0f;
    for (int j = 1; j <= p; ++j) buf[j % (2 * m)] += lpc[j - 1];
    kfxsRealFftl(buf, order + 1, KFX_Forward | KFX_RCPerm);
    if (xk::features::kernelFailed()) {
      xk::backTrace("XKsLPSpectrum", kModLpspe, __LINE__);
      return;
    }
    spec[0] = std::fabs(buf[0]);
    for (int k = 1; k < m; ++k) spec[k] = buf[2 * k] * buf[2 * k] + buf[2 * k + 1] * buf[2 * k + 1];
    if (m > 1) kfxsbSqrt2(spec + 1, spec + 1, m - 1);
  } else {
    auto *tw = static_cast<float *>(slotFor(kSTwiddle, order, p, false, pairBytes(order, limit, sizeof(float)),
                                            "XKsLPSpectrum",
                                            "insufficiency of memory for pointer  pXKContext->LP.sLPTwiddle",
                                            &rebuilt));
    if (tw == nullptr) return;
    if (rebuilt) fillTwiddles(tw, m, limit, [](long double v) { return static_cast<float>(v); });
    for (int k = 0; k < m; ++k) {
      long double re = 1.0L, im = 0.0L;
      const float *row = tw + 2 * k * limit;
      for (int j = 0; j < p; ++j) {
        re -= static_cast<long double>(lpc[j]) * row[2 * j];
        im += static_cast<long double>(lpc[j]) * row[2 * j + 1];
      }
      spec[k] = static_cast<float>(re * re + im * im);
    }
    kfxsbSqrt1(spec, m);
  }
  reciprocalTimesGain(spec, m, gain);
}

XKL_API void XKwLPSpectrum(const short *lpc, int p, short *spec, int order, int gain, int inScale, int outMode,
                           int *outScale) {
  int localScale = 0;
  if (outScale == nullptr) outScale = &localScale;
  if (order < 0 || order > kMaxOrder || spec == nullptr || p < 0) return;
  const int m = 1 << order;
  const int limit = fixedLimit(order);
  const float gainF = static_cast<float>(std::ldexp(static_cast<double>(gain), -inScale));
  xk::features::clearKernelStatus();
  bool rebuilt;
  auto *sf = static_cast<float *>(slotFor(kWFloat, order, 0, true, sizeof(float) * 2 * m, "XKwLPSpectrum",
                                          "insufficiency of memory for pointer  pXKContext->LP.wMMXLPBuffer",
                                          &rebuilt));
  if (sf == nullptr) return;
  if (p > limit) {
    auto *buf = static_cast<short *>(slotFor(kWBuffer, order, 0, true, sizeof(short) * 2 * m, "XKwLPSpectrum",
                                             "insufficiency of memory for pointer  pXKContext->LP.wLPBuffer",
                                             &rebuilt));
    if (buf == nullptr) return;
    // Element 0 is the leading 1 of A, -2^-inScale in the coefficients'
    // scale; with inScale >= 1 that is not a whole number and element 0 keeps
    // what the buffer held (zero in a fresh buffer, else the last transform's
    // first value).
    if (inScale < 1) buf[0] = static_cast<short>(-(std::int64_t{1} << (inScale < -40 ? 40 : -inScale)));
    std::memset(buf + 1, 0, sizeof(short) * (2 * m - 1));
    for (int j = 1; j <= p; ++j) {
      const int at = j % (2 * m);
      buf[at] = static_cast<short>(static_cast<std::uint16_t>(buf[at] + lpc[j - 1]));
    }
    kfxwRealFftl(buf, order + 1, KFX_Forward | KFX_RCPerm | KFX_IntegerFft, 0, nullptr);
    if (xk::features::kernelFailed()) {
      xk::backTrace("XKwLPSpectrum", kModLpspe, __LINE__);
      return;
    }
    sf[0] = static_cast<float>(std::abs(static_cast<int>(buf[0])));
    for (int k = 1; k < m; ++k) {
      const std::int64_t re = buf[2 * k], im = buf[2 * k + 1];
      sf[k] = static_cast<float>(re * re + im * im);
    }
    if (m > 1) kfxsbSqrt1(sf + 1, m - 1);
  } else {
    auto *tw = static_cast<short *>(slotFor(kWTwiddle, order, p, false, pairBytes(order, limit, sizeof(short)),
                                            "XKwLPSpectrum",
                                            "insufficiency of memory for pointer  pXKContext->LP.wLPTwiddle",
                                            &rebuilt));
    if (tw == nullptr) return;
    // 14 fraction bits, rounded.
    if (rebuilt)
      fillTwiddles(tw, m, limit, [](long double v) { return static_cast<short>(std::lround(v * 16384.0L)); });
    // 32-bit accumulators that wrap like the machine's registers.
    const std::uint32_t one = (14 - inScale >= 0 && 14 - inScale < 32) ? (std::uint32_t{1} << (14 - inScale)) : 0u;
    for (int k = 0; k < m; ++k) {
      std::uint32_t re = one, im = 0;
      const short *row = tw + 2 * k * limit;
      for (int j = 0; j < p; ++j) {
        re -= static_cast<std::uint32_t>(static_cast<std::int32_t>(lpc[j]) * row[2 * j]);
        im += static_cast<std::uint32_t>(static_cast<std::int32_t>(lpc[j]) * row[2 * j + 1]);
      }
      const double r = static_cast<std::int32_t>(re), i = static_cast<std::int32_t>(im);
      sf[k] = static_cast<float>((r * r + i * i) * 0x1p-28);
    }
    kfxsbSqrt1(sf, m);
  }
  reciprocalTimesGain(sf, m, gainF);
  XKswbConvertDown(sf, spec, m, outMode, outScale);
}

}  // extern "C"
