/* Feature extraction: pre-emphasis, linear prediction, LP spectrum, mel
 * filter banks, mel-frequency cepstra and liftering.
 *
 * Scaled 16-bit values follow xk_convert.h: w with scale s stands for
 * x = w * 2^s. Per-thread scratch buffers are kept between calls and released
 * by XKFreePreemphasizeTbls, XKFreeLPTbls and XKFreeCepsTbls; a thread that
 * used these functions should call the three before it ends. */
#ifndef XKL_XK_FEATURES_H
#define XKL_XK_FEATURES_H

#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* ---- pre-emphasis: y[i] = x[i] - alpha * x[i-1], y[0] = x[0], in place ---- */

/* Float form; products and differences in double. */
XKL_API void XKsPreemphasize(float *x, float alpha, int n);

/* 16-bit form. mode 0: unscaled, *scale = 0; 1: right shift by the caller's
 * *scale (left shift when negative); 2: *scale = 1 when the input's order is
 * 16 or more, else 0; 3: saturating and unscaled, *scale = 0. The output
 * holds the true value times 2^-*scale. A null scale stands for a local 0.
 * With 0 <= alpha <= 1 (and |*scale| < 15 in mode 1) alpha is taken with 14
 * fraction bits and the frame processed in integers: in modes 0-2 the
 * 8-byte-aligned groups of four saturate, the samples before the first
 * aligned element and after the last group wrap to 16 bits. Otherwise the
 * frame goes through float and the block conversion (mode, scale). */
XKL_API void XKwPreemphasize(short *x, float alpha, int n, int mode, int *scale);

/* Releases the calling thread's pre-emphasis buffer; returns 0. */
XKL_API int XKFreePreemphasizeTbls(void);

/* ---- linear prediction: x[m] ~ sum_{j=1..p} a[j] x[m-j] ---- */
#define XK_LP_AUTOCORR   1  /* autocorrelation method (tested first) */
#define XK_LP_COVARIANCE 2  /* covariance method, p <= 100 */

/* Writes a[1..p] to lpc[0..p-1] (no leading 1, positive sign). Returns 1, or
 * 0 when the recursion meets |k| > 1 (lpc untouched), when method has
 * neither bit, or when a buffer cannot be allocated. */
XKL_API int XKsLPredict(const float *frame, int n, float *lpc, int p, int method);
/* Same through float; the coefficients are converted with the block
 * conversion (mode, *scale) and written even when the method failed. */
XKL_API int XKwLPredict(const short *frame, int n, short *lpc, int p, int method, int mode,
                        int *scale);
/* Releases the LP and LP-spectrum buffers of the calling thread and the
 * kernel layer's FFT tables. */
XKL_API void XKFreeLPTbls(void);

/* ---- LP spectrum: spec[k] = gain / |A(pi k / M)|, M = 2^order, k < M,
 *      A(w) = 1 - sum_{j=1..p} a[j] e^{-ijw} ---- */
XKL_API void XKsLPSpectrum(const float *lpc, int p, float *spec, int order, float gain);
/* lpc and gain carry the scale inScale; the M results are converted with the
 * block conversion (outMode, *outScale). */
XKL_API void XKwLPSpectrum(const short *lpc, int p, short *spec, int order, int gain, int inScale,
                           int outMode, int *outScale);

/* ---- mel filter bank ---- */

/* A bank of triangular filters over a spectrum of fftLen = 2^order bins
 * (bin k at k * sampleFreq / (fftLen - 1) Hz), allocated by XKsMFCCInit and
 * released by XKsFreeMFCCFilters. The field order is part of the interface.
 * Complex arrays hold (re, im) float pairs. */
