/* Template matching: per-thread pattern stores, dynamic time warping and
 * pattern files, float (s) and 16-bit fixed-point (w) flavours.
 *
 * Patterns are sequences of feature vectors (one per frame) kept by the
 * library in a store private to the calling thread and referred to by a
 * small positive id: a new pattern gets the smallest id not in use in its
 * store. The float and 16-bit stores are independent. */
#ifndef XKL_XK_DTW_H
#define XKL_XK_DTW_H

#include <stdio.h>
#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* One stored float pattern, a node of its store's doubly linked list (in
 * insertion order). data is a two-dimensional table (XKsAlloc2) of nFrames
 * rows of dim values. Read-only for applications. */
typedef struct XKsPattern {
  struct XKsPattern *next;
  struct XKsPattern *previous;
  int isHead;  /* 1 for the first record of the list */
  int id;
  float **data;
  int nFrames;
  int dim;
} XKsPattern;

/* One stored 16-bit pattern. data holds the values w (XKwAlloc2 table,
 * nFrames x dim) standing for w * 2^scale; floatData is the float copy of the
 * same values, w * 2^scale (XKsAlloc2 table), which the float evaluation
 * uses. */
typedef struct XKwPattern {
  struct XKwPattern *next;
  struct XKwPattern *previous;
  int isHead;
  int id;
  short **data;
  int reserved;  /* unused */
  float **floatData;
  int nFrames;
  int dim;
  int scale;
} XKwPattern;

/* Creation: copies nFrames vectors of dim values (frames[i] points to frame
 * i) into a new pattern. Returns the new id, or -1 after reporting
 * XK_StsNoMem. The 16-bit form also stores the scale and the float copy. */
XKL_API int XKsPatternIni(float **frames, int nFrames, int dim);
XKL_API int XKwPatternIni(short **frames, int nFrames, int dim, int scale);

/* Lookup: on success writes the pattern's table (owned by the store, valid
 * until the pattern is freed; do not free it), its frame count, dim (and
 * scale) and returns the id; returns 0 when there is no such pattern (an
 * empty store also reports XK_StsError). Null out-pointers are skipped. */
XKL_API int XKsPatternGet(int id, float ***data, int *nFrames, int *dim);
XKL_API int XKwPatternGet(int id, short ***data, int *nFrames, int *dim, int *scale);

/* Release of one pattern (0, or -1 after a report) or of the whole store
 * (0, or -1 if any record could not be released). */
XKL_API int XKsPatternFree(int id);
XKL_API int XKwPatternFree(int id);
XKL_API int XKsPatternFreeAll(void);
XKL_API int XKwPatternFreeAll(void);

/* Number of patterns in the calling thread's store. */
XKL_API int XKsPatternsNumber(void);
XKL_API int XKwPatternsNumber(void);

/* flags of the DTW evaluation (values of the documented flag word; the
 * names are this library's own). */
#define XKL_DTW_FIXED_ENDS    1    /* no free start or end: delta is taken as 0 */
#define XKL_DTW_USE_THRESHOLD 64   /* prune with `threshold` */
#define XKL_DTW_CITY_BLOCK    128  /* local distance L1; otherwise Euclidean (L2) */

/* Score of a pattern that is not admitted (other dim, or a length outside
 * floor((nTest-1)/2)+1 .. 2*nTest-1+|delta|). */
#define XKL_DTW_NO_SCORE 3.4e38

/* Matches the test utterance test[0..nTest-1] (vectors of dim values)
 * against the float patterns patternIds[0..nPatterns-1] of the thread's
 * store. Writes one accumulated distance per pattern to scores (not divided
 * by the path length; the threshold when pruning ended the pattern, and
 * XKL_DTW_NO_SCORE for a pattern not admitted) and returns the index of the
 * first pattern with the smallest score (0 when none is below
 * XKL_DTW_NO_SCORE), or -1 after reporting XK_StsNoMem. The warping path has
 * local slopes 1/2..2 and may start within the first |delta| reference
 * frames and end within |delta| frames of the reference's end. Every id must
 * name a pattern of the store. */
XKL_API int XKsEvalDTW(const int *patternIds, int nPatterns, float **test, int nTest, int dim, int flags,
                       double threshold, int delta, double *scores);

/* The same for 16-bit patterns and a 16-bit test utterance whose values
 * stand for w * 2^testScale. The threshold stands for
 * threshold * 2^thresholdScale.
 * scaleMode XK_AUTO_SCALE: evaluated in float on the patterns' float copies;
 *   the double scores are converted to scores with XKdibConvertDown
 *   (the chosen scale is written to *scaleFactor).
 * Other scale modes: evaluated on 32-bit integers from the 16-bit values;
 *   the threshold is compared as the plain integer `threshold`; a local
 *   distance is the 16-bit norm of the difference truncated to an integer
 *   (with XK_FIXED_SCALE divided by 2^*scaleFactor first); sums saturate at
 *   0x7FFFFFFF, which also marks an unreachable cell and is written for a
 *   pattern that is not admitted. */
XKL_API int XKwEvalDTW(const int *patternIds, int nPatterns, short **test, int nTest, int dim,
                       int testScale, int flags, int threshold, int thresholdScale, int delta,
                       int *scores, int scaleMode, int *scaleFactor);

/* Pattern files: one record per pattern, several records per stream, in
 * the layout below (32-bit little-endian integers, IEEE floats, 16-bit
 * little-endian values), whatever the host.
 *   float record:  "DTW ", id, isHead, dim, nFrames, nFrames*dim floats
 *   16-bit record: "DTW ", id, isHead, dim, nFrames, scale,
 *                  nFrames*dim floats (the float copy), nFrames*dim shorts
 * Writing fails silently. Reading appends a pattern with the file's id
 * (even one already in use) to the store and returns that id, or returns
 * -1 and leaves the store unchanged; the stream is left wherever the failed
 * read stopped. */
#define XKL_DTW_MAGIC 0x20575444 /* "DTW " read as a little-endian integer */

XKL_API void XKsWriteDTWPattern(FILE *stream, int id);
XKL_API void XKwWriteDTWPattern(FILE *stream, int id);
XKL_API int XKsReadDTWPattern(FILE *stream);
XKL_API int XKwReadDTWPattern(FILE *stream);

XKL_EXTERN_C_END

#endif /* XKL_XK_DTW_H */
