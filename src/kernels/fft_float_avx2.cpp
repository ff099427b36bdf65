// Vectorised (AVX2 + FMA) kernels of the float real FFT.
//
// Complex values stay interleaved (re, im); one 256-bit register holds four.
// The complex FFT of M >= 32 points is a decimation in time over bit-reversed
// input: leaves of 16 points (8 when log2 M is odd) computed four at a time,
// one per lane, and fed straight from the input in bit-reversed order when
// the transform is out of place; then radix-4 passes whose factors are read
// contiguously from the twiddle table. The real split runs on four pairs
// (k, M-k) at a time with reversed loads.
#include "kernels/fft_float_kernels.h"

#ifdef XKL_FFT_HAVE_AVX2

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#define XKL_AVX2 __attribute__((target("avx2,fma")))

namespace kfx::fft {
namespace {

XKL_AVX2 inline __m256 swapReIm(__m256 a) { return _mm256_permute_ps(a, 0xB1); }

XKL_AVX2 inline __m256 signImag() {
  return _mm256_castsi256_ps(_mm256_set_epi32(INT32_MIN, 0, INT32_MIN, 0, INT32_MIN, 0, INT32_MIN, 0));
}
XKL_AVX2 inline __m256 signReal() {
  return _mm256_castsi256_ps(_mm256_set_epi32(0, INT32_MIN, 0, INT32_MIN, 0, INT32_MIN, 0, INT32_MIN));
}

// a * (-i) for the forward direction, a * (+i) for the inverse.
template <bool Inv>
XKL_AVX2 inline __m256 rotate(__m256 a) {
  return _mm256_xor_ps(swapReIm(a), Inv ? signReal() : signImag());
}

// a * w (forward) or a * conj(w) (inverse), w given as duplicated real and
// imaginary parts.
template <bool Inv>
XKL_AVX2 inline __m256 cmul(__m256 a, __m256 wr, __m256 wi) {
  const __m256 t = _mm256_mul_ps(swapReIm(a), wi);
  return Inv ? _mm256_fmsubadd_ps(a, wr, t) : _mm256_fmaddsub_ps(a, wr, t);
}

// 4-point DFT of c0..c3 (c_s already multiplied by its factor):
// X_q = sum_s c_s * (-+i)^(s q).
template <bool Inv>
XKL_AVX2 inline void radix4(__m256 c0, __m256 c1, __m256 c2, __m256 c3, __m256 &x0, __m256 &x1,
                            __m256 &x2, __m256 &x3) {
  const __m256 t0 = _mm256_add_ps(c0, c2), t1 = _mm256_sub_ps(c0, c2);
  const __m256 t2 = _mm256_add_ps(c1, c3), t3 = rotate<Inv>(_mm256_sub_ps(c1, c3));
  x0 = _mm256_add_ps(t0, t2);
  x2 = _mm256_sub_ps(t0, t2);
  x1 = _mm256_add_ps(t1, t3);
  x3 = _mm256_sub_ps(t1, t3);
}

// Transposes a 4x4 matrix of complex values held in four registers.
XKL_AVX2 inline void transpose4(__m256 &r0, __m256 &r1, __m256 &r2, __m256 &r3) {
  const __m256d a = _mm256_unpacklo_pd(_mm256_castps_pd(r0), _mm256_castps_pd(r1));
  const __m256d b = _mm256_unpackhi_pd(_mm256_castps_pd(r0), _mm256_castps_pd(r1));
  const __m256d c = _mm256_unpacklo_pd(_mm256_castps_pd(r2), _mm256_castps_pd(r3));
  const __m256d d = _mm256_unpackhi_pd(_mm256_castps_pd(r2), _mm256_castps_pd(r3));
  r0 = _mm256_castpd_ps(_mm256_permute2f128_pd(a, c, 0x20));
  r1 = _mm256_castpd_ps(_mm256_permute2f128_pd(b, d, 0x20));
  r2 = _mm256_castpd_ps(_mm256_permute2f128_pd(a, c, 0x31));
  r3 = _mm256_castpd_ps(_mm256_permute2f128_pd(b, d, 0x31));
}

XKL_AVX2 inline void transpose4(__m256 *r) { transpose4(r[0], r[1], r[2], r[3]); }

// exp(-2*pi*i*k/16) as broadcast real and imaginary parts.
struct Factor {
  __m256 re, im;
};
XKL_AVX2 inline Factor factor16(int k) {
  static constexpr float kCos[16] = {
      1.0f, 0.92387953251128675613f, 0.70710678118654752440f, 0.38268343236508977173f,
      0.0f, -0.38268343236508977173f, -0.70710678118654752440f, -0.92387953251128675613f,
      -1.0f, -0.92387953251128675613f, -0.70710678118654752440f, -0.38268343236508977173f,
      0.0f, 0.38268343236508977173f, 0.70710678118654752440f, 0.92387953251128675613f};
  return {_mm256_set1_ps(kCos[k & 15]), _mm256_set1_ps(-kCos[(k + 12) & 15])};
}

template <bool Inv>
XKL_AVX2 inline __m256 cmulBy(__m256 a, const Factor &w) {
  return cmul<Inv>(a, w.re, w.im);
}

// The leaves work on four transforms at once, one per lane: t[i] holds
// element i (in bit-reversed order) of the four, x[k] receives output k.

// 8 points: a radix-2 step, then radix-4 with factors w8^(r j).
template <bool Inv>
XKL_AVX2 inline void leaf(const __m256 (&t)[8], __m256 (&x)[8]) {
  __m256 y[8];
  for (int g = 0; g < 4; ++g) {
    y[2 * g] = _mm256_add_ps(t[2 * g], t[2 * g + 1]);
    y[2 * g + 1] = _mm256_sub_ps(t[2 * g], t[2 * g + 1]);
  }
  // Blocks 1 and 2 (y[2..3], y[4..5]) hold residues 2 and 1.
  radix4<Inv>(y[0], y[4], y[2], y[6], x[0], x[2], x[4], x[6]);
  radix4<Inv>(y[1], cmulBy<Inv>(y[5], factor16(2)), rotate<Inv>(y[3]),
              cmulBy<Inv>(y[7], factor16(6)), x[1], x[3], x[5], x[7]);
}

// 16 points: two radix-4 steps with factors w16^(r j) between them.
template <bool Inv>
XKL_AVX2 inline void leaf(const __m256 (&t)[16], __m256 (&x)[16]) {
  __m256 y[16];
  for (int g = 0; g < 4; ++g)
    radix4<Inv>(t[4 * g], t[4 * g + 2], t[4 * g + 1], t[4 * g + 3], y[4 * g], y[4 * g + 1],
                y[4 * g + 2], y[4 * g + 3]);
  radix4<Inv>(y[0], y[8], y[4], y[12], x[0], x[4], x[8], x[12]);
  radix4<Inv>(y[1], cmulBy<Inv>(y[9], factor16(1)), cmulBy<Inv>(y[5], factor16(2)),
              cmulBy<Inv>(y[13], factor16(3)), x[1], x[5], x[9], x[13]);
  radix4<Inv>(y[2], cmulBy<Inv>(y[10], factor16(2)), rotate<Inv>(y[6]),
              cmulBy<Inv>(y[14], factor16(6)), x[2], x[6], x[10], x[14]);
  radix4<Inv>(y[3], cmulBy<Inv>(y[11], factor16(3)), cmulBy<Inv>(y[7], factor16(6)),
              cmulBy<Inv>(y[15], factor16(9)), x[3], x[7], x[11], x[15]);
}

template <int Size>
constexpr int kLeafRev[Size] = {};
template <>
constexpr int kLeafRev<8>[8] = {0, 4, 2, 6, 1, 5, 3, 7};
template <>
constexpr int kLeafRev<16>[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};

// All leaves of Size points. Lane l of a group transforms the chunk that
// starts at point j0 + off[l]; in bit-reversed order the four chunks read
// the four consecutive input points rev(j0) + rev(i) * M/Size + (0..3), so
// each element is one contiguous load. Without `in`, z already holds the
// points in bit-reversed order and each chunk is read contiguously.
template <bool Inv, int Size>
XKL_AVX2 void leaves(const float *in, float *z, std::size_t m, const std::uint32_t *rev) {
  const std::size_t off[4] = {0, m / 2, m / 4, 3 * m / 4};
  const std::size_t step = 2 * (m / Size);  // floats between leaf elements
  for (std::size_t j0 = 0; j0 < m / 4; j0 += Size) {
    __m256 t[Size], x[Size];
    if (in) {
      const float *p = in + 2 * std::size_t{rev[j0]};
      for (int i = 0; i < Size; ++i) t[i] = _mm256_loadu_ps(p + kLeafRev<Size>[i] * step);
    } else {
      for (int b = 0; b < Size; b += 4) {
        for (int l = 0; l < 4; ++l) t[b + l] = _mm256_loadu_ps(z + 2 * (j0 + off[l] + b));
        transpose4(t + b);
      }
    }
    leaf<Inv>(t, x);
    for (int b = 0; b < Size; b += 4) {
      transpose4(x + b);
      for (int l = 0; l < 4; ++l) _mm256_storeu_ps(z + 2 * (j0 + off[l] + b), x[b + l]);
    }
  }
}

XKL_AVX2 inline void store4(float *z, std::size_t stride, __m256 x0, __m256 x1, __m256 x2, __m256 x3) {
  _mm256_storeu_ps(z, x0);
  _mm256_storeu_ps(z + stride, x1);
  _mm256_storeu_ps(z + 2 * stride, x2);
  _mm256_storeu_ps(z + 3 * stride, x3);
}

// One radix-4 pass joining four transforms of `span` points.
template <bool Inv>
XKL_AVX2 void radix4Pass(float *z, std::size_t m, std::size_t span, const float *tw) {
  const std::size_t d = 2 * span;  // floats between the four inputs
  for (std::size_t j = 0; j < span; j += 4, tw += 48) {
    const __m256 w1r = _mm256_load_ps(tw), w1i = _mm256_load_ps(tw + 8);
    const __m256 w2r = _mm256_load_ps(tw + 16), w2i = _mm256_load_ps(tw + 24);
    const __m256 w3r = _mm256_load_ps(tw + 32), w3i = _mm256_load_ps(tw + 40);
    for (std::size_t block = 0; block < m; block += 4 * span) {
      float *p = z + 2 * (block + j);
      const __m256 x0 = _mm256_loadu_ps(p);
      const __m256 x1 = _mm256_loadu_ps(p + d);
      const __m256 x2 = _mm256_loadu_ps(p + 2 * d);
      const __m256 x3 = _mm256_loadu_ps(p + 3 * d);
      __m256 y0, y1, y2, y3;
      // Second and third quarter hold residues 2 and 1.
      radix4<Inv>(x0, cmul<Inv>(x2, w1r, w1i), cmul<Inv>(x1, w2r, w2i), cmul<Inv>(x3, w3r, w3i),
                  y0, y1, y2, y3);
      store4(p, d, y0, y1, y2, y3);
    }
  }
}

template <bool Inv>
XKL_AVX2 void complexFft(const float *in, float *z, std::size_t m, const FloatTables &t) {
  const float *tw = t.twiddle->simd;
  int log2m = 0;
  while ((std::size_t{1} << log2m) < m) ++log2m;
  std::size_t span = 8;
  if (log2m & 1) {
    leaves<Inv, 8>(in, z, m, t.bitRev->rev);
  } else {
    leaves<Inv, 16>(in, z, m, t.bitRev->rev);
    span = 16;
  }
  for (; span < m; span *= 4) {
    radix4Pass<Inv>(z, m, span, tw);
    tw += (span / 4) * 48;
  }
}

// Split over the pairs (k, M-k), k = 1..M/2, read from src and written to
// dst (which may be src):
// P = src[k], Q = conj src[M-k], A = alpha (P + Q), B = beta (P - Q) c_k
// (conj c_k when Conj); dst[k] = A + B, dst[M-k] = conj(A - B).
template <bool Conj>
XKL_AVX2 void splitPairs(const float *src, float *dst, std::size_t m, const float *coef, float alpha,
                         float beta) {
  const __m256 va = _mm256_set1_ps(alpha), vb = _mm256_set1_ps(beta);
  const __m256 conjMask = signImag();
  std::size_t k = 1;
  // Each step reads and writes points k..k+3 and M-k-3..M-k, disjoint from
  // every other step, so src may equal dst.
  for (; k + 3 < m / 2; k += 4) {
    const std::size_t lo = 2 * k, hi = 2 * (m - k - 3);
    const __m256 p = _mm256_loadu_ps(src + lo);
    // Reverse the four points of the upper range and conjugate them.
    const __m256 q = _mm256_xor_ps(
        _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(_mm256_loadu_ps(src + hi)), 0x1B)),
        conjMask);
    const __m256 c = _mm256_loadu_ps(coef + 2 * k);
    const __m256 a = _mm256_mul_ps(va, _mm256_add_ps(p, q));
    const __m256 b =
        _mm256_mul_ps(vb, cmul<Conj>(_mm256_sub_ps(p, q), _mm256_moveldup_ps(c), _mm256_movehdup_ps(c)));
    _mm256_storeu_ps(dst + lo, _mm256_add_ps(a, b));
    const __m256 h = _mm256_xor_ps(_mm256_sub_ps(a, b), conjMask);
    _mm256_storeu_ps(dst + hi, _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(h), 0x1B)));
  }
  for (; k <= m / 2; ++k) {
    const std::size_t lo = 2 * k, hi = 2 * (m - k);
    const float pr = src[lo], pi = src[lo + 1], qr = src[hi], qi = -src[hi + 1];
    const float cr = coef[2 * k], ci = Conj ? -coef[2 * k + 1] : coef[2 * k + 1];
    const float ar = alpha * (pr + qr), ai = alpha * (pi + qi);
    const float dr = pr - qr, di = pi - qi;
    const float br = beta * (dr * cr - di * ci), bi = beta * (dr * ci + di * cr);
    dst[lo] = ar + br;
    dst[lo + 1] = ai + bi;
    dst[hi] = ar - br;
    dst[hi + 1] = -(ai - bi);
  }
}

