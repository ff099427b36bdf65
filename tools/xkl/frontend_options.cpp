#include "frontend_options.h"

#include <map>
#include <sstream>

#include "audio.h"

namespace xkltool {

namespace {

const std::map<std::string, int> kWindows = {
    {"hamming", XKL_WINDOW_HAMMING}, {"hann", XKL_WINDOW_HANN}, {"rect", XKL_WINDOW_RECTANGULAR}};
const std::map<std::string, int> kEnergies = {
    {"none", XKL_ENERGY_NONE}, {"c0", XKL_ENERGY_C0}, {"log", XKL_ENERGY_LOG}};
const std::map<std::string, int> kSpectra = {{"power", XKL_SPECTRUM_POWER},
                                             {"magnitude", XKL_SPECTRUM_MAGNITUDE}};
const std::map<std::string, int> kCmn = {
    {"none", XKL_CMN_NONE}, {"utterance", XKL_CMN_UTTERANCE}, {"sliding", XKL_CMN_SLIDING}};

template <class Map>
std::vector<std::string> keys(const Map &map) {
  std::vector<std::string> out;
  for (const auto &entry : map) out.push_back(entry.first);
  return out;
}

// Visits every option with its key, for serialising and parsing alike.
template <class Visit>
void eachOption(FrontOptions &o, Visit visit) {
  visit("frame_ms", o.frameMs);
  visit("shift_ms", o.shiftMs);
  visit("preemph", o.preemph);
  visit("window", o.window);
  visit("fft_order", o.fftOrder);
  visit("filters", o.filters);
  visit("low_hz", o.lowHz);
  visit("high_hz", o.highHz);
  visit("linear", o.linear);
  visit("linear_hz", o.linearHz);
  visit("ceps", o.ceps);
  visit("energy", o.energy);
  visit("lifter", o.lifter);
  visit("spectrum", o.spectrum);
  visit("floor", o.floor);
  visit("deltas", o.deltas);
  visit("delta_window", o.deltaWindow);
  visit("cmn", o.cmn);
  visit("cmn_window", o.cmnWindow);
  visit("cvn", o.cvn);
  visit("fixed16", o.fixed16);
}

}  // namespace

std::string FrontOptions::serialize() const {
  std::ostringstream out;
  out.precision(9);
  FrontOptions copy = *this;
  bool first = true;
  eachOption(copy, [&](const char *key, const auto &value) {
    out << (first ? "" : " ") << key << '=' << value;
    first = false;
  });
  return out.str();
}

void FrontOptions::parse(const std::string &words) {
  std::istringstream in(words);
  std::string word;
  while (in >> word) {
    const size_t eq = word.find('=');
    if (eq == std::string::npos) throw ToolError{"front-end setting without '=': " + word};
    const std::string key = word.substr(0, eq), text = word.substr(eq + 1);
    bool known = false;
    eachOption(*this, [&](const char *name, auto &value) {
      if (key != name) return;
      known = true;
      std::istringstream field(text);
      field >> value;
      if (field.fail() || !field.eof()) throw ToolError{"bad front-end setting: " + word};
    });
    if (!known) throw ToolError{"unknown front-end setting: " + key};
  }
}

void addFrontOptions(CLI::App &app, FrontOptions &o) {
  const char *group = "Front end";
  app.add_option("--frame-ms", o.frameMs, "frame length in milliseconds")->group(group)
      ->check(CLI::Range(0.1f, 2000.0f))->capture_default_str();
  app.add_option("--shift-ms", o.shiftMs, "frame shift in milliseconds")->group(group)
      ->check(CLI::Range(0.1f, 2000.0f))->capture_default_str();
  app.add_option("--preemph", o.preemph, "pre-emphasis coefficient (0 turns it off)")->group(group)
      ->check(CLI::Range(0.0f, 1.0f))->capture_default_str();
  app.add_option("--window", o.window, "analysis window")->group(group)
      ->check(CLI::IsMember(keys(kWindows)))->capture_default_str();
  app.add_option("--fft-order", o.fftOrder, "FFT of 2^N points (0: the smallest that holds a frame)")
      ->group(group)->check(CLI::Range(0, 15))->capture_default_str();
  app.add_option("--filters", o.filters, "mel filters")->group(group)
      ->check(CLI::Range(1, 1024))->capture_default_str();
  app.add_option("--low-hz", o.lowHz, "lower edge of the filter bank")->group(group)
      ->check(CLI::NonNegativeNumber)->capture_default_str();
  app.add_option("--high-hz", o.highHz, "upper edge of the filter bank (0: half the sample rate)")
      ->group(group)->check(CLI::NonNegativeNumber)->capture_default_str();
  app.add_option("--linear", o.linear, "leading filters spaced linearly in hertz")->group(group)
      ->check(CLI::NonNegativeNumber)->capture_default_str();
  app.add_option("--linear-hz", o.linearHz, "upper end of the linear filters")->group(group)
      ->check(CLI::NonNegativeNumber)->capture_default_str();
  app.add_option("--ceps", o.ceps, "static coefficients per frame")->group(group)
      ->check(CLI::Range(1, 1024))->capture_default_str();
  app.add_option("--energy", o.energy, "first static: log energy, c0, or none (c1 first)")
      ->group(group)->check(CLI::IsMember(keys(kEnergies)))->capture_default_str();
  app.add_option("--lifter", o.lifter, "sine lifter (0 turns it off)")->group(group)
      ->check(CLI::NonNegativeNumber)->capture_default_str();
  app.add_option("--spectrum", o.spectrum, "log power before the filters, or magnitude")
      ->group(group)->check(CLI::IsMember(keys(kSpectra)))->capture_default_str();
  app.add_option("--floor", o.floor, "lower bound before each logarithm")->group(group)
      ->check(CLI::PositiveNumber)->capture_default_str();
  app.add_option("--deltas", o.deltas, "0 statics, 1 + deltas, 2 + delta-deltas")->group(group)
      ->check(CLI::Range(0, 2))->capture_default_str();
  app.add_option("--delta-window", o.deltaWindow, "regression half-width of the deltas")
      ->group(group)->check(CLI::Range(1, 100))->capture_default_str();
  app.add_option("--cmn", o.cmn, "cepstral mean normalisation")->group(group)
      ->check(CLI::IsMember(keys(kCmn)))->capture_default_str();
  app.add_option("--cmn-window", o.cmnWindow, "frames of the sliding normalisation")
      ->group(group)->check(CLI::Range(1, 100001))->capture_default_str();
  app.add_flag("--cvn", o.cvn, "also normalise the variance")->group(group);
  app.add_flag("--fixed16", o.fixed16, "16-bit fixed-point arithmetic")->group(group);
}

xkl_frontend_config toConfig(const FrontOptions &o, int sampleRate) {
  xkl_frontend_config c;
  xkl_frontend_config_init(&c);
  auto pick = [](const auto &map, const std::string &name, const char *what) {
    const auto it = map.find(name);
    if (it == map.end()) throw ToolError{std::string("unknown ") + what + ": " + name};
    return it->second;
  };
  c.sample_rate = sampleRate;
  c.frame_ms = o.frameMs;
  c.shift_ms = o.shiftMs;
  c.preemphasis = o.preemph;
  c.window = pick(kWindows, o.window, "window");
  c.fft_order = o.fftOrder;
  c.n_filters = o.filters;
  c.low_freq = o.lowHz;
  c.high_freq = o.highHz;
  c.n_linear = o.linear;
  c.linear_freq = o.linearHz;
  c.n_ceps = o.ceps;
  c.energy = pick(kEnergies, o.energy, "energy");
  c.lifter = o.lifter;
  c.spectrum = pick(kSpectra, o.spectrum, "spectrum");
  c.floor = o.floor;
  c.deltas = o.deltas;
  c.delta_window = o.deltaWindow;
  c.cmn = pick(kCmn, o.cmn, "cmn");
  c.cmn_window = o.cmnWindow;
  c.cvn = o.cvn ? 1 : 0;
  c.arithmetic = o.fixed16 ? XKL_ARITH_FIXED16 : XKL_ARITH_FLOAT;
  if (xkl_frontend_config_resolve(&c) < 0)
    throw ToolError{std::string("front-end options: ") + xkl_last_error()};
  return c;
}

Features computeFeatures(const xkl_frontend_config &config, const std::vector<short> &samples,
                         const std::string &what) {
  Features f;
  f.dim = config.n_ceps * (1 + config.deltas);
  f.frames = xkl_frontend_frame_count(&config, samples.size());
  if (f.frames <= 0) throw ToolError{what + ": no frames: " + xkl_last_error()};
  f.data.resize(static_cast<size_t>(f.frames) * static_cast<size_t>(f.dim));
  const int got =
      xkl_frontend_compute_i16(&config, samples.data(), samples.size(), f.data.data(), f.frames);
  if (got != f.frames) throw ToolError{what + ": feature extraction failed: " + xkl_last_error()};
  return f;
}

std::vector<std::string> columnNames(const xkl_frontend_config &config) {
  std::vector<std::string> statics;
  for (int i = 0; i < config.n_ceps; ++i) {
    if (i == 0 && config.energy == XKL_ENERGY_LOG)
      statics.push_back("logE");
    else
      statics.push_back("c" + std::to_string(config.energy == XKL_ENERGY_NONE ? i + 1 : i));
  }
  std::vector<std::string> names = statics;
  for (const char *prefix : {"d_", "dd_"}) {
    if (prefix[1] == 'd' ? config.deltas < 2 : config.deltas < 1) break;
    for (const std::string &s : statics) names.push_back(prefix + s);
  }
  return names;
}

}  // namespace xkltool