typedef struct XKMFCCFilters {
  int order;         /* FFT order */
  int fftLen;        /* N = 2^order */
  int nFilters;
  float *FilWeight;  /* weights, filter after filter; each filter's sum is 1 */
  int *FilLength;    /* [nFilters] weights per filter (fixedLen in the fixed group) */
  int firstBin;      /* lowest bin used by any filter, -1 while none */
  int lastBin;       /* highest bin used by any filter */
  int *disFft;       /* [nFilters] first bin of each filter */
  float **adrFft;    /* [nFilters] scratch rewritten by every filtering call */
  int fixedLen;      /* weights per filter of the leading fixed-length group, 0 if none */
  int nFixed;        /* filters in that group (0 when fixedLen is 0) */
  float *dctSrc;     /* [nFilters] scratch of the FFT-based DCT */
  float *dctIn;      /* [nFilters] complex twiddles of the FFT-based DCT */
  float *dctOut;     /* [nFilters] complex output of the FFT-based DCT */
  int dctOrder;      /* log2(nFilters) for a power of two, else 0 */
} XKMFCCFilters;

/* mel(f) = melMul * log10(1 + f / melDiv), per thread. A zero melDiv at init
 * time means 2595 / 700 (both are then stored). */
XKL_API void XKSetMelScale(float melMul, float melDiv);

/* nLinear filters spaced linearly from lowFreq to linearFreq, the rest
 * mel-spaced up to highFreq (all mel when nLinear < 1 or linearFreq <=
 * lowFreq). Frequencies in Hz. Returns null when memory runs out. */
XKL_API XKMFCCFilters *XKsMFCCInit(int order, int nFilters, int lowFreq, int highFreq,
                                   int sampleFreq, int nLinear, int linearFreq);
XKL_API XKMFCCFilters *XKwMFCCInit(int order, int nFilters, int lowFreq, int highFreq,
                                   int sampleFreq, int nLinear, int linearFreq);

/* output[i] = sum_j weight(i, j) * spectrum[disFft[i] + j]; the spectrum
 * holds at least lastBin + 1 values. Rewrites filters->adrFft. */
XKL_API void XKsMelFiltering(XKMFCCFilters *filters, const float *spectrum, float *output);

/* Release a bank; null is ignored. The 16-bit form leaves dctSrc, dctIn and
 * dctOut allocated. */
XKL_API void XKsFreeMFCCFilters(XKMFCCFilters *filters);
XKL_API void XKwFreeMFCCFilters(XKMFCCFilters *filters);

/* ---- mel cepstrum ---- */
#define XK_MFCC_TIME      1   /* input: N time samples (else N/2+1 spectrum values) */
#define XK_MFCC_FLOOR     4   /* raise values below floor to floor before the logarithm */
#define XK_MFCC_MAGNITUDE 8   /* filter magnitudes, log after filtering (else log power first) */
#define XK_MFCC_C0        16  /* output starts with c0 (else with c1) */

/* Writes nCeps coefficients (log10 magnitude domain, orthonormal DCT-II);
 * coefficients beyond nFilters are 0. A float spectrum input without
 * XK_MFCC_MAGNITUDE is floored and replaced by its natural logarithm in
 * place. Returns 0, or a negative status. */
XKL_API int XKsCepstralMFCC(XKMFCCFilters *filters, float *input, float *output, int nCeps,
                            float floor, int flags);
/* 16-bit form: input and floor carry the scale inScale; the result is
 * converted with (outMode, *outScale). */
XKL_API int XKwCepstralMFCC(XKMFCCFilters *filters, const short *input, short *output, int nCeps,
                            int floor, int flags, int inScale, int outMode, int *outScale);

/* ceps[i] *= 1 + (L/2) sin(pi i / L), in place. */
XKL_API void XKsLiftering(float *ceps, int n, int L);
XKL_API void XKwLiftering(short *ceps, int n, int L);

/* Releases the calling thread's cepstrum buffers and the kernel layer's FFT
 * and DCT tables. */
XKL_API void XKFreeCepsTbls(void);

XKL_EXTERN_C_END

#endif /* XKL_XK_FEATURES_H */
