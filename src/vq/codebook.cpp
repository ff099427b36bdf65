// Binary-split codebooks: construction, tree-search quantization, release.
//
// One template serves both flavours; they differ in the element type, the
// record's flag values, the centroid's rounding and the names in reports.
// Leaves are kept in a list in left-to-right order while the tree grows, so
// the split rules scan leaves in that order and numbering needs no walk.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define XKL_VQ_HAVE_AVX2 1
#endif

#include "frame/report.h"
#include "vq/mahalanobis.h"
#include "vq/codebook_internal.h"
#include "xkl/kfx.h"
#include "xkl/xk_convert.h"
#include "xkl/xk_vq.h"

namespace {

constexpr const char *kModule = "Xk_cdbk";
constexpr const char *kCannotBuild = "codebook of given size can not be constructed";

template <class T>
struct Flavour;

template <>
struct Flavour<float> {
  static constexpr int kBuilding = 1;
  static constexpr const char *kMake = "XKsMakeCodebook";
  static float fromMean(double v) { return static_cast<float>(v); }
};

template <>
struct Flavour<short> {
  static constexpr int kBuilding = 2;
  static constexpr const char *kMake = "XKwMakeCodebook";
  // The mean of 16-bit values is in range; truncated toward zero.
  static short fromMean(double v) { return static_cast<short>(v); }
};

XKCodebookNode *newNode() { return static_cast<XKCodebookNode *>(std::calloc(1, sizeof(XKCodebookNode))); }

// Frees a tree without recursion or allocation: left subtrees are rotated
// up until the node at hand has none, then it is freed.
void freeTree(XKCodebookNode *node) {
  while (node) {
    if (XKCodebookNode *l = node->left) {
      node->left = l->right;
      l->right = node;
      node = l;
    } else {
      XKCodebookNode *r = node->right;
      std::free(node->centroid);
      std::free(node->indices);
      std::free(node);
      node = r;
    }
  }
}

template <class T>
void centroidOf(T *const *vectors, const int *members, int count, int dim, T *out) {
  for (int k = 0; k < dim; ++k) {
    double sum = 0.0;
    for (int i = 0; i < count; ++i) sum += static_cast<double>(vectors[members[i]][k]);
    out[k] = Flavour<T>::fromMean(sum / count);
  }
}

template <class T>
void setFarPair(XKCodebookNode *node, T *const *vectors, int dim) {
  const xk::vq::FarPair p = xk::vq::farthestPair(vectors, node->indices, node->count, dim);
  node->farA = p.a, node->farB = p.b, node->diameter = p.diameter;
}

int *allocIndices(int count) {
  return static_cast<int *>(std::malloc(sizeof(int) * static_cast<std::size_t>(count > 0 ? count : 1)));
}

// Fills both children's index lists from the side of each member (true:
// left), in member order.
bool partition(XKCodebookNode *node, const unsigned char *left, XKCodebookNode *l, XKCodebookNode *r) {
  int nl = 0;
  for (int i = 0; i < node->count; ++i) nl += left[i];
  int *li = allocIndices(nl), *ri = allocIndices(node->count - nl);
  if (!li || !ri) return std::free(li), std::free(ri), false;
  std::free(l->indices), std::free(r->indices);
  l->indices = li, r->indices = ri;
  l->count = nl, r->count = node->count - nl;
  for (int i = 0, a = 0, b = 0; i < node->count; ++i) (left[i] ? li[a++] : ri[b++]) = node->indices[i];
  return true;
}

// Splits a leaf in two; 0 or XK_StsNoMem (the leaf then stays as it was).
template <class T>
int split(XKCodebookNode *node, T *const *vectors, int dim) {
  const std::size_t bytes = sizeof(T) * static_cast<std::size_t>(dim);
  auto *side = static_cast<unsigned char *>(std::malloc(static_cast<std::size_t>(node->count > 0 ? node->count : 1)));
  XKCodebookNode *l = newNode(), *r = newNode();
  T *lc = static_cast<T *>(std::malloc(bytes)), *rc = static_cast<T *>(std::malloc(bytes));
  auto fail = [&] {
    std::free(side), std::free(lc), std::free(rc);
    if (l) std::free(l->indices);
    if (r) std::free(r->indices);
    std::free(l), std::free(r);
    return XK_StsNoMem;
  };
  if (!side || !l || !r || !lc || !rc) return fail();
  l->centroid = lc, r->centroid = rc;

  // First partition by the far pair: strictly nearer to farA goes left.
  const T *fa = vectors[node->indices[node->farA]], *fb = vectors[node->indices[node->farB]];
  for (int i = 0; i < node->count; ++i) {
    const T *v = vectors[node->indices[i]];
    side[i] = xk::vq::l2Distance(v, fa, dim) < xk::vq::l2Distance(v, fb, dim);
  }
  if (!partition(node, side, l, r)) return fail();
  centroidOf(vectors, r->indices, r->count, dim, rc);
  // Only the left side can be empty here (farB always goes right), when all
  // members coincide: it takes its sibling's centroid, so no vector is ever
  // strictly nearer to it and it stays an empty, unreachable leaf.
  if (l->count > 0)
    centroidOf(vectors, l->indices, l->count, dim, lc);
  else
    for (int k = 0; k < dim; ++k) lc[k] = rc[k];

  // Second partition by the new centroids. The children keep the centroids
  // of the first partition; members and counts come from this one.
  for (int i = 0; i < node->count; ++i) {
    const T *v = vectors[node->indices[i]];
    side[i] = xk::vq::l2Distance(v, lc, dim) < xk::vq::l2Distance(v, rc, dim);
  }
  if (!partition(node, side, l, r)) return fail();
  std::free(side);

  setFarPair(l, vectors, dim);
  setFarPair(r, vectors, dim);
  l->isLeaf = r->isLeaf = 1;
  node->isLeaf = 0;
  node->left = l, node->right = r;
  std::free(node->indices);
  node->indices = nullptr;
  return 0;
}

// The leaf to split next, or null when none may be split.
XKCodebookNode *chooseLeaf(const std::vector<XKCodebookNode *> &leaves, int flags) {
  if (flags & XK_CDBK_SPLIT_BIGGEST) {
    XKCodebookNode *chosen = leaves.front();
    for (XKCodebookNode *leaf : leaves)
      if (leaf->count > chosen->count) chosen = leaf;
    return chosen;
  }
  if (flags & XK_CDBK_SPLIT_WIDEST) {
    XKCodebookNode *chosen = nullptr;
    double widest = 0.0;
    for (XKCodebookNode *leaf : leaves)
      if (leaf->diameter > widest) widest = leaf->diameter, chosen = leaf;
    // Only leaves of positive diameter (two distinct members at least) split.
    return chosen && chosen->count > 1 ? chosen : nullptr;
  }
  // Without a rule only the root can be split.
  return leaves.size() == 1 ? leaves.front() : nullptr;
}

// Leaf numbers, heap codes (modulo 2^32), depth, codeword table, labels.
void finish(XKCodebook *cb, const std::vector<XKCodebookNode *> &leaves, int *labels) {
  for (std::size_t k = 0; k < leaves.size(); ++k) {
    leaves[k]->leafNumber = static_cast<int>(k + 1);
    cb->codewords[k] = leaves[k]->centroid;
    if (labels)
      for (int i = 0; i < leaves[k]->count; ++i) labels[leaves[k]->indices[i]] = static_cast<int>(k + 1);
  }
  struct Item {
    XKCodebookNode *node;
    std::uint32_t code;
    int level;
  };
  std::vector<Item> stack{{cb->root, 1u, 1}};
  int depth = 0;
  while (!stack.empty()) {
    const Item it = stack.back();
    stack.pop_back();
    it.node->code = static_cast<int>(it.code);
    if (it.level > depth) depth = it.level;
    if (!it.node->isLeaf) {
      stack.push_back({it.node->right, 2u * it.code + 1u, it.level + 1});
      stack.push_back({it.node->left, 2u * it.code, it.level + 1});
    }
  }
  cb->depth = depth;
}

template <class T>
XKCodebook *makeCodebook(T *const *vectors, int *labels, int nVectors, int dim, int size, int flags) {
  const char *func = Flavour<T>::kMake;
  if (!(flags & XK_CDBK_EUCLID)) {
    xk::report(XK_StsBadArg, func, "No distance is choosen in input flags.", kModule, 313);
    return nullptr;
  }
  if (vectors == nullptr || nVectors < 1 || dim < 1 || size < 1) {
    xk::report(XK_StsBadArg, func, kCannotBuild, kModule, 377);
    return nullptr;
  }
  auto *cb = static_cast<XKCodebook *>(std::calloc(1, sizeof(XKCodebook)));
  void **codewords = static_cast<void **>(std::calloc(static_cast<std::size_t>(size), sizeof(void *)));
  XKCodebookNode *root = newNode();
  int *indices = allocIndices(nVectors);
  // The root's centroid buffer holds nVectors elements (and never fewer than dim).
  T *centroid = static_cast<T *>(std::malloc(sizeof(T) * static_cast<std::size_t>(nVectors > dim ? nVectors : dim)));
  if (!cb || !codewords || !root || !indices || !centroid) {
    std::free(cb), std::free(codewords), std::free(root), std::free(indices), std::free(centroid);
    xk::report(XK_StsNoMem, func, "insufficiency of memory for pointer  codebook", kModule, 331);
    return nullptr;
  }
  cb->codewords = codewords;
  cb->root = root;
  root->indices = indices;
  root->centroid = centroid;
  root->count = nVectors;
  root->isLeaf = 1;
  for (int i = 0; i < nVectors; ++i) indices[i] = i;
  cb->flags = Flavour<T>::kBuilding;
  cb->size = size;
  cb->dim = dim;

  setFarPair(root, vectors, dim);
  centroidOf(vectors, indices, nVectors, dim, centroid);

  int status = 0;
  try {
    std::vector<XKCodebookNode *> leaves{root};
    leaves.reserve(static_cast<std::size_t>(size));
    for (int s = 1; s < size && status == 0; ++s) {
      XKCodebookNode *leaf = chooseLeaf(leaves, flags);
      status = leaf ? split(leaf, vectors, dim) : XK_StsBadArg;
      if (status == 0) {
        auto at = leaves.begin();
        while (*at != leaf) ++at;
        *at = leaf->left;
        leaves.insert(at + 1, leaf->right);
      }
    }
    if (status == 0) finish(cb, leaves, labels);
  } catch (const std::bad_alloc &) {
    status = XK_StsNoMem;
  }
  if (status != 0) {
    xk::report(status, func, kCannotBuild, kModule, 377);
    XK_FreeCodebook(cb);
    return nullptr;
  }
  cb->flags = Flavour<T>::kBuilding | XK_CDBK_EUCLID;
  return cb;
}

// Converts a distance to int the way a truncating store does: values out of
// range (and NaN) give INT_MIN.
int truncToInt(double v) {
  return v > -2147483649.0 && v < 2147483648.0 ? static_cast<int>(v) : INT_MIN;
}

// Descends from the root, at most depth steps, to a leaf; null if none is
// reached. Ties between the children go right (Right(dl, dr) decides).
template <class Dist, class GoRight>
const XKCodebookNode *descend(const XKCodebook *cb, Dist dist, GoRight goRight) {
  const XKCodebookNode *node = cb ? cb->root : nullptr;
  const int depth = cb ? cb->depth : 0;
  for (int step = 0; node && step < depth; ++step) {
    if (node->isLeaf) return node;
    const auto dl = dist(node->left->centroid), dr = dist(node->right->centroid);
    node = goRight(dl, dr) ? node->right : node->left;
  }
  return nullptr;
}

// Sum of squares of v - c on four independent partial sums: not the bits of
// l2Distance, but within (dim + 3) 2^-53 of the true value, as l2Distance's
// square is.
double quickSquares(const float *v, const float *c, int dim) {
  double a0 = 0.0, a1 = 0.0, a2 = 0.0, a3 = 0.0;
  int k = 0;
  for (; k + 4 <= dim; k += 4) {
    const double d0 = static_cast<double>(v[k]) - c[k], d1 = static_cast<double>(v[k + 1]) - c[k + 1];
    const double d2 = static_cast<double>(v[k + 2]) - c[k + 2], d3 = static_cast<double>(v[k + 3]) - c[k + 3];
    a0 += d0 * d0, a1 += d1 * d1, a2 += d2 * d2, a3 += d3 * d3;
  }
  for (; k < dim; ++k) {
    const double d = static_cast<double>(v[k]) - c[k];
    a0 += d * d;
  }
  return (a0 + a1) + (a2 + a3);
}

#ifdef XKL_VQ_HAVE_AVX2
__attribute__((target("avx2"))) inline double lanes(__m256d a) {
  const __m128d s = _mm_add_pd(_mm256_castpd256_pd128(a), _mm256_extractf128_pd(a, 1));
  return _mm_cvtsd_f64(_mm_add_sd(s, _mm_unpackhi_pd(s, s)));
}

// quickSquares to two centroids at once, four elements per step.
__attribute__((target("avx2"))) void quickSquaresAvx2(const float *v, const float *l, const float *r, int dim,
                                                     double &ql, double &qr) {
  __m256d al = _mm256_setzero_pd(), ar = al;
  int k = 0;
  for (; k + 4 <= dim; k += 4) {
    const __m256d x = _mm256_cvtps_pd(_mm_loadu_ps(v + k));
    const __m256d dl = _mm256_sub_pd(x, _mm256_cvtps_pd(_mm_loadu_ps(l + k)));
    const __m256d dr = _mm256_sub_pd(x, _mm256_cvtps_pd(_mm_loadu_ps(r + k)));
    al = _mm256_add_pd(al, _mm256_mul_pd(dl, dl));
    ar = _mm256_add_pd(ar, _mm256_mul_pd(dr, dr));
  }
  double sl = lanes(al), sr = lanes(ar);
  for (; k < dim; ++k) {
    const double dl = static_cast<double>(v[k]) - l[k], dr = static_cast<double>(v[k]) - r[k];
    sl += dl * dl, sr += dr * dr;
  }
  ql = sl, qr = sr;
}
#endif

// The float descent's choice: right when l2Distance to the right centroid is
// not above the one to the left. The quick sums decide whenever they differ
// by more than both roundings together (and so the roots cannot tie);
// near-ties, tiny, infinite and NaN sums are settled by the exact distances.
bool goRight(const float *v, const float *l, const float *r, int dim, bool simd) {
  double ql, qr;
#ifdef XKL_VQ_HAVE_AVX2
  if (simd)
    quickSquaresAvx2(v, l, r, dim, ql, qr);
  else
#endif
    ql = quickSquares(v, l, dim), qr = quickSquares(v, r, dim);
  (void)simd;
  const double slack = (8.0 * dim + 64.0) * 0x1p-53;
  constexpr double kTiny = 1e-280, kHuge = 1e300;
  // Bitwise operators: the outcome is data-dependent, so no branches on it.
  const bool inRange = (ql >= kTiny) & (qr >= kTiny) & (ql <= kHuge) & (qr <= kHuge);
  const bool sure = inRange & ((qr <= ql * (1.0 - slack)) | (qr >= ql * (1.0 + slack)));
  if (__builtin_expect(sure, 1)) return qr < ql;
  return xk::vq::l2Distance(v, r, dim) <= xk::vq::l2Distance(v, l, dim);
}

void reportMissed() {
  xk::report(XK_StsBadArg, "XKsVQCodebook", "VQ is not performed for some input vectors.", kModule, 452);
}

}  // namespace

