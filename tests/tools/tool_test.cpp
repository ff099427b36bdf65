// The installed xkl program, driven as a user would: its feature files
// against the library's front end and independent readers of each format,
// training and recognition against the demo's figures, and every kind of bad
// input giving one line on standard error and a non-zero exit.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "xkl.h"
#include "xkl_test_support.h"

namespace fs = std::filesystem;

namespace {

// The per-thread feature buffers of the test's own front-end calls.
[[maybe_unused]] ::testing::Environment *const releaseTables =
    ::testing::AddGlobalTestEnvironment(new xkltest::ReleaseFeatureTables);

struct Outcome {
  int status;
  std::string out, err;
};

std::string readBytes(const std::string &file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs the installed program with `args` (a shell word list).
Outcome xkl(const std::string &args) {
  static int serial = 0;
  const fs::path dir = fs::temp_directory_path() / ("xkl_tool_test_" + std::to_string(getpid()));
  fs::create_directories(dir);
  const std::string out = (dir / ("out" + std::to_string(serial))).string();
  const std::string err = (dir / ("err" + std::to_string(serial++))).string();
  const int raw = std::system((std::string(XKL_TOOL) + " " + args + " >" + out + " 2>" + err + " </dev/null").c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128, readBytes(out), readBytes(err)};
}

std::vector<std::string> lines(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

class Tool : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("xkl_tool_" + std::to_string(getpid()) + "_" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const std::string &name) const { return (dir_ / name).string(); }
  fs::path dir_;
};

const std::string kCorpus = XKL_CORPUS;

std::vector<short> readShorts(const std::string &file, int &rate) {
  SF_INFO info{};
  SNDFILE *f = sf_open(file.c_str(), SFM_READ, &info);
  EXPECT_NE(f, nullptr) << file;
  std::vector<short> s(static_cast<size_t>(info.frames));
  sf_readf_short(f, s.data(), info.frames);
  sf_close(f);
  rate = info.samplerate;
  return s;
}

void writeWav(const std::string &file, const std::vector<short> &samples, int rate) {
  SF_INFO info{0, rate, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
  SNDFILE *f = sf_open(file.c_str(), SFM_WRITE, &info);
  ASSERT_NE(f, nullptr);
  sf_writef_short(f, samples.data(), static_cast<sf_count_t>(samples.size()));
  sf_close(f);
}

uint32_t bigEndian(const std::string &b, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = 0; i < bytes; ++i) v = v << 8 | static_cast<unsigned char>(b[at + i]);
  return v;
}

TEST_F(Tool, FeatureFilesHoldTheLibrarysFrontEndInEachFormat) {
  const std::string wav = kCorpus + "/3_theo_7.flac";
  const std::string opts = " --deltas 2 --cmn utterance --energy log";
  for (const char *out : {"f.npy", "f.htk", "f.txt --format csv"})
    ASSERT_EQ(xkl("features " + wav + opts + " -o " + path(out)).status, 0) << out;

  // The same features straight from the library.
  int rate = 0;
  const std::vector<short> pcm = readShorts(wav, rate);
  xkl_frontend_config cfg;
  xkl_frontend_config_init(&cfg);
  cfg.sample_rate = rate, cfg.deltas = 2, cfg.cmn = XKL_CMN_UTTERANCE;
  const int frames = xkl_frontend_frame_count(&cfg, pcm.size());
  std::vector<float> expected(static_cast<size_t>(frames) * 39);
  ASSERT_EQ(xkl_frontend_compute_i16(&cfg, pcm.data(), pcm.size(), expected.data(), frames), frames);

  // .npy: magic, version 1.0, a header that says float32 frames x 39, the
  // data little-endian right after a 64-byte aligned header.
  const std::string npy = readBytes(path("f.npy"));
  ASSERT_EQ(npy.compare(0, 8, std::string("\x93NUMPY\x01\x00", 8)), 0);
  const size_t headerLen = static_cast<unsigned char>(npy[8]) | static_cast<unsigned char>(npy[9]) << 8;
  const std::string header = npy.substr(10, headerLen);
  EXPECT_EQ((10 + headerLen) % 64, 0u);
  for (const std::string &item : {std::string("'descr': '<f4'"), std::string("'fortran_order': False"),
                                  "'shape': (" + std::to_string(frames) + ", 39)"})
    EXPECT_NE(header.find(item), std::string::npos) << item;
  ASSERT_EQ(npy.size(), 10 + headerLen + expected.size() * 4);
  EXPECT_EQ(std::memcmp(npy.data() + 10 + headerLen, expected.data(), expected.size() * 4), 0);

  // HTK: big-endian header (frames, period in 100 ns, bytes per frame,
  // MFCC_E_D_A_Z = 6 | 0x40 | 0x100 | 0x200 | 0x800), energy last per block.
  const std::string htk = readBytes(path("f.htk"));
  ASSERT_EQ(htk.size(), 12 + expected.size() * 4);
  const uint32_t want[] = {static_cast<uint32_t>(frames), 100000, 39 * 4, 6 | 0x40 | 0x100 | 0x200 | 0x800};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(bigEndian(htk, i < 2 ? 4 * i : 4 + 2 * i, i < 2 ? 4 : 2), want[i]) << i;
  for (size_t j = 0; j < expected.size(); ++j) {  // frame j / 39, block j % 39 / 13, place j % 13
    const uint32_t bits = bigEndian(htk, 12 + 4 * j, 4);
    float v;
    std::memcpy(&v, &bits, 4);
    ASSERT_EQ(v, expected[j - j % 13 + (j % 13 == 12 ? 0 : j % 13 + 1)]) << j / 39 << " " << j % 39;
  }

  // CSV: a header naming the columns, then the values to 9 digits.
  const std::vector<std::string> csv = lines(readBytes(path("f.txt")));
  ASSERT_EQ(csv.size(), static_cast<size_t>(frames) + 1);
  EXPECT_EQ(csv[0].substr(0, 12), "logE,c1,c2,c");
  std::istringstream row(csv[1]);
  for (int d = 0; d < 39; ++d) {
    std::string cell;
    std::getline(row, cell, ',');
    EXPECT_NEAR(std::stod(cell), expected[static_cast<size_t>(d)], 1e-6 * (1 + std::fabs(expected[d])));
  }

  // LP coefficients instead: HTK kind LPC, p values per frame.
  ASSERT_EQ(xkl("features " + wav + " --lpc 10 -o " + path("l.htk")).status, 0);
  const std::string lpc = readBytes(path("l.htk"));
  EXPECT_TRUE(bigEndian(lpc, 10, 2) == 1u && bigEndian(lpc, 8, 2) == 40u);
}

// The demo on a subset, and the same split by train + recognize --list.
TEST_F(Tool, TrainAndRecognizeReproduceTheDemo) {
  fs::create_directories(path("data"));
  std::ofstream train(path("train.csv")), test(path("test.csv"));
  train << "speaker,path,label\n";
  test << "path,label,note\n";
  for (const char *speaker : {"jackson", "nicolas", "theo"})
    for (int digit = 0; digit < 10; ++digit)
      for (int take = 0; take < 6; ++take) {
        const std::string name = std::to_string(digit) + "_" + speaker + "_" + std::to_string(take) + ".flac";
        fs::create_symlink(kCorpus + "/" + name, path("data/" + name));
        if (std::string(speaker) == "theo")
          test << "data/" << name << "," << digit << ",x\n";
        else
          train << speaker << ",data/" << name << "," << digit << "\n";
      }
  train.close(), test.close();
  const Outcome demo = xkl("demo -q --data " + path("data") + " --min-accuracy 0");
  ASSERT_EQ(demo.status, 0) << demo.err;
  std::smatch m;
  const std::regex theo(R"(held out theo .*: *([0-9.]+)% \(([0-9]+)/([0-9]+)\))");
  ASSERT_TRUE(std::regex_search(demo.out, m, theo)) << demo.out;
  const std::string theoFigure = m[1].str() + "% (" + m[2].str() + "/" + m[3].str() + ")";
  EXPECT_TRUE(std::regex_match(theoFigure, std::regex(R"([0-9]+\.[0-9]{2}% \([0-9]+/60\))"))) << theoFigure;

  ASSERT_EQ(xkl("train -q --list " + path("train.csv") + " --model " + path("model")).status, 0);
  EXPECT_TRUE(fs::exists(path("model/model.txt")));
  EXPECT_FALSE(fs::exists(path("model.partial")));
  const Outcome rec = xkl("recognize -q --model " + path("model") + " --list " + path("test.csv"));
  ASSERT_EQ(rec.status, 0) << rec.err;
  const std::vector<std::string> out = lines(rec.out);
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.back(), "accuracy: " + theoFigure);
  // One line per file: path, best label, score, runner-up label, score.
  EXPECT_TRUE(std::regex_match(out[0], std::regex(R"(\S+ [0-9] [0-9.]+ [0-9] [0-9.]+)"))) << out[0];

  // Files named on the command line get the same lines.
  const Outcome two = xkl("recognize --model " + path("model") + " " + path("data/4_theo_1.flac") + " " +
                      path("data/7_theo_2.flac"));
  ASSERT_EQ(two.status, 0);
  EXPECT_EQ(lines(two.out).size(), 2u);
}

TEST_F(Tool, ShowDrawsAPicture) {
  ASSERT_EQ(xkl("show -q " + kCorpus + "/5_nicolas_3.flac -o " + path("s.png")).status, 0);
  const std::string png = readBytes(path("s.png"));
  ASSERT_GT(png.size(), 1000u);
  EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
}

TEST_F(Tool, BadInputGetsOneLineAndAFailure) {
  std::ofstream(path("text.wav")) << "this is not audio\n";
  std::ofstream(path("empty.wav")).close();
  writeWav(path("silent.wav"), std::vector<short>(8000, 0), 8000);
  std::ofstream(path("nolabel.csv")) << "path,word\nx.wav,1\n";
  std::ofstream(path("blank.csv")) << "path,label\n" << kCorpus << "/1_theo_1.flac,one two\n";
  std::ofstream(path("missing.csv")) << "path,label\nnowhere.wav,1\n";
  std::ofstream(path("one.csv")) << "path,label\n" << kCorpus << "/1_theo_1.flac,1\n"
                                 << kCorpus << "/2_theo_1.flac,2\n";
  ASSERT_EQ(xkl("train -q --list " + path("one.csv") + " --model " + path("good")).status, 0);
  fs::copy(path("good"), path("cut"));
  fs::resize_file(path("cut/templates.dtw"), fs::file_size(path("cut/templates.dtw")) / 2);
  fs::copy(path("good"), path("garbled"));
  std::ofstream(path("garbled/model.txt")) << "something else\n";

  const struct {
    std::string args, mentions;
  } cases[] = {
      {"features " + path("nothere.wav"), "nothere.wav"},
      {"features " + path("text.wav"), "text.wav"},
      {"features " + path("empty.wav"), "empty.wav"},
      {"features " + path("silent.wav"), "silent.wav"},
      {"train --list " + path("nolabel.csv") + " --model " + path("m1"), "label"},
      {"train --list " + path("blank.csv") + " --model " + path("m2"), "label"},
      {"train --list " + path("missing.csv") + " --model " + path("m3"), "nowhere.wav"},
      {"train --list " + path("nothere.csv") + " --model " + path("m4"), "nothere.csv"},
      {"recognize --model " + path("nomodel") + " " + kCorpus + "/1_theo_1.flac", "nomodel"},
      {"recognize --model " + path("cut") + " " + kCorpus + "/1_theo_1.flac", "cut"},
      {"recognize --model " + path("garbled") + " " + kCorpus + "/1_theo_1.flac", "garbled"},
      {"features " + kCorpus + "/1_theo_1.flac --filters 0", "--filters"},
      {"features " + kCorpus + "/1_theo_1.flac --frame-ms -3", "--frame-ms"},
      {"features " + kCorpus + "/1_theo_1.flac --ceps 30", "n_ceps"},
      {"features " + kCorpus + "/1_theo_1.flac --fft-order 6", "FFT"},
      {"features " + kCorpus + "/1_theo_1.flac --window round", "--window"},
      {"frobnicate", "frobnicate"},
  };
  for (const auto &c : cases) {
    const Outcome r = xkl(c.args);
    EXPECT_NE(r.status, 0) << c.args;
    EXPECT_LT(r.status, 128) << c.args << " (a crash)";
    const std::vector<std::string> err = lines(r.err);
    ASSERT_EQ(err.size(), 1u) << c.args << "\n" << r.err;
    EXPECT_EQ(err[0].rfind("xkl: ", 0), 0u) << err[0];
    EXPECT_NE(err[0].find(c.mentions), std::string::npos) << err[0];
  }
  // No half-written model is left behind by a failed training.
  for (const char *m : {"m1", "m2", "m3", "m4"})
    EXPECT_FALSE(fs::exists(path(m)) || fs::exists(path(std::string(m) + ".partial"))) << m;
}

}  // namespace
