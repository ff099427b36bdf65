// The streaming front end: chunking never changes a bit, the pipeline matches
// the formulas, bad configurations fail with a readable text, never fatally.
#include <gtest/gtest.h>

#include <barrier>
#include <cmath>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

#include "xkl.h"
#include "xkl_test_support.h"

namespace {

// The main thread's per-thread feature buffers go at the end of the run.
[[maybe_unused]] ::testing::Environment *const releaseTables =
    ::testing::AddGlobalTestEnvironment(new xkltest::ReleaseFeatureTables);

using Config = xkl_frontend_config;

template <class F = void (*)(Config &)>
Config config(F change = [](Config &) {}) {
  Config cfg;
  xkl_frontend_config_init(&cfg);
  change(cfg);
  return cfg;
}

// Speech-like test signal in whole numbers on the 16-bit scale: a gliding
// harmonic series with an amplitude envelope, plus noise and a silent stretch.
std::vector<float> speechLike(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> noise(0.0, 200.0);
  std::vector<float> x(n);
  double phase = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const double t = i / 16000.0, env = 0.5 + 0.5 * std::sin(2.0 * M_PI * 2.1 * t);
    phase += 2.0 * M_PI * (110.0 + 60.0 * std::sin(2.0 * M_PI * 1.3 * t)) / 16000.0;
    double v = 0.0;
    for (int h = 1; h <= 12; ++h) v += std::sin(h * phase) / h;
    x[i] = i > n / 2 && i < n / 2 + n / 10 ? 0.0f : static_cast<float>(std::round(6000.0 * env * v + noise(gen)));
  }
  return x;
}

std::vector<float> runBatch(const Config &cfg, const std::vector<float> &x) {
  const int frames = xkl_frontend_frame_count(&cfg, x.size());
  Config resolved = cfg;
  EXPECT_EQ(xkl_frontend_config_resolve(&resolved), 0) << xkl_last_error();
  const int dim = resolved.n_ceps * (1 + resolved.deltas);
  std::vector<float> out(static_cast<size_t>(frames) * static_cast<size_t>(dim));
  EXPECT_EQ(xkl_frontend_compute(&cfg, x.data(), x.size(), out.data(), frames), frames) << xkl_last_error();
  return out;
}

