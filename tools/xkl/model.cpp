#include "model.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>

#include "audio.h"
#include "progress.h"

namespace fs = std::filesystem;

namespace xkltool {

namespace {

constexpr const char *kManifest = "model.txt";
constexpr const char *kTemplates = "templates.dtw";
constexpr const char *kMagicLine = "xkl isolated-word model 1";

// Splits one CSV line (RFC 4180 quoting, no line breaks inside fields).
std::vector<std::string> splitCsv(const std::string &line) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted) {
      if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
        fields.back() += '"';
        ++i;
      } else if (c == '"') {
        quoted = false;
      } else {
        fields.back() += c;
      }
    } else if (c == '"') {
      quoted = true;
    } else if (c == ',') {
      fields.emplace_back();
    } else if (c != '\r') {
      fields.back() += c;
    }
  }
  return fields;
}

int dtwFlags(const MatchOptions &m) { return m.cityBlock ? XKL_DTW_CITY_BLOCK : 0; }

// Patterns of the calling thread's float store, freed on destruction.
class StoredPatterns {
 public:
  ~StoredPatterns() {
    for (int id : ids) XKsPatternFree(id);
  }
  int add(const Features &f) {
    std::vector<float *> rows(static_cast<size_t>(f.frames));
    for (int t = 0; t < f.frames; ++t) rows[static_cast<size_t>(t)] = const_cast<float *>(f.row(t));
    const int id = XKsPatternIni(rows.data(), f.frames, f.dim);
    if (id < 0) throw ToolError{"out of memory for the templates"};
    ids.push_back(id);
    return id;
  }
  std::vector<int> ids;
};

// DTW distances of `test` to the stored patterns, per frame of the two
// sequences (a pattern outside the admitted lengths is infinitely far).
std::vector<double> distances(const std::vector<int> &ids, const std::vector<int> &lengths,
                              const Features &test, const MatchOptions &match) {
  std::vector<double> scores(ids.size());
  if (ids.empty()) return scores;
  std::vector<float *> rows(static_cast<size_t>(test.frames));
  for (int t = 0; t < test.frames; ++t) rows[static_cast<size_t>(t)] = const_cast<float *>(test.row(t));
  XKsEvalDTW(ids.data(), static_cast<int>(ids.size()), rows.data(), test.frames, test.dim,
             dtwFlags(match), 0.0, match.delta, scores.data());
  for (size_t i = 0; i < ids.size(); ++i)
    scores[i] = scores[i] >= XKL_DTW_NO_SCORE ? std::numeric_limits<double>::infinity()
                                              : scores[i] / (test.frames + lengths[i]);
  return scores;
}

// The k medoids of a word's utterances: greedily the utterance that most
// lowers the sum of every utterance's distance to its nearest medoid.
std::vector<int> medoids(const std::vector<Features> &items, int k, const MatchOptions &match) {
  const size_t n = items.size();
  if (k <= 0 || n <= static_cast<size_t>(k)) {
    std::vector<int> all(n);
    for (size_t i = 0; i < n; ++i) all[i] = static_cast<int>(i);
    return all;
  }
  StoredPatterns store;
  std::vector<int> lengths;
  for (const Features &f : items) {
    store.add(f);
    lengths.push_back(f.frames);
  }
  // Symmetric distances: the mean of both directions, capped so that an
  // inadmissible pair counts as far but finite.
  std::vector<double> d(n * n);
  for (size_t i = 0; i < n; ++i) {
    const std::vector<double> row = distances(store.ids, lengths, items[i], match);
    for (size_t j = 0; j < n; ++j) d[i * n + j] = std::min(row[j], 1e6);
  }
  for (size_t i = 0; i < n; ++i)
    for (size_t j = i + 1; j < n; ++j) d[i * n + j] = d[j * n + i] = 0.5 * (d[i * n + j] + d[j * n + i]);
  std::vector<double> nearest(n, std::numeric_limits<double>::infinity());
  std::vector<int> chosen;
  std::vector<bool> used(n, false);
  for (int round = 0; round < k; ++round) {
    size_t best = n;
    double bestCost = std::numeric_limits<double>::infinity();
    for (size_t c = 0; c < n; ++c) {
      if (used[c]) continue;
      double cost = 0;
      for (size_t i = 0; i < n; ++i) cost += std::min(nearest[i], d[c * n + i]);
      if (cost < bestCost) bestCost = cost, best = c;
    }
    used[best] = true;
    chosen.push_back(static_cast<int>(best));
    for (size_t i = 0; i < n; ++i) nearest[i] = std::min(nearest[i], d[best * n + i]);
  }
  std::sort(chosen.begin(), chosen.end());
  return chosen;
}

