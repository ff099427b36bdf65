// Orthonormal DCT-II (forward) and DCT-III (inverse) of float vectors.
//
//   forward  X[k] = w_k * sum_i x[i] * cos(pi*k*(2i+1)/(2N)),
//   inverse  x[i] = sum_k w_k * X[k] * cos(pi*k*(2i+1)/(2N)),
//   w_0 = 1/sqrt(N), w_k = sqrt(2/N) for k >= 1.
//
// Three routes, each with a table cached per length:
//   - N a power of two (N >= 2): one real FFT of N points on the reordered
//     input v[i] = x[2i], v[N-1-i] = x[2i+1]; then X[k] = w_k * Re(e^{-i*pi*k/(2N)} V[k]).
//     The table holds w_k*cos(pi*k/(2N)) and w_k*sin(pi*k/(2N)), k < N/2.
//     The inverse runs the same steps backwards through the inverse FFT.
//   - other N up to kMatrixMaxLen: the N x N weighted cosine matrix and its
//     transpose, so both directions are dot products with double sums.
//   - larger N: a table of cos(pi*m/(2N)), m < 4N, indexed modulo 4N.
// The tables live in one process-wide list that is only ever prepended to
// with a compare-and-swap, so concurrent first use is safe and lookups take
// no lock; flag 8 releases them (not while another thread transforms).
#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <new>
#include <vector>

#include "kernels/kfx_error.h"
#include "kernels/vec_internal.h"

