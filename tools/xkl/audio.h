// Audio input of the command-line tool: any file libsndfile reads, first
// channel, as 16-bit samples.
#pragma once

#include <string>
#include <vector>

namespace xkltool {

struct Audio {
  std::vector<short> samples;  // first channel, 16-bit scale
  int sampleRate = 0;
  int channels = 0;
};

// Reads `path`; throws ToolError with a one-line message naming the file
// when it cannot be opened, is not audio, or holds no samples.
Audio readAudio(const std::string &path);

// One line for the user, naming what went wrong; main prints it and exits 1.
struct ToolError {
  std::string message;
};

}  // namespace xkltool
