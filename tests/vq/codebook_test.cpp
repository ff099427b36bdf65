// Codebooks against a plain re-implementation of the split rules (a recursive
// tree, the kernel layer's norms), fast farthest pairs against brute force.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "vq/codebook_internal.h"
#include "vq/mahalanobis.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

double norm(const float *a, const float *b, int dim) { return kfxsNorm(a, b, dim, KFX_L2); }
double norm(const short *a, const short *b, int dim) { return kfxwNorm(a, b, dim, KFX_L2); }
template <class T>
std::vector<T> vec(const void *p, int n) { return {static_cast<const T *>(p), static_cast<const T *>(p) + n}; }

template <class T>
struct Data {
  int dim = 0;
  std::vector<std::vector<T>> rows;
  std::vector<T *> ptr;  // filled once the rows are
  T *const *table() { return ptr.data(); }
  int n() const { return (int)rows.size(); }
};

template <class T>
struct RefNode {
  std::vector<int> members;
  std::vector<T> centroid;
  int farA = 0, farB = 0, leafNumber = 0;
  double diameter = 0;
  std::unique_ptr<RefNode> left, right;
  std::uint32_t code = 1;  // heap number: children of k are 2k and 2k + 1
};

template <class T>
struct Ref {
  Data<T> &d;
  std::unique_ptr<RefNode<T>> root;
  std::vector<RefNode<T> *> ls;  // the leaves, left to right
  int depth = 0;

  double dist(int i, const T *c) const { return norm(d.rows[i].data(), c, d.dim); }
  std::vector<T> mean(const std::vector<int> &members) const {
    std::vector<T> c(d.dim);
    for (int k = 0; k < d.dim; ++k)
      c[k] = (T)(std::accumulate(members.begin(), members.end(), 0.0, [&](double s, int i) { return s + d.rows[i][k]; }) /
                 members.size());
    return c;
  }
  void farPair(RefNode<T> &n) const {  // n fresh: diameter 0, farA = farB = 0
    for (size_t i = 0; i < n.members.size(); ++i)
      for (size_t j = i + 1; j < n.members.size(); ++j)
        if (const double x = dist(n.members[i], d.rows[n.members[j]].data()); x > n.diameter)
          n.diameter = x, n.farA = (int)i, n.farB = (int)j;
  }
  void leaves(RefNode<T> *n, std::vector<RefNode<T> *> &out) {
    if (!n->left) return out.push_back(n);
    leaves(n->left.get(), out), leaves(n->right.get(), out);
  }
  void split(RefNode<T> &n) {
    n.left = std::make_unique<RefNode<T>>(), n.right = std::make_unique<RefNode<T>>();
    n.left->code = 2 * n.code, n.right->code = 2 * n.code + 1;
    const T *a = d.rows[n.members[n.farA]].data(), *b = d.rows[n.members[n.farB]].data();
    for (int i : n.members) (dist(i, a) < dist(i, b) ? n.left : n.right)->members.push_back(i);
    n.right->centroid = mean(n.right->members);
    n.left->centroid = n.left->members.empty() ? n.right->centroid : mean(n.left->members);
    n.left->members.clear(), n.right->members.clear();
    for (int i : n.members)
      (dist(i, n.left->centroid.data()) < dist(i, n.right->centroid.data()) ? n.left : n.right)->members.push_back(i);
    farPair(*n.left), farPair(*n.right);
  }
  // Builds with the rules, leaves numbered left to right; false when the
  // size cannot be reached. Without a split rule only the root splits.
  bool build(int size, int flags) {
    root = std::make_unique<RefNode<T>>();
    for (int i = 0; i < d.n(); ++i) root->members.push_back(i);
    root->centroid = mean(root->members);
    farPair(*root);
    ls = {root.get()};
    for (int s = 1; s < size; ++s, ls.clear(), leaves(root.get(), ls)) {
      RefNode<T> *pick = ls.size() == 1 && !(flags & (XK_CDBK_SPLIT_BIGGEST | XK_CDBK_SPLIT_WIDEST)) ? ls[0] : nullptr;
      for (auto *l : ls)
        if (flags & XK_CDBK_SPLIT_BIGGEST ? !pick || l->members.size() > pick->members.size()
                                          : flags & XK_CDBK_SPLIT_WIDEST && l->diameter > (pick ? pick->diameter : 0.0))
          pick = l;
      if (!pick) return false;
      split(*pick);
    }
    for (size_t k = 0; k < ls.size(); ++k)
      ls[k]->leafNumber = (int)k + 1, depth = std::max(depth, (int)std::bit_width(ls[k]->code));
    return true;
  }
  int descend(const T *v) const {
    const RefNode<T> *n = root.get();
    while (n->left) {  // the 16-bit search compares distances truncated to int
      double dl = norm(v, n->left->centroid.data(), d.dim), dr = norm(v, n->right->centroid.data(), d.dim);
      if (std::is_same_v<T, short>) dl = (int)dl, dr = (int)dr;
      n = dr <= dl ? n->right.get() : n->left.get();
    }
    return n->leafNumber;
  }
};

