// Codebooks against a plain re-implementation of the split rules written
// here (a recursive tree, distances from the kernel layer's norms), the
// fast farthest-pair search against brute force, the tree search against
// exhaustive search, and the reports.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
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
struct Data {
  int dim = 0;
  std::vector<std::vector<T>> rows;
  std::vector<T *> ptr;
  void add(std::vector<T> v) { rows.push_back(std::move(v)); }
  T *const *table() {
    ptr.clear();
    for (auto &r : rows) ptr.push_back(r.data());
    return ptr.data();
  }
  int n() const { return (int)rows.size(); }
};

template <class T>
struct RefNode {
  std::vector<int> members;
  std::vector<T> centroid;
  int farA = 0, farB = 0;
  double diameter = 0;
  std::unique_ptr<RefNode> left, right;
  int leafNumber = 0;
  std::uint32_t code = 0;
};

template <class T>
struct Ref {
  Data<T> &d;
  std::unique_ptr<RefNode<T>> root;

  double dist(int i, const T *c) const { return norm(d.rows[i].data(), c, d.dim); }

  std::vector<T> mean(const std::vector<int> &members) const {
    std::vector<T> c(d.dim);
    for (int k = 0; k < d.dim; ++k) {
      double s = 0;
      for (int i : members) s += d.rows[i][k];
      c[k] = (T)(s / members.size());
    }
    return c;
  }
  void farPair(RefNode<T> &node) const {
    double best = 0;
    node.farA = node.farB = 0;
    for (size_t i = 0; i < node.members.size(); ++i)
      for (size_t j = i + 1; j < node.members.size(); ++j) {
        const double x = dist(node.members[i], d.rows[node.members[j]].data());
        if (x > best) best = x, node.farA = (int)i, node.farB = (int)j;
      }
    node.diameter = best;
  }
  void leaves(RefNode<T> *n, std::vector<RefNode<T> *> &out) {
    if (!n->left) return out.push_back(n);
    leaves(n->left.get(), out), leaves(n->right.get(), out);
  }
  void split(RefNode<T> &n) {
    n.left = std::make_unique<RefNode<T>>(), n.right = std::make_unique<RefNode<T>>();
    const T *a = d.rows[n.members[n.farA]].data(), *b = d.rows[n.members[n.farB]].data();
    for (int i : n.members) (dist(i, a) < dist(i, b) ? n.left : n.right)->members.push_back(i);
    n.right->centroid = mean(n.right->members);
    n.left->centroid = n.left->members.empty() ? n.right->centroid : mean(n.left->members);
    n.left->members.clear(), n.right->members.clear();
    for (int i : n.members)
      (dist(i, n.left->centroid.data()) < dist(i, n.right->centroid.data()) ? n.left : n.right)->members.push_back(i);
    farPair(*n.left), farPair(*n.right);
  }
  void number(RefNode<T> *n, std::uint32_t code, int level, int &leaf, int &depth) {
    n->code = code, depth = std::max(depth, level);
    if (!n->left) return void(n->leafNumber = ++leaf);
    number(n->left.get(), 2 * code, level + 1, leaf, depth);
    number(n->right.get(), 2 * code + 1, level + 1, leaf, depth);
  }
  // Builds with the rules; false when the size cannot be reached.
  bool build(int size, int flags, int &depth) {
    root = std::make_unique<RefNode<T>>();
    for (int i = 0; i < d.n(); ++i) root->members.push_back(i);
    root->centroid = mean(root->members);
    farPair(*root);
    for (int s = 1; s < size; ++s) {
      std::vector<RefNode<T> *> ls;
      leaves(root.get(), ls);
      RefNode<T> *pick = nullptr;
      if (flags & XK_CDBK_SPLIT_BIGGEST) {
        pick = ls[0];
        for (auto *l : ls) pick = l->members.size() > pick->members.size() ? l : pick;
      } else if (flags & XK_CDBK_SPLIT_WIDEST) {
        for (auto *l : ls) pick = l->diameter > (pick ? pick->diameter : 0.0) ? l : pick;
      } else if (ls.size() == 1) {
        pick = ls[0];
      }
      if (!pick) return false;
      split(*pick);
    }
    int leaf = 0;
    depth = 0;
    number(root.get(), 1, 1, leaf, depth);
    return true;
  }
  int descend(const T *v) const {
    const RefNode<T> *n = root.get();
    while (n->left) {
      // The 16-bit search compares distances truncated to int.
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
  EXPECT_EQ(n->isLeaf, r->left ? 0 : 1);
  EXPECT_EQ((std::uint32_t)n->code, r->code);
  const T *c = static_cast<const T *>(n->centroid);
  EXPECT_EQ(std::vector<T>(c, c + dim), r->centroid) << "node " << r->code;
  if (r->left) {
    expectSameTree(r->left.get(), n->left, dim, labels);
    expectSameTree(r->right.get(), n->right, dim, labels);
    return;
  }
  EXPECT_EQ(n->leafNumber, r->leafNumber);
  EXPECT_EQ(std::vector<int>(n->indices, n->indices + n->count), r->members) << "leaf " << r->code;
  EXPECT_EQ(n->farA, r->farA);
  EXPECT_EQ(n->farB, r->farB);
  EXPECT_EQ(n->diameter, r->diameter);
  for (int i : r->members) EXPECT_EQ(labels[i], r->leafNumber);
}

// n < 0: all the vectors of d.
XKCodebook *make(Data<float> &d, int *labels, int size, int flags, int n = -1) {
  return XKsMakeCodebook(d.table(), labels, n < 0 ? d.n() : n, d.dim, size, flags);
}
XKCodebook *make(Data<short> &d, int *labels, int size, int flags, int n = -1) {
  return XKwMakeCodebook(d.table(), labels, n < 0 ? d.n() : n, d.dim, size, flags);
}
void quantize(XKCodebook *cb, Data<float> &d, int *idx) {
  double dist;
  XKsVQCodebook(cb, d.table(), idx, d.n(), d.dim, &dist);
}
void quantize(XKCodebook *cb, Data<short> &d, int *idx) {
  int dist;
  XKwVQCodebook(cb, d.table(), idx, d.n(), d.dim, &dist, 0, nullptr);
}

enum Kind { Gauss, Clusters, Grid, Same, FewDistinct };

template <class T>
Data<T> dataSet(Kind kind, int n, int dim, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0, 1);
  const double unit = std::is_same_v<T, short> ? 1000.0 : 1.0;
  Data<T> d;
  d.dim = dim;
  std::vector<std::vector<double>> centres(6, std::vector<double>(dim));
  for (auto &c : centres)
    for (auto &e : c) e = 8 * g(rng);
  for (int i = 0; i < n; ++i) {
    std::vector<T> v(dim);
    for (int k = 0; k < dim; ++k) {
      double x = 0;
      switch (kind) {
        case Gauss: x = g(rng); break;
        case Clusters: x = centres[i % 6][k] + 0.3 * g(rng); break;
        case Grid: x = (double)(rng() % 5) / unit; break;  // many equal distances
        case Same: x = 0.25; break;
        case FewDistinct: x = (double)(i % 4) / unit; break;
      }
      v[k] = (T)(x * unit);
    }
    d.add(v);
  }
  return d;
}

template <class T>
class CodebookTest : public xkltest::ReportingTest {};
using Flavours = ::testing::Types<float, short>;
TYPED_TEST_SUITE(CodebookTest, Flavours);

TYPED_TEST(CodebookTest, MatchesPlainRulesAndTreeSearchMatchesPlainDescent) {
  using T = TypeParam;
  struct Case {
    Kind kind;
    int n, dim, size, flags;
  };
  const int W = XK_CDBK_EUCLID | XK_CDBK_SPLIT_WIDEST, B = XK_CDBK_EUCLID | XK_CDBK_SPLIT_BIGGEST;
  const Case cases[] = {
      {Gauss, 400, 6, 16, W},   {Gauss, 400, 6, 16, B},     {Clusters, 300, 4, 6, W},
      {Clusters, 300, 4, 11, B}, {Grid, 150, 2, 12, W},     {Grid, 150, 2, 20, B},
      {Gauss, 50, 3, 1, W},     {Same, 5, 3, 3, B},         {FewDistinct, 12, 2, 4, W},
      {FewDistinct, 12, 2, 6, W}, {FewDistinct, 12, 2, 6, B}, {Gauss, 40, 3, 2, XK_CDBK_EUCLID},
      {Gauss, 40, 3, 3, XK_CDBK_EUCLID},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(::testing::Message() << "kind " << c.kind << " size " << c.size << " flags " << c.flags);
    Data<T> d = dataSet<T>(c.kind, c.n, c.dim, 100 + c.size);
    Ref<T> ref{d, nullptr};
    int depth = 0;
    const bool buildable = ref.build(c.size, c.flags, depth);
    std::vector<int> labels(d.n(), -1);
    xkltest::reports().clear();
    XKSetStatus(XK_StsOk);
    XKCodebook *cb = make(d, labels.data(), c.size, c.flags);
    ASSERT_EQ(cb != nullptr, buildable);
    if (!cb) {
      ASSERT_EQ(xkltest::reports().size(), 1u);
      EXPECT_EQ(xkltest::reports()[0].context, "codebook of given size can not be constructed");
      EXPECT_EQ(xkltest::reports()[0].line, 377);
      continue;
    }
    EXPECT_EQ(cb->depth, depth);
    EXPECT_EQ(cb->size, c.size);
    EXPECT_EQ(cb->flags, (std::is_same_v<T, float> ? 5 : 6));
    expectSameTree(ref.root.get(), cb->root, c.dim, labels);
    std::vector<RefNode<T> *> leaves;
    ref.leaves(ref.root.get(), leaves);
    for (int k = 0; k < c.size; ++k) {
      const T *w = static_cast<const T *>(cb->codewords[k]);
      EXPECT_EQ(std::vector<T>(w, w + c.dim), leaves[k]->centroid) << "codeword " << k + 1;
    }

    // Quantization of fresh vectors: the same leaves as the plain descent.
    Data<T> q = dataSet<T>(c.kind, 200, c.dim, 999);
    for (bool simd : {true, false}) {
      xk::vq::setSimdEnabled(simd);
      std::vector<int> idx(q.n());
      quantize(cb, q, idx.data());
      for (int i = 0; i < q.n(); ++i) ASSERT_EQ(idx[i], ref.descend(q.rows[i].data())) << i << " simd " << simd;
    }
    // Distortion: the mean distance to the chosen codewords (the 16-bit form
    // sums int distances and converts the mean with the scalar conversion).
    double sum = 0;
    for (int i = 0; i < q.n(); ++i) {
      const double dd = norm(q.rows[i].data(), leaves[ref.descend(q.rows[i].data()) - 1]->centroid.data(), c.dim);
      sum += std::is_same_v<T, short> ? (double)(int)dd : dd;
    }
    if constexpr (std::is_same_v<T, float>) {
      double got = -1;
      XKsVQCodebook(cb, q.table(), nullptr, q.n(), c.dim, &got);
      EXPECT_NEAR(got, sum / q.n(), 1e-12 * sum);
    } else {
      int got = -1, scale = 0, want = XKdiConvertDown(sum / q.n(), 0, &scale);
      XKwVQCodebook(cb, q.table(), nullptr, q.n(), c.dim, &got, 0, nullptr);
      EXPECT_EQ(got, want);
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
  struct Row {
    int n, size, flags, line;
    const char *text;
  };
  const char *const noSize = "codebook of given size can not be constructed";
  const Row rows[] = {
      {10, 4, XK_CDBK_SPLIT_WIDEST, 313, "No distance is choosen in input flags."},
      {10, 0, XK_CDBK_EUCLID, 377, noSize},
      {0, 2, XK_CDBK_EUCLID, 377, noSize},
      {10, 11, XK_CDBK_EUCLID | XK_CDBK_SPLIT_WIDEST, 377, noSize},
  };
  for (const Row &r : rows) {
    xkltest::reports().clear();
    XKSetStatus(XK_StsOk);
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
  cb->depth = 1;
  xkltest::reports().clear();
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
    for (Kind kind : {Gauss, Clusters, Grid, Same, FewDistinct}) {
      for (int n : {63, 64, 65, 301}) {
        Data<float> f = dataSet<float>(kind, n, 5, n);
        Data<short> s = dataSet<short>(kind, n, 3, n);
        std::vector<int> members(n);
        for (int i = 0; i < n; ++i) members[i] = n - 1 - i;  // lists are not always in order
        auto pf = xk::vq::farthestPair(f.table(), members.data(), n, f.dim);
        auto rf = xk::vq::farthestPairPlain(f.table(), members.data(), n, f.dim);
        auto ps = xk::vq::farthestPair(s.table(), members.data(), n, s.dim);
        auto rs = xk::vq::farthestPairPlain(s.table(), members.data(), n, s.dim);
        EXPECT_EQ(std::tie(pf.a, pf.b, pf.diameter), std::tie(rf.a, rf.b, rf.diameter)) << kind << " " << n;
        EXPECT_EQ(std::tie(ps.a, ps.b, ps.diameter), std::tie(rs.a, rs.b, rs.diameter)) << kind << " " << n;
      }
    }
  }
  xk::vq::setSimdEnabled(true);
}

// Tree search against exhaustive search over the same codewords: the tree
// never beats the nearest codeword.
TEST(CodebookSearch, TreeAgainstExhaustive) {
  Data<float> train = dataSet<float>(Clusters, 2000, 12, 5), test = dataSet<float>(Clusters, 2000, 12, 6);
  XKCodebook *cb = make(train, nullptr, 64, XK_CDBK_EUCLID | XK_CDBK_SPLIT_WIDEST);
  ASSERT_NE(cb, nullptr);
  std::vector<int> idx(test.n());
  double tree = 0;
  XKsVQCodebook(cb, test.table(), idx.data(), test.n(), 12, &tree);
  double exhaustive = 0;
  for (int i = 0; i < test.n(); ++i) {
    double best = INFINITY;
    for (int k = 0; k < cb->size; ++k)
      best = std::min(best, norm(test.rows[i].data(), (const float *)cb->codewords[k], 12));
    exhaustive += best / test.n();
  }
  EXPECT_GE(tree, exhaustive);
  XK_FreeCodebook(cb);
}

}  // namespace
