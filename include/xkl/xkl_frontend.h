/* A streaming speech front end: framing, window, mel cepstra, energy,
 * deltas and cepstral normalisation, on live input or a whole utterance.
 *
 * Samples go in, in chunks of any size; feature frames come out. A frame is
 * one row of `dim` floats:
 *
 *   [ s_0 .. s_{C-1} | d_0 .. d_{C-1} | a_0 .. a_{C-1} ]
 *
 * with C = n_ceps statics, their deltas (when deltas >= 1) and their
 * delta-deltas (when deltas = 2). The statics are, by `energy`:
 *   XKL_ENERGY_NONE: c1 .. cC
 *   XKL_ENERGY_C0:   c0 .. c(C-1)
 *   XKL_ENERGY_LOG:  ln E, c1 .. c(C-1), with E the sum of squares of the
 *                    frame's samples as pushed (before pre-emphasis and
 *                    window), floored at `floor`.
 * The cepstra are those of XKsCepstralMFCC (decimal logarithm, orthonormal
 * DCT-II of the log mel filter outputs), liftered by XKsLiftering when
 * `lifter` > 0.
 *
 * Framing: frame t covers samples [t * shift, t * shift + length). A frame is
 * computed as soon as its last sample has been pushed. At the end of an
 * utterance (xkl_frontend_flush) one more frame, zero-padded, is computed
 * when samples remain that no frame has covered, so an utterance of n > 0
 * samples gives 1 + ceil(max(n - length, 0) / shift) frames.
 * Each frame is copied, pre-emphasised on its own (y[0] = x[0],
 * y[i] = x[i] - a x[i-1]), windowed and zero-padded to 2^fft_order.
 *
 * Latency: a frame becomes available to xkl_frontend_pull `latency` frames
 * after the frame whose samples complete it (xkl_frontend_latency): the
 * deltas add delta_window, the delta-deltas another delta_window, a sliding
 * normalisation cmn_window / 2. Normalisation over the whole utterance holds
 * every frame until the flush. The flush releases everything held.
 *
 * Results do not depend on how the samples are cut into chunks: the same
 * samples give the same frames, bit for bit, whatever the chunk sizes, and
 * xkl_frontend_compute (one call over a whole utterance) gives the frames of
 * push + flush.
 *
 * Errors: functions return 0 (or a count) on success and a negative status
 * (XK_StsBadArg, XK_StsNoMem, XK_StsError ...) or null on failure;
 * xkl_last_error() then says what went wrong. They never call the thread's
 * error handler and never end the process. One object is used by one thread
 * at a time; any number of objects may run in parallel. */
#ifndef XKL_XKL_FRONTEND_H
#define XKL_XKL_FRONTEND_H

#include <stddef.h>
#include "xkl_export.h"
#include "xkl_status.h"

XKL_EXTERN_C_BEGIN

enum {
  XKL_WINDOW_HAMMING = 0,     /* 0.54 - 0.46 cos(2 pi i / (L - 1)) */
  XKL_WINDOW_HANN = 1,        /* 0.5 - 0.5 cos(2 pi i / (L - 1)) */
  XKL_WINDOW_RECTANGULAR = 2
};

enum {
  XKL_ENERGY_NONE = 0,        /* statics c1 .. cC */
  XKL_ENERGY_C0 = 1,          /* statics c0 .. c(C-1) */
  XKL_ENERGY_LOG = 2          /* statics ln E, c1 .. c(C-1) */
};

enum {
  XKL_SPECTRUM_POWER = 0,     /* logarithm of the power spectrum, then the filters */
  XKL_SPECTRUM_MAGNITUDE = 1  /* filters on the magnitude spectrum, then the logarithm */
};

enum {
  XKL_CMN_NONE = 0,
  XKL_CMN_UTTERANCE = 1,      /* mean (and variance) over the whole utterance */
  XKL_CMN_SLIDING = 2         /* over a centred window of cmn_window frames */
};

enum {
  XKL_ARITH_FLOAT = 0,        /* XKsPreemphasize, XKsCepstralMFCC, XKsLiftering */
  XKL_ARITH_FIXED16 = 1       /* XKwPreemphasize, XKwCepstralMFCC, XKwLiftering */
};

