// DTW evaluation of a test utterance against stored patterns: XKsEvalDTW,
// and XKwEvalDTW with its float path (automatic scaling) and its 32-bit
// integer path (the other scale modes).
//
// One column of accumulated distances is updated in place per test frame,
// over the band of reference frames that the slope limits allow. Local
// distances of a whole band run come from one kernel call (see
// dtw_kernels.cpp); the step choice, pruning and sums then walk the band.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "dtw/dtw_internal.h"
#include "dtw/patterns.h"
#include "frame/report.h"
#include "xkl/xk_convert.h"

namespace xk::dtw {
namespace {

constexpr double kNoScore = 3.4e38;
// The float sentinel of an unreachable cell: the float nearest 3.4e38,
// 3.3999999521e38, which lies just below the double kNoScore.
constexpr float kInf = 3.4e38f;
constexpr int32_t kUnreachable = 0x7FFFFFFF;
constexpr int kPad = 32;  // cells of slack on each side of a column (vector over-reads)

// Smallest float f with (double)f >= t, so that for any float a,
// a >= f  <=>  (double)a >= t  and  a < f  <=>  (double)a < t (NaN false).
float ceilToFloat(double t) {
  if (std::isnan(t)) return std::numeric_limits<float>::quiet_NaN();
  float f = static_cast<float>(t);
  if (static_cast<double>(f) < t) f = std::nextafter(f, std::numeric_limits<float>::infinity());
  return f;
}

// A local distance cell is measured and added only while its accumulated
// value, widened to double, lies below kNoScore: the sentinel itself
// qualifies, only values at or above the next float do not.
const float kMeasureBelow = std::nextafter(kInf, std::numeric_limits<float>::infinity());

// Work arrays of one call, sized for the longest admitted pattern and
// allocated once: the accumulated column (float or int) and step flags with
// kPad cells below index 0, local distances, the band, the test frames in
// double and one reference transposed to double (value k of frame j at
// ref[k * ld + j]).
struct Work {
  int N = 0, dim = 0;
  int64_t ld = 0;
  void *block = nullptr;
  float *A = nullptr;
  int32_t *Ai = nullptr;
  int32_t *F = nullptr;
  double *dist = nullptr;
  float *fd = nullptr;  // two float distance columns
  int64_t col = 0;
  int *start = nullptr, *end = nullptr;
  double *X = nullptr, *ref = nullptr;

