// The fixed-point logarithm that turns 32-bit likelihoods into 32-bit costs
// for the fixed-point HMM evaluators.
#pragma once

#include <cstdint>

namespace xk::hmm {

// round(-ln(v * 2^expOffset) * 2^-precision) for v > 0 (so precision = -p
// gives a cost with p fraction bits); 0x1FFFFF for v <= 0. Results are
// clamped to -0x1FFFFF .. 0x1FFFFF so that sums of two costs cannot leave
// 32 bits. expOffset lies in -64..32.
std::int32_t fixLogCost(std::int32_t v, int expOffset, int precision);

// The same, in place over a row of n values.
void fixLogCostRow(std::int32_t *row, int n, int expOffset, int precision);

}  // namespace xk::hmm