template <class T>
void expectSameTree(const RefNode<T> *r, const XKCodebookNode *n, int dim, std::vector<int> &labels) {
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(std::make_pair(n->isLeaf, (std::uint32_t)n->code), std::make_pair(r->left ? 0 : 1, r->code));
  EXPECT_EQ(vec<T>(n->centroid, dim), r->centroid) << "node " << r->code;
  if (r->left)
    return expectSameTree(r->left.get(), n->left, dim, labels), expectSameTree(r->right.get(), n->right, dim, labels);
  EXPECT_EQ(std::vector<int>(n->indices, n->indices + n->count), r->members) << "leaf " << r->code;
  EXPECT_EQ(std::tie(n->leafNumber, n->farA, n->farB, n->diameter), std::tie(r->leafNumber, r->farA, r->farB, r->diameter));
  for (int i : r->members) EXPECT_EQ(labels[i], r->leafNumber);
}

// n < 0: all the vectors of d.
template <class T>
XKCodebook *make(Data<T> &d, int *labels, int size, int flags, int n = -1) {
  if constexpr (std::is_same_v<T, float>) return XKsMakeCodebook(d.table(), labels, n < 0 ? d.n() : n, d.dim, size, flags);
  else return XKwMakeCodebook(d.table(), labels, n < 0 ? d.n() : n, d.dim, size, flags);
}
// Quantizes d into idx (may be null); returns the distortion.
template <class T>
double quantize(XKCodebook *cb, Data<T> &d, int *idx) {
  double fd = -1;
  int wd = -1;
  if constexpr (std::is_same_v<T, float>) XKsVQCodebook(cb, d.table(), idx, d.n(), d.dim, &fd);
  else XKwVQCodebook(cb, d.table(), idx, d.n(), d.dim, &wd, 0, nullptr), fd = wd;
  return fd;
}

enum Kind { Gauss, Clusters, Grid, Same, FewDistinct };  // Grid: many equal distances

template <class T>
Data<T> dataSet(Kind kind, int n, int dim, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0, 1);
  const double unit = std::is_same_v<T, short> ? 1000.0 : 1.0;
  Data<T> d{dim, {}, {}};
  std::vector<std::vector<double>> centres(6, std::vector<double>(dim));
  for (auto &c : centres)
    for (auto &e : c) e = 8 * g(rng);
  d.rows.assign(n, std::vector<T>(dim));
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < dim; ++k)
      d.rows[i][k] = (T)(unit * (kind == Gauss ? g(rng) : kind == Clusters ? centres[i % 6][k] + 0.3 * g(rng)
                                 : kind == Grid ? (double)(rng() % 5) / unit : kind == Same ? 0.25 : (double)(i % 4) / unit));
  for (auto &r : d.rows) d.ptr.push_back(r.data());
  return d;
}

template <class T>
class CodebookTest : public xkltest::ReportingTest {};
using Flavours = ::testing::Types<float, short>;
TYPED_TEST_SUITE(CodebookTest, Flavours);

TYPED_TEST(CodebookTest, MatchesPlainRulesAndTreeSearchMatchesPlainDescent) {
  using T = TypeParam;
  struct Case { Kind kind; int n, dim, size, flags; };
  const int E = XK_CDBK_EUCLID, W = E | XK_CDBK_SPLIT_WIDEST, B = E | XK_CDBK_SPLIT_BIGGEST;
  const Case cases[] = {
      {Gauss, 400, 6, 16, W},     {Gauss, 400, 6, 16, B},     {Clusters, 300, 4, 6, W}, {Clusters, 300, 4, 11, B},
      {Grid, 150, 2, 12, W},      {Grid, 150, 2, 20, B},      {Gauss, 50, 3, 1, W},     {Same, 5, 3, 3, B},
      {FewDistinct, 12, 2, 4, W}, {FewDistinct, 12, 2, 6, W}, {FewDistinct, 12, 2, 6, B}, {Gauss, 40, 3, 2, E},
      {Gauss, 40, 3, 3, E}};
  for (const Case &c : cases) {
    SCOPED_TRACE(::testing::Message() << "kind " << c.kind << " size " << c.size << " flags " << c.flags);
    Data<T> d = dataSet<T>(c.kind, c.n, c.dim, 100 + c.size);
    Ref<T> ref{d, nullptr, {}, 0};
    std::vector<int> labels(d.n(), -1);
    xkltest::reports().clear(), XKSetStatus(XK_StsOk);
    XKCodebook *cb = make(d, labels.data(), c.size, c.flags);
    ASSERT_EQ(cb != nullptr, ref.build(c.size, c.flags));
    if (!cb) {  // the size cannot be reached: one report
      EXPECT_EQ(xkltest::reports().size() == 1 ? xkltest::reports()[0].line : 0, 377);
      continue;
    }
    EXPECT_EQ(std::tie(cb->depth, cb->size, cb->flags), std::make_tuple(ref.depth, c.size, std::is_same_v<T, float> ? 5 : 6));
    expectSameTree(ref.root.get(), cb->root, c.dim, labels);
    for (int k = 0; k < c.size; ++k) EXPECT_EQ(vec<T>(cb->codewords[k], c.dim), ref.ls[k]->centroid) << "codeword " << k + 1;

    // Fresh vectors on both paths: the leaves of the plain descent, and the
    // distortion, their mean distance (the 16-bit form sums int distances
    // and converts the mean with the scalar conversion).
    Data<T> q = dataSet<T>(c.kind, 200, c.dim, 999);
    std::vector<int> want(q.n()), idx(q.n());
    double sum = 0;
    for (int i = 0; i < q.n(); ++i) {
      want[i] = ref.descend(q.rows[i].data());
      const double dd = norm(q.rows[i].data(), ref.ls[want[i] - 1]->centroid.data(), c.dim);
      sum += std::is_same_v<T, short> ? (double)(int)dd : dd;
    }
    const double distortion = std::is_same_v<T, float> ? sum / q.n() : XKdiConvertDown(sum / q.n(), 0, nullptr);
    for (bool simd : {true, false}) {
      xk::vq::setSimdEnabled(simd);
      quantize(cb, q, idx.data());
      ASSERT_EQ(idx, want) << "simd " << simd;
      EXPECT_NEAR(quantize(cb, q, nullptr), distortion, 1e-12 * sum) << "simd " << simd;
    }
    xk::vq::setSimdEnabled(true);
    EXPECT_TRUE(xkltest::reports().empty());
    XK_FreeCodebook(cb);
  }
}

