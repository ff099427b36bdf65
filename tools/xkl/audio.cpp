#include "audio.h"

#include <sndfile.h>

#include <memory>

namespace xkltool {

Audio readAudio(const std::string &path) {
  SF_INFO info{};
  SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
  if (file == nullptr) throw ToolError{path + ": cannot read as audio: " + sf_strerror(nullptr)};
  std::unique_ptr<SNDFILE, int (*)(SNDFILE *)> closer(file, sf_close);
  if (info.channels < 1 || info.samplerate < 1)
    throw ToolError{path + ": the file has no audio channel"};
  Audio audio;
  audio.sampleRate = info.samplerate;
  audio.channels = info.channels;
  // Read in blocks and keep the first channel; libsndfile scales other
  // sample formats (float, 24-bit ...) to the 16-bit range.
  std::vector<short> block(static_cast<size_t>(4096) * static_cast<size_t>(info.channels));
  for (;;) {
    const sf_count_t got = sf_readf_short(file, block.data(), 4096);
    if (got <= 0) break;
    for (sf_count_t i = 0; i < got; ++i)
      audio.samples.push_back(block[static_cast<size_t>(i) * static_cast<size_t>(info.channels)]);
  }
  if (sf_error(file) != SF_ERR_NO_ERROR)
    throw ToolError{path + ": read error: " + sf_strerror(file)};
  if (audio.samples.empty()) throw ToolError{path + ": the file holds no samples"};
  bool silent = true;
  for (short s : audio.samples) silent = silent && s == 0;
  if (silent) throw ToolError{path + ": the file is silent (every sample is zero)"};
  return audio;
}

}  // namespace xkltool
