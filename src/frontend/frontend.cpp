// The streaming front end: framing, per-frame features through the
// library's own pre-emphasis and cepstrum functions (and its lifter weights),
// then the cross-frame stages (normalisation, deltas) and a queue of finished
// frames.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "features/features_internal.h"
#include "frame/last_error.h"
#include "frontend/dynamics.h"
#include "frontend/framing.h"
#include "xkl.h"

using xk::fail;
using namespace xk::frontend;

namespace {

constexpr int kMaxFftOrder = 15;  // 32768 points: 2 s at 16 kHz per frame

// The 16-bit cepstra come back with a fixed scale of 2^-7 (range +-256):
// far above any cepstrum of 16-bit speech, with room for the lifter to raise
// them without saturating, and a resolution of 1/128.
constexpr int kFixedCepsScale = -7;

// Rounds and saturates a float sample to 16 bits.
short toShort(float v) {
  if (!(v == v)) return 0;
  const float r = std::nearbyint(v);
  return static_cast<short>(std::clamp(r, -32768.0f, 32767.0f));
}

int checkConfig(xkl_frontend_config &c) {
  if (c.sample_rate <= 0) return fail(XK_StsBadArg, "sample_rate must be positive");
  if (c.frame_length <= 0) {
    if (!(c.frame_ms > 0.0f)) return fail(XK_StsBadArg, "frame_ms must be positive");
    const double len = std::round(static_cast<double>(c.frame_ms) * c.sample_rate / 1000.0);
    if (len < 1.0 || len > (1 << kMaxFftOrder))
      return fail(XK_StsBadArg, "frame_ms gives %.0f samples (1 to %d allowed)", len,
                  1 << kMaxFftOrder);
    c.frame_length = static_cast<int>(len);
  }
  if (c.frame_shift <= 0) {
    if (!(c.shift_ms > 0.0f)) return fail(XK_StsBadArg, "shift_ms must be positive");
    const double len = std::round(static_cast<double>(c.shift_ms) * c.sample_rate / 1000.0);
    if (len < 1.0 || len > (1 << 24))
      return fail(XK_StsBadArg, "shift_ms gives %.0f samples (1 to %d allowed)", len, 1 << 24);
    c.frame_shift = static_cast<int>(len);
  }
  if (c.frame_length < 2 || c.frame_length > (1 << kMaxFftOrder))
    return fail(XK_StsBadArg, "frame_length must be 2 to %d samples", 1 << kMaxFftOrder);
  if (c.frame_shift > (1 << 24)) return fail(XK_StsBadArg, "frame_shift is too large");
  if (c.fft_order == 0) {
    while ((1 << c.fft_order) < c.frame_length) ++c.fft_order;
    c.fft_order = std::max(c.fft_order, 1);
  }
  if (c.fft_order < 1 || c.fft_order > kMaxFftOrder)
    return fail(XK_StsBadArg, "fft_order must be 1 to %d", kMaxFftOrder);
  if ((1 << c.fft_order) < c.frame_length)
    return fail(XK_StsBadArg, "the FFT (%d points) is shorter than the frame (%d samples)",
                1 << c.fft_order, c.frame_length);
  if (!(c.preemphasis >= 0.0f && c.preemphasis <= 1.0f))
    return fail(XK_StsBadArg, "preemphasis must be 0 to 1");
  if (c.window < XKL_WINDOW_HAMMING || c.window > XKL_WINDOW_RECTANGULAR)
    return fail(XK_StsBadArg, "window must be XKL_WINDOW_HAMMING, _HANN or _RECTANGULAR");
  if (c.high_freq == 0) c.high_freq = c.sample_rate / 2;
  if (c.low_freq < 0 || c.high_freq <= c.low_freq || c.high_freq > c.sample_rate / 2)
    return fail(XK_StsBadArg,
                "the filters need 0 <= low_freq < high_freq <= sample_rate / 2 (%d, %d, %d)",
                c.low_freq, c.high_freq, c.sample_rate);
  if (c.n_filters < 1 || c.n_filters > 1024)
    return fail(XK_StsBadArg, "n_filters must be 1 to 1024");
  if (c.n_linear < 0 || c.n_linear > c.n_filters)
    return fail(XK_StsBadArg, "n_linear must be 0 to n_filters");
  if (c.n_linear > 0 && (c.linear_freq <= c.low_freq || c.linear_freq >= c.high_freq))
    return fail(XK_StsBadArg, "linear_freq must lie between low_freq and high_freq");
  if (c.energy < XKL_ENERGY_NONE || c.energy > XKL_ENERGY_LOG)
    return fail(XK_StsBadArg, "energy must be XKL_ENERGY_NONE, _C0 or _LOG");
  // Without c0 the statics are c1 .. cC, so the bank must give C + 1 cepstra.
  const int needed = c.n_ceps + (c.energy == XKL_ENERGY_NONE ? 1 : 0);
  if (c.n_ceps < 1 || needed > c.n_filters)
    return fail(XK_StsBadArg, "n_ceps must be 1 to %d with %d filters",
                c.n_filters - (c.energy == XKL_ENERGY_NONE ? 1 : 0), c.n_filters);
  if (c.lifter < 0) return fail(XK_StsBadArg, "lifter must be 0 (off) or positive");
  if (c.spectrum != XKL_SPECTRUM_POWER && c.spectrum != XKL_SPECTRUM_MAGNITUDE)
    return fail(XK_StsBadArg, "spectrum must be XKL_SPECTRUM_POWER or _MAGNITUDE");
  if (!(c.floor > 0.0f) || !std::isfinite(c.floor))
    return fail(XK_StsBadArg, "floor must be a positive number");
  if (c.deltas < 0 || c.deltas > 2) return fail(XK_StsBadArg, "deltas must be 0, 1 or 2");
  if (c.deltas > 0 && (c.delta_window < 1 || c.delta_window > kMaxDeltaWindow))
    return fail(XK_StsBadArg, "delta_window must be 1 to %d", kMaxDeltaWindow);
  if (c.cmn < XKL_CMN_NONE || c.cmn > XKL_CMN_SLIDING)
    return fail(XK_StsBadArg, "cmn must be XKL_CMN_NONE, _UTTERANCE or _SLIDING");
  if (c.cmn == XKL_CMN_SLIDING && (c.cmn_window < 1 || c.cmn_window > kMaxNormWindow))
    return fail(XK_StsBadArg, "cmn_window must be 1 to %d frames", kMaxNormWindow);
  if (c.cvn != 0 && c.cmn == XKL_CMN_NONE)
    return fail(XK_StsBadArg, "cvn needs cmn (the variance is taken over the cmn window)");
  if (c.arithmetic != XKL_ARITH_FLOAT && c.arithmetic != XKL_ARITH_FIXED16)
    return fail(XK_StsBadArg, "arithmetic must be XKL_ARITH_FLOAT or XKL_ARITH_FIXED16");
  return 0;
}

}  // namespace

