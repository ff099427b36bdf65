// The two row-by-row stages of the front end that look across frames: mean
// and variance normalisation, and regression deltas. Rows arrive one at a
// time, in order; each stage hands its finished rows, in order, to a sink.
// The batch helpers run the same stages over a whole matrix, so a stream and
// a batch run give the same numbers bit for bit.
#pragma once

#include <cstddef>
#include <vector>

namespace xk::frontend {

// Largest windows accepted: far beyond any use, small enough that a stage's
// ring of rows is always a sensible allocation.
inline constexpr int kMaxDeltaWindow = 100;
inline constexpr int kMaxNormWindow = 100001;

// A ring of at least `capacity` rows addressed by their absolute index (a
// power of two, so that finding a row is a mask, not a division).
class RowRing {
 public:
  void init(int dim, int capacity) {
    dim_ = static_cast<size_t>(dim);
    size_t rows = 1;
    while (rows < static_cast<size_t>(capacity)) rows *= 2;
    mask_ = rows - 1;
    data_.assign(dim_ * rows, 0.0f);
  }
  float *row(long index) { return data_.data() + (static_cast<size_t>(index) & mask_) * dim_; }
  const float *row(long index) const {
    return data_.data() + (static_cast<size_t>(index) & mask_) * dim_;
  }

 private:
  std::vector<float> data_;
  size_t dim_ = 0;
  size_t mask_ = 0;
};

// Receives the finished rows of a stage. The stage writes row `index`
// straight to where slot(index) says (asked once per row, in order), then
// calls take(index): rows move from stage to stage without copies.
struct RowSink {
  virtual float *slot(long index) = 0;
  virtual void take(long index) = 0;

 protected:
  ~RowSink() = default;
};

// Mean (and optionally variance) normalisation per column, over the whole
// utterance (every row held until finish) or over a centred window of
// 2 * half + 1 rows cut at the utterance's ends (rows held `half` rows back).
// Sums run in double; the window moves by adding the entering row and
// subtracting the leaving one, always in the same order. A row is written to
// slot(sink) and then pushed; without normalisation that slot is the sink's.
class Normalizer {
 public:
  enum Mode { None = 0, Utterance = 1, Sliding = 2 };
  void init(int dim, int mode, int window, bool variance);
  float *slot(RowSink &sink);  // where the next row goes
  void push(RowSink &sink);    // the row in slot() is complete
  void finish(RowSink &sink);  // end of the utterance: releases every held row
  void reset();
  int latency() const { return mode_ == Utterance ? -1 : mode_ == Sliding ? half_ : 0; }

 private:
  const float *held(long index) const {
    return mode_ == Sliding ? ring_.row(index)
                            : held_.data() + static_cast<size_t>(index) * static_cast<size_t>(dim_);
  }
  void add(const float *row);
  void subtract(const float *row);
  void emit(long index, RowSink &sink);
  void slide(RowSink &sink);

  int dim_ = 0, mode_ = None, half_ = 0;
  bool variance_ = false;
  RowRing ring_;                 // sliding: rows lo_ .. count_-1
  std::vector<float> held_;      // utterance: every row
  std::vector<double> sum_, sumSq_;  // sumSq_ only with the variance
  long count_ = 0, emitted_ = 0, lo_ = 0;
  long inverseOf_ = 0;           // the row count whose reciprocal inverse_ holds
  double inverse_ = 0.0;
};

// Regression deltas with half-width K: row i is emitted once row i + K has
// arrived, or at finish, with rows outside the utterance replaced by its
// first or last row. The stage keeps its last 2K + 2 input rows readable
// through input(), so a later stage can still join them to their deltas.
class Deltas {
 public:
  void init(int dim, int window);
  float *slot() { return ring_.row(count_); }  // where the next row goes
  void push(RowSink &sink);                     // the row in slot() is complete
  void finish(RowSink &sink);
  void reset() { count_ = emitted_ = 0; }
  const float *input(long index) const { return ring_.row(index); }

 private:
  void emit(long index, long last, RowSink &sink);

  int dim_ = 0, window_ = 1;
  float denominator_ = 1.0f;
  RowRing ring_;
  std::vector<const float *> taps_;
  long count_ = 0, emitted_ = 0;
};

// One delta row from the 2K + 1 rows taps[0..2K] (taps[K] is the centre);
// `out` is none of them.
void deltaRow(const float *const *taps, int dim, int window, float denominator, float *out);

}  // namespace xk::frontend
