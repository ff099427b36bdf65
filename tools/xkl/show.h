// `xkl show`: a PNG with the waveform, the spectrogram and the feature
// matrix of one file, on a common time axis in seconds.
#pragma once

#include <string>

#include "frontend_options.h"

namespace xkltool {

struct ShowArgs {
  std::string in, out;
  FrontOptions front;
};

int runShow(const ShowArgs &args);

}  // namespace xkltool