// The object. Frames flow: samples -> statics (one row per frame) ->
// normaliser -> deltas -> delta-deltas -> output queue; each stage is a
// RowSink of the one before.
struct xkl_frontend {
  xkl_frontend_config cfg{};
  int dim = 0, nStatics = 0, nInternal = 0, latency = 0, flags = 0;
  // The 16-bit path's cepstrum flags and input scale, and the log2 offset
  // of its magnitudes from the float path's before the frame's gain.
  int fixedFlags = 0, fixedInScale = 0, fixedC0Flags = 0, fixedFloor = 1;
  double fixedLog2Offset = 0.0;
  XKMFCCFilters *bank = nullptr;
  bool fixed = false;

  // Samples of the current utterance from the next frame's start on.
  std::vector<float> pending;
  size_t head = 0;        // index in pending of the next frame's start
  size_t skip = 0;        // samples still to drop before the next frame (shift > length)
  long framesDone = 0;    // frames computed in this utterance
  long long samplesIn = 0;

  std::vector<float> window;      // float window
  std::vector<short> windowQ15;   // the same with 15 fraction bits
  std::vector<float> work;        // 2^fft_order float frame
  std::vector<float> padded;      // the zero-padded last frame's samples
  std::vector<short> work16;      // 2^fft_order 16-bit frame
  std::vector<float> ceps;
  std::vector<double> lift;       // float path: the lifter's weights (empty: none)
  std::vector<short> ceps16;

