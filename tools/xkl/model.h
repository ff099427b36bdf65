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
  int templatesPerWord = 0;   // templates kept per word and speaker (0: every training file)
  int neighbours = 1;         // a word's score: the mean distance of its k nearest templates
  int delta = 2;              // frames of free start and end
  bool cityBlock = false;     // L1 local distance (else L2)
  // Self-adaptation to a speaker: after a first pass over one speaker's
  // files, this fraction of them, the most confidently recognised, join the
  // templates under the words they were given, and every file of the
  // speaker is recognised again (never against itself). 0 turns it off.
  double adapt = 0.0;
  // Cepstral normalisation over all the frames of one speaker's files
  // (0 off, 1 mean, 2 mean and variance), in training and in recognition.
  int speakerNorm = 0;
  // Weight of the delta and delta-delta columns against the statics in the
  // local distance (after normalisation).
  double deltaWeight = 1.0;
};

// Scales every column past the first `statics` of each matrix by `weight`.
void weightDynamics(std::vector<Features> &items, int statics, double weight);

// Normalises each group of matrices with the same key over the group's
// frames together (the library's utterance normalisation of their
// concatenation); `mode` as MatchOptions::speakerNorm.
void normalizeGroups(std::vector<Features> &items, const std::vector<std::string> &keys, int mode);


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
  std::vector<int> templateGroup;       // speaker group of each template (0 without speakers)
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

  // Every word, best first; template `skip` (if any) takes no part.
  std::vector<Ranked> rank(const Features &utterance, long skip = -1) const;

  // Extra templates (for self-adaptation): add one, or drop all added.
  size_t addTemplate(const Features &f, int word);
  void dropAdded();

  // Recognises the files of one speaker (normalised features), with the
  // model's self-adaptation when it asks for it.
  std::vector<std::vector<Ranked>> recognizeSpeaker(const std::vector<const Features *> &files);

 private:
  const Model &model_;
  std::vector<int> ids_, lengths_, words_;  // per template: store id, frames, word
  size_t base_ = 0;                         // templates of the model itself
};

}  // namespace xkltool
