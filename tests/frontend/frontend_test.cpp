// The streaming front end: chunking never changes a bit, the pipeline
// matches a reference written from the formulas (framing, padding, window,
// energy, regression deltas, mean and variance normalisation), bad
// configurations fail with a readable text and never end the process.
#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <mutex>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "xkl.h"
#include "xkl_test_support.h"

namespace {

// The main thread's per-thread feature buffers go at the end of the run.
[[maybe_unused]] ::testing::Environment *const releaseTables =
    ::testing::AddGlobalTestEnvironment(new xkltest::ReleaseFeatureTables);

// Speech-like test signal in whole numbers on the 16-bit scale: a gliding
// harmonic series with an amplitude envelope, plus noise and a silent stretch.
std::vector<float> speechLike(size_t n, unsigned seed, int rate = 16000) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> noise(0.0, 200.0);
  std::vector<float> x(n);
  double phase = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / rate;
    const double f0 = 110.0 + 60.0 * std::sin(2.0 * M_PI * 1.3 * t);
    phase += 2.0 * M_PI * f0 / rate;
    double v = 0.0;
    for (int h = 1; h <= 12; ++h) v += std::sin(h * phase) / h;
    const double env = 0.5 + 0.5 * std::sin(2.0 * M_PI * 2.1 * t);
    const bool silent = i > n / 2 && i < n / 2 + n / 10;
    x[i] = silent ? 0.0f : static_cast<float>(std::round(6000.0 * env * v + noise(gen)));
  }
  return x;
}

std::vector<float> runBatch(const xkl_frontend_config &cfg, const std::vector<float> &x) {
  const int frames = xkl_frontend_frame_count(&cfg, x.size());
  xkl_frontend_config resolved = cfg;
  EXPECT_EQ(xkl_frontend_config_resolve(&resolved), 0) << xkl_last_error();
  const int dim = resolved.n_ceps * (1 + resolved.deltas);
  std::vector<float> out(static_cast<size_t>(frames) * static_cast<size_t>(dim));
  EXPECT_EQ(xkl_frontend_compute(&cfg, x.data(), x.size(), out.data(), frames), frames)
      << xkl_last_error();
  return out;
}

// Pushes `x` in random chunks (pulling at random moments), then flushes.
std::vector<float> runChunked(xkl_frontend *fe, const std::vector<float> &x, unsigned seed,
                              bool asShorts) {
  std::mt19937 gen(seed);
  const size_t maxChunk = std::uniform_int_distribution<size_t>(1, 3000)(gen);
  std::uniform_int_distribution<size_t> chunk(0, maxChunk);
  const int dim = xkl_frontend_dim(fe);
  std::vector<float> got, buf;
  auto pull = [&] {
    const int n = xkl_frontend_available(fe);
    buf.resize(static_cast<size_t>(n) * static_cast<size_t>(dim));
    EXPECT_EQ(xkl_frontend_pull(fe, buf.data(), n), n);
    got.insert(got.end(), buf.begin(), buf.end());
  };
  std::vector<short> s16;
  for (size_t at = 0; at < x.size();) {
    const size_t n = std::min(chunk(gen), x.size() - at);
    if (asShorts) s16.assign(x.begin() + static_cast<long>(at), x.begin() + static_cast<long>(at + n));
    EXPECT_EQ(asShorts ? xkl_frontend_push_i16(fe, s16.data(), n) : xkl_frontend_push(fe, x.data() + at, n), 0)
        << xkl_last_error();
    at += n;
    if (gen() % 3 == 0) pull();
  }
  EXPECT_EQ(xkl_frontend_flush(fe), 0) << xkl_last_error();
  pull();
  return got;
}

struct Options {
  const char *name;
  int arithmetic, energy, spectrum, deltas, cmn, cvn, lifter, frameLen, shift;
};

