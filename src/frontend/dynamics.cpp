#include "frontend/dynamics.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "frame/last_error.h"
#include "xkl/xkl_frontend.h"

namespace xk::frontend {

void Normalizer::init(int dim, int mode, int window, bool variance) {
  dim_ = dim;
  mode_ = mode;
  half_ = mode == Sliding ? window / 2 : 0;
  variance_ = variance;
  // The window of the row half_ back reaches half_ rows further back, and
  // the row that leaves it is still needed when the next one arrives.
  if (mode == Sliding) ring_.init(dim, 2 * half_ + 2);
  sum_.assign(static_cast<size_t>(dim), 0.0);
  sumSq_.assign(variance ? static_cast<size_t>(dim) : 0, 0.0);
  reset();
}

void Normalizer::reset() {
  count_ = emitted_ = lo_ = 0;
  held_.clear();
  std::fill(sum_.begin(), sum_.end(), 0.0);
  std::fill(sumSq_.begin(), sumSq_.end(), 0.0);
}

void Normalizer::add(const float *row) {
  double *sum = sum_.data();
  if (variance_) {
    double *sumSq = sumSq_.data();
    for (int d = 0; d < dim_; ++d) {
      const double v = row[d];
      sum[d] += v;
      sumSq[d] += v * v;
    }
  } else {
    for (int d = 0; d < dim_; ++d) sum[d] += static_cast<double>(row[d]);
  }
}

void Normalizer::subtract(const float *row) {
  double *sum = sum_.data();
  if (variance_) {
    double *sumSq = sumSq_.data();
    for (int d = 0; d < dim_; ++d) {
      const double v = row[d];
      sum[d] -= v;
      sumSq[d] -= v * v;
    }
  } else {
    for (int d = 0; d < dim_; ++d) sum[d] -= static_cast<double>(row[d]);
  }
}

// Normalises row `index` with the sums of rows lo_ .. count_-1.
void Normalizer::emit(long index, RowSink &sink) {
  const float *row = held(index);
  // The window holds the same number of rows for most of the utterance.
  if (count_ - lo_ != inverseOf_) {
    inverseOf_ = count_ - lo_;
    inverse_ = 1.0 / static_cast<double>(inverseOf_);
  }
  const double inverse = inverse_;
  const double *sum = sum_.data();
  float *out = sink.slot(index);
  if (!variance_) {
    for (int d = 0; d < dim_; ++d) out[d] = static_cast<float>(row[d] - sum[d] * inverse);
  } else {
    for (int d = 0; d < dim_; ++d) {
      const double mean = sum[d] * inverse;
      double value = row[d] - mean;
      const double meanSq = sumSq_[static_cast<size_t>(d)] * inverse;
      const double var = meanSq - mean * mean;
      // Below this the spread is rounding noise of the sums: dividing by it
      // would blow the noise up, so the column is only centred.
      if (var > 1e-12 * meanSq) value /= std::sqrt(var);
      out[d] = static_cast<float>(value);
    }
  }
  sink.take(index);
  emitted_ = index + 1;
}

float *Normalizer::slot(RowSink &sink) {
  if (mode_ == None) return sink.slot(count_);
  if (mode_ == Utterance) {
    held_.resize(static_cast<size_t>(count_ + 1) * static_cast<size_t>(dim_));
    return held_.data() + static_cast<size_t>(count_) * static_cast<size_t>(dim_);
  }
  return ring_.row(count_);
}

// The sliding window's usual step without the variance, in one pass: row
// count_ enters, row lo_ leaves and row count_ - half_ is emitted, with each
// column's operations in the order of add, subtract and emit.
void Normalizer::slide(RowSink &sink) {
  const long ready = count_ - half_;
  const float *in = ring_.row(count_), *leaving = ring_.row(lo_), *row = ring_.row(ready);
  ++count_;
  ++lo_;
  if (count_ - lo_ != inverseOf_) {
    inverseOf_ = count_ - lo_;
    inverse_ = 1.0 / static_cast<double>(inverseOf_);
  }
  const double inverse = inverse_;
  double *sum = sum_.data();
  float *__restrict out = sink.slot(ready);
  for (int d = 0; d < dim_; ++d) {
    const double s = (sum[d] + static_cast<double>(in[d])) - static_cast<double>(leaving[d]);
    sum[d] = s;
    out[d] = static_cast<float>(row[d] - s * inverse);
  }
  sink.take(ready);
  emitted_ = ready + 1;
}

void Normalizer::push(RowSink &sink) {
  if (mode_ == None) {
    sink.take(count_++);
    return;
  }
  if (mode_ == Sliding && !variance_ && count_ >= 2 * half_ + 1) {
    slide(sink);
    return;
  }
  add(held(count_));
  ++count_;
  if (mode_ == Utterance) return;
  const long ready = count_ - 1 - half_;
  if (ready < 0) return;
  for (; lo_ < ready - half_; ++lo_) subtract(ring_.row(lo_));
  emit(ready, sink);
}

void Normalizer::finish(RowSink &sink) {
  if (mode_ == Utterance) {
    for (long i = 0; i < count_; ++i) emit(i, sink);
  } else if (mode_ == Sliding) {
    for (long i = emitted_; i < count_; ++i) {
      for (; lo_ < i - half_; ++lo_) subtract(ring_.row(lo_));
      emit(i, sink);
    }
  }
  reset();
}

void deltaRow(const float *const *taps, int dim, int window, float denominator, float *out) {
  // Each column sums k (after - before) for k = 1 .. K in that order, in
  // float, then scales; the common half-widths run in one pass.
  const float inverse = 1.0f / denominator;
  float *__restrict o = out;
  if (window == 1) {
    const float *__restrict a1 = taps[2], *__restrict b1 = taps[0];
    for (int d = 0; d < dim; ++d) o[d] = (a1[d] - b1[d]) * inverse;
    return;
  }
  if (window == 2) {
    const float *__restrict a1 = taps[3], *__restrict b1 = taps[1];
    const float *__restrict a2 = taps[4], *__restrict b2 = taps[0];
    for (int d = 0; d < dim; ++d) {
      const float first = a1[d] - b1[d];
      o[d] = (first + 2.0f * (a2[d] - b2[d])) * inverse;
    }
    return;
  }
  {
    const float *__restrict after = taps[window + 1], *__restrict before = taps[window - 1];
    for (int d = 0; d < dim; ++d) o[d] = after[d] - before[d];
  }
  for (int k = 2; k <= window; ++k) {
    const float *__restrict after = taps[window + k], *__restrict before = taps[window - k];
    const float weight = static_cast<float>(k);
    for (int d = 0; d < dim; ++d) o[d] += weight * (after[d] - before[d]);
  }
  for (int d = 0; d < dim; ++d) o[d] *= inverse;
}

void Deltas::init(int dim, int window) {
  dim_ = dim;
  window_ = window;
  long sq = 0;
  for (long k = 1; k <= window; ++k) sq += k * k;
  denominator_ = static_cast<float>(2 * sq);
  ring_.init(dim, 2 * window + 2);
  taps_.assign(static_cast<size_t>(2 * window + 1), nullptr);
  reset();
}

// Row `index` with the rows 0 .. last known; indices beyond are clamped.
void Deltas::emit(long index, long last, RowSink &sink) {
  const float **taps = taps_.data();
  if (index >= window_ && index + window_ <= last) {
    for (int k = -window_; k <= window_; ++k) taps[k + window_] = ring_.row(index + k);
  } else {
    for (int k = -window_; k <= window_; ++k) taps[k + window_] = ring_.row(std::clamp(index + k, 0L, last));
  }
  deltaRow(taps, dim_, window_, denominator_, sink.slot(index));
  sink.take(index);
  emitted_ = index + 1;
}

void Deltas::push(RowSink &sink) {
  ++count_;
  const long ready = count_ - 1 - window_;
  if (ready >= 0) emit(ready, count_ - 1, sink);
}

void Deltas::finish(RowSink &sink) {
  for (long i = emitted_; i < count_; ++i) emit(i, count_ - 1, sink);
}

}  // namespace xk::frontend

