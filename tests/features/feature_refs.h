// Independent references for the feature tests: a naive DFT in long double,
// a mel filter bank written from its edge and bin rules, an orthonormal
// DCT-II, speech-like test frames and a small RIFF/WAV reader for the
// bundled corpus.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace featref {

using LD = long double;
constexpr LD kPi = 3.141592653589793238462643383279502884L;

// |X[k]|^2 of a real frame, k = 0..N/2.
inline std::vector<LD> powerSpectrum(const std::vector<float> &x) {
  const size_t n = x.size();
  std::vector<LD> c(n), s(n), p(n / 2 + 1);
  for (size_t j = 0; j < n; ++j) c[j] = std::cos(2 * kPi * j / n), s[j] = std::sin(2 * kPi * j / n);
  for (size_t k = 0; k <= n / 2; ++k) {
    LD re = 0, im = 0;
    for (size_t t = 0; t < n; ++t) re += x[t] * c[k * t % n], im -= x[t] * s[k * t % n];
    p[k] = re * re + im * im;
  }
  return p;
}

// y[k] = w_k sum x[i] cos(pi k (2i+1) / 2n), w_0 = sqrt(1/n), w_k = sqrt(2/n).
inline std::vector<LD> dct2(const std::vector<LD> &x) {
  const size_t n = x.size();
  std::vector<LD> y(n);
  for (size_t k = 0; k < n; ++k) {
    LD s = 0;
    for (size_t i = 0; i < n; ++i) s += x[i] * std::cos(kPi * k * (2 * i + 1) / (2 * n));
    y[k] = s * std::sqrt((k == 0 ? 1.0L : 2.0L) / n);
  }
  return y;
}

// A triangular filter: weights over consecutive bins starting at `first`.
struct Filter {
  int first = 0;
  std::vector<LD> w;
};

// Filter bank from the design rules: n + 2 points equally spaced on the mel
// scale (or a linear group first), bins at k fs / (N - 1), triangles
// normalised to unit area, a filter that catches no bin gets weight 1 at the
// nearest bin. Fixed-length padding is not modelled (it only adds zeros).
inline std::vector<Filter> melBank(int order, int nf, int lo, int hi, int fs, int nLin = 0, int linF = 0,
                                   LD mul = 2595, LD div = 700) {
  auto mel = [&](LD f) { return mul * std::log10(1 + f / div); };
  auto hz = [&](LD m) { return div * (std::pow(10.0L, m / mul) - 1); };
  std::vector<LD> left(nf), centre(nf), right(nf);
  int first = 0;
  LD m0 = mel(lo);
  if (nLin >= 1 && linF > lo) {
    nLin = std::min(nLin, nf);
    const LD width = (linF - lo) * 2.0L / nLin;
    for (int i = 0; i < nLin; ++i) left[i] = lo + i * width / 2, centre[i] = left[i] + width / 2, right[i] = left[i] + width;
    first = nLin;
    m0 = mel(linF);
  }
  const LD step = (mel(hi) - m0) / (nf - first + 1);  // nf - first + 2 points
  for (int i = first; i < nf; ++i) {
    left[i] = hz(m0 + (i - first) * step), centre[i] = hz(m0 + (i - first + 1) * step);
    right[i] = hz(m0 + (i - first + 2) * step);
  }
  if (first > 0) {  // the last linear filter ends at the first mel centre
    right[first - 1] = hz(m0 + step);
    centre[first - 1] = (left[first - 1] + right[first - 1]) / 2;
  }
  const int n = 1 << order;
  const LD df = static_cast<LD>(fs) / (n - 1);
  std::vector<Filter> bank(nf);
  for (int i = 0; i < nf; ++i) {
    LD sum = 0;
    for (int k = 0; k < n; ++k) {
      const LD f = k * df;
      if (f < left[i] || f >= right[i]) continue;
      if (bank[i].w.empty()) bank[i].first = k;
      const LD w = f <= centre[i] ? (f - left[i]) / (centre[i] - left[i]) : (right[i] - f) / (right[i] - centre[i]);
      bank[i].w.push_back(w);
      sum += w;
    }
    if (bank[i].w.empty()) {
      int best = 0;
      for (int k = 1; k < n; ++k)
        if (std::fabs(k * df - centre[i]) < std::fabs(best * df - centre[i])) best = k;
      bank[i] = {best, {1.0L}};
    } else {
      for (LD &w : bank[i].w) w /= sum;
    }
  }
  return bank;
}