const Options kOptions[] = {
    {"float defaults", XKL_ARITH_FLOAT, XKL_ENERGY_LOG, XKL_SPECTRUM_POWER, 0, XKL_CMN_NONE, 0, 22, 0, 0},
    {"float c0 deltas2 sliding cvn", XKL_ARITH_FLOAT, XKL_ENERGY_C0, XKL_SPECTRUM_POWER, 2, XKL_CMN_SLIDING, 1, 22, 0, 0},
    {"float magnitude deltas1 utterance", XKL_ARITH_FLOAT, XKL_ENERGY_NONE, XKL_SPECTRUM_MAGNITUDE, 1, XKL_CMN_UTTERANCE, 0, 0, 0, 0},
    {"float shift > length", XKL_ARITH_FLOAT, XKL_ENERGY_LOG, XKL_SPECTRUM_POWER, 2, XKL_CMN_SLIDING, 0, 22, 160, 237},
    {"fixed defaults deltas2", XKL_ARITH_FIXED16, XKL_ENERGY_LOG, XKL_SPECTRUM_POWER, 2, XKL_CMN_NONE, 0, 22, 0, 0},
    {"fixed magnitude utterance cvn", XKL_ARITH_FIXED16, XKL_ENERGY_C0, XKL_SPECTRUM_MAGNITUDE, 1, XKL_CMN_UTTERANCE, 1, 0, 0, 0},
};

// The default configuration with `change` applied.
template <class F = void (*)(xkl_frontend_config &)>
xkl_frontend_config config(F change = [](xkl_frontend_config &) {}) {
  xkl_frontend_config cfg;
  xkl_frontend_config_init(&cfg);
  change(cfg);
  return cfg;
}

xkl_frontend_config configFor(const Options &o) {
  return config([&](xkl_frontend_config &c) {
    c.arithmetic = o.arithmetic, c.energy = o.energy, c.spectrum = o.spectrum, c.deltas = o.deltas;
    c.cmn = o.cmn, c.cmn_window = 41, c.cvn = o.cvn, c.lifter = o.lifter;
    c.frame_length = o.frameLen, c.frame_shift = o.shift;
  });
}

// Random chunking gives the batch frames bit for bit, and frames come out
// exactly `latency` frames after they are complete.
TEST(FrontendStreaming, AnyChunkingGivesTheBatchFramesAtTheStatedLatency) {
  const std::vector<float> x = speechLike(16000 + 123, 7);
  for (const Options &o : kOptions) {
    SCOPED_TRACE(o.name);
    const xkl_frontend_config cfg = configFor(o);
    const std::vector<float> batch = runBatch(cfg, x);
    ASSERT_FALSE(batch.empty());
    xkl_frontend *fe = xkl_frontend_new(&cfg);
    ASSERT_NE(fe, nullptr) << xkl_last_error();
    for (unsigned seed = 1; seed <= 12; ++seed) {
      // Alternate float and 16-bit pushes: the signal holds whole numbers,
      // so both describe the same samples.
      const std::vector<float> got = runChunked(fe, x, seed, seed % 2 == 0);
      ASSERT_EQ(got.size(), batch.size()) << "seed " << seed;
      ASSERT_EQ(std::memcmp(got.data(), batch.data(), got.size() * sizeof(float)), 0)
          << "seed " << seed;
    }
    // Reset drops a half-pushed utterance; the next one starts clean.
    ASSERT_EQ(xkl_frontend_push(fe, x.data(), x.size() / 3), 0);
    xkl_frontend_reset(fe);
    EXPECT_EQ(xkl_frontend_available(fe), 0);
    EXPECT_EQ(runChunked(fe, x, 99, false), batch);
    // Push frame by frame: after k complete frames, k - latency are out.
    xkl_frontend_reset(fe);
    const xkl_frontend_config *r = xkl_frontend_get_config(fe);
    const int latency = xkl_frontend_latency(fe);
    size_t pushed = 0;
    for (int k = 1; k <= 60; ++k) {
      const size_t need = static_cast<size_t>((k - 1) * r->frame_shift + r->frame_length);
      ASSERT_EQ(xkl_frontend_push(fe, x.data() + pushed, need - pushed), 0);
      pushed = need;
      const int expected = latency < 0 ? 0 : std::max(0, k - latency);
      ASSERT_EQ(xkl_frontend_available(fe), expected) << "after frame " << k;
    }
    ASSERT_EQ(xkl_frontend_flush(fe), 0);
    EXPECT_EQ(xkl_frontend_available(fe), 60);  // the pushes ended on a frame: no padded frame
    xkl_frontend_free(fe);
  }
}

