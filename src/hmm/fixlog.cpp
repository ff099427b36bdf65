// Table-driven fixed-point natural logarithm.
//
// v > 0 is normalised to its leading one bit m = v * 2^(31 - e) (a 256-entry
// bit-length table finds e a byte at a time). The 32 bits below the leading
// one split into an 8-bit segment index k and a 24-bit position u in the
// segment, so ln(v) = e ln 2 + ln(1 + (k + u) / 256). Each segment holds the
// cubic Taylor polynomial of ln(1 + x) about its midpoint, evaluated in the
// signed offset d = u - 1/2; a table of e' ln 2 adds the power of two
// (e' = e + expOffset). Everything is in Q40 integers.
//
// Error, in units of ln: the Taylor remainder is at most
// max|f''''| / 4! * (h/2)^4 with h = 2^-8 and |f''''| <= 6, i.e. 2^-38;
// table rounding and the three truncating Horner steps add under 2^-38, so
// |error| < 2^-37 before the final rounding to 2^-precision.
#include "hmm/fixlog.h"

#include <array>
#include <cmath>

namespace xk::hmm {

namespace {

constexpr int kQ = 40;               // fraction bits of the internal logarithm
constexpr int kMinExp = -64;         // lowest e + expOffset the table covers
constexpr int kExpSpan = 128;        // e + expOffset in -64..63
constexpr std::int32_t kCostLimit = 0x1FFFFF;

struct LogTables {
  std::array<std::uint8_t, 256> bitLength{};  // bits of a byte value (0 for 0)
  std::array<std::int64_t, 256> c0{}, c1{}, c2{}, c3{};
  std::array<std::int64_t, kExpSpan> pow2{};  // round(e ln 2 * 2^40)
  LogTables() {
    for (int b = 1; b < 256; ++b) bitLength[b] = static_cast<std::uint8_t>(bitLength[b >> 1] + 1);
    const long double q = std::ldexp(1.0L, kQ);
    for (int k = 0; k < 256; ++k) {
      // ln(1 + c + d h) about the midpoint c, d in [-1/2, 1/2): with
      // s = h / (1 + c): ln(1 + c) + s d - s^2 d^2 / 2 + s^3 d^3 / 3.
      const long double c = (k + 0.5L) / 256.0L;
      const long double s = 1.0L / (256.0L * (1.0L + c));
      c0[k] = std::llround(std::log1p(c) * q);
      c1[k] = std::llround(s * q);
      c2[k] = std::llround(-s * s / 2.0L * q);
      c3[k] = std::llround(s * s * s / 3.0L * q);
    }
    const long double ln2 = 0.693147180559945309417232121458176568L;
    for (int i = 0; i < kExpSpan; ++i) pow2[i] = std::llround((i + kMinExp) * ln2 * q);
  }
};

const LogTables &tables() {
  static const LogTables t;
  return t;
}

}  // namespace

std::int32_t fixLogCost(std::int32_t v, int expOffset, int precision) {
  if (v <= 0) return kCostLimit;
  const LogTables &t = tables();
  const auto u = static_cast<std::uint32_t>(v);
  int e;  // position of the leading one
  if (u >> 24)
    e = 23 + t.bitLength[u >> 24];
  else if (u >> 16)
    e = 15 + t.bitLength[u >> 16];
  else if (u >> 8)
    e = 7 + t.bitLength[u >> 8];
  else
    e = t.bitLength[u] - 1;
  const std::uint32_t below = (u << (31 - e)) << 1;  // the bits under the leading one
  const int k = static_cast<int>(below >> 24);
  const std::int64_t d = static_cast<std::int64_t>(below & 0xFFFFFF) - 0x800000;  // (u - 1/2) in Q24
  std::int64_t acc = t.c3[k];
  acc = t.c2[k] + ((acc * d) >> 24);
  acc = t.c1[k] + ((acc * d) >> 24);
  acc = t.c0[k] + ((acc * d) >> 24);
  const std::int64_t y = -(acc + t.pow2[e + expOffset - kMinExp]);  // -ln in Q40
  // To 2^precision units, rounding to nearest (halves up).
  const int shift = kQ + precision;
  std::int64_t r;
  if (shift > 0) {
    const int s = shift > 62 ? 62 : shift;
    r = (y + (std::int64_t{1} << (s - 1))) >> s;
  } else {
    const int s = -shift > 40 ? 40 : -shift;
    const std::int64_t limit = std::int64_t{kCostLimit} >> s;
    r = y > limit ? kCostLimit : y < -limit ? -kCostLimit : y * (std::int64_t{1} << s);
  }
  if (r > kCostLimit) return kCostLimit;
  if (r < -kCostLimit) return -kCostLimit;
  return static_cast<std::int32_t>(r);
}

void fixLogCostRow(std::int32_t *row, int n, int expOffset, int precision) {
  for (int j = 0; j < n; ++j) row[j] = fixLogCost(row[j], expOffset, precision);
}

}  // namespace xk::hmm