using xk::fail;
using namespace xk::frontend;

namespace {

// Collects rows into a matrix (rows arrive in order).
struct MatrixSink final : RowSink {
  float *dst;
  int dim;
  float *slot(long index) override { return dst + static_cast<size_t>(index) * static_cast<size_t>(dim); }
  void take(long) override {}
};

}  // namespace

extern "C" {

int xkl_deltas(const float *in, int frames, int dim, int window, float *out) {
  if (in == nullptr || out == nullptr) return fail(XK_StsBadArg, "xkl_deltas: null matrix");
  if (frames < 0 || dim < 1) return fail(XK_StsBadArg, "xkl_deltas: frames must be >= 0 and dim >= 1");
  if (window < 1 || window > kMaxDeltaWindow)
    return fail(XK_StsBadArg, "xkl_deltas: window must be 1 to %d", kMaxDeltaWindow);
  try {
    Deltas deltas;
    deltas.init(dim, window);
    MatrixSink sink;
    sink.dst = out;
    sink.dim = dim;
    for (int t = 0; t < frames; ++t) {
      const float *row = in + static_cast<size_t>(t) * static_cast<size_t>(dim);
      std::copy(row, row + dim, deltas.slot());
      deltas.push(sink);
    }
    deltas.finish(sink);
  } catch (const std::bad_alloc &) {
    return fail(XK_StsNoMem, "xkl_deltas: out of memory");
  }
  return 0;
}

int xkl_normalize(float *features, int frames, int dim, int mode, int window, int variance) {
  if (features == nullptr) return fail(XK_StsBadArg, "xkl_normalize: null matrix");
  if (frames < 0 || dim < 1)
    return fail(XK_StsBadArg, "xkl_normalize: frames must be >= 0 and dim >= 1");
  if (mode != XKL_CMN_UTTERANCE && mode != XKL_CMN_SLIDING)
    return fail(XK_StsBadArg, "xkl_normalize: mode must be XKL_CMN_UTTERANCE or XKL_CMN_SLIDING");
  if (mode == XKL_CMN_SLIDING && (window < 1 || window > kMaxNormWindow))
    return fail(XK_StsBadArg, "xkl_normalize: the sliding window must be 1 to %d frames",
                kMaxNormWindow);
  try {
    Normalizer norm;
    norm.init(dim, mode, window, variance != 0);
    // The stage copies each row as it arrives, so writing finished rows back
    // in place never changes what the sums see.
    MatrixSink sink;
    sink.dst = features;
    sink.dim = dim;
    for (int t = 0; t < frames; ++t) {
      const float *row = features + static_cast<size_t>(t) * static_cast<size_t>(dim);
      std::copy(row, row + dim, norm.slot(sink));
      norm.push(sink);
    }
    norm.finish(sink);
  } catch (const std::bad_alloc &) {
    return fail(XK_StsNoMem, "xkl_normalize: out of memory");
  }
  return 0;
}

}  // extern "C"
