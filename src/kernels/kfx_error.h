// Status word and error routine of the kernel layer (kept per thread).
#pragma once

#include "xkl/kfx.h"

namespace kfx {

// Source module names of the kernel layer, as they appear in reports.
inline constexpr const char *kModFfts = "kfxffts";
inline constexpr const char *kModFftw = "kfxfftw";
inline constexpr const char *kModTwd = "kfxtwd";
inline constexpr const char *kModNorm = "kfxnorm";
inline constexpr const char *kModVec = "kfxvec";
inline constexpr const char *kModDct = "kfxdct";
inline constexpr const char *kModCorr = "kfxcorr";
inline constexpr const char *kModArith = "kfxarith";
inline constexpr const char *kModMisc = "kfxmisc";

// Records a failure of the kernel layer for the calling thread: stores the
// status and the report. Returns the status.
int report(int status, const char *func, const char *message, const char *module, int line);

// The calling thread's kernel status.
int status();

}  // namespace kfx
