// Gauss mixture servers: the block, creation, release, the determinant and
// the inversion of covariance servers, and the per-thread scratch.
#include <cfloat>
#include <climits>
#include <utility>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "frame/context.h"
#include "frame/report.h"
#include "gauss/gauss_internal.h"

namespace xk::gauss {

GaussMixServer *allocServer(bool sFlavour, bool full, int dim, int nMix) {
  // Bounds that keep the size arithmetic exact; any larger server would not
  // fit the int size word anyway.
  if (dim < 0 || nMix < 0 || dim > kMaxDim || nMix > kMaxMix) return nullptr;
  const Layout l(sFlavour, full, dim, nMix, sizeof(void *));
  if (l.blockSize() > INT_MAX) return nullptr;
  void *block = std::calloc(1, static_cast<std::size_t>(l.blockSize()));
  if (block == nullptr) return nullptr;
  auto *s = static_cast<GaussMixServer *>(block);
  unsigned char *d = dataStart(block);
  if (sFlavour) s->coefs = reinterpret_cast<float *>(d + l.coefs);
  s->work = d + l.work;
  s->weights = d + l.weights;
  s->means = reinterpret_cast<void **>(d + l.meanTab);
  for (int m = 0; m < nMix; ++m) s->means[m] = d + l.meanRows + m * l.rowBytes();
  if (full) {
    s->InverseCov = reinterpret_cast<void ***>(d + l.covTab);
    auto **rowTabs = reinterpret_cast<void **>(d + l.rowTabs);
    for (int m = 0; m < nMix; ++m) {
      s->InverseCov[m] = rowTabs + m * l.dimPad;
      for (int i = 0; i < dim; ++i)
        s->InverseCov[m][i] = d + l.covRows + (static_cast<std::int64_t>(m) * dim + i) * l.rowBytes();
    }
  } else {
    s->InverseCovD = reinterpret_cast<void **>(d + l.covTab);
    for (int m = 0; m < nMix; ++m) s->InverseCovD[m] = d + l.covRows + m * l.rowBytes();
  }
  s->dim = dim;
  s->nMix = nMix;
  s->size = static_cast<int>(l.blockSize());
  return s;
}

float **scratchMatrix(int n) {
  auto &g = xk::context().gauss;
  if (g.mat != nullptr && g.matCap >= n) return g.mat;
  std::free(g.mat);
  g.mat = nullptr;
  g.matCap = 0;
  const std::size_t dimPad = static_cast<std::size_t>(pad4(n));
  const std::size_t n8 = static_cast<std::size_t>(n);
  void *raw = std::malloc(dimPad * n8 * 4 + 16 + sizeof(float *) * n8);
  if (raw == nullptr) return nullptr;
  auto **rows = static_cast<float **>(raw);
  auto base = (reinterpret_cast<std::uintptr_t>(rows + n) + 15) & ~std::uintptr_t{15};
  for (std::size_t i = 0; i < n8; ++i) rows[i] = reinterpret_cast<float *>(base) + i * dimPad;
  g.mat = rows;
  g.matCap = n;
  return rows;
}

float *scratchVector(int n) {
  auto &g = xk::context().gauss;
  if (g.vec != nullptr && g.vecCap >= n) return g.vec;
  std::free(g.vec);
  g.vec = nullptr;
  g.vecCap = 0;
  void *raw = std::aligned_alloc(16, static_cast<std::size_t>(pad4(n + 4)) * sizeof(float));
  if (raw == nullptr) return nullptr;
  g.vec = static_cast<float *>(raw);
  g.vecCap = n;
  return g.vec;
}

double determinant(float *const *a, int n) {
  if (n < 1) return 1.0;
  if (n == 1) return a[0][0];
  double det = 1.0;
  int swaps = 0;
  for (int k = 0; k < n; ++k) {
    int p = k;
    float best = 0.0f;
    for (int j = k; j < n; ++j) {
      if (std::fabs(a[k][j]) >= best) {  // the later column wins ties
        best = std::fabs(a[k][j]);
        p = j;
      }
    }
    if (best < 1e-20f) return 0.0;
    if (p != k) {
      for (int i = 0; i < n; ++i) std::swap(a[i][k], a[i][p]);
      ++swaps;
    }
    const double pivot = a[k][k];
    det *= pivot;
    for (int i = k + 1; i < n; ++i) {
      const double f = a[i][k] / pivot;
      for (int j = k + 1; j < n; ++j) a[i][j] = static_cast<float>(a[i][j] - f * a[k][j]);
    }
  }
  return (swaps & 1) ? -det : det;
}

namespace {

// Inverts a (n x n, destroyed) into b, which holds the identity on entry,
// by Gauss-Jordan elimination with column pivoting; returns the determinant.
// The column exchanges stay applied to b.
double gaussJordan(float *const *a, float *const *b, int n) {
  if (n == 1) {
    const float v = a[0][0];
    if (v <= -1e-30f || v >= 1e-30f) b[0][0] = 1.0f / v;
    return v;
  }
  bool odd = false;
  for (int k = 0; k < n; ++k) {
    int p = k;
    float best = 0.0f;
    for (int j = k; j < n; ++j) {
      if (std::fabs(a[k][j]) >= best) {
        best = std::fabs(a[k][j]);
        p = j;
      }
    }
    if (best > -1e-30f && best < 1e-30f) return 0.0;
    if (p != k) {
      for (int i = 0; i < n; ++i) {
        std::swap(a[i][k], a[i][p]);
        std::swap(b[i][k], b[i][p]);
      }
      odd = !odd;
    }
    for (int i = 0; i < n; ++i) {
      if (i == k) continue;
      const float f = a[i][k] / a[k][k];
      for (int j = k; j < n; ++j) a[i][j] -= a[k][j] * f;
      for (int j = 0; j < n; ++j) b[i][j] -= b[k][j] * f;
    }
  }
  double det = odd ? -1.0 : 1.0;
  for (int k = 0; k < n; ++k) {
    det *= a[k][k];
    const float r = 1.0f / a[k][k];
    for (int j = 0; j < n; ++j) b[k][j] *= r;
  }
  return det;
}

template <class T>
GaussMixServer *initServer(const char *func, const T *weights, T **means, T ***inverseCov, T **inverseCovD, int dim,
                           int nMix, int flags, int scale) {
  constexpr bool sFlavour = sizeof(T) == 4;
  if ((inverseCov == nullptr) == (inverseCovD == nullptr)) {
    report(XK_StsBadArg, func, kBothOrNeither, kModule, 210);
    return nullptr;
  }
  const bool full = inverseCov != nullptr;
  GaussMixServer *s = allocServer(sFlavour, full, dim, nMix);
  if (s == nullptr) {
    report(XK_StsNoMem, func, kNoMemPtr, kModule, 220);
    return nullptr;
  }
  s->flags = kFilling;
  const std::size_t row = sizeof(T) * static_cast<std::size_t>(dim);
  if (nMix > 0) std::memcpy(s->weights, weights, sizeof(T) * static_cast<std::size_t>(nMix));
  for (int m = 0; m < nMix; ++m) {
    if (row) std::memcpy(s->means[m], means[m], row);
    if (full) {
      for (int i = 0; i < dim; ++i) std::memcpy(s->InverseCov[m][i], inverseCov[m][i], row);
    } else if (row) {
      std::memcpy(s->InverseCovD[m], inverseCovD[m], row);
    }
  }
  s->flags = (flags & GAUSS_SERVER_NORM) | (sFlavour ? GAUSS_SERVER_FVR_S : GAUSS_SERVER_FVR_W) | kFilling;
  s->scale = sFlavour ? 0 : scale;
  s->count = 1;
  if constexpr (sFlavour) {
    std::memcpy(s->coefs, s->weights, sizeof(float) * static_cast<std::size_t>(nMix));
    if (flags & GAUSS_SERVER_NORM) {
      for (int m = 0; m < nMix; ++m) {
        double det;
        if (full) {
          float **buf = scratchMatrix(dim);
          if (buf == nullptr) {
            std::free(s);
            report(XK_StsNoMem, func, kNoMemPtr2, kModule, 250);
            return nullptr;
          }
          for (int i = 0; i < dim; ++i) std::memcpy(buf[i], s->InverseCov[m][i], row);
          det = determinant(buf, dim);
        } else {
          det = 1.0;
          const auto *v = static_cast<const float *>(s->InverseCovD[m]);
          for (int i = 0; i < dim; ++i) det *= v[i];
        }
        s->coefs[m] = static_cast<float>(std::sqrt(std::fabs(det)) * s->coefs[m]);
      }
    }
  }
  s->flags = (s->flags & ~kFilling) | (full ? GAUSS_SERVER_FULL : GAUSS_SERVER_DIAG);
  return s;
}

}  // namespace
}  // namespace xk::gauss

