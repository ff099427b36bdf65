#include "feature_files.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "audio.h"

namespace xkltool {

namespace {

std::ofstream openOut(const std::string &path) {
  std::ofstream out(path, std::ios::binary);
  if (!out) throw ToolError{path + ": cannot write"};
  return out;
}

void finish(std::ofstream &out, const std::string &path) {
  out.close();
  if (!out) throw ToolError{path + ": write failed"};
}

void putBigEndian(std::ofstream &out, std::uint32_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.put(static_cast<char>((v >> (8 * i)) & 0xFF));
}

}  // namespace

void writeNpy(const std::string &path, const Features &f) {
  std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                       std::to_string(f.frames) + ", " + std::to_string(f.dim) + "), }";
  // Magic (6) + version (2) + length (2) + header + '\n' is a multiple of 64.
  const size_t total = 10 + header.size() + 1;
  header.append((64 - total % 64) % 64, ' ');
  header += '\n';
  std::ofstream out = openOut(path);
  out.write("\x93NUMPY\x01\x00", 8);
  out.put(static_cast<char>(header.size() & 0xFF));
  out.put(static_cast<char>(header.size() >> 8));
  out << header;
  for (float v : f.data) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, 4);
    for (int i = 0; i < 4; ++i) out.put(static_cast<char>((bits >> (8 * i)) & 0xFF));
  }
  finish(out, path);
}

void writeCsv(const std::string &path, const Features &f, const std::vector<std::string> &names) {
  std::ofstream out = openOut(path);
  for (size_t i = 0; i < names.size(); ++i) out << (i ? "," : "") << names[i];
  out << "\n";
  char text[32];
  for (int t = 0; t < f.frames; ++t) {
    for (int d = 0; d < f.dim; ++d) {
      std::snprintf(text, sizeof text, "%.9g", static_cast<double>(f.row(t)[d]));
      out << (d ? "," : "") << text;
    }
    out << "\n";
  }
  finish(out, path);
}

void writeHtk(const std::string &path, const Features &f, double periodSeconds, int kind) {
  if (static_cast<long>(f.dim) * 4 > 32767) throw ToolError{path + ": too many values per frame for HTK"};
  std::ofstream out = openOut(path);
  putBigEndian(out, static_cast<std::uint32_t>(f.frames), 4);
  putBigEndian(out, static_cast<std::uint32_t>(std::llround(periodSeconds * 1e7)), 4);  // 100 ns units
  putBigEndian(out, static_cast<std::uint32_t>(f.dim * 4), 2);
  putBigEndian(out, static_cast<std::uint32_t>(kind), 2);
  for (float v : f.data) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, 4);
    putBigEndian(out, bits, 4);
  }
  finish(out, path);
}

int htkKind(const xkl_frontend_config &c) {
  int kind = kHtkMfcc;
  if (c.energy == XKL_ENERGY_LOG) kind |= kHtkE;
  if (c.energy == XKL_ENERGY_C0) kind |= kHtk0;
  if (c.deltas >= 1) kind |= kHtkD;
  if (c.deltas >= 2) kind |= kHtkA;
  if (c.cmn != XKL_CMN_NONE) kind |= kHtkZ;
  return kind;
}

Features htkOrder(const Features &f, const xkl_frontend_config &c) {
  if (c.energy == XKL_ENERGY_NONE) return f;
  Features out = f;
  const int n = c.n_ceps;
  for (int t = 0; t < f.frames; ++t)
    for (int block = 0; block < f.dim / n; ++block) {
      const float *src = f.row(t) + block * n;
      float *dst = out.data.data() + static_cast<size_t>(t) * f.dim + block * n;
      for (int i = 1; i < n; ++i) dst[i - 1] = src[i];
      dst[n - 1] = src[0];
    }
  return out;
}

}  // namespace xkltool
