// Autocorrelation of a float vector:
//   r[k] = sum_{i=0}^{len-1-k} src[i]*src[i+k], k < nLags,
// divided by len (type 1) or by len - k (type 2) afterwards.
//
// Direct route: double-accumulated sums, four lags per pass (SIMD when
// available). FFT route: the power spectrum of the signal zero-padded to a
// power of two P >= len + nLags - 1 (so no circular wrap reaches the lags
// asked for), transformed back. The FFT route is taken when its estimated
// cost is lower (see autoCorrPrefersFft); it needs three scratch buffers and
// silently falls back to the direct route when they or the FFT tables cannot
// be allocated.
#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "kernels/kfx_error.h"
#include "kernels/vec_internal.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define XKL_KFX_X86 1
#include <immintrin.h>
#endif

namespace kfx {
namespace {

std::atomic<AutoCorrRoute> routeOverride{AutoCorrRoute::ByCost};

// FFT route limit: larger paddings are summed directly.
constexpr int kMaxFftOrder = 28;  // 2^28 floats still fit kfxMalloc's int size

// Work per padded point and stage of the FFT route (two real FFTs, the power
// spectrum and the copies), in units of one multiply-add of the direct
// route. Measured with AVX2 on both routes, the break-even is about 2; 3
// leans toward the direct route, whose double sums are the more accurate
// input for linear prediction.
constexpr double kFftCostPerPointLog = 3.0;

int paddedOrder(int len, int nLags) {
  const std::int64_t need = static_cast<std::int64_t>(len) + nLags - 1;
  int order = 0;
  while ((std::int64_t{1} << order) < need) ++order;
  return order;
}

// Four lags k0..k0+3 in one pass: each x[i] is loaded once for the four
// products, which halves the loads per multiply-add against one dot product
// per lag. Lane layout (shared by both engines, so their sums are
// bit-identical): for lag j, lane 4u+l takes the elements i = 8t + 4u + l of
// the common range i < len-k0-3, lanes 0..3 the 4-wide remainder; then
// (lane l + lane 4+l), the pair tree, and the scalar tail in order.
void lagBlockPortable(const double *x, int len, int k0, double *r) {
  const int common = len - k0 - 3;
  double acc[4][8] = {};
  int i = 0;
  for (; i + 8 <= common; i += 8)
    for (int j = 0; j < 4; ++j)
      for (int l = 0; l < 8; ++l) acc[j][l] += x[i + l] * x[i + l + k0 + j];
  for (; i + 4 <= common; i += 4)
    for (int j = 0; j < 4; ++j)
      for (int l = 0; l < 4; ++l) acc[j][l] += x[i + l] * x[i + l + k0 + j];
  for (int j = 0; j < 4; ++j) {
    double lane[4];
    for (int l = 0; l < 4; ++l) lane[l] = acc[j][l] + acc[j][4 + l];
    double sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
    for (int t = i; t < len - k0 - j; ++t) sum += x[t] * x[t + k0 + j];
    r[k0 + j] = sum;
  }
}

#ifdef XKL_KFX_X86
__attribute__((target("avx2,fma"))) void lagBlockAvx2(const double *x, int len, int k0, double *r) {
  const int common = len - k0 - 3;
  __m256d lo[4], hi[4];
  for (int j = 0; j < 4; ++j) lo[j] = hi[j] = _mm256_setzero_pd();
  int i = 0;
  for (; i + 8 <= common; i += 8) {
    const __m256d x0 = _mm256_loadu_pd(x + i), x1 = _mm256_loadu_pd(x + i + 4);
    const double *y = x + i + k0;
    for (int j = 0; j < 4; ++j) {
      lo[j] = _mm256_fmadd_pd(x0, _mm256_loadu_pd(y + j), lo[j]);
      hi[j] = _mm256_fmadd_pd(x1, _mm256_loadu_pd(y + 4 + j), hi[j]);
    }
  }
  for (; i + 4 <= common; i += 4) {
    const __m256d x0 = _mm256_loadu_pd(x + i);
    for (int j = 0; j < 4; ++j) lo[j] = _mm256_fmadd_pd(x0, _mm256_loadu_pd(x + i + k0 + j), lo[j]);
  }
  for (int j = 0; j < 4; ++j) {
    alignas(32) double lane[4];
    _mm256_store_pd(lane, _mm256_add_pd(lo[j], hi[j]));
    double sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
    for (int t = i; t < len - k0 - j; ++t) sum += x[t] * x[t + k0 + j];
    r[k0 + j] = sum;
  }
}
#endif

void autoCorrDirect(const float *src, int len, int nLags, double *r) {
  // Widen once: the sums then load doubles directly. Every product of two
  // floats is exact in double, so widening changes no result.
  thread_local std::vector<double> wide;
  bool widened = false;
  try {
    if (wide.size() < static_cast<std::size_t>(len)) wide.resize(static_cast<std::size_t>(len));
    widened = true;
  } catch (...) {
  }
  if (!widened) {
    for (int k = 0; k < nLags; ++k) r[k] = dotProduct(src, src + k, len - k);
    return;
  }
  double *x = wide.data();
  for (int i = 0; i < len; ++i) x[i] = src[i];
  const bool simd = simdActive();
  int k = 0;
  for (; k + 4 <= nLags; k += 4) {
#ifdef XKL_KFX_X86
    if (simd) {
      lagBlockAvx2(x, len, k, r);
      continue;
    }
#endif
    lagBlockPortable(x, len, k, r);
  }
  (void)simd;
  for (; k < nLags; ++k) r[k] = dotProductDouble(x, x + k, len - k);
}

// False when memory or the FFT failed; r is then not written.
bool autoCorrByFft(const float *src, int len, int nLags, double *r) {
  const int order = paddedOrder(len, nLags);
  // Order 0 has no Nyquist slot in the spectrum layout; a single product is
  // summed directly anyway.
  if (order < 1 || order > kMaxFftOrder) return false;
  const int padded = 1 << order;
  const int bytes = padded * static_cast<int>(sizeof(float));
  float *in = static_cast<float *>(kfxMalloc(bytes));
  float *spec = static_cast<float *>(kfxMalloc(bytes));
  float *out = static_cast<float *>(kfxMalloc(bytes));
  bool ok = in != nullptr && spec != nullptr && out != nullptr;
  if (ok) {
    for (int i = 0; i < len; ++i) in[i] = src[i];
    for (int i = len; i < padded; ++i) in[i] = 0.0f;
    const int saved = kfxGetStatus();
    kfxSetStatus(KFX_StsOk);
    kfxsRealFftlNip(in, spec, order, KFX_Forward | KFX_RCPerm);
    ok = kfxGetStatus() >= 0;
    if (ok) {
      // RCPerm: spec[0] = Re0, spec[1] = Re(P/2), then (Re, Im) pairs.
      spec[0] *= spec[0];
      spec[1] *= spec[1];
      for (int i = 2; i < padded; i += 2) {
        spec[i] = spec[i] * spec[i] + spec[i + 1] * spec[i + 1];
        spec[i + 1] = 0.0f;
      }
      kfxsRealFftlNip(spec, out, order, KFX_Inverse | KFX_RCPerm);
      ok = kfxGetStatus() >= 0;
    }
    // A failure here is not the caller's: the direct route takes over.
    kfxSetStatus(saved);
    if (ok)
      for (int k = 0; k < nLags; ++k) r[k] = out[k];
  }
  kfxFree(in);
  kfxFree(spec);
  kfxFree(out);
  return ok;
}

bool overlaps(const float *src, int len, const float *dst, int nLags) {
  const std::less<const float *> before;
  return before(src, dst + nLags) && before(dst, src + len);
}

}  // namespace

void setAutoCorrRoute(AutoCorrRoute route) { routeOverride.store(route); }

// Direct: sum_{k<nLags} (len - k) multiply-adds. FFT: about
// kFftCostPerPointLog * P * log2(P) for the padded length P.
bool autoCorrPrefersFft(int len, int nLags) {
  const int order = paddedOrder(len, nLags);
  if (order < 2 || order > kMaxFftOrder) return false;
  const double direct = static_cast<double>(nLags) * len - 0.5 * static_cast<double>(nLags) * (nLags - 1);
  const double fft = kFftCostPerPointLog * static_cast<double>(std::int64_t{1} << order) * order;
  return fft < direct;
}

}  // namespace kfx