std::string matchWords(const MatchOptions &m) {
  std::ostringstream out;
  out << "templates_per_word=" << m.templatesPerWord << " neighbours=" << m.neighbours
      << " delta=" << m.delta << " city_block=" << (m.cityBlock ? 1 : 0)
      << " speaker_norm=" << m.speakerNorm << " delta_weight_percent="
      << std::lround(m.deltaWeight * 100) << " adapt_percent=" << std::lround(m.adapt * 100);
  return out.str();
}

void parseMatch(const std::string &words, MatchOptions &m) {
  std::istringstream in(words);
  std::string word;
  while (in >> word) {
    int value = 0;
    char key[32] = {0};
    if (std::sscanf(word.c_str(), "%31[a-z_]=%d", key, &value) != 2)
      throw ToolError{"bad match setting: " + word};
    const std::string k = key;
    if (k == "templates_per_word") m.templatesPerWord = value;
    else if (k == "neighbours") m.neighbours = value;
    else if (k == "delta") m.delta = value;
    else if (k == "city_block") m.cityBlock = value != 0;
    else if (k == "speaker_norm") m.speakerNorm = value;
    else if (k == "delta_weight_percent") m.deltaWeight = value / 100.0;
    else if (k == "adapt_percent") m.adapt = value / 100.0;
    else throw ToolError{"unknown match setting: " + k};
  }
  if (m.neighbours < 1 || m.neighbours > 1000 || m.delta < 0 || m.delta > 1000 ||
      m.speakerNorm < 0 || m.speakerNorm > 2)
    throw ToolError{"match settings out of range"};
}

}  // namespace

std::vector<LabelledFile> readList(const std::string &listPath) {
  std::ifstream in(listPath);
  if (!in) throw ToolError{listPath + ": cannot open the list"};
  std::string line;
  if (!std::getline(in, line)) throw ToolError{listPath + ": the list is empty"};
  const std::vector<std::string> header = splitCsv(line);
  const auto column = [&](const char *name) {
    const auto it = std::find(header.begin(), header.end(), name);
    if (it == header.end())
      throw ToolError{listPath + ": the header has no '" + name + "' column"};
    return static_cast<size_t>(it - header.begin());
  };
  const size_t pathCol = column("path"), labelCol = column("label");
  const auto speakerIt = std::find(header.begin(), header.end(), "speaker");
  const bool hasSpeaker = speakerIt != header.end();
  const size_t speakerCol = static_cast<size_t>(speakerIt - header.begin());
  const fs::path base = fs::path(listPath).parent_path();
  std::vector<LabelledFile> files;
  int lineNo = 1;
  while (std::getline(in, line)) {
    ++lineNo;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::vector<std::string> fields = splitCsv(line);
    if (fields.size() <= std::max(pathCol, labelCol))
      throw ToolError{listPath + ":" + std::to_string(lineNo) + ": missing path or label"};
    const std::string &label = fields[labelCol];
    if (label.empty() || label.find_first_of(" \t\n") != std::string::npos)
      throw ToolError{listPath + ":" + std::to_string(lineNo) +
                      ": a label must be one word without blanks: '" + label + "'"};
    if (fields[pathCol].empty())
      throw ToolError{listPath + ":" + std::to_string(lineNo) + ": empty path"};
    const fs::path p(fields[pathCol]);
    files.push_back({(p.is_absolute() ? p : base / p).string(), label,
                     hasSpeaker && speakerCol < fields.size() ? fields[speakerCol] : ""});
  }
  if (files.empty()) throw ToolError{listPath + ": the list names no file"};
  return files;
}

void normalizeGroups(std::vector<Features> &items, const std::vector<std::string> &keys, int mode) {
  if (mode == 0) return;
  std::map<std::string, std::vector<size_t>> groups;
  for (size_t i = 0; i < items.size(); ++i) groups[keys[i]].push_back(i);
  for (const auto &group : groups) {
    std::vector<float> all;
    int frames = 0;
    const int dim = items[group.second.front()].dim;
    for (size_t i : group.second) {
      all.insert(all.end(), items[i].data.begin(), items[i].data.end());
      frames += items[i].frames;
    }
    if (xkl_normalize(all.data(), frames, dim, XKL_CMN_UTTERANCE, 0, mode == 2 ? 1 : 0) < 0)
      throw ToolError{std::string("normalisation failed: ") + xkl_last_error()};
    size_t at = 0;
    for (size_t i : group.second) {
      std::copy(all.begin() + static_cast<long>(at), all.begin() + static_cast<long>(at + items[i].data.size()),
                items[i].data.begin());
      at += items[i].data.size();
    }
  }
}

