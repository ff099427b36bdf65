/* xkl: speech- and pattern-recognition primitives, float (s) and 16-bit
 * fixed-point (w) flavours, with a plain C interface. */
#ifndef XKL_H
#define XKL_H

#include "xkl/xkl_export.h"
#include "xkl/xk_error.h"
#include "xkl/xk_frame.h"
#include "xkl/xk_convert.h"
#include "xkl/kfx.h"
#include "xkl/xk_features.h"
#include "xkl/xk_vq.h"
#include "xkl/xk_dtw.h"
#include "xkl/xk_gauss.h"
#include "xkl/xk_hmm.h"
#include "xkl/xkl_status.h"
#include "xkl/xkl_frontend.h"

#endif /* XKL_H */