namespace kfx {
namespace {

constexpr int kMatrixMaxLen = 512;
constexpr long double kPi = 3.141592653589793238462643383279502884L;

enum class DctRoute { Fft, Matrix, Cosine };

struct DctTable {
  int len = 0;
  DctRoute route = DctRoute::Fft;
  // Fft: pairs (w*cos, w*sin) for k = 0..N/2-1, 2*(N/2) floats.
  // Matrix: N*N forward rows M[k][i] followed by the N*N transpose.
  float *coef = nullptr;
  // Cosine: cos(pi*m/(2N)), m < 4N.
  double *cosine = nullptr;
  DctTable *next = nullptr;
};

std::atomic<DctTable *> tableList{nullptr};

DctRoute routeFor(int len) {
  if (len >= 2 && (len & (len - 1)) == 0) return DctRoute::Fft;
  return len <= kMatrixMaxLen ? DctRoute::Matrix : DctRoute::Cosine;
}

void destroy(DctTable *t) {
  delete[] t->coef;
  delete[] t->cosine;
  delete t;
}

// cos(pi*m/(2N)) with m reduced modulo 4N first, computed in long double.
double cosQuarter(std::int64_t m, int len) {
  const std::int64_t period = 4 * static_cast<std::int64_t>(len);
  m %= period;
  return static_cast<double>(std::cos(kPi * static_cast<long double>(m) / (2.0L * len)));
}

DctTable *build(int len) {
  DctTable *t = new (std::nothrow) DctTable;
  if (t == nullptr) return nullptr;
  t->len = len;
  t->route = routeFor(len);
  const double w0 = 1.0 / std::sqrt(static_cast<double>(len));
  const double w = std::sqrt(2.0 / len);
  switch (t->route) {
    case DctRoute::Fft: {
      const int half = len / 2;
      t->coef = new (std::nothrow) float[2 * static_cast<std::size_t>(half)];
      if (t->coef == nullptr) break;
      for (int k = 0; k < half; ++k) {
        const long double angle = kPi * k / (2.0L * len);
        t->coef[2 * k] = static_cast<float>(w * static_cast<double>(std::cos(angle)));
        t->coef[2 * k + 1] = static_cast<float>(w * static_cast<double>(std::sin(angle)));
      }
      return t;
    }
    case DctRoute::Matrix: {
      const std::size_t n = static_cast<std::size_t>(len);
      t->coef = new (std::nothrow) float[2 * n * n];
      if (t->coef == nullptr) break;
      float *transpose = t->coef + n * n;
      for (std::size_t k = 0; k < n; ++k)
        for (std::size_t i = 0; i < n; ++i) {
          const double weight = k == 0 ? w0 : w;
          const float v = static_cast<float>(weight * cosQuarter(static_cast<std::int64_t>(k * (2 * i + 1)), len));
          t->coef[k * n + i] = v;
          transpose[i * n + k] = v;
        }
      return t;
    }
    case DctRoute::Cosine: {
      const std::size_t period = 4 * static_cast<std::size_t>(len);
      t->cosine = new (std::nothrow) double[period];
      if (t->cosine == nullptr) break;
      for (std::size_t m = 0; m < period; ++m) t->cosine[m] = cosQuarter(static_cast<std::int64_t>(m), len);
      return t;
    }
  }
  destroy(t);
  return nullptr;
}

DctTable *findIn(DctTable *head, int len) {
  for (DctTable *t = head; t != nullptr; t = t->next)
    if (t->len == len) return t;
  return nullptr;
}

// The table of one length, built and published on first use; null when out
// of memory. Racing builders: one wins the compare-and-swap, the others find
// its table on their retry and free their own.
const DctTable *tableFor(int len) {
  DctTable *head = tableList.load(std::memory_order_acquire);
  if (DctTable *found = findIn(head, len)) return found;
  DctTable *fresh = build(len);
  if (fresh == nullptr) return nullptr;
  for (;;) {
    fresh->next = head;
    if (tableList.compare_exchange_weak(head, fresh, std::memory_order_acq_rel, std::memory_order_acquire))
      return fresh;
    if (DctTable *found = findIn(head, len)) {
      destroy(fresh);
      return found;
    }
  }
}

void releaseTables() {
  DctTable *t = tableList.exchange(nullptr, std::memory_order_acq_rel);
  while (t != nullptr) {
    DctTable *next = t->next;
    destroy(t);
    t = next;
  }
}

// Per-thread work buffers, grown on demand; null when out of memory.
float *workBuffer(std::size_t n) {
  thread_local std::vector<float> buffer;
  try {
    if (buffer.size() < n) buffer.resize(n);
  } catch (...) {
    return nullptr;
  }
  return buffer.data();
}

int orderOf(int len) {
  int order = 0;
  while ((1 << order) < len) ++order;
  return order;
}

// Runs the in-place real FFT, keeping the caller's earlier status when it
// succeeds. False when the FFT failed (its tables could not be built).
bool realFft(float *buf, int order, int flags) {
  const int saved = kfxGetStatus();
  kfxSetStatus(KFX_StsOk);
  kfxsRealFftl(buf, order, flags | KFX_RCPerm);
  if (kfxGetStatus() < 0) return false;
  kfxSetStatus(saved);
  return true;
}

// Spectrum layout in the FFT buffer (RCPerm): v[0] = Re0, v[1] = Re(N/2),
// v[2k], v[2k+1] = Re, Im of bin k.

bool forwardByFft(const DctTable &t, const float *src, float *dst, float *v) {
  const int n = t.len, half = n / 2;
  for (int i = 0; i < half; ++i) {
    v[i] = src[2 * i];
    v[n - 1 - i] = src[2 * i + 1];
  }
  if (!realFft(v, orderOf(n), KFX_Forward)) return false;
  const float w0 = static_cast<float>(1.0 / std::sqrt(static_cast<double>(n)));
  dst[0] = w0 * v[0];
  // w*cos(pi/4) = 1/sqrt(N) for the middle bin.
  dst[half] = w0 * v[1];
  for (int k = 1; k < half; ++k) {
    const float a = t.coef[2 * k], b = t.coef[2 * k + 1];
    const float re = v[2 * k], im = v[2 * k + 1];
    // X[N-k] uses the conjugate bin and cos/sin swapped.
    dst[k] = a * re + b * im;
    dst[n - k] = b * re - a * im;
  }
  return true;
}

bool inverseByFft(const DctTable &t, const float *src, float *dst, float *v) {
  const int n = t.len, half = n / 2;
  // V[k] = e^{i*pi*k/(2N)} (X[k] - i*X[N-k]) / N with X[k] = src[k] / w_k;
  // the 1/N and 1/w_k fold into the table as a factor 1/2.
  const float w0 = static_cast<float>(1.0 / std::sqrt(static_cast<double>(n)));
  v[0] = w0 * src[0];
  v[1] = w0 * src[half];
  for (int k = 1; k < half; ++k) {
    const float a = 0.5f * t.coef[2 * k], b = 0.5f * t.coef[2 * k + 1];
    const float xk = src[k], xnk = src[n - k];
    v[2 * k] = a * xk + b * xnk;
    v[2 * k + 1] = b * xk - a * xnk;
  }
  if (!realFft(v, orderOf(n), KFX_Inverse | KFX_NoScale)) return false;
  for (int i = 0; i < half; ++i) {
    dst[2 * i] = v[i];
    dst[2 * i + 1] = v[n - 1 - i];
  }
  return true;
}

void byMatrix(const DctTable &t, const float *src, float *dst, bool inverse) {
  const std::size_t n = static_cast<std::size_t>(t.len);
  const float *rows = inverse ? t.coef + n * n : t.coef;
  for (std::size_t k = 0; k < n; ++k)
    dst[k] = static_cast<float>(dotProduct(rows + k * n, src, t.len));
}

// sum_j src[j] * cos(pi*(first + j*step)/(2N)), the index kept modulo 4N.
// Four interleaved partial sums with their own index chains keep the loop
// from waiting on one addition chain.
double cosineSum(const double *cosine, std::int64_t period, const float *src, int count, std::int64_t first,
                 std::int64_t step) {
  std::int64_t index[4];
  index[0] = first % period;
  for (int u = 1; u < 4; ++u) index[u] = (index[u - 1] + step) % period;
  const std::int64_t step4 = (4 * step) % period;
  double sum[4] = {0.0, 0.0, 0.0, 0.0};
  int j = 0;
  for (; j + 4 <= count; j += 4)
    for (int u = 0; u < 4; ++u) {
      sum[u] += static_cast<double>(src[j + u]) * cosine[index[u]];
      index[u] += step4;
      if (index[u] >= period) index[u] -= period;
    }
  for (int u = 0; j < count; ++j, ++u) sum[u] += static_cast<double>(src[j]) * cosine[index[u]];
  return (sum[0] + sum[1]) + (sum[2] + sum[3]);
}

void byCosine(const DctTable &t, const float *src, float *dst, bool inverse) {
  const int n = t.len;
  const std::int64_t period = 4 * static_cast<std::int64_t>(n);
  const double w0 = 1.0 / std::sqrt(static_cast<double>(n)), w = std::sqrt(2.0 / n);
  for (int out = 0; out < n; ++out) {
    const std::int64_t o = out;
    if (inverse)  // x[i] = w0*X[0] + w * sum_{k>=1} X[k] cos(pi*k*(2i+1)/(2N))
      dst[out] = static_cast<float>(w0 * src[0] + w * cosineSum(t.cosine, period, src + 1, n - 1, 2 * o + 1, 2 * o + 1));
    else  // X[k] = w_k * sum_i x[i] cos(pi*k*(2i+1)/(2N))
      dst[out] = static_cast<float>((out == 0 ? w0 : w) * cosineSum(t.cosine, period, src, n, o, 2 * o));
  }
}

bool overlaps(const float *a, const float *b, int len) {
  const std::less<const float *> before;
  return before(a, b + len) && before(b, a + len);
}

void reportNoMemory(int line) {
  report(KFX_StsNoMem, "kfxsDct", "\nNot enough memory\n", kModDct, line);
}

}  // namespace
}  // namespace kfx