void weightDynamics(std::vector<Features> &items, int statics, double weight) {
  if (weight == 1.0) return;
  const float w = static_cast<float>(weight);
  for (Features &f : items)
    for (int t = 0; t < f.frames; ++t)
      for (int d = statics; d < f.dim; ++d) f.data[static_cast<size_t>(t) * f.dim + d] *= w;
}

Model train(const std::vector<LabelledFile> &files, const FrontOptions &front,
            const MatchOptions &match, bool progress, TrainReport *report) {
  Model model;
  model.front = front;
  model.match = match;
  std::vector<Features> items;
  std::vector<std::string> labels, speakers;
  Progress bar(progress, "features", files.size());
  double seconds = 0;
  xkl_frontend_config config{};
  for (const LabelledFile &file : files) {
    const Audio audio = readAudio(file.path);
    if (model.sampleRate == 0) {
      model.sampleRate = audio.sampleRate;
      config = toConfig(front, audio.sampleRate);
      model.dim = config.n_ceps * (1 + config.deltas);
    } else if (audio.sampleRate != model.sampleRate) {
      throw ToolError{file.path + ": sample rate " + std::to_string(audio.sampleRate) +
                      " Hz, but the list's first file has " + std::to_string(model.sampleRate) +
                      " Hz"};
    }
    seconds += static_cast<double>(audio.samples.size()) / audio.sampleRate;
    items.push_back(computeFeatures(config, audio.samples, file.path));
    labels.push_back(file.label);
    speakers.push_back(file.speaker);
    bar.step(file.path);
  }
  bar.done();
  normalizeGroups(items, speakers, match.speakerNorm);
  weightDynamics(items, config.n_ceps, match.deltaWeight);
  // Templates are chosen per word and speaker.
  std::map<std::string, int> groupOf;
  for (const std::string &s : speakers) groupOf.emplace(s, 0);
  int next = 0;
  for (auto &entry : groupOf) entry.second = next++;
  std::map<std::string, std::map<int, std::vector<Features>>> byWord;
  for (size_t i = 0; i < items.size(); ++i) byWord[labels[i]][groupOf[speakers[i]]].push_back(std::move(items[i]));
  Progress chooser(progress, "templates", byWord.size());
  for (auto &[word, groups] : byWord) {
    model.words.push_back(word);
    for (auto &[group, members] : groups)
      for (int i : medoids(members, match.templatesPerWord, match)) {
        model.templates.push_back(std::move(members[static_cast<size_t>(i)]));
        model.templateWord.push_back(static_cast<int>(model.words.size()) - 1);
        model.templateGroup.push_back(group);
      }
    chooser.step(word);
  }
  chooser.done();
  if (report != nullptr) *report = TrainReport{static_cast<int>(files.size()), seconds};
  return model;
}

void saveModel(const Model &model, const std::string &dir) {
  const fs::path target(dir);
  if (fs::exists(target) && (!fs::is_directory(target) ||
                             (!fs::is_empty(target) && !fs::exists(target / kManifest))))
    throw ToolError{dir + ": exists and is not a model directory; not overwriting it"};
  const fs::path partial = target.string() + ".partial";
  std::error_code ec;
  fs::remove_all(partial, ec);
  if (!fs::create_directories(partial, ec) || ec)
    throw ToolError{partial.string() + ": cannot create: " + ec.message()};
  try {
    {
      StoredPatterns store;
      for (const Features &t : model.templates) store.add(t);
      FILE *out = std::fopen((partial / kTemplates).c_str(), "wb");
      if (out == nullptr) throw ToolError{(partial / kTemplates).string() + ": cannot write"};
      for (int id : store.ids) XKsWriteDTWPattern(out, id);
      const bool ok = std::ferror(out) == 0;
      if (std::fclose(out) != 0 || !ok) throw ToolError{(partial / kTemplates).string() + ": write failed"};
      std::ofstream manifest(partial / kManifest);
      manifest << kMagicLine << "\n"
               << "sample_rate " << model.sampleRate << "\n"
               << "dim " << model.dim << "\n"
               << "front " << model.front.serialize() << "\n"
               << "match " << matchWords(model.match) << "\n"
               << "templates " << kTemplates << " " << model.templates.size() << "\n";
      for (size_t w = 0; w < model.words.size(); ++w) manifest << "word " << w << " " << model.words[w] << "\n";
      for (size_t i = 0; i < model.templates.size(); ++i)
        manifest << "template " << store.ids[i] << " " << model.templateWord[i] << " "
                 << model.templateGroup[i] << "\n";
      manifest << "end\n";
      manifest.close();
      if (!manifest) throw ToolError{(partial / kManifest).string() + ": write failed"};
    }
    // Swap the finished directory in: an old model goes only after the new
    // one is complete.
    const fs::path old = target.string() + ".old";
    fs::remove_all(old, ec);
    if (fs::exists(target)) fs::rename(target, old);
    fs::rename(partial, target);
    fs::remove_all(old, ec);
  } catch (const fs::filesystem_error &e) {
    fs::remove_all(partial, ec);
    throw ToolError{dir + ": " + e.what()};
  } catch (...) {
    fs::remove_all(partial, ec);
    throw;
  }
}

