// HMM servers and classes: ids, topology detection, the packed layouts
// (written out by hand), unpacking, reports, classes and their iteration.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <cstring>
#include <random>
#include <thread>
#include <type_traits>
#include <vector>

#include "frame/context.h"
#include "hmm/hmm_internal.h"
#include "xkl_test_support.h"

namespace {

constexpr float kBig = 3.4028235e38f;

struct HmmServerTest : xkltest::ReportingTest {
  void TearDown() override {
    XKHMMFreeAll();
    xk::hmm::setKernelLayout(true);
    xkltest::ReportingTest::TearDown();
  }
};

// A caller matrix with row pointers.
template <class T>
struct Mat {
  std::vector<std::vector<T>> rows;
  std::vector<T *> ptr;
  Mat(int r, int c, T fill) : rows(r, std::vector<T>(c, fill)) {
    for (auto &row : rows) ptr.push_back(row.data());
  }
  T **p() { return ptr.data(); }
  T &operator()(int i, int j) { return rows[i][j]; }
};

// Fills a[i][j] with distinct possible values where the topology allows a
// transition (general: all; lr: j >= i; bakis: i <= j <= i + 2) and with
// `none` elsewhere.
template <class T>
Mat<T> transitions(int N, char topo, T none, T base) {
  Mat<T> a(N, N, none);
  for (int i = 0; i < N; ++i)
    for (int j = 0; j < N; ++j) {
      const bool allowed = topo == 'g' || (topo == 'l' && j >= i) || (topo == 'b' && j >= i && j <= i + 2);
      if (allowed) a(i, j) = static_cast<T>(base + 10 * i + j);
    }
  return a;
}

int makeS(int N, int M, char topo, int flags, std::vector<float> *pi = nullptr) {
  const bool log = flags != XK_HMM_EXPONENTIAL;
  auto a = transitions<float>(N, topo, log ? 30.0f : 0.0f, 1.0f);
  Mat<float> b(N, M, 0);
  std::vector<float> p(N);
  for (int i = 0; i < N; ++i) {
    p[i] = 0.5f + i;
    for (int k = 0; k < M; ++k) b(i, k) = 100.0f + 10 * i + k;
  }
  if (pi) *pi = p;
  return XKsInitHMMServer(a.p(), b.p(), p.data(), N, M, flags);
}

TEST_F(HmmServerTest, IdsAreReusedLowestFirstAndStayPerThread) {
  for (int expect = 1; expect <= 4; ++expect) EXPECT_EQ(makeS(2, 2, 'g', 0), expect);
  XKFreeHMMServer(2);
  EXPECT_EQ(makeS(2, 2, 'g', 0), 2);
  EXPECT_EQ(makeS(2, 2, 'g', 0), 5);
  XKFreeHMMServer(4);
  XKFreeHMMServer(1);
  EXPECT_EQ(makeS(2, 2, 'g', 0), 1);
  EXPECT_EQ(makeS(2, 2, 'g', 0), 4);
  EXPECT_EQ(makeS(2, 2, 'g', 0), 6);
  XKFreeHMMServer(99);  // unknown: ignored

  int otherFirst = 0, otherSeesMine = 0;
  std::thread t([&] {
    otherSeesMine = XKGetHMMParm(3, nullptr, nullptr, nullptr, nullptr, nullptr);
    otherFirst = makeS(3, 2, 'l', 0);
    XKHMMFreeAll();
  });
  t.join();
  EXPECT_EQ(otherSeesMine, -1);
  EXPECT_EQ(otherFirst, 1);
  EXPECT_EQ(XKGetHMMParm(1, nullptr, nullptr, nullptr, nullptr, nullptr), 0);

  EXPECT_EQ(XKHMMFreeAll(), 0);
  EXPECT_EQ(XKGetHMMParm(1, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(makeS(2, 2, 'g', 0), 1);
}

// Whether the packed storage of a topology holds a[i][j].
bool held(unsigned topo, int i, int j) {
  if (topo == HMM_SERVER_BAKIS) return j >= i && j <= i + 2;
  if (topo == HMM_SERVER_LEFT_RIGHT) return j >= i;
  return true;
}

// Creates a discrete server of type T (float or short) from a transition
// matrix with distinct values where `topo` allows an arc and `none`
// elsewhere, checks the detected topology and the status word, and reads
// every matrix back with XKGetHMMProb: arcs outside the stored topology come
// back as the representation's impossible value.
template <class T>
void roundTrip(int N, char topo, int flags, T none, unsigned expectTopo) {
  constexpr bool fl = std::is_same_v<T, float>;
  SCOPED_TRACE(testing::Message() << "N=" << N << " topo=" << topo << " flags=" << flags << " float=" << fl);
  const int M = 3;
  auto a = transitions<T>(N, topo, none, 1);
  Mat<T> b(N, M, 0), a2(N, N, 7), b2(N, M, 7);
  std::vector<T> pi(N), pi2(N, 7);
  for (int i = 0; i < N; ++i) {
    pi[i] = T(2 * i);
    for (int k = 0; k < M; ++k) b(i, k) = T(50 + 10 * i + k);
  }
  int id;
  if constexpr (fl)
    id = XKsInitHMMServer(a.p(), b.p(), pi.data(), N, M, flags);
  else
    id = XKwInitHMMServer(a.p(), b.p(), pi.data(), N, M, flags);
  ASSERT_GT(id, 0);
  ASSERT_EQ(XKGetHMMProb(id, pi2.data(), reinterpret_cast<void **>(a2.p()), reinterpret_cast<void **>(b2.p())), 0);
  const bool log = fl ? flags != XK_HMM_EXPONENTIAL : (flags & XK_HMM_LOGARITHMIC) != 0;
  const T impossible = log ? (fl ? T(kBig) : T(32767)) : T(0);
  for (int i = 0; i < N; ++i)
    for (int j = 0; j < N; ++j) EXPECT_EQ(a2(i, j), held(expectTopo, i, j) ? a(i, j) : impossible) << i << "," << j;
  EXPECT_EQ(b2.rows, b.rows);
  EXPECT_EQ(pi2, pi);
  int status = 0, nS = 0, nM = 0;
  ASSERT_EQ(XKGetHMMParm(id, &nS, &nM, nullptr, nullptr, &status), 0);
  EXPECT_EQ(nS * 100 + nM, N * 100 + M);
  const unsigned rep = fl ? (log ? 1u : 2u) : (log ? 1u : 0u);
  const unsigned layout = fl && log ? HMM_SERVER_KERNEL_LAYOUT : 0u;
  EXPECT_EQ(static_cast<unsigned>(status),
            rep | (fl ? HMM_SERVER_FLOAT : HMM_SERVER_SHORT) | HMM_SERVER_DISCRETE | expectTopo | layout);
}

TEST_F(HmmServerTest, TopologyAndRoundTrip) {
  constexpr unsigned G = 0, L = HMM_SERVER_LEFT_RIGHT, K = HMM_SERVER_BAKIS;
  struct Case {
    int N;
    char topo;
    unsigned expect;
  } cases[] = {{1, 'g', G}, {2, 'l', L}, {2, 'g', G}, {3, 'b', K}, {3, 'l', K},  // three states cannot skip 3
               {5, 'b', K}, {6, 'l', L}, {7, 'g', G}};
  for (const auto &c : cases) {
    roundTrip<float>(c.N, c.topo, 0, 31.0f, c.expect);
    roundTrip<float>(c.N, c.topo, XK_HMM_EXPONENTIAL, -1.0f, c.expect);
    roundTrip<short>(c.N, c.topo, XK_HMM_LOGARITHMIC, 32767, c.expect);
    roundTrip<short>(c.N, c.topo, 0, -3, c.expect);
  }
  // A cost of exactly 30.0 below the diagonal is impossible; 29.9 is not.
  roundTrip<float>(4, 'l', XK_HMM_LOGARITHMIC, 30.0f, L);
  roundTrip<float>(4, 'l', XK_HMM_LOGARITHMIC, 29.9f, G);
}

// The packed storage, written out by hand for small models.
TEST_F(HmmServerTest, PackedLayouts) {
  auto view = [](int id) {
    xk::hmm::ServerView v;
    EXPECT_TRUE(xk::hmm::getServer(id, &v));
    return v;
  };
  auto floats = [](const void *p, int n) {
    const float *f = static_cast<const float *>(p);
    return std::vector<float>(f, f + n);
  };
  const float B = kBig;
  // Log: a(i,j) = 1 + 10i + j where allowed; columns from the last.
  std::vector<float> pi;
  int id = makeS(3, 2, 'g', 0, &pi);
  EXPECT_EQ(floats(view(id).transitions, 9), (std::vector<float>{3, 13, 23, 2, 12, 22, 1, 11, 21}));
  EXPECT_EQ(floats(view(id).initial, 4), (std::vector<float>{0.5f, 1.5f, 2.5f, B}));
  auto **rows = static_cast<float **>(view(id).outputs);
  EXPECT_EQ(floats(rows[1], 4), (std::vector<float>{101, 111, 121, B}));
  id = makeS(4, 2, 'l', 0);
  EXPECT_EQ(floats(view(id).transitions, 10), (std::vector<float>{4, 14, 24, 34, 3, 13, 23, 2, 12, 1}));
  id = makeS(4, 2, 'b', 0);
  EXPECT_EQ(floats(view(id).transitions, 11), (std::vector<float>{1, 12, 23, 34, 2, 13, 24, 3, 14, 34, B}));
  // Exponential: rows; left-right rows from the diagonal; Bakis triples.
  id = makeS(3, 2, 'g', XK_HMM_EXPONENTIAL);
  EXPECT_EQ(floats(view(id).transitions, 9), (std::vector<float>{1, 2, 3, 11, 12, 13, 21, 22, 23}));
  id = makeS(4, 2, 'l', XK_HMM_EXPONENTIAL);
  EXPECT_EQ(floats(view(id).transitions, 10), (std::vector<float>{1, 2, 3, 4, 12, 13, 14, 23, 24, 34}));
  id = makeS(4, 2, 'b', XK_HMM_EXPONENTIAL);
  EXPECT_EQ(floats(view(id).transitions, 10), (std::vector<float>{1, 2, 3, 12, 13, 14, 23, 24, 34, 34}));

  // Fixed point, 32-bit slots: impossible costs widen, odd N pads.
  constexpr std::int32_t I = 0x1FFFFF, P = 0x1FFFFFFF;
  auto ints = [](const void *p, int n) {
    const auto *v = static_cast<const std::int32_t *>(p);
    return std::vector<std::int32_t>(v, v + n);
  };
  auto makeW = [](int N, char topo, int flags) {
    auto a = transitions<short>(N, topo, flags ? short(32767) : short(0), 100);
    if (flags && N == 3) a(0, 1) = 32766;
    Mat<short> b(N, 2, 0);
    std::vector<short> p(N);
    for (int i = 0; i < N; ++i) {
      p[i] = short(i + 1);
      b(i, 0) = short(i == 1 && flags ? 32767 : 50 + i);
      b(i, 1) = short(60 + i);
    }
    return XKwInitHMMServer(a.p(), b.p(), p.data(), N, 2, flags);
  };
  id = makeW(3, 'b', 1);
  EXPECT_EQ(ints(view(id).transitions, 12), (std::vector<std::int32_t>{100, 111, 122, P, I, I, 112, P, I, I, 102, P}));
  EXPECT_EQ(ints(view(id).initial, 4), (std::vector<std::int32_t>{1, 2, 3, I}));
  auto **wrows = static_cast<std::int32_t **>(view(id).outputs);
  EXPECT_EQ(ints(wrows[0], 4), (std::vector<std::int32_t>{50, I, 52, I}));
  id = makeW(3, 'g', 1);
  EXPECT_EQ(ints(view(id).transitions, 12),
            (std::vector<std::int32_t>{102, 112, 122, I, I, 111, 121, I, 100, 110, 120, I}));
  id = makeW(3, 'g', 0);
  EXPECT_EQ(ints(view(id).transitions, 12),
            (std::vector<std::int32_t>{100, 101, 102, 0, 110, 111, 112, 0, 120, 121, 122, 0}));
  id = makeW(4, 'l', 1);
  EXPECT_EQ(ints(view(id).transitions, 12),
            (std::vector<std::int32_t>{103, 113, 123, 133, 102, 112, 122, 101, 111, 100, I, I}));

  // The fast-kernel switch only decides the layout flag.
  xk::hmm::setKernelLayout(false);
  int status = 0;
  XKGetHMMParm(makeS(4, 2, 'b', 0), nullptr, nullptr, nullptr, nullptr, &status);
  EXPECT_EQ(status & HMM_SERVER_KERNEL_LAYOUT, 0);
}

// Every report of the creators and the parameter setter.
TEST_F(HmmServerTest, Reports) {
  const char *both = "(flags&(XK_HMM_EXPONENTIAL+ XK_HMM_LOGARITHMIC))==(XK_HMM_EXPONENTIAL+XK_HMM_LOGARITHMIC)";
  Mat<float> a(2, 2, 1.0f), b(2, 2, 1.0f);
  Mat<short> wa(2, 2, 1), wb(2, 2, 1);
  std::vector<float> pi(2, 0.0f);
  std::vector<short> wpi(2, 0);
  GaussMixServer *mixS = nullptr;
  mixture_description *mixes[2] = {mixS, mixS};
  struct Case {
    std::function<int()> call;
    int result, status;
    const char *func, *msg, *module;
    int line;
  } cases[] = {
      {[&] { return XKsInitHMMServer(a.p(), b.p(), pi.data(), 2, 2, 3); }, -1, -5, "XKwInitHMMServer", both,
       "XK_HMAN", 631},
      {[&] { return XKwInitHMMServer(wa.p(), wb.p(), wpi.data(), 2, 2, 2); }, -1, -5, "XKwInitHMMServer",
       "flags&XK_HMM_EXPONENTIAL", "XK_HMAN", 544},
      {[&] { return XKsInitContHMMServer(a.p(), pi.data(), mixes, 2, 3, 3); }, -1, -5, "XKsInitContHMMServer", both,
       "XK_HMAN", 802},
      {[&] { return XKwInitContHMMServer(wa.p(), wpi.data(), mixes, 2, 3, 2, 0); }, -1, -5, "XKwInitContHMMServer",
       "flags&XK_HMM_EXPONENTIAL", "XK_HMAN", 698},
      {[&] {
         XKSetHMMServerParm(makeS(2, 2, 'g', 0), 0, reinterpret_cast<void **>(a.p()), nullptr, nullptr, 2, -1, -1);
         return 0;
       },
       0, -5, "XKSetHMMServerParm", "change HMM nStates without data", "XK_HINT", 542},
      {[&] {
         XKSetHMMServerParm(makeS(2, 2, 'g', 0), 0, nullptr, nullptr, nullptr, -1, 3, -1);
         return 0;
       },
       0, -5, "XKSetHMMServerParm", "change HMM nSymbols without data", "XK_HINT", 550},
      {[&] {
         XKSetHMMServerParm(makeS(2, 2, 'g', 0), 0, nullptr, nullptr, nullptr, -1, -1, XK_HMM_LOGARITHMIC);
         return 0;
       },
       0, -2, "XKSetHMMServerParm", "wrong HMM flavor", "XK_HINT", 560},
  };
  for (const auto &c : cases) {
    xkltest::reports().clear();
    XKSetStatus(XK_StsOk);
    EXPECT_EQ(c.call(), c.result) << c.msg;
    ASSERT_EQ(xkltest::reports().size(), 1u) << c.msg;
    const auto &r = xkltest::reports()[0];
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.func, c.func);
    EXPECT_EQ(r.context, c.msg);
    EXPECT_EQ(r.file, c.module);
    EXPECT_EQ(r.line, c.line);
  }
  // A creator whose setter fails leaves nothing behind; silent failures.
  XKSetStatus(XK_StsOk);
  EXPECT_EQ(XKsInitHMMServer(a.p(), b.p(), pi.data(), 0, 2, 0), -1);
  EXPECT_EQ(XKsInitHMMServer(a.p(), nullptr, pi.data(), 2, 2, 0), -1);
  EXPECT_EQ(XKsInitContHMMServer(a.p(), pi.data(), mixes, 2, 3, 0), -1);  // no mixture descriptions
  EXPECT_EQ(XKGetHMMProb(77, nullptr, nullptr, nullptr), -1);
}

TEST_F(HmmServerTest, ContinuousServersOwnTheirMixtures) {
  const float w[2] = {0.25f, 0.75f}, m0[3] = {0, 1, 2}, m1[3] = {1, 1, 1}, v[3] = {1, 2, 3};
  float *means[2] = {const_cast<float *>(m0), const_cast<float *>(m1)};
  float *inv[2] = {const_cast<float *>(v), const_cast<float *>(v)};
  GaussMixServer *g = XKsInitGaussMixServer(w, means, nullptr, inv, 3, 2, GAUSS_SERVER_NORM);
  ASSERT_NE(g, nullptr);
  mixture_description *mix[2] = {g, g};
  Mat<float> a(2, 2, 0.3f);
  std::vector<float> pi(2, 0.3f);
  const int id = XKsInitContHMMServer(a.p(), pi.data(), mix, 2, 3, 0);
  ASSERT_GT(id, 0);
  EXPECT_EQ(XKsInitContHMMServer(a.p(), pi.data(), mix, 2, 4, 0), -1);  // wrong dimension
  XKsFreeGaussMixServer(g);  // the server keeps its own copies
  int nS, nM, nQ, param, status;
  ASSERT_EQ(XKGetHMMParm(id, &nS, &nM, &nQ, &param, &status), 0);
  EXPECT_EQ(nS, 2);
  EXPECT_EQ(nM, 0);
  EXPECT_EQ(nQ, 3);
  EXPECT_EQ(param, 0);
  EXPECT_EQ(static_cast<unsigned>(status),
            XK_HMM_LOGARITHMIC | HMM_SERVER_FLOAT | HMM_SERVER_CONT | HMM_SERVER_OWNS_MIXTURES |
                HMM_SERVER_KERNEL_LAYOUT);
  xk::hmm::ServerView view;
  ASSERT_TRUE(xk::hmm::getServer(id, &view));
  auto **mixtures = static_cast<GaussMixServer **>(view.outputs);
  EXPECT_NEAR(XKsEvalGaussMix(mixtures[1], m1, 3), 0.75 * std::sqrt(6.0) + 0.25 * std::sqrt(6.0) * std::exp(-2.0),
              1e-5);

  short ws[2] = {16384, 16384}, wm[3] = {0, 1, 2}, wv[3] = {1, 1, 1};
  short *wmeans[2] = {wm, wm}, *winv[2] = {wv, wv};
  GaussMixServer *gw = XKwInitGaussMixServer(ws, wmeans, nullptr, winv, 3, 2, 0, -2);
  mixture_description *wmix[2] = {gw, gw};
  Mat<short> wa(2, 2, 5);
  std::vector<short> wpi(2, 1);
  const int wid = XKwInitContHMMServer(wa.p(), wpi.data(), wmix, 2, 3, 1, 12);
  XKwFreeGaussMixServer(gw);
  ASSERT_EQ(XKGetHMMParm(wid, nullptr, nullptr, &nQ, &param, &status), 0);
  EXPECT_EQ(param, 12);
  EXPECT_EQ(static_cast<unsigned>(status),
            XK_HMM_LOGARITHMIC | HMM_SERVER_SHORT | HMM_SERVER_CONT | HMM_SERVER_OWNS_MIXTURES);
  XKFreeHMMServer(id);
  EXPECT_EQ(XKGetHMMParm(id, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
}

TEST_F(HmmServerTest, Classes) {
  EXPECT_EQ(XKCreateHMMClass(), 1);
  EXPECT_EQ(XKCreateHMMClass(), 2);
  EXPECT_EQ(XKCreateHMMClass(), 3);
  EXPECT_EQ(XKDeleteHMMClass(2), 1);
  EXPECT_EQ(XKDeleteHMMClass(2), -1);
  EXPECT_EQ(XKCreateHMMClass(), 2);

  // 65 members added in a scrambled order; iteration ascending.
  std::vector<int> ids;
  for (int k = 0; k < 65; ++k) ids.push_back(makeS(2, 2, 'g', 0));
  std::vector<int> order = ids;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (int id : order) EXPECT_EQ(XKAddHMMToClass(1, id), 1);
  EXPECT_EQ(XKAddHMMToClass(1, ids[10]), 1);  // twice: one entry
  auto walk = [](int cls, const std::function<void(int)> &visit = nullptr) {
    xk::hmm::HmmClass *c = xk::hmm::findClass(cls);
    std::vector<int> seen;
    xk::hmm::classRewind(c);
    for (int id; (id = xk::hmm::classNext(c)) != 0;) {
      seen.push_back(id);
      if (visit) visit(id);
    }
    return seen;
  };
  EXPECT_EQ(walk(1), ids);

  // Removing the member just returned and the one after it, during the walk,
  // neither skips nor repeats the others.
  std::vector<int> expect;
  for (size_t k = 0; k < ids.size(); k += 3) expect.push_back(ids[k]);
  const auto seen = walk(1, [&](int id) {
    XKRemoveHMMFromClass(1, id + 1);
    XKFreeHMMServer(id + 2);
  });
  EXPECT_EQ(seen, expect);
  EXPECT_EQ(walk(1), expect);
  EXPECT_EQ(XKRemoveHMMFromClass(1, ids[0]), 1);
  EXPECT_EQ(XKRemoveHMMFromClass(1, ids[0]), 1);  // not a member any more
  EXPECT_EQ(XKRemoveHMMFromClass(9, ids[3]), -1);
  EXPECT_EQ(XKRemoveHMMFromClass(1, 999), -1);
  EXPECT_EQ(XKAddHMMToClass(9, ids[3]), -1);
  EXPECT_EQ(XKAddHMMToClass(1, 999), -1);

  // Kinds: a class takes its first member's kind.
  Mat<short> wa(2, 2, 1), wb(2, 2, 1);
  std::vector<short> wpi(2, 0);
  const int wid = XKwInitHMMServer(wa.p(), wb.p(), wpi.data(), 2, 2, 1);
  const int eid = makeS(2, 2, 'g', XK_HMM_EXPONENTIAL);
  xkltest::reports().clear();
  for (int other : {wid, eid}) EXPECT_EQ(XKAddHMMToClass(1, other), -1);
  ASSERT_EQ(xkltest::reports().size(), 2u);
  EXPECT_EQ(xkltest::reports()[0].context, "wrong class for HMM server");
  EXPECT_EQ(xkltest::reports()[0].line, 1253);
  XKSetStatus(XK_StsOk);
  EXPECT_EQ(XKAddHMMToClass(3, wid), 1);
  EXPECT_EQ(XKAddHMMToClass(3, makeS(2, 2, 'g', 0)), -1);
  XKSetStatus(XK_StsOk);
  XKRemoveHMMFromClass(3, wid);
  EXPECT_EQ(XKAddHMMToClass(3, eid), 1);  // an emptied class takes a new kind
}

TEST_F(HmmServerTest, ModeBits) {
  auto flags = [] { return xk::context().hmm.flags; };
  XKSetHMMMode(0);
  EXPECT_EQ(flags(), 0x5000000u);
  XKSetHMMMode(XK_HMM_MODE_KEEP_ORIGINAL);
  EXPECT_EQ(flags(), 0x9000000u);
  XKSetHMMMode(0x1234);
  EXPECT_EQ(flags(), 0x9000000u);
  XKSetHMMMode(XK_HMM_MODE_FREE_ORIGINAL | XK_HMM_MODE_KEEP_ORIGINAL);
  EXPECT_EQ(flags(), 0x5000000u);
}

}  // namespace