// ---- the reference, written from the formulas ----

struct Reference {
  int dim;
  std::vector<double> rows;
};

Reference reference(const xkl_frontend_config &in, const std::vector<float> &x) {
  xkl_frontend_config c = in;
  EXPECT_EQ(xkl_frontend_config_resolve(&c), 0);
  const size_t L = static_cast<size_t>(c.frame_length), S = static_cast<size_t>(c.frame_shift);
  const size_t N = size_t{1} << c.fft_order;
  const size_t T = x.size() <= L ? 1 : 1 + (x.size() - L + S - 1) / S;
  const int C = c.n_ceps;
  XKMFCCFilters *bank = XKsMFCCInit(c.fft_order, c.n_filters, c.low_freq, c.high_freq,
                                    c.sample_rate, c.n_linear, c.linear_freq);
  std::vector<double> statics(T * static_cast<size_t>(C));
  std::vector<float> frame(N), ceps(static_cast<size_t>(C + 1));
  for (size_t t = 0; t < T; ++t) {
    double energy = 0.0;
    std::vector<double> raw(L, 0.0);
    for (size_t i = 0; i < L && t * S + i < x.size(); ++i) raw[i] = x[t * S + i], energy += raw[i] * raw[i];
    std::fill(frame.begin(), frame.end(), 0.0f);
    for (size_t i = 0; i < L; ++i) {
      const double y = i == 0 ? raw[0] : raw[i] - static_cast<double>(c.preemphasis) * raw[i - 1];
      const double w = 0.54 - 0.46 * std::cos(2.0 * M_PI * static_cast<double>(i) / (L - 1));
      frame[i] = static_cast<float>(y * w);
    }
    // One cepstrum of the library (its own tests check it against the DFT).
    XKsCepstralMFCC(bank, frame.data(), ceps.data(), C + 1, c.floor,
                    XK_MFCC_TIME | XK_MFCC_FLOOR | XK_MFCC_C0);
    double *s = &statics[t * static_cast<size_t>(C)];
    s[0] = std::log(std::max(energy, 1e-10));
    for (int i = 1; i < C; ++i) s[i] = ceps[i] * static_cast<float>(1.0 + c.lifter / 2.0 * std::sin(M_PI * i / c.lifter));
  }
  XKsFreeMFCCFilters(bank);

  // Sliding mean and variance over the centred window cut at the ends.
  const long half = c.cmn_window / 2;
  std::vector<double> normed(statics.size());
  for (size_t t = 0; t < T; ++t)
    for (int d = 0; d < C; ++d) {
      const long lo = std::max(0L, static_cast<long>(t) - half);
      const long hi = std::min(static_cast<long>(T) - 1, static_cast<long>(t) + half);
      double sum = 0, sq = 0;
      for (long u = lo; u <= hi; ++u) sum += statics[u * C + d], sq += statics[u * C + d] * statics[u * C + d];
      const double n = static_cast<double>(hi - lo + 1), mean = sum / n, var = sq / n - mean * mean;
      // No spread (one frame): the value is only centred.
      const double sd = var > 1e-12 * (sq / n) ? std::sqrt(var) : 1.0;
      normed[t * C + d] = (statics[t * C + d] - mean) / sd;
    }

  auto delta = [&](const std::vector<double> &m) {
    const long K = c.delta_window;
    std::vector<double> out(m.size());
    for (long t = 0; t < static_cast<long>(T); ++t)
      for (int d = 0; d < C; ++d) {
        double num = 0, den = 0;
        for (long k = 1; k <= K; ++k) {
          const long a = std::min(t + k, static_cast<long>(T) - 1), b = std::max(t - k, 0L);
          num += k * (m[a * C + d] - m[b * C + d]);
          den += 2.0 * k * k;
        }
        out[t * C + d] = num / den;
      }
    return out;
  };
  const std::vector<double> d1 = delta(normed), d2 = delta(d1);
  Reference r{3 * C, {}};
  const std::vector<double> *parts[] = {&normed, &d1, &d2};
  for (size_t t = 0; t < T; ++t)
    for (const std::vector<double> *m : parts)
      r.rows.insert(r.rows.end(), m->begin() + static_cast<long>(t * C),
                    m->begin() + static_cast<long>((t + 1) * C));
  return r;
}

