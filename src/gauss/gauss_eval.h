// Internal pieces of the mixture evaluation, exposed for the tests.
#pragma once

#include <cstdint>

namespace xk::gauss {

// exp(x) for x with F fraction bits, as a value with R fraction bits
// (R <= 30): table-driven, saturating at 0x7fffffff, 0 below about -21.48.
std::int32_t fixExp(std::int32_t x, int F, int R);

// The 64-bit mixture sum of work[m] * weights[m] and its output scaling:
// returns the 32-bit result and stores the factor (modes 1, 2 and others as
// documented for XKwEvalGaussMix). Requires nMix > 1.
std::int32_t mixAccumulate(const std::int32_t *work, const short *weights, int nMix, int scaleMode,
                           int *pScaleFactor);

// The diagonal float distance sum_i (x_i - m_i)^2 * iv_i in double on four
// lanes (lane i mod 4, combined as (0 + 2) + (1 + 3)); the vectorised path
// gives the same bits.
double sDiagDistance(const float *x, const float *m, const float *iv, int n);

// Switch between the vectorised and portable paths (tests, benchmarks).
void setSimdEnabled(bool on);

}  // namespace xk::gauss
