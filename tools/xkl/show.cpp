#include "show.h"

#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "audio.h"
#include "progress.h"

namespace xkltool {

namespace {

constexpr int kWidth = 1100, kLeft = 80, kRight = 20, kPlotWidth = kWidth - kLeft - kRight;

struct Panel {
  double top, height;
};

// A perceptually ordered dark-blue .. yellow map for values in 0..1.
void colour(double v, double &r, double &g, double &b) {
  v = std::clamp(v, 0.0, 1.0);
  static const double stops[5][3] = {{0.05, 0.03, 0.25}, {0.25, 0.15, 0.55}, {0.65, 0.2, 0.45},
                                     {0.95, 0.5, 0.15}, {0.98, 0.95, 0.3}};
  const double x = v * 4.0;
  const int i = std::min(3, static_cast<int>(x));
  const double f = x - i;
  r = stops[i][0] + f * (stops[i + 1][0] - stops[i][0]);
  g = stops[i][1] + f * (stops[i + 1][1] - stops[i][1]);
  b = stops[i][2] + f * (stops[i + 1][2] - stops[i][2]);
}

void text(cairo_t *cr, double x, double y, const std::string &s, double alignX = 0.0) {
  cairo_text_extents_t e;
  cairo_text_extents(cr, s.c_str(), &e);
  cairo_move_to(cr, x - alignX * e.width, y);
  cairo_show_text(cr, s.c_str());
}

// A tick step of 1, 2 or 5 times a power of ten giving about `count` ticks.
double niceStep(double span, int count) {
  const double raw = span / count;
  const double p = std::pow(10.0, std::floor(std::log10(raw)));
  for (double m : {1.0, 2.0, 5.0, 10.0})
    if (raw <= m * p) return m * p;
  return 10.0 * p;
}

// Frame, axes and labels of a panel; y runs from yLow (bottom) to yHigh.
void axes(cairo_t *cr, const Panel &p, double seconds, double yLow, double yHigh, const char *title,
          const char *yUnit) {
  cairo_set_source_rgb(cr, 0, 0, 0);
  cairo_set_line_width(cr, 1.0);
  cairo_rectangle(cr, kLeft + 0.5, p.top + 0.5, kPlotWidth, p.height);
  cairo_stroke(cr);
  cairo_set_font_size(cr, 11);
  const double ts = niceStep(seconds, 10);
  for (double t = 0; t <= seconds + 1e-9; t += ts) {
    const double x = kLeft + t / seconds * kPlotWidth;
    cairo_move_to(cr, x, p.top + p.height);
    cairo_line_to(cr, x, p.top + p.height + 4);
    cairo_stroke(cr);
    char label[32];
    std::snprintf(label, sizeof label, "%g", t);
    text(cr, x, p.top + p.height + 15, label, 0.5);
  }
  text(cr, kLeft + kPlotWidth, p.top + p.height + 28, "time (s)", 1.0);
  const double ys = niceStep(yHigh - yLow, 5);
  for (double v = std::ceil(yLow / ys) * ys; v <= yHigh + 1e-9; v += ys) {
    const double y = p.top + p.height - (v - yLow) / (yHigh - yLow) * p.height;
    cairo_move_to(cr, kLeft - 4, y);
    cairo_line_to(cr, kLeft, y);
    cairo_stroke(cr);
    char label[32];
    std::snprintf(label, sizeof label, "%g", v);
    text(cr, kLeft - 7, y + 4, label, 1.0);
  }
  cairo_set_font_size(cr, 13);
  text(cr, kLeft, p.top - 7, title);
  cairo_set_font_size(cr, 11);
  cairo_save(cr);
  cairo_move_to(cr, 16, p.top + p.height / 2);
  cairo_rotate(cr, -M_PI / 2);
  cairo_text_extents_t e;
  cairo_text_extents(cr, yUnit, &e);
  cairo_rel_move_to(cr, -e.width / 2, 0);
  cairo_show_text(cr, yUnit);
  cairo_restore(cr);
}

// Paints a columns x rows matrix (values 0..1, row 0 at the bottom).
void matrix(cairo_t *cr, const Panel &p, const std::vector<double> &v, int columns, int rows) {
  const double w = static_cast<double>(kPlotWidth) / columns, h = p.height / rows;
  for (int c = 0; c < columns; ++c)
    for (int r = 0; r < rows; ++r) {
      double red, green, blue;
      colour(v[static_cast<size_t>(c) * rows + r], red, green, blue);
      cairo_set_source_rgb(cr, red, green, blue);
      cairo_rectangle(cr, kLeft + c * w, p.top + p.height - (r + 1) * h, w + 0.6, h + 0.6);
      cairo_fill(cr);
    }
}

}  // namespace

int runShow(const ShowArgs &a) {
  const Audio audio = readAudio(a.in);
  const xkl_frontend_config config = toConfig(a.front, audio.sampleRate);
  const Features f = computeFeatures(config, audio.samples, a.in);
  const double rate = audio.sampleRate;
  const double seconds = static_cast<double>(audio.samples.size()) / rate;

  // Spectrogram: the front end's frames, Hamming window, power in dB.
  const int len = config.frame_length, shift = config.frame_shift, order = config.fft_order;
  const int n = 1 << order, bins = n / 2 + 1;
  const int frames = xkl_frontend_frame_count(&config, audio.samples.size());
  std::vector<float> frame(static_cast<size_t>(n)), spectrum(static_cast<size_t>(n) + 2);
  std::vector<double> db(static_cast<size_t>(frames) * bins);
  double top = -1e300;
  for (int t = 0; t < frames; ++t) {
    std::fill(frame.begin(), frame.end(), 0.0f);
    for (int i = 0; i < len; ++i) {
      const size_t at = static_cast<size_t>(t) * shift + i;
      if (at < audio.samples.size())
        frame[i] = static_cast<float>(audio.samples[at] * (0.54 - 0.46 * std::cos(2 * M_PI * i / (len - 1))));
    }
    kfxsRealFftlNip(frame.data(), spectrum.data(), order, KFX_Forward | KFX_RCPack);
    for (int k = 0; k < bins; ++k) {
      const double re = k == 0 ? spectrum[0] : spectrum[2 * k - 1];
      const double im = k == 0 || k == bins - 1 ? 0.0 : spectrum[2 * k];
      const double v = 10.0 * std::log10(re * re + im * im + 1e-3);
      db[static_cast<size_t>(t) * bins + k] = v;
      top = std::max(top, v);
    }
  }
  for (double &v : db) v = (v - (top - 80.0)) / 80.0;  // an 80 dB range

  // Features: each coefficient scaled over its own range.
  std::vector<double> feat(static_cast<size_t>(f.frames) * f.dim);
  for (int d = 0; d < f.dim; ++d) {
    double lo = 1e300, hi = -1e300;
    for (int t = 0; t < f.frames; ++t) lo = std::min(lo, double(f.row(t)[d])), hi = std::max(hi, double(f.row(t)[d]));
    for (int t = 0; t < f.frames; ++t)
      feat[static_cast<size_t>(t) * f.dim + d] = hi > lo ? (f.row(t)[d] - lo) / (hi - lo) : 0.5;
  }

  const Panel wave{40, 170}, spec{260, 300}, mfcc{610, 220};
  const int height = 880;
  std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t *)> surface(
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, kWidth, height), cairo_surface_destroy);
  std::unique_ptr<cairo_t, void (*)(cairo_t *)> context(cairo_create(surface.get()), cairo_destroy);
  cairo_t *cr = context.get();
  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_paint(cr);
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);

  // Waveform: min and max of the samples under each pixel column.
  double peak = 1.0;
  for (short s : audio.samples) peak = std::max(peak, std::fabs(static_cast<double>(s)));
  cairo_set_source_rgb(cr, 0.15, 0.3, 0.6);
  cairo_set_line_width(cr, 1.0);
  for (int x = 0; x < kPlotWidth; ++x) {
    const size_t a0 = static_cast<size_t>(static_cast<double>(x) / kPlotWidth * audio.samples.size());
    const size_t a1 = std::max(a0 + 1, static_cast<size_t>(static_cast<double>(x + 1) / kPlotWidth * audio.samples.size()));
    double lo = 0, hi = 0;
    for (size_t i = a0; i < std::min(a1, audio.samples.size()); ++i)
      lo = std::min(lo, double(audio.samples[i])), hi = std::max(hi, double(audio.samples[i]));
    const double mid = wave.top + wave.height / 2;
    cairo_move_to(cr, kLeft + x + 0.5, mid - hi / peak * wave.height / 2);
    cairo_line_to(cr, kLeft + x + 0.5, mid - lo / peak * wave.height / 2 + 0.5);
    cairo_stroke(cr);
  }
  char title[512];
  std::snprintf(title, sizeof title, "%s: waveform (%.0f Hz, %.2f s)", a.in.c_str(), rate, seconds);
  axes(cr, wave, seconds, -peak / 32768.0, peak / 32768.0, title, "amplitude (full scale)");

  matrix(cr, spec, db, frames, bins);
  axes(cr, spec, seconds, 0, rate / 2, "spectrogram (dB, 80 dB range)", "frequency (Hz)");

  matrix(cr, mfcc, feat, f.frames, f.dim);
  axes(cr, mfcc, seconds, 0, f.dim, "features (each coefficient over its own range)", "coefficient");

  const bool written = cairo_surface_write_to_png(surface.get(), a.out.c_str()) == CAIRO_STATUS_SUCCESS;
  // Drop cairo's and fontconfig's process-wide caches, so that a leak check
  // of the program sees only what it should.
  context.reset();
  surface.reset();
  cairo_debug_reset_static_data();
  FcFini();
  if (!written) throw ToolError{a.out + ": cannot write the picture"};
  if (!verbosity().quiet) std::fprintf(stderr, "%s -> %s\n", a.in.c_str(), a.out.c_str());
  return 0;
}

}  // namespace xkltool