TEST(FrontendReference, PipelineMatchesTheFormulas) {
  const xkl_frontend_config cfg = config([](xkl_frontend_config &c) {
    c.deltas = 2, c.cmn = XKL_CMN_SLIDING, c.cmn_window = 31, c.cvn = 1;
  });
  // Lengths that end exactly on a frame, just past one, and inside the first.
  for (size_t n : {size_t{400 + 160 * 99}, size_t{400 + 160 * 99 + 1}, size_t{250}}) {
    SCOPED_TRACE(n);
    const std::vector<float> x = speechLike(n, 11), got = runBatch(cfg, x);
    const Reference ref = reference(cfg, x);
    ASSERT_EQ(got.size(), ref.rows.size());
    // Normalised features are O(1); the float pipeline (float window and
    // pre-emphasis, float deltas, double sums) stays within a few float
    // roundings of the double reference, amplified at most by the
    // 1/sd of normalisation: 2e-3 absolute covers it with margin.
    for (size_t i = 0; i < got.size(); ++i)
      ASSERT_NEAR(got[i], ref.rows[i], 2e-3) << "frame " << i / ref.dim << " coef " << i % ref.dim;
  }
}

TEST(FrontendReference, BatchHelpersFollowTheirDefinitions) {
  std::mt19937 gen(5);
  std::normal_distribution<float> dist(3.0f, 2.0f);
  const int T = 57, D = 4;
  std::vector<float> m(T * D);
  for (float &v : m) v = dist(gen);

  // Sliding normalisation over a window wider than the matrix is the
  // utterance normalisation.
  std::vector<float> a = m, b = m;
  ASSERT_EQ(xkl_normalize(a.data(), T, D, XKL_CMN_UTTERANCE, 0, 1), 0);
  ASSERT_EQ(xkl_normalize(b.data(), T, D, XKL_CMN_SLIDING, 2 * T + 1, 1), 0);
  for (int d = 0; d < D; ++d) {
    double sum = 0, sq = 0;
    for (int t = 0; t < T; ++t) {
      sum += a[t * D + d], sq += a[t * D + d] * a[t * D + d];
      EXPECT_NEAR(a[t * D + d], b[t * D + d], 1e-5);
    }
    EXPECT_NEAR(sum / T, 0.0, 1e-5);
    EXPECT_NEAR(sq / T, 1.0, 1e-4);
  }
  // A constant column is only centred, never divided by its zero spread.
  std::vector<float> flat(T * D, 4.25f);
  ASSERT_EQ(xkl_normalize(flat.data(), T, D, XKL_CMN_SLIDING, 9, 1), 0);
  for (float v : flat) EXPECT_EQ(v, 0.0f);

  // Deltas of a straight line are its slope, also at the clamped ends' far
  // side; a window-1 delta is the central difference.
  std::vector<float> line(T), dl(T);
  for (int t = 0; t < T; ++t) line[t] = 0.5f * t - 3.0f;
  ASSERT_EQ(xkl_deltas(line.data(), T, 1, 3, dl.data()), 0);
  for (int t = 3; t < T - 3; ++t) EXPECT_FLOAT_EQ(dl[t], 0.5f);
  ASSERT_EQ(xkl_deltas(m.data(), T, D, 1, b.data()), 0);
  for (int t = 0; t < T; ++t)
    for (int d = 0; d < D; ++d) {
      const float next = m[std::min(t + 1, T - 1) * D + d], prev = m[std::max(t - 1, 0) * D + d];
      EXPECT_FLOAT_EQ(b[t * D + d], (next - prev) / 2.0f);
    }
}

