// Norms of float and 16-bit vectors and of their differences.
//
// flag: one basic norm, KFX_C (max |x|), KFX_L1 (sum |x|), KFX_L2
// (sqrt of sum x^2) or KFX_L2SQ (sum x^2), optionally with KFX_RELATIVE,
// which returns norm(a - b) / norm(a). A null srcB stands for a zero vector
// everywhere, so a relative norm without srcB is 1 (0 when srcA is all zero).
// Differences and sums are formed in double.
//
// After an argument error the norms return -1, a value no norm can take.
#include <cmath>
#include <limits>

#include "kernels/kfx_error.h"

namespace {

constexpr double kFailure = -1.0;

bool validFlag(int flag) {
  const int basic = flag & ~KFX_RELATIVE;
  return basic == KFX_C || basic == KFX_L1 || basic == KFX_L2 || basic == KFX_L2SQ;
}

template <class T>
double difference(const T *a, const T *b, int i) {
  return b ? static_cast<double>(a[i]) - static_cast<double>(b[i]) : static_cast<double>(a[i]);
}

template <class T>
double basicNorm(const T *a, const T *b, int n, int basic) {
  double acc = 0.0;
  switch (basic) {
    case KFX_C:
      for (int i = 0; i < n; ++i) acc = std::fmax(acc, std::fabs(difference(a, b, i)));
      return acc;
    case KFX_L1:
      for (int i = 0; i < n; ++i) acc += std::fabs(difference(a, b, i));
      return acc;
    default:  // KFX_L2, KFX_L2SQ
      for (int i = 0; i < n; ++i) {
        const double d = difference(a, b, i);
        acc += d * d;
      }
      return basic == KFX_L2 ? std::sqrt(acc) : acc;
  }
}

// The checks are done by the caller.
template <class T>
double norm(const T *a, const T *b, int n, int flag) {
  const int basic = flag & ~KFX_RELATIVE;
  if (!(flag & KFX_RELATIVE)) return basicNorm(a, b, n, basic);
  const double num = basicNorm(a, b, n, basic);
  const double den = basicNorm<T>(a, nullptr, n, basic);
  // Two zero vectors are no relative distance apart; anything else measured
  // against a zero vector is infinitely far.
  if (den == 0.0) return num == 0.0 ? 0.0 : std::numeric_limits<double>::infinity();
  return num / den;
}

// Shared checks of the three norm entry points; false after a report.
template <class T>
bool checkNormArgs(const char *func, const T *srcA, int n, int flag) {
  if (n <= 0) return kfx::report(KFX_StsBadArg, func, "n<=0", kfx::kModNorm, __LINE__), false;
  if (srcA == nullptr) return kfx::report(KFX_StsBadArg, func, "srcA==0", kfx::kModNorm, __LINE__), false;
  if (!validFlag(flag)) return kfx::report(KFX_StsBadArg, func, "flag is wrong", kfx::kModNorm, __LINE__), false;
  return true;
}

// Smallest right shift s >= 0 that brings value into the 16-bit range.
int autoShift(double value) {
  if (!std::isfinite(value) || value <= 32767.0) return 0;
  int exponent;
  std::frexp(value, &exponent);  // value = m * 2^exponent, 0.5 <= m < 1
  int s = exponent > 15 ? exponent - 15 : 0;
  while (std::ldexp(value, -s) > 32767.0) ++s;
  return s;
}

}  // namespace

extern "C" {

double kfxsNorm(const float *srcA, const float *srcB, int n, int flag) {
  if (!checkNormArgs("kfxsNorm", srcA, n, flag)) return kFailure;
  return norm(srcA, srcB, n, flag);
}

double kfxwNorm(const short *srcA, const short *srcB, int n, int flag) {
  if (!checkNormArgs("kfxwNorm", srcA, n, flag)) return kFailure;
  return norm(srcA, srcB, n, flag);
}

// The scale modes treat the result like the 16-bit FFT forms treat theirs:
// with KFX_FIXED_SCALE the norm is shifted right by *scaleFactor (multiplied
// by 2^-*scaleFactor), with KFX_AUTO_SCALE by the smallest shift s >= 0 that
// brings it to 32767 or below, and s is written to *scaleFactor. In both
// cases norm = result * 2^scaleFactor. Other scale modes leave it unscaled.
double kfxwNormExt(const short *srcA, const short *srcB, int n, int flag, int scaleMode, int *scaleFactor) {
  if (!checkNormArgs("kfxwNormExt", srcA, n, flag)) return kFailure;
  const bool fixed = (scaleMode & KFX_FIXED_SCALE) != 0;
  const bool automatic = (scaleMode & KFX_AUTO_SCALE) != 0;
  if (fixed && scaleFactor == nullptr)
    return kfx::report(KFX_StsBadArg, "kfxwNormExt", "scaleMode & KFX_FIXED_SCALE && (scaleFactor==NULL)",
                       kfx::kModNorm, __LINE__),
           kFailure;
  if (automatic && scaleFactor == nullptr)
    return kfx::report(KFX_StsBadArg, "kfxwNormExt", "scaleMode & KFX_AUTO_SCALE && scaleFactor==NULL",
                       kfx::kModNorm, __LINE__),
           kFailure;
  if (fixed && automatic)
    return kfx::report(KFX_StsBadArg, "kfxwNormExt", "scaleMode & KFX_FIXED_SCALE && scaleMode & KFX_AUTO_SCALE",
                       kfx::kModNorm, __LINE__),
           kFailure;
  const double value = norm(srcA, srcB, n, flag);
  if (fixed) {
    // Shifts beyond +-4096 already reach 0 or infinity; the clamp keeps the
    // negation defined for INT_MIN.
    const int s = *scaleFactor < -4096 ? -4096 : (*scaleFactor > 4096 ? 4096 : *scaleFactor);
    return std::ldexp(value, -s);
  }
  if (automatic) {
    const int s = autoShift(value);
    *scaleFactor = s;
    return std::ldexp(value, -s);
  }
  return value;
}

}  // extern "C"