  bool allocate(int nTest, int dimension, int maxM) {
    N = nTest;
    dim = dimension;
    ld = (static_cast<int64_t>(maxM) + kPad + 3) / 4 * 4;
    col = ld + 2 * kPad;
    const uint64_t doubles = static_cast<uint64_t>(col) + static_cast<uint64_t>(N) * dim +
                             static_cast<uint64_t>(dim) * static_cast<uint64_t>(ld);
    const uint64_t words = 5 * static_cast<uint64_t>(col) + 2 * static_cast<uint64_t>(N);
    if (doubles > (uint64_t{1} << 56) / 8 || words > (uint64_t{1} << 56) / 4) return false;
    const size_t bytes = static_cast<size_t>(doubles * 8 + words * 4 + 64);
    block = std::calloc(1, bytes);
    if (block == nullptr) return false;
    auto *d = static_cast<double *>(block);
    dist = d + kPad;
    X = d + col;
    ref = X + static_cast<int64_t>(N) * dim;
    auto *w = reinterpret_cast<int32_t *>(ref + static_cast<int64_t>(dim) * ld);
    A = reinterpret_cast<float *>(w) + kPad;
    Ai = w + col + kPad;
    F = w + 2 * col + kPad;
    fd = reinterpret_cast<float *>(w + 3 * col) + kPad;
    start = w + 5 * col;
    end = start + N;
    return true;
  }
  ~Work() { std::free(block); }
};

// Widens a pattern's table into the work table.
template <class T>
void loadReference(Work &w, T **rows, int M) {
  widenTransposed(const_cast<const T *const *>(rows), M, w.dim, w.ref, w.ld);
}

// The float recurrence of one admitted pattern of M frames whose reference
// is loaded; D already lowered to M-1. T is the threshold (kNoScore without
// pruning).
double floatPattern(Work &w, int M, int D, bool l1, double T) {
  const int N = w.N;
  float *A = w.A;
  int32_t *F = w.F;
  double *dist = w.dist;
  const float tf = ceilToFloat(T);
  const float tAsFloat = static_cast<float>(T);
  computeBand(N, M, D, w.start, w.end);
  for (int j = -2; j < M; ++j) {
    A[j] = kInf;
    F[j] = 0;
  }
  // First test frame: cells at or above the threshold become unreachable.
  {
    const int e = w.end[0];
    localDistances(w.X, w.ref, w.ld, w.dim, 0, e, l1, dist);
    bool any = false;
    for (int j = e; j >= 0; --j) {
      float a = static_cast<float>(dist[j]);
      if (a >= tf)
        a = kInf;
      else
        any = true;
      A[j] = a;
    }
    if (!any) return T;
  }
  // Inner frames: predecessor choice (horizontal unless taken last time,
  // ties to the diagonal, the skip only when strictly better), pruning,
  // then the local distances of the cells still measured.
  if (!floatInnerFrames(A, F, w.start, w.end, N, tf, kInf, kMeasureBelow, w.X, w.ref, w.ld, w.dim, l1, dist, w.fd,
                        w.fd + w.col))
    return T;
  // Last test frame: every cell is measured; a blocked horizontal step
  // costs the threshold; the best end is the smallest value below T, the
  // highest frame among equals.
  const int s = w.start[N - 1];
  localDistances(w.X + static_cast<int64_t>(N - 1) * w.dim, w.ref, w.ld, w.dim, s, M - 1, l1, dist);
  int best = -1;
  float bestValue = tAsFloat;
  for (int j = M - 1; j >= s; --j) {
    float c = F[j] ? tAsFloat : A[j];
    if (A[j - 1] <= c) c = A[j - 1];
    if (A[j - 2] < c) c = A[j - 2];
    float a = static_cast<float>(dist[j]) + c;
    if (a < tf) {
      if (a < bestValue) bestValue = a, best = j;
    } else {
      a = tAsFloat;
    }
    A[j] = a;
  }
  return best >= 0 ? static_cast<double>(A[best]) : T;
}

// Scale of the integer local distances: 2^-shift with the fixed scale,
// else 1. Every 16-bit norm is 0 or between 1 and 2^40, so shifts beyond
// +-1000 give 0 or saturate, as 0 and 2^1000 do.
double intScale(bool fixed, int shift) {
  if (!fixed) return 1.0;
  if (shift > 1000) return 0.0;
  return std::ldexp(1.0, shift < -1000 ? 1000 : -shift);
}

// The same recurrence on 32-bit integers: kUnreachable for unreachable
// cells, T the plain integer threshold.
int32_t intPattern(Work &w, int M, int D, bool l1, int32_t T, double scale) {
  const int N = w.N;
  int32_t *A = w.Ai;
  int32_t *F = w.F;
  double *dist = w.dist;
  computeBand(N, M, D, w.start, w.end);
  for (int j = -2; j < M; ++j) {
    A[j] = kUnreachable;
    F[j] = 0;
  }
  {
    const int e = w.end[0];
    localDistances(w.X, w.ref, w.ld, w.dim, 0, e, l1, dist);
    bool any = false;
    for (int j = e; j >= 0; --j) {
      const int32_t d = intDistance(dist[j], scale);
      if (d < T)
        A[j] = d, any = true;
      else
        A[j] = kUnreachable;
    }
    if (!any) return T;
  }
  auto *cells = reinterpret_cast<int32_t *>(w.fd);
  if (!intInnerFrames(A, F, w.start, w.end, N, T, kUnreachable, scale, w.X, w.ref, w.ld, w.dim, l1, dist, cells,
                      cells + w.col))
    return T;
  const int s = w.start[N - 1];
  localDistances(w.X + static_cast<int64_t>(N - 1) * w.dim, w.ref, w.ld, w.dim, s, M - 1, l1, dist);
  int best = -1;
  int32_t bestValue = T;
  for (int j = M - 1; j >= s; --j) {
    int32_t c = F[j] ? T : A[j];
    if (A[j - 1] <= c) c = A[j - 1];
    if (A[j - 2] < c) c = A[j - 2];
    int32_t a = satAddInt(intDistance(dist[j], scale), c);
    if (a < T) {
      if (a < bestValue) bestValue = a, best = j;
    } else {
      a = T;
    }
    A[j] = a;
  }
  return best >= 0 ? A[best] : T;
}

// Index of the first smallest score below kNoScore, else 0.
template <class S>
int bestIndex(const S *scores, int n) {
  double bestScore = kNoScore;
  int best = 0;
  for (int p = 0; p < n; ++p)
    if (static_cast<double>(scores[p]) < bestScore) bestScore = scores[p], best = p;
  return best;
}

// Looks up every pattern, marks the admitted ones (a null entry for the
// others) and returns the longest admitted length, 0 if none.
template <class Store>
int admitPatterns(const int *ids, int n, int nTest, int dim, int64_t D, typename Store::Record **recs) {
  int maxM = 0;
  for (int p = 0; p < n; ++p) {
    auto *rec = patternPtrGet<Store>(ids[p]);
    if (rec != nullptr && (rec->dim != dim || dim < 1 || !admitted(nTest, rec->nFrames, D))) rec = nullptr;
    recs[p] = rec;
    if (rec != nullptr && rec->nFrames > maxM) maxM = rec->nFrames;
  }
  return maxM;
}

int noMemory(const char *func, int line) {
  report(XK_StsNoMem, func, "No memory for work arrays allocation", kModDtw, line);
  return -1;
}

template <class Record>
Record **allocRecords(int n) {
  return static_cast<Record **>(std::malloc(sizeof(Record *) * static_cast<size_t>(n > 0 ? n : 1)));
}

}  // namespace
}  // namespace xk::dtw