TEST(FrontendReference, FrameCountAndPaddingOfTheLastFrame) {
  const xkl_frontend_config cfg = config([](xkl_frontend_config &c) { c.energy = XKL_ENERGY_LOG; });
  // 1 + ceil((n - L) / S) frames; 1 for 0 < n <= L; 0 for n = 0.
  const struct { size_t n; int frames; } rows[] = {
      {0, 0}, {1, 1}, {400, 1}, {401, 2}, {560, 2}, {561, 3}, {16000, 99}};
  for (const auto &r : rows) EXPECT_EQ(xkl_frontend_frame_count(&cfg, r.n), r.frames) << r.n;
  // The padded frame's energy is that of the samples it really has.
  std::vector<float> x(561, 0.0f);
  x[560] = 3.0f;
  const std::vector<float> got = runBatch(cfg, x);
  ASSERT_EQ(got.size(), 3u * 13u);
  EXPECT_NEAR(got[2 * 13], std::log(9.0), 1e-6);
  EXPECT_NEAR(got[0], std::log(1e-10), 1e-4);
}

TEST(FrontendFixed, SixteenBitFeaturesFollowTheFloatOnes) {
  const std::vector<float> x = speechLike(16000, 21);
  for (int spectrum : {XKL_SPECTRUM_POWER, XKL_SPECTRUM_MAGNITUDE}) {
    SCOPED_TRACE(spectrum);
    xkl_frontend_config cfg = config([&](xkl_frontend_config &c) {
      c.energy = XKL_ENERGY_C0, c.lifter = 0, c.spectrum = spectrum;
    });
    const std::vector<float> f = runBatch(cfg, x);
    cfg.arithmetic = XKL_ARITH_FIXED16;
    const std::vector<float> w = runBatch(cfg, x);
    ASSERT_EQ(f.size(), w.size());
    // Voiced frames only: in silence both sit on their (different) floors.
    double errSq = 0, refSq = 0, worstC0 = 0;
    for (size_t t = 0; t < f.size() / 13; ++t) {
      if (f[t * 13] < 10.0f) continue;
      worstC0 = std::max(worstC0, std::fabs(double(f[t * 13]) - w[t * 13]));
      for (int i = 1; i < 13; ++i) {
        errSq += std::pow(double(f[t * 13 + i]) - w[t * 13 + i], 2);
        refSq += std::pow(double(f[t * 13 + i]), 2);
      }
    }
    ASSERT_GT(refSq, 0.0);
    // The 16-bit FFT keeps about 15 bits of a frame raised near full scale
    // and the cepstra come back in steps of 1/128: c1 .. c12 stay within a
    // few percent of the float ones (RMS), and c0, whose only difference is
    // the coarser floor of the integer power, within 1.
    // (Measured: 3.6% and 0.57 in power mode, 1.4% and 0.02 in magnitude
    // mode; the bounds leave room for other compilers' rounding.)
    EXPECT_LT(std::sqrt(errSq / refSq), 0.08);
    EXPECT_LT(worstC0, 1.0);
  }
}

