/* Distances and vector quantization: Mahalanobis distances, binary-split
 * codebooks with tree search, and the competitive step of a Kohonen
 * quantizer, in float (s) and 16-bit fixed-point (w) flavours. */
#ifndef XKL_XK_VQ_H
#define XKL_XK_VQ_H

#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* ---- Mahalanobis distances ----
 * D = sum_i A[i][i] d_i^2 + 2 sum_i d_i sum_{j<i} A[i][j] d_j, d = x - m,
 * A the inverse covariance; sqrtFlag nonzero returns sqrt(D). None of the
 * four checks its arguments or reports.
 *
 * Full forms take the lower triangle as n row pointers, row i holding the
 * i + 1 elements of columns 0..i (2-D tables from XKsAlloc2/XKwAlloc2 serve).
 * Diagonal forms (suffix D) take the n inverse variances.
 *
 * 16-bit forms, scaleMode 0 and 1: differences wrap in 16 bits, sums wrap in
 * 32 bits; the diagonal terms are d_i * (d_i * A_i) with the inner product
 * kept to 16 bits, so callers keep d * A within -32768..32767. sqrtFlag gives
 * the integer root (rounded down) of D read as unsigned. Mode 0 returns the
 * value; mode 1 shifts it right by *scaleFactor (left for a negative scale;
 * a null scaleFactor is scale 0). Any other mode computes D in double from
 * the same differences and converts it with XKdiConvertDown(D, scaleMode,
 * scaleFactor): mode 2 writes the chosen scale, others saturate and write 0. */
XKL_API double XKsMahalanobis(const float *x, const float *m, float *const *invCov, int n, int sqrtFlag);
XKL_API double XKsMahalanobisD(const float *x, const float *m, const float *invVar, int n, int sqrtFlag);
XKL_API int XKwMahalanobis(const short *x, const short *m, short *const *invCov, int n, int sqrtFlag,
                           int scaleMode, int *scaleFactor);
XKL_API int XKwMahalanobisD(const short *x, const short *m, const short *invVar, int n, int sqrtFlag,
                            int scaleMode, int *scaleFactor);

/* ---- Codebooks ---- */

/* Construction flags. XK_CDBK_EUCLID is required. Without a split rule only
 * codebooks of one or two codewords can be built. */
#define XK_CDBK_EUCLID        0x4    /* Euclidean distance (L2 norm of the difference) */
#define XK_CDBK_SPLIT_BIGGEST 0x100  /* split the leaf holding the most vectors */
#define XK_CDBK_SPLIT_WIDEST  0x200  /* split the leaf of the largest diameter (if 0x100 is absent) */

/* Values of XKCodebook.flags: 1 (float) or 2 (16-bit) while building, then
 * with XK_CDBK_EUCLID added: 5 or 6. */

/* One cluster of the binary tree. `centroid` points to dim floats in a float
 * codebook and to dim shorts in a 16-bit one. Leaves keep the numbers of
 * their training vectors in `indices` (count entries); inner nodes have
 * indices == NULL and both children. */
typedef struct XKCodebookNode {
  double diameter;              /* distance between the two farthest members */
  int farA, farB;               /* their positions in indices, farA <= farB */
  void *centroid;               /* the codeword */
  int leafNumber;               /* 1-based, leaves numbered left to right; 0 for inner nodes */
  int count;                    /* number of training vectors in the node */
  int *indices;                 /* training vector numbers (NULL once split) */
  int isLeaf;                   /* 1 leaf, 0 inner node */
  int code;                     /* heap number: root 1, children of k: 2k and 2k+1 (mod 2^32) */
  struct XKCodebookNode *left, *right;
} XKCodebookNode;

typedef struct XKCodebook {
  int depth;         /* tree levels (1 for a single leaf) */
  int size;          /* number of codewords */
  int dim;           /* vector dimension */
  int flags;         /* see above */
  void **codewords;  /* size pointers: the centroid of leaf k at entry k - 1 */
  XKCodebookNode *root;
} XKCodebook;

/* Builds a codebook of `size` codewords from nVectors training vectors of
 * dim elements (vectors: nVectors row pointers) by binary splitting. labels,
 * if not NULL, receives for each training vector its 1-based leaf number
 * (nVectors ints). Returns NULL after a report ("No distance is choosen in
 * input flags.", "codebook of given size can not be constructed", or a memory
 * failure). The caller frees the result with XK_FreeCodebook. */
XKL_API XKCodebook *XKsMakeCodebook(float *const *vectors, int *labels, int nVectors, int dim, int size,
                                    int flags);
XKL_API XKCodebook *XKwMakeCodebook(short *const *vectors, int *labels, int nVectors, int dim, int size,
                                    int flags);

/* Quantizes nVectors vectors by descending the tree: indices (if not NULL)
 * receives each vector's 1-based codeword number, *distortion the mean
 * distance to the chosen codewords (0 for nVectors < 1). A vector that
 * reaches no leaf gets index 0 and one report follows the loop. The 16-bit
 * form computes its distances with kfxwNormExt(..., KFX_L2, scaleMode,
 * scaleFactor) and converts the mean with XKdiConvertDown(mean, scaleMode,
 * scaleFactor). */
XKL_API void XKsVQCodebook(const XKCodebook *codebook, float *const *vectors, int *indices, int nVectors,
                           int dim, double *distortion);
XKL_API void XKwVQCodebook(const XKCodebook *codebook, short *const *vectors, int *indices, int nVectors,
                           int dim, int *distortion, int scaleMode, int *scaleFactor);

/* Frees the tree, the codeword table and the record; NULL does nothing. */
XKL_API void XK_FreeCodebook(XKCodebook *codebook);

/* ---- Kohonen competitive step ----
 * dist[k] (n elements) receives the squared Euclidean distance from x to
 * codewords[k] (its root when takeRoot is nonzero; for dim < 2 only element 0
 * counts). best receives the positions of the nBest nearest codewords in
 * ascending distance (a selection with swaps: with nBest == 1 the first of
 * equal distances wins, beyond that equal distances may change places); it
 * must hold n elements: nBest > 1 writes all n, and nBest == 1 writes
 * best[0] = p and then best[p] = 0. nBest >= n is lowered to n - 1; nBest <= 0 leaves best
 * untouched.
 *
 * 16-bit form: dist is int. Modes 0 and 1: exact integer sums of squared
 * differences (the integer root when takeRoot is nonzero), shifted right by
 * *scaleFactor in mode 1 (left for a negative scale), saturated to the int
 * range. Other modes: the sums in long double (their roots), converted as
 * one block by XKdibConvertDown(dist, n, scaleMode, scaleFactor). The order
 * follows the exact distances. A null scaleFactor stands for scale 0. */
XKL_API void XKsVQKohonen(const float *x, float *const *codewords, float *dist, int dim, int n, int *best,
                          int nBest, int takeRoot);
XKL_API void XKwVQKohonen(const short *x, short *const *codewords, int *dist, int dim, int n, int *best,
                          int nBest, int takeRoot, int scaleMode, int *scaleFactor);

XKL_EXTERN_C_END

#endif /* XKL_XK_VQ_H */
