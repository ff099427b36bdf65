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

#include "frame/report.h"
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
  for (int n = 0; n < nVectors; ++n) {
    const float *v = vectors[n];
    auto dist = [&](const void *c) { return xk::vq::l2Distance(v, static_cast<const float *>(c), dim); };
    const XKCodebookNode *leaf = descend(codebook, dist, [](double dl, double dr) { return dr <= dl; });
    if (leaf) sum += dist(leaf->centroid);
    missed |= leaf == nullptr;
    if (indices) indices[n] = leaf ? leaf->leafNumber : 0;
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
