// HMM servers: the thread's tables, id allocation, the creators, the
// parameter setter with its packed layouts, the accessors and release.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "frame/context.h"
#include "frame/report.h"
#include "hmm/classes.h"
#include "hmm/codebook_record.h"
#include "hmm/hmm_internal.h"
#include "xkl/kfx.h"

namespace xk::hmm {
namespace {

constexpr unsigned kTablesReady = 1u << 24;
constexpr unsigned kModeFree = 1u << 26, kModeKeep = 1u << 27;
constexpr unsigned kTypeBits = HMM_SERVER_SHORT | HMM_SERVER_FLOAT;
constexpr const char *kBothReps =
    "(flags&(XK_HMM_EXPONENTIAL+ XK_HMM_LOGARITHMIC))==(XK_HMM_EXPONENTIAL+XK_HMM_LOGARITHMIC)";
constexpr const char *kExpFixed = "flags&XK_HMM_EXPONENTIAL";
// Largest model the creators accept: every packed array then stays far
// below 2 GiB, so the size arithmetic below is exact in 64 bits and the
// allocator's int argument never overflows.
constexpr std::int64_t kMaxBytes = std::int64_t{1} << 30;

auto &tables() { return context().hmm; }
Server *sentinel() { return static_cast<Server *>(tables().servers); }

// ---- storage helpers -------------------------------------------------------

void *allocBytes(std::int64_t bytes) {
  if (bytes <= 0 || bytes > kMaxBytes) return nullptr;
  return kfxMalloc(static_cast<int>(bytes));
}

bool isFloat(unsigned status) { return (status & HMM_SERVER_FLOAT) != 0; }
bool isLog(unsigned status) { return (status & XK_HMM_LOGARITHMIC) != 0; }

// Whether a caller value stands for a zero probability.
bool impossibleS(float v, bool log) { return log ? v >= 30.0f : v <= 0.0f; }
bool impossibleW(short v, bool log) { return log ? v == 32767 : v <= 0; }

// The 32-bit slot of a fixed-point value: costs of 32766 and 32767 widen to
// a value whose sums cannot overflow a 32-bit accumulator.
std::int32_t widen(short v, bool log) {
  if (log && (v == 32766 || v == 32767)) return kW32Impossible;
  return v;
}
short narrow(std::int32_t v, bool log) {
  if (log && v >= kW32Impossible) return 32767;
  return static_cast<short>(v);
}

unsigned detectTopology(void **A, int N, unsigned status) {
  if (N < 2) return 0;
  const bool log = isLog(status);
  auto impossible = [&](int i, int j) {
    return isFloat(status) ? impossibleS(static_cast<float **>(static_cast<void *>(A))[i][j], log)
                           : impossibleW(static_cast<short **>(static_cast<void *>(A))[i][j], log);
  };
  for (int i = 1; i < N; ++i)
    for (int j = 0; j < i; ++j)
      if (!impossible(i, j)) return 0;
  if (N < 3) return HMM_SERVER_LEFT_RIGHT;
  for (int i = 0; i < N; ++i)
    for (int j = i + 3; j < N; ++j)
      if (!impossible(i, j)) return HMM_SERVER_LEFT_RIGHT;
  return HMM_SERVER_BAKIS;
}

// Number of 32-bit entries of a transition array, slack excluded.
std::int64_t transEntries(int N, unsigned status) {
  const std::int64_t n = N, nEven = padEven(N);
  const unsigned topo = status & kTopologyMask;
  if (isFloat(status)) {
    if (topo == HMM_SERVER_BAKIS) return std::max<std::int64_t>(3 * n + 1, 3 * (pad4(N) + 4));
    if (topo == HMM_SERVER_LEFT_RIGHT) return std::max<std::int64_t>(n * (n + 1) / 2, 3 * (pad4(N) + 4));
    return std::max<std::int64_t>(n * n, 3 * (pad4(N) + 4));
  }
  if (topo == HMM_SERVER_BAKIS) return 3 * nEven;
  if (topo == HMM_SERVER_LEFT_RIGHT) return (n + 1) * (n + 1) / 2;
  return n * nEven;
}

// Walks the packed transition order of the topology and representation:
// slot(k, i, j) for every slot k that holds a[i][j], pad(k, second) for
// every padding slot of a fixed-point array (second: the stretch-end word
// of the Bakis form). Packing and unpacking are both this walk.
template <class Slot, class Pad>
void forEachSlot(int N, unsigned status, Slot slot, Pad pad) {
  const unsigned topo = status & kTopologyMask;
  const bool log = isLog(status), fl = isFloat(status);
  const bool odd = (N & 1) != 0;
  std::int64_t k = 0;
  if (topo == HMM_SERVER_BAKIS && fl && log) {
    for (int i = 0; i < N; ++i) slot(k++, i, i);
    for (int i = 0; i + 1 < N; ++i) slot(k++, i, i + 1);
    for (int i = 0; i + 2 < N; ++i) slot(k++, i, i + 2);
    slot(k++, N - 1, N - 1);
  } else if (topo == HMM_SERVER_BAKIS && fl) {
    for (int i = 0; i + 2 < N; ++i) {
      slot(k++, i, i);
      slot(k++, i, i + 1);
      slot(k++, i, i + 2);
    }
    slot(k++, N - 2, N - 2);
    slot(k++, N - 2, N - 1);
    slot(k++, N - 1, N - 1);
    slot(k++, N - 1, N - 1);
  } else if (topo == HMM_SERVER_BAKIS) {
    // Three stretches indexed by the target state, band offsets 0, 1, 2.
    for (int d = 0; d < 3; ++d) {
      for (int j = 0; j < d; ++j) pad(k++, false);
      for (int j = d; j < N; ++j) slot(k++, j - d, j);
      if (odd) pad(k++, true);
    }
  } else if (topo == HMM_SERVER_LEFT_RIGHT) {
    if (log) {
      for (int j = N - 1; j >= 0; --j)
        for (int i = 0; i <= j; ++i) slot(k++, i, j);
    } else {
      for (int i = 0; i < N; ++i)
        for (int j = i; j < N; ++j) slot(k++, i, j);
    }
    if (!fl)
      for (const std::int64_t total = transEntries(N, status); k < total;) pad(k++, false);
  } else {
    // log: stretch r is column N-1-r; linear: stretch r is row r.
    for (int r = 0; r < N; ++r) {
      for (int x = 0; x < N; ++x) log ? slot(k++, x, N - 1 - r) : slot(k++, r, x);
      if (odd && !fl) pad(k++, false);
    }
  }
}

// How one type's matrices are stored: the caller's element In, the stored
// Slot, the slot of a caller value and back, the padding words, the row
// padding, and the caller's value of an entry that is not stored.
struct FloatPacking {
  using In = float;
  using Slot = float;
  bool log;
  Slot slot(In v) const { return v; }
  In value(Slot v) const { return v; }
  Slot pad() const { return kLargest; }
  Slot pad2() const { return kLargest; }
  std::int64_t row(int n) const { return pad4(n); }
  In none() const { return log ? kLargest : 0.0f; }
};
struct FixedPacking {
  using In = short;
  using Slot = std::int32_t;
  bool log;
  Slot slot(In v) const { return widen(v, log); }
  In value(Slot v) const { return narrow(v, log); }
  Slot pad() const { return log ? kW32Impossible : 0; }
  Slot pad2() const { return log ? kW32Pad : 0; }
  std::int64_t row(int n) const { return padEven(n); }
  In none() const { return log ? 32767 : 0; }
};

// Calls f(packing) with the packing of a server's type.
template <class F>
auto withPacking(unsigned status, F f) {
  return isFloat(status) ? f(FloatPacking{isLog(status)}) : f(FixedPacking{isLog(status)});
}

// A block of n slots (a tail of kTransSlack included) filled with padding.
template <class P>
typename P::Slot *paddedBlock(const P &p, std::int64_t offset, std::int64_t n, void **block) {
  *block = allocBytes(offset + n * 4);
  if (*block == nullptr) return nullptr;
  auto *d = reinterpret_cast<typename P::Slot *>(static_cast<char *>(*block) + offset);
  std::fill(d, d + n, p.pad());
  return d;
}

// Discrete outputs: M row pointers, then M rows of the N states' values
// padded by type, then a tail that lets kernels read a whole vector past
// the last row.
template <class P>
void *packOutputs(const P &p, void **B, int N, int M) {
  const std::int64_t row = p.row(N);
  const std::int64_t table = (static_cast<std::int64_t>(M) * 8 + 31) & ~std::int64_t{31};
  void *block;
  auto *d = paddedBlock(p, table, row * M + kTransSlack, &block);
  if (d == nullptr) return nullptr;
  auto **b = reinterpret_cast<typename P::In **>(B);
  for (int k = 0; k < M; ++k) {
    static_cast<void **>(block)[k] = d + row * k;
    for (int i = 0; i < N; ++i) d[row * k + i] = p.slot(b[i][k]);
  }
  return block;
}

template <class P>
void *packInitial(const P &p, void *pi, int N) {
  void *block;
  auto *d = paddedBlock(p, 0, p.row(N) + kTransSlack, &block);
  if (d == nullptr) return nullptr;
  for (int i = 0; i < N; ++i) d[i] = p.slot(static_cast<typename P::In *>(pi)[i]);
  return block;
}

template <class P>
void *packTransitionArray(const P &p, void **A, int N, unsigned status) {
  void *block;
  auto *d = paddedBlock(p, 0, transEntries(N, status) + kTransSlack, &block);
  if (d == nullptr) return nullptr;
  auto **a = reinterpret_cast<typename P::In **>(A);
  forEachSlot(
      N, status, [&](std::int64_t k, int i, int j) { d[k] = p.slot(a[i][j]); },
      [&](std::int64_t k, bool second) { d[k] = second ? p.pad2() : p.pad(); });
  return block;
}

// XKGetHMMProb's unpacking: the caller's full matrices from the storage.
template <class P>
void unpackServer(const P &p, const Server *s, void *pi, void **A, void **B) {
  using In = typename P::In;
  using Slot = typename P::Slot;
  const int N = s->nStates, M = s->nSymbols;
  if (pi && s->initial)
    for (int i = 0; i < N; ++i) static_cast<In *>(pi)[i] = p.value(static_cast<const Slot *>(s->initial)[i]);
  if (A && s->transitions) {
    auto **a = reinterpret_cast<In **>(A);
    for (int i = 0; i < N; ++i) std::fill(a[i], a[i] + N, p.none());
    const auto *t = static_cast<const Slot *>(s->transitions);
    forEachSlot(N, s->status, [&](std::int64_t k, int i, int j) { a[i][j] = p.value(t[k]); }, [](std::int64_t, bool) {});
  }
  if (B && (s->status & HMM_SERVER_DISCRETE) && s->outputs) {
    auto **rows = static_cast<Slot **>(s->outputs);
    auto **b = reinterpret_cast<In **>(B);
    for (int i = 0; i < N; ++i)
      for (int k = 0; k < M; ++k) b[i][k] = p.value(rows[k][i]);
  }
}

// ---- tables and the server list --------------------------------------------

}  // namespace

bool makeTables() {
  auto &t = tables();
  if (t.flags & kTablesReady) return true;
  auto *srv = static_cast<Server *>(std::calloc(1, sizeof(Server)));
  void *cls = newClassSentinel();
  auto *cbs = static_cast<SemicontCodebook *>(std::calloc(1, sizeof(SemicontCodebook)));
  auto *cbw = static_cast<SemicontCodebook *>(std::calloc(1, sizeof(SemicontCodebook)));
  if (srv == nullptr || cls == nullptr || cbs == nullptr || cbw == nullptr) {
    std::free(srv);
    freeClassSentinel(cls);
    std::free(cbs);
    std::free(cbw);
    return false;
  }
  srv->next = srv->prev = srv;
  t.servers = srv;
  t.cursor = srv;
  t.serverCount = 0;
  t.classes = cls;
  t.classCount = 0;
  context().semicont.sCodebook = cbs;
  context().semicont.wCodebook = cbw;
  t.flags = 0x5000000;
  return true;
}

namespace {

// Links a zeroed record in after the insertion cursor with the cursor's id
// + 1, then moves the cursor to the end of the run of consecutive ids.
Server *newServer() {
  auto *rec = static_cast<Server *>(std::calloc(1, sizeof(Server)));
  if (rec == nullptr) return nullptr;
  auto &t = tables();
  auto *cur = static_cast<Server *>(t.cursor);
  rec->id = cur->id + 1;
  rec->prev = cur;
  rec->next = cur->next;
  cur->next->prev = rec;
  cur->next = rec;
  Server *c = rec;
  while (c->next != sentinel() && c->next->id == c->id + 1) c = c->next;
  t.cursor = c;
  ++t.serverCount;
  return rec;
}

void freeStorage(Server *s) {
  if ((s->status & HMM_SERVER_OWNS_MIXTURES) && s->mixtures != nullptr)
    for (int i = 0; i < s->nStates; ++i) XKsFreeGaussMixServer(s->mixtures[i]);
  std::free(s->mixtures);
  kfxFree(s->transitions);
  kfxFree(s->outputs);
  kfxFree(s->initial);
  kfxFree(s->auxiliary);
}

void unlinkAndFree(Server *s) {
  auto &t = tables();
  if (s->id <= static_cast<Server *>(t.cursor)->id) t.cursor = s->prev;
  s->prev->next = s->next;
  s->next->prev = s->prev;
  --t.serverCount;
  freeStorage(s);
  std::free(s);
}

// Creators' common tail: a failed parameter setter (negative thread
// status) or a failed allocation frees the half-made server.
int finishOrDiscard(Server *s, bool ok) {
  if (ok && !statusFailed()) return s->id;
  XKFreeHMMServer(s->id);
  return -1;
}

bool sizesOk(int N, int M, bool discrete) {
  if (N < 1 || N > 16384) return false;
  if (discrete && (M < 1 || static_cast<std::int64_t>(M) * padEven(N) * 4 > kMaxBytes)) return false;
  return true;
}

int initDiscrete(void **A, void **B, void *pi, int N, int M, unsigned rep, unsigned type) {
  if (!sizesOk(N, M, true) || A == nullptr || B == nullptr || pi == nullptr) return -1;
  if (!makeTables()) return -1;
  Server *s = newServer();
  if (s == nullptr) return -1;
  XKSetHMMServerParm(s->id, 0, A, B, pi, N, M, static_cast<int>(rep | HMM_SERVER_DISCRETE | type));
  return finishOrDiscard(s, s->transitions != nullptr && s->outputs != nullptr && s->initial != nullptr);
}

template <bool Fixed>
int initContinuous(void **A, void *pi, mixture_description **mix, int N, int nQuant, unsigned rep, int param) {
  if (!sizesOk(N, 0, false) || A == nullptr || pi == nullptr || mix == nullptr || nQuant < 1) return -1;
  for (int i = 0; i < N; ++i)
    if (mix[i] == nullptr || mix[i]->dim != nQuant) return -1;
  if (!makeTables()) return -1;
  Server *s = newServer();
  if (s == nullptr) return -1;
  const unsigned type = Fixed ? HMM_SERVER_SHORT : HMM_SERVER_FLOAT;
  XKSetHMMServerParm(s->id, 0, A, nullptr, pi, N, -1,
                     static_cast<int>(rep | HMM_SERVER_CONT | type | HMM_SERVER_OWNS_MIXTURES));
  bool ok = s->transitions != nullptr && s->initial != nullptr;
  if (ok) {
    s->mixtures = static_cast<GaussMixServer **>(std::calloc(static_cast<std::size_t>(N), sizeof(void *)));
    ok = s->mixtures != nullptr;
  }
  for (int i = 0; ok && i < N; ++i) {
    const GaussMixServer *d = mix[i];
    const int flags = d->flags | 0x40000000;
    s->mixtures[i] =
        Fixed ? XKwInitGaussMixServer(static_cast<const short *>(d->weights), reinterpret_cast<short **>(d->means),
                                      reinterpret_cast<short ***>(d->InverseCov),
                                      reinterpret_cast<short **>(d->InverseCovD), d->dim, d->nMix, flags, d->scale)
              : XKsInitGaussMixServer(static_cast<const float *>(d->weights), reinterpret_cast<float **>(d->means),
                                      reinterpret_cast<float ***>(d->InverseCov),
                                      reinterpret_cast<float **>(d->InverseCovD), d->dim, d->nMix, flags);
    ok = s->mixtures[i] != nullptr;
  }
  s->nQuant = nQuant;
  s->param = Fixed ? param : 0;
  return finishOrDiscard(s, ok);
}

}  // namespace

// ---- internal interface ------------------------------------------------------

bool tablesReady() { return (tables().flags & kTablesReady) != 0; }

Server *findServer(int id) {
  return tablesReady() && id >= 1 ? findSorted(sentinel(), id) : nullptr;
}

bool getServer(int id, ServerView *view) {
  *view = ServerView{};
  const Server *s = findServer(id);
  if (s == nullptr) return false;
  view->tag = s->tag;
  view->transitions = s->transitions;
  view->outputs = (s->status & HMM_SERVER_CONT) ? static_cast<void *>(s->mixtures) : s->outputs;
  view->initial = s->initial;
  view->nStates = s->nStates;
  view->nSymbols = s->nSymbols;
  view->nQuant = s->nQuant;
  view->param = s->param;
  view->status = s->status;
  return true;
}

void setKernelLayout(bool on) { context().hmm.kernelLayoutOff = on ? 0 : 1; }
bool kernelLayout() { return context().hmm.kernelLayoutOff == 0; }

void releaseCodebook(SemicontCodebook *cb) {
  if (cb == nullptr) return;
  if ((cb->flags & kCodebookOwnsServers) && cb->servers != nullptr)
    for (int k = 0; k < cb->nSymbols; ++k) XKsFreeGaussMixServer(cb->servers[k]);
  std::free(cb->servers);
  std::free(cb->symbolCoefs);
  std::free(cb->second);
  *cb = SemicontCodebook{};
}

}  // namespace xk::hmm

