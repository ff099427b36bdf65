// Independent references for the feature tests: a naive DFT in long double,
// a mel bank written from its edge and bin rules, an orthonormal DCT-II,
// speech-like frames and the bundled spoken-digit corpus.
#pragma once

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace featref {

using LD = long double;
constexpr LD kPi = 3.141592653589793238462643383279502884L;

// |X[k]|^2 of a real frame, k = 0..N/2.
inline std::vector<LD> powerSpectrum(const std::vector<float> &x) {
  const size_t n = x.size();
  std::vector<LD> p(n / 2 + 1);
  for (size_t k = 0; k <= n / 2; ++k) {
    LD re = 0, im = 0;
    for (size_t t = 0; t < n; ++t) re += x[t] * std::cos(2 * kPi * (k * t % n) / n), im -= x[t] * std::sin(2 * kPi * (k * t % n) / n);
    p[k] = re * re + im * im;
  }
  return p;
}

// y[k] = w_k sum x[i] cos(pi k (2i+1) / 2n), w_0 = sqrt(1/n), w_k = sqrt(2/n).
inline std::vector<LD> dct2(const std::vector<LD> &x) {
  const size_t n = x.size();
  std::vector<LD> y(n);
  for (size_t k = 0; k < n; ++k) {
    for (size_t i = 0; i < n; ++i) y[k] += x[i] * std::cos(kPi * k * (2 * i + 1) / (2 * n));
    y[k] *= std::sqrt((k == 0 ? 1.0L : 2.0L) / n);
  }
  return y;
}

struct Filter {
  int first = 0;  // first bin
  std::vector<LD> w;
};

// nf + 2 points equally spaced in mel (after nLin points spaced linearly up
// to linF, when given), filter i spanning points i..i+2; bins at k fs/(N-1);
// triangles scaled to unit area; a filter that catches no bin weighs 1 at
// the bin nearest its centre. Fixed-length zero padding is not modelled.
inline std::vector<Filter> melBank(int order, int nf, int lo, int hi, int fs, int nLin = 0, int linF = 0) {
  auto mel = [](LD f) { return 2595 * std::log10(1 + f / 700); };
  auto hz = [](LD m) { return 700 * (std::pow(10.0L, m / 2595) - 1); };
  const int lin = (nLin >= 1 && linF > lo) ? std::min(nLin, nf) : 0;
  const LD m0 = mel(lin ? linF : lo), step = (mel(hi) - m0) / (nf - lin + 1);
  std::vector<LD> pt(nf + 2);  // left edge of filter i is pt[i], centre pt[i+1], right pt[i+2]
  for (int i = 0; i < nf + 2; ++i)
    pt[i] = i < lin ? lo + i * (linF - lo) / static_cast<LD>(lin) : hz(m0 + (i - lin) * step);
  const int n = 1 << order;
  const LD df = static_cast<LD>(fs) / (n - 1);
  std::vector<Filter> bank(nf);
  for (int i = 0; i < nf; ++i) {
    // The last linear filter ends at the first mel centre and peaks midway.
    const LD l = pt[i], r = pt[i + 2], c = (i == lin - 1) ? (l + r) / 2 : pt[i + 1];
    LD sum = 0;
    for (int k = 0; k < n; ++k)
      if (k * df >= l && k * df < r) {
        if (bank[i].w.empty()) bank[i].first = k;
        bank[i].w.push_back(k * df <= c ? (k * df - l) / (c - l) : (r - k * df) / (r - c));
        sum += bank[i].w.back();
      }
    for (LD &w : bank[i].w) w /= sum;
    if (bank[i].w.empty()) bank[i] = {static_cast<int>(std::lround(c / df - 1e-9L)), {1.0L}};
  }
  return bank;
}

// Cepstrum by the definitions: power mode takes log10 |X_k| per bin (floor
// on the power) before filtering, magnitude mode filters |X_k| and takes
// log10 after (floor on the filter output). Bins past N/2 mirror.
inline std::vector<LD> mfcc(const std::vector<LD> &power, const std::vector<Filter> &bank, bool magnitude,
                            bool useFloor, LD floor) {
  const int nb = static_cast<int>(power.size());
  std::vector<LD> out(bank.size());
  for (size_t i = 0; i < bank.size(); ++i) {
    LD s = 0;
    for (size_t j = 0; j < bank[i].w.size(); ++j) {
      const int k = bank[i].first + static_cast<int>(j);
      const LD p = power[k < nb ? k : 2 * (nb - 1) - k];
      s += bank[i].w[j] * (magnitude ? std::sqrt(p) : std::log10(useFloor ? std::max(p, floor) : p) / 2);
    }
    out[i] = magnitude ? std::log10(useFloor ? std::max(s, floor) : s) : s;
  }
  return dct2(out);
}

// A few harmonics of f0 (cycles per sample) with falling amplitude, plus
// white noise about 30 dB down.
inline std::vector<float> speechLike(int n, unsigned seed, double amp = 1.0, double f0 = 0.017) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> noise(0.0, 0.02);
  std::vector<float> x(n);
  for (int t = 0; t < n; ++t) {
    double v = noise(gen);
    for (int h = 1; h <= 12; ++h) v += std::sin(2 * kPi * f0 * h * t + seed * h) / (h + 1);
    x[t] = static_cast<float>(amp * v / 2);
  }
  return x;
}

// Samples of a corpus file (8 kHz, 16-bit mono PCM), empty when the corpus
// beside the source tree is absent. Reads the "data" chunk of the RIFF file.
inline std::vector<short> corpus(const char *name) {
  const auto path = std::filesystem::path(__FILE__).parent_path() / "../../../shared/corpus/fsdd" / name;
  std::ifstream in(path, std::ios::binary);
  const std::string b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t at = b.find("data", 12);
  std::vector<short> s;
  for (size_t i = at + 8; at != std::string::npos && i + 1 < b.size(); i += 2)
    s.push_back(static_cast<short>(static_cast<unsigned char>(b[i]) | static_cast<unsigned char>(b[i + 1]) << 8));
  return s;
}

}  // namespace featref
