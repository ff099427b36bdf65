// MFCC front end over 60 s of 16 kHz speech (25 ms frames every 10 ms,
// 512-point FFT, 26 filters, 13 cepstra, pre-emphasis 0.97, Hamming window
// applied here), compared in one run with a lean front end on FFTW written
// below (r2c FFT, power, mel filters, log, DCT: the textbook order) and with
// SPTK's command-line front end timed as a whole process over the same
// audio. Counters: frames per second and times real time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <unistd.h>
#include <random>
#include <string>
#include <vector>

#include "xkl.h"

#ifdef XKL_HAVE_FFTW
#include <fftw3.h>
#endif

namespace {

constexpr int kRate = 16000, kSeconds = 60, kLen = 400, kShift = 160, kOrder = 9, kFft = 512;
constexpr int kFilters = 26, kCeps = 13;
constexpr int kFrames = (kRate * kSeconds - kLen) / kShift + 1;
constexpr float kFloor = 1.0f;

// 60 s of speech: the bundled 8 kHz digits, doubled in rate by linear
// interpolation and concatenated; a synthetic voiced signal when absent.
const std::vector<short> &audio() {
  static const std::vector<short> pcm = [] {
    std::vector<short> out;
    const auto dir = std::filesystem::path(__FILE__).parent_path() / ".." / ".." / "shared" / "corpus" / "fsdd";
    std::vector<std::filesystem::path> files;
    if (std::filesystem::exists(dir))
      for (const auto &e : std::filesystem::directory_iterator(dir))
        if (e.path().extension() == ".wav") files.push_back(e.path());
    std::sort(files.begin(), files.end());
    for (const auto &f : files) {
      if (out.size() >= static_cast<size_t>(kRate * kSeconds)) break;
      FILE *fp = std::fopen(f.string().c_str(), "rb");
      if (!fp) continue;
      std::vector<unsigned char> bytes;
      unsigned char b[4096];
      size_t got;
      while ((got = std::fread(b, 1, sizeof b, fp)) > 0) bytes.insert(bytes.end(), b, b + got);
      std::fclose(fp);
      // 44-byte canonical header assumed for the corpus (16-bit mono PCM).
      std::vector<short> s;
      for (size_t i = 44; i + 1 < bytes.size(); i += 2) s.push_back(static_cast<short>(bytes[i] | bytes[i + 1] << 8));
      for (size_t i = 0; i + 1 < s.size(); ++i) {
        out.push_back(s[i]);
        out.push_back(static_cast<short>((s[i] + s[i + 1]) / 2));
      }
    }
    std::mt19937 gen(3);
    std::normal_distribution<double> noise(0, 300);
    for (size_t t = out.size(); t < static_cast<size_t>(kRate * kSeconds); ++t) {
      double v = noise(gen);
      for (int h = 1; h < 20; ++h) v += 6000.0 / h * std::sin(2 * M_PI * 120.0 * h * t / kRate);
      out.push_back(static_cast<short>(std::clamp(v, -32000.0, 32000.0)));
    }
    out.resize(static_cast<size_t>(kRate * kSeconds));
    return out;
  }();
  return pcm;
}

const std::vector<float> &hamming() {
  static const std::vector<float> w = [] {
    std::vector<float> v(kLen);
    for (int i = 0; i < kLen; ++i) v[i] = static_cast<float>(0.54 - 0.46 * std::cos(2 * M_PI * i / (kLen - 1)));
    return v;
  }();
  return w;
}

// One frame, pre-emphasised and windowed, zero-padded to the FFT length.
inline void prepare(const short *src, float *frame) {
  for (int i = 0; i < kLen; ++i) frame[i] = src[i];
  XKsPreemphasize(frame, 0.97f, kLen);
  const float *w = hamming().data();
  for (int i = 0; i < kLen; ++i) frame[i] *= w[i];
  std::memset(frame + kLen, 0, sizeof(float) * (kFft - kLen));
}

void setCounters(benchmark::State &state) {
  state.counters["frames_per_s"] = benchmark::Counter(kFrames, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["x_realtime"] = benchmark::Counter(kSeconds, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_xkl_float(benchmark::State &state) {
  const int flags = static_cast<int>(state.range(0));
  XKMFCCFilters *f = XKsMFCCInit(kOrder, kFilters, 0, kRate / 2, kRate, 0, 0);
  const short *pcm = audio().data();
  alignas(32) float frame[kFft];
  float out[kCeps];
  for (auto _ : state) {
    for (int t = 0; t < kFrames; ++t) {
      prepare(pcm + t * kShift, frame);
      XKsCepstralMFCC(f, frame, out, kCeps, kFloor, flags);
      benchmark::DoNotOptimize(out);
    }
  }
  setCounters(state);
  XKsFreeMFCCFilters(f);
  XKFreeCepsTbls();
}
// Power spectrum with the logarithm before filtering; magnitude mode with the
// logarithm after filtering. Both with the floor and c0.
BENCHMARK(BM_xkl_float)->ArgName("flags")->Arg(1 | 4 | 16)->Arg(1 | 4 | 8 | 16)->Unit(benchmark::kMillisecond);

void BM_xkl_16bit(benchmark::State &state) {
  const int flags = static_cast<int>(state.range(0));
  XKMFCCFilters *f = XKwMFCCInit(kOrder, kFilters, 0, kRate / 2, kRate, 0, 0);
  const short *pcm = audio().data();
  short w15[kLen];
  for (int i = 0; i < kLen; ++i) w15[i] = static_cast<short>(std::lround(hamming()[i] * 32767));
  alignas(32) short frame[kFft];
  short out[kCeps];
  for (auto _ : state) {
    for (int t = 0; t < kFrames; ++t) {
      std::memcpy(frame, pcm + t * kShift, sizeof(short) * kLen);
      XKwPreemphasize(frame, 0.97f, kLen, 0, nullptr);
      for (int i = 0; i < kLen; ++i) frame[i] = static_cast<short>((frame[i] * w15[i]) >> 15);
      std::memset(frame + kLen, 0, sizeof(short) * (kFft - kLen));
      int scale = 0;
      XKwCepstralMFCC(f, frame, out, kCeps, 1, flags, 0, XK_AUTO_SCALE, &scale);
      benchmark::DoNotOptimize(out);
    }
  }
  setCounters(state);
  float *dct[] = {f->dctSrc, f->dctIn, f->dctOut};
  XKwFreeMFCCFilters(f);
  for (float *p : dct) std::free(p);
  XKFreeCepsTbls();
}
BENCHMARK(BM_xkl_16bit)->ArgName("flags")->Arg(1 | 4)->Arg(1 | 4 | 8)->Unit(benchmark::kMillisecond);

#ifdef XKL_HAVE_FFTW
// The lean peer: FFTW r2c, power (or magnitude), the same filters as sparse
// rows, floor and log of the filter outputs, a 13 x 26 DCT-II matrix.
void BM_fftw_frontend(benchmark::State &state) {
  const bool magnitude = state.range(0) != 0;
  XKMFCCFilters *bank = XKsMFCCInit(kOrder, kFilters, 0, kRate / 2, kRate, 0, 0);
  std::vector<int> first(bank->disFft, bank->disFft + kFilters), len(bank->FilLength, bank->FilLength + kFilters);
  std::vector<float> weights(bank->FilWeight, bank->FilWeight + std::accumulate(len.begin(), len.end(), 0));
  XKsFreeMFCCFilters(bank);
  std::vector<float> dct(kCeps * kFilters);
  for (int c = 0; c < kCeps; ++c)
    for (int i = 0; i < kFilters; ++i)
      dct[c * kFilters + i] = static_cast<float>(std::sqrt((c == 0 ? 1.0 : 2.0) / kFilters) *
                                                 std::cos(M_PI * c * (2 * i + 1) / (2.0 * kFilters)));
  float *in = fftwf_alloc_real(kFft);
  fftwf_complex *spec = fftwf_alloc_complex(kFft / 2 + 1);
  fftwf_plan plan = fftwf_plan_dft_r2c_1d(kFft, in, spec, FFTW_MEASURE);
  const short *pcm = audio().data();
  float power[kFft / 2 + 1], fb[kFilters], out[kCeps];
  for (auto _ : state) {
    for (int t = 0; t < kFrames; ++t) {
      prepare(pcm + t * kShift, in);
      fftwf_execute(plan);
      for (int k = 0; k <= kFft / 2; ++k) power[k] = spec[k][0] * spec[k][0] + spec[k][1] * spec[k][1];
      if (magnitude)
        for (int k = 0; k <= kFft / 2; ++k) power[k] = std::sqrt(power[k]);
      const float *w = weights.data();
      for (int i = 0; i < kFilters; ++i) {
        float s = 0;
        for (int j = 0; j < len[i]; ++j) s += w[j] * power[first[i] + j];
        w += len[i];
        fb[i] = std::log(std::max(s, kFloor));
      }
      for (int c = 0; c < kCeps; ++c) {
        float s = 0;
        for (int i = 0; i < kFilters; ++i) s += dct[c * kFilters + i] * fb[i];
        out[c] = s;
      }
      benchmark::DoNotOptimize(out);
    }
  }
  setCounters(state);
  fftwf_destroy_plan(plan);
  fftwf_free(in);
  fftwf_free(spec);
}
BENCHMARK(BM_fftw_frontend)->ArgName("magnitude")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

// SPTK as a whole process: frame | window | mfcc over the same audio (as
// floats), output discarded. Wall time of the pipeline per iteration.
void BM_sptk_pipeline(benchmark::State &state) {
  const char *bin = "/usr/libexec/sptk/bin";
  if (!std::filesystem::exists(std::string(bin) + "/mfcc")) {
    state.SkipWithError("SPTK not installed");
    return;
  }
  const std::string raw = "/tmp/xkl_bench_mfcc_" + std::to_string(getpid()) + ".f32";
  {
    std::vector<float> f(audio().begin(), audio().end());
    FILE *fp = std::fopen(raw.c_str(), "wb");
    std::fwrite(f.data(), sizeof(float), f.size(), fp);
    std::fclose(fp);
  }
  const std::string cmd = std::string(bin) + "/frame -l 400 -p 160 -n " + raw + " | " + bin +
                          "/window -l 400 -L 512 | " + bin +
                          "/mfcc -l 512 -m 12 -n 26 -s 16 -w 1 -a 0.97 -e 1 -0 > /dev/null";
  for (auto _ : state) {
    if (std::system(cmd.c_str()) != 0) state.SkipWithError("SPTK pipeline failed");
  }
  setCounters(state);
  std::remove(raw.c_str());
}
BENCHMARK(BM_sptk_pipeline)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