Model loadModel(const std::string &dir) {
  const auto corrupt = [&](const std::string &why) {
    return ToolError{dir + ": not a usable model (" + why + ")"};
  };
  if (!fs::is_directory(dir)) throw ToolError{dir + ": no such model directory"};
  std::ifstream in(fs::path(dir) / kManifest);
  if (!in) throw corrupt(std::string("no ") + kManifest);
  Model model;
  std::string line, templatesFile;
  size_t count = 0;
  std::vector<int> templateIds;
  bool ended = false;
  if (!std::getline(in, line) || line != kMagicLine) throw corrupt("unknown manifest format");
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    std::string rest;
    std::getline(words >> std::ws, rest);
    if (key == "sample_rate") {
      model.sampleRate = std::atoi(rest.c_str());
    } else if (key == "dim") {
      model.dim = std::atoi(rest.c_str());
    } else if (key == "front") {
      try {
        model.front.parse(rest);
      } catch (const ToolError &e) {
        throw corrupt(e.message);
      }
    } else if (key == "match") {
      try {
        parseMatch(rest, model.match);
      } catch (const ToolError &e) {
        throw corrupt(e.message);
      }
    } else if (key == "templates") {
      std::istringstream t(rest);
      if (!(t >> templatesFile >> count) || count == 0 || count > 1000000 ||
          templatesFile.find('/') != std::string::npos)
        throw corrupt("bad templates line");
    } else if (key == "word") {
      size_t index = 0;
      std::string label;
      std::istringstream t(rest);
      if (!(t >> index >> label) || index != model.words.size()) throw corrupt("bad word line");
      model.words.push_back(label);
    } else if (key == "template") {
      int id = 0, word = -1, group = -1;
      std::istringstream t(rest);
      if (!(t >> id >> word >> group) || word < 0 || word >= static_cast<int>(model.words.size()) ||
          group < 0 || group > 1000000)
        throw corrupt("bad template line");
      templateIds.push_back(id);
      model.templateWord.push_back(word);
      model.templateGroup.push_back(group);
    } else if (key == "end") {
      ended = true;
      break;
    } else {
      throw corrupt("unknown manifest line '" + key + "'");
    }
  }
  if (!ended) throw corrupt("the manifest is cut short");
  if (model.sampleRate <= 0 || model.dim <= 0 || model.words.empty() || count != templateIds.size())
    throw corrupt("incomplete manifest");
  const xkl_frontend_config config = toConfig(model.front, model.sampleRate);
  if (config.n_ceps * (1 + config.deltas) != model.dim) throw corrupt("dim does not match the front end");

  // The templates come through the thread's store: read, copy out, free.
  std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen((fs::path(dir) / templatesFile).c_str(), "rb"),
                                              std::fclose);
  if (!file) throw corrupt("cannot open " + templatesFile);
  for (size_t i = 0; i < count; ++i) {
    const int id = XKsReadDTWPattern(file.get());
    if (id < 0) throw corrupt(templatesFile + " is damaged at template " + std::to_string(i + 1));
    float **data = nullptr;
    int frames = 0, dim = 0;
    // The file's id may repeat one already stored; the newest record is the
    // last in the store, so it is read by value before anything else.
    const int found = XKsPatternGet(id, &data, &frames, &dim);
    Features f;
    bool ok = found == id && dim == model.dim && frames > 0 && id == templateIds[i];
    if (ok) {
      f.frames = frames;
      f.dim = dim;
      for (int t = 0; t < frames; ++t) f.data.insert(f.data.end(), data[t], data[t] + dim);
    }
    XKsPatternFree(id);
    if (!ok) throw corrupt(templatesFile + " does not match the manifest at template " + std::to_string(i + 1));
    model.templates.push_back(std::move(f));
  }
  return model;
}

