/* Hidden Markov models: servers and classes, Viterbi and forward scoring,
 * discrete and continuous flavours, float (s) and 16-bit fixed-point (w).
 *
 * A server is a model held by the calling thread and named by a small
 * positive id (the lowest free id is reused first); a class is a set of
 * servers of one kind, named by its own id. Evaluators take a server id, or
 * minus a class id to score every member and report the best one. Ids are
 * private to the thread that made them.
 *
 * Representations: logarithmic servers hold costs, cost = -log10(p) for
 * float servers (smaller is better; an entry of 30.0 or more is impossible);
 * exponential servers (float only) hold plain probabilities (an entry <= 0
 * is impossible). Fixed-point servers hold 16-bit costs (32767 impossible)
 * or 16-bit linear values (<= 0 impossible).
 *
 * Matrices are given as row pointers: A has nStates rows of nStates values
 * a[i][j] (from state i to state j), B has nStates rows of nSymbols output
 * values, pi has nStates initial values. The library copies them. */
#ifndef XKL_XK_HMM_H
#define XKL_XK_HMM_H

#include "xkl_export.h"
#include "xk_gauss.h"

XKL_EXTERN_C_BEGIN

#define XK_HMM_LOGARITHMIC       0x1
#define XK_HMM_EXPONENTIAL       0x2
#define HMM_SERVER_SHORT         0x10
#define HMM_SERVER_FLOAT         0x20
#define HMM_SERVER_KERNEL_LAYOUT 0x100
#define HMM_SERVER_LEFT_RIGHT    0x1000
#define HMM_SERVER_BAKIS         0x2000
#define HMM_SERVER_SEMICONT      0x200000
#define HMM_SERVER_CONT          0x400000
#define HMM_SERVER_DISCRETE      0x800000
#define HMM_SERVER_OWNS_MIXTURES 0x40000000

/* Modes of XKSetHMMMode: what the representation converters do with the
 * original server (free it, or keep it beside the converted one). */
#define XK_HMM_MODE_FREE_ORIGINAL 0x4000000
#define XK_HMM_MODE_KEEP_ORIGINAL 0x8000000

/* The description of one state's mixture given to the continuous creators:
 * a Gauss mixture server record, whose weights, means, InverseCov,
 * InverseCovD, dim, nMix, flags (and, for w, scale) are passed to
 * XKsInitGaussMixServer / XKwInitGaussMixServer. Any server made by the
 * Gauss functions serves; the HMM makes and owns its own copies. */
typedef GaussMixServer mixture_description;

/* Discrete servers. Return the new id, or -1. flags: XK_HMM_LOGARITHMIC or
 * XK_HMM_EXPONENTIAL (s: neither means logarithmic, both fail; w: only
 * bit 0 is kept, and XK_HMM_EXPONENTIAL fails). */
XKL_API int XKsInitHMMServer(float **A, float **B, float *pi, int nStates, int nSymbols, int flags);
XKL_API int XKwInitHMMServer(short **A, short **B, short *pi, int nStates, int nSymbols, int flags);

/* Continuous servers: one Gauss mixture per state made from mix[i];
 * nQuant is the feature-vector length. param (w only) is the number of
 * fraction bits of the output costs that the fixed-point evaluator forms:
 * an output cost c stands for -ln(likelihood) = c * 2^-param, so the
 * transition and initial costs must be given in the same units. */
XKL_API int XKsInitContHMMServer(float **A, float *pi, mixture_description **mix, int nStates, int nQuant,
                                 int flags);
XKL_API int XKwInitContHMMServer(short **A, short *pi, mixture_description **mix, int nStates, int nQuant,
                                 int flags, int param);

/* Removes the server from every class and frees it (and the mixtures it
 * owns). Unknown ids are ignored. */
XKL_API void XKFreeHMMServer(int id);

/* Classes. Create returns the class id (-1 when memory fails); Delete,
 * Add and Remove return 1, or -1 for an unknown class or server (Add also
 * for a server whose kind differs from the class's members). */
XKL_API int XKCreateHMMClass(void);
XKL_API int XKDeleteHMMClass(int classId);
XKL_API int XKAddHMMToClass(int classId, int id);
XKL_API int XKRemoveHMMFromClass(int classId, int id);

/* Frees the semicontinuous codebooks, every class, every server and the
 * thread's HMM tables. Returns 0. */
XKL_API int XKHMMFreeAll(void);

/* Copies the server's fields to every non-null pointer; 0, or -1 for an
 * unknown id. param is the fixed-point parameter (0 for other servers),
 * status the HMM_SERVER_* and representation bits. */
XKL_API int XKGetHMMParm(int id, int *nStates, int *nSymbols, int *nQuant, int *param, int *status);

/* Unpacks the stored model into full caller matrices: pi (nStates values),
 * A (nStates rows of nStates), B (discrete: nStates rows of nSymbols
 * outputs; not used for continuous servers). Elements are float for s
 * servers and short for w servers. Entries the packed storage does not
 * hold get the representation's impossible value (largest float or 32767
 * for costs, 0 for probabilities). Null pointers skip a matrix. 0, or -1
 * for an unknown id. */
XKL_API int XKGetHMMProb(int id, void *pi, void **A, void **B);

/* XK_HMM_MODE_FREE_ORIGINAL or XK_HMM_MODE_KEEP_ORIGINAL; other values
 * change nothing. */
XKL_API void XKSetHMMMode(int mode);

/* Sets or changes a server's parameters (used by every creator). A
 * negative nStates, nSymbols or flags keeps the stored value; a null matrix
 * keeps the stored one. The tag is a free word kept with the server.
 * Matrices are float** for s servers and short** for w servers. */
XKL_API void XKSetHMMServerParm(int id, int tag, void **A, void **B, void *pi, int nStates, int nSymbols,
                                int flags);

/* Viterbi scoring of logarithmic servers: the least path cost over the
 * server, or over every member of class -idOrClass (*bestId gets the
 * winner; on equal costs the higher id wins). Discrete obs holds nFrames
 * symbols; continuous obs holds nFrames pointers to vectors of the
 * server's nQuant values. Failure: the largest float (s), 0x7FFFFFFF (w).
 * The w forms scale the best cost: with scaleMode 1, *scale = -s shifts it
 * left by s bits and *scale = s >= 0 right by s bits; otherwise *scale is
 * set to 0 and the raw cost returned. scale may be null. */
XKL_API float XKsEvalHMMViterbi(int idOrClass, const int *obs, int nFrames, int *bestId);
XKL_API int XKwEvalHMMViterbi(int idOrClass, const int *obs, int nFrames, int *bestId, int scaleMode, int *scale);
XKL_API float XKsEvalContHMMViterbi(int idOrClass, const float *const *obs, int nFrames, int *bestId);
XKL_API int XKwEvalContHMMViterbi(int idOrClass, const short *const *obs, int nFrames, int *bestId,
                                  int scaleMode, int *scale);

/* Forward scoring of exponential float servers: -log10 of the sequence's
 * probability summed over all paths, for the most probable candidate (on
 * equal probability the lower id wins). The largest float on failure,
 * including a zero probability for any member of a class. */
XKL_API float XKsEvalHMMForward(int idOrClass, const int *obs, int nFrames, int *bestId);
XKL_API float XKsEvalContHMMForward(int idOrClass, const float *const *obs, int nFrames, int *bestId);

XKL_EXTERN_C_END

#endif /* XKL_XK_HMM_H */