  Normalizer norm;
  Deltas delta1, delta2;

  std::vector<float> out;  // finished frames, row after row
  size_t outRead = 0;      // floats of `out` already pulled
  size_t outEnd = 0;       // floats of `out` written (out.size() is its capacity)

  // Stage links: where each stage writes its rows, and what follows.
  float *outRow = nullptr;  // the output row being filled
  struct ToDeltas final : RowSink {
    xkl_frontend *fe;
    float *slot(long) override {
      return fe->cfg.deltas == 0 ? fe->nextOutput() : fe->delta1.slot();
    }
    void take(long) override {
      if (fe->cfg.deltas != 0) fe->delta1.push(fe->toDeltaDeltas);
    }
  } toDeltas;
  struct ToDeltaDeltas final : RowSink {
    xkl_frontend *fe;
    float *slot(long) override {
      if (fe->cfg.deltas == 2) return fe->delta2.slot();
      fe->outRow = fe->nextOutput();
      return fe->outRow + fe->nStatics;
    }
    void take(long index) override {
      if (fe->cfg.deltas == 2)
        fe->delta2.push(fe->toOutput);
      else
        fe->copyStatics(index, fe->outRow);
    }
  } toDeltaDeltas;
  struct ToOutput final : RowSink {
    xkl_frontend *fe;
    float *slot(long) override {
      fe->outRow = fe->nextOutput();
      return fe->outRow + 2 * fe->nStatics;
    }
    void take(long index) override {
      fe->copyStatics(index, fe->outRow);
      const float *d = fe->delta2.input(index);
      std::copy(d, d + fe->nStatics, fe->outRow + fe->nStatics);
    }
  } toOutput;

  // Room for one more frame at the end of the queue (grown by doubling).
  float *nextOutput() {
    const size_t at = outEnd;
    if (out.size() - at < static_cast<size_t>(dim))
      out.resize(std::max(2 * out.size(), 128 * static_cast<size_t>(dim)));
    outEnd += static_cast<size_t>(dim);
    return out.data() + at;
  }
  // The normalised statics of frame `index`, still held by the deltas.
  void copyStatics(long index, float *o) const {
    const float *s = delta1.input(index);
    std::copy(s, s + nStatics, o);
  }

  // `quiet` is the caller's guard: the library's reports of this call go
  // to it, and a frame checks it after its own calls.
  int computeFrame(const float *samples, int count, const xk::QuietReports &quiet);
  int pushSamples(const float *samples, size_t n, const xk::QuietReports &quiet);
  int finishUtterance(const xk::QuietReports &quiet);
  void clearUtterance();
};