typedef struct xkl_frontend_config {
  int sample_rate;   /* Hz (default 16000) */
  float frame_ms;    /* frame length in milliseconds (25) */
  float shift_ms;    /* frame shift in milliseconds (10) */
  int frame_length;  /* frame length in samples; > 0 overrides frame_ms (0) */
  int frame_shift;   /* frame shift in samples; > 0 overrides shift_ms (0) */
  float preemphasis; /* coefficient a, 0 to 1 (0.97); 0 turns it off */
  int window;        /* XKL_WINDOW_... (Hamming) */
  int fft_order;     /* FFT of 2^fft_order points; 0: the smallest that holds the frame (0) */
  int n_filters;     /* mel filters (26) */
  int low_freq;      /* Hz, lower edge of the first filter (0) */
  int high_freq;     /* Hz, upper edge of the last filter; 0: sample_rate / 2 (0) */
  int n_linear;      /* leading filters spaced linearly in hertz (0: all mel) */
  int linear_freq;   /* Hz, upper end of the linear group */
  int n_ceps;        /* statics per frame, C (13) */
  int energy;        /* XKL_ENERGY_... (XKL_ENERGY_LOG) */
  int lifter;        /* sine lifter L; 0 turns it off (22) */
  int spectrum;      /* XKL_SPECTRUM_... (power) */
  float floor;       /* lower bound before each logarithm, > 0 (1e-10) */
  int deltas;        /* 0 statics only, 1 + deltas, 2 + delta-deltas (0) */
  int delta_window;  /* regression half-width K of the deltas (2) */
  int cmn;           /* XKL_CMN_... (none) */
  int cmn_window;    /* frames of the sliding window, odd (301) */
  int cvn;           /* non-zero: also divide by the standard deviation (0) */
  int arithmetic;    /* XKL_ARITH_... (float) */
} xkl_frontend_config;

typedef struct xkl_frontend xkl_frontend;

/* Fills `config` with the defaults given above (16 kHz; for 8 kHz speech
 * set sample_rate to 8000 and keep the rest). */
XKL_API void xkl_frontend_config_init(xkl_frontend_config *config);

/* Checks `config` and fills in what it leaves to the front end: frame_length
 * and frame_shift in samples, fft_order and high_freq. Returns 0, or
 * XK_StsBadArg with xkl_last_error() naming the field. */
XKL_API int xkl_frontend_config_resolve(xkl_frontend_config *config);

/* Creates a front end; null on a bad configuration or a lack of memory. */
XKL_API xkl_frontend *xkl_frontend_new(const xkl_frontend_config *config);
XKL_API void xkl_frontend_free(xkl_frontend *fe); /* null is ignored */

/* The resolved configuration, floats per frame, and the latency in frames
 * (-1 when every frame is held until the flush). */
XKL_API const xkl_frontend_config *xkl_frontend_get_config(const xkl_frontend *fe);
XKL_API int xkl_frontend_dim(const xkl_frontend *fe);
XKL_API int xkl_frontend_latency(const xkl_frontend *fe);

/* Appends n samples of the current utterance. With 16-bit arithmetic, float
 * samples are rounded to the nearest integer and saturated to 16 bits (they
 * are expected on the 16-bit scale); with float arithmetic the samples are
 * taken as they are, at any scale. Returns 0 or a negative status. */
XKL_API int xkl_frontend_push(xkl_frontend *fe, const float *samples, size_t n);
XKL_API int xkl_frontend_push_i16(xkl_frontend *fe, const short *samples, size_t n);

/* Ends the utterance: computes the padded last frame and everything held
 * back by deltas and normalisation. The next push starts a new utterance.
 * Frames not yet pulled stay available. Returns 0 or a negative status. */
XKL_API int xkl_frontend_flush(xkl_frontend *fe);

/* Frames ready to pull, and the pull itself: copies up to max_frames frames
 * (max_frames * dim floats, row after row) and returns how many. */
XKL_API int xkl_frontend_available(const xkl_frontend *fe);
XKL_API int xkl_frontend_pull(xkl_frontend *fe, float *features, int max_frames);

/* Drops the current utterance and every frame not yet pulled. */
XKL_API void xkl_frontend_reset(xkl_frontend *fe);

/* ---- whole utterances ---- */

/* Number of frames an utterance of n samples gives. */
XKL_API int xkl_frontend_frame_count(const xkl_frontend_config *config, size_t n);

/* Features of a whole utterance (push, flush, pull on a fresh front end)
 * into `features`, which holds max_frames * dim floats. Returns the number of
 * frames, or a negative status (XK_StsBadArg when max_frames is too small). */
XKL_API int xkl_frontend_compute(const xkl_frontend_config *config, const float *samples,
                                 size_t n, float *features, int max_frames);
XKL_API int xkl_frontend_compute_i16(const xkl_frontend_config *config, const short *samples,
                                     size_t n, float *features, int max_frames);

/* Regression deltas of a frames x dim matrix (row after row):
 *   out[t] = sum_{k=1..K} k (in[t+k] - in[t-k]) / (2 sum_{k=1..K} k^2),
 * rows before the first and after the last taken equal to them. `out` must
 * not overlap `in`. Returns 0 or XK_StsBadArg. */
XKL_API int xkl_deltas(const float *in, int frames, int dim, int window, float *out);

/* Mean (and with `variance` non-zero, variance) normalisation of a
 * frames x dim matrix in place, per column: over all frames with
 * XKL_CMN_UTTERANCE, over the centred window of `window` frames (cut at the
 * ends of the matrix) with XKL_CMN_SLIDING. A column with no spread keeps
 * its centred values. Returns 0 or XK_StsBadArg. */
XKL_API int xkl_normalize(float *features, int frames, int dim, int mode, int window,
                          int variance);

XKL_EXTERN_C_END

#endif /* XKL_XKL_FRONTEND_H */
