// Front-end options of the command-line tool: bound to command-line flags,
// turned into the library's front-end configuration, and kept in a model's
// manifest as key=value words so that recognition uses what training used.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "xkl.h"

namespace xkltool {

struct FrontOptions {
  float frameMs = 25.0f, shiftMs = 10.0f, preemph = 0.97f;
  std::string window = "hamming";
  int fftOrder = 0, filters = 26, lowHz = 0, highHz = 0, linear = 0, linearHz = 0;
  int ceps = 13;
  std::string energy = "log";
  int lifter = 22;
  std::string spectrum = "power";
  float floor = 1e-10f;
  int deltas = 0, deltaWindow = 2;
  std::string cmn = "none";
  int cmnWindow = 301;
  bool cvn = false, fixed16 = false;

  // Every option as key=value words, and back (unknown keys throw).
  std::string serialize() const;
  void parse(const std::string &words);
};

// Adds the --frame-ms ... --fixed16 options to `app`.
void addFrontOptions(CLI::App &app, FrontOptions &options);

// The library configuration for audio at `sampleRate`; throws ToolError with
// the front end's own text when the options do not fit together.
xkl_frontend_config toConfig(const FrontOptions &options, int sampleRate);

// A frames x dim matrix of features.
struct Features {
  int frames = 0, dim = 0;
  std::vector<float> data;
  const float *row(int t) const { return data.data() + static_cast<size_t>(t) * dim; }
};

Features computeFeatures(const xkl_frontend_config &config, const std::vector<short> &samples,
                         const std::string &what);

// Column names of a feature row ("logE", "c1" ..., "d_c1" ..., "dd_c1" ...).
std::vector<std::string> columnNames(const xkl_frontend_config &config);

}  // namespace xkltool