// Statics of one frame (`count` samples, zero-padded to the frame length).
int xkl_frontend::computeFrame(const float *samples, int count, const xk::QuietReports &quiet) {
  const int len = cfg.frame_length, fftLen = 1 << cfg.fft_order;
  double energy = 0.0;
  if (!fixed) {
    float *w = work.data();
    const bool wantEnergy = cfg.energy == XKL_ENERGY_LOG;
    // The FFT's zero tail beyond the frame is set once: the cepstrum only
    // reads a time-domain input, and frames write the first `len` samples.
    if (count < len) {
      // The padded last frame: its zeros take part in every stage.
      float *p = padded.data();
      std::copy(samples, samples + count, p);
      std::fill(p + count, p + len, 0.0f);
      samples = p;
    }
    energy = prepareFrame(samples, len, cfg.preemphasis, window.data(), w, wantEnergy);
    XKsCepstralMFCC(bank, w, ceps.data(), nInternal, cfg.floor, flags);
  } else {
    short *w = work16.data();
    for (int i = 0; i < count; ++i) w[i] = static_cast<short>(samples[i]);
    std::fill(w + count, w + fftLen, static_cast<short>(0));
    if (cfg.energy == XKL_ENERGY_LOG) energy = kfxwNorm(w, nullptr, len, KFX_L2SQ);
    int scale = 0;
    if (cfg.preemphasis != 0.0f) XKwPreemphasize(w, cfg.preemphasis, len, 3, &scale);
    const short *win = windowQ15.data();
    for (int i = 0; i < len; ++i) w[i] = static_cast<short>((w[i] * win[i] + 16384) >> 15);
    // Block floating point: the frame is raised to just below half of full
    // scale, so the integer FFT (which divides by 2^(order-1)) keeps the
    // quiet bins well above its rounding and can never overflow. The gain
    // only adds a constant to every log magnitude, which lands in c0 alone.
    int peak = 0;
    for (int i = 0; i < len; ++i) peak = std::max(peak, std::abs(static_cast<int>(w[i])));
    int gain = 0;
    while (peak != 0 && (peak << (gain + 1)) <= 16383) ++gain;
    for (int i = 0; i < len; ++i) w[i] = static_cast<short>(w[i] * (1 << gain));
    int outScale = kFixedCepsScale;
    // Without c0 the cepstra land one place on, so that the lifter sees
    // every coefficient at its own index.
    const int first = (fixedFlags & XK_MFCC_C0) ? 0 : 1;
    ceps16[0] = 0;
    XKwCepstralMFCC(bank, w, ceps16.data() + first, nInternal - first, fixedFloor, fixedFlags,
                    fixedInScale, 1, &outScale);
    if (fixedC0Flags != 0)
      XKwCepstralMFCC(bank, w, ceps16.data(), 1, 1, fixedC0Flags, 0, 1, &outScale);
    if (cfg.lifter > 0) XKwLiftering(ceps16.data(), nInternal, cfg.lifter);
    const float unit = std::ldexp(1.0f, kFixedCepsScale);
    for (int i = 0; i < nInternal; ++i)
      ceps[static_cast<size_t>(i)] = ceps16[static_cast<size_t>(i)] * unit;
    // c0 back on the float path's level: every log10 magnitude of the
    // 16-bit path is off by (gain + log2 of the path's fixed scale) log10 2.
    if (cfg.energy == XKL_ENERGY_C0)
      ceps[0] -= static_cast<float>(std::sqrt(static_cast<double>(cfg.n_filters)) *
                                    (gain + fixedLog2Offset) * 0.30102999566398120);
  }
  if (quiet.failed())
    return fail(quiet.status(), "feature extraction failed: %s", quiet.text());

  // Statics: c1 .. cC without energy, else c0 or the log energy first. The
  // float path lifters them here, as they are copied (the 16-bit path has
  // done so on its own scale).
  float *s = norm.slot(toDeltas);
  const float *c = ceps.data() + (cfg.energy == XKL_ENERGY_NONE ? 1 : 0);
  int j = 0;
  if (cfg.energy == XKL_ENERGY_LOG) {
    s[0] = static_cast<float>(std::log(std::max(energy, static_cast<double>(cfg.floor))));
    j = 1;
  }
  if (!lift.empty()) {
    const double *weight = lift.data() + (cfg.energy == XKL_ENERGY_NONE ? 1 : 0);
    for (; j < nStatics; ++j) s[j] = static_cast<float>(c[j] * weight[j]);
  } else {
    for (; j < nStatics; ++j) s[j] = c[j];
  }
  norm.push(toDeltas);
  ++framesDone;
  return 0;
}