TEST(FrontendErrors, BadConfigurationsAreNamedAndNeverFatal) {
  // Leaf mode would end the process on a report: the front end must not
  // report at all.
  const int mode = XKGetErrMode();
  XKSetErrMode(XK_ErrorModeLeaf);
  struct Case {
    const char *field;
    void (*spoil)(xkl_frontend_config &);
  };
  const Case cases[] = {
      {"sample_rate", [](xkl_frontend_config &c) { c.sample_rate = 0; }},
      {"frame_ms", [](xkl_frontend_config &c) { c.frame_ms = -1; }},
      {"frame_length", [](xkl_frontend_config &c) { c.frame_length = 1; }},
      {"shorter than the frame", [](xkl_frontend_config &c) { c.fft_order = 8; }},
      {"fft_order", [](xkl_frontend_config &c) { c.fft_order = 40; }},
      {"n_ceps", [](xkl_frontend_config &c) { c.n_ceps = 27; }},
      {"n_ceps", [](xkl_frontend_config &c) { c.energy = XKL_ENERGY_NONE, c.n_ceps = 26; }},
      {"n_filters", [](xkl_frontend_config &c) { c.n_filters = 0; }},
      {"high_freq", [](xkl_frontend_config &c) { c.high_freq = 9000; }},
      {"linear_freq", [](xkl_frontend_config &c) { c.n_linear = 4, c.linear_freq = 0; }},
      {"floor", [](xkl_frontend_config &c) { c.floor = 0; }},
      {"deltas", [](xkl_frontend_config &c) { c.deltas = 3; }},
      {"delta_window", [](xkl_frontend_config &c) { c.deltas = 1, c.delta_window = 0; }},
      {"cmn_window", [](xkl_frontend_config &c) { c.cmn = XKL_CMN_SLIDING, c.cmn_window = 0; }},
      {"cvn", [](xkl_frontend_config &c) { c.cvn = 1; }},
      {"window", [](xkl_frontend_config &c) { c.window = 7; }},
      {"preemphasis", [](xkl_frontend_config &c) { c.preemphasis = 1.5f; }},
      {"arithmetic", [](xkl_frontend_config &c) { c.arithmetic = 2; }},
  };
  for (const Case &k : cases) {
    const xkl_frontend_config cfg = config(k.spoil);
    xkl_clear_error();
    EXPECT_EQ(xkl_frontend_new(&cfg), nullptr) << k.field;
    EXPECT_NE(std::string(xkl_last_error()).find(k.field), std::string::npos)
        << k.field << ": " << xkl_last_error();
    EXPECT_EQ(xkl_frontend_frame_count(&cfg, 1000), XK_StsBadArg) << k.field;
  }
  const xkl_frontend_config cfg = config();
  EXPECT_EQ(xkl_frontend_new(nullptr), nullptr);
  EXPECT_EQ(xkl_frontend_push(nullptr, nullptr, 0), XK_StsBadArg);
  xkl_frontend *fe = xkl_frontend_new(&cfg);
  ASSERT_NE(fe, nullptr);
  EXPECT_EQ(xkl_frontend_push(fe, nullptr, 5), XK_StsBadArg);
  EXPECT_EQ(xkl_frontend_pull(fe, nullptr, -1), XK_StsBadArg);
  float out[13];
  EXPECT_EQ(xkl_frontend_compute(&cfg, out, 13, out, 0), XK_StsBadArg);  // room for 0 of 1 frame
  EXPECT_EQ(xkl_deltas(out, 1, 0, 2, out), XK_StsBadArg);
  EXPECT_EQ(xkl_normalize(out, 1, 13, XKL_CMN_NONE, 0, 0), XK_StsBadArg);
  xkl_frontend_free(fe);
  XKSetErrMode(mode);
  EXPECT_EQ(XKGetStatus(), XK_StsOk);
}

TEST(FrontendThreads, OneObjectPerThreadManyThreads) {
  const std::vector<float> x = speechLike(12000, 4);
  const xkl_frontend_config cfg = config([](xkl_frontend_config &c) { c.deltas = 2, c.cmn = XKL_CMN_SLIDING; });
  const std::vector<float> expected = runBatch(cfg, x);
  std::vector<std::vector<float>> results(4);
  std::vector<std::thread> threads;
  // The cepstrum buffers are per thread and released by XKFreeCepsTbls,
  // which also drops the shared FFT tables: each thread releases its own
  // once every thread has finished transforming, one at a time.
  std::barrier done(static_cast<std::ptrdiff_t>(results.size()));
  std::mutex release;
  for (size_t i = 0; i < results.size(); ++i)
    threads.emplace_back([&, i] {
      xkl_frontend *fe = xkl_frontend_new(&cfg);
      for (int rep = 0; rep < 3; ++rep) results[i] = runChunked(fe, x, 17 + i, i % 2 == 1);
      xkl_frontend_free(fe);
      done.arrive_and_wait();
      std::lock_guard<std::mutex> lock(release);
      XKFreeCepsTbls();
      XKFreePreemphasizeTbls();
    });
  for (std::thread &t : threads) t.join();
  for (const auto &r : results) EXPECT_EQ(r, expected);
}

}  // namespace
