// Estimation of one Gaussian from vectors (Build) and pooling of a further
// set of vectors into an estimate (Train), float and 16-bit.
//
// Both flavours gather the statistics in double (the 16-bit sums are exact
// in 64-bit integers first), pool them in double and store them into a new
// one-component server holding covariances (GAUSS_SERVER_COV).
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "frame/report.h"
#include "gauss/gauss_internal.h"

namespace xk::gauss {
namespace {

struct Stats {
  double n = 0.0;
  std::vector<double> mean;  // dim
  std::vector<double> cov;   // dim x dim (full) or dim (diagonal)
};

// Mean (divisor N) and unbiased covariance (divisor N - 1) of the vectors.
template <class T>
Stats fromVectors(T **v, int n, int dim, bool full) {
  Stats s;
  s.n = n;
  s.mean.assign(static_cast<std::size_t>(dim), 0.0);
  s.cov.assign(full ? static_cast<std::size_t>(dim) * dim : static_cast<std::size_t>(dim), 0.0);
  using Acc = std::conditional_t<sizeof(T) == 2, std::int64_t, double>;
  std::vector<Acc> sum(static_cast<std::size_t>(dim), 0), sq(s.cov.size(), 0);
  for (int k = 0; k < n; ++k) {
    for (int i = 0; i < dim; ++i) {
      const Acc xi = v[k][i];
      sum[i] += xi;
      if (full) {
        for (int j = i; j < dim; ++j) sq[static_cast<std::size_t>(i) * dim + j] += xi * static_cast<Acc>(v[k][j]);
      } else {
        sq[i] += xi * xi;
      }
    }
  }
  for (int i = 0; i < dim; ++i) s.mean[i] = (1.0 / n) * static_cast<double>(sum[i]);
  const double r = 1.0 / (n - 1.0);
  for (int i = 0; i < dim; ++i) {
    if (full) {
      for (int j = i; j < dim; ++j) {
        const double c = r * (static_cast<double>(sq[static_cast<std::size_t>(i) * dim + j]) - n * s.mean[i] * s.mean[j]);
        s.cov[static_cast<std::size_t>(i) * dim + j] = s.cov[static_cast<std::size_t>(j) * dim + i] = c;
      }
    } else {
      s.cov[i] = r * (static_cast<double>(sq[i]) - n * s.mean[i] * s.mean[i]);
    }
  }
  return s;
}

// The statistics held by a server (values times 2^scale for 16-bit ones).
template <class T>
Stats fromServer(const GaussMixServer *g, bool full) {
  const int dim = g->dim;
  const double unit = std::ldexp(1.0, g->scale);
  Stats s;
  s.n = g->count;
  const auto *mu = static_cast<const T *>(g->means[0]);
  for (int i = 0; i < dim; ++i) s.mean.push_back(mu[i]);
  if (full) {
    for (int i = 0; i < dim; ++i)
      for (int j = 0; j < dim; ++j) s.cov.push_back(static_cast<const T *>(g->InverseCov[0][i])[j] * unit);
  } else {
    for (int i = 0; i < dim; ++i) s.cov.push_back(static_cast<const T *>(g->InverseCovD[0])[i] * unit);
  }
  return s;
}

// Pooled mean and unbiased covariance of two sets given by their statistics.
Stats pool(const Stats &a, const Stats &b, int dim, bool full) {
  Stats p;
  p.n = a.n + b.n;
  const double N = p.n, r = 1.0 / (N - 1.0);
  for (int i = 0; i < dim; ++i) p.mean.push_back(a.mean[i] * a.n / N + b.mean[i] * b.n / N);
  p.cov.resize(a.cov.size());
  for (std::size_t k = 0; k < a.cov.size(); ++k) {
    const int i = full ? static_cast<int>(k / dim) : static_cast<int>(k);
    const int j = full ? static_cast<int>(k % dim) : static_cast<int>(k);
    p.cov[k] = a.n * r * a.mean[i] * a.mean[j] + b.n * r * b.mean[i] * b.mean[j] + (a.n - 1.0) * r * a.cov[k] +
               (b.n - 1.0) * r * b.cov[k] - N * r * p.mean[i] * p.mean[j];
  }
  return p;
}

// Stores the statistics in a new one-component server. 16-bit: means
// rounded in the vectors' units, covariances with the exponent that makes
// the largest magnitude fit 15 bits.
template <class T>
GaussMixServer *store(const char *func, const Stats &st, int dim, bool full) {
  constexpr bool sFlavour = sizeof(T) == 4;
  GaussMixServer *g = allocServer(sFlavour, full, dim, 1);
  if (g == nullptr) {
    report(XK_StsNoMem, func, kNoMemPtr, kModule, 120);
    return nullptr;
  }
  int scale = 0;
  if constexpr (!sFlavour) {
    double big = 0.0;
    for (double c : st.cov) big = std::fmax(big, std::fabs(c));
    if (big > 0.0) {
      int e;
      std::frexp(big / 32767.0, &e);  // big / 32767 < 2^e
      scale = e;
    }
  }
  auto put = [&](double v, int sc) -> T {
    if constexpr (sFlavour) {
      return static_cast<float>(v);
    } else {
      const double r = std::nearbyint(std::ldexp(v, -sc));
      return static_cast<short>(r > 32767.0 ? 32767 : r < -32768.0 ? -32768 : r);
    }
  };
  auto *mu = static_cast<T *>(g->means[0]);
  for (int i = 0; i < dim; ++i) mu[i] = put(st.mean[i], 0);
  for (int i = 0; i < dim; ++i) {
    if (full) {
      for (int j = 0; j < dim; ++j)
        static_cast<T *>(g->InverseCov[0][i])[j] = put(st.cov[static_cast<std::size_t>(i) * dim + j], scale);
    } else {
      static_cast<T *>(g->InverseCovD[0])[i] = put(st.cov[i], scale);
    }
  }
  static_cast<T *>(g->weights)[0] = static_cast<T>(1);
  if constexpr (sFlavour) g->coefs[0] = 1.0f;
  g->flags = (full ? GAUSS_SERVER_FULL : GAUSS_SERVER_DIAG) | GAUSS_SERVER_COV |
             (sFlavour ? GAUSS_SERVER_FVR_S : GAUSS_SERVER_FVR_W);
  g->count = st.n > INT_MAX ? INT_MAX : static_cast<int>(st.n);
  g->scale = scale;
  return g;
}

template <class T>
GaussMixServer *build(const char *func, T **vectors, int n, int dim, int flags) {
  const bool full = (flags & GAUSS_SERVER_FULL) != 0;
  return store<T>(func, fromVectors(vectors, n, dim, full), dim, full);
}

template <class T>
GaussMixServer *train(const char *func, GaussMixServer *old, T **vectors, int n, int dim) {
  // A failure stored on this thread (sticky until cleared) stops the pooling.
  if (statusFailed()) return nullptr;
  const bool full = old->InverseCov != nullptr;
  if (full && scratchVector(dim) == nullptr) {
    report(XK_StsNoMem, func, kNoMemPtr, kModule, 160);
    return nullptr;
  }
  const Stats fresh = fromVectors(vectors, n, dim, full);
  return store<T>(func, pool(fresh, fromServer<T>(old, full), dim, full), dim, full);
}

}  // namespace
}  // namespace xk::gauss

using namespace xk::gauss;

extern "C" XKL_API GaussMixServer *XKsBuildGaussMixServer(float **vectors, int nVectors, int dim, int flags) {
  return build("XKsBuildGaussMixServer", vectors, nVectors, dim, flags);
}
extern "C" XKL_API GaussMixServer *XKwBuildGaussMixServer(short **vectors, int nVectors, int dim, int flags) {
  return build("XKwBuildGaussMixServer", vectors, nVectors, dim, flags);
}
extern "C" XKL_API GaussMixServer *XKsTrainGaussMixServer(GaussMixServer *server, float **vectors, int nVectors,
                                                          int dim) {
  return train("XKsTrainGaussMixServer", server, vectors, nVectors, dim);
}
extern "C" XKL_API GaussMixServer *XKwTrainGaussMixServer(GaussMixServer *server, short **vectors, int nVectors,
                                                          int dim) {
  return train("XKwTrainGaussMixServer", server, vectors, nVectors, dim);
}