using namespace xk::hmm;

extern "C" {

void XKSetHMMServerParm(int id, int tag, void **A, void **B, void *pi, int nStates, int nSymbols, int flags) {
  Server *s = findServer(id);
  if (s == nullptr) return;
  static constexpr const char *kFunc = "XKSetHMMServerParm";
  const int N = nStates >= 0 ? nStates : s->nStates;
  const int M = nSymbols >= 0 ? nSymbols : s->nSymbols;
  unsigned status = flags >= 0 ? static_cast<unsigned>(flags) : s->status;
  const bool cont = (status & HMM_SERVER_CONT) != 0;
  bool bad = false;
  if (nStates >= 0 && (A == nullptr || pi == nullptr || (B == nullptr && !cont))) {
    xk::report(XK_StsBadArg, kFunc, "change HMM nStates without data", kModHint, 542);
    bad = true;
  }
  if (nSymbols >= 0 && B == nullptr) {
    xk::report(XK_StsBadArg, kFunc, "change HMM nSymbols without data", kModHint, 550);
    bad = true;
  }
  if ((status & kTypeBits) == 0) {
    xk::report(XK_StsError, kFunc, "wrong HMM flavor", kModHint, 560);
    bad = true;
  }
  if (bad || N < 1) return;
  // A continuous server's mixtures are one per state: its state count is
  // fixed once they exist.
  if (cont && s->mixtures != nullptr && N != s->nStates) return;

  if (A != nullptr) {
    const unsigned topo = detectTopology(A, N, status);
    kfxFree(s->transitions);
    s->transitions = nullptr;
    status = (status & ~(kTopologyMask | HMM_SERVER_KERNEL_LAYOUT)) | topo;
    if (isFloat(status) && isLog(status) && kernelLayout()) status |= HMM_SERVER_KERNEL_LAYOUT;
    s->transitions = withPacking(status, [&](const auto &p) { return packTransitionArray(p, A, N, status); });
  }
  if (B != nullptr && !cont) {
    kfxFree(s->outputs);
    s->outputs = withPacking(status, [&](const auto &p) { return packOutputs(p, B, N, M); });
  }
  if (pi != nullptr) {
    kfxFree(s->initial);
    s->initial = withPacking(status, [&](const auto &p) { return packInitial(p, pi, N); });
  }
  s->tag = tag;
  s->status = status;
  s->nStates = N;
  s->nSymbols = M;
}

int XKsInitHMMServer(float **A, float **B, float *pi, int nStates, int nSymbols, int flags) {
  unsigned rep = static_cast<unsigned>(flags) & (XK_HMM_LOGARITHMIC | XK_HMM_EXPONENTIAL);
  if (rep == (XK_HMM_LOGARITHMIC | XK_HMM_EXPONENTIAL)) {
    // Reported under the fixed-point creator's name, as the library always has.
    xk::report(XK_StsBadArg, "XKwInitHMMServer", kBothReps, kModHman, 631);
    return -1;
  }
  if (rep == 0) rep = XK_HMM_LOGARITHMIC;
  return initDiscrete(reinterpret_cast<void **>(A), reinterpret_cast<void **>(B), pi, nStates, nSymbols, rep,
                      HMM_SERVER_FLOAT);
}

int XKwInitHMMServer(short **A, short **B, short *pi, int nStates, int nSymbols, int flags) {
  if (flags & XK_HMM_EXPONENTIAL) {
    xk::report(XK_StsBadArg, "XKwInitHMMServer", kExpFixed, kModHman, 544);
    return -1;
  }
  return initDiscrete(reinterpret_cast<void **>(A), reinterpret_cast<void **>(B), pi, nStates, nSymbols,
                      static_cast<unsigned>(flags) & XK_HMM_LOGARITHMIC, HMM_SERVER_SHORT);
}

int XKsInitContHMMServer(float **A, float *pi, mixture_description **mix, int nStates, int nQuant, int flags) {
  unsigned rep = static_cast<unsigned>(flags) & (XK_HMM_LOGARITHMIC | XK_HMM_EXPONENTIAL);
  if (rep == (XK_HMM_LOGARITHMIC | XK_HMM_EXPONENTIAL)) {
    xk::report(XK_StsBadArg, "XKsInitContHMMServer", kBothReps, kModHman, 802);
    return -1;
  }
  if (rep == 0) rep = XK_HMM_LOGARITHMIC;
  return initContinuous<false>(reinterpret_cast<void **>(A), pi, mix, nStates, nQuant, rep, 0);
}

int XKwInitContHMMServer(short **A, short *pi, mixture_description **mix, int nStates, int nQuant, int flags,
                         int param) {
  if (flags & XK_HMM_EXPONENTIAL) {
    xk::report(XK_StsBadArg, "XKwInitContHMMServer", kExpFixed, kModHman, 698);
    return -1;
  }
  return initContinuous<true>(reinterpret_cast<void **>(A), pi, mix, nStates, nQuant,
                              static_cast<unsigned>(flags) & XK_HMM_LOGARITHMIC, param);
}

void XKFreeHMMServer(int id) {
  Server *s = findServer(id);
  if (s == nullptr) return;
  removeFromAllClasses(id);
  unlinkAndFree(s);
}

int XKHMMFreeAll(void) {
  if (!tablesReady()) return 0;
  auto &ctx = xk::context();
  for (void *cb : {ctx.semicont.sCodebook, ctx.semicont.wCodebook}) {
    releaseCodebook(static_cast<SemicontCodebook *>(cb));
    std::free(cb);
  }
  ctx.semicont.sCodebook = ctx.semicont.wCodebook = nullptr;
  freeAllClasses();
  freeClassSentinel(ctx.hmm.classes);
  Server *head = static_cast<Server *>(ctx.hmm.servers);
  for (Server *s = head->next; s != head;) {
    Server *next = s->next;
    freeStorage(s);
    std::free(s);
    s = next;
  }
  std::free(head);
  const int layoutOff = ctx.hmm.kernelLayoutOff;
  ctx.hmm = {};
  ctx.hmm.kernelLayoutOff = layoutOff;
  return 0;
}

int XKGetHMMParm(int id, int *nStates, int *nSymbols, int *nQuant, int *param, int *status) {
  const Server *s = findServer(id);
  if (s == nullptr) return -1;
  if (nStates) *nStates = s->nStates;
  if (nSymbols) *nSymbols = s->nSymbols;
  if (nQuant) *nQuant = s->nQuant;
  if (param) *param = s->param;
  if (status) *status = static_cast<int>(s->status);
  return 0;
}

int XKGetHMMProb(int id, void *pi, void **A, void **B) {
  const Server *s = findServer(id);
  if (s == nullptr) return -1;
  withPacking(s->status, [&](const auto &p) { unpackServer(p, s, pi, A, B); });
  return 0;
}

void XKSetHMMMode(int mode) {
  if (!makeTables()) return;
  auto &flags = xk::context().hmm.flags;
  if (mode & 0x4000000)
    flags = (flags | kModeFree) & ~kModeKeep;
  else if (mode & 0x8000000)
    flags = (flags | kModeKeep) & ~kModeFree;
}

}  // extern "C"