using namespace xk::dtw;

extern "C" {

int XKsEvalDTW(const int *patternIds, int nPatterns, float **test, int nTest, int dim, int flags, double threshold,
               int delta, double *scores) {
  if (nPatterns <= 0) return 0;
  const int64_t D = effectiveDelta(flags, delta);
  const double T = (flags & 64) ? threshold : kNoScore;
  const bool l1 = (flags & 128) != 0;
  auto **recs = allocRecords<XKsPattern>(nPatterns);
  if (recs == nullptr) return noMemory("XKsEvalDTW", 1160);
  const int maxM = admitPatterns<FloatStore>(patternIds, nPatterns, nTest, dim, D, recs);
  Work w;
  if (maxM > 0 && !w.allocate(nTest, dim, maxM)) {
    std::free(recs);
    return noMemory("XKsEvalDTW", 1160);
  }
  if (maxM > 0)
    for (int i = 0; i < nTest; ++i)
      for (int k = 0; k < dim; ++k) w.X[static_cast<int64_t>(i) * dim + k] = test[i][k];
  for (int p = 0; p < nPatterns; ++p) {
    XKsPattern *rec = recs[p];
    if (rec == nullptr) {
      scores[p] = kNoScore;
      continue;
    }
    const int M = rec->nFrames;
    loadReference(w, rec->data, M);
    scores[p] = floatPattern(w, M, static_cast<int>(D >= M ? M - 1 : D), l1, T);
  }
  std::free(recs);
  return bestIndex(scores, nPatterns);
}

int XKwEvalDTW(const int *patternIds, int nPatterns, short **test, int nTest, int dim, int testScale, int flags,
               int threshold, int thresholdScale, int delta, int *scores, int scaleMode, int *scaleFactor) {
  if (nPatterns <= 0) return 0;
  const int64_t D = effectiveDelta(flags, delta);
  const bool l1 = (flags & 128) != 0;
  const bool floatPath = scaleMode == XK_AUTO_SCALE;
  auto **recs = allocRecords<XKwPattern>(nPatterns);
  if (recs == nullptr) return noMemory("XKwEvalDTW", 1420);
  const int maxM = admitPatterns<ShortStore>(patternIds, nPatterns, nTest, dim, D, recs);
  double *dScores = nullptr;
  float *row = nullptr;
  Work w;
  bool ok = true;
  if (floatPath) {
    dScores = static_cast<double *>(std::malloc(sizeof(double) * static_cast<size_t>(nPatterns)));
    row = static_cast<float *>(std::malloc(sizeof(float) * static_cast<size_t>(dim > 0 ? dim : 1)));
    ok = dScores != nullptr && row != nullptr;
  }
  if (ok && maxM > 0) ok = w.allocate(nTest, dim, maxM);
  if (!ok) {
    std::free(recs);
    std::free(dScores);
    std::free(row);
    return noMemory("XKwEvalDTW", 1420);
  }
  // Test frames in double: the float path converts each to float first
  // (value = w * 2^testScale); the integer path takes the 16-bit values.
  if (maxM > 0)
    for (int i = 0; i < nTest; ++i) {
      double *x = w.X + static_cast<int64_t>(i) * dim;
      if (floatPath) {
        XKwsbConvertUp(test[i], row, dim, upScale(testScale));
        for (int k = 0; k < dim; ++k) x[k] = row[k];
      } else {
        for (int k = 0; k < dim; ++k) x[k] = test[i][k];
      }
    }
  int best;
  if (floatPath) {
    const double T = (flags & 64) ? XKidConvertUp(threshold, upScale(thresholdScale)) : kNoScore;
    for (int p = 0; p < nPatterns; ++p) {
      XKwPattern *rec = recs[p];
      if (rec == nullptr) {
        dScores[p] = kNoScore;
        continue;
      }
      const int M = rec->nFrames;
      loadReference(w, rec->floatData, M);
      dScores[p] = floatPattern(w, M, static_cast<int>(D >= M ? M - 1 : D), l1, T);
    }
    best = bestIndex(dScores, nPatterns);
    XKdibConvertDown(dScores, scores, nPatterns, scaleMode, scaleFactor);
  } else {
    const int32_t T = (flags & 64) ? threshold : kUnreachable;
    const double scale = intScale(scaleMode == XK_FIXED_SCALE, scaleFactor ? *scaleFactor : 0);
    best = 0;
    double bestScore = kNoScore;
    for (int p = 0; p < nPatterns; ++p) {
      XKwPattern *rec = recs[p];
      if (rec == nullptr) {
        scores[p] = kUnreachable;  // stands for kNoScore, which no int holds
        continue;
      }
      const int M = rec->nFrames;
      loadReference(w, rec->data, M);
      scores[p] = intPattern(w, M, static_cast<int>(D >= M ? M - 1 : D), l1, T, scale);
      if (static_cast<double>(scores[p]) < bestScore) bestScore = scores[p], best = p;
    }
  }
  std::free(recs);
  std::free(dScores);
  std::free(row);
  return best;
}

}  // extern "C"
