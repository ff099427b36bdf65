/* Conversion between float, double, int and scaled 16-bit fixed point.
 *
 * A scaled integer w with scale s stands for x = w * 2^s. Converting down
 * gives w = x * 2^-s (truncated toward zero); converting up with scale u gives
 * w * 2^-u, so a vector converted down with scale s comes back up with -s. */
#ifndef XKL_XK_CONVERT_H
#define XKL_XK_CONVERT_H

#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* scaleMode of the down-conversions. Any other value converts with
 * saturation to the destination range and sets the scale to 0. */
#define XK_NO_SCALE    0  /* scale 0, out-of-range values give the sign-bit pattern */
#define XK_FIXED_SCALE 1  /* scale read from *scaleFactor */
#define XK_AUTO_SCALE  2  /* scale chosen from the data, written to *scaleFactor */

/* Block down-conversions (one scale for the whole vector). A null
 * scaleFactor stands for a local scale of 0. In mode XK_AUTO_SCALE the
 * result is the chosen scale; in mode XK_NO_SCALE and the saturating modes 0.
 * Callers must not rely on the result in mode XK_FIXED_SCALE or when the
 * data's order is outside the accepted range (this implementation returns the
 * scale left in *scaleFactor: the caller's scale, or 2147483647 above the
 * range and 0 below it, with the destination zeroed). The double forms take
 * the order from a checking routine that reports a null source or n < 1 in
 * mode XK_AUTO_SCALE. Source and destination must not overlap. */
XKL_API int XKswbConvertDown(const float *src, short *dst, int n, int scaleMode, int *scaleFactor);
XKL_API int XKdwbConvertDown(const double *src, short *dst, int n, int scaleMode, int *scaleFactor);
XKL_API int XKsibConvertDown(const float *src, int *dst, int n, int scaleMode, int *scaleFactor);
XKL_API int XKdibConvertDown(const double *src, int *dst, int n, int scaleMode, int *scaleFactor);

/* Scalar down-conversions; the result is the converted value (the 16-bit
 * forms return a value in the 16-bit range: out-of-range values give -32768
 * in modes XK_NO_SCALE and XK_FIXED_SCALE). */
XKL_API int XKswConvertDown(float value, int scaleMode, int *scaleFactor);
XKL_API int XKdwConvertDown(double value, int scaleMode, int *scaleFactor);
XKL_API int XKsiConvertDown(float value, int scaleMode, int *scaleFactor);
XKL_API int XKdiConvertDown(double value, int scaleMode, int *scaleFactor);

/* Up-conversions: dst[i] = src[i] * 2^-u (u = 0: plain conversion). */
XKL_API void XKwsbConvertUp(const short *src, float *dst, int n, int u);
XKL_API void XKwdbConvertUp(const short *src, double *dst, int n, int u);
XKL_API void XKisbConvertUp(const int *src, float *dst, int n, int u);
XKL_API void XKidbConvertUp(const int *src, double *dst, int n, int u);
XKL_API double XKwdConvertUp(short value, int u);
XKL_API double XKidConvertUp(int value, int u);

/* Orders: the least e such that every magnitude is below 2^e.
 * Float vectors: largest biased exponent - 126 (all zero: -126).
 * 16-bit vectors: highest set bit of the OR of the magnitudes, plus one
 * (all zero: 0). The matrix forms take row pointers and return 0 for fewer
 * than one row or column. */
XKL_API int XKsMaxOrder(const float *vec, int n);
XKL_API int XKwMaxOrder(const short *vec, int n);
XKL_API int XKsMaxMatrixOrder(float *const *rows, int nRows, int nCols);
XKL_API int XKwMaxMatrixOrder(short *const *rows, int nRows, int nCols);

/* 2^n as a double, with n clamped to -1087..1024 (1024 gives infinity,
 * -1075 and below give 0). */
XKL_API double XKPower2(int n);

XKL_EXTERN_C_END

#endif /* XKL_XK_CONVERT_H */