int xkl_frontend::pushSamples(const float *samples, size_t n, const xk::QuietReports &quiet) {
  const size_t len = static_cast<size_t>(cfg.frame_length);
  const size_t shift = static_cast<size_t>(cfg.frame_shift);
  samplesIn += static_cast<long long>(n);
  // Invariant between iterations: fewer than `len` samples wait in pending.
  while (n > 0) {
    if (skip > 0) {
      const size_t drop = std::min(skip, n);
      skip -= drop;
      samples += drop;
      n -= drop;
      continue;
    }
    if (pending.size() == head) {
      // Nothing waits: frames that lie wholly in the chunk are computed
      // where they are, without a copy.
      while (n >= len) {
        const int status = computeFrame(samples, cfg.frame_length, quiet);
        if (status < 0) return status;
        const size_t step = std::min(shift, n);
        skip = shift - step;
        samples += step;
        n -= step;
      }
      if (skip > 0) continue;
      pending.assign(samples, samples + n);
      head = 0;
      return 0;
    }
    const size_t take = std::min(n, len - (pending.size() - head));
    pending.insert(pending.end(), samples, samples + take);
    samples += take;
    n -= take;
    if (pending.size() - head < len) break;
    const int status = computeFrame(pending.data() + head, cfg.frame_length, quiet);
    if (status < 0) return status;
    head += shift;
    if (head >= pending.size()) {
      skip = head - pending.size();
      pending.clear();
      head = 0;
    } else if (head >= len) {
      pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(head));
      head = 0;
    }
  }
  return 0;
}

int xkl_frontend::finishUtterance(const xk::QuietReports &quiet) {
  // The padded last frame, when samples remain that no frame covered.
  const long long covered =
      framesDone == 0 ? 0
                      : static_cast<long long>(framesDone - 1) * cfg.frame_shift + cfg.frame_length;
  if (samplesIn > covered) {
    const int count = static_cast<int>(pending.size() - head);
    const int status = computeFrame(pending.data() + head, count, quiet);
    if (status < 0) return status;
  }
  norm.finish(toDeltas);
  if (cfg.deltas >= 1) delta1.finish(toDeltaDeltas);
  if (cfg.deltas == 2) delta2.finish(toOutput);
  clearUtterance();
  return 0;
}

void xkl_frontend::clearUtterance() {
  pending.clear();
  head = skip = 0;
  framesDone = 0;
  samplesIn = 0;
  norm.reset();
  delta1.reset();
  delta2.reset();
}