using namespace xk::gauss;

extern "C" XKL_API GaussMixServer *XKsInitGaussMixServer(const float *weights, float **means, float ***InverseCov,
                                                         float **InverseCovD, int dim, int nMix, int flags) {
  return initServer<float>("XKsInitGaussMixServer", weights, means, InverseCov, InverseCovD, dim, nMix, flags, 0);
}

extern "C" XKL_API GaussMixServer *XKwInitGaussMixServer(const short *weights, short **means, short ***InverseCov,
                                                         short **InverseCovD, int dim, int nMix, int flags,
                                                         int scale) {
  return initServer<short>("XKwInitGaussMixServer", weights, means, InverseCov, InverseCovD, dim, nMix, flags,
                           scale);
}

extern "C" XKL_API void XKsFreeGaussMixServer(GaussMixServer *server) { std::free(server); }
extern "C" XKL_API void XKwFreeGaussMixServer(GaussMixServer *server) { std::free(server); }

extern "C" XKL_API void XKFreeGaussTbls(void) {
  auto &g = xk::context().gauss;
  g.matCap = 0;
  g.vecCap = 0;
  std::free(g.mat);
  std::free(g.vec);
  g.mat = nullptr;
  g.vec = nullptr;
}

extern "C" XKL_API GaussMixServer *XKsInvertGaussianCovMatrix(GaussMixServer *src, int flags) {
  static constexpr const char *kFunc = "XKsInvertGaussianCovMatrix";
  static constexpr double kTinyDet = 1.3817869688151111e-76;  // 2^-252
  const int dim = src->dim, nMix = src->nMix;
  auto *weights = static_cast<float *>(src->weights);
  auto **means = reinterpret_cast<float **>(src->means);
  GaussMixServer *out = nullptr;
  const bool norm = (flags & GAUSS_SERVER_NORM) != 0;
  auto normalise = [&](int m, double det) {
    if (!norm) return;
    out->flags |= GAUSS_SERVER_NORM;
    const double r = std::sqrt(std::fabs(det));
    out->coefs[m] = static_cast<float>((src->flags & GAUSS_SERVER_COV) ? out->coefs[m] / r : r * out->coefs[m]);
  };
  if (src->InverseCov == nullptr) {
    out = XKsInitGaussMixServer(weights, means, nullptr, reinterpret_cast<float **>(src->InverseCovD), dim, nMix, 0);
    if (out == nullptr) return nullptr;
    for (int m = 0; m < nMix; ++m) {
      double p = 1.0;
      auto *v = static_cast<float *>(out->InverseCovD[m]);
      for (int i = 0; i < dim; ++i) {
        if (v[i] > -1e-30f && v[i] < 1e-30f) {
          std::free(out);
          return nullptr;
        }
        p *= v[i];
        if (std::fabs(v[i]) <= FLT_MIN)
          v[i] = v[i] <= 0.0f ? -FLT_MAX : FLT_MAX;
        else
          v[i] = 1.0f / v[i];
      }
      if (p > -kTinyDet && p < kTinyDet) {
        std::free(out);
        return nullptr;
      }
      normalise(m, p);
    }
  } else {
    float **buf = scratchMatrix(dim);
    if (buf == nullptr) {
      std::free(src);  // the source is released on this failure, as documented
      xk::report(XK_StsNoMem, kFunc, kNoMemPtr2, kModule, 330);
      return nullptr;
    }
    const std::size_t dimPad = static_cast<std::size_t>(pad4(dim));
    for (int i = 0; i < dim; ++i) {
      std::memset(buf[i], 0, dimPad * sizeof(float));
      buf[i][i] = 1.0f;
    }
    // Every component of the new server starts as the identity matrix.
    float ***identity = static_cast<float ***>(std::malloc(sizeof(float **) * static_cast<std::size_t>(nMix + 1)));
    if (identity == nullptr) {
      xk::report(XK_StsNoMem, kFunc, kNoMemPtr2, kModule, 340);
      return nullptr;
    }
    for (int m = 0; m < nMix; ++m) identity[m] = buf;
    out = XKsInitGaussMixServer(weights, means, identity, nullptr, dim, nMix, 0);
    std::free(identity);
    if (out == nullptr) return nullptr;
    for (int m = 0; m < nMix && dim > 0; ++m) {
      // The source rows are contiguous: copy dim x dimPad floats from row 0.
      auto *from = static_cast<const float *>(src->InverseCov[m][0]);
      for (int i = 0; i < dim; ++i) std::memcpy(buf[i], from + i * dimPad, dimPad * sizeof(float));
      const double det = gaussJordan(buf, reinterpret_cast<float **>(out->InverseCov[m]), dim);
      if (det > -kTinyDet && det < kTinyDet) {
        std::free(out);
        return nullptr;
      }
      normalise(m, det);
    }
  }
  out->flags |= GAUSS_SERVER_FVR_S;
  out->count = src->count;
  return out;
}
