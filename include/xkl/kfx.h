/* The signal-processing kernel layer: real FFT, DCT, norms, autocorrelation
 * and element-wise vector kernels.
 *
 * The layer reports through its own status word, kept per thread: a kernel
 * that fails stores a negative status (-5 bad argument, -4 no memory) and the
 * details of the report, and returns without writing its output. The status
 * is not cleared by successful calls; read it with kfxGetStatus and reset it
 * with kfxSetStatus(KFX_StsOk). */
#ifndef XKL_KFX_H
#define XKL_KFX_H

#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* ---- status of the kernel layer ---- */
#define KFX_StsOk       0
#define KFX_StsBackTrace -1
#define KFX_StsNoMem   -4
#define KFX_StsBadArg  -5

/* The last report of the calling thread's kernel layer. */
typedef struct KFXErrorReport {
  int status;
  const char *funcName; /* e.g. "kfxsRealFftlNip" */
  const char *message;  /* e.g. "order<0" */
  const char *file;     /* source module, e.g. "kfxffts" */
  int line;
} KFXErrorReport;

XKL_API int kfxGetStatus(void);
XKL_API void kfxSetStatus(int status);
/* Pointer to the calling thread's last report (all fields zero/null before
 * the first failure). Valid until the thread ends. */
XKL_API const KFXErrorReport *kfxGetErrorReport(void);

/* ---- real FFT of N = 2^order points ---- */
#define KFX_Forward     1      /* exponent sign -1, never scaled */
#define KFX_Inverse     2      /* exponent sign +1, divided by N unless KFX_NoScale */
#define KFX_Init        4      /* only build the tables of this order */
#define KFX_Free        8      /* release all cached tables */
#define KFX_NoScale     16
#define KFX_RCPack      256    /* Re0, Re1, Im1, ..., Re(N/2-1), Im(N/2-1), Re(N/2) */
#define KFX_RCPerm      512    /* Re0, Re(N/2), Re1, Im1, ..., Re(N/2-1), Im(N/2-1) */
#define KFX_IntegerFft  8192   /* 16-bit forms: always the integer algorithm */
#define KFX_FloatFft    16384  /* 16-bit forms: always the float algorithm */

/* scaleMode of the 16-bit forms: 0 (or 1) saturate without scaling. */
#define KFX_FIXED_SCALE 2      /* *scaleFactor is an additional right shift */
#define KFX_AUTO_SCALE  4      /* the applied right shift is written to *scaleFactor */

/* In-place forms transform samps[0..N-1]; out-of-place forms read N samples
 * and write N values. */
XKL_API void kfxsRealFftl(float *samps, int order, int flags);
XKL_API void kfxsRealFftlNip(const float *inSamps, float *outSamps, int order, int flags);
XKL_API void kfxwRealFftl(short *samps, int order, int flags, int scaleMode, int *scaleFactor);
XKL_API void kfxwRealFftlNip(const short *inSamps, short *outSamps, int order, int flags,
                             int scaleMode, int *scaleFactor);

/* Release of the cached FFT tables (each is rebuilt on its next use). Not to
 * be called while another thread transforms. */
XKL_API void kfxFreeBitRevTbls(void);   /* bit-reversal tables */
XKL_API void kfxFreeTwdTbls(void);      /* float twiddle and real-split tables */
XKL_API void kfxFreeIntTwdTbls(void);   /* integer twiddle tables and the integer scratch buffer */

/* ---- norms ---- */
#define KFX_C        1   /* maximum absolute value */
#define KFX_L1       2   /* sum of absolute values */
#define KFX_L2       4   /* square root of the sum of squares */
#define KFX_RELATIVE 8   /* added to a basic norm: norm(a - b) / norm(a) */
#define KFX_L2SQ     16  /* sum of squares */

/* Norm of srcA, or of srcA - srcB when srcB is not null. */
XKL_API double kfxsNorm(const float *srcA, const float *srcB, int n, int flag);
XKL_API double kfxwNorm(const short *srcA, const short *srcB, int n, int flag);
XKL_API double kfxwNormExt(const short *srcA, const short *srcB, int n, int flag,
                           int scaleMode, int *scaleFactor);

/* ---- DCT: flags 1 forward (orthonormal DCT-II), 2 inverse (DCT-III),
 *      8 release the cached tables ---- */
#define KFX_DCT_Forward 1
#define KFX_DCT_Inverse 2
#define KFX_DCT_Free    8
XKL_API void kfxsDct(const float *src, float *dst, int len, int flags);

/* 16-bit forward DCT-II with the same orthonormal weights; see the scale
 * rules of the 16-bit FFT forms. */
XKL_API void kfxwDct(const short *src, short *dst, int len, int scaleMode, int *scaleFactor);

/* ---- autocorrelation: dst[k] = sum_i src[i]*src[i+k], k < nLags ---- */
#define KFX_AutoCorrNone     0
#define KFX_AutoCorrBiased   1  /* divided by len */
#define KFX_AutoCorrUnbiased 2  /* divided by len - k */
XKL_API void kfxsAutoCorr(const float *src, int len, float *dst, int nLags, int type);

/* ---- element-wise kernels ---- */
XKL_API void kfxsbSqrt1(float *vec, int len);
XKL_API void kfxsbSqrt2(const float *src, float *dst, int len);
XKL_API void kfxsbThresh1(float *vec, int len, float thresh, int relOp);
XKL_API void kfxsbInvThresh1(float *vec, int len, float thresh);
XKL_API void kfxsbLn1(float *vec, int len);
XKL_API void kfxsbExp1(float *vec, int len);
XKL_API void kfxcbMag(const float *src, float *mag, int length);          /* src: re,im pairs */
XKL_API void kfxcbPowerSpectr(const float *src, float *spectr, int length);
XKL_API void kfxsbIntToFloat(const short *src, float *dst, int len, int bitWidth, int flags);
XKL_API void kfxsbFloatToInt(const float *src, short *dst, int len, int bitWidth, int flags);
XKL_API void kfxsbZero(float *dst, int n);
XKL_API void kfxwbZero(short *dst, int n);
XKL_API void kfxsbSet(float value, float *dst, int n);
XKL_API void kfxwbSet(short value, short *dst, int n);
XKL_API void kfxsbCopy(const float *src, float *dst, int n);
XKL_API void kfxwbCopy(const short *src, short *dst, int n);
XKL_API void kfxsbMpy1(float value, float *vec, int n);
/* Dot product of two float vectors, accumulated in double. */
XKL_API double kfxsDotProd(const float *srcA, const float *srcB, int n);

/* ---- 32-byte aligned scratch memory of the kernel layer ---- */
XKL_API void *kfxMalloc(int size);
XKL_API void kfxFree(void *ptr);

XKL_EXTERN_C_END

#endif /* XKL_KFX_H */