namespace {

// Builds the front end's tables and stages from a resolved configuration.
int setUp(xkl_frontend &fe) {
  xkl_frontend_config &c = fe.cfg;
  fe.fixed = c.arithmetic == XKL_ARITH_FIXED16;
  fe.nStatics = c.n_ceps;
  fe.nInternal = c.n_ceps + (c.energy == XKL_ENERGY_NONE ? 1 : 0);
  fe.dim = c.n_ceps * (1 + c.deltas);
  fe.flags = XK_MFCC_TIME | XK_MFCC_FLOOR | XK_MFCC_C0 |
             (c.spectrum == XKL_SPECTRUM_MAGNITUDE ? XK_MFCC_MAGNITUDE : 0);
  // 16-bit path. The cepstrum function scales the integer power by 2^e,
  // e = 2 order - 2 inScale - 2 for the flag words 1 and 5 exactly (which
  // undoes the FFT's 2^(order-1): the float path's power), else
  // e = -order - inScale, and its floor is 1 * 2^-inScale. In power mode the
  // word 5 gives the float path's power scale, so c1 .. come from it, with
  // the floor at one step of the FFT's output (2^16 on that scale): a bin
  // that rounds to zero counts as half a step away from it, not as silence;
  // c0 needs the word 21, whose floor sits at 2^order on the integer power
  // scale, and a second call with one coefficient. In magnitude mode the
  // floor acts on the filter outputs, and inScale 20 puts it far below them.
  const bool magnitude = c.spectrum == XKL_SPECTRUM_MAGNITUDE;
  const bool wantC0 = c.energy == XKL_ENERGY_C0;
  fe.fixedFlags = XK_MFCC_TIME | XK_MFCC_FLOOR |
                  (magnitude ? XK_MFCC_MAGNITUDE | (wantC0 ? XK_MFCC_C0 : 0) : 0);
  fe.fixedInScale = magnitude ? 20 : 0;
  fe.fixedFloor = magnitude ? 1 : 1 << 16;
  fe.fixedC0Flags = wantC0 && !magnitude ? XK_MFCC_TIME | XK_MFCC_FLOOR | XK_MFCC_C0 : 0;
  // c0 comes from a word other than 1 and 5: its magnitudes are off by
  // 2^(1 - order + e/2) before the frame's gain.
  fe.fixedLog2Offset = 1.0 - c.fft_order + (-c.fft_order - fe.fixedInScale) / 2.0;
  const int normLatency = c.cmn == XKL_CMN_UTTERANCE ? -1
                          : c.cmn == XKL_CMN_SLIDING ? c.cmn_window / 2
                                                     : 0;
  fe.latency = normLatency < 0 ? -1 : normLatency + c.deltas * c.delta_window;

  const int len = c.frame_length, fftLen = 1 << c.fft_order;
  fe.window.resize(static_cast<size_t>(len));
  fe.windowQ15.resize(static_cast<size_t>(len));
  const double pi = 3.14159265358979323846;
  for (int i = 0; i < len; ++i) {
    const double phase = len > 1 ? 2.0 * pi * i / (len - 1) : 0.0;
    double w = 1.0;
    if (c.window == XKL_WINDOW_HAMMING) w = 0.54 - 0.46 * std::cos(phase);
    if (c.window == XKL_WINDOW_HANN) w = 0.5 - 0.5 * std::cos(phase);
    fe.window[static_cast<size_t>(i)] = static_cast<float>(w);
    fe.windowQ15[static_cast<size_t>(i)] =
        static_cast<short>(std::min(32767.0, std::round(w * 32768.0)));
  }
  fe.work.assign(static_cast<size_t>(fftLen), 0.0f);
  fe.padded.assign(static_cast<size_t>(len), 0.0f);
  fe.work16.assign(static_cast<size_t>(fftLen), 0);
  fe.ceps.assign(static_cast<size_t>(fe.nInternal), 0.0f);
  // The weights of XKsLiftering, so that lifting while copying gives its bits.
  fe.lift.clear();
  if (!fe.fixed && c.lifter > 0)
    for (int i = 0; i < fe.nInternal; ++i) fe.lift.push_back(xk::features::lifterWeight(c.lifter, i));
  fe.ceps16.assign(static_cast<size_t>(fe.nInternal), 0);
  fe.pending.reserve(static_cast<size_t>(len));

  fe.norm.init(fe.nStatics, c.cmn, c.cmn_window, c.cvn != 0);
  if (c.deltas >= 1) fe.delta1.init(fe.nStatics, c.delta_window);
  if (c.deltas == 2) fe.delta2.init(fe.nStatics, c.delta_window);
  fe.toDeltas.fe = fe.toDeltaDeltas.fe = fe.toOutput.fe = &fe;

  xk::QuietReports quiet;
  fe.bank = fe.fixed ? XKwMFCCInit(c.fft_order, c.n_filters, c.low_freq, c.high_freq,
                                   c.sample_rate, c.n_linear, c.linear_freq)
                     : XKsMFCCInit(c.fft_order, c.n_filters, c.low_freq, c.high_freq,
                                   c.sample_rate, c.n_linear, c.linear_freq);
  if (fe.bank == nullptr || quiet.failed())
    return fail(quiet.failed() ? quiet.status() : XK_StsNoMem,
                "the mel filter bank could not be made: %s", quiet.text());
  return 0;
}

void freeBank(xkl_frontend &fe) {
  // The 16-bit release keeps the bank's DCT arrays; the float one frees
  // them all, and the bank is the same record in both flavours.
  if (fe.bank != nullptr) XKsFreeMFCCFilters(fe.bank);
  fe.bank = nullptr;
}

// Runs `body` and turns an allocation failure into XK_StsNoMem.
template <class Body>
int guarded(const char *what, Body body) {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return fail(XK_StsNoMem, "%s: out of memory", what);
  }
}

}  // namespace

