// The thread's semicontinuous codebook records (one float, one 16-bit),
// made zeroed with the HMM tables. Their functions arrive with the
// semicontinuous models; the tables already own and release them.
#pragma once

#include "xkl/xk_gauss.h"

namespace xk::hmm {

struct SemicontCodebook {
  int nSymbols;
  int dim;
  unsigned flags;  // 0: empty; 0x40000000 | flavour bit when present
  int zero;
  GaussMixServer **servers;
  int spare[2];
  void *symbolCoefs;  // the allocation (its aligned start is inside)
  void *second;
};

inline constexpr unsigned kCodebookOwnsServers = 0x40000000;

// Frees what a codebook record holds and empties it.
void releaseCodebook(SemicontCodebook *cb);

}  // namespace xk::hmm