// Mel cepstrum by the textbook definitions: power mode takes log10 of the
// magnitude per bin before filtering, magnitude mode filters |X| and takes
// log10 after; floor applies to what is logged. c[0..nf-1].
inline std::vector<LD> mfcc(const std::vector<LD> &power, const std::vector<Filter> &bank, bool magnitude,
                            bool useFloor, LD floor) {
  const size_t nBins = power.size();
  auto bin = [&](int k) {  // mirrored beyond N/2
    const int n = 2 * static_cast<int>(nBins - 1);
    return power[k < static_cast<int>(nBins) ? k : n - k];
  };
  std::vector<LD> out(bank.size());
  for (size_t i = 0; i < bank.size(); ++i) {
    LD s = 0;
    for (size_t j = 0; j < bank[i].w.size(); ++j) {
      LD v = bin(bank[i].first + static_cast<int>(j));
      if (magnitude) {
        v = std::sqrt(v);
      } else {
        if (useFloor && v < floor) v = floor;
        v = 0.5L * std::log10(v);
      }
      s += bank[i].w[j] * v;
    }
    if (magnitude) s = std::log10(useFloor && s < floor ? floor : s);
    out[i] = s;
  }
  return dct2(out);
}

// Speech-like frame: a few harmonics of f0 with falling amplitude plus
// white noise, at the given peak amplitude.
inline std::vector<float> speechLike(int n, unsigned seed, double amp = 1.0, double f0 = 0.017) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> noise(0.0, 0.02);
  std::uniform_real_distribution<double> phase(0, 6.283);
  std::vector<double> ph(12);
  for (double &p : ph) p = phase(gen);
  std::vector<float> x(n);
  for (int t = 0; t < n; ++t) {
    double v = noise(gen);
    for (int h = 1; h <= 12; ++h) v += std::sin(2 * 3.14159265358979 * f0 * h * t + ph[h - 1]) / (h + 1);
    x[t] = static_cast<float>(amp * v / 2.0);
  }
  return x;
}

// The bundled spoken-digit corpus, or an empty path when it is absent.
inline std::filesystem::path corpusDir() {
  // This header sits in <source>/tests/features; the corpus beside the source tree.
  const std::filesystem::path p =
      std::filesystem::path(__FILE__).parent_path() / ".." / ".." / ".." / "shared" / "corpus" / "fsdd";
  return std::filesystem::exists(p) ? p : std::filesystem::path{};
}

// 16-bit mono PCM samples of a RIFF/WAVE file (empty on any surprise).
inline std::vector<short> readWav(const std::filesystem::path &file) {
  std::vector<short> out;
  FILE *f = std::fopen(file.string().c_str(), "rb");
  if (!f) return out;
  auto u32 = [](const unsigned char *b) { return b[0] | b[1] << 8 | b[2] << 16 | static_cast<std::uint32_t>(b[3]) << 24; };
  unsigned char h[12];
  bool pcm16 = false;
  if (std::fread(h, 1, 12, f) == 12 && std::string(reinterpret_cast<char *>(h), 4) == "RIFF" &&
      std::string(reinterpret_cast<char *>(h) + 8, 4) == "WAVE") {
    unsigned char c[8];
    while (std::fread(c, 1, 8, f) == 8) {
      const std::string id(reinterpret_cast<char *>(c), 4);
      const std::uint32_t size = u32(c + 4);
      if (id == "fmt ") {
        std::vector<unsigned char> fmt(size);
        if (std::fread(fmt.data(), 1, size, f) != size || size < 16) break;
        pcm16 = (fmt[0] | fmt[1] << 8) == 1 && (fmt[2] | fmt[3] << 8) == 1 && (fmt[14] | fmt[15] << 8) == 16;
      } else if (id == "data" && pcm16) {
        std::vector<unsigned char> d(size);
        const size_t got = std::fread(d.data(), 1, size, f);
        for (size_t i = 0; i + 1 < got; i += 2) out.push_back(static_cast<short>(d[i] | d[i + 1] << 8));
        break;
      } else {
        std::fseek(f, static_cast<long>(size + (size & 1)), SEEK_CUR);
      }
    }
  }
  std::fclose(f);
  return out;
}

}  // namespace featref