extern "C" {

void xkl_frontend_config_init(xkl_frontend_config *config) {
  if (config == nullptr) return;
  *config = xkl_frontend_config{};
  config->sample_rate = 16000;
  config->frame_ms = 25.0f;
  config->shift_ms = 10.0f;
  config->preemphasis = 0.97f;
  config->window = XKL_WINDOW_HAMMING;
  config->n_filters = 26;
  config->n_ceps = 13;
  config->energy = XKL_ENERGY_LOG;
  config->lifter = 22;
  config->spectrum = XKL_SPECTRUM_POWER;
  config->floor = 1e-10f;
  config->delta_window = 2;
  config->cmn = XKL_CMN_NONE;
  config->cmn_window = 301;
  config->arithmetic = XKL_ARITH_FLOAT;
}

int xkl_frontend_config_resolve(xkl_frontend_config *config) {
  if (config == nullptr) return fail(XK_StsBadArg, "null configuration");
  xkl_frontend_config c = *config;
  const int status = checkConfig(c);
  if (status < 0) return status;
  *config = c;
  return 0;
}

xkl_frontend *xkl_frontend_new(const xkl_frontend_config *config) {
  if (config == nullptr) {
    fail(XK_StsBadArg, "null configuration");
    return nullptr;
  }
  xkl_frontend *fe = new (std::nothrow) xkl_frontend;
  if (fe == nullptr) {
    fail(XK_StsNoMem, "out of memory for the front end");
    return nullptr;
  }
  fe->cfg = *config;
  int status = checkConfig(fe->cfg);
  if (status == 0) status = guarded("xkl_frontend_new", [&] { return setUp(*fe); });
  if (status < 0) {
    freeBank(*fe);
    delete fe;
    return nullptr;
  }
  return fe;
}

void xkl_frontend_free(xkl_frontend *fe) {
  if (fe == nullptr) return;
  freeBank(*fe);
  delete fe;
}

const xkl_frontend_config *xkl_frontend_get_config(const xkl_frontend *fe) {
  return fe != nullptr ? &fe->cfg : nullptr;
}
int xkl_frontend_dim(const xkl_frontend *fe) { return fe != nullptr ? fe->dim : XK_StsBadArg; }
int xkl_frontend_latency(const xkl_frontend *fe) {
  return fe != nullptr ? fe->latency : XK_StsBadArg;
}

int xkl_frontend_push(xkl_frontend *fe, const float *samples, size_t n) {
  if (fe == nullptr) return fail(XK_StsBadArg, "xkl_frontend_push: null front end");
  if (samples == nullptr && n > 0) return fail(XK_StsBadArg, "xkl_frontend_push: null samples");
  return guarded("xkl_frontend_push", [&] {
    xk::QuietReports quiet;
    if (!fe->fixed) return fe->pushSamples(samples, n, quiet);
    float block[1024];
    while (n > 0) {
      const size_t m = std::min(n, sizeof block / sizeof block[0]);
      for (size_t i = 0; i < m; ++i) block[i] = toShort(samples[i]);
      const int status = fe->pushSamples(block, m, quiet);
      if (status < 0) return status;
      samples += m;
      n -= m;
    }
    return 0;
  });
}

int xkl_frontend_push_i16(xkl_frontend *fe, const short *samples, size_t n) {
  if (fe == nullptr) return fail(XK_StsBadArg, "xkl_frontend_push_i16: null front end");
  if (samples == nullptr && n > 0)
    return fail(XK_StsBadArg, "xkl_frontend_push_i16: null samples");
  return guarded("xkl_frontend_push_i16", [&] {
    xk::QuietReports quiet;
    float block[1024];
    while (n > 0) {
      const size_t m = std::min(n, sizeof block / sizeof block[0]);
      for (size_t i = 0; i < m; ++i) block[i] = samples[i];
      const int status = fe->pushSamples(block, m, quiet);
      if (status < 0) return status;
      samples += m;
      n -= m;
    }
    return 0;
  });
}

int xkl_frontend_flush(xkl_frontend *fe) {
  if (fe == nullptr) return fail(XK_StsBadArg, "xkl_frontend_flush: null front end");
  return guarded("xkl_frontend_flush", [&] {
    xk::QuietReports quiet;
    return fe->finishUtterance(quiet);
  });
}

int xkl_frontend_available(const xkl_frontend *fe) {
  if (fe == nullptr) return fail(XK_StsBadArg, "xkl_frontend_available: null front end");
  return static_cast<int>((fe->outEnd - fe->outRead) / static_cast<size_t>(fe->dim));
}

int xkl_frontend_pull(xkl_frontend *fe, float *features, int max_frames) {
  if (fe == nullptr) return fail(XK_StsBadArg, "xkl_frontend_pull: null front end");
  if (max_frames < 0) return fail(XK_StsBadArg, "xkl_frontend_pull: max_frames is negative");
  const int frames = std::min(max_frames, xkl_frontend_available(fe));
  if (frames > 0 && features == nullptr)
    return fail(XK_StsBadArg, "xkl_frontend_pull: null output");
  const size_t count = static_cast<size_t>(frames) * static_cast<size_t>(fe->dim);
  if (count > 0) std::memcpy(features, fe->out.data() + fe->outRead, count * sizeof(float));
  fe->outRead += count;
  if (fe->outRead == fe->outEnd) fe->outRead = fe->outEnd = 0;
  return frames;
}

void xkl_frontend_reset(xkl_frontend *fe) {
  if (fe == nullptr) return;
  fe->clearUtterance();
  fe->outRead = fe->outEnd = 0;
}

int xkl_frontend_frame_count(const xkl_frontend_config *config, size_t n) {
  if (config == nullptr) return fail(XK_StsBadArg, "null configuration");
  xkl_frontend_config c = *config;
  const int status = checkConfig(c);
  if (status < 0) return status;
  if (n == 0) return 0;
  const size_t len = static_cast<size_t>(c.frame_length), shift = static_cast<size_t>(c.frame_shift);
  const size_t frames = n <= len ? 1 : 1 + (n - len + shift - 1) / shift;
  if (frames > 0x7FFFFFFF) return fail(XK_StsBadArg, "too many frames for one call");
  return static_cast<int>(frames);
}

}  // extern "C"

