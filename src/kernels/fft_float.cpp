// Float real FFT: the entry points, their argument checks and the portable
// kernels.
#include <complex>
#include <cstddef>
#include <cstring>
#include <utility>

#include "kernels/fft_float_kernels.h"
#include "kernels/fft_tables.h"
#include "kernels/kfx_error.h"
#include "xkl/kfx.h"

namespace kfx::fft {
namespace {

using cf = std::complex<float>;

// Plain complex product: std::complex's operator* checks for infinities and
// NaNs through a library call, which costs more than the butterfly itself.
inline cf mul(cf a, cf b) {
  return cf(a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real());
}

// z * -i (forward) or z * +i (inverse), exactly.
template <bool Inverse>
inline cf quarterTurn(cf z) {
  return Inverse ? cf(-z.imag(), z.real()) : cf(z.imag(), -z.real());
}

// Radix-2 decimation in time over bit-reversed data; Inverse uses the
// conjugate twiddles. The first two stages have the factors 1 and -i (+i):
// they run fused, as exact 4-point transforms.
template <bool Inverse>
void complexStagesPortable(cf *z, std::size_t m, const float *plain) {
  std::size_t span = 1;
  if (m >= 4) {
    for (std::size_t b = 0; b < m; b += 4) {
      const cf u0 = z[b] + z[b + 1], u1 = z[b] - z[b + 1];
      const cf u2 = z[b + 2] + z[b + 3], u3 = quarterTurn<Inverse>(z[b + 2] - z[b + 3]);
      z[b] = u0 + u2;
      z[b + 1] = u1 + u3;
      z[b + 2] = u0 - u2;
      z[b + 3] = u1 - u3;
    }
    span = 4;
  }
  for (; span < m; span *= 2) {
    const std::size_t stride = m / (2 * span);  // twiddle index step
    for (std::size_t block = 0; block < m; block += 2 * span) {
      for (std::size_t j = 0; j < span; ++j) {
        cf w(plain[2 * j * stride], plain[2 * j * stride + 1]);
        if constexpr (Inverse) w = std::conj(w);
        const cf a = z[block + j];
        const cf b = mul(z[block + j + span], w);
        z[block + j] = a + b;
        z[block + j + span] = a - b;
      }
    }
  }
}

}  // namespace

void realForwardPortable(const float *in, float *out, const FloatTables &t) {
  const std::size_t m = t.bitRev->points;
  const std::uint32_t *rev = t.bitRev->rev;
  cf *z = reinterpret_cast<cf *>(out);
  if (in != out && rev) {
    const cf *src = reinterpret_cast<const cf *>(in);
    for (std::size_t j = 0; j < m; ++j) z[j] = src[rev[j]];
  } else {
    if (in != out) std::memcpy(out, in, 2 * m * sizeof(float));
    bitReverseInPlace(out, *t.bitRev);
  }
  complexStagesPortable<false>(z, m, t.twiddle->plain);

  // Real split: with Z the transform of the even/odd pairs,
  // X[k] = A + B and X[M-k] = conj(A - B), A = (Z[k] + conj Z[M-k]) / 2,
  // B = (Z[k] - conj Z[M-k]) * (-i/2) W^k.
  const float re0 = out[0], im0 = out[1];
  const cf *coef = reinterpret_cast<const cf *>(t.split->coef);
  for (std::size_t k = 1; k <= m / 2; ++k) {
    const cf p = z[k], q = std::conj(z[m - k]);
    const cf a = 0.5f * (p + q);
    const cf b = mul(p - q, coef[k]);
    z[k] = a + b;
    z[m - k] = std::conj(a - b);
  }
  out[0] = re0 + im0;
  out[1] = re0 - im0;
}

void realInversePortable(const float *spec, float *buf, const FloatTables &t, float scale) {
  const std::size_t m = t.bitRev->points;
  if (spec != buf) std::memcpy(buf, spec, 2 * m * sizeof(float));
  cf *z = reinterpret_cast<cf *>(buf);
  // Undo the split: Z[k] = A + B, Z[M-k] = conj(A - B) with
  // A = X[k] + conj X[M-k], B = (X[k] - conj X[M-k]) * i W^-k, which is the
  // transform of the even/odd pairs times 2; the scale is folded in here.
  const float x0 = buf[0], xh = buf[1];
  const cf *coef = reinterpret_cast<const cf *>(t.split->coef);
  for (std::size_t k = 1; k <= m / 2; ++k) {
    const cf p = z[k], q = std::conj(z[m - k]);
    const cf a = scale * (p + q);
    const cf b = mul(p - q, (2.0f * scale) * std::conj(coef[k]));
    z[k] = a + b;
    z[m - k] = std::conj(a - b);
  }
  z[0] = cf(scale * (x0 + xh), scale * (x0 - xh));
  bitReverseInPlace(buf, *t.bitRev);
  complexStagesPortable<true>(z, m, t.twiddle->plain);
}

}  // namespace kfx::fft