TYPED_TEST(CodebookTest, ReportsAndNullResults) {
  using T = TypeParam;
  const char *func = std::is_same_v<T, float> ? "XKsMakeCodebook" : "XKwMakeCodebook";
  Data<T> d = dataSet<T>(Gauss, 10, 2, 1);
  struct Row { int n, size, flags, line; const char *text; };
  const char *const noSize = "codebook of given size can not be constructed";
  const Row rows[] = {{10, 4, XK_CDBK_SPLIT_WIDEST, 313, "No distance is choosen in input flags."},
                      {10, 0, XK_CDBK_EUCLID, 377, noSize}, {0, 2, XK_CDBK_EUCLID, 377, noSize},
                      {10, 11, XK_CDBK_EUCLID | XK_CDBK_SPLIT_WIDEST, 377, noSize}};
  for (const Row &r : rows) {
    xkltest::reports().clear(), XKSetStatus(XK_StsOk);
    EXPECT_EQ(make(d, nullptr, r.size, r.flags, r.n), nullptr);
    ASSERT_EQ(xkltest::reports().size(), 1u) << r.line;
    const auto &rep = xkltest::reports()[0];
    EXPECT_EQ(std::make_tuple(rep.status, rep.func, rep.context, rep.file, rep.line),
              std::make_tuple(int(XK_StsBadArg), std::string(func), std::string(r.text), std::string("Xk_cdbk"), r.line));
  }

  // A vector that reaches no leaf (depth cleared) gets 0, reported once
  // under the float form's name, after the loop.
  XKCodebook *cb = make(d, nullptr, 3, XK_CDBK_EUCLID | XK_CDBK_SPLIT_BIGGEST);
  ASSERT_NE(cb, nullptr);
  cb->depth = 1, xkltest::reports().clear();
  std::vector<int> idx(d.n(), -1);
  quantize(cb, d, idx.data());
  EXPECT_EQ(idx, std::vector<int>(d.n(), 0));
  ASSERT_EQ(xkltest::reports().size(), 1u);
  const auto &rep = xkltest::reports()[0];
  EXPECT_EQ(std::tie(rep.func, rep.context, rep.line),
            std::make_tuple(std::string("XKsVQCodebook"), std::string("VQ is not performed for some input vectors."), 452));
  XK_FreeCodebook(cb);
}

// Brute force over all pairs against the bounded, blocked search, on data
// with many exactly equal distances (grid, duplicates) and on both paths.
TEST(FarthestPair, BoundedSearchEqualsBruteForce) {
  for (bool simd : {true, false}) {
    xk::vq::setSimdEnabled(simd);
    for (Kind kind : {Gauss, Clusters, Grid, Same, FewDistinct})
      for (int n : {63, 64, 65, 301}) {
        std::vector<int> members(n);
        std::iota(members.rbegin(), members.rend(), 0);  // lists are not always in order
        auto expectSame = [&](auto &&d) {
          const auto p = xk::vq::farthestPair(d.table(), members.data(), n, d.dim);
          const auto r = xk::vq::farthestPairPlain(d.table(), members.data(), n, d.dim);
          EXPECT_EQ(std::tie(p.a, p.b, p.diameter), std::tie(r.a, r.b, r.diameter)) << kind << " " << n;
        };
        expectSame(dataSet<float>(kind, n, 5, n)), expectSame(dataSet<short>(kind, n, 3, n));
      }
  }
  xk::vq::setSimdEnabled(true);
}

}  // namespace
