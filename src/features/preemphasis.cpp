// First-order pre-emphasis, float and 16-bit.
#include <cstdint>

#include "features/features_internal.h"
#include "xkl/xk_convert.h"

using xk::features::kModPree;

namespace {

// The 16-bit kernels keep the integer arithmetic of a packed-word machine:
// the aligned groups of four saturate, the edges wrap to 16 bits.
inline short wrap16(std::int32_t v) { return static_cast<short>(static_cast<std::uint16_t>(v)); }
inline short sat16(std::int32_t v) {
  return static_cast<short>(v > 32767 ? 32767 : (v < -32768 ? -32768 : v));
}

// y[i] = (x[i] 2^14 - a x[i-1]) >> (14 + s); x[0] >> s.
void scaledKernel(short *x, int n, int a, int s) {
  const int shift = 14 + s;  // 0..28 on this path
  if (n < 1) return;
  const std::int32_t x0 = x[0];
  x[0] = wrap16(s >= 0 ? (x0 >> s) : static_cast<std::int32_t>(static_cast<std::uint32_t>(x0) << -s));
  // The groups of four start at the first element with index >= 1 whose
  // address is 8-byte aligned.
  int g = 1;
  while (g < n && (reinterpret_cast<std::uintptr_t>(x + g) & 7) != 0) ++g;
  const int groupsEnd = g + ((n - g) / 4) * 4;
  std::int32_t prev = x0;
  for (int i = 1; i < n; ++i) {
    const std::int32_t cur = x[i];
    const std::int32_t v = (cur * 16384 - a * prev) >> shift;
    x[i] = (i >= g && i < groupsEnd) ? sat16(v) : wrap16(v);
    prev = cur;
  }
}

// y[i] = x[i] - ((a x[i-1]) >> 14), saturated; x[0] unchanged.
void saturatingKernel(short *x, int n, int a) {
  if (n < 2) return;
  std::int32_t prev = x[0];
  for (int i = 1; i < n; ++i) {
    const std::int32_t cur = x[i];
    x[i] = sat16(cur - ((a * prev) >> 14));
    prev = cur;
  }
}

}  // namespace

extern "C" {

XKL_API void XKsPreemphasize(float *x, float alpha, int n) {
  if (x == nullptr || n < 2) return;
  // Forward, keeping the previous input: the same values as a backward
  // in-place loop, and a loop the compiler can keep in registers.
  const double a = alpha;
  float prev = x[0];
  for (int i = 1; i < n; ++i) {
    const float cur = x[i];
    x[i] = static_cast<float>(static_cast<double>(cur) - a * static_cast<double>(prev));
    prev = cur;
  }
}

XKL_API void XKwPreemphasize(short *x, float alpha, int n, int mode, int *scale) {
  int localScale = 0;
  if (scale == nullptr) scale = &localScale;
  if (alpha >= 0.0f && alpha <= 1.0f && (mode != 1 || (*scale > -15 && *scale < 15))) {
    int order = -14;
    const int a = XKswConvertDown(alpha, XK_FIXED_SCALE, &order);
    if (x == nullptr) return;
    switch (mode) {
      case 0:
        *scale = 0;
        break;
      case 1:
        break;
      case 2:
        *scale = (n > 0 && XKwMaxOrder(x, n) >= 16) ? 1 : 0;
        break;
      default:
        // Mode 3, and like the block conversions every other mode:
        // saturate, scale 0.
        *scale = 0;
        saturatingKernel(x, n, a);
        return;
    }
    scaledKernel(x, n, a, *scale);
    return;
  }
  if (x == nullptr || n < 1) return;
  auto &ctx = xk::context().preemphLpSpec;
  if (n > ctx.buffLen) {
    xk::features::freeAligned(ctx.buff);
    ctx.buff = nullptr;
    ctx.buffLen = 0;
    ctx.buff = static_cast<float *>(xk::features::allocAligned(sizeof(float) * static_cast<size_t>(n)));
    if (ctx.buff == nullptr) {
      xk::report(XK_StsNoMem, "XKwPreemphasize", "insufficiency of memory for pointer  buff", kModPree,
                 __LINE__);
      return;
    }
    ctx.buffLen = n;
  }
  XKwsbConvertUp(x, ctx.buff, n, 0);
  XKsPreemphasize(ctx.buff, alpha, n);
  XKswbConvertDown(ctx.buff, x, n, mode, scale);
}

XKL_API int XKFreePreemphasizeTbls(void) {
  auto &ctx = xk::context().preemphLpSpec;
  xk::features::freeAligned(ctx.buff);
  ctx.buff = nullptr;
  ctx.buffLen = 0;
  return 0;
}

}  // extern "C"