namespace {

using namespace kfx::fft;

// Transform after the checks: order in 0..31, direction and layout valid,
// tables (order >= 2) present. `in` may equal `out`.
void transform(const float *in, float *out, int order, int flags, const FloatTables &t) {
  const bool inverse = (flags & KFX_Inverse) != 0;
  const bool pack = (flags & KFX_RCPack) != 0;
  const std::size_t n = std::size_t{1} << order;
  const float scale = (inverse && !(flags & KFX_NoScale)) ? 1.0f / static_cast<float>(n) : 1.0f;

  if (order == 0) {
    out[0] = in[0];
    return;
  }
  if (order == 1) {
    const float a = in[0], b = in[1];
    out[0] = scale * (a + b);
    out[1] = scale * (a - b);
    return;
  }
  const bool simd = t.twiddle->simd != nullptr && kfx::simdActive();
  if (!inverse) {
#ifdef XKL_FFT_HAVE_AVX2
    if (simd)
      realForwardAvx2(in, out, t);
    else
#endif
      realForwardPortable(in, out, t);
    if (pack) {
      // RCPack keeps Re(N/2) last.
      const float nyquist = out[1];
      std::memmove(out + 1, out + 2, (n - 2) * sizeof(float));
      out[n - 1] = nyquist;
    }
    return;
  }
  // The inverse kernels take an RCPerm spectrum; an RCPack one is rearranged
  // in the output buffer first.
  const float *spec = in;
  if (pack) {
    const float nyquist = in[n - 1];
    if (in != out) {
      out[0] = in[0];
      std::memcpy(out + 2, in + 1, (n - 2) * sizeof(float));
    } else {
      std::memmove(out + 2, out + 1, (n - 2) * sizeof(float));
    }
    out[1] = nyquist;
    spec = out;
  }
#ifdef XKL_FFT_HAVE_AVX2
  if (simd)
    realInverseAvx2(spec, out, t, scale);
  else
#endif
    realInversePortable(spec, out, t, scale);
}

// Checks shared by both entry points after the pointer checks.
bool flagsValid(int flags, const char *func) {
  if ((flags & KFX_Forward) && (flags & KFX_Inverse)) {
    kfx::report(KFX_StsBadArg, func, "(flags & 1) && (flags & 2)", kfx::kModFfts, __LINE__);
    return false;
  }
  if ((flags & KFX_Forward) == 0 && (flags & KFX_Inverse) == 0) {
    kfx::report(KFX_StsBadArg, func, "(flags & 1)==0 && (flags & 2)==0", kfx::kModFfts, __LINE__);
    return false;
  }
  if ((flags & KFX_RCPack) && (flags & KFX_RCPerm)) {
    kfx::report(KFX_StsBadArg, func, "(flags & 256) && (flags & 512)", kfx::kModFfts, __LINE__);
    return false;
  }
  if ((flags & KFX_RCPack) == 0 && (flags & KFX_RCPerm) == 0) {
    kfx::report(KFX_StsBadArg, func, "(flags & 256)==0 && (flags & 512)==0", kfx::kModFfts,
                __LINE__);
    return false;
  }
  return true;
}

// The steps before the pointer checks: free, order range, tables, init.
// Returns false when the call ends here (successfully or not).
bool prepare(int order, int flags, const char *func, FloatTables *t) {
  if (flags & KFX_Free) {
    releaseAllFloatTables();
    return false;
  }
  if (order < 0) {
    kfx::report(KFX_StsBadArg, func, "order<0", kfx::kModFfts, __LINE__);
    return false;
  }
  if (order > kMaxOrder) {
    kfx::report(KFX_StsBadArg, func, "order>31", kfx::kModFfts, __LINE__);
    return false;
  }
  *t = FloatTables{nullptr, nullptr, nullptr};
  if (order >= 2 && !acquireTables(order, t)) {
    kfx::report(KFX_StsNoMem, func, "No working Twd memory", kfx::kModFfts, __LINE__);
    return false;
  }
  return (flags & KFX_Init) == 0;
}

}  // namespace

extern "C" {

void kfxsRealFftl(float *samps, int order, int flags) {
  static constexpr const char *kFunc = "kfxsRealFftl";
  FloatTables t;
  if (!prepare(order, flags, kFunc, &t)) return;
  if (!samps) {
    kfx::report(KFX_StsBadArg, kFunc, "samps==0", kfx::kModFfts, __LINE__);
    return;
  }
  if (!flagsValid(flags, kFunc)) return;
  transform(samps, samps, order, flags, t);
}

void kfxsRealFftlNip(const float *inSamps, float *outSamps, int order, int flags) {
  static constexpr const char *kFunc = "kfxsRealFftlNip";
  FloatTables t;
  if (!prepare(order, flags, kFunc, &t)) return;
  if (!inSamps) {
    kfx::report(KFX_StsBadArg, kFunc, "inSamps==0", kfx::kModFfts, __LINE__);
    return;
  }
  if (!outSamps) {
    kfx::report(KFX_StsBadArg, kFunc, "outSamps==0", kfx::kModFfts, __LINE__);
    return;
  }
  if (!flagsValid(flags, kFunc)) return;
  transform(inSamps, outSamps, order, flags, t);
}

}  // extern "C"