// Pushes `x` in random chunks (pulling at random moments), then flushes.
std::vector<float> runChunked(xkl_frontend *fe, const std::vector<float> &x, unsigned seed, bool asShorts) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<size_t> chunk(0, std::uniform_int_distribution<size_t>(1, 3000)(gen));
  std::vector<float> got, buf;
  auto pull = [&] {
    const int n = xkl_frontend_available(fe);
    buf.resize(static_cast<size_t>(n) * static_cast<size_t>(xkl_frontend_dim(fe)));
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

const std::pair<const char *, void (*)(Config &)> kOptions[] = {
    {"float defaults", [](Config &) {}},
    {"float c0 deltas2 sliding cvn",
     [](Config &c) { c.energy = XKL_ENERGY_C0, c.deltas = 2, c.cmn = XKL_CMN_SLIDING, c.cvn = 1; }},
    {"float magnitude deltas1 utterance", [](Config &c) {
       c.energy = XKL_ENERGY_NONE, c.spectrum = XKL_SPECTRUM_MAGNITUDE, c.deltas = 1, c.cmn = XKL_CMN_UTTERANCE;
       c.lifter = 0;
     }},
    {"float shift > length",
     [](Config &c) { c.deltas = 2, c.cmn = XKL_CMN_SLIDING, c.frame_length = 160, c.frame_shift = 237; }},
    {"fixed defaults deltas2", [](Config &c) { c.arithmetic = XKL_ARITH_FIXED16, c.deltas = 2; }},
    {"fixed magnitude utterance cvn", [](Config &c) {
       c.arithmetic = XKL_ARITH_FIXED16, c.energy = XKL_ENERGY_C0, c.spectrum = XKL_SPECTRUM_MAGNITUDE;
       c.deltas = 1, c.cmn = XKL_CMN_UTTERANCE, c.cvn = 1, c.lifter = 0;
     }},
};

// Random chunking gives the batch frames bit for bit, and frames come out
// exactly `latency` frames after they are complete.
TEST(FrontendStreaming, AnyChunkingGivesTheBatchFramesAtTheStatedLatency) {
  const std::vector<float> x = speechLike(16000 + 123, 7);
  for (const auto &[name, change] : kOptions) {
    SCOPED_TRACE(name);
    const Config cfg = config([&](Config &c) { c.cmn_window = 41, change(c); });
    const std::vector<float> batch = runBatch(cfg, x);
    ASSERT_FALSE(batch.empty());
    xkl_frontend *fe = xkl_frontend_new(&cfg);
    ASSERT_NE(fe, nullptr) << xkl_last_error();
    for (unsigned seed = 1; seed <= 12; ++seed) {
      // Alternate float and 16-bit pushes: the signal holds whole numbers,
      // so both describe the same samples.
      const std::vector<float> got = runChunked(fe, x, seed, seed % 2 == 0);
      ASSERT_TRUE(got.size() == batch.size() && !std::memcmp(got.data(), batch.data(), got.size() * sizeof(float)))
          << "seed " << seed;
    }
    // Reset drops a half-pushed utterance; the next one starts clean.
    ASSERT_EQ(xkl_frontend_push(fe, x.data(), x.size() / 3), 0);
    xkl_frontend_reset(fe);
    EXPECT_EQ(runChunked(fe, x, 99, false), batch);
    // Push frame by frame: after k complete frames, k - latency are out.
    xkl_frontend_reset(fe);
    const Config *r = xkl_frontend_get_config(fe);
    const int latency = xkl_frontend_latency(fe);
    size_t pushed = 0;
    for (int k = 1; k <= 60; ++k) {
      const size_t need = static_cast<size_t>((k - 1) * r->frame_shift + r->frame_length);
      ASSERT_EQ(xkl_frontend_push(fe, x.data() + pushed, need - pushed), 0);
      pushed = need;
      ASSERT_EQ(xkl_frontend_available(fe), latency < 0 ? 0 : std::max(0, k - latency)) << "after frame " << k;
    }
    ASSERT_EQ(xkl_frontend_flush(fe), 0);
    EXPECT_EQ(xkl_frontend_available(fe), 60);  // the pushes ended on a frame: no padded frame
    xkl_frontend_free(fe);
  }
}

// Rows of statics, deltas and accelerations by the formulas, in double; the
// cepstrum of each windowed frame is the library's (checked against the DFT
// in the feature tests).
std::vector<double> reference(Config c, const std::vector<float> &x) {
  EXPECT_EQ(xkl_frontend_config_resolve(&c), 0);
  const size_t L = c.frame_length, S = c.frame_shift, T = x.size() <= L ? 1 : 1 + (x.size() - L + S - 1) / S;
  const long C = c.n_ceps, last = static_cast<long>(T) - 1;
  XKMFCCFilters *bank = XKsMFCCInit(c.fft_order, c.n_filters, c.low_freq, c.high_freq, c.sample_rate, c.n_linear,
                                    c.linear_freq);
  std::vector<double> m0(T * C);
  std::vector<float> frame(size_t{1} << c.fft_order), ceps(C + 1);
  for (size_t t = 0; t < T; ++t) {
    double energy = 0.0;
    std::vector<double> raw(L, 0.0);
    for (size_t i = 0; i < L && t * S + i < x.size(); ++i) raw[i] = x[t * S + i], energy += raw[i] * raw[i];
    std::fill(frame.begin(), frame.end(), 0.0f);
    for (size_t i = 0; i < L; ++i)  // pre-emphasis, Hamming window
      frame[i] = static_cast<float>((i == 0 ? raw[0] : raw[i] - static_cast<double>(c.preemphasis) * raw[i - 1]) *
                                    (0.54 - 0.46 * std::cos(2.0 * M_PI * static_cast<double>(i) / (L - 1))));
    XKsCepstralMFCC(bank, frame.data(), ceps.data(), C + 1, c.floor, XK_MFCC_TIME | XK_MFCC_FLOOR | XK_MFCC_C0);
    m0[t * C] = std::log(std::max(energy, 1e-10));
    for (int i = 1; i < C; ++i)
      m0[t * C + i] = ceps[i] * static_cast<float>(1.0 + c.lifter / 2.0 * std::sin(M_PI * i / c.lifter));
  }
  XKsFreeMFCCFilters(bank);
  // Sliding mean and variance over the centred window cut at the ends; with
  // no spread (one frame) the value is only centred.
  const std::vector<double> st = m0;
  for (long t = 0; t <= last; ++t)
    for (long d = 0; d < C; ++d) {
      const long lo = std::max(0L, t - c.cmn_window / 2), hi = std::min(last, t + c.cmn_window / 2);
      double sum = 0, sq = 0;
      for (long u = lo; u <= hi; ++u) sum += st[u * C + d], sq += st[u * C + d] * st[u * C + d];
      const double n = static_cast<double>(hi - lo + 1), mean = sum / n, var = sq / n - mean * mean;
      m0[t * C + d] = (st[t * C + d] - mean) / (var > 1e-12 * (sq / n) ? std::sqrt(var) : 1.0);
    }
  auto delta = [&](const std::vector<double> &m) {
    std::vector<double> out(m.size());
    for (long t = 0; t <= last; ++t)
      for (long d = 0; d < C; ++d) {
        double num = 0, den = 0;
        for (long k = 1; k <= c.delta_window; ++k)
          num += k * (m[std::min(t + k, last) * C + d] - m[std::max(t - k, 0L) * C + d]), den += 2.0 * k * k;
        out[t * C + d] = num / den;
      }
    return out;
  };
  const std::vector<double> m1 = delta(m0), m2 = delta(m1);
  std::vector<double> rows;
  for (long t = 0; t <= last; ++t)
    for (const std::vector<double> *m : {&std::as_const(m0), &m1, &m2})
      rows.insert(rows.end(), &(*m)[t * C], &(*m)[t * C] + C);
  return rows;
}

TEST(FrontendReference, PipelineMatchesTheFormulas) {
  const Config cfg = config([](Config &c) { c.deltas = 2, c.cmn = XKL_CMN_SLIDING, c.cmn_window = 31, c.cvn = 1; });
  // Lengths that end exactly on a frame, just past one, and inside the first:
  // 1 + ceil((n - L) / S) frames, 1 for 0 < n <= L (the reference counts
  // them independently); none for no samples.
  EXPECT_EQ(xkl_frontend_frame_count(&cfg, 0), 0);
  for (size_t n : {size_t{400 + 160 * 99}, size_t{400 + 160 * 99 + 1}, size_t{250}}) {
    SCOPED_TRACE(n);
    const std::vector<float> x = speechLike(n, 11), got = runBatch(cfg, x);
    const std::vector<double> ref = reference(cfg, x);
    ASSERT_EQ(got.size(), ref.size());
    // Normalised features are O(1); a few float roundings (window,
    // pre-emphasis, deltas), amplified at most by 1/sd, stay well below 2e-3.
    for (size_t i = 0; i < got.size(); ++i)
      ASSERT_NEAR(got[i], ref[i], 2e-3) << "frame " << i / 39 << " coef " << i % 39;
  }
}

// Sliding normalisation over a window wider than the matrix is the utterance
// one (mean 0, variance 1); a constant column is only centred, never divided
// by its zero spread. (Deltas share the pipeline's stage, checked above.)
TEST(FrontendReference, BatchHelpersFollowTheirDefinitions) {
  std::mt19937 gen(5);
  std::normal_distribution<float> dist(3.0f, 2.0f);
  const int T = 57, D = 4;
  std::vector<float> a(T * D), flat(T * D, 4.25f);
  for (float &v : a) v = dist(gen);
  std::vector<float> b = a;
  ASSERT_EQ(xkl_normalize(a.data(), T, D, XKL_CMN_UTTERANCE, 0, 1), 0);
  ASSERT_EQ(xkl_normalize(b.data(), T, D, XKL_CMN_SLIDING, 2 * T + 1, 1), 0);
  ASSERT_EQ(xkl_normalize(flat.data(), T, D, XKL_CMN_SLIDING, 9, 1), 0);
  EXPECT_EQ(flat, std::vector<float>(T * D, 0.0f));
  for (int d = 0; d < D; ++d) {
    double sum = 0, sq = 0;
    for (int t = 0; t < T; ++t) sum += a[t * D + d], sq += a[t * D + d] * a[t * D + d];
    EXPECT_TRUE(std::fabs(sum / T) < 1e-5 && std::fabs(sq / T - 1.0) < 1e-4) << d;
  }
  for (size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], 1e-5) << i;
}