// Frames up to this many complex points get a stack copy for the transforms
// that cannot read their input in bit-reversed order straight from the
// caller's buffer (in place, and the inverse); larger ones are permuted in
// place by swaps.
constexpr std::size_t kScratchPoints = 2048;

}  // namespace

XKL_AVX2 void realForwardAvx2(const float *in, float *out, const FloatTables &t) {
  const std::size_t m = t.bitRev->points;
  if (in != out) {
    complexFft<false>(in, out, m, t);
  } else if (m <= kScratchPoints) {
    alignas(32) float copy[2 * kScratchPoints];
    std::memcpy(copy, in, 2 * m * sizeof(float));
    complexFft<false>(copy, out, m, t);
  } else {
    bitReverseInPlace(out, *t.bitRev);
    complexFft<false>(nullptr, out, m, t);
  }
  const float re0 = out[0], im0 = out[1];
  splitPairs<false>(out, out, m, t.split->coef, 0.5f, 1.0f);
  out[0] = re0 + im0;
  out[1] = re0 - im0;
}

XKL_AVX2 void realInverseAvx2(const float *spec, float *out, const FloatTables &t, float scale) {
  const std::size_t m = t.bitRev->points;
  const float x0 = spec[0], xh = spec[1];
  const float *coef = t.split->coef;
  if (m <= kScratchPoints) {
    alignas(32) float merged[2 * kScratchPoints];
    splitPairs<true>(spec, merged, m, coef, scale, 2.0f * scale);
    merged[0] = scale * (x0 + xh);
    merged[1] = scale * (x0 - xh);
    complexFft<true>(merged, out, m, t);
    return;
  }
  splitPairs<true>(spec, out, m, coef, scale, 2.0f * scale);
  out[0] = scale * (x0 + xh);
  out[1] = scale * (x0 - xh);
  bitReverseInPlace(out, *t.bitRev);
  complexFft<true>(nullptr, out, m, t);
}

}  // namespace kfx::fft

#endif  // XKL_FFT_HAVE_AVX2