extern "C" {

void kfxsDct(const float *src, float *dst, int len, int flags) {
  using kfx::kModDct;
  if (flags & KFX_DCT_Free) {
    kfx::releaseTables();
    return;
  }
  if (len < 1)
    return (void)kfx::report(KFX_StsBadArg, "kfxsDct", "\nBad value of data buffer size\n", kModDct, __LINE__);
  const bool forward = (flags & KFX_DCT_Forward) != 0, inverse = (flags & KFX_DCT_Inverse) != 0;
  if (forward == inverse)
    return (void)kfx::report(KFX_StsBadArg, "kfxsDct", "\nBad value of the transform flag\n", kModDct, __LINE__);
  if (src == nullptr) return (void)kfx::report(KFX_StsBadArg, "kfxsDct", "src==0", kModDct, __LINE__);
  if (dst == nullptr) return (void)kfx::report(KFX_StsBadArg, "kfxsDct", "dst==0", kModDct, __LINE__);

  const kfx::DctTable *t = kfx::tableFor(len);
  if (t == nullptr) return kfx::reportNoMemory(__LINE__);

  if (t->route == kfx::DctRoute::Fft) {
    // The FFT runs in a work buffer, so src and dst may be the same vector.
    float *v = kfx::workBuffer(static_cast<std::size_t>(len));
    if (v == nullptr) return kfx::reportNoMemory(__LINE__);
    const bool ok = inverse ? kfx::inverseByFft(*t, src, dst, v) : kfx::forwardByFft(*t, src, dst, v);
    if (!ok) kfx::reportNoMemory(__LINE__);
    return;
  }
  // The summing routes read all of src for every output: copy an
  // overlapping source first.
  if (kfx::overlaps(src, dst, len)) {
    float *copy = kfx::workBuffer(static_cast<std::size_t>(len));
    if (copy == nullptr) return kfx::reportNoMemory(__LINE__);
    for (int i = 0; i < len; ++i) copy[i] = src[i];
    src = copy;
  }
  if (t->route == kfx::DctRoute::Matrix)
    kfx::byMatrix(*t, src, dst, inverse);
  else
    kfx::byCosine(*t, src, dst, inverse);
}

}  // extern "C"
