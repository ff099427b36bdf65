/* Gaussian mixture servers: creation, inversion, evaluation, estimation,
 * files and conversion between the float (s) and 16-bit (w) flavours.
 *
 * A server is one block: the GaussMixServer header, then a data area that
 * starts at the block address + 63 rounded down to 16 bytes. In the data
 * area every row of dim elements is padded to dimPad = dim rounded up to 4
 * elements and every table of nMix entries to nMixPad = nMix rounded up to 4;
 * padding is zero. Order of the data area:
 *   s: coefs, work, weights (nMixPad floats each), mean row table (nMixPad
 *      pointers), mean rows (nMix x dimPad floats), covariance part;
 *   w: work (nMixPad 32-bit), weights (nMixPad 16-bit), mean row table,
 *      mean rows (16-bit), covariance part.
 * Covariance part, full: component table (nMixPad pointers), the row tables
 * of all components (nMix x dimPad pointers), all rows (nMix x dim rows of
 * dimPad elements). Diagonal: row table (nMixPad pointers), nMix rows.
 * In memory the pointers are native; `size` is this host's block size. Files
 * hold the 32-bit layout (4-byte pointer words). Free a server with
 * XKsFreeGaussMixServer or XKwFreeGaussMixServer (the same operation). */
#ifndef XKL_XK_GAUSS_H
#define XKL_XK_GAUSS_H

#include <stdio.h>
#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

#define GAUSS_SERVER_FVR_W 0x10   /* 16-bit server */
#define GAUSS_SERVER_FVR_S 0x20   /* float server */
#define GAUSS_SERVER_NORM  0x80   /* coefs carry sqrt(det of the inverse covariance) */
#define GAUSS_SERVER_FULL  0x100  /* InverseCov is used */
#define GAUSS_SERVER_DIAG  0x200  /* InverseCovD is used */
#define GAUSS_SERVER_COV   0x1000 /* the matrices hold covariances (a trained server) */

typedef struct GaussMixServer {
  void *weights;       /* nMix elements: float (s) or short (w) */
  void **means;        /* nMix rows of dim elements */
  void ***InverseCov;  /* full: nMix tables of dim rows of dim elements, or null */
  void **InverseCovD;  /* diagonal: nMix rows of dim elements, or null */
  float *coefs;        /* s: weight x normalisation per component; w: null */
  void *work;          /* nMix component likelihoods of the last evaluation:
                          float (s) or 32-bit Q30 (w) */
  int dim;
  int nMix;
  int flags;           /* GAUSS_SERVER_* */
  int scale;           /* w: binary exponent of the matrix values (v * 2^scale); s: 0 */
  int count;           /* training vectors behind the estimate; 1 when initialised */
  int size;            /* block size in bytes */
} GaussMixServer;

/* Creation from caller arrays (copied). Exactly one of InverseCov (nMix x
 * dim row pointers) and InverseCovD (nMix rows) is non-null. Of flags only
 * GAUSS_SERVER_NORM is kept; the s form then multiplies each weight by
 * sqrt(|det|) of the component's inverse covariance. The w form stores
 * `scale` as the exponent of the matrix values and computes no factor. */
XKL_API GaussMixServer *XKsInitGaussMixServer(const float *weights, float **means, float ***InverseCov,
                                              float **InverseCovD, int dim, int nMix, int flags);
XKL_API GaussMixServer *XKwInitGaussMixServer(const short *weights, short **means, short ***InverseCov,
                                              short **InverseCovD, int dim, int nMix, int flags, int scale);
XKL_API void XKsFreeGaussMixServer(GaussMixServer *server);
XKL_API void XKwFreeGaussMixServer(GaussMixServer *server);

/* New s server whose matrices are the inverses of the source's (diagonal:
 * element-wise reciprocals; full: Gauss-Jordan with column pivoting, whose
 * column exchanges stay applied to the result). Null for a singular matrix
 * or a tiny diagonal element. flags & GAUSS_SERVER_NORM sets the
 * normalisation: divided by sqrt(|det|) for a GAUSS_SERVER_COV source,
 * multiplied otherwise. Failing to get the scratch matrix for a full source
 * frees the source. */
XKL_API GaussMixServer *XKsInvertGaussianCovMatrix(GaussMixServer *server, int flags);

/* Releases the calling thread's Gauss scratch buffers. */
XKL_API void XKFreeGaussTbls(void);

/* sum_m coefs[m] * exp(-0.5 * Mahalanobis(x, mean m)): linear likelihood
 * without the (2 pi)^(-dim/2) factor. Writes server->work. */
XKL_API double XKsEvalGaussMix(GaussMixServer *server, const float *x, int dim);

/* Fixed-point form: sum_m weights[m] * exp(-0.5 * d_m * 2^scale) with the
 * component values in Q30 and a 64-bit accumulator S; the result stands for
 * S >> (30 + factor): scaleMode 1 reads the factor from *pScaleFactor, 2
 * chooses it (written back), any other mode uses 0 (written back). A
 * one-component server returns scaleMode and leaves *pScaleFactor alone.
 * pScaleFactor may be null. */
XKL_API int XKwEvalGaussMix(GaussMixServer *server, const short *x, int dim, int scaleMode, int *pScaleFactor);

/* One-component servers holding the mean and the unbiased covariance
 * (GAUSS_SERVER_COV) of nVectors >= 2 vectors; flags & GAUSS_SERVER_FULL
 * selects a full matrix. The w forms keep the means in the vectors' units
 * (rounded) and store the covariances with the exponent in `scale`, chosen
 * so that the largest magnitude uses 15 bits; the weight is 1. */
XKL_API GaussMixServer *XKsBuildGaussMixServer(float **vectors, int nVectors, int dim, int flags);
XKL_API GaussMixServer *XKwBuildGaussMixServer(short **vectors, int nVectors, int dim, int flags);

/* New server pooling the statistics of `server` (made by Build or Train)
 * with those of nVectors >= 2 further vectors; `server` is unchanged. */
XKL_API GaussMixServer *XKsTrainGaussMixServer(GaussMixServer *server, float **vectors, int nVectors, int dim);
XKL_API GaussMixServer *XKwTrainGaussMixServer(GaussMixServer *server, short **vectors, int nVectors, int dim);

/* Files: tag "GAUS", the twelve header words and the data area in the 32-bit
 * little-endian layout; pointer words hold 32-bit offsets from the block
 * start (0 for null). Write returns 1 on success, 0 on failure. */
XKL_API int XKWriteGaussMixServer(FILE *file, GaussMixServer *server);
XKL_API GaussMixServer *XKReadGaussMixServer(FILE *file);

/* Flavour conversion; the source is kept. s to w: weights, means and
 * matrices converted with fixed scales (value = w * 2^scale); the result's
 * `scale` is covScale. w to s: each element v becomes v * 2^scale with the
 * given scales (pass the source's `scale` as covScale to undo s to w);
 * GAUSS_SERVER_NORM coefficients are recomputed. */
XKL_API GaussMixServer *XKswConvertGaussMixServer(GaussMixServer *server, int weightScale, int meanScale,
                                                  int covScale);
XKL_API GaussMixServer *XKwsConvertGaussMixServer(GaussMixServer *server, int weightScale, int meanScale,
                                                  int covScale);

XKL_EXTERN_C_END

#endif /* XKL_XK_GAUSS_H */