namespace {

template <class Sample>
int computeWhole(const xkl_frontend_config *config, const Sample *samples, size_t n,
                 float *features, int maxFrames) {
  const int frames = xkl_frontend_frame_count(config, n);
  if (frames < 0) return frames;
  if (samples == nullptr && n > 0) return fail(XK_StsBadArg, "null samples");
  if (frames > maxFrames)
    return fail(XK_StsBadArg, "the output holds %d frames, the utterance gives %d", maxFrames,
                frames);
  if (frames > 0 && features == nullptr) return fail(XK_StsBadArg, "null output");
  xkl_frontend *fe = xkl_frontend_new(config);
  if (fe == nullptr) return XK_StsNoMem;  // the configuration was checked above
  // Pushed in pieces and drained as it goes, so that the output queue stays
  // small and in cache (the frames are the same whatever the pieces).
  constexpr size_t kPiece = 8192;
  const int dim = fe->dim;
  int status = 0, got = 0;
  for (size_t at = 0; status == 0 && at < n; at += kPiece) {
    const size_t m = std::min(kPiece, n - at);
    if constexpr (sizeof(Sample) == sizeof(short))
      status = xkl_frontend_push_i16(fe, samples + at, m);
    else
      status = xkl_frontend_push(fe, samples + at, m);
    if (status == 0) {
      const int pulled = xkl_frontend_pull(fe, features + static_cast<size_t>(got) * dim, maxFrames - got);
      if (pulled < 0) status = pulled;
      else got += pulled;
    }
  }
  if (status == 0) status = xkl_frontend_flush(fe);
  if (status == 0) {
    const int pulled = xkl_frontend_pull(fe, features + static_cast<size_t>(got) * dim, maxFrames - got);
    if (pulled < 0) status = pulled;
    else got += pulled;
  }
  xkl_frontend_free(fe);
  return status < 0 ? status : got;
}

}  // namespace

extern "C" {

int xkl_frontend_compute(const xkl_frontend_config *config, const float *samples, size_t n,
                         float *features, int max_frames) {
  return computeWhole(config, samples, n, features, max_frames);
}

int xkl_frontend_compute_i16(const xkl_frontend_config *config, const short *samples, size_t n,
                             float *features, int max_frames) {
  return computeWhole(config, samples, n, features, max_frames);
}

}  // extern "C"