extern "C" {

XKL_API XKCodebook *XKsMakeCodebook(float *const *vectors, int *labels, int nVectors, int dim, int size,
                                    int flags) {
  return makeCodebook(vectors, labels, nVectors, dim, size, flags);
}

XKL_API XKCodebook *XKwMakeCodebook(short *const *vectors, int *labels, int nVectors, int dim, int size,
                                    int flags) {
  return makeCodebook(vectors, labels, nVectors, dim, size, flags);
}

XKL_API void XKsVQCodebook(const XKCodebook *codebook, float *const *vectors, int *indices, int nVectors,
                           int dim, double *distortion) {
  double sum = 0.0;
  bool missed = false;
  // Vectors descend in groups, one level for each member of the group in
  // turn: their distance sums are independent, so the processor overlaps
  // them instead of waiting on one chain of additions per level.
  constexpr int kGroup = 8;
  const int depth = codebook ? codebook->depth : 0;
  const bool simd = xk::vq::simdActive();
  for (int n0 = 0; n0 < nVectors; n0 += kGroup) {
    const int g = nVectors - n0 < kGroup ? nVectors - n0 : kGroup;
    const XKCodebookNode *node[kGroup];
    const XKCodebookNode *leaf[kGroup];
    for (int b = 0; b < g; ++b) node[b] = codebook ? codebook->root : nullptr, leaf[b] = nullptr;
    for (int step = 0; step < depth; ++step) {
      for (int b = 0; b < g; ++b) {
        const XKCodebookNode *at = node[b];
        if (leaf[b] || !at) continue;
        if (at->isLeaf) {
          leaf[b] = at;
          continue;
        }
        node[b] = goRight(vectors[n0 + b], static_cast<const float *>(at->left->centroid),
                          static_cast<const float *>(at->right->centroid), dim, simd)
                      ? at->right
                      : at->left;
      }
    }
    for (int b = 0; b < g; ++b) {
      if (leaf[b]) sum += xk::vq::l2Distance(vectors[n0 + b], static_cast<const float *>(leaf[b]->centroid), dim);
      missed |= leaf[b] == nullptr;
      if (indices) indices[n0 + b] = leaf[b] ? leaf[b]->leafNumber : 0;
    }
  }
  if (missed) reportMissed();
  if (distortion) *distortion = nVectors > 0 ? sum / nVectors : 0.0;
}

XKL_API void XKwVQCodebook(const XKCodebook *codebook, short *const *vectors, int *indices, int nVectors,
                           int dim, int *distortion, int scaleMode, int *scaleFactor) {
  double sum = 0.0;
  bool missed = false;
  for (int n = 0; n < nVectors; ++n) {
    const short *v = vectors[n];
    auto dist = [&](const void *c) {
      return truncToInt(kfxwNormExt(v, static_cast<const short *>(c), dim, KFX_L2, scaleMode, scaleFactor));
    };
    const XKCodebookNode *leaf = descend(codebook, dist, [](int dl, int dr) { return !(dl < dr); });
    if (leaf) sum += dist(leaf->centroid);
    missed |= leaf == nullptr;
    if (indices) indices[n] = leaf ? leaf->leafNumber : 0;
  }
  if (missed) reportMissed();
  int local = 0;
  const int mean = XKdiConvertDown(nVectors > 0 ? sum / nVectors : 0.0, scaleMode, scaleFactor ? scaleFactor : &local);
  if (distortion) *distortion = mean;
}

XKL_API void XK_FreeCodebook(XKCodebook *codebook) {
  if (!codebook) return;
  freeTree(codebook->root);
  std::free(codebook->codewords);
  std::free(codebook);
}

}  // extern "C"