TEST(FrontendFixed, SixteenBitFeaturesFollowTheFloatOnes) {
  const std::vector<float> x = speechLike(16000, 21);
  for (int spectrum : {XKL_SPECTRUM_POWER, XKL_SPECTRUM_MAGNITUDE}) {
    SCOPED_TRACE(spectrum);
    Config cfg = config([&](Config &c) { c.energy = XKL_ENERGY_C0, c.lifter = 0, c.spectrum = spectrum; });
    const std::vector<float> f = runBatch(cfg, x);
    cfg.arithmetic = XKL_ARITH_FIXED16;
    const std::vector<float> w = runBatch(cfg, x);
    ASSERT_EQ(f.size(), w.size());
    double errSq = 0, refSq = 0, worstC0 = 0;
    for (size_t i = 0; i < f.size(); ++i) {
      if (f[i - i % 13] < 10.0f) continue;  // voiced frames only: in silence both sit on their (different) floors
      if (i % 13 == 0) worstC0 = std::max(worstC0, std::fabs(double(f[i]) - w[i]));
      if (i % 13 != 0) errSq += std::pow(double(f[i]) - w[i], 2), refSq += std::pow(double(f[i]), 2);
    }
    ASSERT_GT(refSq, 0.0);
    // About 15 bits in the 16-bit FFT and cepstra in steps of 1/128: c1..c12
    // within a few percent RMS (measured 3.6% power, 1.4% magnitude), c0,
    // differing only by the integer power's coarser floor, within 1.
    EXPECT_LT(std::sqrt(errSq / refSq), 0.08);
    EXPECT_LT(worstC0, 1.0);
  }
}

