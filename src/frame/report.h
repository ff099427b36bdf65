// The one helper through which every function of the library reports a
// failure. It forwards to XKError, which stores the status and calls the
// thread's handler; the caller then returns its own failure value.
#pragma once

#include "xkl/xk_error.h"

namespace xk {

// Reports `status` for `func` with `message` from `module` at `line` and
// returns the handler's result.
inline int report(int status, const char *func, const char *message, const char *module,
                  int line) {
  return XKError(status, func, message, module, line);
}

// Passes a failure of a called library routine upward: status
// XK_StsBackTrace and an empty message build the "called from" chain.
inline int backTrace(const char *func, const char *module, int line) {
  return XKError(XK_StsBackTrace, func, "", module, line);
}

// True when the thread's stored status is a failure; checking functions then
// return their failure value (the status is sticky until XKSetStatus).
bool statusFailed();

}  // namespace xk
