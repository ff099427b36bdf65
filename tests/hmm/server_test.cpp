// HMM servers and classes: ids, topology detection, the packed layouts
// (written out by hand), unpacking, reports, classes and their iteration.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "frame/context.h"
#include "hmm_refs.h"

namespace {

using namespace hmmtest;
enum { G, L, K };  // general, left-right, Bakis
const unsigned kBits[] = {0, HMM_SERVER_LEFT_RIGHT, HMM_SERVER_BAKIS};

// A discrete model: a[i][j] = base + 10 i + j where `topo` allows the arc
// (`none` elsewhere), b[i][k] = 100 + 10 i + k, pi[i] = T(0.5 + i).
template <class T>
struct Model {
  Rows<T> a, b;
  std::vector<T> pi;
  Model(int N, int M, int topo, T none, T base) : a(N, N, none), b(N, M, 0), pi(N) {
    for (int i = 0; i < N; ++i) {
      pi[i] = T(0.5 + i);
      for (int j = 0; j < N; ++j)
        if (allowed(topo, i, j)) a(i, j) = T(base + 10 * i + j);
      for (int k = 0; k < M; ++k) b(i, k) = T(100 + 10 * i + k);
    }
  }
  int make(int flags) { return init(a.p(), b.p(), pi.data(), int(pi.size()), int(b.data[0].size()), flags); }
};

// A float server, impossible transitions 30 (logarithmic) or 0.
int makeS(int N, int M, int topo, int flags) {
  return Model<float>(N, M, topo, flags != XK_HMM_EXPONENTIAL ? 30.0f : 0.0f, 1.0f).make(flags);
}

TEST_F(Freed, IdsAreReusedLowestFirstAndStayPerThread) {
  const auto make = [] { return makeS(2, 2, G, 0); };
  for (int expect = 1; expect <= 4; ++expect) EXPECT_EQ(make(), expect);
  XKFreeHMMServer(2);
  for (int expect : {2, 5}) EXPECT_EQ(make(), expect);
  XKFreeHMMServer(4);
  XKFreeHMMServer(1);
  XKFreeHMMServer(99);  // unknown: ignored
  for (int expect : {1, 4, 6}) EXPECT_EQ(make(), expect);
  unsigned otherFirst = 0, otherSeesMine = 1;
  std::thread([&] {
    otherSeesMine = statusOf(3);
    otherFirst = makeS(3, 2, L, 0);
    XKHMMFreeAll();
  }).join();
  EXPECT_EQ(otherSeesMine, 0u);
  EXPECT_EQ(otherFirst, 1u);
  EXPECT_NE(statusOf(1), 0u);
  EXPECT_EQ(XKHMMFreeAll(), 0);
  EXPECT_EQ(statusOf(1), 0u);  // gone
  EXPECT_EQ(make(), 1);
}

// Creates a discrete server, checks the detected topology and the status
// word, and reads every matrix back: arcs outside the stored topology come
// back as the representation's impossible value.
template <class T>
void roundTrip(int N, int topo, int flags, T none, int want) {
  constexpr bool fl = std::is_same_v<T, float>;
  SCOPED_TRACE(testing::Message() << "N=" << N << " topo=" << topo << " flags=" << flags << " float=" << fl);
  const int M = 3;
  Model<T> md(N, M, topo, none, 1);
  Rows<T> a2(N, N, 7), b2(N, M, 7);
  std::vector<T> pi2(N, 7);
  const int id = md.make(flags);
  ASSERT_GT(id, 0);
  ASSERT_EQ(XKGetHMMProb(id, pi2.data(), reinterpret_cast<void **>(a2.p()), reinterpret_cast<void **>(b2.p())), 0);
  const bool log = fl ? flags != XK_HMM_EXPONENTIAL : (flags & XK_HMM_LOGARITHMIC) != 0;
  const T impossible = log ? (fl ? T(kBig) : T(32767)) : T(0);
  for (int i = 0; i < N; ++i)
    for (int j = 0; j < N; ++j) EXPECT_EQ(a2(i, j), allowed(want, i, j) ? md.a(i, j) : impossible) << i << "," << j;
  EXPECT_EQ(b2.data, md.b.data);
  EXPECT_EQ(pi2, md.pi);
  const unsigned rep = (log ? 1u : fl ? 2u : 0u) | (fl ? HMM_SERVER_FLOAT : HMM_SERVER_SHORT);
  const unsigned layout = fl && log ? HMM_SERVER_KERNEL_LAYOUT : 0u;
  EXPECT_EQ(statusOf(id), rep | HMM_SERVER_DISCRETE | kBits[want] | layout);
}

TEST_F(Freed, TopologyAndRoundTrip) {
  const struct { int N, topo, expect; } cases[] = {
      {1, G, G}, {2, L, L}, {2, G, G}, {3, K, K}, {3, L, K},  // three states cannot skip 3
      {5, K, K}, {6, L, L}, {7, G, G}};
  for (const auto &c : cases) {
    roundTrip<float>(c.N, c.topo, 0, 31.0f, c.expect);
    roundTrip<float>(c.N, c.topo, XK_HMM_EXPONENTIAL, -1.0f, c.expect);
    roundTrip<short>(c.N, c.topo, XK_HMM_LOGARITHMIC, 32767, c.expect);
    roundTrip<short>(c.N, c.topo, 0, -3, c.expect);
  }
  // A cost of exactly 30.0 below the diagonal is impossible; 29.9 is not.
  roundTrip<float>(4, L, XK_HMM_LOGARITHMIC, 30.0f, L);
  roundTrip<float>(4, L, XK_HMM_LOGARITHMIC, 29.9f, G);
}

// n values of type T at p, widened to double for one table of layouts.
template <class T>
std::vector<double> values(const void *p, std::size_t n) {
  const T *v = static_cast<const T *>(p);
  return std::vector<double>(v, v + n);
}

// The packed storage, written out by hand for small models.
TEST_F(Freed, PackedLayouts) {
  // 16-bit: transitions from 100; logarithmic ones with b[1][0] = 32767
  // and, for N = 3, a(0,1) = 32766.
  auto makeW = [](int N, int topo, int flags) {
    Model<short> md(N, 2, topo, flags ? short(32767) : short(0), 100);
    if (flags) md.b(1, 0) = 32767;
    if (flags && N == 3) md.a(0, 1) = 32766;
    return md.make(flags);
  };
  const double B = kBig, I = 0x1FFFFF, P = 0x1FFFFFFF;
  const struct { bool fixed; int N, topo, flags; std::vector<double> packed; } cases[] = {
      // Float log: columns from the last (a(i,j) = 1 + 10i + j).
      {false, 3, G, 0, {3, 13, 23, 2, 12, 22, 1, 11, 21}},
      {false, 4, L, 0, {4, 14, 24, 34, 3, 13, 23, 2, 12, 1}},
      {false, 4, K, 0, {1, 12, 23, 34, 2, 13, 24, 3, 14, 34, B}},
      // Exponential: rows; left-right rows from the diagonal; Bakis triples.
      {false, 3, G, XK_HMM_EXPONENTIAL, {1, 2, 3, 11, 12, 13, 21, 22, 23}},
      {false, 4, L, XK_HMM_EXPONENTIAL, {1, 2, 3, 4, 12, 13, 14, 23, 24, 34}},
      {false, 4, K, XK_HMM_EXPONENTIAL, {1, 2, 3, 12, 13, 14, 23, 24, 34, 34}},
      // Fixed point, 32-bit slots: impossible costs widen, odd N pads.
      {true, 3, K, 1, {100, 111, 122, P, I, I, 112, P, I, I, 102, P}},
      {true, 3, G, 1, {102, 112, 122, I, I, 111, 121, I, 100, 110, 120, I}},
      {true, 3, G, 0, {100, 101, 102, 0, 110, 111, 112, 0, 120, 121, 122, 0}},
      {true, 4, L, 1, {103, 113, 123, 133, 102, 112, 122, 101, 111, 100, I, I}},
  };
  for (const auto &c : cases) {
    const auto v = viewOf(c.fixed ? makeW(c.N, c.topo, c.flags) : makeS(c.N, 2, c.topo, c.flags));
    const std::size_t n = c.packed.size();
    EXPECT_EQ(c.fixed ? values<std::int32_t>(v.transitions, n) : values<float>(v.transitions, n), c.packed)
        << "fixed " << c.fixed << " N " << c.N << " topology " << c.topo << " flags " << c.flags;
  }
  // Initial costs and an output row, padded with the impossible value.
  auto v = viewOf(makeS(3, 2, G, 0));
  EXPECT_EQ(values<float>(v.initial, 4), (std::vector<double>{0.5, 1.5, 2.5, B}));
  EXPECT_EQ(values<float>(static_cast<float **>(v.outputs)[1], 4), (std::vector<double>{101, 111, 121, B}));
  v = viewOf(makeW(3, K, 1));
  EXPECT_EQ(values<std::int32_t>(v.initial, 4), (std::vector<double>{0, 1, 2, I}));
  EXPECT_EQ(values<std::int32_t>(static_cast<std::int32_t **>(v.outputs)[0], 4),
            (std::vector<double>{100, I, 120, I}));

  // The fast-kernel switch only decides the layout flag.
  xk::hmm::setKernelLayout(false);
  EXPECT_EQ(statusOf(makeS(4, 2, K, 0)) & HMM_SERVER_KERNEL_LAYOUT, 0u);
}

// Every report of the creators and the parameter setter, as
// "func|message|module|line|status".
TEST_F(Freed, Reports) {
  const std::string both = "(flags&(XK_HMM_EXPONENTIAL+ XK_HMM_LOGARITHMIC))==(XK_HMM_EXPONENTIAL+XK_HMM_LOGARITHMIC)";
  Model<float> f(2, 2, G, 0, 1);
  Model<short> w(2, 2, G, 0, 1);
  mixture_description *mixes[2] = {nullptr, nullptr};
  const auto setParm = [](void **a, int nS, int nM, int flags) {
    XKSetHMMServerParm(makeS(2, 2, G, 0), 0, a, nullptr, nullptr, nS, nM, flags);
    return 0;
  };
  const struct { std::function<int()> call; int result; std::string report; } cases[] = {
      {[&] { return XKsInitHMMServer(f.a.p(), f.b.p(), f.pi.data(), 2, 2, 3); }, -1,
       "XKwInitHMMServer|" + both + "|XK_HMAN|631|-5"},
      {[&] { return XKwInitHMMServer(w.a.p(), w.b.p(), w.pi.data(), 2, 2, 2); }, -1,
       "XKwInitHMMServer|flags&XK_HMM_EXPONENTIAL|XK_HMAN|544|-5"},
      {[&] { return XKsInitContHMMServer(f.a.p(), f.pi.data(), mixes, 2, 3, 3); }, -1,
       "XKsInitContHMMServer|" + both + "|XK_HMAN|802|-5"},
      {[&] { return XKwInitContHMMServer(w.a.p(), w.pi.data(), mixes, 2, 3, 2, 0); }, -1,
       "XKwInitContHMMServer|flags&XK_HMM_EXPONENTIAL|XK_HMAN|698|-5"},
      {[&] { return setParm(reinterpret_cast<void **>(f.a.p()), 2, -1, -1); }, 0,
       "XKSetHMMServerParm|change HMM nStates without data|XK_HINT|542|-5"},
      {[&] { return setParm(nullptr, -1, 3, -1); }, 0,
       "XKSetHMMServerParm|change HMM nSymbols without data|XK_HINT|550|-5"},
      {[&] { return setParm(nullptr, -1, -1, XK_HMM_LOGARITHMIC); }, 0,
       "XKSetHMMServerParm|wrong HMM flavor|XK_HINT|560|-2"},
  };
  for (const auto &c : cases) {
    xkltest::reports().clear();
    XKSetStatus(XK_StsOk);
    EXPECT_EQ(c.call(), c.result) << c.report;
    ASSERT_EQ(xkltest::reports().size(), 1u) << c.report;
    const auto &r = xkltest::reports()[0];
    EXPECT_EQ(r.func + "|" + r.context + "|" + r.file + "|" + std::to_string(r.line) + "|" + std::to_string(r.status),
              c.report);
  }
  // A creator whose setter fails leaves nothing behind; silent failures.
  XKSetStatus(XK_StsOk);
  EXPECT_EQ(XKsInitHMMServer(f.a.p(), f.b.p(), f.pi.data(), 0, 2, 0), -1);
  EXPECT_EQ(XKsInitHMMServer(f.a.p(), nullptr, f.pi.data(), 2, 2, 0), -1);
  EXPECT_EQ(XKsInitContHMMServer(f.a.p(), f.pi.data(), mixes, 2, 3, 0), -1);  // no mixture descriptions
  EXPECT_EQ(XKGetHMMProb(77, nullptr, nullptr, nullptr), -1);
}

// Continuous servers: a mixture of another dimension fails; the status
// words (the Viterbi test scores after the caller freed the mixtures).
TEST_F(Freed, ContinuousServerStatus) {
  std::mt19937 rng(1);
  const Mixture mx(2, 3, rng);
  GaussMixServer *gs = mx.make(false), *gw = mx.make(true);
  mixture_description *ms[2] = {gs, gs}, *mw[2] = {gw, gw};
  Model<float> fm(2, 1, G, 0, 1);
  Model<short> wm(2, 1, G, 0, 1);
  EXPECT_EQ(XKsInitContHMMServer(fm.a.p(), fm.pi.data(), ms, 2, 4, 0), -1);  // wrong dimension
  const int id = XKsInitContHMMServer(fm.a.p(), fm.pi.data(), ms, 2, 3, 0);
  const int wid = XKwInitContHMMServer(wm.a.p(), wm.pi.data(), mw, 2, 3, 1, 12);
  XKsFreeGaussMixServer(gs);
  XKwFreeGaussMixServer(gw);
  const unsigned cont = XK_HMM_LOGARITHMIC | HMM_SERVER_CONT | HMM_SERVER_OWNS_MIXTURES;
  EXPECT_EQ(statusOf(id), cont | HMM_SERVER_FLOAT | HMM_SERVER_KERNEL_LAYOUT);
  EXPECT_EQ(statusOf(wid), cont | HMM_SERVER_SHORT);
}

TEST_F(Freed, Classes) {
  for (int expect : {1, 2, 3}) EXPECT_EQ(XKCreateHMMClass(), expect);
  for (int want : {1, -1}) EXPECT_EQ(XKDeleteHMMClass(2), want);  // the second time: gone
  EXPECT_EQ(XKCreateHMMClass(), 2);

  // 65 members added in a scrambled order; iteration ascending.
  std::vector<int> ids;
  for (int k = 0; k < 65; ++k) ids.push_back(makeS(2, 2, G, 0));
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
  for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(XKRemoveHMMFromClass(1, ids[0]), 1);  // a non-member too
  EXPECT_EQ(XKRemoveHMMFromClass(9, ids[3]), -1);
  EXPECT_EQ(XKRemoveHMMFromClass(1, 999), -1);
  EXPECT_EQ(XKAddHMMToClass(9, ids[3]), -1);
  EXPECT_EQ(XKAddHMMToClass(1, 999), -1);

  // Kinds: a class takes its first member's kind.
  const int wid = Model<short>(2, 2, G, 1, 1).make(1);
  const int eid = makeS(2, 2, G, XK_HMM_EXPONENTIAL);
  xkltest::reports().clear();
  for (int other : {wid, eid}) EXPECT_EQ(XKAddHMMToClass(1, other), -1);
  ASSERT_EQ(xkltest::reports().size(), 2u);
  EXPECT_EQ(xkltest::reports()[0].context, "wrong class for HMM server");
  EXPECT_EQ(xkltest::reports()[0].line, 1253);
  XKSetStatus(XK_StsOk);
  EXPECT_EQ(XKAddHMMToClass(3, wid), 1);
  EXPECT_EQ(XKAddHMMToClass(3, makeS(2, 2, G, 0)), -1);
  XKSetStatus(XK_StsOk);
  XKRemoveHMMFromClass(3, wid);
  EXPECT_EQ(XKAddHMMToClass(3, eid), 1);  // an emptied class takes a new kind
}

TEST_F(Freed, ModeBits) {
  const struct { int mode; unsigned flags; } cases[] = {
      {0, 0x5000000u}, {XK_HMM_MODE_KEEP_ORIGINAL, 0x9000000u}, {0x1234, 0x9000000u},
      {XK_HMM_MODE_FREE_ORIGINAL | XK_HMM_MODE_KEEP_ORIGINAL, 0x5000000u}};
  for (const auto &c : cases) {
    XKSetHMMMode(c.mode);
    EXPECT_EQ(xk::context().hmm.flags, c.flags) << c.mode;
  }
}

}  // namespace