TEST(FrontendErrors, BadConfigurationsAreNamedAndNeverFatal) {
  // Leaf mode would end the process on a report: the front end must not
  // report at all.
  const int mode = XKGetErrMode();
  XKSetErrMode(XK_ErrorModeLeaf);
  const std::pair<const char *, void (*)(Config &)> cases[] = {
      {"sample_rate", [](Config &c) { c.sample_rate = 0; }},
      {"frame_ms", [](Config &c) { c.frame_ms = -1; }},
      {"frame_length", [](Config &c) { c.frame_length = 1; }},
      {"shorter than the frame", [](Config &c) { c.fft_order = 8; }},
      {"fft_order", [](Config &c) { c.fft_order = 40; }},
      {"n_ceps", [](Config &c) { c.n_ceps = 27; }},
      {"n_ceps", [](Config &c) { c.energy = XKL_ENERGY_NONE, c.n_ceps = 26; }},
      {"n_filters", [](Config &c) { c.n_filters = 0; }},
      {"high_freq", [](Config &c) { c.high_freq = 9000; }},
      {"linear_freq", [](Config &c) { c.n_linear = 4, c.linear_freq = 0; }},
      {"floor", [](Config &c) { c.floor = 0; }},
      {"deltas", [](Config &c) { c.deltas = 3; }},
      {"delta_window", [](Config &c) { c.deltas = 1, c.delta_window = 0; }},
      {"cmn_window", [](Config &c) { c.cmn = XKL_CMN_SLIDING, c.cmn_window = 0; }},
      {"cvn", [](Config &c) { c.cvn = 1; }},
      {"window", [](Config &c) { c.window = 7; }},
      {"preemphasis", [](Config &c) { c.preemphasis = 1.5f; }},
      {"arithmetic", [](Config &c) { c.arithmetic = 2; }},
  };
  for (const auto &[field, spoil] : cases) {
    const Config cfg = config(spoil);
    xkl_clear_error();
    EXPECT_EQ(xkl_frontend_new(&cfg), nullptr) << field;
    EXPECT_NE(std::string(xkl_last_error()).find(field), std::string::npos) << field << ": " << xkl_last_error();
    EXPECT_EQ(xkl_frontend_frame_count(&cfg, 1000), XK_StsBadArg) << field;
  }
  const Config cfg = config();
  EXPECT_EQ(xkl_frontend_new(nullptr), nullptr);
  xkl_frontend *fe = xkl_frontend_new(&cfg);
  ASSERT_NE(fe, nullptr);
  float out[13];
  const int bad[] = {xkl_frontend_push(nullptr, nullptr, 0), xkl_frontend_push(fe, nullptr, 5),
                     xkl_frontend_pull(fe, nullptr, -1),
                     xkl_frontend_compute(&cfg, out, 13, out, 0),  // room for 0 of 1 frame
                     xkl_deltas(out, 1, 0, 2, out), xkl_normalize(out, 1, 13, XKL_CMN_NONE, 0, 0)};
  for (int rc : bad) EXPECT_EQ(rc, XK_StsBadArg);
  xkl_frontend_free(fe);
  XKSetErrMode(mode);
  EXPECT_EQ(XKGetStatus(), XK_StsOk);
}

TEST(FrontendThreads, OneObjectPerThreadManyThreads) {
  const std::vector<float> x = speechLike(12000, 4);
  const Config cfg = config([](Config &c) { c.deltas = 2, c.cmn = XKL_CMN_SLIDING; });
  const std::vector<float> expected = runBatch(cfg, x);
  std::vector<std::vector<float>> results(4);
  std::vector<std::thread> threads;
  // XKFreeCepsTbls also drops the shared FFT tables: each thread releases
  // its buffers once all have finished transforming, one at a time.
  std::barrier done(4);
  std::mutex release;
  for (size_t i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      xkl_frontend *fe = xkl_frontend_new(&cfg);
      for (int rep = 0; rep < 3; ++rep) results[i] = runChunked(fe, x, 17 + i, i % 2 == 1);
      xkl_frontend_free(fe);
      done.arrive_and_wait();
      std::lock_guard<std::mutex> lock(release);
      XKFreeCepsTbls(), XKFreePreemphasizeTbls();
    });
  for (std::thread &t : threads) t.join();
  for (const auto &r : results) EXPECT_EQ(r, expected);
}

}  // namespace
