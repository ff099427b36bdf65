// xkl: feature extraction, isolated-word training and recognition, a
// recognition demo on the bundled spoken digits, and pictures of an
// utterance, all through the library's public C interface.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "audio.h"
#include "feature_files.h"
#include "frontend_options.h"
#include "model.h"
#include "progress.h"
#include "show.h"
#include "xkl.h"

namespace fs = std::filesystem;
using namespace xkltool;

namespace xkltool {
Verbosity &verbosity() {
  static Verbosity v;
  return v;
}
bool progressWanted() {
  return !verbosity().quiet && (verbosity().verbose || isatty(STDERR_FILENO));
}
}  // namespace xkltool

namespace {

#ifndef XKL_DATA_DIR
#define XKL_DATA_DIR ""
#endif
#ifndef XKL_INSTALLED_DATA_DIR
#define XKL_INSTALLED_DATA_DIR ""
#endif

// The library's reports go nowhere: every failure reaches the user as one
// line from the tool, which checks results itself.
int silentReport(int status, const char *, const char *, const char *, int) { return status; }

double cpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Front-end and matching defaults of the recogniser (the features command
// keeps the library's defaults).
// Chosen by leave-one-speaker-out runs on the bundled digits (see
// docs/decisions.md): eight magnitude-mode cepstra with log energy, no
// deltas, no lifter, normalised over each speaker's files.
void recogniserDefaults(FrontOptions &front, MatchOptions &match) {
  front.ceps = 8;
  front.spectrum = "magnitude";
  front.lifter = 0;
  match.templatesPerWord = 20;
  match.neighbours = 6;
  match.speakerNorm = 2;
  match.adapt = 0.5;
}

void addMatchOptions(CLI::App &app, MatchOptions &m) {
  const char *group = "Matching";
  app.add_option("--templates", m.templatesPerWord, "templates kept per word and speaker: medoids of their files (0: every file)")
      ->group(group)->check(CLI::Range(0, 100000))->capture_default_str();
  app.add_option("--neighbours", m.neighbours, "a word scores the mean distance of its N nearest templates")->group(group)
      ->check(CLI::Range(1, 1000))->capture_default_str();
  app.add_option("--delta", m.delta, "frames of free start and end of the warping path")
      ->group(group)->check(CLI::Range(0, 1000))->capture_default_str();
  app.add_flag("--city-block", m.cityBlock, "L1 local distance instead of L2")->group(group);
  app.add_option("--speaker-norm", m.speakerNorm,
                 "normalise over each speaker's files (list column `speaker`; files without one form one group): 0 off, 1 mean, 2 mean and variance")
      ->group(group)->check(CLI::Range(0, 2))->capture_default_str();
  app.add_option("--delta-weight", m.deltaWeight, "weight of the delta columns in the distance")
      ->group(group)->check(CLI::Range(0.0, 10.0))->capture_default_str();
  app.add_option("--adapt", m.adapt,
                 "fraction of a speaker's files that, recognised, become extra templates for a second pass")
      ->group(group)->check(CLI::Range(0.0, 1.0))->capture_default_str();
}

// ---- features ----

struct FeaturesArgs {
  std::string in, out, format;
  int lpc = 0;
  FrontOptions front;
};

Features lpcFeatures(const Audio &audio, const xkl_frontend_config &c, int p) {
  // Framing and windowing as the front end does them, then LP coefficients.
  const int len = c.frame_length, shift = c.frame_shift;
  const int frames = xkl_frontend_frame_count(&c, audio.samples.size());
  Features f;
  f.frames = frames;
  f.dim = p;
  f.data.assign(static_cast<size_t>(frames) * p, 0.0f);
  std::vector<float> frame(static_cast<size_t>(len));
  for (int t = 0; t < frames; ++t) {
    for (int i = 0; i < len; ++i) {
      const size_t at = static_cast<size_t>(t) * shift + i;
      frame[i] = at < audio.samples.size() ? audio.samples[at] : 0.0f;
    }
    if (c.preemphasis != 0.0f) XKsPreemphasize(frame.data(), c.preemphasis, len);
    for (int i = 0; i < len; ++i)
      frame[i] *= static_cast<float>(0.54 - 0.46 * std::cos(2.0 * M_PI * i / (len - 1)));
    // An unstable or silent frame keeps zero coefficients.
    XKsLPredict(frame.data(), len, f.data.data() + static_cast<size_t>(t) * p, p, 1);
  }
  return f;
}

int runFeatures(const FeaturesArgs &a) {
  const Audio audio = readAudio(a.in);
  const xkl_frontend_config config = toConfig(a.front, audio.sampleRate);
  std::string format = a.format;
  const std::string out = a.out.empty() ? fs::path(a.in).stem().string() + ".npy" : a.out;
  if (format.empty()) {
    const std::string ext = fs::path(out).extension().string();
    format = ext == ".csv" ? "csv" : ext == ".htk" || ext == ".mfc" || ext == ".lpc" ? "htk" : "npy";
  }
  if (a.lpc > 0 && a.lpc >= config.frame_length)
    throw ToolError{"--lpc " + std::to_string(a.lpc) + ": the order must be below the frame length (" +
                    std::to_string(config.frame_length) + " samples)"};
  const Features f = a.lpc > 0 ? lpcFeatures(audio, config, a.lpc) : computeFeatures(config, audio.samples, a.in);
  if (format == "npy") {
    writeNpy(out, f);
  } else if (format == "csv") {
    std::vector<std::string> names;
    if (a.lpc > 0)
      for (int j = 1; j <= a.lpc; ++j) names.push_back("a" + std::to_string(j));
    else
      names = columnNames(config);
    writeCsv(out, f, names);
  } else {
    const double period = static_cast<double>(config.frame_shift) / config.sample_rate;
    if (a.lpc > 0)
      writeHtk(out, f, period, kHtkLpc);
    else
      writeHtk(out, htkOrder(f, config), period, htkKind(config));
  }
  if (!verbosity().quiet)
    std::fprintf(stderr, "%s: %d frames x %d values -> %s (%s)\n", a.in.c_str(), f.frames, f.dim,
                 out.c_str(), format.c_str());
  return 0;
}

// ---- train, recognize ----

int runTrain(const std::string &list, const std::string &dir, const FrontOptions &front,
             const MatchOptions &match) {
  const std::vector<LabelledFile> files = readList(list);
  TrainReport report;
  const Model model = train(files, front, match, progressWanted(), &report);
  saveModel(model, dir);
  if (!verbosity().quiet)
    std::printf("trained %zu words, %zu templates from %d files (%.1f s of audio) -> %s\n",
                model.words.size(), model.templates.size(), report.files, report.audioSeconds,
                dir.c_str());
  return 0;
}

struct Tally {
  std::vector<std::string> words;
  std::map<std::string, std::map<std::string, int>> confusion;  // truth -> answer -> count
  int right = 0, total = 0;
  double audioSeconds = 0, cpu = 0;
  void add(const std::string &truth, const std::string &answer) {
    ++confusion[truth][answer];
    ++total;
    if (truth == answer) ++right;
  }
  double accuracy() const { return total ? 100.0 * right / total : 0.0; }
};

void printConfusion(const Tally &t) {
  std::set<std::string> labels(t.words.begin(), t.words.end());
  for (const auto &[truth, row] : t.confusion) {
    labels.insert(truth);
    for (const auto &entry : row) labels.insert(entry.first);
  }
  std::printf("confusion (rows: truth, columns: answer)\n%8s", "");
  for (const std::string &l : labels) std::printf(" %6.6s", l.c_str());
  std::printf("\n");
  for (const std::string &truth : labels) {
    const auto row = t.confusion.find(truth);
    if (row == t.confusion.end()) continue;
    std::printf("%8.8s", truth.c_str());
    for (const std::string &answer : labels) {
      const auto cell = row->second.find(answer);
      std::printf(" %6d", cell == row->second.end() ? 0 : cell->second);
    }
    std::printf("\n");
  }
}

// Recognises a batch of files: features of each, normalisation of each
// speaker's files together when the model asks for it, then the ranking.
// Adds the audio time and the processor time (everything after reading the
// files) to the tally.
std::vector<std::vector<Ranked>> recognizeFiles(const Model &model, Recognizer &recognizer,
                                                const std::vector<LabelledFile> &files, Tally &tally,
                                                const char *what) {
  std::vector<Audio> audio;
  for (const LabelledFile &f : files) {
    audio.push_back(readAudio(f.path));
    if (audio.back().sampleRate != model.sampleRate)
      throw ToolError{f.path + ": sample rate " + std::to_string(audio.back().sampleRate) +
                      " Hz, the model's is " + std::to_string(model.sampleRate) + " Hz"};
  }
  const double start = cpuSeconds();
  const xkl_frontend_config config = toConfig(model.front, model.sampleRate);
  std::vector<Features> features;
  std::vector<std::string> speakers;
  for (size_t i = 0; i < files.size(); ++i) {
    features.push_back(computeFeatures(config, audio[i].samples, files[i].path));
    speakers.push_back(files[i].speaker);
    tally.audioSeconds += static_cast<double>(audio[i].samples.size()) / model.sampleRate;
  }
  normalizeGroups(features, speakers, model.match.speakerNorm);
  weightDynamics(features, config.n_ceps, model.match.deltaWeight);
  // Each speaker's files together (self-adaptation works per speaker).
  std::map<std::string, std::vector<size_t>> bySpeaker;
  for (size_t i = 0; i < files.size(); ++i) bySpeaker[speakers[i]].push_back(i);
  std::vector<std::vector<Ranked>> ranked(files.size());
  Progress bar(progressWanted(), what, bySpeaker.size());
  for (const auto &[speaker, members] : bySpeaker) {
    std::vector<const Features *> group;
    for (size_t i : members) group.push_back(&features[i]);
    std::vector<std::vector<Ranked>> result = recognizer.recognizeSpeaker(group);
    for (size_t j = 0; j < members.size(); ++j) ranked[members[j]] = std::move(result[j]);
    bar.step(speaker.empty() ? files[members[0]].path : speaker);
  }
  bar.done();
  tally.cpu += cpuSeconds() - start;
  return ranked;
}

int runRecognize(const std::string &dir, const std::vector<std::string> &paths, const std::string &list) {
  const Model model = loadModel(dir);
  Recognizer recognizer(model);
  Tally tally;
  tally.words = model.words;
  std::vector<LabelledFile> files;
  if (!list.empty())
    files = readList(list);
  else
    for (const std::string &p : paths) files.push_back({p, "", ""});
  const std::vector<std::vector<Ranked>> ranked = recognizeFiles(model, recognizer, files, tally, "recognize");
  for (size_t i = 0; i < files.size(); ++i) {
    const Ranked &best = ranked[i][0];
    const Ranked second = ranked[i].size() > 1 ? ranked[i][1] : Ranked{"-", INFINITY};
    std::printf("%s %s %.4f %s %.4f\n", files[i].path.c_str(), best.word.c_str(), best.score,
                second.word.c_str(), second.score);
    if (!list.empty()) tally.add(files[i].label, best.word);
  }
  if (!list.empty()) {
    printConfusion(tally);
    if (verbosity().verbose && tally.cpu > 0)
      std::fprintf(stderr, "%.1f s of audio in %.2f s: %.0f times real time\n", tally.audioSeconds,
                   tally.cpu, tally.audioSeconds / tally.cpu);
    std::printf("accuracy: %.2f%% (%d/%d)\n", tally.accuracy(), tally.right, tally.total);
  }
  return 0;
}

// ---- demo ----

std::string defaultDataDir() {
  for (const char *dir : {XKL_DATA_DIR, XKL_INSTALLED_DATA_DIR})
    if (*dir != '\0' && fs::is_directory(dir)) return dir;
  return "";
}

int runDemo(std::string dataDir, const FrontOptions &front, const MatchOptions &match,
            double minAccuracy) {
  if (dataDir.empty()) dataDir = defaultDataDir();
  if (dataDir.empty() || !fs::is_directory(dataDir))
    throw ToolError{"the bundled corpus was not found; give its folder with --data"};
  // {digit}_{speaker}_{take}.flac (or .wav)
  const std::regex name(R"(([0-9A-Za-z]+)_([A-Za-z]+)_([0-9]+)\.(flac|wav))");
  std::map<std::string, std::vector<LabelledFile>> bySpeaker;
  for (const auto &entry : fs::directory_iterator(dataDir)) {
    std::smatch m;
    const std::string file = entry.path().filename().string();
    if (std::regex_match(file, m, name))
      bySpeaker[m[2]].push_back({entry.path().string(), m[1], m[2]});
  }
  if (bySpeaker.size() < 2) throw ToolError{dataDir + ": the demo needs recordings of at least two speakers"};
  for (auto &entry : bySpeaker)
    std::sort(entry.second.begin(), entry.second.end(),
              [](const LabelledFile &a, const LabelledFile &b) { return a.path < b.path; });
  std::printf("xkl demo: spoken digits of %zu speakers from %s\n", bySpeaker.size(), dataDir.c_str());
  std::printf("leave one speaker out: train on the others, recognise the held-out speaker\n");
  Tally all;
  std::vector<std::pair<std::string, Tally>> perSpeaker;
  for (const auto &[held, tests] : bySpeaker) {
    std::vector<LabelledFile> training;
    for (const auto &[speaker, files] : bySpeaker)
      if (speaker != held) training.insert(training.end(), files.begin(), files.end());
    const Model model = train(training, front, match, progressWanted());
    Recognizer recognizer(model);
    Tally t;
    t.words = model.words;
    const std::vector<std::vector<Ranked>> ranked = recognizeFiles(model, recognizer, tests, t, held.c_str());
    for (size_t i = 0; i < tests.size(); ++i) {
      t.add(tests[i].label, ranked[i][0].word);
      all.add(tests[i].label, ranked[i][0].word);
    }
    all.words = model.words;
    all.audioSeconds += t.audioSeconds;
    all.cpu += t.cpu;
    std::printf("held out %-10s trained on %4zu files, %3zu templates: %6.2f%% (%d/%d)\n", held.c_str(),
                training.size(), model.templates.size(), t.accuracy(), t.right, t.total);
    perSpeaker.emplace_back(held, t);
  }
  printConfusion(all);
  std::printf("recognition speed: %.1f s of audio in %.2f s of one core: %.0f times real time\n",
              all.audioSeconds, all.cpu, all.cpu > 0 ? all.audioSeconds / all.cpu : 0.0);
  std::printf("accuracy: %.2f%% (%d/%d)\n", all.accuracy(), all.right, all.total);
  if (all.accuracy() < minAccuracy) {
    std::fprintf(stderr, "xkl demo: accuracy %.2f%% is below the floor of %.2f%%\n", all.accuracy(),
                 minAccuracy);
    return 2;
  }
  return 0;
}

// Releases the library's per-thread tables of the main thread at exit.
struct ReleaseTables {
  ~ReleaseTables() {
    XKsPatternFreeAll();
    XKFreeCepsTbls();
    XKFreePreemphasizeTbls();
    XKFreeLPTbls();
  }
};

}  // namespace

int main(int argc, char **argv) {
  XKRedirectError(silentReport);
  XKSetErrMode(XK_ErrorModeParent);
  const ReleaseTables release;

  CLI::App app{"xkl: speech features and isolated-word recognition with the xkl library"};
  app.require_subcommand(1);
  app.fallthrough();  // -q and -v also after the subcommand
  // A bad command line is one line on standard error, like every failure.
  app.failure_message([](const CLI::App *, const CLI::Error &e) {
    return std::string("xkl: ") + e.what() + " (xkl --help lists the options)\n";
  });
  app.add_flag("-q,--quiet", verbosity().quiet, "no progress or summary lines on standard error");
  app.add_flag("-v,--verbose", verbosity().verbose, "progress even when standard error is not a terminal");

  FeaturesArgs fa;
  CLI::App *features = app.add_subcommand("features", "features of one audio file");
  features->add_option("IN", fa.in, "audio file (anything libsndfile reads)")->required();
  features->add_option("-o,--output", fa.out, "output file (default: IN's name with .npy)");
  features->add_option("--format", fa.format, "npy, csv or htk (default: from the output's extension)")
      ->check(CLI::IsMember({"npy", "csv", "htk"}));
  features->add_option("--lpc", fa.lpc, "write P linear-prediction coefficients per frame instead")
      ->check(CLI::Range(1, 100));
  addFrontOptions(*features, fa.front);

  std::string list, modelDir, dataDir;
  std::vector<std::string> files;
  FrontOptions front;
  MatchOptions match;
  recogniserDefaults(front, match);
  double minAccuracy = 85.0;

  CLI::App *trainCmd = app.add_subcommand("train", "build an isolated-word recogniser from labelled files");
  trainCmd->add_option("--list", list, "CSV list with path and label columns")->required();
  trainCmd->add_option("--model", modelDir, "model directory to write")->required();
  addFrontOptions(*trainCmd, front);
  addMatchOptions(*trainCmd, match);

  CLI::App *recognize = app.add_subcommand("recognize", "recognise files with a trained model");
  recognize->add_option("--model", modelDir, "model directory")->required();
  auto *listOpt = recognize->add_option("--list", list, "labelled CSV list: ends with a confusion matrix and the accuracy");
  recognize->add_option("FILE", files, "audio files")->excludes(listOpt);

  CLI::App *demo = app.add_subcommand("demo", "leave-one-speaker-out recognition of the bundled spoken digits");
  demo->add_option("--data", dataDir, "folder of {digit}_{speaker}_{take}.flac recordings");
  demo->add_option("--min-accuracy", minAccuracy, "exit with status 2 below this accuracy (percent)")
      ->check(CLI::Range(0.0, 100.0))->capture_default_str();
  addFrontOptions(*demo, front);
  addMatchOptions(*demo, match);

  ShowArgs sa;
  CLI::App *show = app.add_subcommand("show", "a picture of the waveform, spectrogram and MFCC of a file");
  show->add_option("IN", sa.in, "audio file")->required();
  show->add_option("-o,--output", sa.out, "PNG file to write")->required();
  addFrontOptions(*show, sa.front);

  // An unknown command gets its own line rather than CLI11's "a subcommand
  // is required".
  if (argc > 1 && argv[1][0] != '-') {
    bool known = false;
    for (const CLI::App *sub : app.get_subcommands({})) known = known || sub->get_name() == argv[1];
    if (!known) {
      std::fprintf(stderr, "xkl: unknown command '%s' (the commands are features, train, recognize, demo, show)\n",
                   argv[1]);
      return 1;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e);
  }
  try {
    if (*features) return runFeatures(fa);
    if (*trainCmd) return runTrain(list, modelDir, front, match);
    if (*recognize) {
      if (list.empty() && files.empty()) throw ToolError{"recognize: give audio files or --list"};
      return runRecognize(modelDir, files, list);
    }
    if (*demo) return runDemo(dataDir, front, match, minAccuracy);
    if (*show) return runShow(sa);
  } catch (const ToolError &e) {
    std::fflush(stdout);
    std::fprintf(stderr, "xkl: %s\n", e.message.c_str());
    return 1;
  } catch (const std::exception &e) {
    std::fflush(stdout);
    std::fprintf(stderr, "xkl: %s\n", e.what());
    return 1;
  }
  return 0;
}