Recognizer::Recognizer(const Model &model) : model_(model) {
  try {
    for (size_t i = 0; i < model.templates.size(); ++i) addTemplate(model.templates[i], model.templateWord[i]);
  } catch (...) {
    for (int id : ids_) XKsPatternFree(id);
    throw;
  }
  base_ = ids_.size();
}

Recognizer::~Recognizer() {
  for (int id : ids_) XKsPatternFree(id);
}

size_t Recognizer::addTemplate(const Features &f, int word) {
  std::vector<float *> rows(static_cast<size_t>(f.frames));
  for (int i = 0; i < f.frames; ++i) rows[static_cast<size_t>(i)] = const_cast<float *>(f.row(i));
  const int id = XKsPatternIni(rows.data(), f.frames, f.dim);
  if (id < 0) throw ToolError{"out of memory for the templates"};
  ids_.push_back(id);
  lengths_.push_back(f.frames);
  words_.push_back(word);
  return ids_.size() - 1;
}

void Recognizer::dropAdded() {
  for (size_t i = base_; i < ids_.size(); ++i) XKsPatternFree(ids_[i]);
  ids_.resize(base_);
  lengths_.resize(base_);
  words_.resize(base_);
}

std::vector<Ranked> Recognizer::rank(const Features &utterance, long skip) const {
  std::vector<double> d = distances(ids_, lengths_, utterance, model_.match);
  if (skip >= 0) d[static_cast<size_t>(skip)] = std::numeric_limits<double>::infinity();
  // A word's score is the mean distance of its k nearest templates: one
  // close template of another word weighs less than several of the word.
  const size_t words = model_.words.size();
  std::vector<std::vector<double>> perWord(words);
  for (size_t i = 0; i < d.size(); ++i)
    if (std::isfinite(d[i])) perWord[static_cast<size_t>(words_[i])].push_back(d[i]);
  std::vector<double> best(words, std::numeric_limits<double>::infinity());
  for (size_t w = 0; w < words; ++w) {
    std::vector<double> &v = perWord[w];
    const size_t k = std::min(v.size(), static_cast<size_t>(model_.match.neighbours));
    if (k == 0) continue;
    std::partial_sort(v.begin(), v.begin() + static_cast<long>(k), v.end());
    double sum = 0;
    for (size_t i = 0; i < k; ++i) sum += v[i];
    best[w] = sum / static_cast<double>(k);
  }
  std::vector<size_t> ranking(words);
  for (size_t w = 0; w < words; ++w) ranking[w] = w;
  std::sort(ranking.begin(), ranking.end(),
            [&](size_t a, size_t b) { return best[a] < best[b] || (best[a] == best[b] && a < b); });
  std::vector<Ranked> out;
  for (size_t w : ranking) out.push_back({model_.words[w], best[w]});
  return out;
}

std::vector<std::vector<Ranked>> Recognizer::recognizeSpeaker(const std::vector<const Features *> &files) {
  std::vector<std::vector<Ranked>> ranked;
  for (const Features *f : files) ranked.push_back(rank(*f));
  const size_t adopt = static_cast<size_t>(std::floor(model_.match.adapt * static_cast<double>(files.size())));
  if (adopt == 0) return ranked;
  // Confidence: how far the runner-up trails, relative to the best score.
  std::vector<std::pair<double, size_t>> margin;
  for (size_t i = 0; i < files.size(); ++i) {
    const double a = ranked[i][0].score, b = ranked[i].size() > 1 ? ranked[i][1].score : a;
    margin.push_back({std::isfinite(a) && a > 0 ? (b - a) / a : 0.0, i});
  }
  std::sort(margin.begin(), margin.end(), [](const auto &x, const auto &y) {
    return x.first > y.first || (x.first == y.first && x.second < y.second);
  });
  std::vector<long> own(files.size(), -1);  // each adopted file's own template
  for (size_t r = 0; r < adopt; ++r) {
    const size_t i = margin[r].second;
    const auto w = std::find(model_.words.begin(), model_.words.end(), ranked[i][0].word) - model_.words.begin();
    own[i] = static_cast<long>(addTemplate(*files[i], static_cast<int>(w)));
  }
  for (size_t i = 0; i < files.size(); ++i) ranked[i] = rank(*files[i], own[i]);
  dropAdded();
  return ranked;
}

}  // namespace xkltool
