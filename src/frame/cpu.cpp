// Processor probe shared by every vectorised kernel.
#include "frame/cpu.h"

#include <cstdlib>
#include <cstring>

namespace xk {
namespace {

CpuFeatures probe() {
  CpuFeatures f{false, false, false, false};
  const char *off = std::getenv("XKL_NO_SIMD");
  if (off != nullptr && std::strcmp(off, "1") == 0) return f;
#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
  __builtin_cpu_init();
  f.sse2 = __builtin_cpu_supports("sse2");
  f.avx2 = __builtin_cpu_supports("avx2");
  f.fma = __builtin_cpu_supports("fma");
  f.avx512f = __builtin_cpu_supports("avx512f");
#endif
  return f;
}

}  // namespace

const CpuFeatures &cpuFeatures() {
  static const CpuFeatures features = probe();  // thread-safe initialisation
  return features;
}

}  // namespace xk
