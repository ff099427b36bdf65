// The isolated-word recogniser of the command-line tool: templates of MFCC
// frames per word, matched by the library's DTW, with a vote of the nearest
// templates. A model directory holds the templates as DTW pattern files of
// the library and a text manifest.
#pragma once

#include <string>
#include <vector>

#include "frontend_options.h"

namespace xkltool {

struct MatchOptions {
  int templatesPerWord = 12;  // templates kept per word (0: every training file)
  int neighbours = 3;         // nearest templates that vote
  int delta = 2;              // frames of free start and end
  bool cityBlock = false;     // L1 local distance (else L2)
  // Training copies of each file with the filter bank's edges scaled by
  // these factors (a vocal-tract-length warp), so that the templates cover
  // voices whose formants sit higher or lower; 1 is the file as it is.
  std::vector<double> warps = {1.0};
  // Cepstral normalisation over all the frames of one speaker's files
  // (0 off, 1 mean, 2 mean and variance), in training and in recognition.
  int speakerNorm = 0;
};

// Normalises each group of matrices with the same key over the group's
// frames together (the library's utterance normalisation of their
// concatenation); `mode` as MatchOptions::speakerNorm.
void normalizeGroups(std::vector<Features> &items, const std::vector<std::string> &keys, int mode);

// The front end with the filter bank warped by `factor`.
xkl_frontend_config warpedConfig(const FrontOptions &front, int sampleRate, double factor);

struct LabelledFile {
  std::string path, label;
  std::string speaker;  // from an optional `speaker` column; files without one form one group
};

// Reads a CSV list with a header holding at least `path` and `label`; paths
// are relative to the list's folder.
std::vector<LabelledFile> readList(const std::string &listPath);

struct Model {
  FrontOptions front;
  MatchOptions match;
  int sampleRate = 0;
  int dim = 0;
  std::vector<std::string> words;       // distinct labels, sorted
  std::vector<int> templateWord;        // word index of each template
  std::vector<Features> templates;
};

struct TrainReport {
  int files = 0;
  double audioSeconds = 0;
};

// Features of every file, then per word the templates that best cover its
// files (medoids of DTW distances). Throws ToolError on bad input.
Model train(const std::vector<LabelledFile> &files, const FrontOptions &front,
            const MatchOptions &match, bool progress, TrainReport *report = nullptr);

// Writes the model to `dir` atomically (a complete directory or none) and
// reads one back, checking every part.
void saveModel(const Model &model, const std::string &dir);
Model loadModel(const std::string &dir);

struct Ranked {
  std::string word;
  double score;  // per-frame distance of the word's best template (smaller is better)
};

// Scores an utterance against a model: every word, best first.
class Recognizer {
 public:
  explicit Recognizer(const Model &model);
  ~Recognizer();
  Recognizer(const Recognizer &) = delete;
  Recognizer &operator=(const Recognizer &) = delete;

  std::vector<Ranked> rank(const Features &utterance) const;

 private:
  const Model &model_;
  std::vector<int> ids_;  // pattern ids in this thread's store
};

}  // namespace xkltool