extern "C" {

void kfxsAutoCorr(const float *src, int len, float *dst, int nLags, int type) {
  using kfx::kModCorr;
  static constexpr const char *kFunc = "kfxsAutoCorr";
  if (src == nullptr) return (void)kfx::report(KFX_StsBadArg, kFunc, "Null SRC buffer pointer", kModCorr, __LINE__);
  if (dst == nullptr) return (void)kfx::report(KFX_StsBadArg, kFunc, "Null DST buffer pointer", kModCorr, __LINE__);
  if (len < 1) return (void)kfx::report(KFX_StsBadArg, kFunc, "Invalid SRC buffer length", kModCorr, __LINE__);
  if (nLags < 1 || nLags > len)
    return (void)kfx::report(KFX_StsBadArg, kFunc, "Invalid LAG value", kModCorr, __LINE__);
  if (type < KFX_AutoCorrNone || type > KFX_AutoCorrUnbiased)
    return (void)kfx::report(KFX_StsBadArg, kFunc, "Invalid auto-corr type", kModCorr, __LINE__);

  // The lags are gathered in double first, so dst may overlap src.
  thread_local std::vector<double> lags;
  try {
    if (lags.size() < static_cast<std::size_t>(nLags)) lags.resize(static_cast<std::size_t>(nLags));
  } catch (...) {
    if (kfx::overlaps(src, len, dst, nLags))
      return (void)kfx::report(KFX_StsNoMem, kFunc, "Not enough memory", kModCorr, __LINE__);
    // Without the buffer, sum each lag straight into dst (no overlap).
    for (int k = 0; k < nLags; ++k) {
      const double sum = kfx::dotProduct(src, src + k, len - k);
      const double divisor = type == KFX_AutoCorrBiased ? len : (type == KFX_AutoCorrUnbiased ? len - k : 1);
      dst[k] = static_cast<float>(sum / divisor);
    }
    return;
  }
  double *r = lags.data();

  const kfx::AutoCorrRoute pinned = kfx::routeOverride.load(std::memory_order_relaxed);
  const bool tryFft = pinned == kfx::AutoCorrRoute::Fft ||
                      (pinned == kfx::AutoCorrRoute::ByCost && kfx::autoCorrPrefersFft(len, nLags));
  if (!(tryFft && kfx::autoCorrByFft(src, len, nLags, r)))
    kfx::autoCorrDirect(src, len, nLags, r);

  for (int k = 0; k < nLags; ++k) {
    double value = r[k];
    if (type == KFX_AutoCorrBiased)
      value /= len;
    else if (type == KFX_AutoCorrUnbiased)
      value /= len - k;
    dst[k] = static_cast<float>(value);
  }
}

}  // extern "C"
