// The HMM server store as the evaluators see it: the server record, the
// accessor, the class walk, and the constants of the packed layouts.
//
// Packed storage (built by the parameter setter, read by the kernels):
//   float arrays start on 16 bytes; rows of outputs and the initial vector
//   are padded to Npad = N rounded up to 4 with the largest float.
//   Float transitions, logarithmic:
//     general:    N*N, column by column from j = N-1 down to 0, each column
//                 a[0][j] .. a[N-1][j] (the predecessors of j together);
//     left-right: for j = N-1 down to 0: a[0][j] .. a[j][j];
//     Bakis:      a[i][i] (i < N), a[i][i+1] (i < N-1), a[i][i+2] (i < N-2),
//                 a[N-1][N-1].
//   Float transitions, exponential:
//     general:    row-major a[i][j];
//     left-right: for i = 0..N-1: a[i][i] .. a[i][N-1];
//     Bakis:      (a[i][i], a[i][i+1], a[i][i+2]) for i < N-2, then
//                 a[N-2][N-2], a[N-2][N-1], a[N-1][N-1], a[N-1][N-1].
//   Every float transition array is followed by at least kTransSlack
//   entries of the largest float, so kernels may read whole vectors past
//   its end (that tail is the fast-kernel form; see kernelSlack()).
//   Fixed point: 32-bit slots holding sign-extended 16-bit values; in a
//   logarithmic server 32766 and 32767 become kW32Impossible. Transitions:
//     general:    N stretches of Neven words in the orders above, each
//                 padded to even;
//     left-right: (N+1)(N+1)/2 words (rounded down), columns (log) or rows
//                 (linear) in the orders above, no padding between them;
//     Bakis:      three stretches of Neven words indexed by the target j:
//                 a[j][j]; then kW32Impossible, a[j-1][j] (j >= 1); then
//                 kW32Impossible twice, a[j-2][j] (j >= 2); an odd N ends
//                 each stretch with kW32Pad.
//   Discrete outputs: a table of M row pointers, then M rows; row k holds
//   b[i][k] for i = 0..N-1 (float: padded to Npad; w: 32-bit slots padded
//   to even). Initial: N entries (float: padded to Npad; w: 32-bit slots
//   padded to even).
#pragma once

#include <climits>
#include <cstdint>

#include "xkl/xk_hmm.h"

namespace xk::hmm {

inline constexpr const char *kModHman = "XK_HMAN";
inline constexpr const char *kModHint = "XK_HINT";
inline constexpr const char *kModHvit = "XK_HVIT";
inline constexpr const char *kModHfor = "XK_HFOR";

inline constexpr float kLargest = 3.4028235e38f;        // impossible float cost / failure value
inline constexpr std::int32_t kW32Impossible = 0x1FFFFF; // widened impossible fixed-point cost
inline constexpr std::int32_t kW32Pad = 0x1FFFFFFF;      // second padding word / guard cell
inline constexpr std::int32_t kWFail = 0x7FFFFFFF;       // failure value of the w evaluators
inline constexpr unsigned kKindMask = 0xE000F3;
inline constexpr unsigned kTopologyMask = HMM_SERVER_LEFT_RIGHT | HMM_SERVER_BAKIS;
inline constexpr int kTransSlack = 32;  // floats (or 32-bit slots) of tail after each transition array

inline int pad4(int n) { return (n + 3) & ~3; }
inline int padEven(int n) { return (n + 1) & ~1; }

// One server record; fields in the documented order, native pointers.
struct Server {
  int id;
  int tag;
  int nStates;
  int nSymbols;
  void *transitions;
  void *outputs;   // discrete: void*[M] row table then rows; continuous: null
  void *initial;
  Server *next, *prev;
  unsigned status;
  void *auxiliary;
  GaussMixServer **mixtures;  // continuous: N handles
  int nQuant;
  int param;
};

// What the evaluators need of one server, read through the accessor.
struct ServerView {
  int tag = 0;
  void *transitions = nullptr;
  void *outputs = nullptr;  // the mixtures array for a continuous server
  void *initial = nullptr;
  int nStates = 0, nSymbols = 0, nQuant = 0, param = 0;
  unsigned status = 0;
};

// True once the calling thread's HMM tables exist.
bool tablesReady();

// The thread's server with this id, or null.
Server *findServer(int id);

// The internal accessor: fills *view for a known id and returns true; an
// unknown id gives a zeroed view and false.
bool getServer(int id, ServerView *view);

// Class walk: the class of this id or null; rewind marks it not started;
// next returns the next member id in ascending order, 0 at the end.
struct HmmClass;
HmmClass *findClass(int classId);
void classRewind(HmmClass *cls);
int classNext(HmmClass *cls);

// The topology a server's status records.
enum class Topology { General, LeftRight, Bakis };
inline Topology topologyOf(unsigned status) {
  if (status & HMM_SERVER_BAKIS) return Topology::Bakis;
  if (status & HMM_SERVER_LEFT_RIGHT) return Topology::LeftRight;
  return Topology::General;
}

// The evaluators' walk: score(id, view) for server idOrClass (> 0), or for
// every member of class -idOrClass in ascending id order; score returns
// false to stop. False for an unknown class or a stopped walk.
template <class Score>
bool forEachCandidate(int idOrClass, Score &&score) {
  ServerView view;
  if (idOrClass > 0) return !getServer(idOrClass, &view) || score(idOrClass, view);
  if (idOrClass == INT_MIN) return false;
  HmmClass *cls = findClass(-idOrClass);
  if (cls == nullptr) return false;
  classRewind(cls);
  for (int id = classNext(cls); id != 0; id = classNext(cls))
    if (getServer(id, &view) && !score(id, view)) return false;
  return true;
}

// The thread's fast-kernel switch (on unless a test turns it off): float
// logarithmic servers made while it is on carry HMM_SERVER_KERNEL_LAYOUT.
void setKernelLayout(bool on);
bool kernelLayout();

}  // namespace xk::hmm
